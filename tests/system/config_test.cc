#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "appliance/system/appliance.h"
#include "tests/system/temp_root.h"

namespace larkpost::appliance {
namespace {

using ::testing::HasSubstr;

TEST(ParseConfigTest, EmptyObjectGivesDefaults) {
  Config config = ParseConfig("{}");
  EXPECT_EQ(config.mail_server.at("smtp_enabled"), "no");
  EXPECT_EQ(config.mail_server.at("smtp_hostname"), "");
  EXPECT_EQ(config.mail_server.at("fts_enabled"), "yes");
  EXPECT_EQ(config.relay_host, "127.0.0.1");
  EXPECT_EQ(config.relay_port, 25);
  EXPECT_TRUE(config.shares.empty());
  EXPECT_EQ(config.session_timeout, 1800);
  EXPECT_EQ(config.login_failure_delay_ms, 1000);
  EXPECT_EQ(config.max_request_size, 64 * 1024 * 1024);
}

TEST(ParseConfigTest, NamedKeysOverrideAndUnknownKeysAreIgnored) {
  Config config = ParseConfig(R"({
    "mail_server": {"smtp_enabled": "yes", "smtp_hostname": "mail.example.org"},
    "relay": {"port": 2525},
    "shares": {"public": "/srv/public"},
    "session_timeout": 60,
    "program_prefix": "/opt/larkpost",
    "login_failure_delay_ms": 0,
    "max_request_size": 8589934592,
    "colour": "blue"
  })");
  EXPECT_EQ(config.mail_server.at("smtp_enabled"), "yes");
  EXPECT_EQ(config.mail_server.at("smtp_hostname"), "mail.example.org");
  EXPECT_EQ(config.mail_server.at("fts_enabled"), "yes");  // default kept
  EXPECT_EQ(config.relay_host, "127.0.0.1");
  EXPECT_EQ(config.relay_port, 2525);
  EXPECT_EQ(config.shares.at("public"), "/srv/public");
  EXPECT_EQ(config.session_timeout, 60);
  EXPECT_EQ(config.program_prefix, "/opt/larkpost");
  EXPECT_EQ(config.login_failure_delay_ms, 0);
  EXPECT_EQ(config.max_request_size, 8589934592LL);
}

struct BadConfig {
  const char* json;
  const char* names;  // what the error message must name
};

class BadConfigTest : public ::testing::TestWithParam<BadConfig> {};

TEST_P(BadConfigTest, ThrowsNamingTheKey) {
  try {
    ParseConfig(GetParam().json);
    FAIL() << "accepted " << GetParam().json;
  } catch (const std::runtime_error& e) {
    EXPECT_THAT(e.what(), HasSubstr(GetParam().names));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, BadConfigTest,
    ::testing::Values(BadConfig{"[]", "object"}, BadConfig{"{", "JSON"},
                      BadConfig{R"({"a": 1, "a": 2})", "JSON"},
                      BadConfig{R"({"mail_server": "yes"})", "\"mail_server\""},
                      BadConfig{R"({"mail_server": {"fts_enabled": true}})",
                                "\"mail_server.fts_enabled\""},
                      BadConfig{R"({"relay": {"host": 1}})", "\"relay.host\""},
                      BadConfig{R"({"relay": {"port": "25"}})", "\"relay.port\""},
                      BadConfig{R"({"relay": {"port": 70000}})", "\"relay.port\""},
                      BadConfig{R"({"shares": {"docs": "relative/dir"}})", "\"shares.docs\""},
                      BadConfig{R"({"shares": {"a/b": "/srv"}})", "\"shares.a/b\""},
                      BadConfig{R"({"session_timeout": 60.5})", "\"session_timeout\""},
                      BadConfig{R"({"session_timeout": 0})", "\"session_timeout\""},
                      BadConfig{R"({"program_prefix": null})", "\"program_prefix\""},
                      BadConfig{R"({"login_failure_delay_ms": -1})", "\"login_failure_delay_ms\""},
                      BadConfig{R"({"max_request_size": "64M"})", "\"max_request_size\""}));

class ConfigFileTest : public ::testing::Test {
 protected:
  testing::TempRoot root_;
};

TEST_F(ConfigFileTest, MissingFileGivesDefaults) { EXPECT_EQ(GetConfig().session_timeout, 1800); }

TEST_F(ConfigFileTest, BrokenFileThrowsNamingThePath) {
  root_.Write("etc/larkpost.json", R"({"session_timeout": "long"})");
  try {
    GetConfig();
    FAIL() << "a broken configuration was accepted";
  } catch (const std::runtime_error& e) {
    EXPECT_THAT(e.what(), HasSubstr(ConfigPath()));
    EXPECT_THAT(e.what(), HasSubstr("session_timeout"));
  }
}

TEST_F(ConfigFileTest, SavedConfigurationReadsBackAndLeavesNoTemporaryFile) {
  Config config;
  config.mail_server["smtp_hostname"] = "mx.example.org";
  config.shares["team"] = "/srv/team \"q\"";
  config.session_timeout = 90;
  config.max_request_size = 5;
  SaveConfig(config);
  const Config& read = GetConfig();
  EXPECT_EQ(read.mail_server, config.mail_server);
  EXPECT_EQ(read.shares, config.shares);
  EXPECT_EQ(read.session_timeout, 90);
  EXPECT_EQ(read.max_request_size, 5);
  EXPECT_EQ(::access((ConfigPath() + ".tmp." + std::to_string(getpid())).c_str(), F_OK), -1);
}

TEST_F(ConfigFileTest, DataRootIsAbsoluteAndPathsHangBelowIt) {
  EXPECT_EQ(DataRoot(), root_.path());
  EXPECT_EQ(UserDir(1026), root_.path() + "/mail/1026");
  EXPECT_EQ(HomeDir("alice"), root_.path() + "/homes/alice");
  EXPECT_EQ(UsersDbPath(), root_.path() + "/etc/users.db");

  setenv("LARKPOST_ROOT", "./some//where/.", 1);
  ResetForTesting();
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  EXPECT_EQ(DataRoot(), std::string(cwd) + "/some/where");
}

TEST_F(ConfigFileTest, MakeDirsCreatesParentsAndRefusesFiles) {
  EXPECT_TRUE(MakeDirs(root_.path() + "/a/b/c/"));
  EXPECT_TRUE(MakeDirs(root_.path() + "/a/b/c"));  // already there
  root_.Write("file", "x");
  EXPECT_FALSE(MakeDirs(root_.path() + "/file"));
  EXPECT_FALSE(MakeDirs(root_.path() + "/file/below"));
}

}  // namespace
}  // namespace larkpost::appliance
