// Multipart uploads: the streaming parser on every split of a body, the
// bodies the host must refuse, and the stored file's life.
#include <gtest/gtest.h>
#include <json/writer.h>  // prints values in failure messages
#include <stdlib.h>
#include <sys/stat.h>

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
    log += "[" + part.name + (part.filename ? "|" + *part.filename : "") + "|" + part.content_type +
           "]";
  }
  void PartData(std::string_view data) override { log.append(data); }
  void EndPart() override { log += "[end]"; }
  std::string log;
};

// Data that looks like a delimiter but is not one: CRLF and dashes, the
// boundary after a bare LF, a CR alone, a delimiter's first bytes at the end.
// Headers in any case, quoted and plain values, an escaped quote, a folded
// line and an RFC 5987 file name.
const char kTrickyBody[] =
    "preamble to ignore\r\n--XyZ\r\n"
    "Content-Disposition: form-data; name=id\r\n\r\n7\r\n"
    "--XyZ  \r\n"
    "content-disposition: form-data; name=\"file\"; filename=\"my \\\"best\\\" file.txt\"\r\n"
    "Content-Type: text/plain\r\n\r\n"
    "line1\r\n--XY\r\n\r\n\n--XyZ-not\r\r\n--Xy\r\n"
    "--XyZ\r\nContent-Disposition: form-data; name=\"empty\";\r\n"
    " filename=\"x\"; filename*=UTF-8''na%C3%AFve.bin\r\n\r\n\r\n"
    "--XyZ--\r\nepilogue --XyZ\r\n";

const char kTrickyLog[] =
    "[id|]7[end]"
    "[file|my \"best\" file.txt|text/plain]line1\r\n--XY\r\n\r\n\n--XyZ-not\r\r\n--Xy[end]"
    "[empty|naïve.bin|][end]";

// Feeds `first` bytes, then the rest in pieces of `chunk` bytes.
std::string ParseInPieces(std::string_view body, size_t first, size_t chunk) {
  RecordingSink sink;
  MultipartParser parser("XyZ", &sink);
  parser.Feed(body.substr(0, first));
  for (size_t at = first; at < body.size(); at += chunk) parser.Feed(body.substr(at, chunk));
  parser.Finish();
  return sink.log;
}

TEST(MultipartParserTest, EverySplitGivesTheSameParts) {
  const std::string_view body(kTrickyBody);
  for (size_t n = 1; n <= body.size(); ++n) {
    ASSERT_EQ(ParseInPieces(body, n, body.size()), kTrickyLog) << "split at " << n;
    ASSERT_EQ(ParseInPieces(body, 0, n), kTrickyLog) << "pieces of " << n;
  }
  // A header block that does not end is refused once it is too long, not
  // buffered to the end of the body.
  RecordingSink sink;
  MultipartParser parser("XyZ", &sink);
  EXPECT_THROW(parser.Feed("--XyZ\r\nX: " + std::string(20000, 'x')), RequestError);
}

// A data root of its own for the stored uploads.
class UploadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/larkpost-upload-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    root_ = name;
    options_.upload_dir = root_ + "/tmp/upload";
    std::filesystem::create_directories(options_.upload_dir);
  }
  void TearDown() override { std::filesystem::remove_all(root_); }

  // `missing`: bytes announced in the length but never sent.
  EntryRequest Decode(const std::string& body, const std::string& boundary = "\"b0undary\"",
                      size_t missing = 0) {
    std::istringstream in(body);
    return DecodeEntryRequest({{"CONTENT_TYPE", "multipart/form-data; boundary=" + boundary},
                               {"CONTENT_LENGTH", std::to_string(body.size() + missing)}},
                              in, options_);
  }

  std::string root_;
  FormOptions options_;
};

// One part; a file part when `filename` is given.
std::string Part(const std::string& name, const std::string& value,
                 const char* filename = nullptr) {
  return "--b0undary\r\nContent-Disposition: form-data; name=\"" + name + "\"" +
         (filename ? "; filename=\"" + std::string(filename) + "\"" : "") + "\r\n\r\n" + value +
         "\r\n";
}

const std::string kEnd = "--b0undary--\r\n";

TEST_F(UploadTest, TheFileIsStoredPrivatelyForTheRequestOnly) {
  // Larger than one read of the host, with CRLFs, dashes and NULs inside.
  std::string content;
  for (int i = 0; i < 20000; ++i) content += "row " + std::to_string(i) + "\r\n--b0und" + '\0';
  std::string path;
  {
    const EntryRequest request = Decode(Part("id", "7") + Part("file_tmp", "/etc/shadow") +
                                        Part("file", content, "C:\\fakepath\\a b.pdf") + kEnd);
    path = request.params["file_tmp"].asString();
    EXPECT_EQ(path.rfind(options_.upload_dir + "/", 0), 0u) << "not the client's: " << path;
    EXPECT_EQ(request.params["file"], "a b.pdf");
    EXPECT_EQ(request.params["id"], "7") << "an upload's fields are the plug-in's to decode";
    std::ifstream file(path, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), content);
    struct stat info {};
    EXPECT_TRUE(stat(path.c_str(), &info) == 0 && (info.st_mode & 0777) == 0600);
  }
  EXPECT_FALSE(std::filesystem::exists(path)) << "removed with the request";
  // An empty file is stored; a file input left empty sends a part without a
  // file name, and nothing is stored nor named.
  const EntryRequest empty = Decode(Part("file", "", "e.txt") + kEnd, "b0undary");
  EXPECT_EQ(std::filesystem::file_size(empty.params["file_tmp"].asString()), 0u);
  EXPECT_EQ(Decode(Part("file_tmp", "/etc/shadow") + Part("file", "", "") + kEnd).params,
            Json::Value(Json::objectValue));
}

TEST_F(UploadTest, RefusedBodiesLeaveNoFile) {
  const std::string file = Part("file", "data", "a.txt");
  const std::string disposition = "Content-Disposition: form-data; name=a\r\n\r\nv\r\n";
  const std::string too_long(71, 'b');
  const struct {
    const char* why;
    std::string body;
    int code = kErrorBadRequest;
    std::string boundary = "b0undary";
    size_t missing = 0;
  } cases[] = {
      {"no delimiter", "just text"},
      {"no closing delimiter", file},
      {"truncated after a part", file + "--b0undary\r\n"},
      {"cut short of its length", file + kEnd, kErrorBadRequest, "b0undary", 5},
      {"headers too long",
       "--b0undary\r\nX: " + std::string(20000, 'x') + "\r\n" + disposition + kEnd},
      {"no content disposition", "--b0undary\r\nContent-Type: text/plain\r\n\r\nv\r\n" + kEnd},
      {"no name", "--b0undary\r\nContent-Disposition: form-data\r\n\r\nv\r\n" + kEnd},
      {"not form-data", "--b0undary\r\nContent-Disposition: inline; name=a\r\n\r\nv\r\n" + kEnd},
      {"text after the boundary", "--b0undaryZZ" + disposition + kEnd},
      {"header line without a name", "--b0undary\r\nnonsense\r\n" + disposition + kEnd},
      {"too much padding", "--b0undary" + std::string(100, ' ') + "\r\n" + disposition + kEnd},
      {"two files", file + Part("file", "more", "b.txt") + kEnd},
      {"over the limit", Part("file", std::string(70000, 'x'), "a.txt") + kEnd, kErrorTooLarge},
      {"no boundary", file + kEnd, kErrorBadRequest, ""},
      {"boundary too long", "--" + too_long + "\r\n" + disposition + "--" + too_long + "--",
       kErrorBadRequest, too_long},
  };
  options_.max_body = 60000;
  for (const auto& c : cases) {
    try {
      Decode(c.body, c.boundary, c.missing);
      ADD_FAILURE() << "accepted: " << c.why;
    } catch (const RequestError& e) {
      EXPECT_EQ(e.code(), c.code) << c.why << ": " << e.what();
    }
    EXPECT_TRUE(std::filesystem::is_empty(options_.upload_dir)) << c.why;
  }
  // A program that takes no files.
  options_.upload_dir.clear();
  EXPECT_THROW(Decode(file + kEnd), RequestError);
}

}  // namespace
}  // namespace larkpost::cgi
