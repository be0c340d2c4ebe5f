// A multipart upload as the host decodes it, handed to the plug-in's own
// check of "ZEVO.Larkpost.Attachment" "upload", which decodes the fields.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "appliance/framework/cgi.h"
#include "platform/zevo/webapi.h"
#include "tests/integration/integration_util.h"

namespace larkpost::itest {
namespace {

using namespace std::string_literals;

std::string Part(const std::string& headers, const std::string& content) {
  return "--XyZ\r\n" + headers + "\r\n\r\n" + content + "\r\n";
}

TEST(UploadDecoderTest, MultipartUploadReachesThePlugInsDecoder) {
  DataRoot root;
  const std::string content = "line one\r\n-- XyZ\r\nmid--XyZ line\r\n\0binary"s;
  const std::string body =
      Part("Content-Disposition: form-data; name=\"is_inline\"", "true") +
      Part("Content-Disposition: form-data; name=\"id\"", "[7, 8]") +
      Part("Content-Disposition: form-data; name=\"note\"", "report") +
      Part("Content-Disposition: form-data; name=\"quoted\"", "\"report\"") +
      Part(
          "Content-Disposition: form-data; name=\"upload\"; filename=\"C:\\\\docs\\\\a b.txt\"\r\n"
          "Content-Type: text/plain",
          content) +
      "--XyZ--\r\n";
  cgi::Environment env = {{"REQUEST_METHOD", "POST"},
                          {"CONTENT_TYPE", "multipart/form-data; boundary=XyZ"},
                          {"CONTENT_LENGTH", std::to_string(body.size())},
                          {"QUERY_STRING", "api=ZEVO.Larkpost.Attachment&version=1&method=upload"}};
  cgi::FormOptions options;
  options.upload_dir = root.path() + "/tmp/upload";
  std::istringstream stream(body);
  cgi::EntryRequest decoded = cgi::DecodeEntryRequest(env, stream, options);
  ASSERT_TRUE(decoded.upload);

  ZEVO::APIRequest request(decoded.params);
  request.SetUploadRequest(true);
  ZEVO::APIResponse response;

  void* plugin = dlopen((LibDir() + "/liblarkpost_webapi.so").c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(plugin, nullptr) << dlerror();
  auto* row = static_cast<const ZEVO::APICheckEntry*>(dlsym(plugin, "gCheckTable"));
  ASSERT_NE(row, nullptr);
  while (row->api != nullptr && !(std::strcmp(row->api, "ZEVO.Larkpost.Attachment") == 0 &&
                                  std::strcmp(row->method, "upload") == 0)) {
    ++row;
  }
  ASSERT_NE(row->checker, nullptr);
  EXPECT_TRUE(row->checker(&request, &response)) << response.ToEnvelope();

  // Text fields became JSON values; a bare word that is not JSON is gone;
  // the two file fields are the host's, untouched.
  Json::Value none;
  EXPECT_EQ(request.GetParamRef("is_inline", none), Json::Value(true));
  EXPECT_EQ(request.GetParamRef("id", none).size(), 2u);
  EXPECT_FALSE(request.HasParam("note"));
  EXPECT_EQ(request.GetParamRef("quoted", none), Json::Value("report"));
  EXPECT_EQ(request.GetParamRef("file", none), Json::Value("a b.txt"));
  const std::string stored = request.GetParamRef("file_tmp", none).asString();
  EXPECT_EQ(stored.rfind(options.upload_dir + "/", 0), 0u) << stored;
  std::ifstream file(stored, std::ios::binary);
  std::stringstream read;
  read << file.rdbuf();
  EXPECT_EQ(read.str(), content) << "the file arrives byte for byte";
  dlclose(plugin);
}

}  // namespace
}  // namespace larkpost::itest
