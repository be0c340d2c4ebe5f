// File answers: exact CGI headers, every byte of a file larger than one
// block, nothing written for a file that cannot be sent.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "platform/zevo/download.h"
#include "tests/framework/capture_stdout.h"

namespace {

class DownloadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/larkpost-download-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string WriteFile(const std::string& name, const std::string& content) {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }

  // What `run` wrote to standard output, and its result.
  std::string Capture(const std::function<int()>& run, int& result) {
    return larkpost::test::CaptureStdout([&] { result = run(); });
  }

  std::string dir_;
};

TEST_F(DownloadTest, SendsHeadersThenEveryByteAfterWhatStdioHeld) {
  // Several blocks and a partial one, with bytes that text handling would
  // lose.
  std::string content;
  for (int i = 0; i < 200001; ++i) content += static_cast<char>(i % 251);
  const std::string path = WriteFile("photo.png", content);

  int result = -1;
  const std::string out = Capture(
      [&] {
        std::fputs("Status: 200 OK\r\n", stdout);  // still in stdio's buffer
        ZEVO::APIDownload download;
        download.SetMimeTypeFromFileName("PHOTO.JPG");
        download.SetHeader("content-disposition", "inline");
        download.SetHeader("X-Extra", "1\r\nInjected: yes");
        download.SetHeader("Content-Disposition", "attachment;");  // replaces, any case
        download.SetHeader("Content-Length", "3");                 // the file's own wins
        return download.Output(path);
      },
      result);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(out,
            "Status: 200 OK\r\n"
            "Content-Length: 200001\r\n"
            "Content-Type: image/jpeg\r\n"
            "content-disposition: attachment;\r\n"
            "X-Extra: 1Injected: yes\r\n"
            "\r\n" +
                content);
}

TEST_F(DownloadTest, ContentTypeIsOctetStreamUnlessTheCallerSays) {
  const std::string path = WriteFile("f", "x");
  int result = -1;
  EXPECT_EQ(Capture([&] { return ZEVO::APIDownload().Output(path); }, result),
            "Content-Length: 1\r\nContent-Type: application/octet-stream\r\n\r\nx");
}

TEST_F(DownloadTest, WritesNothingForWhatCannotBeSent) {
  for (const std::string& path : {dir_ + "/missing", dir_}) {
    int result = 0;
    EXPECT_EQ(Capture([&] { return ZEVO::APIDownload().Output(path); }, result), "") << path;
    EXPECT_EQ(result, -1) << path;
    EXPECT_EQ(Capture([&] { return ZEVO::HTTPFileOutputer::Output(path, "a/b"); }, result), "")
        << path;
    EXPECT_EQ(result, -1) << path;
  }
}

TEST_F(DownloadTest, FileOutputerNamesTheFileForTheClient) {
  struct Case {
    const char* name;
    const char* disposition;
  } cases[] = {
      {"report 2024.zip", "attachment; filename=\"report 2024.zip\""},
      {"r\xC3\xA9sum\xC3\xA9 \"v2\".zip",
       "attachment; filename=\"r__sum__ _v2_.zip\"; "
       "filename*=UTF-8''r%C3%A9sum%C3%A9%20%22v2%22.zip"},
  };
  for (const Case& c : cases) {
    const std::string path = WriteFile(c.name, "PK");
    int result = -1;
    const std::string out = Capture(
        [&] { return ZEVO::HTTPFileOutputer::Output(path, "application/force-download"); }, result);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(out, std::string("Content-Length: 2\r\nContent-Type: application/force-download\r\n"
                               "Content-Disposition: ") +
                       c.disposition + "\r\n\r\nPK");
  }
}

}  // namespace
