// The host's request decoding and answer writing, without a process.
#include <gtest/gtest.h>
#include <json/writer.h>  // prints values in failure messages

#include <sstream>

#include "appliance/framework/cgi.h"
#include "platform/zevo/webapi.h"

namespace larkpost::cgi {
namespace {

Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(ZEVO::WebAPIUtil::FromString(text, value)) << text;
  return value;
}

EntryRequest Decode(const Environment& env, const std::string& body = "") {
  std::istringstream in(body);
  return DecodeEntryRequest(env, in, FormOptions());
}

Environment Post(const std::string& body, const std::string& query = "") {
  return {{"REQUEST_METHOD", "POST"},
          {"QUERY_STRING", query},
          {"CONTENT_TYPE", "application/x-www-form-urlencoded; charset=UTF-8"},
          {"CONTENT_LENGTH", std::to_string(body.size())}};
}

TEST(FieldDecodingTest, TextsBecomeJsonOrStrings) {
  const struct {
    const char* text;
    const char* json;
  } cases[] = {
      {"[1,2]", "[1,2]"},
      {"true", "true"},
      {"Work", "\"Work\""},
      {"\"Work\"", "\"Work\""},
      {"\"5\"", "\"5\""},
      {"5", "5"},
      {"-1.5", "-1.5"},
      {"5abc", "\"5abc\""},
      {"", "\"\""},
      {"null", "null"},
      {"{\"a\":[1]}", "{\"a\":[1]}"},
      {"[1,", "\"[1,\""},
      {"Grüße", "\"Grüße\""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(DecodeFieldValue(c.text), Parse(c.json)) << c.text;
  }
}

TEST(FieldDecodingTest, UrlEncoding) {
  FieldMap fields;
  ParseUrlEncoded("a=1&b=x+y&c=%5B1%2C2%5D&d&=skip&e=%zz%4&f=a%3Db&&g=%E2%9C%93&a=2", fields);
  EXPECT_EQ(fields, (FieldMap{{"a", "2"},
                              {"b", "x y"},
                              {"c", "[1,2]"},
                              {"d", ""},
                              {"e", "%zz%4"},
                              {"f", "a=b"},
                              {"g", "✓"}}));
  EXPECT_EQ(PercentDecode("a+b%20c", false), "a+b c");
}

TEST(EntryRequestTest, ReservedFieldsAndParameters) {
  EntryRequest request = Decode(
      {{"QUERY_STRING",
        "api=ZEVO.Larkpost.Mailbox&version=1&method=get&id=%5B1%2C2%5D&read=true"
        "&name=Work&mailbox_id=%225%22&_sid=abc&_token=tok&file_tmp=%2Fetc%2Fshadow&file=x"}});
  EXPECT_EQ(request.api, "ZEVO.Larkpost.Mailbox");
  EXPECT_EQ(request.version, "1");
  EXPECT_EQ(request.method, "get");
  // The client cannot name a stored file; only the host fills those two.
  EXPECT_EQ(request.params, Parse(R"({"id": [1, 2], "read": true, "name": "Work",
                                      "mailbox_id": "5"})"));
  EXPECT_EQ(request.credentials.session_id, "abc");
  EXPECT_EQ(request.credentials.source, SessionSource::kField);
  EXPECT_EQ(request.credentials.token, "tok");
  EXPECT_FALSE(request.upload);
  EXPECT_EQ(request.language, "enu");
}

TEST(EntryRequestTest, BodyOverridesQuery) {
  EntryRequest request = Decode(Post("name=%22Body%22&limit=10", "name=Query&offset=5&api=A"),
                                "name=%22Body%22&limit=10");
  EXPECT_EQ(request.api, "A");
  EXPECT_FALSE(request.version.has_value());
  EXPECT_EQ(request.params, Parse(R"({"name": "Body", "limit": 10, "offset": 5})"));
}

TEST(EntryRequestTest, RefusedBodies) {
  const struct {
    Environment env;
    std::string body;
    int code;
  } cases[] = {
      // Announced larger than the limit: refused before reading.
      {{{"CONTENT_LENGTH", "67108865"}, {"CONTENT_TYPE", "application/x-www-form-urlencoded"}},
       "",
       kErrorTooLarge},
      {{{"CONTENT_LENGTH", "99999999999999999999999"}}, "", kErrorTooLarge},
      {{{"CONTENT_LENGTH", "12x"}}, "a=1", kErrorBadRequest},
      {{{"CONTENT_LENGTH", "10"}, {"CONTENT_TYPE", "application/x-www-form-urlencoded"}},
       "a=1",
       kErrorBadRequest},
      {{{"CONTENT_LENGTH", "8"}, {"CONTENT_TYPE", "application/json"}},
       "{\"a\":1}",
       kErrorBadRequest},
      {{{"CONTENT_LENGTH", "3"}, {"CONTENT_TYPE", "multipart/form-data"}}, "a=1", kErrorBadRequest},
  };
  for (const auto& c : cases) {
    try {
      Decode(c.env, c.body);
      ADD_FAILURE() << "accepted: " << c.body;
    } catch (const RequestError& e) {
      EXPECT_EQ(e.code(), c.code) << e.what();
    }
  }
  // The limit is the configured one.
  std::istringstream in("a=12345");
  FormOptions small;
  small.max_body = 6;
  EXPECT_THROW(ReadForm(Post("a=12345"), in, small), RequestError);
  // Another type without a body is no body at all.
  EXPECT_NO_THROW(Decode({{"CONTENT_TYPE", "application/json"}, {"QUERY_STRING", "a=1"}}));
}

TEST(EntryRequestTest, LoginFormIgnoresTheQuery) {
  std::istringstream in("account=alice&passwd=a%2Bb+c");
  FormOptions options;
  options.with_query = false;
  const Form form =
      ReadForm(Post("account=alice&passwd=a%2Bb+c", "passwd=fromurl&x=1"), in, options);
  EXPECT_EQ(form.fields, (FieldMap{{"account", "alice"}, {"passwd", "a+b c"}}));
}

TEST(CredentialsTest, SessionAndToken) {
  const struct {
    Environment env;
    FieldMap fields;
    std::string sid;
    SessionSource source;
    std::string token;
  } cases[] = {
      {{}, {}, "", SessionSource::kNone, ""},
      {{{"HTTP_COOKIE", "lang=en; id=c00kie; other=1"}}, {}, "c00kie", SessionSource::kCookie, ""},
      {{{"HTTP_COOKIE", "id=\"quoted\""}}, {}, "quoted", SessionSource::kCookie, ""},
      {{{"HTTP_COOKIE", "xid=no;id2=no"}}, {}, "", SessionSource::kNone, ""},
      {{{"HTTP_COOKIE", "id=first; id=second"}}, {}, "first", SessionSource::kCookie, ""},
      {{{"HTTP_COOKIE", "id=c"}}, {{"_sid", "f"}}, "f", SessionSource::kField, ""},
      {{{"HTTP_COOKIE", "id=c"}}, {{"_sid", ""}}, "c", SessionSource::kCookie, ""},
      {{{"HTTP_COOKIE", "id="}}, {}, "", SessionSource::kNone, ""},
      {{{"HTTP_X_ZEVO_TOKEN", "h"}}, {{"_token", "f"}}, "", SessionSource::kNone, "h"},
      {{}, {{"_token", "f"}}, "", SessionSource::kNone, "f"},
  };
  for (const auto& c : cases) {
    const Credentials credentials = ReadCredentials(c.env, c.fields);
    EXPECT_EQ(credentials.session_id, c.sid);
    EXPECT_EQ(credentials.source, c.source);
    EXPECT_EQ(credentials.token, c.token);
  }
}

TEST(LanguageTest, FirstTagDecides) {
  const struct {
    const char* header;
    const char* code;
  } cases[] = {
      {"", "enu"},
      {"en-US,en;q=0.9", "enu"},
      {"zh-TW,zh;q=0.9", "cht"},
      {"zh-Hant-TW", "cht"},
      {"zh", "chs"},
      {"zh-CN", "chs"},
      {"zh_cn", "chs"},
      {"de-DE", "ger"},
      {"FR", "fre"},
      {"es-419", "spn"},
      {"nb", "nor"},
      {"pt-BR", "ptb"},
      {"pt-PT", "ptg"},
      {"el, de", "enu"},
      {" de ;q=0.8, en", "ger"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(LanguageFromAcceptLanguage(c.header), c.code) << c.header;
  }
  EXPECT_EQ(Decode({{"HTTP_ACCEPT_LANGUAGE", "ja,en"}}).language, "jpn");
}

TEST(AnswerTest, HeadersLengthAndBody) {
  const std::string answer = BuildAnswer(ErrorEnvelope(119), {"Set-Cookie: id=; Max-Age=0"});
  const std::string body = R"({"error":{"code":119},"success":false})";
  EXPECT_EQ(answer,
            "Content-Type: application/json; charset=utf-8\r\n"
            "X-Content-Type-Options: nosniff\r\n"
            "Cache-Control: no-store\r\n"
            "Content-Length: " +
                std::to_string(body.size()) +
                "\r\n"
                "Set-Cookie: id=; Max-Age=0\r\n"
                "\r\n" +
                body);
  // The length counts bytes, not characters.
  Json::Value data(Json::objectValue);
  data["data"] = "✓";
  const std::string utf8 = BuildAnswer(data);
  EXPECT_NE(utf8.find("Content-Length: 14\r\n"), std::string::npos) << utf8;
}

}  // namespace
}  // namespace larkpost::cgi
