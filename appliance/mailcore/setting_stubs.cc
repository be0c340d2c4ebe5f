// Placeholders of the settings operations that are not built yet: each
// reports failure by its result, so that the plug-in links, loads and
// answers 117 (or "POP3 off") until the real ones replace these.
#include <string>
#include <vector>

#include "platform/mailcore/control.h"

namespace ornic::larkpost::control {

std::vector<record::POP3Config> SettingControl::ListPOP3() const { return {}; }
int SettingControl::CreatePOP3(const POP3Configure& /*config*/) { return 0; }
bool SettingControl::ModifyPOP3(int /*id*/, const POP3Configure& /*config*/) { return false; }
bool SettingControl::DeletePOP3(const std::vector<int>& /*ids*/) { return false; }

}  // namespace ornic::larkpost::control
