// Accounts: one row per user in <root>/etc/users.db. Passwords are kept only
// as argon2id hashes in libsodium's self-describing string form, so the cost
// parameters can be raised later without breaking stored hashes.
//
// Lookups by uid and name are cached for the life of the process (a host
// program serves one request, in which the same user is looked up several
// times); the session store seeds the cache with the account of the
// request's session, so that a request normally never opens users.db.
// Verify and Add always work on the database.
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "appliance/system/appliance.h"
#include "appliance/system/clock.h"
#include "appliance/system/sqlite.h"
#include "appliance/system/testing.h"
#include "appliance/system/user_admin.h"
#include "appliance/system/user_cache.h"

namespace larkpost::appliance {
namespace {

constexpr uint32_t kFirstUid = 1026;

// An argon2id hash of a password nobody has, with the same cost as real
// ones: verifying against it makes an unknown name take as long as a wrong
// password.
constexpr char kDummyHash[] =
    "$argon2id$v=19$m=65536,t=2,p=1$HbZ30Lu9s9LCvyRLUEyhlw$"
    "fnbL0gWuTNkNLVsZpMiFdzbYWwrancTFkiG0CLqh7rc";

constexpr char kSchema[] =
    "CREATE TABLE IF NOT EXISTS user("
    " uid INTEGER PRIMARY KEY,"
    " name TEXT NOT NULL UNIQUE,"
    " domain TEXT NOT NULL,"
    " is_admin INTEGER NOT NULL,"
    " password_hash TEXT NOT NULL,"
    " created INTEGER NOT NULL)";

void InitSodium() {
  if (sodium_init() < 0) throw std::runtime_error("libsodium cannot be initialised");
}

bool FileExists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

// A host that runs as root tests a user's access to a file in the home under
// the user's own uid: the home must belong to the user, and the folders
// above it must let the user pass (not list: 0711 at least).
void HandOverHome(const std::string& name, int64_t uid) {
  const std::string home = HomeDir(name);
  if (chown(home.c_str(), static_cast<uid_t>(uid), static_cast<gid_t>(-1)) != 0) {
    throw std::runtime_error("cannot hand " + home + " over to uid " + std::to_string(uid));
  }
  for (const std::string& folder : {DataRoot(), DataRoot() + "/homes"}) {
    struct stat info;
    if (stat(folder.c_str(), &info) != 0 ||
        ((info.st_mode & 0011) != 0011 && chmod(folder.c_str(), (info.st_mode & 07777) | 0011))) {
      throw std::runtime_error("cannot make " + folder + " passable for other users");
    }
  }
}

// Opens the store for writing, creating it and its table when missing.
std::unique_ptr<sqlite::Database> OpenForWrite() {
  if (!MakeDirs(EtcDir())) throw std::runtime_error("cannot create " + EtcDir());
  sqlite::OpenOptions options;
  options.create = true;
  auto db = std::make_unique<sqlite::Database>(UsersDbPath(), options);
  db->Exec(kSchema);
  return db;
}

// Opens the store for reading; nullptr when no account was ever added.
std::unique_ptr<sqlite::Database> OpenForRead() {
  if (!FileExists(UsersDbPath())) return nullptr;
  sqlite::OpenOptions options;
  options.wal = false;  // the writer switched the file already
  auto db = std::make_unique<sqlite::Database>(UsersDbPath(), options);
  if (db->QueryInt("SELECT count(*) FROM sqlite_master WHERE type='table' AND name='user'") == 0) {
    return nullptr;
  }
  return db;
}

constexpr char kColumns[] = "SELECT uid, name, domain, is_admin, password_hash FROM user ";

UserRecord RowToUser(const sqlite::Statement& row) {
  UserRecord user;
  user.uid = static_cast<uint32_t>(row.Int64(0));
  user.name = row.Text(1);
  user.domain = row.Text(2);
  user.is_admin = row.Int64(3) != 0;
  return user;
}

// The user and its password hash.
std::optional<std::pair<UserRecord, std::string>> FindWithHash(const std::string& name) {
  auto db = OpenForRead();
  if (!db) return std::nullopt;
  sqlite::Statement find(*db, (std::string(kColumns) + "WHERE name = ?1").c_str());
  find.Bind(1, name);
  if (!find.Step()) return std::nullopt;
  return std::make_pair(RowToUser(find), find.Text(4));
}

// Accounts found so far, by uid and by name. Only accounts that exist are
// cached: a name that is unknown now may be added by the next command.
std::mutex g_cache_mutex;
std::map<uint32_t, UserRecord> g_by_uid;
std::map<std::string, uint32_t> g_uid_by_name;

void Remember(const UserRecord& user) {
  std::lock_guard<std::mutex> lock(g_cache_mutex);
  auto old = g_by_uid.find(user.uid);
  if (old != g_by_uid.end()) {
    auto named = g_uid_by_name.find(old->second.name);
    if (named != g_uid_by_name.end() && named->second == user.uid) g_uid_by_name.erase(named);
  }
  g_by_uid[user.uid] = user;
  g_uid_by_name[user.name] = user.uid;
}

std::optional<UserRecord> CachedByUid(uint32_t uid) {
  std::lock_guard<std::mutex> lock(g_cache_mutex);
  auto found = g_by_uid.find(uid);
  if (found == g_by_uid.end()) return std::nullopt;
  return found->second;
}

std::optional<UserRecord> CachedByName(const std::string& name) {
  std::lock_guard<std::mutex> lock(g_cache_mutex);
  auto found = g_uid_by_name.find(name);
  if (found == g_uid_by_name.end()) return std::nullopt;
  return g_by_uid.at(found->second);
}

bool IsValidDomain(const std::string& domain) {
  if (domain.empty() || domain.size() > 253 || domain[0] == '.' || domain[0] == '-') return false;
  for (char c : domain) {
    if (!isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '-') return false;
  }
  return true;
}

}  // namespace

bool IsValidUserName(const std::string& name) {
  if (name.empty() || name.size() > 64 || name[0] == '.' || name[0] == '-') return false;
  for (char c : name) {
    if (!isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-') return false;
  }
  return true;
}

namespace detail {

void RememberUser(const UserRecord& user) { Remember(user); }

void ForgetUsers() {
  std::lock_guard<std::mutex> lock(g_cache_mutex);
  g_by_uid.clear();
  g_uid_by_name.clear();
}

}  // namespace detail

std::optional<UserRecord> UserStore::FindByUid(uint32_t uid) {
  if (std::optional<UserRecord> cached = CachedByUid(uid)) return cached;
  auto db = OpenForRead();
  if (!db) return std::nullopt;
  sqlite::Statement find(*db, (std::string(kColumns) + "WHERE uid = ?1").c_str());
  find.Bind(1, uid);
  if (!find.Step()) return std::nullopt;
  UserRecord user = RowToUser(find);
  Remember(user);
  return user;
}

std::optional<UserRecord> UserStore::FindByName(const std::string& name) {
  if (!IsValidUserName(name)) return std::nullopt;
  if (std::optional<UserRecord> cached = CachedByName(name)) return cached;
  auto found = FindWithHash(name);
  if (!found) return std::nullopt;
  Remember(found->first);
  return found->first;
}

uint32_t UserStore::Add(const std::string& name, const std::string& password, bool is_admin,
                        const std::string& domain) {
  if (!IsValidUserName(name)) {
    throw std::runtime_error("\"" + name +
                             "\" is not a valid user name (1 to 64 letters, digits, \".\", \"_\" "
                             "or \"-\", not starting with \".\" or \"-\")");
  }
  if (!IsValidDomain(domain)) throw std::runtime_error("\"" + domain + "\" is not a valid domain");
  if (password.empty()) throw std::runtime_error("the password must not be empty");
  InitSodium();
  // Hash before taking the write lock: it is the slow part.
  char hash[crypto_pwhash_STRBYTES];
  if (crypto_pwhash_str(hash, password.data(), password.size(), crypto_pwhash_OPSLIMIT_INTERACTIVE,
                        crypto_pwhash_MEMLIMIT_INTERACTIVE) != 0) {
    throw std::runtime_error("cannot hash the password (out of memory)");
  }

  auto db = OpenForWrite();
  sqlite::Transaction transaction(*db);
  sqlite::Statement taken(*db, "SELECT 1 FROM user WHERE name = ?1");
  taken.Bind(1, name);
  if (taken.Step()) throw std::runtime_error("user \"" + name + "\" already exists");
  int64_t highest = db->QueryInt("SELECT ifnull(max(uid), 0) FROM user");
  int64_t uid = highest < kFirstUid ? kFirstUid : highest + 1;
  if (uid >= UINT32_MAX) throw std::runtime_error("no user id is left");
  sqlite::Statement insert(*db,
                           "INSERT INTO user(uid, name, domain, is_admin, password_hash, created) "
                           "VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
  insert.Bind(1, uid).Bind(2, name).Bind(3, domain).Bind(4, is_admin).Bind(5, std::string(hash));
  insert.Bind(6, UnixTime());
  insert.Run();
  // The home is made inside the transaction: when it cannot be, no account
  // is left without one.
  if (!MakeDirs(HomeDir(name))) throw std::runtime_error("cannot create " + HomeDir(name));
  if (geteuid() == 0) HandOverHome(name, uid);
  transaction.Commit();
  return static_cast<uint32_t>(uid);
}

std::optional<UserRecord> UserStore::Verify(const std::string& name, const std::string& password) {
  InitSodium();
  std::optional<std::pair<UserRecord, std::string>> found;
  if (IsValidUserName(name)) found = FindWithHash(name);
  const std::string& hash = found ? found->second : std::string(kDummyHash);
  bool match = crypto_pwhash_str_verify(hash.c_str(), password.data(), password.size()) == 0;
  if (!found || !match) return std::nullopt;
  return found->first;
}

std::vector<UserRecord> ListUsers() {
  std::vector<UserRecord> users;
  auto db = OpenForRead();
  if (!db) return users;
  sqlite::Statement all(*db, (std::string(kColumns) + "ORDER BY uid").c_str());
  while (all.Step()) users.push_back(RowToUser(all));
  return users;
}

}  // namespace larkpost::appliance
