// "ZEVO.Larkpost.Mailbox": the name rule, create and set with their
// asymmetric trimming, the subscription filter and counts of "list", the
// core's order in "get", and the "failed" lists of "delete" and
// "clear_message".
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/handler_test_util.h"
#include "webapi/api_table.h"
#include "webapi/mailbox.h"

namespace larkpost::test {
namespace {

using ornic::larkpost::webapi::IsAllowedMailboxName;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class MailboxTest : public HandlerTest {
 protected:
  void SetUp() override {
    HandlerTest::SetUp();
    // The core's order, which is not by id; 12 is not subscribed.
    for (int id : {1, 3, 12, 7}) {
      fake::core().mailboxes.emplace_back();
      fake::core().mailboxes.back().id = id;
      fake::core().mailboxes.back().subscribed = id != 12;
      fake::core().mailboxes.back().unread_count = 4;
    }
  }

  static std::vector<int> IdsOf(const Json::Value& mailboxes) {
    std::vector<int> ids;
    for (const Json::Value& mailbox : mailboxes) ids.push_back(mailbox["id"].asInt());
    return ids;
  }
};

TEST(MailboxNameTest, RefusesEmptyReservedAndPathLikeNames) {
  for (const char* name : {"Work", "  Work \t", "inboxes", "My Inbox", "\xC3\x89t\xC3\xA9"}) {
    EXPECT_TRUE(IsAllowedMailboxName(name)) << name;
  }
  for (const char* name : {"", "\t\r\n", "inbox", " Trash ", "Starred", "drafts", "JUNK",
                           "archived", "sEnT", "a.b", " /Work"}) {
    EXPECT_FALSE(IsAllowedMailboxName(name)) << name;
  }
}

TEST_F(MailboxTest, CreateTrimsTheNameAndSetKeepsItAsGiven) {
  struct Case {
    const char* params;
    const char* call;
  } cases[] = {
      {R"({"name": "  Work  "})", "MailboxControl::Create 0 'Work' true"},
      {R"({"name": "Work", "parent_id": 12, "subscribed": false})",
       "MailboxControl::Create 12 'Work' false"},
  };
  for (const Case& c : cases) {
    fake::core().calls.clear();
    EXPECT_EQ(AsSent(Run(MailboxCreate_v1, J(c.params))),
              J(R"({"success": true, "data": {"id": 100}})"));
    EXPECT_THAT(fake::core().calls, ElementsAre("Controller 1026 sid-alice", c.call));
  }
  fake::core().failures = {{"MailboxControl::Create", 0}};
  EXPECT_EQ(Run(MailboxCreate_v1, J(R"({"name": "Work"})")), ErrorAnswer(117));
  EXPECT_THAT(Logged("mailbox"), ElementsAre("create failed"));

  ExpectChange(MailboxSet_v1, R"({"id": 12, "name": "  Work  "})",
               "MailboxControl::Modify 12 subscribed=- parent_id=- name='  Work  '", "mailbox",
               "set failed");
  ExpectChange(MailboxSet_v1, R"({"id": 12, "subscribed": true, "parent_id": 0, "name": null})",
               "MailboxControl::Modify 12 subscribed=true parent_id=0 name=-", "mailbox",
               "set failed");
  ExpectChange(MailboxSet_v1, R"({"id": 12, "subscribed": false, "parent_id": 7})",
               "MailboxControl::Modify 12 subscribed=false parent_id=7 name=-", "mailbox",
               "set failed");

  ExpectRefused(MailboxCreate_v1, 120,
                {R"({})", R"({"name": null})", R"({"name": 5})", R"({"name": " "})",
                 R"({"name": "Inbox"})", R"({"name": "a/b"})"});
  ExpectRefused(MailboxSet_v1, 120, {R"({"id": 12, "name": ""})", R"({"id": 12, "name": "Junk"})"});
}

TEST_F(MailboxTest, ListAndGetAskForTheCountsAndKeepTheCoresOrder) {
  struct Case {
    ZEVO::APIHandler handler;
    const char* params;
    const char* list_call;
    std::vector<int> ids;
  } cases[] = {
      {MailboxList_v1, R"({})", "false false", {1, 3, 7}},
      {MailboxList_v1,
       R"({"subscription": false, "additional": ["unread_count"]})",
       "true false",
       {1, 3, 12, 7}},
      {MailboxList_v1,
       R"({"subscription": true, "additional": ["draft_total_count"]})",
       "false true",
       {1, 3, 7}},
      {MailboxGet_v1,
       R"({"id": [7, 3, 3, 99], "additional": ["unread_count", "draft_total_count"]})",
       "true true",
       {3, 7}},
      {MailboxGet_v1, R"({"id": [12]})", "false false", {12}},  // unsubscribed ones too
  };
  for (const Case& c : cases) {
    fake::core().calls.clear();
    const Json::Value data = Data(Run(c.handler, J(c.params)));
    EXPECT_EQ(IdsOf(data["mailbox"]), c.ids) << c.params;
    EXPECT_EQ(data["mailbox"][0]["additional"], J(R"({"unread_count": 4})")) << c.params;
    EXPECT_EQ(data.isMember("total"), c.handler == MailboxList_v1) << c.params;
    if (c.handler == MailboxList_v1) {
      EXPECT_EQ(data["total"].type(), Json::uintValue) << c.params;
      EXPECT_EQ(data["total"].asUInt(), c.ids.size()) << c.params;
    }
    EXPECT_THAT(fake::CallsStartingWith("MailboxControl::"),
                ElementsAre(std::string("MailboxControl::List ") + c.list_call));
  }
  EXPECT_EQ(Data(Run(MailboxGet_v1, J(R"({"id": [99]})"))), J(R"({"mailbox": []})"));
  fake::core().mailboxes.clear();
  EXPECT_EQ(AsSent(Data(Run(MailboxList_v1))), J(R"({"mailbox": [], "total": 0})"));
  // One id that is not an integer spoils the list: it is not read shorter.
  ExpectRefused(MailboxGet_v1, 120,
                {R"({})", R"({"id": null})", R"({"id": 3})", R"({"id": ["3", 7, 1.5]})"});
}

TEST_F(MailboxTest, DeleteAndClearMessageGoOnAfterFailuresAndListThem) {
  fake::core().failures = {{"MailboxControl::Delete 6", 0}, {"MailboxControl::Delete 8", 0}};
  EXPECT_EQ(Run(MailboxDelete_v1, J(R"({"id": [8, 5, 6, 9]})")),
            J(R"({"success": true, "data": {"failed": [8, 6]}})"));
  EXPECT_EQ(fake::CallsStartingWith("MailboxControl::Delete").size(), 4u);
  EXPECT_EQ(Run(MailboxDelete_v1, J(R"({"id": [5, 9]})")), J(R"({"success": true, "data": {}})"));

  EXPECT_EQ(Run(MailboxClearMessage_v1, J(R"({"id": [5, 6]})")),
            J(R"({"success": true, "data": {}})"));
  fake::core().failures = {{"MessageControl::DeleteByMailbox 5", 0}};
  EXPECT_EQ(Run(MailboxClearMessage_v1, J(R"({"id": [5, 6]})")),
            J(R"({"success": true, "data": {"failed": [5]}})"));
  EXPECT_THAT(
      fake::CallsStartingWith("MessageControl::"),
      ElementsAre("MessageControl::DeleteByMailbox 5", "MessageControl::DeleteByMailbox 6",
                  "MessageControl::DeleteByMailbox 5", "MessageControl::DeleteByMailbox 6"));

  ExpectRefused(MailboxDelete_v1, 120, {R"({})", R"({"id": [0]})", R"({"id": [5, null]})"});
  // Only junk (5) and trash (6) may be emptied: one other id and nothing is.
  ExpectRefused(MailboxClearMessage_v1, 120,
                {R"({"id": [5, 1]})", R"({"id": [6, 7]})", R"({})", R"({"id": 5})"});
}

}  // namespace
}  // namespace larkpost::test
