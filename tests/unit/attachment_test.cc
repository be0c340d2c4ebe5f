// "ZEVO.Larkpost.Attachment": uploads copied into the user's temporary
// folder and registered, refused sources, shared-folder paths under the
// user's rights, and the streamed answers with their 404 pages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "tests/fake/fake_platform.h"
#include "tests/unit/handler_test_util.h"
#include "webapi/api_table.h"

namespace larkpost::test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using Argv = std::vector<std::string>;

constexpr char k404[] = "Status: 404 Not Found\r\n\r\n";
constexpr char kThumbTool[] = "/usr/zevo/bin/convert-thumb";

std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// `text` with "@" replaced by `value`, as the one line expected; no line
// for nullptr.
std::vector<std::string> Line(const char* text, const std::string& value = "") {
  if (text == nullptr) return {};
  std::string line = text;
  if (size_t at = line.find('@'); at != std::string::npos) line.replace(at, 1, value);
  return {line};
}

class AttachmentTest : public HandlerTest {
 protected:
  void SetUp() override {
    HandlerTest::SetUp();
    tmp_ = temp_root_ + "/1026/.ORNIC/@tmp";
    Add(1, "a.pdf", "application/pdf", false, "%PDF");
    Add(2, "anim.gif", "image/gif", false, "GIF89a");
    Add(3, "inline.png", "image/png", true, "small png");
    Add(4, "photo.png", "image/png", false, "big png");
  }

  std::string Write(const std::string& path, const std::string& content = "data") {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  void Add(int id, const char* name, const char* type, bool is_inline, const std::string& data) {
    fake::platform().attachments[id] = {id, 0, type, name, "", is_inline, ""};
    fake::platform().contents[id] = data;
  }
  Json::Value Upload(const std::string& name, const std::string& file, bool is_inline = false) {
    Json::Value params;
    params["file"] = name;
    params["file_tmp"] = file;
    params["is_inline"] = is_inline;
    return Run(AttachmentUpload_v1, params);
  }
  Json::Value UploadVex(const std::string& source, bool admin) {
    Json::Value params;
    params["source"] = source;
    ZEVO::APIRequest request(params);
    request.SetLoginUser(kAlice, "alice", admin);
    ZEVO::APIResponse response;
    AttachmentUploadVex_v1(&request, &response);
    return response.ToEnvelope();
  }
  void Clear() {
    fake::core().calls.clear();
    fake::core().failures.clear();
    fake::platform().runs.clear();
    fake::ResetSystemLog();
  }
  // What the last registration was asked, after "AddAttachmentTemp ".
  std::string Registered() {
    return fake::CallsStartingWith("AttachmentControl::AddAttachmentTemp").back().substr(37);
  }

  std::string tmp_;  // the user's temporary folder
};

TEST_F(AttachmentTest, UploadCopiesAndTurnsUprightOnlyInlineImagesWithARotation) {
  struct Case {
    const char* name;
    bool is_inline;
    int rotation;
    unsigned int tool_error;
    bool converts;
    const char* registered;  // name, path, inline
    const char* copy;        // nullptr: no file written
    const char* logged;
  } cases[] = {
      {"a.pdf", true, 90, 0, false, "'a.pdf' '@' false", "data", nullptr},
      {"b.JPG", false, 90, 0, false, "'b.JPG' '@' false", "data", nullptr},
      {"c.jpg", true, 0, 0, false, "'c.jpg' '@' true", "data", nullptr},
      {"d.jpg", true, 90, 0, true, "'d.jpg' '@' true", "converted @", nullptr},
      {"e.jpg", true, 270, 0x203, true, "'e.jpg' '@' true", "data",
       "Failed to auto convert file @ to TMP, reason=[203]"},
      {"f.jpg", true, -1, 0, false, "'f.jpg' '@' true", nullptr, nullptr},
  };
  const std::string source = Write(temp_root_ + "/upload");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Clear();
    fs::remove_all(tmp_);
    fake::platform().random_count = 0;
    const std::string temp = tmp_ + "/attachment_00000001";
    fake::platform().rotations[source] = c.rotation;
    fake::platform().programs[kThumbTool] = [&](const Argv& argv) {
      if (c.tool_error == 0) Write(argv.back(), "converted " + argv[1]);
      return c.tool_error;
    };
    const Json::Value answer = Upload(c.name, source, c.is_inline);
    EXPECT_EQ(Data(answer)["content_id"], "cid-" + Data(answer)["id"].asString());
    EXPECT_EQ(Registered(), Line(c.registered, temp)[0]);
    EXPECT_EQ(fs::exists(temp) ? Line(Read(temp).c_str()) : Line(nullptr), Line(c.copy, source));
    const std::vector<Argv> runs = {{kThumbTool, source, "-auto-orient", temp}};
    EXPECT_EQ(fake::platform().runs, c.converts ? runs : std::vector<Argv>{});
    std::vector<std::string> logged = Line(c.logged, source);
    if (!logged.empty()) logged[0].replace(logged[0].find("TMP"), 3, temp);
    EXPECT_EQ(Logged("attachment"), logged);
  }
}

TEST_F(AttachmentTest, UploadRefusesWhatIsNotARegularFileOfAtMost40MiB) {
  const std::string dir = temp_root_ + "/in";
  fs::create_symlink(Write(dir + "/target.pdf"), dir + "/link.pdf");
  for (auto [name, size] : {std::pair{"/max.pdf", 41943040}, {"/over.pdf", 41943041}}) {
    fs::resize_file(Write(dir + name, ""), size);  // sparse: nothing written
  }
  struct Case {
    std::string source;
    int code;
  } cases[] = {{dir + "/max.pdf", 0},
               {dir + "/over.pdf", 460},
               {dir + "/link.pdf", 461},
               {dir + "/missing", 461},
               {dir, 461},
               {"", 461}};
  for (const Case& c : cases) {
    Clear();
    EXPECT_EQ(ErrorCode(Upload("a.pdf", c.source)), c.code) << c.source;
    EXPECT_EQ(fake::CallsStartingWith("AttachmentControl::").size(), c.code == 0 ? 1u : 0u);
    EXPECT_EQ(Logged("attachment"),
              Line(c.code == 461 ? "attachment [@] is not valid" : nullptr, c.source));
  }
}

TEST_F(AttachmentTest, UploadFailuresAnswer117AndNoNameIsUsedTwice) {
  const std::string source = Write(temp_root_ + "/a.txt");
  Write(tmp_ + "/attachment_taken", "older");
  fake::platform().random_names = {"attachment_taken", "attachment_fresh"};
  Upload("a.txt", source);
  EXPECT_EQ(Registered(), "'a.txt' '" + tmp_ + "/attachment_fresh' false");
  EXPECT_EQ(Read(tmp_ + "/attachment_taken"), "older");

  Clear();
  fake::core().failures["ZEVOFileCopy"] = 0;
  EXPECT_EQ(Upload("a.txt", source), ErrorAnswer(117));
  EXPECT_THAT(Logged("attachment"), ElementsAre("Failed to copy " + source + " to " + tmp_ +
                                                "/attachment_00000001, reason=[103]"));
  fake::core().failures = {{"AttachmentControl::AddAttachmentTemp", 0}};
  EXPECT_EQ(Upload("a.txt", source), ErrorAnswer(117));
  EXPECT_EQ(Read(tmp_ + "/attachment_00000002"), "data");  // left behind
  fake::core().failures = {{"ZevoUser::PrepareUserLarkpostDir", 503}};
  EXPECT_EQ(Upload("a.txt", source), ErrorAnswer(117));
}

TEST_F(AttachmentTest, UploadVexResolvesShares) {
  Write(temp_root_ + "/docs/a b/r.pdf", "report");
  Write(temp_root_ + "/homes/alice/x.txt", "home");
  fake::platform().shares = {{"docs", temp_root_ + "/docs"}, {"nopath", ""}};
  struct Case {
    const char* source;
    const char* copy;
    int code;
    const char* logged;
  } cases[] = {
      {"/docs/a b/r.pdf", "report", 0, nullptr},
      {"/home/x.txt", "home", 0, nullptr},
      {"/docs", nullptr, 120, nullptr},
      {"/", nullptr, 120, nullptr},
      {"docs/a b/r.pdf", nullptr, 120, nullptr},
      {"/nosuch/a", nullptr, 120, "Failed to ZEVOShareGet [nosuch][101]"},
      {"/nopath/a", nullptr, 120, "Failed to VESLSharePathGet[nopath]"},
      {"/docs/none", nullptr, 461, "attachment [@/docs/none] is not valid"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.source);
    Clear();
    const Json::Value answer = UploadVex(c.source, true);
    EXPECT_EQ(ErrorCode(answer), c.code);
    if (c.copy != nullptr) {
      const auto& temp = fake::platform().temps.at(Data(answer)["id"].asInt());
      EXPECT_EQ(Read(temp.path), c.copy);
      EXPECT_EQ(temp.name, fs::path(c.source).filename().string());
    }
    EXPECT_EQ(Logged("attachment"), Line(c.logged, temp_root_));
    EXPECT_EQ(fake::platform().shares_held, 0);
  }
}

TEST_F(AttachmentTest, UploadVexTestsReadAccessAsTheUserAndIsRootAgainAfter) {
  const std::string docs = temp_root_ + "/docs";
  chmod(Write(docs + "/open.txt").c_str(), 0644);
  chmod(Write(docs + "/closed.txt").c_str(), 0600);
  chmod(temp_root_.c_str(), 0711);
  chmod(docs.c_str(), 0755);
  fake::platform().shares = {{"docs", docs}};
  // As root the switch to uid 1026 works and only what it cannot read is
  // refused; otherwise the switch itself fails.
  const uid_t euid = geteuid();
  const char* refused = euid == 0 ? "Permission denied" : "Operation not permitted";
  for (auto [file, reason] :
       {std::pair{"open.txt", euid == 0 ? nullptr : refused}, {"closed.txt", refused}}) {
    Clear();
    EXPECT_EQ(ErrorCode(UploadVex(std::string("/docs/") + file, false)), reason ? 120 : 0);
    EXPECT_EQ(Logged("attachment"),
              Line(reason ? "Failed to access the file. err = @" : nullptr, reason ? reason : ""));
    EXPECT_EQ(geteuid(), euid);
    EXPECT_EQ(fake::platform().shares_held, 0);
  }
}

TEST_F(AttachmentTest, UploadStickerRegistersItsImageInline) {
  const std::string image = Write(temp_root_ + "/stickers/smile.png", "png");
  fake::platform().stickers = {{3, "smile", 1, 0, image}};
  Run(AttachmentUploadSticker_v1, J(R"({"id": 3})"));
  EXPECT_EQ(Registered(), "'smile.png' '" + tmp_ + "/attachment_00000001' true");
  EXPECT_EQ(Read(tmp_ + "/attachment_00000001"), "png");
  EXPECT_THAT(fake::CallsStartingWith("GetImageRotationDegree"), IsEmpty());

  EXPECT_EQ(Run(AttachmentUploadSticker_v1, J(R"({"id": 9})")), ErrorAnswer(462));
  EXPECT_THAT(Logged("attachment"), ElementsAre("sticker [9] does not exist"));
  for (ZEVO::APIHandler nothing : {AttachmentDelete_v1, AttachmentSaveVX_v1}) {
    Clear();
    EXPECT_EQ(Run(nothing, J(R"({"id": [1]})")), J(R"({"success": true})"));
    EXPECT_THAT(fake::core().calls, ElementsAre("Controller 1026 sid-alice"));
  }
}

std::string Answer(const std::string& type, const std::string& content, bool disposition) {
  return "Content-Length: " + std::to_string(content.size()) + "\r\nContent-Type: " + type +
         "\r\n" + (disposition ? "Content-Disposition: attachment\r\n" : "") + "\r\n" + content;
}

TEST_F(AttachmentTest, DownloadSendsTheWholeContentUnlessAPreviewIsMade) {
  struct Case {
    const char* params;
    std::string output;
    const char* logged;
  } cases[] = {
      {R"({"id": 1})", Answer("application/pdf", "%PDF", true), nullptr},
      {R"({"id": 1, "type": "original"})", Answer("application/pdf", "%PDF", false), nullptr},
      {R"({"id": 1, "type": "thumb"})", Answer("application/pdf", "%PDF", true), nullptr},
      {R"({"id": 2, "type": "thumb"})", Answer("image/gif", "GIF89a", true), nullptr},
      {R"({"id": 3, "type": "thumb"})", Answer("image/png", "small png", true), nullptr},
      {R"({"id": 9})", k404, "id [9] of attachment is not exist"},
      {R"({"id": null})", k404, "input parameter is not valid"},
  };
  for (const Case& c : cases) {
    Clear();
    const Streamed streamed = RunStreaming(AttachmentDownload_v1, J(c.params));
    EXPECT_EQ(streamed.output, c.output) << c.params;
    EXPECT_FALSE(streamed.json_enabled);
    EXPECT_THAT(fake::platform().runs, IsEmpty());
    EXPECT_EQ(Logged("attachment"), Line(c.logged)) << c.params;
  }
}

TEST_F(AttachmentTest, ThumbMakesAPreviewOnceAndSendsItUnderTheAttachmentsType) {
  const Json::Value thumb = J(R"({"id": 4, "type": "thumb"})");
  const std::string content_file = tmp_ + "/attachment_00000001";
  const std::string output = RunStreaming(AttachmentDownload_v1, thumb).output;
  ASSERT_EQ(fake::platform().runs.size(), 1u);
  const std::string preview = fake::platform().runs[0].back();
  EXPECT_THAT(preview, MatchesRegex(temp_root_ + "/1026/.ORNIC/@image/" + std::to_string(getpid()) +
                                    "_[0-9]+\\.jpg"));
  EXPECT_EQ(fake::platform().runs[0],
            (Argv{kThumbTool, content_file, "-auto-orient", "-define", "jpeg:size=320x320",
                  "-thumbnail", "320x320>", "-quality", "90", "-unsharp", "0.5x0.5+1.25+0.0",
                  "-colorspace", "sRGB", "-flatten", preview}));
  EXPECT_EQ(output, Answer("image/png", "converted " + content_file, false));
  EXPECT_FALSE(fs::exists(content_file));
  const auto& calls = fake::core().calls;  // no store handle while converting
  EXPECT_LT(std::find(calls.begin(), calls.end(), "Controller::CloseDatabaseConnection"),
            std::find(calls.begin(), calls.end(), "VESLCExecv /usr/zevo/bin/convert-thumb"));

  // Remembered: sent again without converting, while the file exists.
  Clear();
  EXPECT_EQ(RunStreaming(AttachmentDownload_v1, thumb).output, output);
  EXPECT_THAT(fake::platform().runs, IsEmpty());
  fs::remove(preview);
  fake::platform().programs[kThumbTool] = [](const Argv&) { return 0x201u; };
  EXPECT_EQ(RunStreaming(AttachmentDownload_v1, thumb).output, k404);
  const std::string failed = fake::platform().runs.at(0).back();
  const std::string kept = fake::platform().runs.at(0)[1];
  EXPECT_THAT(
      Logged("attachment"),
      ElementsAre("Failed to auto convert file " + kept + " to " + failed + ", reason=[201]",
                  "Fail to convert attachment thumbnail file[" + kept + ", " + failed + "]."));
  EXPECT_EQ(Read(kept), "big png");
}

TEST_F(AttachmentTest, DownloadTempSendsTheUploadAsAFileUnlessAnImagePreview) {
  int id = 7;
  for (const char* name : {"pic.png", "doc.pdf", "gone.png"}) {
    fake::platform().temps[id] = {id, tmp_ + "/" + name, name, "", "", false};
    if (id++ != 9) Write(tmp_ + "/" + name, "bytes");
  }
  const std::string attachment = "content-disposition: attachment;\r\n";
  struct Case {
    const char* params;
    std::string output;
    const char* logged;
  } cases[] = {
      {R"({"id": 7, "preview": true})", "image/png\r\n", nullptr},
      {R"({"id": 7})", "image/png\r\n" + attachment, nullptr},
      {R"({"id": 8, "preview": true})", "application/pdf\r\n" + attachment, nullptr},
      {R"({"id": 9})", k404, "File not exists! [@/gone.png]"},
      {R"({"id": 99})", k404, "id [99] of attachment is not exist"},
  };
  for (const Case& c : cases) {
    Clear();
    const Streamed streamed = RunStreaming(AttachmentDownloadTemp_v1, J(c.params));
    EXPECT_EQ(streamed.output,
              c.output == k404 ? c.output
                               : "Content-Length: 5\r\nContent-Type: " + c.output + "\r\nbytes");
    EXPECT_FALSE(streamed.json_enabled);
    EXPECT_EQ(Logged("attachment"), Line(c.logged, tmp_)) << c.params;
  }
}

class DownloadAllTest : public AttachmentTest {
 protected:
  void SetUp() override {
    AttachmentTest::SetUp();
    fake::core().messages[31].id = 31;  // no attachments
    auto& message = fake::core().messages[30];
    message.id = 30;
    int id = 10;
    for (const char* name : {"a.pdf", "a.pdf", "README", "a.pdf", "README"}) {
      Add(id, name, "x/y", false, "content " + std::to_string(id));
      message.attachments.push_back(fake::platform().attachments[id++]);
    }
  }
};

TEST_F(DownloadAllTest, PacksEveryAttachmentUnderNumberedNamesInTheUsersCodePage) {
  const std::string listing =
      "README=content 12\nREADME_1=content 14\n"
      "a.pdf=content 10\na_1.pdf=content 11\na_2.pdf=content 13\n";
  for (auto [codepage, options] : {std::pair<const char*, Argv>{"", {"-cp", "enu"}},
                                   {"utf8", {"-UN=UTF8"}},
                                   {"cp950", {"-cp", "cp950"}}}) {
    SCOPED_TRACE(codepage);
    Clear();
    fake::platform().general.codepage = codepage;
    const std::string output = RunStreaming(AttachmentDownloadAll_v1, J(R"({"id": 30})")).output;
    ASSERT_EQ(fake::platform().runs.size(), 2u);
    const std::string work = fake::platform().runs[0].back();
    const std::string archive = work + ".zip";
    EXPECT_THAT(work, MatchesRegex(tmp_ + "/" + std::to_string(getpid()) + "_[0-9]+"));
    Argv zip = {"/usr/zevo/bin/zip", "-jr", archive};
    zip.insert(zip.end(), options.begin(), options.end());
    zip.push_back(work);
    EXPECT_EQ(fake::platform().runs, (std::vector<Argv>{zip, {"/bin/rm", "-rf", work, archive}}));
    EXPECT_FALSE(fs::exists(work) || fs::exists(archive));
    EXPECT_EQ(output, "Content-Length: " + std::to_string(listing.size()) +
                          "\r\nContent-Type: application/force-download\r\n"
                          "Content-Disposition: attachment; filename=\"" +
                          fs::path(archive).filename().string() + "\"\r\n\r\n" + listing);
    EXPECT_THAT(Logged("attachment"), IsEmpty());
  }
}

TEST_F(DownloadAllTest, FailuresAnswer404AndAlwaysRemoveTheWorkDirectory) {
  const auto programs = fake::platform().programs;
  const std::string long_name(300, 'n');  // more than a file name may hold
  struct Case {
    const char* id;
    std::function<void()> arrange;
    std::vector<std::string> logged;  // "@": the work directory
    size_t runs;                      // with rm last
  } cases[] = {
      {"null", [] {}, {"input parameter is not valid"}, 0},
      {"77", [] {}, {"id [77] of message is not exist"}, 0},
      {"31", [] {}, {"No files to download"}, 0},
      {"30",
       [] {
         fake::core().failures = {{"ZevoUser::PrepareUserLarkpostDir", 503}};
       },
       {"Failed to create temp dir"},
       0},
      {"30",
       [] { fake::platform().programs["/usr/zevo/bin/zip"] = [](const Argv&) { return 1u; }; },
       {"Failed to zip path [@]"},
       2},
      {"30",
       [] { fake::platform().programs["/usr/zevo/bin/zip"] = [](const Argv&) { return 0u; }; },
       {"Failed to output path [@.zip]"},
       2},  // the archive is not there
      {"30",
       [&] {
         fake::core().messages[30].attachments.resize(1);
         fake::core().messages[30].attachments[0].name = long_name;
       },
       {"bad ofstream [@/" + long_name + "]", "No file to download"},
       1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.logged[0]);
    Clear();
    fake::platform().programs = programs;
    c.arrange();
    EXPECT_EQ(
        RunStreaming(AttachmentDownloadAll_v1, J(std::string(R"({"id": )") + c.id + "}")).output,
        k404);
    const auto& runs = fake::platform().runs;
    ASSERT_EQ(runs.size(), c.runs);
    std::vector<std::string> logged = c.logged;
    if (c.runs > 0) {
      const std::string work = runs.back()[2];
      EXPECT_EQ(runs.back(), (Argv{"/bin/rm", "-rf", work, work + ".zip"}));
      EXPECT_FALSE(fs::exists(work));
      for (std::string& line : logged) line = Line(line.c_str(), work)[0];
    }
    EXPECT_EQ(Logged("attachment"), logged);
  }
}

}  // namespace
}  // namespace larkpost::test
