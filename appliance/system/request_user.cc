#include <optional>

#include "appliance/system/appliance.h"

namespace larkpost::appliance {

namespace {

// One request per process: the process is its scope.
std::optional<RequestUser> g_request_user;

}  // namespace

void SetRequestUser(const RequestUser& user) { g_request_user = user; }

std::optional<RequestUser> GetRequestUser() { return g_request_user; }

}  // namespace larkpost::appliance
