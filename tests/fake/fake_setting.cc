// The recording fake of the user's settings and of the administrator's POP3
// policy. Change records are recorded member by member in their order, an
// unset member as "-" (texts quoted), so that a test sees exactly which
// members a request marked set:
//   SettingControl::ModifySMTP 5 display_name=- mail=- ... signature=''
//   SettingControl::SetForwardReply forward_enable=true forward_addr='a@b' keep_copy=- ...
//   global_control::SetPOP3Config localdomain enable_pop3=false pop3_fetch_period=-
#include <string>
#include <vector>

#include "platform/mailcore/control.h"
#include "platform/mailcore/global_setting.h"
#include "tests/fake/fake_core.h"
#include "tests/fake/fake_platform.h"

using larkpost::fake::Call;
using larkpost::fake::core;
using larkpost::fake::platform;

namespace ornic::larkpost::control {

namespace {

std::string Field(const ConfigField<std::string>& field) {
  return field.IsSet() ? "'" + field.Get() + "'" : "-";
}
template <typename Integer>
std::string Field(const ConfigField<Integer>& field) {
  return field.IsSet() ? std::to_string(field.Get()) : "-";
}
std::string Field(const ConfigField<bool>& field) {
  return field.IsSet() ? (field.Get() ? "true" : "false") : "-";
}
std::string Flag(bool value) { return value ? "true" : "false"; }

std::string IdList(const std::vector<int>& ids) {
  std::string text = "[";
  for (size_t i = 0; i < ids.size(); ++i) {
    if (i > 0) text += ",";
    text += std::to_string(ids[i]);
  }
  return text + "]";
}

std::string Fields(const GeneralConfig& c) {
  return "conversations_per_page=" + Field(c.conversations_per_page) +
         " display_external_image=" + Field(c.display_external_image) +
         " mark_as_read_time=" + Field(c.mark_as_read_time) +
         " enable_signature=" + Field(c.enable_signature) +
         " update_interval_time=" + Field(c.update_interval_time) +
         " split_pane_mode=" + Field(c.split_pane_mode) +
         " preview_layout=" + Field(c.preview_layout) + " theme=" + Field(c.theme) +
         " composer_fontname=" + Field(c.composer_fontname) +
         " composer_fontsize=" + Field(c.composer_fontsize) +
         " composer_forecolor=" + Field(c.composer_forecolor) + " codepage=" + Field(c.codepage);
}

std::string Fields(const SMTPConfigure& c) {
  return "display_name=" + Field(c.display_name) + " mail=" + Field(c.mail) +
         " host_name=" + Field(c.host_name) + " port=" + Field(c.port) +
         " user_name=" + Field(c.user_name) + " password=" + Field(c.password) +
         " connection_type=" + Field(c.connection_type) + " signature=" + Field(c.signature);
}

std::string Fields(const POP3Configure& c) {
  return "mail=" + Field(c.mail) + " server_provider=" + Field(c.server_provider) +
         " host_name=" + Field(c.host_name) + " port=" + Field(c.port) +
         " user_name=" + Field(c.user_name) + " password=" + Field(c.password) +
         " enable_ssl=" + Field(c.enable_ssl) +
         " delete_after_fetch=" + Field(c.delete_after_fetch) +
         " mailbox_path=" + Field(c.mailbox_path) + " fetch_pass_days=" + Field(c.fetch_pass_days);
}

}  // namespace

SettingControl::SettingControl(Controller& controller) : controller_(controller) {}

record::GeneralConfig SettingControl::GetGeneralSetting() {
  if (!Call("SettingControl::GetGeneralSetting")) return {};
  return platform().general;
}

bool SettingControl::SetGeneralSetting(const GeneralConfig& config) {
  return Call("SettingControl::SetGeneralSetting", Fields(config));
}

std::vector<record::SMTPConfig> SettingControl::ListSMTP() const {
  if (!Call("SettingControl::ListSMTP")) return {};
  return core().smtp;
}

int SettingControl::DefaultIDSMTP() const {
  return Call("SettingControl::DefaultIDSMTP") ? core().smtp_default_id : 0;
}

int SettingControl::CreateSMTP(const SMTPConfigure& config) {
  return Call("SettingControl::CreateSMTP", Fields(config)) ? core().next_id : 0;
}

bool SettingControl::ModifySMTP(int id, const SMTPConfigure& config) {
  return Call("SettingControl::ModifySMTP", std::to_string(id) + " " + Fields(config));
}

bool SettingControl::DeleteSMTP(const std::vector<int>& ids) {
  return Call("SettingControl::DeleteSMTP", IdList(ids));
}

bool SettingControl::SetDefaultSMTP(int id) {
  return Call("SettingControl::SetDefaultSMTP", std::to_string(id));
}

bool SettingControl::IsEnablePOP3() const {
  return Call("SettingControl::IsEnablePOP3") && core().enable_pop3;
}

std::vector<record::POP3Config> SettingControl::ListPOP3() const {
  if (!Call("SettingControl::ListPOP3")) return {};
  return core().pop3;
}

int SettingControl::CreatePOP3(const POP3Configure& config) {
  return Call("SettingControl::CreatePOP3", Fields(config)) ? core().next_id : 0;
}

bool SettingControl::ModifyPOP3(int id, const POP3Configure& config) {
  return Call("SettingControl::ModifyPOP3", std::to_string(id) + " " + Fields(config));
}

bool SettingControl::DeletePOP3(const std::vector<int>& ids) {
  return Call("SettingControl::DeletePOP3", IdList(ids));
}

bool SettingControl::GetForwardReply(ForwardConfig& forward, ReplyConfig& reply) const {
  if (!Call("SettingControl::GetForwardReply")) return false;
  forward = core().forward;
  reply = core().reply;
  return true;
}

bool SettingControl::SetForwardReply(const ForwardConfig& forward, const ReplyConfig& reply) {
  return Call("SettingControl::SetForwardReply",
              "forward_enable=" + Flag(forward.forward_enable) + " forward_addr=" +
                  Field(forward.forward_addr) + " keep_copy=" + Field(forward.keep_copy) +
                  " reply_enable=" + Flag(reply.reply_enable) + " reply_begin_time=" +
                  Field(reply.reply_begin_time) + " reply_end_time=" + Field(reply.reply_end_time) +
                  " subject=" + Field(reply.subject) + " message=" + Field(reply.message));
}

// The core's own rules are not the fake's: a test makes a record invalid
// with a failure for "ForwardConfig::IsValid" or "ReplyConfig::IsValid".
bool ForwardConfig::IsValid() const { return Call("ForwardConfig::IsValid"); }
bool ReplyConfig::IsValid() const { return Call("ReplyConfig::IsValid"); }

}  // namespace ornic::larkpost::control

namespace ornic::larkpost::global_control {

SettingControl::SettingControl(const std::string& domain) : domain_(domain) {
  Call("global_control::SettingControl", domain);
}

record::GlobalPOP3Config SettingControl::GetPOP3Config() const {
  if (!Call("global_control::GetPOP3Config", domain_)) return {};
  return core().pop3_policy;
}

bool SettingControl::SetPOP3Config(const POP3Config& config) const {
  const std::string period =
      config.pop3_fetch_period ? std::to_string(*config.pop3_fetch_period) : "-";
  if (!Call("global_control::SetPOP3Config",
            domain_ + " enable_pop3=" + (config.enable_pop3 ? "true" : "false") +
                " pop3_fetch_period=" + period)) {
    return false;
  }
  core().pop3_policy.enable_pop3 = config.enable_pop3;
  if (config.pop3_fetch_period) core().pop3_policy.pop3_fetch_period = *config.pop3_fetch_period;
  return true;
}

}  // namespace ornic::larkpost::global_control
