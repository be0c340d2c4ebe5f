#include "tests/unit/handler_test_util.h"

#include <cstdlib>
#include <filesystem>

namespace larkpost::test {

void HandlerTest::SetUp() {
  fake::Reset();
  fake::ResetSystemLog();
  char pattern[] = "/tmp/larkpost-unit-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  temp_root_ = pattern;
  fake::core().app_root = temp_root_;
  fake::AddUser(kAlice, "alice");
}

void HandlerTest::TearDown() { std::filesystem::remove_all(temp_root_); }

Json::Value HandlerTest::Run(ZEVO::APIHandler handler, const Json::Value& params, uint32_t uid,
                             const std::string& session) {
  ZEVO::APIRequest request(params);
  auto user = fake::core().users.find(uid);
  request.SetLoginUser(uid, user == fake::core().users.end() ? "" : user->second.name,
                       user != fake::core().users.end() && user->second.is_admin);
  request.SetSessionID(session);
  ZEVO::APIResponse response;
  handler(&request, &response);
  return response.ToEnvelope();
}

Json::Value J(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(ZEVO::WebAPIUtil::FromString(text, value)) << text;
  return value;
}

}  // namespace larkpost::test
