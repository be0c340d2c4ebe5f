// "getinfo": first use prepares the store, later calls only set it up, and
// every call starts the three synchronisations in order.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/handler_test_util.h"
#include "webapi/api_table.h"

namespace larkpost::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class InfoTest : public HandlerTest {
 protected:
  void SetUp() override {
    HandlerTest::SetUp();
    fake::core().mail_server = {
        {"smtp_enabled", "yes"}, {"smtp_hostname", "mail.example.org"}, {"fts_enabled", "yes"}};
  }
  // The calls that matter for the store and the syncs, in order.
  static std::vector<std::string> StoreCalls() {
    std::vector<std::string> calls;
    for (const std::string& call : fake::core().calls) {
      if (call.rfind("GetMailServerKey", 0) != 0) calls.push_back(call);
    }
    return calls;
  }
};

TEST_F(InfoTest, FirstCallCreatesTheStoreAndItsMailboxes) {
  Json::Value answer = Run(InfoGetInfo_v1);
  EXPECT_EQ(answer, J(R"({"success": true, "data": {
      "max_upload_size": 10485760, "database_ready": true,
      "smtp_hostname": "mail.example.org", "fts_enabled": true}})"));
  EXPECT_THAT(StoreCalls(),
              ElementsAre("Controller 1026 sid-alice", "DBSetupHandler::DoesDBExist 1026",
                          "DBSetupHandler::SetupDB 1026",
                          "Controller 1026",  // a session of its own
                          "MailboxSyncer::CheckDefaultMailbox 1026",
                          "UpdateControl::UpdateAllMailbox 1026 false",
                          "ZEVOLarkpostNotifyMailboxUpdate 1026", "Syncer::TriggerSync 0",
                          "Syncer::TriggerSync 1", "Syncer::TriggerSync 2"));
}

TEST_F(InfoTest, LaterCallsOnlySetTheStoreUp) {
  fake::core().databases.insert(kAlice);
  EXPECT_TRUE(Data(Run(InfoGetInfo_v1))["database_ready"].asBool());
  EXPECT_THAT(StoreCalls(),
              ElementsAre("Controller 1026 sid-alice", "DBSetupHandler::DoesDBExist 1026",
                          "DBSetupHandler::SetupDB 1026", "Syncer::TriggerSync 0",
                          "Syncer::TriggerSync 1", "Syncer::TriggerSync 2"));

  // An existing store that cannot be upgraded is reported, not an error.
  fake::core().calls.clear();
  fake::core().failures["DBSetupHandler::SetupDB"] = 0;
  Json::Value answer = Run(InfoGetInfo_v1);
  EXPECT_TRUE(answer["success"].asBool());
  EXPECT_FALSE(Data(answer)["database_ready"].asBool());
}

TEST_F(InfoTest, NewStoreThatFailsIsNotReadyButSyncsStillStart) {
  fake::core().failures["DBSetupHandler::SetupDB"] = 0;
  Json::Value answer = Run(InfoGetInfo_v1);
  EXPECT_FALSE(Data(answer)["database_ready"].asBool());
  EXPECT_THAT(fake::CallsStartingWith("MailboxSyncer"), IsEmpty());
  EXPECT_THAT(fake::CallsStartingWith("ZEVOLarkpostNotify"), IsEmpty());
  EXPECT_THAT(
      fake::CallsStartingWith("Syncer::"),
      ElementsAre("Syncer::TriggerSync 0", "Syncer::TriggerSync 1", "Syncer::TriggerSync 2"));
}

TEST_F(InfoTest, LocalSendingNeedsExactlyYes) {
  struct Case {
    const char* enabled;
    const char* expected_host;
  } cases[] = {{"yes", "mail.example.org"},
               {"YES", ""},
               {"Yes", ""},
               {"1", ""},
               {"true", ""},
               {"", ""},
               {"yes ", ""}};
  for (const Case& c : cases) {
    fake::core().mail_server["smtp_enabled"] = c.enabled;
    fake::core().calls.clear();
    Json::Value data = Data(Run(InfoGetInfo_v1));
    EXPECT_EQ(data["smtp_hostname"].asString(), c.expected_host) << c.enabled;
    EXPECT_FALSE(data.isMember("smtp_enabled"));
    bool host_read = !fake::CallsStartingWith("GetMailServerKey smtp_hostname").empty();
    EXPECT_EQ(host_read, std::string(c.enabled) == "yes") << c.enabled;
  }
  fake::core().mail_server["fts_enabled"] = "no";
  EXPECT_FALSE(Data(Run(InfoGetInfo_v1))["fts_enabled"].asBool());
  fake::core().mail_server.erase("fts_enabled");
  EXPECT_FALSE(Data(Run(InfoGetInfo_v1))["fts_enabled"].asBool());
}

TEST_F(InfoTest, CoreErrorsAnswerWithTheirCodeAndNoData) {
  const char* operations[] = {"DBSetupHandler::DoesDBExist", "MailboxSyncer::CheckDefaultMailbox",
                              "GetMailServerKey", "Syncer::TriggerSync"};
  for (const char* operation : operations) {
    fake::core().databases.clear();
    fake::core().failures = {{operation, 502}};
    EXPECT_EQ(Run(InfoGetInfo_v1), J(R"({"success": false, "error": {"code": 502}})")) << operation;
  }
}

}  // namespace
}  // namespace larkpost::test
