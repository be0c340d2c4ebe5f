#include "tests/unit/handler_test_util.h"

#include <gmock/gmock.h>
#include <syslog.h>

#include <cstdlib>
#include <filesystem>
#include <regex>

#include "tests/framework/capture_stdout.h"

namespace larkpost::test {

void HandlerTest::SetUp() {
  fake::Reset();
  fake::ResetSystemLog();
  char pattern[] = "/tmp/larkpost-unit-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  temp_root_ = pattern;
  fake::core().app_root = temp_root_;
  fake::core().users[kAlice] = "alice";
}

void HandlerTest::TearDown() { std::filesystem::remove_all(temp_root_); }

Json::Value HandlerTest::Run(ZEVO::APIHandler handler, const Json::Value& params, uint32_t uid,
                             const std::string& session) {
  ZEVO::APIRequest request(params);
  auto user = fake::core().users.find(uid);
  request.SetLoginUser(uid, user == fake::core().users.end() ? "" : user->second, false);
  request.SetSessionID(session);
  ZEVO::APIResponse response;
  handler(&request, &response);
  return response.ToEnvelope();
}

HandlerTest::Streamed HandlerTest::RunStreaming(ZEVO::APIHandler handler,
                                                const Json::Value& params) {
  ZEVO::APIRequest request(params);
  request.SetLoginUser(kAlice, "alice", false);
  ZEVO::APIResponse response;
  std::string output = CaptureStdout([&] { handler(&request, &response); });
  return {output, response.IsOutputEnabled()};
}

void HandlerTest::ExpectChange(ZEVO::APIHandler handler, const std::string& params,
                               const std::string& call, const std::string& unit,
                               const std::string& failure, const std::vector<std::string>& then) {
  SCOPED_TRACE(call);
  const std::vector<std::string> up_to_call = {"Controller 1026 sid-alice", call};
  std::vector<std::string> all = up_to_call;
  all.insert(all.end(), then.begin(), then.end());
  fake::core().calls.clear();
  fake::core().failures.clear();
  fake::ResetSystemLog();
  EXPECT_EQ(Run(handler, J(params)), J(R"({"success": true})"));
  EXPECT_EQ(fake::core().calls, all);
  EXPECT_THAT(Logged(unit), ::testing::IsEmpty());

  fake::core().calls.clear();
  fake::core().failures[call] = 0;
  EXPECT_EQ(Run(handler, J(params)), ErrorAnswer(117));
  EXPECT_EQ(fake::core().calls, up_to_call);
  EXPECT_THAT(Logged(unit), ::testing::ElementsAre(failure));
  fake::core().failures.clear();
}

void HandlerTest::ExpectRefused(ZEVO::APIHandler handler, int code,
                                std::initializer_list<const char*> params) {
  for (const char* text : params) {
    fake::core().calls.clear();
    fake::ResetSystemLog();
    EXPECT_EQ(Run(handler, J(text)), ErrorAnswer(code)) << text;
    EXPECT_EQ(fake::core().calls, std::vector<std::string>{"Controller 1026 sid-alice"}) << text;
    EXPECT_THAT(fake::system_log().lines, ::testing::IsEmpty()) << text;
  }
}

Json::Value J(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(ZEVO::WebAPIUtil::FromString(text, value)) << text;
  return value;
}

Json::Value ErrorAnswer(int code) {
  Json::Value envelope = J(R"({"success": false, "error": {}})");
  envelope["error"]["code"] = code;
  return envelope;
}

Json::Value AsSent(const Json::Value& value) { return J(ZEVO::WebAPIUtil::ToString(value)); }

std::vector<std::string> Logged(const std::string& unit) {
  const std::regex line_of_unit(unit + ":[0-9]+ ([\\s\\S]*)");
  std::vector<std::string> messages;
  for (const fake::SystemLog::Line& line : fake::system_log().lines) {
    EXPECT_EQ(line.priority, LOG_LOCAL1 | LOG_ERR) << line.text;
    std::smatch match;
    const bool well_formed = std::regex_match(line.text, match, line_of_unit);
    EXPECT_TRUE(well_formed) << "not a line of " << unit << ": " << line.text;
    messages.push_back(well_formed ? match[1].str() : line.text);
  }
  return messages;
}

}  // namespace larkpost::test
