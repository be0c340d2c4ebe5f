// "ZEVO.Larkpost.Thread": the search criteria that "list" hands to the core,
// the 114/120 split of bad parameters, "check_exist", and the changes with
// their failure lines.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/handler_test_util.h"
#include "webapi/api_table.h"
#include "webapi/format/mail_record.h"

namespace larkpost::test {
namespace {

namespace constant = ornic::larkpost::constant;
namespace format = ornic::larkpost::webapi::format;
namespace record = ornic::larkpost::record;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int64_t kLateTime = 4102444800;  // beyond 32 bits

class ThreadTest : public HandlerTest {
 protected:
  void SetUp() override {
    HandlerTest::SetUp();
    // Threads 10..14; thread 11 lies in mailbox 4, thread 12 carries label 7.
    for (int id = 10; id < 15; ++id) {
      record::Thread thread;
      thread.id = id;
      thread.last_modified = kLateTime + id;
      record::Message message;
      message.id = id * 10;
      message.thread_id = id;
      message.mailbox_id = id == 11 ? 4 : 1;
      message.from = "ann@example.org";
      message.arrival_time = kLateTime;
      thread.messages = {message};
      if (id == 12) {
        record::Label label;
        label.id = 7;
        label.name = "Work";
        thread.labels = {label};
      }
      fake::core().threads[id] = thread;
    }
  }

  static Json::Value ThreadsJson(const std::vector<int>& ids) {
    Json::Value threads(Json::arrayValue);
    for (int id : ids) threads.append(format::ThreadToJson(fake::core().threads[id]));
    return threads;
  }
};

TEST_F(ThreadTest, ListWithoutPagingSearchesEverythingFromTheStart) {
  fake::core().search_result = {12, 10, 14};
  Json::Value answer = Run(ThreadList_v1, J(R"({"condition": []})"));
  ASSERT_EQ(ErrorCode(answer), 0) << answer;
  EXPECT_EQ(Data(answer)["thread"], ThreadsJson({12, 10, 14}));
  EXPECT_EQ(Data(answer)["total"].type(), Json::uintValue);
  EXPECT_EQ(Data(answer)["total"].asUInt(), 3u);

  ASSERT_EQ(fake::core().searches.size(), 1u);
  const fake::Core::Search& search = fake::core().searches[0];
  EXPECT_EQ(search.offset, 0);
  EXPECT_EQ(search.limit, -1);
  EXPECT_FALSE(search.has_max_arrival_before);
  EXPECT_TRUE(search.conditions.empty());
  EXPECT_FALSE(search.match_any);
  EXPECT_THAT(fake::CallsStartingWith("SearchControl::SetMaxArrivalBefore"), IsEmpty());
  EXPECT_THAT(fake::CallsStartingWith("ThreadControl::"),
              ElementsAre("ThreadControl::List [12,10,14]"));
}

TEST_F(ThreadTest, ListHandsConditionsPageAndTimeBoundToTheSearch) {
  fake::core().search_result = {14, 13, 12, 11, 10};
  Json::Value answer = Run(ThreadList_v1, J(R"({
      "offset": 1, "limit": 2, "max_arrival_before": 4102444800,
      "condition": [{"name": "from", "value": "ann", "not_operator": true},
                    {"name": "keyword", "value": "budget"},
                    {"name": "subject"},
                    {"name": "larger", "value": 4096, "not_operator": true}]})"));
  ASSERT_EQ(ErrorCode(answer), 0) << answer;
  EXPECT_EQ(AsSent(Data(answer))["total"], 5) << "all matches, not the page";
  EXPECT_EQ(Data(answer)["thread"], ThreadsJson({13, 12}));

  const fake::Core::Search& search = fake::core().searches.at(0);
  EXPECT_EQ(search.offset, 1);
  EXPECT_EQ(search.limit, 2);
  EXPECT_TRUE(search.has_max_arrival_before);
  EXPECT_EQ(search.max_arrival_before, kLateTime);
  ASSERT_EQ(search.conditions.size(), 3u);
  EXPECT_EQ(search.conditions[0].key, constant::kConditionFrom);
  EXPECT_EQ(search.conditions[0].value, "ann");
  EXPECT_TRUE(search.conditions[0].negate);
  EXPECT_EQ(search.conditions[1].key, constant::kConditionKeyword);
  EXPECT_EQ(search.conditions[1].value, "budget");
  EXPECT_EQ(search.conditions[2].key, constant::kConditionLarger);
  EXPECT_EQ(search.conditions[2].value, "4096");
  EXPECT_FALSE(search.conditions[2].negate);
}

TEST_F(ThreadTest, ListReportsABadConditionListAs114AndTheRestAs120) {
  struct Case {
    const char* params;
    int code;
  } cases[] = {
      {R"({})", 114},
      {R"({"condition": null})", 114},
      {R"({"condition": {"name": "from", "value": "ann"}})", 114},
      {R"({"condition": "[]"})", 114},
      {R"({"condition": [], "offset": -1})", 120},
      {R"({"condition": [], "offset": "1"})", 120},
      {R"({"condition": [], "limit": -2})", 120},
      {R"({"condition": [], "limit": 1.5})", 120},
      {R"({"condition": [], "max_arrival_before": 0})", 120},
      {R"({"condition": [], "max_arrival_before": null})", 120},
      {R"({"condition": [], "max_arrival_before": "4102444800"})", 120},
      {R"({"offset": -1})", 120},  // the other parameters are judged first
      {R"({"condition": [], "offset": 0, "limit": 0, "max_arrival_before": 1})", 0},
      {R"({"condition": [], "offset": null, "limit": null})", 0},
  };
  for (const Case& c : cases) {
    fake::core().searches.clear();
    Json::Value answer = Run(ThreadList_v1, J(c.params));
    if (c.code == 0) {
      EXPECT_EQ(ErrorCode(answer), 0) << c.params << answer;
      EXPECT_EQ(fake::core().searches.size(), 1u) << c.params;
    } else {
      EXPECT_EQ(answer, ErrorAnswer(c.code)) << c.params;
      EXPECT_TRUE(fake::core().searches.empty()) << c.params;
    }
  }
  EXPECT_THAT(fake::CallsStartingWith("ThreadControl::"),
              ElementsAre("ThreadControl::List []", "ThreadControl::List []"));
  EXPECT_THAT(fake::system_log().lines, IsEmpty());
}

TEST_F(ThreadTest, GetAnswersWhatTheCoreListsAndRefusesBadIdsWith114) {
  Json::Value answer = Run(ThreadGet_v1, J(R"({"id": [12, 99, 10]})"));
  EXPECT_EQ(Data(answer)["thread"], ThreadsJson({12, 10}));
  EXPECT_THAT(fake::core().calls,
              ElementsAre("Controller 1026 sid-alice", "ThreadControl::List [12,99,10]"));

  EXPECT_EQ(Data(Run(ThreadGet_v1, J(R"({"id": [99]})"))), J(R"({"thread": []})"));
  for (const char* params :
       {R"({})", R"({"id": []})", R"({"id": [0]})", R"({"id": [-3]})", R"({"id": ["12"]})",
        R"({"id": [1.5]})", R"({"id": 12})", R"({"id": null})", R"({"id": [2147483648]})"}) {
    fake::core().calls.clear();
    EXPECT_EQ(Run(ThreadGet_v1, J(params)), ErrorAnswer(114)) << params;
    EXPECT_THAT(fake::CallsStartingWith("ThreadControl::"), IsEmpty()) << params;
  }
}

TEST_F(ThreadTest, CheckExistNarrowsByMailboxAndLabel) {
  struct Case {
    const char* params;
    const char* call;  // the arguments of GetExistingThread
    const char* ids;
  } cases[] = {
      {R"({"id": [10, 99, 12]})", "[10,99,12] mailbox=- label=-", "[10, 12]"},
      {R"({"id": [10, 11, 12], "mailbox_id": 4})", "[10,11,12] mailbox=4 label=-", "[11]"},
      {R"({"id": [10, 11, 12], "label_id": 7})", "[10,11,12] mailbox=- label=7", "[12]"},
      {R"({"id": [11, 12], "mailbox_id": 4, "label_id": 7})", "[11,12] mailbox=4 label=7", "[]"},
      {R"({"id": [98, 99]})", "[98,99] mailbox=- label=-", "[]"},
      {R"({"id": [10], "mailbox_id": -2})", "[10] mailbox=-2 label=-", "[]"},
  };
  for (const Case& c : cases) {
    fake::core().calls.clear();
    Json::Value answer = Run(ThreadCheckExist_v1, J(c.params));
    EXPECT_EQ(answer["success"], true) << c.params;
    EXPECT_EQ(Data(answer), J(std::string(R"({"id": )") + c.ids + "}")) << c.params;
    EXPECT_THAT(fake::CallsStartingWith("ThreadControl::"),
                ElementsAre(std::string("ThreadControl::GetExistingThread ") + c.call));
  }

  for (const char* params :
       {R"({})", R"({"id": [10], "label_id": 0})", R"({"id": [10], "label_id": null})",
        R"({"id": [10], "label_id": "7"})", R"({"id": [10], "mailbox_id": null})",
        R"({"id": [10], "mailbox_id": "4"})", R"({"id": null})"}) {
    fake::core().calls.clear();
    EXPECT_EQ(Run(ThreadCheckExist_v1, J(params)), ErrorAnswer(114)) << params;
    EXPECT_THAT(fake::CallsStartingWith("ThreadControl::"), IsEmpty()) << params;
  }
}

// The five changes: what reaches the core, and what a failure answers and
// logs.
struct Change {
  const char* name;
  ZEVO::APIHandler handler;
  const char* params;
  const char* call;     // the core call the request makes
  const char* failure;  // the message logged when the core says no
  int bad_code;
  std::vector<const char*> bad_params;
};

const Change kChanges[] = {
    {"delete",
     ThreadDelete_v1,
     R"({"id": [3, 4]})",
     "ThreadControl::DeleteTrash [3,4]",
     "failed to delete thread",
     114,
     {R"({})", R"({"id": []})", R"({"id": [0]})", R"({"id": ["3"]})"}},
    {"add_label",
     ThreadAddLabel_v1,
     R"({"id": [3], "label_id": [7, 8]})",
     "ThreadControl::AddLabel [3] [7,8]",
     "thread add label failed",
     120,
     {R"({"id": [3]})", R"({"id": [3], "label_id": [0]})", R"({"label_id": [7]})",
      R"({"id": [-3], "label_id": [7]})", R"({"id": [3], "label_id": 7})"}},
    {"remove_label",
     ThreadRemoveLabel_v1,
     R"({"id": [3], "label_id": [7, 8]})",
     "ThreadControl::RemoveLabel [3] [7,8]",
     "thread remove label failed",
     120,
     {R"({"id": [3]})", R"({"id": [3], "label_id": []})", R"({"id": [], "label_id": [7]})"}},
    {"set_mailbox",
     ThreadSetMailbox_v1,
     R"({"id": [3, 4], "mailbox_id": 5})",
     "ThreadControl::SetMailbox [3,4] 5",
     "set mailbox faild (id: [\n\t3,\n\t4\n]\n, mailbox_id:5)",
     120,
     {R"({"id": [3]})", R"({"id": [3], "mailbox_id": "5"})", R"({"id": [3], "mailbox_id": null})",
      R"({"id": [0], "mailbox_id": 5})"}},
    {"set_read",
     ThreadSetRead_v1,
     R"({"id": [3, 4], "read": true})",
     "MessageControl::SetReadByThreadID [3,4] true",
     "set thread read faild (id: [\n\t3,\n\t4\n]\n, read:set read)",
     120,
     {R"({"id": [3]})", R"({"id": [3], "read": "true"})", R"({"id": [3], "read": 1})",
      R"({"read": true})"}},
    {"set_unread",
     ThreadSetRead_v1,
     R"({"id": [3], "read": false})",
     "MessageControl::SetReadByThreadID [3] false",
     "set thread read faild (id: [\n\t3\n]\n, read:set unread)",
     120,
     {}},
};

TEST_F(ThreadTest, ChangesAnswerByTheCoresVerdict) {
  for (const Change& change : kChanges) {
    SCOPED_TRACE(change.name);
    fake::core().calls.clear();
    fake::core().failures.clear();
    fake::ResetSystemLog();
    EXPECT_EQ(Run(change.handler, J(change.params)), J(R"({"success": true})"));
    EXPECT_EQ(fake::core().calls.back(), change.call);
    EXPECT_THAT(Logged("thread"), IsEmpty());

    const std::string op = std::string(change.call).substr(0, std::string(change.call).find(' '));
    fake::core().failures[op] = 0;
    EXPECT_EQ(Run(change.handler, J(change.params)), ErrorAnswer(117));
    EXPECT_THAT(Logged("thread"), ElementsAre(change.failure));

    for (const char* params : change.bad_params) {
      fake::core().calls.clear();
      EXPECT_EQ(Run(change.handler, J(params)), ErrorAnswer(change.bad_code)) << params;
      EXPECT_EQ(fake::core().calls, std::vector<std::string>{"Controller 1026 sid-alice"})
          << params;
    }
  }
}

}  // namespace
}  // namespace larkpost::test
