#include "webapi/label.h"

#include <json/value.h>

#include <string>
#include <vector>

#include "platform/mailcore/apivalidator.h"
#include "platform/mailcore/constant.h"
#include "platform/mailcore/record.h"
#include "platform/mailcore/sync.h"
#include "webapi/format/mail_record.h"
#include "webapi/handler_util.h"
#include "webapi/log.h"

namespace ornic::larkpost::webapi {

namespace {

constexpr char kLogUnit[] = "label";

using StringParam = ZEVO::APIParameter<std::string>;

bool AnyReset(const StringParam& a, const StringParam& b, const StringParam& c) {
  return a.IsReset() || b.IsReset() || c.IsReset();
}

bool AnyInvalid(const StringParam& a, const StringParam& b, const StringParam& c) {
  return a.IsInvalid() || b.IsInvalid() || c.IsInvalid();
}

// Stores each field that the request gave.
control::LabelConfig ConfigOf(const StringParam& name, const StringParam& text_color,
                              const StringParam& background_color) {
  control::LabelConfig config;
  if (name.IsSet()) config.name.Set(name.Get());
  if (text_color.IsSet()) config.text_color.Set(text_color.Get());
  if (background_color.IsSet()) config.background_color.Set(background_color.Get());
  return config;
}

Json::Value LabelsToJson(const std::vector<record::Label>& labels) {
  Json::Value json(Json::arrayValue);
  for (const record::Label& label : labels) json.append(format::LabelToJson(label));
  return json;
}

}  // namespace

using ZEVO::kOptional;
using ZEVO::kRequired;

LabelAPI::LabelAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response)
    : NormalAPI(request, response), labels_(controller_) {}

void LabelAPI::SyncLabels() { control::Syncer(controller_).TriggerSync(constant::kSyncLabel); }

void LabelAPI::Create_v1() {
  const auto name = request_->GetAndCheckString("name", kRequired, apivalidator::StringNotEmpty);
  const auto text_color =
      request_->GetAndCheckString("text_color", kRequired, apivalidator::StringIsColor);
  const auto background_color =
      request_->GetAndCheckString("background_color", kRequired, apivalidator::StringIsColor);
  if (AnyReset(name, text_color, background_color) ||
      AnyInvalid(name, text_color, background_color)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    WEBAPI_LOG("%s:%d parameter invalid");
    return;
  }
  const int id = labels_.Create(ConfigOf(name, text_color, background_color));
  if (id <= 0) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    WEBAPI_LOG("%s:%d create label failed");
    return;
  }
  SyncLabels();
  Json::Value data(Json::objectValue);
  data["id"] = id;
  response_->SetSuccess(data);
}

void LabelAPI::Get_v1() {
  const auto id = GetIdArray(*request_, "id");
  if (IsResetOrInvalid(id)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    WEBAPI_LOG("%s:%d parameter invalid");
    return;
  }
  ParseAdditional();
  Json::Value data(Json::objectValue);
  data["label"] = LabelsToJson(labels_.Get(Ids(id), additional_ & ADDITIONAL_UNREAD_COUNT));
  response_->SetSuccess(data);
}

void LabelAPI::Set_v1() {
  // "id" is the check table's to vouch for.
  const auto id = request_->GetAndCheckInt("id", kRequired, nullptr);
  const auto name = request_->GetAndCheckString("name", kOptional, apivalidator::StringNotEmpty);
  const auto text_color =
      request_->GetAndCheckString("text_color", kOptional, apivalidator::StringIsColor);
  const auto background_color =
      request_->GetAndCheckString("background_color", kOptional, apivalidator::StringIsColor);
  if (AnyReset(name, text_color, background_color) ||
      AnyInvalid(name, text_color, background_color)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    WEBAPI_LOG("%s:%d parameter invalid");
    return;
  }
  if (!labels_.Modify(id.Get(), ConfigOf(name, text_color, background_color))) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    WEBAPI_LOG("%s:%d modify label failed");
    return;
  }
  SyncLabels();
  response_->SetSuccess(Json::Value());
}

void LabelAPI::List_v1() {
  ParseAdditional();
  const std::vector<record::Label> labels = labels_.List(additional_ & ADDITIONAL_UNREAD_COUNT);
  Json::Value data(Json::objectValue);
  data["label"] = LabelsToJson(labels);
  data["total"] = Json::UInt(labels.size());
  response_->SetSuccess(data);
}

void LabelAPI::Delete_v1() {
  const auto id = GetIdArray(*request_, "id");
  if (IsResetOrInvalid(id)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    WEBAPI_LOG("%s:%d parameter invalid");
    return;
  }
  if (!labels_.Delete(Ids(id))) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    WEBAPI_LOG("%s:%d delete failed");
    return;
  }
  SyncLabels();
  response_->SetSuccess(Json::Value());
}

}  // namespace ornic::larkpost::webapi
