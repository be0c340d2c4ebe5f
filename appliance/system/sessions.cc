// Login sessions in <root>/run/current.users/, one file per session (see
// session_store.h for the layout).
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "appliance/system/appliance.h"
#include "appliance/system/clock.h"
#include "appliance/system/session_store.h"
#include "appliance/system/user_admin.h"
#include "appliance/system/user_cache.h"

namespace larkpost::appliance {
namespace sessions {
namespace {

constexpr size_t kIdBytes = 32;
constexpr size_t kTokenBytes = 16;
constexpr char kStoreName[] = "current.users";
constexpr char kVersionLine[] = "larkpost-session 1";
// Far above any record FormatRecord writes (a 64-character name, a
// 253-character domain): a larger file is not one of ours.
constexpr size_t kMaxRecordSize = 1024;
// A login examines at most this many files for expiry, so that its cost
// stays bounded however many sessions there are; the examined stretch
// starts at a random place, so every file gets its turn.
constexpr size_t kPurgeLimit = 512;
// A temporary file older than this was left by a writer that died.
constexpr int64_t kStaleTemporary = 60;

std::string ErrorText(const std::string& what, const std::string& path) {
  return "session store: " + what + " " + path + ": " + std::strerror(errno);
}

void InitSodium() {
  if (sodium_init() < 0) throw std::runtime_error("libsodium cannot be initialised");
}

std::string Hex(const unsigned char* bytes, size_t size) {
  char hex[2 * 64 + 1];
  sodium_bin2hex(hex, sizeof hex, bytes, size);
  return std::string(hex, 2 * size);
}

std::string RandomHex(size_t bytes) {
  unsigned char buffer[64];
  randombytes_buf(buffer, bytes);
  return Hex(buffer, bytes);
}

bool IsLowerHex(const std::string& text, size_t size) {
  if (text.size() != size) return false;
  for (char c : text) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

bool IsSessionId(const std::string& id) { return IsLowerHex(id, 2 * kIdBytes); }

bool IsDomain(const std::string& domain) {
  if (domain.empty() || domain.size() > 253) return false;
  for (char c : domain) {
    if (!isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '-') return false;
  }
  return true;
}

// A decimal number without sign or leading zeros, at most `high`.
std::optional<int64_t> ParseNumber(const std::string& text, int64_t high) {
  if (text.empty() || text.size() > 19 || (text.size() > 1 && text[0] == '0')) return std::nullopt;
  int64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  if (value > high) return std::nullopt;
  return value;
}

// Splits off the next line, which must be "<key> <value>"; nullopt when it
// is not.
std::optional<std::string> Field(const std::string& text, size_t* pos, const char* key) {
  size_t end = text.find('\n', *pos);
  if (end == std::string::npos) return std::nullopt;
  size_t key_size = std::strlen(key);
  if (text.compare(*pos, key_size, key) != 0 || *pos + key_size >= end ||
      text[*pos + key_size] != ' ') {
    return std::nullopt;
  }
  std::string value = text.substr(*pos + key_size + 1, end - *pos - key_size - 1);
  *pos = end + 1;
  return value;
}

bool IsTemporaryName(const char* name) {
  size_t size = std::strlen(name);
  return size > 5 && name[0] == '.' && std::strcmp(name + size - 4, ".tmp") == 0;
}

// Drops expired sessions and temporary files that a dead writer left. Best
// effort: a file that cannot be examined or removed stays for a later login.
void Purge(const std::string& store, int timeout, int64_t now) {
  DIR* dir = opendir(store.c_str());
  if (dir == nullptr) return;
  std::vector<std::string> names;
  while (const dirent* entry = readdir(dir)) {
    if (IsLowerHex(entry->d_name, size_t{2} * crypto_generichash_BYTES) ||
        IsTemporaryName(entry->d_name)) {
      names.emplace_back(entry->d_name);
    }
  }
  size_t count = names.size() < kPurgeLimit ? names.size() : kPurgeLimit;
  size_t start = names.empty() ? 0 : randombytes_uniform(static_cast<uint32_t>(names.size()));
  for (size_t i = 0; i < count; ++i) {
    const std::string& name = names[(start + i) % names.size()];
    struct stat info;
    if (fstatat(dirfd(dir), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
    int64_t age = now - static_cast<int64_t>(info.st_mtim.tv_sec);
    if (age >= (name[0] == '.' ? kStaleTemporary : timeout)) {
      unlinkat(dirfd(dir), name.c_str(), 0);
    }
  }
  closedir(dir);
}

// Makes the store folder. A store left by an earlier version of this
// program was a single database file in its place: it is replaced (its
// sessions end, their users log in again).
void MakeStore(const std::string& store) {
  struct stat info;
  if (lstat(store.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
      std::string path = store + suffix;
      if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        throw std::runtime_error(ErrorText("cannot remove", path));
      }
    }
  }
  if (!MakeDirs(store)) throw std::runtime_error(ErrorText("cannot create", store));
}

// Writes `text` to a new file `path` (mode 0600) whose time stamp is
// `mtime`. Throws std::runtime_error; no file is left then.
void WriteNewFile(const std::string& path, const std::string& text, int64_t mtime) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  int fd = open(path.c_str(), kFlags, 0600);
  if (fd < 0) throw std::runtime_error(ErrorText("cannot create", path));
  size_t done = 0;
  bool ok = true;
  while (ok && done < text.size()) {
    ssize_t written = write(fd, text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) continue;
    ok = written > 0;
    if (ok) done += static_cast<size_t>(written);
  }
  struct timespec times[2] = {{static_cast<time_t>(mtime), 0}, {static_cast<time_t>(mtime), 0}};
  ok = ok && futimens(fd, times) == 0;
  std::string error = ok ? std::string() : ErrorText("cannot write", path);
  if (close(fd) != 0 && ok) {
    ok = false;
    error = ErrorText("cannot write", path);
  }
  if (!ok) {
    unlink(path.c_str());
    throw std::runtime_error(error);
  }
}

}  // namespace

std::string StorePath(const std::string& name) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
    return "";
  }
  return RunDir() + "/" + name;
}

// Hashing needs no sodium_init(): BLAKE2b runs in its portable form until
// sodium_init() picks a faster one, and a request is spared the
// initialisation's own work (random pool, CPU probing).
std::string FileName(const std::string& id) {
  unsigned char hash[crypto_generichash_BYTES];
  crypto_generichash(hash, sizeof hash, reinterpret_cast<const unsigned char*>(id.data()),
                     id.size(), nullptr, 0);
  return Hex(hash, sizeof hash);
}

std::string FormatRecord(const Session& session) {
  return std::string(kVersionLine) + "\ntoken " + session.token + "\nuid " +
         std::to_string(session.user.uid) + "\nname " + session.user.name + "\ndomain " +
         session.user.domain + "\nadmin " + (session.user.is_admin ? "1" : "0") + "\ncreated " +
         std::to_string(session.created) + "\nend\n";
}

std::optional<Session> ParseRecord(const std::string& text) {
  size_t pos = 0;
  if (text.compare(0, sizeof kVersionLine - 1, kVersionLine) != 0 ||
      text.size() < sizeof kVersionLine || text[sizeof kVersionLine - 1] != '\n') {
    return std::nullopt;
  }
  pos = sizeof kVersionLine;
  Session session;
  auto token = Field(text, &pos, "token");
  auto uid = Field(text, &pos, "uid");
  auto name = Field(text, &pos, "name");
  auto domain = Field(text, &pos, "domain");
  auto admin = Field(text, &pos, "admin");
  auto created = Field(text, &pos, "created");
  if (!token || !uid || !name || !domain || !admin || !created) return std::nullopt;
  if (text.compare(pos, std::string::npos, "end\n") != 0) return std::nullopt;
  std::optional<int64_t> uid_value = ParseNumber(*uid, UINT32_MAX);
  std::optional<int64_t> created_value = ParseNumber(*created, INT64_MAX);
  if (!IsLowerHex(*token, 2 * kTokenBytes) || !uid_value || !IsValidUserName(*name) ||
      !IsDomain(*domain) || (*admin != "0" && *admin != "1") || !created_value) {
    return std::nullopt;
  }
  session.token = *token;
  session.user.uid = static_cast<uint32_t>(*uid_value);
  session.user.name = *name;
  session.user.domain = *domain;
  session.user.is_admin = *admin == "1";
  session.created = *created_value;
  return session;
}

Found Lookup(const std::string& store, const std::string& id, int timeout, bool refresh,
             Session* session) {
  if (!IsSessionId(id) || timeout <= 0) return Found::kNone;
  std::string path = store + "/" + FileName(id);
  int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return Found::kNone;
    throw std::runtime_error(ErrorText("cannot open", path));
  }
  struct stat info;
  char buffer[kMaxRecordSize + 1];
  ssize_t got = -1;
  if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
    do {
      got = read(fd, buffer, sizeof buffer);
    } while (got < 0 && errno == EINTR);
  }
  // Files are replaced, never rewritten: one read gets all of a file
  // unless it is too large to be ours.
  std::optional<Session> found;
  if (got >= 0 && got == info.st_size) found = ParseRecord(std::string(buffer, got));
  if (!found) {
    close(fd);
    throw std::runtime_error("session store: " + path + " is not a session record");
  }
  int64_t now = UnixTime();
  int64_t last_seen = static_cast<int64_t>(info.st_mtim.tv_sec);
  if (now - last_seen >= timeout) {
    close(fd);
    return Found::kNone;
  }
  if (refresh && now - last_seen >= kRefreshInterval) {
    // A session that could not be refreshed is still live now; it will
    // only expire sooner.
    struct timespec times[2] = {{static_cast<time_t>(now), 0}, {static_cast<time_t>(now), 0}};
    if (futimens(fd, times) == 0) last_seen = now;
  }
  close(fd);
  found->id = id;
  found->last_seen = last_seen;
  detail::RememberUser(found->user);
  if (session) *session = std::move(*found);
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
  std::string record = sessions::FormatRecord(session);
  if (!sessions::ParseRecord(record)) {
    throw std::runtime_error("session store: the account \"" + user.name +
                             "\" cannot be recorded in a session");
  }

  std::string store = sessions::StorePath(sessions::kStoreName);
  std::string name = sessions::FileName(session.id);
  std::string temporary = store + "/." + name + ".tmp";
  struct stat info;
  if (stat(store.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) sessions::MakeStore(store);
  sessions::WriteNewFile(temporary, record, session.created);
  if (rename(temporary.c_str(), (store + "/" + name).c_str()) != 0) {
    std::string error = sessions::ErrorText("cannot rename", temporary);
    unlink(temporary.c_str());
    throw std::runtime_error(error);
  }
  // Logins are rare next to requests: a good moment to drop what expired.
  // A configuration that cannot be read only skips the clean-up.
  int timeout = 0;
  try {
    timeout = GetConfig().session_timeout;
  } catch (const std::runtime_error&) {
  }
  if (timeout > 0) sessions::Purge(store, timeout, session.created);
  return session;
}

std::optional<Session> SessionStore::Lookup(const std::string& id, int timeout, bool refresh) {
  try {
    Session session;
    if (sessions::Lookup(sessions::StorePath(sessions::kStoreName), id, timeout, refresh,
                         &session) != sessions::Found::kLive) {
      return std::nullopt;
    }
    return session;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

bool SessionStore::Remove(const std::string& id) {
  if (!sessions::IsSessionId(id)) return false;
  std::string path = sessions::StorePath(sessions::kStoreName) + "/" + sessions::FileName(id);
  if (unlink(path.c_str()) == 0) return true;
  if (errno == ENOENT || errno == ENOTDIR) return false;
  throw std::runtime_error(sessions::ErrorText("cannot remove", path));
}

}  // namespace larkpost::appliance
