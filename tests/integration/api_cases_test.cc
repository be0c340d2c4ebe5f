// End-to-end cases written as data: each file in tests/integration/cases
// runs against a fresh data root through entry.cgi, request by request.
//
//   # a comment
//   @user alice                      log in as alice (created on first use)
//   @admin root                      the same, for an administrator
//   @deliver mail/reply-1.eml        larkpostctl deliver of a fixture
//   > ZEVO.Larkpost.Mailbox create {"name": "Work"}
//   < {"success": true, "data": {"id": 8}}
//   <raw mail/reply-1.eml            the answer's body is the file, byte for byte
//   <status 404                      the answer is the CGI 404 page
//
// An expected JSON value matches when every member it names matches (objects
// may hold more members); arrays match element by element and in length; an
// expected string "~text" matches a string that contains text, "!~text" one
// that does not.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/zevo/webapi.h"
#include "tests/integration/integration_util.h"

namespace larkpost::itest {
namespace {

namespace fs = std::filesystem;

std::string Fixtures() { return std::string(LARKPOST_SOURCE_DIR) + "/tests/fixtures"; }

// Why `actual` does not match `expected`, or "" when it does.
std::string Mismatch(const Json::Value& expected, const Json::Value& actual,
                     const std::string& where) {
  if (expected.isObject()) {
    if (!actual.isObject()) return where + ": not an object";
    for (const std::string& name : expected.getMemberNames()) {
      if (!actual.isMember(name)) return where + "." + name + ": missing";
      std::string why = Mismatch(expected[name], actual[name], where + "." + name);
      if (!why.empty()) return why;
    }
    return "";
  }
  if (expected.isArray()) {
    if (!actual.isArray() || actual.size() != expected.size()) {
      return where + ": expected " + std::to_string(expected.size()) + " elements, got " +
             ZEVO::WebAPIUtil::ToString(actual);
    }
    for (Json::ArrayIndex i = 0; i < expected.size(); ++i) {
      std::string why = Mismatch(expected[i], actual[i], where + "[" + std::to_string(i) + "]");
      if (!why.empty()) return why;
    }
    return "";
  }
  if (expected.isString() && actual.isString()) {
    const std::string pattern = expected.asString();
    const std::string text = actual.asString();
    if (pattern.rfind("~", 0) == 0 && text.find(pattern.substr(1)) != std::string::npos) return "";
    if (pattern.rfind("!~", 0) == 0 && text.find(pattern.substr(2)) == std::string::npos) return "";
  }
  if (expected == actual) return "";
  return where + ": expected " + ZEVO::WebAPIUtil::ToString(expected) + ", got " +
         ZEVO::WebAPIUtil::ToString(actual);
}

class ApiCasesTest : public ::testing::TestWithParam<std::string> {};

TEST_P(ApiCasesTest, Run) {
  DataRoot root;
  std::string user, sid;
  CgiAnswer last;
  std::ifstream file(GetParam());
  std::string line;
  int number = 0;
  while (std::getline(file, line)) {
    ++number;
    const std::string at = fs::path(GetParam()).filename().string() + ":" + std::to_string(number);
    if (line.empty() || line[0] == '#') continue;
    std::istringstream words(line);
    std::string verb;
    words >> verb;
    std::string rest;
    std::getline(words, rest);
    rest.erase(0, rest.find_first_not_of(' '));
    if (verb == "@user" || verb == "@admin") {
      user = rest;
      root.AddUser(user, "secret", verb == "@admin");
      sid = root.Login(user, "secret")["sid"].asString();
    } else if (verb == "@deliver") {
      ProcessResult result =
          RunProcess({BinDir() + "/larkpostctl", "--root", root.path(), "deliver", user}, {},
                     ReadFile(Fixtures() + "/" + rest));
      ASSERT_EQ(result.exit_code, 0) << at << ": " << result.err;
    } else if (verb == ">") {
      std::istringstream request(rest);
      std::string api, method;
      request >> api >> method;
      std::string params_text;
      std::getline(request, params_text);
      Json::Value params;
      ASSERT_TRUE(params_text.find_first_not_of(' ') == std::string::npos ||
                  ZEVO::WebAPIUtil::FromString(params_text, params))
          << at << ": bad parameters";
      CgiRequest cgi;
      cgi.method = "POST";
      cgi.query = "api=" + api + "&version=1&method=" + method + "&_sid=" + sid;
      for (const std::string& name : params.getMemberNames()) {
        cgi.body += (cgi.body.empty() ? "" : "&") + UrlEncode(name) + "=" +
                    UrlEncode(ZEVO::WebAPIUtil::ToString(params[name]));
      }
      last = root.Cgi("entry.cgi", cgi);
    } else if (verb == "<") {
      Json::Value expected;
      ASSERT_TRUE(ZEVO::WebAPIUtil::FromString(rest, expected)) << at << ": bad expectation";
      EXPECT_EQ(Mismatch(expected, last.json, "answer"), "") << at << "\n" << last.body;
    } else if (verb == "<raw") {
      EXPECT_EQ(last.body, ReadFile(Fixtures() + "/" + rest)) << at;
    } else if (verb == "<status") {
      EXPECT_EQ(last.headers["status"].substr(0, 3), rest) << at << "\n" << last.body;
    } else {
      FAIL() << at << ": unknown line";
    }
  }
}

std::vector<std::string> CaseFiles() {
  std::vector<std::string> files;
  for (const auto& entry :
       fs::directory_iterator(std::string(LARKPOST_SOURCE_DIR) + "/tests/integration/cases")) {
    if (entry.path().extension() == ".cases") files.push_back(entry.path().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

INSTANTIATE_TEST_SUITE_P(Cases, ApiCasesTest, ::testing::ValuesIn(CaseFiles()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                           return fs::path(info.param).stem().string();
                         });

}  // namespace
}  // namespace larkpost::itest
