#include <syslog.h>

#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/system/appliance.h"

namespace ornic::larkpost {
namespace store {
namespace {

namespace sqlite = ::larkpost::appliance::sqlite;

std::mutex g_connections_mutex;
// Store path -> connection. The path names the data root too, so a test
// that moves to a new root gets new connections.
std::map<std::string, std::shared_ptr<Database>> g_connections;

sqlite::OpenOptions StoreOptions(bool create) {
  sqlite::OpenOptions options;
  options.create = create;
  options.wal = true;
  options.keep_wal_files = true;
  options.foreign_keys = true;
  options.busy_timeout_ms = 5000;
  return options;
}

}  // namespace

std::string StorePath(uint32_t uid) { return ::larkpost::appliance::UserDir(uid) + "/larkpost.db"; }

std::unique_ptr<Database> Open(uint32_t uid, bool create) {
  try {
    return std::make_unique<Database>(StorePath(uid), StoreOptions(create));
  } catch (const sqlite::Error& e) {
    // The folder is made when the store cannot be created without it, not
    // before every open.
    if (!create || !e.Is(SQLITE_CANTOPEN)) throw;
  }
  std::string dir = ::larkpost::appliance::UserDir(uid);
  if (!::larkpost::appliance::MakeDirs(dir)) throw std::runtime_error("cannot create " + dir);
  return std::make_unique<Database>(StorePath(uid), StoreOptions(create));
}

std::shared_ptr<Database> Connection(uint32_t uid, bool create) {
  std::lock_guard<std::mutex> lock(g_connections_mutex);
  std::shared_ptr<Database>& connection = g_connections[StorePath(uid)];
  if (!connection) {
    try {
      connection = Open(uid, create);
    } catch (...) {
      g_connections.erase(StorePath(uid));
      throw;
    }
  }
  return connection;
}

void CloseConnections() {
  std::lock_guard<std::mutex> lock(g_connections_mutex);
  g_connections.clear();
}

void CloseConnection(uint32_t uid) {
  std::lock_guard<std::mutex> lock(g_connections_mutex);
  g_connections.erase(StorePath(uid));
}

void LogError(const char* unit, int line, const std::string& text) {
  syslog(LOG_ERR, "%s:%d %s", unit, line, text.c_str());
}

}  // namespace store

namespace control {

store::Database& Controller::Impl::db() {
  if (!db_) {
    db_ = store::Guard("opening the store of user " + std::to_string(user.uid()),
                       [&] { return store::Connection(user.uid(), false); });
  }
  return *db_;
}

void Controller::Impl::CloseDb() {
  db_.reset();
  store::CloseConnection(user.uid());
}

}  // namespace control
}  // namespace ornic::larkpost
