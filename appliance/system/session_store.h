// The session store's internals, shared by SessionStore and the session
// checker's C interface (which must tell "no such session" from "the store
// failed").
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "appliance/system/appliance.h"
#include "appliance/system/sqlite.h"

namespace larkpost::appliance::sessions {

// The inactivity timer of a session is written back at most this often:
// entry.cgi runs once per request, and a write per request is wasted work.
constexpr int64_t kRefreshInterval = 60;

// The path of the store named `name` ("current.users") below RunDir();
// "" when `name` is not a plain file name.
std::string StorePath(const std::string& name);

// Opens an existing store; with `create`, makes it (and RunDir()) first.
// Throws sqlite::Error or std::runtime_error.
std::unique_ptr<sqlite::Database> Open(const std::string& path, bool create);

enum class Found { kLive, kNone };

// Looks `id` up in `db`. kNone for an id of the wrong form, an unknown id or
// a session idle for `timeout` seconds or more. With `refresh`, a live
// session's last_seen moves to now when it is older than kRefreshInterval.
// Throws sqlite::Error when the store fails.
Found Lookup(sqlite::Database& db, const std::string& id, int timeout, bool refresh,
             Session* session);

}  // namespace larkpost::appliance::sessions
