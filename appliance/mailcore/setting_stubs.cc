// Placeholders of the settings operations that are not built yet: each
// reports failure by its result, so that the plug-in links, loads and
// answers 117 (or "POP3 off") until the real ones replace these.
#include <string>
#include <vector>

#include "platform/mailcore/control.h"
#include "platform/mailcore/global_setting.h"

namespace ornic::larkpost::control {

std::vector<record::SMTPConfig> SettingControl::ListSMTP() const { return {}; }
int SettingControl::DefaultIDSMTP() const { return 0; }
int SettingControl::CreateSMTP(const SMTPConfigure& /*config*/) { return 0; }
bool SettingControl::ModifySMTP(int /*id*/, const SMTPConfigure& /*config*/) { return false; }
bool SettingControl::DeleteSMTP(const std::vector<int>& /*ids*/) { return false; }
bool SettingControl::SetDefaultSMTP(int /*id*/) { return false; }

bool SettingControl::IsEnablePOP3() const { return false; }

bool SettingControl::GetForwardReply(ForwardConfig& /*forward*/, ReplyConfig& /*reply*/) const {
  return false;
}
bool SettingControl::SetForwardReply(const ForwardConfig& /*forward*/,
                                     const ReplyConfig& /*reply*/) {
  return false;
}

bool ForwardConfig::IsValid() const { return false; }
bool ReplyConfig::IsValid() const { return false; }

}  // namespace ornic::larkpost::control

namespace ornic::larkpost::global_control {

SettingControl::SettingControl(const std::string& domain) : domain_(domain) {}

record::GlobalPOP3Config SettingControl::GetPOP3Config() const { return {}; }
bool SettingControl::SetPOP3Config(const POP3Config& /*config*/) const { return false; }

}  // namespace ornic::larkpost::global_control
