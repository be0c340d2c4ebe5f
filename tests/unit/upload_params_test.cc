#include "upload/upload_params.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <memory>
#include <string>

namespace {

Json::Value Parse(const std::string& text) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
    ADD_FAILURE() << "bad JSON in test: " << text << ": " << errors;
  }
  return value;
}

// The parameters a request holds after decoding.
Json::Value Decoded(const Json::Value& fields, bool upload) {
  ZEVO::APIRequest request(fields);
  request.SetUploadRequest(upload);
  ZEVO::DecodeUploadParams(&request);
  const Json::Value none;
  return request.GetParamRef("", none);
}

struct Case {
  const char* what;
  const char* fields;  // as the host delivers them
  const char* expected;
};

const Case kUploads[] = {
    {"form texts become JSON values, the file path stays",
     R"({"id": "7", "is_inline": "true", "file": "/volume1/home/alice/a.txt"})",
     R"({"id": 7, "is_inline": true, "file": "/volume1/home/alice/a.txt"})"},
    {"text that is not JSON is dropped, quoted text is a string",
     R"({"bare": "report", "quoted": "\"report\"", "empty": ""})", R"({"quoted": "report"})"},
    {"file and file_tmp are kept even when they read as JSON",
     R"({"file": "5", "file_tmp": "[1, 2]"})", R"({"file": "5", "file_tmp": "[1, 2]"})"},
    {"only the exact names are kept as text", R"({"File": "5", "file_tmp2": "6", "file ": "true"})",
     R"({"File": 5, "file_tmp2": 6,
         "file ": true})"},
    {"arrays, objects and null in text", R"({"id": "[1, 2]", "o": "{\"a\": 1}", "n": "null"})",
     R"({"id": [1, 2], "o": {"a": 1}, "n": null})"},
    {"values that are not text are copied",
     R"({"n": 3, "b": false, "a": ["7"], "o": {"x": "1"}, "z": null})",
     R"({"n": 3, "b": false, "a": ["7"], "o": {"x": "1"}, "z": null})"},
    {"non-string file fields are copied too", R"({"file": 12, "file_tmp": null})",
     R"({"file": 12, "file_tmp": null})"},
    {"an upload without fields", R"({})", R"({})"},
};

TEST(DecodeUploadParams, DecodesFormFields) {
  for (const Case& c : kUploads) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(Decoded(Parse(c.fields), true), Parse(c.expected));
  }
}

TEST(DecodeUploadParams, DecodedFieldsReadWithTypedReaders) {
  ZEVO::APIRequest request(Parse(R"({"id": "7", "is_inline": "true", "to": "[\"a@b\"]",
                                     "subject": "bare words", "file": "x.png"})"));
  request.SetUploadRequest(true);
  ZEVO::DecodeUploadParams(&request);

  const auto id = request.GetAndCheckInt("id", ZEVO::kRequired, nullptr);
  EXPECT_FALSE(id.IsInvalid());
  EXPECT_EQ(id.Get(), 7);
  const auto is_inline = request.GetAndCheckBool("is_inline", ZEVO::kRequired, nullptr);
  EXPECT_FALSE(is_inline.IsInvalid());
  EXPECT_TRUE(is_inline.Get());
  const auto to = request.GetAndCheckArray("to", ZEVO::kRequired, nullptr);
  EXPECT_FALSE(to.IsInvalid());
  EXPECT_EQ(to.Get(), Parse(R"(["a@b"])"));
  // Dropped: a required read now finds nothing.
  const auto subject = request.GetAndCheckString("subject", ZEVO::kRequired, nullptr);
  EXPECT_FALSE(subject.IsSet());
  EXPECT_TRUE(subject.IsInvalid());
  EXPECT_EQ(request.GetAndCheckString("file", ZEVO::kRequired, nullptr).Get(), "x.png");
}

TEST(DecodeUploadParams, LeavesOtherRequestsUntouched) {
  const Json::Value fields = Parse(R"({"id": "7", "bare": "report", "file": "5", "n": 3})");
  EXPECT_EQ(Decoded(fields, false), fields);
}

}  // namespace
