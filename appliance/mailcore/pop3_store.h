// POP3 fetch accounts as the fetcher sees them: the whole row, password
// opened, and the account's memory of what it already took. Private to the
// appliance (the fetcher, SettingControl).
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "platform/mailcore/controller.h"

namespace ornic::larkpost::store {

struct Pop3Account {
  int id = 0;
  std::string mail;
  int server_provider = 0;
  std::string host_name;
  int port = 110;
  std::string user_name;
  std::string password;  // opened: for the account's own server only
  bool enable_ssl = false;
  bool delete_after_fetch = false;
  std::string mailbox_path;  // UTF-8; "" for the inbox
  int fetch_pass_days = 0;
  bool first_fetch_done = false;
  int64_t last_fetch_time = 0;  // Unix seconds of the last attempt; 0: never
  std::string last_error;       // "" when the last fetch went through
};

// The id of the mailbox that `path` names for fetched mail: its raw path
// (IMAP modified UTF-7) or, failing that, its UTF-8 path; "" and "INBOX"
// (in any case) name the inbox. 0 when no mailbox that holds mail of its own
// has the path (the virtual Starred does not).
int FetchMailboxId(control::Controller& controller, const std::string& path);

// The user's accounts in id order, or the one with `id`. Throw
// ornic::Error(kErrorDatabase) when the store fails.
std::vector<Pop3Account> LoadPop3Accounts(Database& db);
std::optional<Pop3Account> LoadPop3Account(Database& db, int id);

// The UIDLs remembered for the account.
std::set<std::string> RememberedUidls(Database& db, int account_id);
// Remembers `uidl`, inside the caller's transaction.
void RememberUidl(Database& db, int account_id, const std::string& uidl);
// Forgets, in one transaction, every remembered UIDL that the server no
// longer lists, so that the memory stays as large as the maildrop.
void ForgetUidlsExcept(Database& db, int account_id, const std::set<std::string>& listed);

// Keeps the outcome of a fetch attempt: its time, its error ("" for none)
// and, when `first_done`, that the first fetch happened.
void RecordFetch(Database& db, int account_id, int64_t when, const std::string& error,
                 bool first_done);

}  // namespace ornic::larkpost::store
