// Decoding of an upload's form fields, as the checkers and handlers of the
// two upload methods then read them.
#include "upload/upload_params.h"

#include <gtest/gtest.h>
#include <json/json.h>

namespace {

constexpr auto Parse = &ZEVO::WebAPIUtil::ParseJson;

TEST(DecodeUploadParams, TextsBecomeJsonAndTheFileFieldsStayAsTheyAre) {
  const struct {
    const char* what;
    const char* fields;  // as the host delivers them
    const char* decoded;
    bool upload = true;
  } cases[] = {
      {"texts become JSON values, the file's name stays",
       R"({"id": "7", "is_inline": "true", "to": "[\"a@b\"]", "file": "/home/a.txt"})",
       R"({"id": 7, "is_inline": true, "to": ["a@b"], "file": "/home/a.txt"})"},
      {"a text that is not JSON is dropped, a quoted one is a string",
       R"({"bare": "report", "quoted": "\"report\"", "empty": "", "o": "{\"a\": null}"})",
       R"({"quoted": "report", "o": {"a": null}})"},
      {"file and file_tmp are kept even when they read as JSON, other names are not",
       R"({"file": "5", "file_tmp": "[1, 2]", "File": "5", "file_tmp2": "null", "file ": "true"})",
       R"({"file": "5", "file_tmp": "[1, 2]", "File": 5, "file_tmp2": null, "file ": true})"},
      {"values that are not text are copied",
       R"({"n": 3, "b": false, "a": ["7"], "o": {"x": "1"}, "z": null, "file": 12})",
       R"({"n": 3, "b": false, "a": ["7"], "o": {"x": "1"}, "z": null, "file": 12})"},
      {"a request that is not an upload is left alone",
       R"({"id": "7", "bare": "report", "file": "5"})",
       R"({"id": "7", "bare": "report", "file": "5"})", false},
  };
  for (const auto& c : cases) {
    ZEVO::APIRequest request(Parse(c.fields));
    request.SetUploadRequest(c.upload);
    ZEVO::DecodeUploadParams(&request);
    EXPECT_EQ(request.GetParamRef("", Json::Value()), Parse(c.decoded)) << c.what;
  }
}

}  // namespace
