#include "webapi/thread.h"

#include <cstdint>
#include <vector>

#include "platform/mailcore/apivalidator.h"
#include "platform/mailcore/record.h"
#include "platform/mailcore/util.h"
#include "webapi/filter.h"
#include "webapi/format/mail_record.h"
#include "webapi/handler_util.h"
#include "webapi/log.h"

namespace ornic::larkpost::webapi {

namespace {
constexpr char kLogUnit[] = "thread";
}  // namespace

using ZEVO::kOptional;
using ZEVO::kRequired;

ThreadAPI::ThreadAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response)
    : NormalAPI(request, response), threads_(controller_), search_(controller_) {}

Json::Value ThreadAPI::ThreadsToJson(const std::vector<int>& ids) {
  Json::Value threads(Json::arrayValue);
  for (const record::Thread& thread : threads_.List(ids)) {
    threads.append(format::ThreadToJson(thread));
  }
  return threads;
}

void ThreadAPI::List_v1() {
  const auto offset =
      request_->GetAndCheckInt("offset", kOptional, apivalidator::IntGreaterEqualZero);
  const auto limit =
      request_->GetAndCheckInt("limit", kOptional, apivalidator::IntGreaterEqualNegativeOne);
  const auto condition = request_->GetAndCheckArray("condition", kRequired, nullptr);
  const auto max_arrival_before =
      request_->GetAndCheckInt64("max_arrival_before", kOptional, apivalidator::LLongGreaterZero);
  if (offset.IsInvalid() || limit.IsInvalid() || IsResetOrInvalid(max_arrival_before)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  if (condition.IsInvalid()) {
    response_->SetError(kErrorThreadParameter, Json::Value());
    return;
  }

  record::ConditionSet conditions;
  FilterParser(controller_).ParseCondition(condition.Get(), conditions);
  if (max_arrival_before.IsSet()) search_.SetMaxArrivalBefore(max_arrival_before.Get());
  search_.SetConditions(conditions.conditions, conditions.match_any);
  search_.SetOffset(offset.Get(0));
  search_.SetLimit(limit.Get(-1));

  // Paging is the search's: the page comes back, and the count of all.
  std::vector<int> ids;
  const uint32_t total = search_.Search(ids);
  Json::Value data(Json::objectValue);
  data["thread"] = ThreadsToJson(ids);
  data["total"] = Json::UInt(total);
  response_->SetSuccess(data);
}

void ThreadAPI::Get_v1() {
  const auto id = GetIdArray(*request_, "id");
  if (id.IsInvalid()) {
    response_->SetError(kErrorThreadParameter, Json::Value());
    return;
  }
  Json::Value data(Json::objectValue);
  data["thread"] = ThreadsToJson(Ids(id));
  response_->SetSuccess(data);
}

void ThreadAPI::CheckExist_v1() {
  const auto id = GetIdArray(*request_, "id");
  const auto mailbox_id = request_->GetAndCheckInt("mailbox_id", kOptional, nullptr);
  const auto label_id =
      request_->GetAndCheckInt("label_id", kOptional, apivalidator::IntGreaterZero);
  if (IsResetOrInvalid(id) || IsResetOrInvalid(mailbox_id) || IsResetOrInvalid(label_id)) {
    response_->SetError(kErrorThreadParameter, Json::Value());
    return;
  }
  util::optional<int> mailbox;
  util::optional<int> label;
  if (mailbox_id.IsSet()) mailbox = mailbox_id.Get();
  if (label_id.IsSet()) label = label_id.Get();

  Json::Value data(Json::objectValue);
  data["id"] = util::VectorToJsonArray<int>(threads_.GetExistingThread(Ids(id), mailbox, label));
  response_->SetSuccess(data);
}

void ThreadAPI::Delete_v1() {
  const auto id = GetIdArray(*request_, "id");
  if (id.IsInvalid()) {
    response_->SetError(kErrorThreadParameter, Json::Value());
    return;
  }
  if (!AnswerChange(response_, threads_.DeleteTrash(Ids(id)))) {
    WEBAPI_LOG("%s:%d failed to delete thread");
  }
}

void ThreadAPI::AddLabel_v1() {
  const auto id = GetIdArray(*request_, "id");
  const auto label_id = GetIdArray(*request_, "label_id");
  if (id.IsInvalid() || label_id.IsInvalid()) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  if (!AnswerChange(response_, threads_.AddLabel(Ids(id), Ids(label_id)))) {
    WEBAPI_LOG("%s:%d thread add label failed");
  }
}

void ThreadAPI::RemoveLabel_v1() {
  const auto id = GetIdArray(*request_, "id");
  const auto label_id = GetIdArray(*request_, "label_id");
  if (id.IsInvalid() || label_id.IsInvalid()) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  if (!AnswerChange(response_, threads_.RemoveLabel(Ids(id), Ids(label_id)))) {
    WEBAPI_LOG("%s:%d thread remove label failed");
  }
}

void ThreadAPI::SetMailbox_v1() {
  const auto id = GetIdArray(*request_, "id");
  const auto mailbox_id = request_->GetAndCheckInt("mailbox_id", kRequired, nullptr);
  if (id.IsInvalid() || mailbox_id.IsInvalid()) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  if (!AnswerChange(response_, threads_.SetMailbox(Ids(id), mailbox_id.Get()))) {
    WEBAPI_LOG("%s:%d set mailbox faild (id: %s, mailbox_id:%d)", id.Get().toStyledString().c_str(),
               mailbox_id.Get());
  }
}

void ThreadAPI::SetRead_v1() {
  const auto id = GetIdArray(*request_, "id");
  const auto read = request_->GetAndCheckBool("read", kRequired, nullptr);
  if (id.IsInvalid() || read.IsInvalid()) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  control::MessageControl messages(controller_);
  if (!AnswerChange(response_, messages.SetReadByThreadID(Ids(id), read.Get()))) {
    WEBAPI_LOG("%s:%d set thread read faild (id: %s, read:%s)", id.Get().toStyledString().c_str(),
               read.Get() ? "set read" : "set unread");
  }
}

}  // namespace ornic::larkpost::webapi
