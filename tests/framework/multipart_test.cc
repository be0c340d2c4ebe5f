// Multipart uploads: the streaming parser on every split of a body, the
// malformed bodies it must refuse, and the stored file's life.
#include <gtest/gtest.h>
#include <json/writer.h>  // prints values in failure messages
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "appliance/framework/cgi.h"
#include "appliance/framework/multipart.h"

namespace larkpost::cgi {
namespace {

// Writes down what the parser reports, joining the data pieces of a part.
class RecordingSink : public MultipartSink {
 public:
  void BeginPart(const PartInfo& part) override {
    log_ += "[" + part.name + (part.filename ? "|" + *part.filename : "") + "|" +
            part.content_type + "]";
  }
  void PartData(std::string_view data) override { log_.append(data); }
  void EndPart() override { log_ += "[end]"; }
  const std::string& log() const { return log_; }

 private:
  std::string log_;
};

std::string Parse(const std::string& boundary, const std::vector<std::string_view>& pieces) {
  RecordingSink sink;
  MultipartParser parser(boundary, &sink);
  for (std::string_view piece : pieces) parser.Feed(piece);
  parser.Finish();
  return sink.log();
}

// Data that looks like a delimiter but is not one: CRLF and dashes, the
// boundary after a bare LF, a CR alone, a delimiter's first bytes at the end.
const char kTrickyBody[] =
    "preamble to ignore\r\n"
    "--XyZ\r\n"
    "Content-Disposition: form-data; name=\"id\"\r\n"
    "\r\n"
    "7\r\n"
    "--XyZ  \r\n"
    "content-disposition: form-data; name=\"file\"; filename=\"my \\\"best\\\" file.txt\"\r\n"
    "Content-Type: text/plain\r\n"
    "\r\n"
    "line1\r\n--XY\r\n\r\n\n--XyZ-not\r\r\n--Xy\r\n"
    "--XyZ\r\n"
    "Content-Disposition: form-data; name=\"empty\"; filename=\"e.bin\"\r\n"
    "\r\n"
    "\r\n"
    "--XyZ--\r\n"
    "epilogue --XyZ\r\n";

const char kTrickyLog[] =
    "[id|]7[end]"
    "[file|my \"best\" file.txt|text/plain]line1\r\n--XY\r\n\r\n\n--XyZ-not\r\r\n--Xy[end]"
    "[empty|e.bin|][end]";

TEST(MultipartParserTest, EverySplitGivesTheSameParts) {
  const std::string body = kTrickyBody;
  EXPECT_EQ(Parse("XyZ", {body}), kTrickyLog);
  for (size_t split = 0; split <= body.size(); ++split) {
    const std::string_view view(body);
    ASSERT_EQ(Parse("XyZ", {view.substr(0, split), view.substr(split)}), kTrickyLog) << split;
  }
  std::vector<std::string_view> bytes;
  for (size_t i = 0; i < body.size(); ++i) bytes.push_back(std::string_view(body).substr(i, 1));
  EXPECT_EQ(Parse("XyZ", bytes), kTrickyLog);
}

TEST(MultipartParserTest, MalformedBodies) {
  const std::string header = "Content-Disposition: form-data; name=\"a\"\r\n\r\n";
  const struct {
    const char* why;
    std::string body;
  } cases[] = {
      {"no delimiter", "just text"},
      {"no closing delimiter", "--B\r\n" + header + "value"},
      {"truncated after a part", "--B\r\n" + header + "value\r\n--B\r\n"},
      {"truncated in the headers", "--B\r\nContent-Disposition: form-da"},
      {"headers too long", "--B\r\nX-Long: " + std::string(20000, 'x') + "\r\n\r\n--B--"},
      {"headers too long without an end", "--B\r\nX-Long: " + std::string(20000, 'x')},
      {"no content disposition", "--B\r\nContent-Type: text/plain\r\n\r\nv\r\n--B--"},
      {"no name", "--B\r\nContent-Disposition: form-data\r\n\r\nv\r\n--B--"},
      {"not form-data", "--B\r\nContent-Disposition: attachment; name=a\r\n\r\nv\r\n--B--"},
      {"text after the boundary", "--Bx\r\n" + header + "v\r\n--B--"},
      {"header line without a name", "--B\r\nnonsense\r\n" + header + "v\r\n--B--"},
      {"padding without end", "--B" + std::string(100, ' ') + "\r\n" + header + "v\r\n--B--"},
  };
  for (const auto& c : cases) {
    try {
      Parse("B", {c.body});
      ADD_FAILURE() << "accepted: " << c.why;
    } catch (const RequestError& e) {
      EXPECT_EQ(e.code(), kErrorBadRequest) << c.why;
    }
  }
  // An empty text value is fine.
  EXPECT_EQ(Parse("B", {"--B\r\n" + header + "\r\n--B--"}), "[a|][end]");
}

TEST(MultipartHeaderTest, BoundaryAndDisposition) {
  EXPECT_EQ(BoundaryOf("multipart/form-data; boundary=abc"), "abc");
  EXPECT_EQ(BoundaryOf("multipart/form-data; charset=utf-8; BOUNDARY=\"a b;c\""), "a b;c");
  EXPECT_EQ(BoundaryOf("multipart/form-data;boundary=----WebKitFormBoundary7MA4YWxk"),
            "----WebKitFormBoundary7MA4YWxk");
  EXPECT_FALSE(BoundaryOf("multipart/form-data"));
  EXPECT_FALSE(BoundaryOf("multipart/form-data; boundary="));
  EXPECT_FALSE(BoundaryOf("multipart/form-data; boundary=" + std::string(71, 'a')));

  const auto part = ParseContentDisposition(
      "form-data; name=\"upload\"; filename=\"C:\\Users\\me\\a \\\"q\\\".txt\"");
  ASSERT_TRUE(part);
  EXPECT_EQ(part->name, "upload");
  EXPECT_EQ(part->filename, "C:\\Users\\me\\a \"q\".txt");
  EXPECT_EQ(ParseContentDisposition("form-data; name=plain")->name, "plain");
  EXPECT_EQ(
      ParseContentDisposition("form-data; name=f; filename=\"x\"; filename*=UTF-8''na%C3%AFve.txt")
          ->filename,
      "naïve.txt");
  EXPECT_FALSE(ParseContentDisposition("inline; name=a"));

  EXPECT_EQ(BaseFileName("C:\\Users\\me\\a.txt"), "a.txt");
  EXPECT_EQ(BaseFileName("../../etc/passwd"), "passwd");
  EXPECT_EQ(BaseFileName("mixed/dir\\name.png"), "name.png");
  EXPECT_EQ(BaseFileName("plain.txt"), "plain.txt");
}

// A data root of its own for the stored uploads.
class UploadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/larkpost-upload-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    root_ = name;
    options_.upload_dir = root_ + "/tmp/upload";
  }
  void TearDown() override { std::filesystem::remove_all(root_); }

  EntryRequest Decode(const std::string& body, const std::string& query = "",
                      const std::string& boundary = "\"b0undary\"") {
    std::istringstream in(body);
    return DecodeEntryRequest({{"QUERY_STRING", query},
                               {"CONTENT_TYPE", "multipart/form-data; boundary=" + boundary},
                               {"CONTENT_LENGTH", std::to_string(body.size())}},
                              in, options_);
  }

  size_t StoredFiles() const {
    if (!std::filesystem::exists(options_.upload_dir)) return 0;
    const auto entries = std::filesystem::directory_iterator(options_.upload_dir);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
  }

  std::string root_;
  FormOptions options_;
};

std::string Field(const std::string& name, const std::string& value) {
  return "--b0undary\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value +
         "\r\n";
}

std::string FilePart(const std::string& filename, const std::string& content) {
  return "--b0undary\r\nContent-Disposition: form-data; name=\"file\"; filename=\"" + filename +
         "\"\r\nContent-Type: application/octet-stream\r\n\r\n" + content + "\r\n";
}

TEST_F(UploadTest, FieldsStayTextAndTheFileIsStored) {
  // Larger than one read of the host, with CRLFs and NULs inside.
  std::string content;
  for (int i = 0; i < 20000; ++i)
    content += "row " + std::to_string(i) + std::string("\r\n--b0und\0x", 11);
  std::string path;
  {
    EntryRequest request = Decode(
        Field("api", "ZEVO.Larkpost.Attachment") + Field("id", "7") + Field("is_inline", "true") +
            Field("file_tmp", "/etc/shadow") + FilePart("C:\\fakepath\\report 2024.pdf", content) +
            Field("_sid", "s1") + "--b0undary--\r\n",
        "version=1&method=upload&name=%22q%22");
    EXPECT_TRUE(request.upload);
    EXPECT_EQ(request.api, "ZEVO.Larkpost.Attachment");
    EXPECT_EQ(request.version, "1");
    EXPECT_EQ(request.credentials.session_id, "s1");
    path = request.params["file_tmp"].asString();
    EXPECT_EQ(request.params["file"], "report 2024.pdf");
    EXPECT_EQ(request.params["id"], "7") << "an upload's fields are the plug-in's to decode";
    EXPECT_EQ(request.params["is_inline"], "true");
    EXPECT_EQ(request.params["name"], "\"q\"");
    EXPECT_EQ(path.rfind(options_.upload_dir + "/", 0), 0u) << path;
    std::ifstream file(path, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), content);
    struct stat info {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
  }
  EXPECT_FALSE(std::filesystem::exists(path)) << "removed with the request";
}

TEST_F(UploadTest, EmptyFilesAndEmptyInputs) {
  EntryRequest request = Decode(FilePart("empty.txt", "") + "--b0undary--", "", "b0undary");
  EXPECT_EQ(request.params["file"], "empty.txt");
  EXPECT_EQ(std::filesystem::file_size(request.params["file_tmp"].asString()), 0u);

  // A file input the user left empty sends a part without a file name.
  EntryRequest none = Decode(FilePart("", "") + Field("a", "1") + "--b0undary--");
  EXPECT_EQ(none.params, [] {
    Json::Value p(Json::objectValue);
    p["a"] = "1";
    return p;
  }());
}

TEST_F(UploadTest, RefusedUploadsLeaveNoFile) {
  const struct {
    std::string body;
    int code;
  } cases[] = {
      {FilePart("a.txt", "data"), kErrorBadRequest},  // no closing delimiter
      {FilePart("a.txt", "data") + FilePart("b.txt", "more") + "--b0undary--", kErrorBadRequest},
      {FilePart("a.txt", std::string(70000, 'x')) + "--b0undary--", kErrorTooLarge},
  };
  options_.max_body = 60000;
  for (const auto& c : cases) {
    try {
      Decode(c.body);
      ADD_FAILURE() << "accepted";
    } catch (const RequestError& e) {
      EXPECT_EQ(e.code(), c.code) << e.what();
    }
    EXPECT_EQ(StoredFiles(), 0u);
  }
  // A body cut short of its announced length.
  const std::string body = FilePart("a.txt", "data") + "--b0undary--";
  std::istringstream in(body.substr(0, body.size() - 5));
  EXPECT_THROW(DecodeEntryRequest({{"CONTENT_TYPE", "multipart/form-data; boundary=b0undary"},
                                   {"CONTENT_LENGTH", std::to_string(body.size())}},
                                  in, options_),
               RequestError);
  EXPECT_EQ(StoredFiles(), 0u);
  // A program that takes no files.
  options_.upload_dir.clear();
  EXPECT_THROW(Decode(FilePart("a.txt", "x") + "--b0undary--"), RequestError);
}

}  // namespace
}  // namespace larkpost::cgi
