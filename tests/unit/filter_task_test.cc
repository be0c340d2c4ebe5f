// Filter tasks: the sets as the service gets them, the task key, the status
// words from the service's numbers, and every refused or failed path.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "proto/task.pb.h"
#include "tests/unit/handler_test_util.h"
#include "webapi/filter.h"

namespace larkpost::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
namespace proto = ornic::larkpost::proto;
using ornic::larkpost::webapi::FilterAPI;

// The methods as the entry functions run them.
void AddTask(ZEVO::APIRequest* request, ZEVO::APIResponse* response) {
  FilterAPI(request, response).AddTask_v1();
}
void GetStatus(ZEVO::APIRequest* request, ZEVO::APIResponse* response) {
  FilterAPI(request, response).GetTaskStatus_v1();
}
void Cancel(ZEVO::APIRequest* request, ZEVO::APIResponse* response) {
  FilterAPI(request, response).CancelTask_v1();
}

std::string StatusAnswer(int status, uint32_t progress, uint32_t total) {
  proto::Response response;
  auto* answer = response.MutableExtension(proto::GetTaskStatusResponse::get_task_status);
  answer->set_status(static_cast<proto::GetTaskStatusResponse::Status>(status));
  answer->set_progress(progress);
  answer->set_total(total);
  return response.SerializeAsString();
}

using FilterTaskTest = HandlerTest;

TEST_F(FilterTaskTest, AddTaskSendsTheSerialisedSetsAndAnswersTheKey) {
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

TEST_F(FilterTaskTest, StatusWordsComeFromTheServicesNumbers) {
  struct Case {
    int status;
    const char* word;
  } cases[] = {{1, "none"}, {2, "waiting"}, {3, "running"}, {4, "none"}, {5, "none"}};
  for (const Case& c : cases) {
    fake::core().task_status = StatusAnswer(c.status, 40, 100);
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

TEST_F(FilterTaskTest, CancelAnswersSuccessWhateverTheServiceSays) {
  fake::core().failures["rpc::CancelTask"] = 0;
  EXPECT_EQ(AsSent(Run(Cancel, J(R"({"task_key": "k2"})"))), J(R"({"success": true})"));
  EXPECT_THAT(fake::CallsStartingWith("rpc::"), ElementsAre("rpc::CancelTask 1026 k2"));
}

TEST_F(FilterTaskTest, RefusedParametersAreLogged) {
  struct Case {
    ZEVO::APIHandler handler;
    const char* params;
  } cases[] = {
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
    fake::ResetSystemLog();
    fake::core().calls.clear();
    EXPECT_EQ(Run(c.handler, J(c.params)), ErrorAnswer(120)) << c.params;
    EXPECT_THAT(Logged("filter"), ElementsAre("parameter invalid")) << c.params;
    EXPECT_THAT(fake::CallsStartingWith("rpc::"), IsEmpty()) << c.params;
  }
}

}  // namespace
}  // namespace larkpost::test
