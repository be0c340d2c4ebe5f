#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <stdexcept>
#include <string>
#include <utility>

#include "appliance/system/appliance.h"
#include "platform/zevo/session.h"
#include "tests/system/temp_root.h"

namespace larkpost::appliance {
namespace {

using ::testing::HasSubstr;
using Strings = std::map<std::string, std::string>;

TEST(ConfigTest, NamedKeysOverrideTheDefaultsUnknownKeysAreIgnoredAndSavingKeepsAll) {
  testing::TempRoot root;
  SaveConfig(ParseConfig(R"({
    "mail_server": {"smtp_enabled": "yes", "smtp_hostname": "mx.example.org"},
    "relay": {"port": 2525}, "shares": {"team": "/srv/team \"q\""}, "session_timeout": 60,
    "program_prefix": "/opt/larkpost", "login_failure_delay_ms": 0,
    "max_request_size": 8589934592, "max_requests": 4, "request_time_limit": 30,
    "colour": "blue"})"));
  EXPECT_EQ(root.Read("etc/larkpost.json.tmp." + std::to_string(getpid())), "");
  const Config& config = GetConfig();
  EXPECT_EQ(config.mail_server, (Strings{{"smtp_enabled", "yes"},
                                         {"smtp_hostname", "mx.example.org"},
                                         {"fts_enabled", "yes"}}));
  EXPECT_EQ(config.relay_host + ":" + std::to_string(config.relay_port), "127.0.0.1:2525");
  EXPECT_EQ(config.shares, (Strings{{"team", "/srv/team \"q\""}}));
  EXPECT_EQ(config.session_timeout, 60);
  EXPECT_EQ(config.program_prefix, "/opt/larkpost");
  EXPECT_EQ(config.login_failure_delay_ms, 0);
  EXPECT_EQ(config.max_request_size, 8589934592LL);
  EXPECT_EQ(config.max_requests, 4);
  EXPECT_EQ(config.request_time_limit, 30);
  EXPECT_EQ(config.program_time_limit, 60);
}

TEST(ParseConfigTest, RefusalNamesTheKeyAtFault) {
  const std::pair<const char*, const char*> cases[] = {
      {"[]", "object"},
      {"{", "JSON"},
      {R"({"a": 1, "a": 2})", "JSON"},
      {R"({"mail_server": "yes"})", "\"mail_server\""},
      {R"({"mail_server": {"fts_enabled": true}})", "\"mail_server.fts_enabled\""},
      {R"({"relay": {"host": 1}})", "\"relay.host\""},
      {R"({"relay": {"port": "25"}})", "\"relay.port\""},
      {R"({"relay": {"port": 70000}})", "\"relay.port\""},
      {R"({"shares": {"docs": "relative/dir"}})", "\"shares.docs\""},
      {R"({"shares": {"a/b": "/srv"}})", "\"shares.a/b\""},
      {R"({"session_timeout": 60.0})", "\"session_timeout\""},
      {R"({"session_timeout": 0})", "\"session_timeout\""},
      {R"({"program_prefix": null})", "\"program_prefix\""},
      {R"({"login_failure_delay_ms": -1})", "\"login_failure_delay_ms\""},
      {R"({"max_request_size": "64M"})", "\"max_request_size\""},
      {R"({"max_requests": 0})", "\"max_requests\""},
      {R"({"program_time_limit": 1.5})", "\"program_time_limit\""}};
  for (const auto& [json, key] : cases) {
    try {
      ParseConfig(json);
      ADD_FAILURE() << "accepted " << json;
    } catch (const std::runtime_error& e) {
      EXPECT_THAT(e.what(), HasSubstr(key)) << json;
    }
  }
}

TEST(ConfigFileTest, MissingFileGivesTheDefaultsABrokenOneAnErrorNamingIt) {
  testing::TempRoot root;
  EXPECT_EQ(VESLCConfGetVexTimeout(), 1800);
  root.Write("etc/larkpost.json", R"({"session_timeout": 42})");
  detail::ForgetConfig();
  EXPECT_EQ(VESLCConfGetVexTimeout(), 42);
  root.Write("etc/larkpost.json", R"({"session_timeout": "long"})");
  detail::ForgetConfig();
  EXPECT_EQ(VESLCConfGetVexTimeout(), 1800);  // the checker falls back on the default
  EXPECT_THAT([] { GetConfig(); }, ::testing::ThrowsMessage<std::runtime_error>(::testing::AllOf(
                                       HasSubstr(ConfigPath()), HasSubstr("\"session_timeout\""))));
}

TEST(ConfigFileTest, RelativeDataRootIsMadeAbsoluteAndClean) {
  testing::TempRoot root;
  setenv("LARKPOST_ROOT", "./some//where/.", 1);
  ResetForTesting();
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  EXPECT_EQ(UserDir(1026), std::string(cwd) + "/some/where/mail/1026");
}

}  // namespace
}  // namespace larkpost::appliance
