// The host's request decoding and answer writing, without a process.
#include <gtest/gtest.h>
#include <json/writer.h>  // prints values in failure messages

#include <sstream>

#include "appliance/framework/cgi.h"
#include "platform/zevo/webapi.h"

namespace larkpost::cgi {
namespace {

using namespace std::string_literals;
constexpr auto Parse = &ZEVO::WebAPIUtil::ParseJson;

EntryRequest Decode(const Environment& env, const std::string& body = "") {
  std::istringstream in(body);
  return DecodeEntryRequest(env, in, FormOptions());
}

TEST(FieldDecodingTest, JsonTextsBecomeValuesAnythingElseAString) {
  const struct {
    const char* text;
    const char* value;  // as compact JSON
  } json[] = {{"[1, 2]", "[1,2]"}, {"true", "true"}, {"\"Work\"", "\"Work\""},
              {"\"5\"", "\"5\""},  {" 5 ", "5"},     {"{\"a\": null}", "{\"a\":null}"}};
  for (const auto& c : json) {
    EXPECT_EQ(ZEVO::WebAPIUtil::ToString(DecodeFieldValue(c.text)), c.value) << c.text;
  }
  // Nesting deeper than the reader's stack limit is text too, not a crash.
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  for (const std::string text : {"Work", "Grüße", "", "5abc", "[1,", "[1,]", "{\"a\":1}x", "'x'",
                                 "// c\n1", "1 2", "NaN", deep.c_str()}) {
    EXPECT_EQ(DecodeFieldValue(text), Json::Value(text)) << text.substr(0, 10);
  }
}

TEST(EntryRequestTest, ReservedFieldsAndParameters) {
  const std::string body = "method=get&name=%22Body%22&_token=tok&file=x";
  const EntryRequest request =
      Decode({{"REQUEST_METHOD", "POST"},
              {"CONTENT_TYPE", "application/x-www-form-urlencoded; charset=UTF-8"},
              {"CONTENT_LENGTH", std::to_string(body.size())},
              {"QUERY_STRING",
               "api=ZEVO.Larkpost.Mailbox&version=1&name=Query&id=%5B1%2C2%5D&read=false&_sid=abc"
               "&file_tmp=%2Fetc%2Fshadow&b=x+y&c=%zz%4&d&=skip&&e=a%3Db&f=%E2%9C%93&g=%225%22"
               "&read=true"}},
             body);
  EXPECT_EQ(request.api, "ZEVO.Larkpost.Mailbox");
  EXPECT_EQ(request.version, "1");
  EXPECT_EQ(request.method, "get");
  // The body wins over the query, a later field over an earlier one; the
  // client cannot name a stored file.
  EXPECT_EQ(request.params, Parse(R"({"id": [1, 2], "read": true, "name": "Body", "b": "x y",
                                      "c": "%zz%4", "d": "", "e": "a=b", "f": "✓", "g": "5"})"));
  EXPECT_EQ(request.credentials.session_id, "abc");
  EXPECT_EQ(request.credentials.token, "tok");
  EXPECT_FALSE(request.upload);
}

TEST(EntryRequestTest, RefusedBodies) {
  const struct {
    const char* length;
    const char* type;
    std::string body;
    int code;
  } cases[] = {
      // Announced larger than the limit: refused before reading.
      {"67108865", "application/x-www-form-urlencoded", "", kErrorTooLarge},
      {"99999999999999999999999", "", "", kErrorTooLarge},
      {"12x", "", "a=1", kErrorBadRequest},
      {"10", "application/x-www-form-urlencoded", "a=1", kErrorBadRequest},
      {"7", "application/json", "{\"a\":1}", kErrorBadRequest},
      {"3", "multipart/form-data", "a=1", kErrorBadRequest},
  };
  for (const auto& c : cases) {
    try {
      Decode({{"CONTENT_LENGTH", c.length}, {"CONTENT_TYPE", c.type}}, c.body);
      ADD_FAILURE() << "accepted: " << c.body;
    } catch (const RequestError& e) {
      EXPECT_EQ(e.code(), c.code) << c.length << " " << e.what();
    }
  }
  // Another type without a body is no body at all.
  EXPECT_NO_THROW(Decode({{"CONTENT_TYPE", "application/json"}, {"QUERY_STRING", "a=1"}}));
}

TEST(EntryRequestTest, TextThatIsNotCleanUtf8IsFound) {
  const struct {
    const char* query;
    std::optional<std::string> unclean;
  } cases[] = {
      {"name=Work&f=Gr%C3%BC%C3%9Fe&g=%F0%9F%98%80&h=%22%5Cud83d%5Cude00%22", std::nullopt},
      {"name=%FF", "name"},
      {"source=a%00b", "source"},
      {"keyword=%22%5Cu0000%22", "keyword"},      // "\u0000"
      {"name=%22%5Cudc00%22", "name"},            // a lone low surrogate decodes to ED B0 80
      {"name=%22%5Cud800%22", std::nullopt},      // not JSON: kept as its own (clean) text
      {"id=%5B1%2C%22%C0%80%22%5D", "id"},        // an overlong NUL inside an array
      {"x=%E2%82", "x"},                          // cut short
      {"data=%7B%22%5Cu0000%22%3A1%7D", "data"},  // {"\u0000":1}: a key
      {"a%FF%00b=1", "a??b"},                     // the name itself
  };
  for (const auto& c : cases) {
    EXPECT_EQ(FindUncleanParameter(Decode({{"QUERY_STRING", c.query}}).params), c.unclean)
        << c.query;
  }
  // An upload's text fields and its file name.
  for (const auto& [part, name] :
       {std::pair<std::string, std::string>{"name=\"label\"\r\n\r\na\0b"s, "label"},
        {"name=\"f\"; filename=\"x.txt\0.svg\"\r\n\r\ndata"s, "file"},
        {"name=\"f\"; filename=\"\xC3\x28\"\r\n\r\ndata", "file"}}) {
    const std::string body = "--b\r\nContent-Disposition: form-data; " + part + "\r\n--b--\r\n";
    FormOptions options;
    options.upload_dir = ::testing::TempDir() + "/upload";
    std::istringstream in(body);
    const EntryRequest request =
        DecodeEntryRequest({{"REQUEST_METHOD", "POST"},
                            {"CONTENT_TYPE", "multipart/form-data; boundary=b"},
                            {"CONTENT_LENGTH", std::to_string(body.size())}},
                           in, options);
    EXPECT_EQ(FindUncleanParameter(request.params), name) << part;
  }
}

TEST(CredentialsTest, SessionFieldElseCookieAndTokenHeaderElseField) {
  const struct {
    const char* cookie;
    const char* session;  // what the cookie names, nullptr for none
  } cookies[] = {{"lang=en; id=\"c00k\"; x=1", "c00k"},
                 {"xid=no;id2=no; id=", nullptr},
                 {"id=first; id=second", "first"}};
  for (const auto& c : cookies) {
    const Credentials credentials = ReadCredentials({{"HTTP_COOKIE", c.cookie}}, {{"_sid", ""}});
    EXPECT_EQ(credentials.session_id, c.session ? c.session : "") << c.cookie;
    EXPECT_EQ(credentials.source, c.session ? SessionSource::kCookie : SessionSource::kNone);
  }
  const Credentials field = ReadCredentials({{"HTTP_COOKIE", "id=c"}, {"HTTP_X_ZEVO_TOKEN", "h"}},
                                            {{"_sid", "f"}, {"_token", "t"}});
  EXPECT_EQ(field.session_id, "f");
  EXPECT_EQ(field.source, SessionSource::kField);
  EXPECT_EQ(field.token, "h");
  EXPECT_EQ(ReadCredentials({}, {{"_token", "t"}}).token, "t");
}

TEST(LanguageTest, FirstTagDecides) {
  const struct {
    const char* header;
    const char* code;
  } cases[] = {{"", "enu"},      {"zh-TW,zh;q=0.9", "cht"}, {"zh_cn", "chs"},
               {"pt-BR", "ptb"}, {"el, de", "enu"},         {" DE ;q=0.8, en", "ger"}};
  for (const auto& c : cases) EXPECT_EQ(LanguageFromAcceptLanguage(c.header), c.code) << c.header;
}

TEST(AnswerTest, HeadersLengthAndBody) {
  EXPECT_EQ(BuildAnswer(ErrorEnvelope(119), {"Set-Cookie: id=; Max-Age=0"}),
            "Content-Type: application/json; charset=utf-8\r\nX-Content-Type-Options: nosniff\r\n"
            "Cache-Control: no-store\r\nContent-Security-Policy: sandbox; default-src 'none'; "
            "style-src 'unsafe-inline'; img-src data:; frame-ancestors 'self'\r\n"
            "Referrer-Policy: no-referrer\r\nContent-Length: 38\r\nSet-Cookie: id=; Max-Age=0\r\n"
            "\r\n"
            R"({"error":{"code":119},"success":false})");
  // The length counts bytes, not characters, and the text stays UTF-8.
  const std::string utf8 = BuildAnswer(Parse(R"({"data": "✓"})"));
  EXPECT_EQ(utf8.substr(utf8.find("Content-Length")), "Content-Length: 14\r\n\r\n{\"data\":\"✓\"}");
  // Only a body over the limit changes the HTTP status.
  EXPECT_EQ(
      BuildAnswer(ErrorEnvelope(kErrorTooLarge)).rfind("Status: 413 Payload Too Large\r\n", 0), 0u);
  for (int code : {kErrorBadRequest, kErrorNoSession}) {
    EXPECT_EQ(BuildAnswer(ErrorEnvelope(code)).find("Status:"), std::string::npos) << code;
  }
}

}  // namespace
}  // namespace larkpost::cgi
