// Account administration beyond what the host programs and the core need
// (larkpostctl).
#pragma once

#include <string>
#include <vector>

#include "appliance/system/appliance.h"

namespace larkpost::appliance {

// Every account, by uid. Empty when no account was ever added; throws
// std::runtime_error when the user store exists but cannot be read.
std::vector<UserRecord> ListUsers();

// 1 to 64 characters of letters, digits, ".", "_" and "-", not starting with
// "." or "-".
bool IsValidUserName(const std::string& name);

}  // namespace larkpost::appliance
