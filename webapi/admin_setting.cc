#include "webapi/admin_setting.h"

#include <json/value.h>

#include "platform/mailcore/apivalidator.h"
#include "webapi/handler_util.h"

namespace ornic::larkpost::webapi {

AdminSettingAPI::AdminSettingAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response)
    : request_(request),
      response_(response),
      user_(request->GetLoginUID()),
      setting_(user_.domain()) {}

void AdminSettingAPI::POP3Get_v1() {
  const record::GlobalPOP3Config config = setting_.GetPOP3Config();
  if (!config.IsValid()) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    return;
  }
  Json::Value data(Json::objectValue);
  data["enable_pop3"] = config.enable_pop3;
  data["pop3_fetch_period"] = Json::UInt(config.pop3_fetch_period);
  response_->SetSuccess(data);
}

void AdminSettingAPI::POP3Set_v1() {
  const auto enable = request_->GetAndCheckBool("enable_pop3", ZEVO::kRequired, nullptr);
  const auto period =
      request_->GetAndCheckInt("pop3_fetch_period", ZEVO::kOptional, apivalidator::IntGreaterZero);
  if (enable.IsInvalid() || period.IsInvalid()) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  global_control::POP3Config config;
  config.enable_pop3 = enable.Get();
  if (period.IsSet()) config.pop3_fetch_period = period.Get();
  AnswerChange(response_, setting_.SetPOP3Config(config));
}

}  // namespace ornic::larkpost::webapi
