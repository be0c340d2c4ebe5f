// The handler frame: program name and log identity, "additional" bits, the
// two ways of establishing the user, and how entry functions
// turn exceptions into answers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <fstream>
#include <stdexcept>

#include "platform/mailcore/error.h"
#include "tests/unit/handler_test_util.h"
#include "webapi/base_api.h"
#include "webapi/entry.h"

namespace larkpost::test {
namespace {

using ornic::larkpost::webapi::BaseAPI;
using ornic::larkpost::webapi::CustomAuthAPI;
using ornic::larkpost::webapi::NormalAPI;
using ornic::larkpost::webapi::ReadProgramName;
using ornic::larkpost::webapi::RunEntry;
using ::testing::ElementsAre;

// The name this test binary runs under, as the handlers read it.
const std::string& OwnProgramName() {
  static const std::string name = ReadProgramName("/proc/self/cmdline");
  return name;
}

using ProgramNameTest = HandlerTest;

TEST_F(ProgramNameTest, TakesTheLastComponentOfTheProgramPath) {
  using namespace std::string_literals;
  const std::string path = temp_root_ + "/cmdline";
  struct Case {
    std::string content;
    std::string name;
  } cases[] = {
      {"/usr/bin/webapi-worker\0--flag\0value\0"s, "webapi-worker"},
      {"entry.cgi\0"s, "entry.cgi"},
      {"/opt/with space/prog\0"s, "with"},  // reading stops at the first blank
      {"relative/dir/\0x\0"s, ""},
  };
  for (const Case& c : cases) {
    std::ofstream(path, std::ios::binary) << c.content;
    EXPECT_EQ(ReadProgramName(path.c_str()), c.name) << c.content;
  }
  EXPECT_EQ(ReadProgramName((temp_root_ + "/missing").c_str()), "");
}

// A minimal handler of each kind, whose methods do what a test asks.
class ProbeAPI : public NormalAPI {
 public:
  using NormalAPI::NormalAPI;
  void Succeed() { response_->SetSuccess(Json::Value()); }
  void Additional() {
    ParseAdditional();
    response_->SetSuccess(Json::Value(additional_));
  }
  void ThrowCoreError() { throw ornic::Error(117); }
  void ThrowOther() { throw std::logic_error("not a core error"); }
};

class CustomProbeAPI : public CustomAuthAPI {
 public:
  using CustomAuthAPI::CustomAuthAPI;
  void Who() { response_->SetSuccess(Json::Value(uid_)); }
};

using FrameTest = HandlerTest;

TEST_F(FrameTest, LogIdentityNamesTheUserWhileTheHandlerLivesAndThenTheProgram) {
  Run(RunEntry<ProbeAPI, &ProbeAPI::Succeed>);
  const auto& log = fake::system_log();
  EXPECT_THAT(log.idents, ElementsAre(OwnProgramName() + " (alice) ", OwnProgramName()));
  EXPECT_EQ(log.closes, 2);
  EXPECT_EQ(log.options, LOG_PID | LOG_CONS);
  EXPECT_EQ(log.facility, 0);
  // The log still holds the text it was opened with after the handler is
  // gone; reading it must not touch freed memory.
  ASSERT_NE(log.ident, nullptr);
  EXPECT_EQ(std::string(log.ident), OwnProgramName());

  // Two requests in a row: no identity text changes while the log holds it.
  Run(RunEntry<ProbeAPI, &ProbeAPI::Succeed>);
  EXPECT_EQ(std::string(fake::system_log().ident), OwnProgramName());
  EXPECT_THAT(fake::system_log().changed_while_held, ::testing::IsEmpty());
}

TEST_F(FrameTest, AdditionalWordsSetTheirBits) {
  struct Case {
    const char* params;
    int bits;
  } cases[] = {
      {R"({})", 0},
      {R"({"additional": ["unread_count", "body_preview", "unknown"]})", 6},
      {R"({"additional": ["blockquote", "blockquote"]})", 1},
      {R"({"additional": ["draft_total_count", "block_external_image"]})", 24},
      {R"({"additional": ["Unread_Count", 4]})", 0},  // exact words only
      {R"({"additional": "unread_count"})", 0},       // not an array
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Data(Run(RunEntry<ProbeAPI, &ProbeAPI::Additional>, J(c.params))).asInt(), c.bits)
        << c.params;
  }
}

TEST_F(FrameTest, CoreErrorsBecomeTheAnswerAndOtherExceptionsPassThrough) {
  Json::Value answer = Run(RunEntry<ProbeAPI, &ProbeAPI::ThrowCoreError>);
  EXPECT_EQ(answer, J(R"({"success": false, "error": {"code": 117}})"));

  ZEVO::APIRequest request(Json::objectValue);
  request.SetLoginUser(kAlice, "alice", false);
  ZEVO::APIResponse response;
  EXPECT_THROW((RunEntry<ProbeAPI, &ProbeAPI::ThrowOther>(&request, &response)), std::logic_error);
  EXPECT_EQ(response.ToEnvelope(), J(R"({"success": true})")) << "left as it was";
  EXPECT_EQ(std::string(fake::system_log().ident), OwnProgramName())
      << "the identity is restored on the way out";
}

TEST_F(FrameTest, NormalHandlerHandsAnUnknownUserToTheCore) {
  // The core refuses the unknown uid; its code reaches the client and no
  // method runs.
  Json::Value answer = Run(RunEntry<ProbeAPI, &ProbeAPI::Succeed>, Json::objectValue,
                           ZEVO::kUnknownUID, "some-session");
  EXPECT_EQ(ErrorCode(answer), ornic::kErrorNoSuchUser);
  EXPECT_THAT(fake::core().calls, ElementsAre("Controller 4294967295 some-session"));
  EXPECT_TRUE(fake::system_log().idents.empty()) << "the log is not touched";
}

TEST_F(FrameTest, CustomHandlerAuthenticatesTheSessionItself) {
  fake::core().users[1027] = "bob";
  fake::core().sessions = {{"sid-bob", "bob"}, {"sid-nameless", ""}};
  fake::core().vex_timeout = 900;
  auto who = RunEntry<CustomProbeAPI, &CustomProbeAPI::Who>;

  // A known login uid is taken as it is: no session check.
  EXPECT_EQ(Data(Run(who, Json::objectValue, kAlice, "sid-bob")).asUInt(), kAlice);
  EXPECT_TRUE(fake::CallsStartingWith("ZevoCgi").empty());

  fake::core().calls.clear();
  EXPECT_EQ(Data(Run(who, Json::objectValue, ZEVO::kUnknownUID, "sid-bob")).asUInt(), 1027u);
  EXPECT_THAT(fake::core().calls,
              ElementsAre("ZevoCgiInitEx 900 1 current.users ''",
                          "ZevoCgiIsAuthorizedEx sid-bob 493 15,0 0", "ZevoCgiFree", "ZevoUser bob",
                          "Controller 1027 sid-bob"));

  // Rejected session, a session without a user name, a user that is gone,
  // a session store that cannot be opened: 105 before any method runs.
  fake::core().sessions["sid-ghost"] = "ghost";
  for (const char* session : {"sid-unknown", "sid-nameless", "sid-ghost"}) {
    fake::core().calls.clear();
    EXPECT_EQ(Run(who, Json::objectValue, ZEVO::kUnknownUID, session),
              J(R"({"success": false, "error": {"code": 105}})"))
        << session;
    EXPECT_TRUE(fake::CallsStartingWith("Controller").empty()) << session;
  }
  fake::core().failures["ZevoCgiInitEx"] = 0;
  EXPECT_EQ(ErrorCode(Run(who, Json::objectValue, ZEVO::kUnknownUID, "sid-bob")), 105);
}

TEST_F(FrameTest, UserDirectoryComesFromTheCore) {
  ZEVO::APIRequest request(Json::objectValue);
  request.SetLoginUser(kAlice, "alice", false);
  ZEVO::APIResponse response;
  ProbeAPI api(&request, &response);
  BaseAPI& base = api;
  EXPECT_EQ(base.PrepareUserLarkpostDir(".ORNIC/@tmp"), temp_root_ + "/1026/.ORNIC/@tmp");
  EXPECT_EQ(fake::CallsStartingWith("ZevoUser::PrepareUserLarkpostDir").size(), 1u);
}

}  // namespace
}  // namespace larkpost::test
