// Filter tasks: conditions and actions run over the stored mail by the
// core's background service, which hands out a key per task; the browser
// polls the task by its key and may cancel it. Nothing is kept here.
#include <json/value.h>

#include <string>

#include "platform/mailcore/apivalidator.h"
#include "platform/mailcore/record.h"
#include "platform/mailcore/rpc.h"
#include "proto/task.pb.h"
#include "webapi/filter.h"
#include "webapi/handler_util.h"
#include "webapi/log.h"

namespace ornic::larkpost::webapi {

namespace {

constexpr char kLogUnit[] = "filter";

using ZEVO::kOptional;
using ZEVO::kRequired;

// True when the array parameter was not sent, is not an array or is empty.
bool IsMissingOrEmpty(const ZEVO::APIParameter<Json::Value>& param) {
  return !param.IsSet() || IsResetOrInvalid(param) || param.Get().empty();
}

const char* StatusWord(int status) {
  switch (status) {
    case 2:
      return "waiting";
    case 3:
      return "running";
    default:
      return "none";
  }
}

}  // namespace

void FilterAPI::AddTask_v1() {
  const auto conditions = request_->GetAndCheckArray("condition", kOptional, nullptr);
  const auto actions = request_->GetAndCheckArray("action", kOptional, nullptr);
  if (IsMissingOrEmpty(conditions) || IsMissingOrEmpty(actions)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    WEBAPI_LOG("%s:%d parameter invalid");
    return;
  }
  FilterParser parser(controller_);
  record::ConditionSet condition_set;
  record::ActionSet action_set;
  parser.ParseCondition(conditions.Get(), condition_set);
  parser.ParseAction(actions.Get(), action_set);
  const std::string action_text = action_set.GetSerializedString();
  const std::string condition_text = condition_set.GetSerializedString();
  const std::string key = rpc::ExecuteBatchTask(uid_, condition_text, action_text);
  if (key.empty()) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    WEBAPI_LOG("%s:%d failed to get task key");
    return;
  }
  Json::Value data(Json::objectValue);
  data["task_key"] = key;
  response_->SetSuccess(data);
}

void FilterAPI::GetTaskStatus_v1() {
  const auto key = request_->GetAndCheckString("task_key", kRequired, apivalidator::StringNotEmpty);
  if (IsResetOrInvalid(key)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    WEBAPI_LOG("%s:%d parameter invalid");
    return;
  }
  proto::Response answer;
  if (!answer.ParseFromString(rpc::GetTaskStatus(uid_, key.Get()))) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    WEBAPI_LOG("%s:%d failed to parse response");
    return;
  }
  const proto::GetTaskStatusResponse& status =
      answer.GetExtension(proto::GetTaskStatusResponse::get_task_status);
  Json::Value data(Json::objectValue);
  data["status"] = StatusWord(status.status());
  data["total"] = Json::UInt(status.total());
  data["progress"] = Json::UInt(status.progress());
  response_->SetSuccess(data);
}

void FilterAPI::CancelTask_v1() {
  const auto key = request_->GetAndCheckString("task_key", kRequired, apivalidator::StringNotEmpty);
  if (IsResetOrInvalid(key)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    WEBAPI_LOG("%s:%d parameter invalid");
    return;
  }
  rpc::CancelTask(uid_, key.Get());
  response_->SetSuccess(Json::Value());
}

}  // namespace ornic::larkpost::webapi
