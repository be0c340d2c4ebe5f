// The session store's internals, shared by SessionStore and the session
// checker's C interface (which must tell "no such session" from "the store
// failed").
//
// A store is a folder below RunDir() (mode 0700) with one file per session
// (mode 0600), named by the hex BLAKE2b-256 hash of the session id, so that
// whoever reads the folder (a backup, a stray copy) learns no id that would
// log them in. A file is written under a temporary name and renamed into
// place, and never changed afterwards except for its modification time,
// which is the session's last_seen. A lookup is an open, fstat, read and
// close; a request that ends its session's idle time writes nothing but a
// new time stamp.
#pragma once

#include <optional>
#include <string>

#include "appliance/system/appliance.h"

namespace larkpost::appliance::sessions {

// The inactivity timer of a session is written back at most this often:
// entry.cgi runs once per request, and a write per request is wasted work.
constexpr int64_t kRefreshInterval = 60;

// The folder of the store named `name` ("current.users") below RunDir();
// "" when `name` is not a plain file name.
std::string StorePath(const std::string& name);

// The file name of the session `id` in a store: the hex BLAKE2b-256 hash of
// the id.
std::string FileName(const std::string& id);

// A session's record as stored: token, user and creation time, one
// "key value" line each, in a fixed order, between a version line and an
// end line. last_seen is not part of it (it is the file's time stamp).
std::string FormatRecord(const Session& session);
// Reads a record written by FormatRecord into `session` (all but id and
// last_seen). nullopt for anything else: a truncated or foreign file, a
// field out of order, a value that could not have been written.
std::optional<Session> ParseRecord(const std::string& text);

enum class Found { kLive, kNone };

// Looks `id` up in the store folder `store`. kNone for an id of the wrong
// form, an unknown id or a session idle for `timeout` seconds or more. With
// `refresh`, a live session's last_seen moves to now when it is older than
// kRefreshInterval. A live session's user is remembered by UserStore for
// the rest of the process. Throws std::runtime_error when the store cannot
// be read or the session's file is damaged.
Found Lookup(const std::string& store, const std::string& id, int timeout, bool refresh,
             Session* session);

}  // namespace larkpost::appliance::sessions
