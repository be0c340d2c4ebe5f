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

namespace format = ornic::larkpost::webapi::format;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ThreadTest : public HandlerTest {
 protected:
  void SetUp() override {
    HandlerTest::SetUp();
    for (int id = 10; id < 15; ++id) {
      fake::core().threads[id].id = id;
      fake::core().threads[id].last_modified = 4102444800 + id;  // beyond 32 bits
    }
  }

  static Json::Value ThreadsJson(const std::vector<int>& ids) {
    Json::Value threads(Json::arrayValue);
    for (int id : ids) threads.append(format::ThreadToJson(fake::core().threads[id]));
    return threads;
  }
};

TEST_F(ThreadTest, ListHandsCriteriaToTheSearchAndAnswersThePage) {
  struct Case {
    const char* params;
    std::vector<std::string> search_calls;
    std::vector<int> page;
  } cases[] = {
      {R"({"condition": []})",
       {"SetConditions [] match_any=false", "SetOffset 0", "SetLimit -1", "Search"},
       {14, 13, 12, 11, 10}},
      {R"({"offset": 1, "limit": 2, "max_arrival_before": 4102444800,
           "condition": [{"name": "from", "value": "ann", "not_operator": true},
                         {"name": "keyword", "value": "budget"}, {"name": "subject"},
                         {"name": "larger", "value": 4096, "not_operator": true}]})",
       {"SetMaxArrivalBefore 4102444800",
        "SetConditions [2:ann:not,10:budget,7:4096] match_any=false", "SetOffset 1", "SetLimit 2",
        "Search"},
       {13, 12}},
  };
  fake::core().search_result = {14, 13, 12, 11, 10};
  for (const Case& c : cases) {
    fake::core().calls.clear();
    Json::Value answer = Run(ThreadList_v1, J(c.params));
    EXPECT_EQ(Data(answer)["thread"], ThreadsJson(c.page)) << c.params;
    EXPECT_EQ(Data(answer)["total"].type(), Json::uintValue);
    EXPECT_EQ(Data(answer)["total"].asUInt(), 5u) << "all matches, not the page";
    std::vector<std::string> calls;
    for (const std::string& call : c.search_calls) calls.push_back("SearchControl::" + call);
    EXPECT_EQ(fake::CallsStartingWith("SearchControl::"), calls);
  }
}

TEST_F(ThreadTest, ListReportsABadConditionListAs114AndTheRestAs120) {
  ExpectRefused(ThreadList_v1, 114,
                {R"({})", R"({"condition": null})", R"({"condition": {"name": "from"}})"});
  ExpectRefused(ThreadList_v1, 120,
                {R"({"condition": [], "offset": -1})", R"({"condition": [], "limit": -2})",
                 R"({"condition": [], "max_arrival_before": 0})",
                 R"({"condition": [], "max_arrival_before": null})",
                 R"({"offset": -1})"});  // the other parameters are judged first
  for (const char* params :
       {R"({"condition": [], "offset": 0, "limit": 0, "max_arrival_before": 1})",
        R"({"condition": [], "offset": null, "limit": null})"}) {
    EXPECT_EQ(ErrorCode(Run(ThreadList_v1, J(params))), 0) << params;
  }
}

TEST_F(ThreadTest, GetAnswersWhatTheCoreListsAndRefusesBadIdsWith114) {
  EXPECT_EQ(Data(Run(ThreadGet_v1, J(R"({"id": [12, 99, 10]})")))["thread"], ThreadsJson({12, 10}));
  EXPECT_THAT(fake::core().calls,
              ElementsAre("Controller 1026 sid-alice", "ThreadControl::List [12,99,10]"));

  ExpectRefused(ThreadGet_v1, 114,
                {R"({})", R"({"id": [1.5]})", R"({"id": [0]})", R"({"id": 12})"});
}

TEST_F(ThreadTest, CheckExistAsksTheCoreWithinMailboxAndLabel) {
  struct Case {
    const char* params;
    const char* call;  // the arguments of GetExistingThread
  } cases[] = {
      {R"({"id": [10, 99, 12]})", "[10,99,12] mailbox=- label=-"},
      {R"({"id": [10, 12], "mailbox_id": 4})", "[10,12] mailbox=4 label=-"},
      {R"({"id": [10, 12], "label_id": 7, "mailbox_id": -2})", "[10,12] mailbox=-2 label=7"},
  };
  for (const Case& c : cases) {
    fake::core().calls.clear();
    Json::Value answer = Run(ThreadCheckExist_v1, J(c.params));
    EXPECT_EQ(answer, J(R"({"success": true, "data": {"id": [10, 12]}})")) << c.params;
    EXPECT_THAT(fake::CallsStartingWith("ThreadControl::"),
                ElementsAre(std::string("ThreadControl::GetExistingThread ") + c.call));
  }

  ExpectRefused(ThreadCheckExist_v1, 114,
                {R"({})", R"({"id": [10], "label_id": 0})", R"({"id": [10], "label_id": null})",
                 R"({"id": [10], "mailbox_id": null})", R"({"id": [10], "mailbox_id": "4"})"});
}

TEST_F(ThreadTest, ChangesAnswerByTheCoresVerdict) {
  ExpectChange(ThreadDelete_v1, R"({"id": [3, 4]})", "ThreadControl::DeleteTrash [3,4]", "thread",
               "failed to delete thread");
  ExpectChange(ThreadAddLabel_v1, R"({"id": [3], "label_id": [7, 8]})",
               "ThreadControl::AddLabel [3] [7,8]", "thread", "thread add label failed");
  ExpectChange(ThreadRemoveLabel_v1, R"({"id": [3], "label_id": [7, 8]})",
               "ThreadControl::RemoveLabel [3] [7,8]", "thread", "thread remove label failed");
  ExpectChange(ThreadSetMailbox_v1, R"({"id": [3, 4], "mailbox_id": 5})",
               "ThreadControl::SetMailbox [3,4] 5", "thread",
               "set mailbox faild (id: [\n\t3,\n\t4\n]\n, mailbox_id:5)");
  ExpectChange(ThreadSetRead_v1, R"({"id": [3, 4], "read": true})",
               "MessageControl::SetReadByThreadID [3,4] true", "thread",
               "set thread read faild (id: [\n\t3,\n\t4\n]\n, read:set read)");
  ExpectChange(ThreadSetRead_v1, R"({"id": [3], "read": false})",
               "MessageControl::SetReadByThreadID [3] false", "thread",
               "set thread read faild (id: [\n\t3\n]\n, read:set unread)");

  ExpectRefused(ThreadDelete_v1, 114, {R"({})", R"({"id": [0]})"});
  ExpectRefused(ThreadAddLabel_v1, 120,
                {R"({"id": [3]})", R"({"id": [3], "label_id": [0]})", R"({"label_id": [7]})"});
  ExpectRefused(ThreadRemoveLabel_v1, 120, {R"({"id": [3]})", R"({"id": [3], "label_id": [-7]})"});
  ExpectRefused(
      ThreadSetMailbox_v1, 120,
      {R"({"id": [3]})", R"({"id": [3], "mailbox_id": "5"})", R"({"id": [0], "mailbox_id": 5})"});
  ExpectRefused(ThreadSetRead_v1, 120,
                {R"({"id": [3]})", R"({"id": [3], "read": 1})", R"({"read": true})"});
}

}  // namespace
}  // namespace larkpost::test
