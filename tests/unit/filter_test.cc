// "ZEVO.Larkpost.Filter": the sets as the parser makes them reach the core (and
// the background service's tasks) in their serialised form, a filter
// synchronisation after every change that succeeded (never after a read or a
// task), the status words from the service's numbers, and each failure's code
// and line.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "proto/task.pb.h"
#include "tests/unit/handler_test_util.h"
#include "webapi/api_table.h"
#include "webapi/filter.h"

namespace larkpost::test {
namespace {

namespace record = ornic::larkpost::record;
namespace constant = ornic::larkpost::constant;
namespace proto = ornic::larkpost::proto;
using ornic::larkpost::webapi::FilterAPI;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// The task methods as the entry functions run them.
void AddTask(ZEVO::APIRequest* request, ZEVO::APIResponse* response) {
  FilterAPI(request, response).AddTask_v1();
}
void GetStatus(ZEVO::APIRequest* request, ZEVO::APIResponse* response) {
  FilterAPI(request, response).GetTaskStatus_v1();
}
void Cancel(ZEVO::APIRequest* request, ZEVO::APIResponse* response) {
  FilterAPI(request, response).CancelTask_v1();
}

constexpr char kFromAnn[] = R"({"condition":[[2,"ann",false]],"match_any":false})";
constexpr char kArchive[] = R"({"action":[[1,""]]})";

class FilterTest : public HandlerTest {
 protected:
  // Filter `id` from "ann" that archives, as the core keeps it.
  static record::Filter Stored(int id) {
    record::Filter filter;
    filter.id = id;
    filter.condition.AddCondition(constant::kConditionFrom, "ann", false);
    record::Action archive;
    archive.kind = constant::kActionArchive;
    filter.action.AddAction(archive);
    return filter;
  }
};

TEST_F(FilterTest, StoredFiltersReadBackAsTheBrowserWritesThem) {
  record::Filter filter;
  filter.id = 4;
  filter.condition.AddCondition(constant::kConditionFrom, "ann", true);
  filter.condition.AddCondition(constant::kConditionLarger, "1000", false);
  for (auto [kind, value] : {std::pair{constant::kActionSetLabel, "$label3"},
                             {constant::kActionRemoveLabel, "$label3"},
                             {constant::kActionMoveTo, "Work"},
                             {constant::kActionSetRead, "true"},
                             {constant::kActionRedirect, "bob@example.org"}}) {
    record::Action action;
    action.kind = kind;
    action.value = value;
    action.label.id = 3;
    action.mailbox.id = 8;
    filter.action.AddAction(action);
  }
  record::Filter bare;
  bare.id = 9;
  fake::core().filters = {filter, bare};
  const std::string four = R"({"id": 4, "condition": [
      {"name": "from", "value": "ann", "not_operator": true},
      {"name": "larger", "value": "1000", "not_operator": false}], "action": [
      {"name": "set_label", "value": 3}, {"name": "remove_label", "value": "$label3"},
      {"name": "move_to", "value": 8}, {"name": "set_read", "value": "true"},
      {"name": "redirect", "value": "bob@example.org"}]})";
  const std::string nine = R"({"id": 9, "condition": [], "action": []})";

  const Json::Value list = Data(Run(FilterList_v1));
  EXPECT_EQ(AsSent(list), J(R"({"total": 2, "filter": [)" + four + ", " + nine + "]}"));
  EXPECT_EQ(list["total"].type(), Json::uintValue);
  EXPECT_EQ(Data(Run(FilterGet_v1, J(R"({"id": [9, 77]})"))), J(R"({"filter": [)" + nine + "]}"));
  EXPECT_EQ(Data(Run(FilterGet_v1, J(R"({"id": [77]})"))), J(R"({"filter": []})"));
  EXPECT_THAT(
      fake::CallsStartingWith("FilterControl::"),
      ElementsAre("FilterControl::List", "FilterControl::Get [9,77]", "FilterControl::Get [77]"));
  EXPECT_THAT(fake::CallsStartingWith("Syncer::"), IsEmpty());
}

TEST_F(FilterTest, CreateStoresTheParsedSetsThenSyncsOnce) {
  fake::core().mailboxes.emplace_back();
  fake::core().mailboxes.back().id = 5;
  fake::core().mailboxes.back().path = "Work";
  const char* create = R"({"condition": [{"name": "from", "value": "ann"}],
      "action": [{"name": "move_to", "value": "5"}, {"name": "set_label", "value": 99}]})";
  EXPECT_EQ(AsSent(Run(FilterCreate_v1, J(create))),
            J(R"({"success": true, "data": {"id": 100}})"));
  EXPECT_THAT(fake::core().calls, ElementsAre("Controller 1026 sid-alice", "MailboxControl::Get 5",
                                              "LabelControl::Get [99] false",
                                              std::string("FilterControl::Create condition=") +
                                                  kFromAnn + R"( action={"action":[[5,"Work"]]})",
                                              "Syncer::TriggerSync 0"));

  // Every entry dropped by the parser: the core decides about empty sets.
  fake::core().calls.clear();
  Run(FilterCreate_v1, J(R"({"condition": [{"name": "cc", "value": "x"}],
                             "action": [{"name": "archive"}]})"));
  EXPECT_THAT(fake::CallsStartingWith("FilterControl::"),
              ElementsAre(R"(FilterControl::Create condition={"condition":[],"match_any":false})"
                          R"( action={"action":[]})"));

  for (int failed_id : {0, -1}) {
    fake::ResetSystemLog();
    fake::core().calls.clear();
    fake::core().next_id = failed_id;
    EXPECT_EQ(Run(FilterCreate_v1, J(create)), ErrorAnswer(117)) << failed_id;
    EXPECT_THAT(Logged("filter"), ElementsAre("create filter failed"));
    EXPECT_THAT(fake::CallsStartingWith("Syncer::"), IsEmpty());
  }
}

TEST_F(FilterTest, ApplyExistRunsTheStoredFilterOrFailsWithoutALine) {
  // That it runs is shown through lighttpd; here what the service is sent,
  // whose answer is not looked at, and the one sync.
  fake::core().filters = {Stored(100)};
  fake::core().failures["rpc::ExecuteFilter"] = 0;
  EXPECT_EQ(AsSent(Run(FilterSet_v1, J(R"({"id": 100, "apply_exist": true})"))),
            J(R"({"success": true})"));
  EXPECT_THAT(fake::CallsStartingWith("rpc::"),
              ElementsAre(std::string("rpc::ExecuteFilter 1026 ") + kFromAnn + " " + kArchive));
  EXPECT_THAT(fake::CallsStartingWith("Syncer::"), ElementsAre("Syncer::TriggerSync 0"));

  // No such filter, or one that is not valid: 117, nothing logged, the
  // filter stays as stored, no sync and no run.
  record::Filter no_action = Stored(100);
  no_action.action.actions.clear();
  for (const std::vector<record::Filter>& stored :
       {std::vector<record::Filter>{}, std::vector<record::Filter>{no_action}}) {
    fake::core().filters = stored;
    for (ZEVO::APIHandler handler : {FilterCreate_v1, FilterSet_v1}) {
      fake::core().calls.clear();
      fake::ResetSystemLog();
      EXPECT_EQ(Run(handler, J(R"({"id": 100, "condition": [{"name": "from", "value": "ann"}],
                                   "action": [{"name": "archive", "value": ""}],
                                   "apply_exist": true})")),
                ErrorAnswer(117));
      EXPECT_THAT(fake::system_log().lines, IsEmpty());
      EXPECT_THAT(fake::CallsStartingWith("FilterControl::Get"),
                  ElementsAre("FilterControl::Get [100]"));
      EXPECT_THAT(fake::CallsStartingWith("rpc::"), IsEmpty());
      EXPECT_THAT(fake::CallsStartingWith("Syncer::"), IsEmpty());
    }
  }

  // Without "apply_exist" (or with false) the service is never asked.
  fake::core().calls.clear();
  Run(FilterCreate_v1, J(R"({"condition": [{"name": "from", "value": "ann"}],
                             "action": [{"name": "archive", "value": ""}], "apply_exist": false})"));
  EXPECT_THAT(fake::CallsStartingWith("rpc::"), IsEmpty());
}

TEST_F(FilterTest, SetOrderAndDeleteChangeOnlyWhatWasSentThenSync) {
  const std::vector<std::string> sync = {"Syncer::TriggerSync 0"};
  ExpectChange(FilterSet_v1, R"({"id": 7})", "FilterControl::Modify 7 condition=- action=-",
               "filter", "modify filter failed", sync);
  ExpectChange(FilterSet_v1, R"({"id": 7, "action": [{"name": "archive", "value": ""}]})",
               std::string("FilterControl::Modify 7 condition=- action=") + kArchive, "filter",
               "modify filter failed", sync);
  ExpectChange(FilterSet_v1, R"({"id": 7, "condition": []})",
               R"(FilterControl::Modify 7 condition={"condition":[],"match_any":false} action=-)",
               "filter", "modify filter failed", sync);
  ExpectChange(FilterDelete_v1, R"({"id": [3, 9]})", "FilterControl::Delete [3,9]", "filter",
               "delete failed", sync);
  ExpectChange(FilterSetOrder_v1, R"({"id": [9, 3]})", "FilterControl::SetOrder [9,3]", "filter",
               "set order failed", sync);
}

TEST_F(FilterTest, AddTaskSendsTheSerialisedSetsAndAnswersTheKey) {
  const char* params = R"({"condition": [{"name": "from", "value": "bob", "not_operator": true}],
                           "action": [{"name": "set_read", "value": "true"}]})";
  EXPECT_EQ(AsSent(Run(AddTask, J(params))),
            J(R"({"success": true, "data": {"task_key": "task-key-1"}})"));
  EXPECT_THAT(fake::CallsStartingWith("rpc::"),
              ElementsAre("rpc::ExecuteBatchTask 1026 "
                          R"({"condition":[[2,"bob",true]],"match_any":false} )"
                          R"({"action":[[2,"true"]]})"));
  EXPECT_THAT(fake::CallsStartingWith("Syncer::"), IsEmpty());

  // Every entry dropped by the parser: still queued, with empty sets.
  fake::core().calls.clear();
  Run(AddTask, J(R"({"condition": [{"name": "nonsense", "value": 1}],
                     "action": [{"name": "nonsense", "value": 1}]})"));
  EXPECT_THAT(fake::CallsStartingWith("rpc::"),
              ElementsAre(R"(rpc::ExecuteBatchTask 1026 {"condition":[],"match_any":false} )"
                          R"({"action":[]})"));

  fake::core().failures["rpc::ExecuteBatchTask"] = 0;  // no service: no key
  EXPECT_EQ(Run(AddTask, J(params)), ErrorAnswer(117));
  EXPECT_THAT(Logged("filter"), ElementsAre("failed to get task key"));
}

TEST_F(FilterTest, StatusWordsComeFromTheServicesNumbers) {
  struct Case {
    int status;
    const char* word;
  } cases[] = {{1, "none"}, {2, "waiting"}, {3, "running"}, {4, "none"}, {5, "none"}};
  for (const Case& c : cases) {
    proto::Response response;
    auto* answer = response.MutableExtension(proto::GetTaskStatusResponse::get_task_status);
    answer->set_status(static_cast<proto::GetTaskStatusResponse::Status>(c.status));
    answer->set_progress(40);
    answer->set_total(100);
    fake::core().task_status = response.SerializeAsString();
    Json::Value want(Json::objectValue);
    want["success"] = true;
    want["data"]["status"] = c.word;
    want["data"]["progress"] = 40;
    want["data"]["total"] = 100;
    EXPECT_EQ(AsSent(Run(GetStatus, J(R"({"task_key": "k1"})"))), want) << c.status;
  }
  EXPECT_THAT(fake::CallsStartingWith("rpc::"), ::testing::Each("rpc::GetTaskStatus 1026 k1"));

  // An empty answer parses: no task.
  fake::core().task_status = "";
  EXPECT_EQ(AsSent(Data(Run(GetStatus, J(R"({"task_key": "k1"})")))),
            J(R"({"status": "none", "progress": 0, "total": 0})"));
  fake::core().task_status = "\xff\xff\xff";
  EXPECT_EQ(Run(GetStatus, J(R"({"task_key": "k1"})")), ErrorAnswer(117));
  EXPECT_THAT(Logged("filter"), ElementsAre("failed to parse response"));
}

TEST_F(FilterTest, CancelAnswersSuccessWhateverTheServiceSays) {
  fake::core().failures["rpc::CancelTask"] = 0;
  EXPECT_EQ(AsSent(Run(Cancel, J(R"({"task_key": "k2"})"))), J(R"({"success": true})"));
  EXPECT_THAT(fake::CallsStartingWith("rpc::"), ElementsAre("rpc::CancelTask 1026 k2"));
}

TEST_F(FilterTest, RefusedParametersAreLoggedAndReachNoCore) {
  struct Case {
    ZEVO::APIHandler handler;
    const char* params;
  } cases[] = {
      {FilterCreate_v1, R"({"condition": [], "action": [{"name": "archive", "value": ""}]})"},
      {FilterCreate_v1, R"({"condition": [{"name": "from", "value": "a"}], "action": []})"},
      {FilterCreate_v1, R"({"action": [{"name": "archive", "value": ""}]})"},
      {FilterGet_v1, R"({"id": null})"},
      {FilterGet_v1, R"({"id": [1, 0]})"},
      {FilterDelete_v1, R"({})"},
      {FilterDelete_v1, R"({"id": ["1"]})"},
      {FilterSetOrder_v1, R"({"id": null})"},
      {FilterSetOrder_v1, R"({"id": [-2]})"},
      {AddTask, R"({"condition": [], "action": [{"name": "trash", "value": ""}]})"},
      {AddTask, R"({"condition": [{"name": "from", "value": "a"}], "action": []})"},
      {AddTask, R"({"action": [{"name": "trash", "value": ""}]})"},
      {AddTask, R"({"condition": [{"name": "from", "value": "a"}]})"},
      {AddTask, R"({"condition": {"name": "from"}, "action": [{"name": "trash", "value": ""}]})"},
      {GetStatus, R"({})"},
      {GetStatus, R"({"task_key": ""})"},
      {GetStatus, R"({"task_key": null})"},
      {GetStatus, R"({"task_key": 5})"},
      {Cancel, R"({"task_key": ""})"},
      {Cancel, R"({})"},
  };
  for (const Case& c : cases) {
    fake::core().calls.clear();
    fake::ResetSystemLog();
    EXPECT_EQ(Run(c.handler, J(c.params)), ErrorAnswer(120)) << c.params;
    EXPECT_THAT(Logged("filter"), ElementsAre("parameter invalid")) << c.params;
    EXPECT_THAT(fake::core().calls, ::testing::Each(::testing::StartsWith("Controller ")))
        << c.params;
  }
}

}  // namespace
}  // namespace larkpost::test
