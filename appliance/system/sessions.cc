// Login sessions in <root>/run/current.users. The table is keyed by a
// BLAKE2b hash of the session id: whoever reads the file (a backup, a stray
// copy) learns no id that would log them in.
#include <sodium.h>
#include <sys/stat.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "appliance/system/appliance.h"
#include "appliance/system/clock.h"
#include "appliance/system/session_store.h"
#include "appliance/system/sqlite.h"

namespace larkpost::appliance {
namespace sessions {
namespace {

constexpr size_t kIdBytes = 32;
constexpr size_t kTokenBytes = 16;
constexpr char kStoreName[] = "current.users";

constexpr char kSchema[] =
    "CREATE TABLE IF NOT EXISTS session("
    " key BLOB PRIMARY KEY,"
    " token TEXT NOT NULL,"
    " uid INTEGER NOT NULL,"
    " name TEXT NOT NULL,"
    " domain TEXT NOT NULL,"
    " is_admin INTEGER NOT NULL,"
    " created INTEGER NOT NULL,"
    " last_seen INTEGER NOT NULL) WITHOUT ROWID;"
    "CREATE INDEX IF NOT EXISTS session_last_seen ON session(last_seen);";

void InitSodium() {
  if (sodium_init() < 0) throw std::runtime_error("libsodium cannot be initialised");
}

std::string RandomHex(size_t bytes) {
  unsigned char buffer[64];
  randombytes_buf(buffer, bytes);
  char hex[2 * sizeof buffer + 1];
  sodium_bin2hex(hex, sizeof hex, buffer, bytes);
  return std::string(hex, 2 * bytes);
}

bool IsSessionId(const std::string& id) {
  if (id.size() != 2 * kIdBytes) return false;
  for (char c : id) {
    if (!isxdigit(static_cast<unsigned char>(c)) || isupper(static_cast<unsigned char>(c))) {
      return false;
    }
  }
  return true;
}

struct Key {
  unsigned char bytes[crypto_generichash_BYTES];
};

Key HashId(const std::string& id) {
  Key key;
  crypto_generichash(key.bytes, sizeof key.bytes, reinterpret_cast<const unsigned char*>(id.data()),
                     id.size(), nullptr, 0);
  return key;
}

}  // namespace

std::string StorePath(const std::string& name) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
    return "";
  }
  return RunDir() + "/" + name;
}

std::unique_ptr<sqlite::Database> Open(const std::string& path, bool create) {
  if (create && !MakeDirs(RunDir())) throw std::runtime_error("cannot create " + RunDir());
  sqlite::OpenOptions options;
  options.create = create;
  options.wal = create;  // set once by the creator; the mode is stored in the file
  auto db = std::make_unique<sqlite::Database>(path, options);
  if (create) db->Exec(kSchema);
  return db;
}

Found Lookup(sqlite::Database& db, const std::string& id, int timeout, bool refresh,
             Session* session) {
  if (!IsSessionId(id) || timeout <= 0) return Found::kNone;
  InitSodium();
  Key key = HashId(id);
  sqlite::Statement find(db,
                         "SELECT token, uid, name, domain, is_admin, created, last_seen "
                         "FROM session WHERE key = ?1");
  find.BindBlob(1, key.bytes, sizeof key.bytes);
  if (!find.Step()) return Found::kNone;
  int64_t now = UnixTime();
  int64_t last_seen = find.Int64(6);
  if (now - last_seen >= timeout) return Found::kNone;
  Session found;
  found.id = id;
  found.token = find.Text(0);
  found.user.uid = static_cast<uint32_t>(find.Int64(1));
  found.user.name = find.Text(2);
  found.user.domain = find.Text(3);
  found.user.is_admin = find.Int64(4) != 0;
  found.created = find.Int64(5);
  found.last_seen = last_seen;
  find.Reset();
  if (refresh && now - last_seen >= kRefreshInterval) {
    sqlite::Statement touch(db, "UPDATE session SET last_seen = ?2 WHERE key = ?1");
    touch.BindBlob(1, key.bytes, sizeof key.bytes).Bind(2, now);
    touch.Run();
    found.last_seen = now;
  }
  if (session) *session = std::move(found);
  return Found::kLive;
}

}  // namespace sessions

Session SessionStore::Create(const UserRecord& user) {
  sessions::InitSodium();
  Session session;
  session.id = sessions::RandomHex(sessions::kIdBytes);
  session.token = sessions::RandomHex(sessions::kTokenBytes);
  session.user = user;
  session.created = session.last_seen = UnixTime();

  auto db = sessions::Open(sessions::StorePath(sessions::kStoreName), true);
  sqlite::Transaction transaction(*db);
  // Logins are rare next to requests: a good moment to drop what expired.
  // A configuration that cannot be read only skips the clean-up.
  int timeout = 0;
  try {
    timeout = GetConfig().session_timeout;
  } catch (const std::runtime_error&) {
  }
  if (timeout > 0) {
    sqlite::Statement purge(*db, "DELETE FROM session WHERE last_seen <= ?1");
    purge.Bind(1, session.created - timeout);
    purge.Run();
  }
  sessions::Key key = sessions::HashId(session.id);
  sqlite::Statement insert(*db,
                           "INSERT INTO session(key, token, uid, name, domain, is_admin, created, "
                           "last_seen) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?7)");
  insert.BindBlob(1, key.bytes, sizeof key.bytes).Bind(2, session.token).Bind(3, user.uid);
  insert.Bind(4, user.name).Bind(5, user.domain).Bind(6, user.is_admin).Bind(7, session.created);
  insert.Run();
  transaction.Commit();
  return session;
}

std::optional<Session> SessionStore::Lookup(const std::string& id, int timeout, bool refresh) {
  try {
    std::string path = sessions::StorePath(sessions::kStoreName);
    struct stat info;
    if (stat(path.c_str(), &info) != 0) return std::nullopt;
    auto db = sessions::Open(path, false);
    Session session;
    if (sessions::Lookup(*db, id, timeout, refresh, &session) != sessions::Found::kLive) {
      return std::nullopt;
    }
    return session;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

bool SessionStore::Remove(const std::string& id) {
  if (!sessions::IsSessionId(id)) return false;
  std::string path = sessions::StorePath(sessions::kStoreName);
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return false;
  sessions::InitSodium();
  auto db = sessions::Open(path, false);
  sessions::Key key = sessions::HashId(id);
  sqlite::Statement remove(*db, "DELETE FROM session WHERE key = ?1");
  remove.BindBlob(1, key.bytes, sizeof key.bytes);
  remove.Run();
  return db->Changes() > 0;
}

}  // namespace larkpost::appliance
