// The user's store is built by numbered migrations, applied in order; PRAGMA
// user_version holds the number of the newest one applied. To change the
// schema, append a migration: never edit one that has shipped, since stores
// that already ran it will not run it again.
#include "platform/mailcore/db_setup.h"

#include <sys/stat.h>

#include <exception>
#include <memory>
#include <string>

#include "appliance/mailcore/controller_impl.h"
#include "platform/mailcore/zevo_user.h"

namespace ornic::larkpost::db {
namespace {

struct Migration {
  int version;
  const char* sql;
};

constexpr Migration kMigrations[] = {
    {1,
     // Mailboxes. raw_path is the name in IMAP modified UTF-7, unique among
     // the children of one parent (NULL parent: the top level). builtin is
     // the constant::BuiltinMailbox of a built-in mailbox, NULL for the
     // user's own. The counters are kept up to date by the core so that
     // listing mailboxes does not count messages.
     "CREATE TABLE mailbox("
     " id INTEGER PRIMARY KEY AUTOINCREMENT,"
     " parent_id INTEGER REFERENCES mailbox(id),"
     " raw_path TEXT NOT NULL CHECK (raw_path <> ''),"
     " builtin INTEGER CHECK (builtin BETWEEN 0 AND 6),"
     " subscribed INTEGER NOT NULL DEFAULT 1,"
     " message_count INTEGER NOT NULL DEFAULT 0,"
     " unread_count INTEGER NOT NULL DEFAULT 0,"
     " draft_count INTEGER NOT NULL DEFAULT 0,"
     " last_modified INTEGER NOT NULL DEFAULT 0);"
     "CREATE UNIQUE INDEX mailbox_sibling_path ON mailbox(ifnull(parent_id, 0), raw_path);"
     "CREATE UNIQUE INDEX mailbox_builtin ON mailbox(builtin) WHERE builtin IS NOT NULL;"
     // The built-in mailboxes have the fixed ids 1 to 7; the ones users
     // create are numbered after them, and an id is never used twice.
     "INSERT INTO sqlite_sequence(name, seq) VALUES ('mailbox', 7);"
     // Messages, as far as mailbox counters need them. type 1 is a draft.
     "CREATE TABLE message("
     " id INTEGER PRIMARY KEY,"
     " mailbox_id INTEGER NOT NULL REFERENCES mailbox(id),"
     " thread_id INTEGER,"
     " type INTEGER NOT NULL DEFAULT 0,"
     " is_read INTEGER NOT NULL DEFAULT 0,"
     " star INTEGER NOT NULL DEFAULT 0,"
     " size INTEGER NOT NULL DEFAULT 0,"
     " arrival_time INTEGER NOT NULL DEFAULT 0,"
     " last_modified INTEGER NOT NULL DEFAULT 0);"
     "CREATE INDEX message_mailbox ON message(mailbox_id, is_read, type);"
     "CREATE INDEX message_starred ON message(mailbox_id) WHERE star <> 0;"
     "CREATE INDEX message_thread ON message(thread_id);"},
};

constexpr int kNewestVersion = kMigrations[sizeof kMigrations / sizeof kMigrations[0] - 1].version;

void Log(int line, const std::string& text) { store::LogError("db_setup", line, text); }

}  // namespace

DBSetupHandler::DBSetupHandler(uint32_t uid) : uid_(uid) {}

bool DBSetupHandler::DoesDBExist() const {
  // A user without a store (every user before the first request) costs one
  // stat, not a failed open.
  struct stat info;
  if (stat(store::StorePath(uid_).c_str(), &info) != 0) return false;
  try {
    return store::Connection(uid_, false)->QueryInt("PRAGMA user_version") > 0;
  } catch (const std::exception& e) {
    Log(__LINE__, e.what());
    return false;
  }
}

bool DBSetupHandler::SetupDB() const {
  try {
    if (!sdk::ZevoUser(uid_).IsValid()) {
      Log(__LINE__, "no user " + std::to_string(uid_));
      return false;
    }
    std::shared_ptr<store::Database> db = store::Connection(uid_, true);
    auto too_new = [&](int64_t version) {
      Log(__LINE__, store::StorePath(uid_) + " has schema " + std::to_string(version) +
                        ", newer than this program's " + std::to_string(kNewestVersion));
      return false;
    };
    // The store of nearly every request is up to date: one read, no lock.
    int64_t version = db->QueryInt("PRAGMA user_version");
    if (version == kNewestVersion) return true;
    if (version > kNewestVersion) return too_new(version);
    for (const Migration& migration : kMigrations) {
      store::Transaction transaction(*db);
      // Read again inside the transaction: another process may have run
      // this step while we waited for the lock.
      int64_t current = db->QueryInt("PRAGMA user_version");
      if (current > kNewestVersion) return too_new(current);
      if (current >= migration.version) continue;
      db->Exec(migration.sql);
      db->Exec("PRAGMA user_version = " + std::to_string(migration.version));
      transaction.Commit();
    }
    return true;
  } catch (const std::exception& e) {
    Log(__LINE__, "setting up the store of user " + std::to_string(uid_) + " failed: " + e.what());
    return false;
  }
}

}  // namespace ornic::larkpost::db
