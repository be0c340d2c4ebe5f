// UserStore's per-process cache of accounts, as far as other parts of the
// system library feed it.
#pragma once

#include "appliance/system/appliance.h"

namespace larkpost::appliance::detail {

// Makes `user` the answer of UserStore::FindByUid and FindByName for the
// rest of the process. The session store calls it with the account of a
// live session, which is what the account was at login: a request made
// with that session then never opens the user store.
void RememberUser(const UserRecord& user);

}  // namespace larkpost::appliance::detail
