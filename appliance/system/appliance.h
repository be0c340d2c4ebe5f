// The stand-in appliance's own services: the data root, the configuration,
// user accounts and login sessions. The host programs, the core stand-in and
// larkpostctl share them; the plug-in never sees this header.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace larkpost::appliance {

// ---------------------------------------------------------------- data root

// The data root: $LARKPOST_ROOT, else "./var", made absolute. Read once per
// process; larkpostctl's --root sets the variable before anything asks.
const std::string& DataRoot();

// Well-known places below the data root. None of them is created here.
std::string EtcDir();                          // <root>/etc
std::string ConfigPath();                      // <root>/etc/larkpost.json
std::string UsersDbPath();                     // <root>/etc/users.db
std::string RunDir();                          // <root>/run (session store)
std::string LogDir();                          // <root>/log
std::string UploadDir();                       // <root>/tmp/upload (uploads in flight)
std::string UserDir(uint32_t uid);             // <root>/mail/<uid>
std::string HomeDir(const std::string& name);  // <root>/homes/<name>

// Creates `path` and its missing parents (mode 0700 for new folders).
// False when it cannot.
bool MakeDirs(const std::string& path);

// ------------------------------------------------------------ configuration

// The appliance configuration (<root>/etc/larkpost.json). Keys that the file
// does not name keep these defaults.
struct Config {
  std::map<std::string, std::string> mail_server{
      {"smtp_enabled", "no"}, {"smtp_hostname", ""}, {"fts_enabled", "yes"}};
  std::string relay_host = "127.0.0.1";  // outgoing relay of the local server
  int relay_port = 25;
  std::map<std::string, std::string> shares;             // share name -> directory
  int session_timeout = 1800;                            // seconds of inactivity
  std::string program_prefix;                            // where "/usr/zevo/..." programs live
  int login_failure_delay_ms = 1000;                     // answer delay after a failed login
  int64_t max_request_size = int64_t{64} * 1024 * 1024;  // request body limit, bytes
  // A flood degrades, it does not topple. Requests in service at once
  // (more get 503 at once): a 2-core appliance gains nothing from more, and
  // each one is a process with the plug-in in memory.
  int max_requests = 32;
  // Seconds a request's handler may run before it is ended (a client
  // reading slowly does not count: the web server holds the answer).
  int request_time_limit = 120;
  // Seconds a program run by VESLCExecv may take before it is killed; below
  // the request's own limit, so that the request can still answer.
  int program_time_limit = 60;
};

// The configuration, read once per process. Throws std::runtime_error when
// the file exists but is not a valid configuration; a missing file gives the
// defaults.
const Config& GetConfig();
// Parses a configuration text (tests, larkpostctl); throws std::runtime_error.
Config ParseConfig(const std::string& json_text);
// Writes `config` to ConfigPath() atomically (temporary file and rename).
void SaveConfig(const Config& config);

// ------------------------------------------------------------------- users

struct UserRecord {
  uint32_t uid = 0;
  std::string name;
  std::string domain = "localdomain";
  bool is_admin = false;
};

// Accounts in <root>/etc/users.db. Concurrent processes are safe (WAL, busy
// time-out). FindByUid and FindByName remember what they found for the rest
// of the process, and a live session's account is remembered when
// SessionStore::Lookup finds it; Add and Verify always use the database.
class UserStore {
 public:
  static std::optional<UserRecord> FindByUid(uint32_t uid);
  static std::optional<UserRecord> FindByName(const std::string& name);
  // Adds an account (password hashed with argon2id) and returns its uid; the
  // first account gets 1026, later ones the next free number. Throws
  // std::runtime_error when the name is taken or not a valid user name
  // (1 to 64 characters of letters, digits, ".", "_" and "-", not starting
  // with "." or "-").
  static uint32_t Add(const std::string& name, const std::string& password, bool is_admin,
                      const std::string& domain);
  // The account when `password` is its password; nullopt otherwise, in about
  // the same time for an unknown name as for a wrong password.
  static std::optional<UserRecord> Verify(const std::string& name, const std::string& password);
};

// ---------------------------------------------------------------- sessions

struct Session {
  std::string id;     // 256 random bits, 64 hex digits
  std::string token;  // 128 random bits, 32 hex digits: the CSRF token
  UserRecord user;
  int64_t created = 0;
  int64_t last_seen = 0;
};

// Login sessions in the session checker's store "current.users"
// (<root>/run/current.users/, a file per session). Only a hash of each
// session id is stored.
class SessionStore {
 public:
  // Starts a session for `user`. Throws std::runtime_error when the store
  // cannot be written.
  static Session Create(const UserRecord& user);
  // The live session with this id, or nullopt (unknown, expired after
  // `timeout` seconds of inactivity, or the store cannot be read). With
  // `refresh`, the inactivity timer starts again.
  static std::optional<Session> Lookup(const std::string& id, int timeout, bool refresh);
  // Ends the session; false when there was none.
  static bool Remove(const std::string& id);
};

// ------------------------------------------------------- the request's user

// The account whose request this process serves, as established by the host
// (or by the session checker, for a handler that authenticates a session
// itself). A process serves one request, so this is the process's user: the
// file services read with its rights and refuse everything when it is not
// known.
struct RequestUser {
  uint32_t uid = 0;
  bool is_admin = false;
};
void SetRequestUser(const RequestUser& user);
std::optional<RequestUser> GetRequestUser();

}  // namespace larkpost::appliance
