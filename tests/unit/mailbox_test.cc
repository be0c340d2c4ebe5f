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

namespace record = ornic::larkpost::record;
using ornic::larkpost::webapi::IsAllowedMailboxName;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class MailboxTest : public HandlerTest {
 protected:
  void SetUp() override {
    HandlerTest::SetUp();
    // The core's order: built-in ones by id, then the user's by path.
    struct {
      int id;
      const char* path;
      bool subscribed;
      int unread;
      int total;
    } rows[] = {{1, "INBOX", true, 4, 20},
                {3, "Sent", true, 0, 7},
                {5, "Junk", true, 2, 2},
                {12, "Projects", false, 1, 3},
                {7, "Work", true, 0, 0}};
    for (const auto& row : rows) {
      record::Mailbox mailbox;
      mailbox.id = row.id;
      mailbox.path = row.path;
      mailbox.subscribed = row.subscribed;
      mailbox.unread_count = row.unread;
      mailbox.total_count = row.total;
      fake::core().mailboxes.push_back(mailbox);
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
  for (const char* name : {"", "   ", "\t\r\n", "inbox", "INBOX", " Trash ", "Starred", "drafts",
                           "JUNK", "archived", "sEnT", "a.b", "a/b", ".", " /Work", "v1.0"}) {
    EXPECT_FALSE(IsAllowedMailboxName(name)) << name;
  }
}

TEST_F(MailboxTest, CreateTrimsTheNameAndTakesDefaults) {
  struct Case {
    const char* params;
    const char* call;  // the arguments of MailboxControl::Create
  } cases[] = {
      {R"({"name": "Work"})", "0 'Work' true"},
      {R"({"name": "  Work  "})", "0 'Work' true"},
      {R"({"name": "Work", "parent_id": 12, "subscribed": false})", "12 'Work' false"},
  };
  for (const Case& c : cases) {
    fake::core().calls.clear();
    EXPECT_EQ(AsSent(Run(MailboxCreate_v1, J(c.params))),
              J(R"({"success": true, "data": {"id": 100}})"))
        << c.params;
    EXPECT_THAT(fake::CallsStartingWith("MailboxControl::"),
                ElementsAre(std::string("MailboxControl::Create ") + c.call));
  }

  for (const char* params : {R"({})", R"({"name": null})", R"({"name": 5})", R"({"name": ""})",
                             R"({"name": "  "})", R"({"name": "Inbox"})", R"({"name": " trash"})",
                             R"({"name": "a/b"})", R"({"name": "a.b"})"}) {
    fake::core().calls.clear();
    EXPECT_EQ(Run(MailboxCreate_v1, J(params)), ErrorAnswer(120)) << params;
    EXPECT_THAT(fake::CallsStartingWith("MailboxControl::"), IsEmpty()) << params;
  }
  EXPECT_THAT(fake::system_log().lines, IsEmpty());

  fake::core().failures["MailboxControl::Create"] = 0;
  EXPECT_EQ(Run(MailboxCreate_v1, J(R"({"name": "Work"})")), ErrorAnswer(117));
  EXPECT_THAT(Logged("mailbox"), ElementsAre("create failed"));
}

TEST_F(MailboxTest, SetChangesOnlyWhatIsGivenAndKeepsTheNameAsGiven) {
  struct Case {
    const char* params;
    const char* call;  // the arguments of MailboxControl::Modify
  } cases[] = {
      {R"({"id": 12, "name": "  Work  "})", "12 subscribed=- parent_id=- name='  Work  '"},
      {R"({"id": 12, "parent_id": 0})", "12 subscribed=- parent_id=0 name=-"},
      {R"({"id": 12, "subscribed": false})", "12 subscribed=false parent_id=- name=-"},
      {R"({"id": 12, "subscribed": true, "parent_id": 7, "name": "Old"})",
       "12 subscribed=true parent_id=7 name='Old'"},
      {R"({"id": 12})", "12 subscribed=- parent_id=- name=-"},
      {R"({"id": 12, "name": null})", "12 subscribed=- parent_id=- name=-"},
  };
  for (const Case& c : cases) {
    fake::core().calls.clear();
    EXPECT_EQ(Run(MailboxSet_v1, J(c.params)), J(R"({"success": true})")) << c.params;
    EXPECT_THAT(fake::CallsStartingWith("MailboxControl::"),
                ElementsAre(std::string("MailboxControl::Modify ") + c.call));
  }

  for (const char* params : {R"({"id": 12, "name": ""})", R"({"id": 12, "name": "Junk"})",
                             R"({"id": 12, "name": "a/b"})", R"({"id": 12, "name": 3})"}) {
    fake::core().calls.clear();
    EXPECT_EQ(Run(MailboxSet_v1, J(params)), ErrorAnswer(120)) << params;
    EXPECT_THAT(fake::CallsStartingWith("MailboxControl::"), IsEmpty()) << params;
  }

  fake::core().failures["MailboxControl::Modify"] = 0;
  EXPECT_EQ(Run(MailboxSet_v1, J(R"({"id": 1, "name": "Mail"})")), ErrorAnswer(117));
  EXPECT_THAT(Logged("mailbox"), ElementsAre("set failed"));
}

TEST_F(MailboxTest, ListShowsSubscribedMailboxesWithTheAskedCounts) {
  struct Case {
    const char* params;
    const char* list_call;
    std::vector<int> ids;
    const char* first_additional;  // of INBOX; nullptr: no "additional"
  } cases[] = {
      {R"({})", "false false", {1, 3, 5, 7}, nullptr},
      {R"({"subscription": true})", "false false", {1, 3, 5, 7}, nullptr},
      {R"({"subscription": false})", "false false", {1, 3, 5, 12, 7}, nullptr},
      {R"({"additional": ["unread_count"]})", "true false", {1, 3, 5, 7}, R"({"unread_count": 4})"},
      {R"({"additional": ["draft_total_count"]})",
       "false true",
       {1, 3, 5, 7},
       R"({"total_count": 20})"},
      {R"({"additional": ["unread_count", "draft_total_count"], "subscription": false})",
       "true true",
       {1, 3, 5, 12, 7},
       R"({"unread_count": 4, "total_count": 20})"},
      {R"({"additional": ["total_count"]})", "false false", {1, 3, 5, 7}, nullptr},
  };
  for (const Case& c : cases) {
    fake::core().calls.clear();
    Json::Value answer = Run(MailboxList_v1, J(c.params));
    const Json::Value& data = Data(answer);
    EXPECT_EQ(IdsOf(data["mailbox"]), c.ids) << c.params;
    EXPECT_EQ(data["total"].type(), Json::uintValue) << c.params;
    EXPECT_EQ(data["total"].asUInt(), c.ids.size()) << c.params;
    const Json::Value& inbox = data["mailbox"][0];
    EXPECT_EQ(inbox.isMember("additional"), c.first_additional != nullptr) << c.params;
    if (c.first_additional != nullptr) {
      EXPECT_EQ(inbox["additional"], J(c.first_additional));
    }
    EXPECT_THAT(fake::CallsStartingWith("MailboxControl::"),
                ElementsAre(std::string("MailboxControl::List ") + c.list_call));
  }
  fake::core().mailboxes.clear();
  EXPECT_EQ(AsSent(Run(MailboxList_v1)),
            J(R"({"success": true, "data": {"mailbox": [], "total": 0}})"));
}

TEST_F(MailboxTest, GetPicksFromTheListInTheCoresOrder) {
  struct Case {
    const char* params;
    std::vector<int> ids;
  } cases[] = {
      {R"({"id": [7, 3]})", {3, 7}}, {R"({"id": [12]})", {12}},  // unsubscribed ones too
      {R"({"id": [3, 3, 3]})", {3}}, {R"({"id": [99]})", {}},
      {R"({"id": []})", {}},         {R"({"id": ["3", 7, 1.5]})", {7}},
  };
  for (const Case& c : cases) {
    Json::Value answer = Run(MailboxGet_v1, J(c.params));
    EXPECT_EQ(answer["success"], true) << c.params;
    EXPECT_EQ(IdsOf(Data(answer)["mailbox"]), c.ids) << c.params;
    EXPECT_FALSE(Data(answer).isMember("total")) << c.params;
  }

  fake::core().calls.clear();
  Json::Value answer = Run(MailboxGet_v1, J(R"({"id": [1], "additional": ["unread_count"]})"));
  EXPECT_EQ(Data(answer)["mailbox"][0]["additional"], J(R"({"unread_count": 4})"));
  EXPECT_THAT(fake::CallsStartingWith("MailboxControl::"),
              ElementsAre("MailboxControl::List true false"));

  for (const char* params : {R"({})", R"({"id": null})", R"({"id": 3})"}) {
    EXPECT_EQ(Run(MailboxGet_v1, J(params)), ErrorAnswer(120)) << params;
  }
}

TEST_F(MailboxTest, DeleteGoesOnAfterFailuresAndListsThem) {
  fake::core().failures["MailboxControl::Delete 6"] = 0;
  fake::core().failures["MailboxControl::Delete 8"] = 0;
  EXPECT_EQ(Run(MailboxDelete_v1, J(R"({"id": [8, 5, 6, 9]})")),
            J(R"({"success": true, "data": {"failed": [8, 6]}})"));
  EXPECT_THAT(fake::CallsStartingWith("MailboxControl::"),
              ElementsAre("MailboxControl::Delete 8", "MailboxControl::Delete 5",
                          "MailboxControl::Delete 6", "MailboxControl::Delete 9"));
  EXPECT_EQ(Run(MailboxDelete_v1, J(R"({"id": [5, 9]})")), J(R"({"success": true, "data": {}})"));

  for (const char* params : {R"({})", R"({"id": []})", R"({"id": [0]})", R"({"id": [-1]})",
                             R"({"id": ["5"]})", R"({"id": [5, null]})"}) {
    fake::core().calls.clear();
    EXPECT_EQ(Run(MailboxDelete_v1, J(params)), ErrorAnswer(120)) << params;
    EXPECT_THAT(fake::CallsStartingWith("MailboxControl::"), IsEmpty()) << params;
  }
}

TEST_F(MailboxTest, ClearMessageEmptiesOnlyJunkAndTrash) {
  EXPECT_EQ(Run(MailboxClearMessage_v1, J(R"({"id": [5, 6]})")),
            J(R"({"success": true, "data": {}})"));
  EXPECT_THAT(
      fake::CallsStartingWith("MessageControl::"),
      ElementsAre("MessageControl::DeleteByMailbox 5", "MessageControl::DeleteByMailbox 6"));

  fake::core().calls.clear();
  fake::core().failures["MessageControl::DeleteByMailbox 5"] = 0;
  EXPECT_EQ(Run(MailboxClearMessage_v1, J(R"({"id": [5, 6]})")),
            J(R"({"success": true, "data": {"failed": [5]}})"));
  EXPECT_EQ(fake::CallsStartingWith("MessageControl::").size(), 2u) << "goes on after a failure";

  for (const char* params : {R"({"id": [5, 1]})", R"({"id": [6, 7]})", R"({"id": [0]})", R"({})",
                             R"({"id": null})", R"({"id": 5})"}) {
    fake::core().calls.clear();
    EXPECT_EQ(Run(MailboxClearMessage_v1, J(params)), ErrorAnswer(120)) << params;
    EXPECT_THAT(fake::CallsStartingWith("MessageControl::"), IsEmpty()) << params;
  }
}

}  // namespace
}  // namespace larkpost::test
