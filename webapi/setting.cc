#include "webapi/setting.h"

#include <json/value.h>
#include <pcrecpp.h>

#include <string>
#include <vector>

#include "platform/mailcore/apivalidator.h"
#include "platform/mailcore/constant.h"
#include "platform/mailcore/record.h"
#include "platform/mailcore/sync.h"
#include "webapi/format/setting.h"
#include "webapi/handler_util.h"
#include "webapi/log.h"

namespace ornic::larkpost::webapi {

namespace {

constexpr char kLogUnit[] = "setting";

using ZEVO::kOptional;
using ZEVO::kRequired;

// The checks of the general preferences that the framework's getters run on
// a value of the right type.
bool IsPageSize(const int& value) { return value == 25 || value == 50 || value == 100; }

// 0, 1, 3 or 10 minutes; a negative value is a huge unsigned one.
bool IsMarkAsReadTime(const int& value) {
  return value == 10 || value == 3 || static_cast<unsigned int>(value) <= 1;
}

bool IsFontSize(const std::string& value) {
  static const pcrecpp::RE pattern("([1-9][0-9]*pt)", pcrecpp::RE_Options(PCRE_UTF8));
  return value.empty() || pattern.FullMatch(value);
}

bool IsColorOrEmpty(const std::string& value) {
  return value.empty() || apivalidator::StringIsColor(value);
}

template <typename... Params>
bool AnyInvalid(const Params&... params) {
  return (params.IsInvalid() || ...);
}

template <typename... Params>
bool AnyResetOrInvalid(const Params&... params) {
  return (IsResetOrInvalid(params) || ...);
}

// Marks `field` set when the request sent the parameter.
template <typename T>
void CopyIfSent(const ZEVO::APIParameter<T>& param, control::ConfigField<T>& field) {
  if (param.IsSet()) field.Set(param.Get());
}

}  // namespace

SettingAPI::SettingAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response)
    : NormalAPI(request, response), setting_(controller_) {}

void SettingAPI::Sync(constant::SyncType type) { control::Syncer(controller_).TriggerSync(type); }

// ------------------------------------------------------------------ general

void SettingAPI::GeneralGet_v1() {
  response_->SetSuccess(format::GeneralSettingToJson(setting_.GetGeneralSetting()));
}

void SettingAPI::GeneralSet_v1() {
  const auto per_page = request_->GetAndCheckInt("conversations_per_page", kOptional, IsPageSize);
  const auto external_image =
      request_->GetAndCheckBool("display_external_image", kOptional, nullptr);
  const auto mark_as_read =
      request_->GetAndCheckInt("mark_as_read_time", kOptional, IsMarkAsReadTime);
  const auto signature = request_->GetAndCheckBool("enable_signature", kOptional, nullptr);
  const auto update_interval = request_->GetAndCheckInt("update_interval_time", kOptional, nullptr);
  const auto split_pane = request_->GetAndCheckInt("split_pane_mode", kOptional, nullptr);
  const auto preview_layout = request_->GetAndCheckInt("preview_layout", kOptional, nullptr);
  const auto theme = request_->GetAndCheckInt("theme", kOptional, nullptr);
  const auto fontname = request_->GetAndCheckString("composer_fontname", kOptional, nullptr);
  const auto fontsize = request_->GetAndCheckString("composer_fontsize", kOptional, IsFontSize);
  const auto forecolor =
      request_->GetAndCheckString("composer_forecolor", kOptional, IsColorOrEmpty);
  const auto codepage = request_->GetAndCheckString("codepage", kOptional, nullptr);
  if (AnyResetOrInvalid(per_page, external_image, mark_as_read, signature, update_interval,
                        split_pane, preview_layout, theme, fontname, fontsize, forecolor,
                        codepage)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  control::GeneralConfig config;
  CopyIfSent(per_page, config.conversations_per_page);
  CopyIfSent(external_image, config.display_external_image);
  CopyIfSent(mark_as_read, config.mark_as_read_time);
  CopyIfSent(signature, config.enable_signature);
  CopyIfSent(update_interval, config.update_interval_time);
  CopyIfSent(split_pane, config.split_pane_mode);
  CopyIfSent(preview_layout, config.preview_layout);
  CopyIfSent(theme, config.theme);
  CopyIfSent(fontname, config.composer_fontname);
  CopyIfSent(fontsize, config.composer_fontsize);
  CopyIfSent(forecolor, config.composer_forecolor);
  CopyIfSent(codepage, config.codepage);
  if (!setting_.SetGeneralSetting(config)) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    return;
  }
  Sync(constant::kSyncSetting);
  response_->SetSuccess(Json::Value());
}

// --------------------------------------------------------------------- SMTP

void SettingAPI::SMTPList_v1() {
  Json::Value accounts(Json::arrayValue);
  for (const record::SMTPConfig& account : setting_.ListSMTP()) {
    accounts.append(format::SMTPToJson(account));
  }
  Json::Value data(Json::objectValue);
  data["smtp"] = accounts;
  data["smtp_default_id"] = setting_.DefaultIDSMTP();
  response_->SetSuccess(data);
}

void SettingAPI::SMTPCreate_v1() {
  const auto display_name =
      request_->GetAndCheckString("display_name", kRequired, apivalidator::StringNotEmpty);
  const auto mail = request_->GetAndCheckString("mail", kRequired, apivalidator::StringNotEmpty);
  const auto host_name =
      request_->GetAndCheckString("host_name", kRequired, apivalidator::StringNotEmpty);
  const auto port = request_->GetAndCheckInt("port", kRequired, nullptr);
  const auto user_name =
      request_->GetAndCheckString("user_name", kOptional, apivalidator::StringNotEmpty);
  const auto password = request_->GetAndCheckString("password", kOptional, nullptr);
  const auto connection_type = request_->GetAndCheckInt("connection_type", kRequired, nullptr);
  const auto signature =
      request_->GetAndCheckString("signature", kOptional, apivalidator::StringNotEmpty);
  if (AnyInvalid(display_name, mail, host_name, port, user_name, password, connection_type,
                 signature)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  control::SMTPConfigure config;
  config.display_name.Set(display_name.Get());
  config.mail.Set(mail.Get());
  config.host_name.Set(host_name.Get());
  config.port.Set(port.Get());
  CopyIfSent(user_name, config.user_name);
  CopyIfSent(password, config.password);
  config.connection_type.Set(connection_type.Get());
  CopyIfSent(signature, config.signature);
  const int id = setting_.CreateSMTP(config);
  if (id <= 0) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    return;
  }
  Sync(constant::kSyncSetting);
  Json::Value data(Json::objectValue);
  data["id"] = id;
  response_->SetSuccess(data);
}

void SettingAPI::SMTPSet_v1() {
  const auto id = request_->GetAndCheckInt("id", kRequired, apivalidator::IntGreaterEqualZero);
  const auto display_name =
      request_->GetAndCheckString("display_name", kOptional, apivalidator::StringNotEmpty);
  const auto mail = request_->GetAndCheckString("mail", kOptional, apivalidator::StringNotEmpty);
  const auto host_name =
      request_->GetAndCheckString("host_name", kOptional, apivalidator::StringNotEmpty);
  const auto port = request_->GetAndCheckInt("port", kOptional, nullptr);
  const auto user_name = request_->GetAndCheckString("user_name", kOptional, nullptr);
  const auto password = request_->GetAndCheckString("password", kOptional, nullptr);
  const auto connection_type = request_->GetAndCheckInt("connection_type", kOptional, nullptr);
  const auto signature = request_->GetAndCheckString("signature", kOptional, nullptr);
  if (AnyInvalid(id, display_name, mail, host_name, port, user_name, password, connection_type,
                 signature)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  control::SMTPConfigure config;
  CopyIfSent(display_name, config.display_name);
  CopyIfSent(mail, config.mail);
  CopyIfSent(host_name, config.host_name);
  CopyIfSent(port, config.port);
  CopyIfSent(user_name, config.user_name);
  CopyIfSent(password, config.password);
  CopyIfSent(connection_type, config.connection_type);
  CopyIfSent(signature, config.signature);
  if (!setting_.ModifySMTP(id.Get(), config)) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    WEBAPI_LOG("%s:%d set failed");
    return;
  }
  Sync(constant::kSyncSetting);
  response_->SetSuccess(Json::Value());
}

void SettingAPI::SMTPDelete_v1() {
  const auto id = GetIdArray(*request_, "id");
  if (IsResetOrInvalid(id)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    WEBAPI_LOG("%s:%d parameter invalid");
    return;
  }
  if (!setting_.DeleteSMTP(Ids(id))) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    WEBAPI_LOG("%s:%d delete failed");
    return;
  }
  Sync(constant::kSyncSetting);
  response_->SetSuccess(Json::Value());
}

void SettingAPI::SMTPSetDefault_v1() {
  const auto id = request_->GetAndCheckInt("id", kRequired, apivalidator::IntGreaterEqualZero);
  if (id.IsInvalid()) {
    response_->SetError(kErrorBadParameter, Json::Value());
    WEBAPI_LOG("%s:%d parameter invalid");
    return;
  }
  if (!setting_.SetDefaultSMTP(id.Get())) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    WEBAPI_LOG("%s:%d SetDefaultSMTP failed");
    return;
  }
  Sync(constant::kSyncSetting);
  response_->SetSuccess(Json::Value());
}

// --------------------------------------------------------------------- POP3

void SettingAPI::POP3GetInfo_v1() {
  Json::Value data(Json::objectValue);
  data["enable_pop3"] = setting_.IsEnablePOP3();
  response_->SetSuccess(data);
}

// A disabled POP3 is answered like a bad parameter, before any is read.
bool SettingAPI::POP3Allowed() {
  if (setting_.IsEnablePOP3()) return true;
  response_->SetError(kErrorBadParameter, Json::Value());
  return false;
}

void SettingAPI::POP3List_v1() {
  if (!POP3Allowed()) return;
  Json::Value accounts(Json::arrayValue);
  for (const record::POP3Config& account : setting_.ListPOP3()) {
    accounts.append(format::POP3ToJson(account));
  }
  Json::Value data(Json::objectValue);
  data["pop3"] = accounts;
  response_->SetSuccess(data);
}

void SettingAPI::POP3Create_v1() {
  if (!POP3Allowed()) return;
  const auto mail = request_->GetAndCheckString("mail", kRequired, apivalidator::StringNotEmpty);
  const auto server_provider = request_->GetAndCheckInt("server_provider", kRequired, nullptr);
  const auto host_name =
      request_->GetAndCheckString("host_name", kRequired, apivalidator::StringNotEmpty);
  const auto port = request_->GetAndCheckInt("port", kRequired, nullptr);
  const auto user_name =
      request_->GetAndCheckString("user_name", kRequired, apivalidator::StringNotEmpty);
  const auto password = request_->GetAndCheckString("password", kRequired, nullptr);
  const auto enable_ssl = request_->GetAndCheckBool("enable_ssl", kRequired, nullptr);
  const auto delete_after_fetch =
      request_->GetAndCheckBool("delete_after_fetch", kRequired, nullptr);
  const auto mailbox_path = request_->GetAndCheckString("mailbox_path", kRequired, nullptr);
  const auto fetch_pass_days = request_->GetAndCheckInt("fetch_pass_days", kRequired, nullptr);
  if (AnyInvalid(mail, server_provider, host_name, port, user_name, password, enable_ssl,
                 delete_after_fetch, mailbox_path, fetch_pass_days)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  control::POP3Configure config;
  config.mail.Set(mail.Get());
  config.server_provider.Set(server_provider.Get());
  config.host_name.Set(host_name.Get());
  config.port.Set(port.Get());
  config.user_name.Set(user_name.Get());
  config.password.Set(password.Get());
  config.enable_ssl.Set(enable_ssl.Get());
  config.delete_after_fetch.Set(delete_after_fetch.Get());
  config.mailbox_path.Set(mailbox_path.Get());
  config.fetch_pass_days.Set(fetch_pass_days.Get());
  const int id = setting_.CreatePOP3(config);
  if (id <= 0) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    return;
  }
  Sync(constant::kSyncSetting);
  Json::Value data(Json::objectValue);
  data["id"] = id;
  response_->SetSuccess(data);
}

void SettingAPI::POP3Set_v1() {
  if (!POP3Allowed()) return;
  const auto id = request_->GetAndCheckInt("id", kRequired, apivalidator::IntGreaterEqualZero);
  const auto mail = request_->GetAndCheckString("mail", kOptional, apivalidator::StringNotEmpty);
  const auto server_provider = request_->GetAndCheckInt("server_provider", kOptional, nullptr);
  const auto host_name =
      request_->GetAndCheckString("host_name", kOptional, apivalidator::StringNotEmpty);
  const auto port = request_->GetAndCheckInt("port", kOptional, nullptr);
  const auto user_name =
      request_->GetAndCheckString("user_name", kOptional, apivalidator::StringNotEmpty);
  const auto password = request_->GetAndCheckString("password", kOptional, nullptr);
  const auto enable_ssl = request_->GetAndCheckBool("enable_ssl", kOptional, nullptr);
  const auto delete_after_fetch =
      request_->GetAndCheckBool("delete_after_fetch", kOptional, nullptr);
  const auto mailbox_path = request_->GetAndCheckString("mailbox_path", kOptional, nullptr);
  if (AnyInvalid(id, mail, server_provider, host_name, port, user_name, password, enable_ssl,
                 delete_after_fetch, mailbox_path)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  // "fetch_pass_days" is not read: it only means something before the first
  // fetch, so an existing account keeps the one it was created with.
  control::POP3Configure config;
  CopyIfSent(mail, config.mail);
  CopyIfSent(server_provider, config.server_provider);
  CopyIfSent(host_name, config.host_name);
  CopyIfSent(port, config.port);
  CopyIfSent(user_name, config.user_name);
  CopyIfSent(password, config.password);
  CopyIfSent(enable_ssl, config.enable_ssl);
  CopyIfSent(delete_after_fetch, config.delete_after_fetch);
  CopyIfSent(mailbox_path, config.mailbox_path);
  if (!setting_.ModifyPOP3(id.Get(), config)) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    WEBAPI_LOG("%s:%d set failed");
    return;
  }
  Sync(constant::kSyncSetting);
  response_->SetSuccess(Json::Value());
}

void SettingAPI::POP3Delete_v1() {
  if (!POP3Allowed()) return;
  const auto id = GetIdArray(*request_, "id");
  if (IsResetOrInvalid(id)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    WEBAPI_LOG("%s:%d parameter invalid");
    return;
  }
  if (!setting_.DeletePOP3(Ids(id))) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    WEBAPI_LOG("%s:%d delete failed");
    return;
  }
  Sync(constant::kSyncSetting);
  response_->SetSuccess(Json::Value());
}

// ------------------------------------------------------ forwarding and reply

void SettingAPI::ForwardReplyGet_v1() {
  control::ForwardConfig forward;
  control::ReplyConfig reply;
  if (!setting_.GetForwardReply(forward, reply) || !forward.IsValid() || !reply.IsValid()) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    return;
  }
  auto text = [](const control::ConfigField<std::string>& field) {
    return field.IsSet() ? field.Get() : std::string();
  };
  auto time = [](const control::ConfigField<int64_t>& field) {
    return Json::Int64(field.IsSet() ? field.Get() : 0);
  };
  Json::Value data(Json::objectValue);
  data["forward_enable"] = forward.forward_enable;
  data["forward_addr"] = text(forward.forward_addr);
  data["keep_copy"] = forward.keep_copy.Get();
  data["reply_enable"] = reply.reply_enable;
  data["reply_begin_time"] = time(reply.reply_begin_time);
  data["reply_end_time"] = time(reply.reply_end_time);
  data["subject"] = text(reply.subject);
  data["message"] = text(reply.message);
  response_->SetSuccess(data);
}

void SettingAPI::ForwardReplySet_v1() {
  const auto forward_enable = request_->GetAndCheckBool("forward_enable", kRequired, nullptr);
  const auto forward_addr =
      request_->GetAndCheckString("forward_addr", kOptional, apivalidator::StringNotEmpty);
  const auto keep_copy = request_->GetAndCheckBool("keep_copy", kOptional, nullptr);
  const auto reply_enable = request_->GetAndCheckBool("reply_enable", kRequired, nullptr);
  const auto begin_time = request_->GetAndCheckInt64("reply_begin_time", kOptional, nullptr);
  const auto end_time = request_->GetAndCheckInt64("reply_end_time", kOptional, nullptr);
  const auto subject =
      request_->GetAndCheckString("subject", kOptional, apivalidator::StringNotEmpty);
  const auto message =
      request_->GetAndCheckString("message", kOptional, apivalidator::StringNotEmpty);
  if (AnyInvalid(forward_enable, forward_addr, keep_copy, reply_enable, begin_time, end_time,
                 subject, message)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    WEBAPI_LOG("%s:%d parameter invalid");
    return;
  }
  control::ForwardConfig forward;
  forward.forward_enable = forward_enable.Get();
  CopyIfSent(forward_addr, forward.forward_addr);
  CopyIfSent(keep_copy, forward.keep_copy);
  control::ReplyConfig reply;
  reply.reply_enable = reply_enable.Get();
  CopyIfSent(begin_time, reply.reply_begin_time);
  CopyIfSent(end_time, reply.reply_end_time);
  CopyIfSent(subject, reply.subject);
  CopyIfSent(message, reply.message);
  if (!forward.IsValid() || !reply.IsValid()) {
    response_->SetError(kErrorBadParameter, Json::Value());
    WEBAPI_LOG("%s:%d parameter invalid");
    return;
  }
  if (!setting_.SetForwardReply(forward, reply)) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    return;
  }
  Sync(constant::kSyncForwardReply);
  response_->SetSuccess(Json::Value());
}

}  // namespace ornic::larkpost::webapi
