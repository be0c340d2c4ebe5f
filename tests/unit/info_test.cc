// "getinfo": first use prepares the store, later calls only set it up, and
// every call starts the three synchronisations in order.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/handler_test_util.h"
#include "webapi/api_table.h"

namespace larkpost::test {
namespace {

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

TEST_F(InfoTest, StoreIsCreatedOnFirstUseAndOnlySetUpLater) {
  const std::vector<std::string> kSyncs = {"Syncer::TriggerSync 0", "Syncer::TriggerSync 1",
                                           "Syncer::TriggerSync 2"};
  const std::vector<std::string> kCreate = {"Controller 1026",  // a session of its own
                                            "MailboxSyncer::CheckDefaultMailbox 1026",
                                            "UpdateControl::UpdateAllMailbox 1026 false",
                                            "ZEVOLarkpostNotifyMailboxUpdate 1026"};
  struct Case {
    bool exists;
    bool setup_fails;
    bool ready;
    bool creates;
  } cases[] = {
      {false, false, true, true},
      {true, false, true, false},
      {true, true, false, false},  // not upgraded: reported, not an error
      {false, true, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.exists) + std::to_string(c.setup_fails));
    fake::core().calls.clear();
    fake::core().databases.clear();
    if (c.exists) fake::core().databases.insert(kAlice);
    fake::core().failures.clear();
    if (c.setup_fails) fake::core().failures["DBSetupHandler::SetupDB"] = 0;

    Json::Value expected = J(R"({"success": true, "data": {"max_upload_size": 10485760,
        "smtp_hostname": "mail.example.org", "fts_enabled": true}})");
    expected["data"]["database_ready"] = c.ready;
    EXPECT_EQ(Run(InfoGetInfo_v1), expected);

    std::vector<std::string> calls = {"Controller 1026 sid-alice",
                                      "DBSetupHandler::DoesDBExist 1026",
                                      "DBSetupHandler::SetupDB 1026"};
    if (c.creates) calls.insert(calls.end(), kCreate.begin(), kCreate.end());
    calls.insert(calls.end(), kSyncs.begin(), kSyncs.end());
    EXPECT_EQ(StoreCalls(), calls);
  }
}

TEST_F(InfoTest, ServerSettingsNeedExactlyYes) {
  for (const char* enabled : {"yes", "YES", "1", "", "yes "}) {
    fake::core().mail_server["smtp_enabled"] = enabled;
    fake::core().mail_server["fts_enabled"] = enabled;
    fake::core().calls.clear();
    const bool yes = std::string(enabled) == "yes";
    Json::Value data = Data(Run(InfoGetInfo_v1));
    EXPECT_EQ(data["smtp_hostname"].asString(), yes ? "mail.example.org" : "") << enabled;
    EXPECT_EQ(data["fts_enabled"], yes) << enabled;
    EXPECT_EQ(fake::CallsStartingWith("GetMailServerKey smtp_hostname").size(), yes ? 1u : 0u);
  }
}

TEST_F(InfoTest, CoreErrorsAnswerWithTheirCodeAndNoData) {
  for (const char* operation : {"DBSetupHandler::DoesDBExist", "MailboxSyncer::CheckDefaultMailbox",
                                "GetMailServerKey", "Syncer::TriggerSync"}) {
    fake::core().failures = {{operation, 502}};
    EXPECT_EQ(Run(InfoGetInfo_v1), ErrorAnswer(502)) << operation;
  }
}

}  // namespace
}  // namespace larkpost::test
