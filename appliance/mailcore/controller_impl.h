// The core's private view of a Controller: the user and the connection to
// the user's store, and the helpers every control object uses to change it.
// Control objects include this header; nothing outside appliance/mailcore
// may.
//
// A change of the core is one Transaction on impl.db(): construct it first,
// Commit() last; an exception in between rolls everything back. Wrap the
// body of every public operation in store::Guard so that SQLite's own
// errors leave the core as ornic::Error(kErrorDatabase), logged with what
// was being done.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <string>

#include "appliance/system/sqlite.h"
#include "platform/mailcore/controller.h"
#include "platform/mailcore/error.h"
#include "platform/mailcore/zevo_user.h"

namespace ornic::larkpost::store {

using ::larkpost::appliance::sqlite::Database;
using ::larkpost::appliance::sqlite::Statement;
using ::larkpost::appliance::sqlite::Transaction;

// <root>/mail/<uid>/larkpost.db
std::string StorePath(uint32_t uid);

// Opens a new connection to the user's store with the core's settings
// (write-ahead log kept between connections, 5 s busy time-out, foreign
// keys). Without `create`, a missing store is an error; with it, a missing
// store (and its folder) is made. Throws ::larkpost::appliance::sqlite::Error,
// or std::runtime_error when the folder cannot be made.
std::unique_ptr<Database> Open(uint32_t uid, bool create);

// The process's connection to the user's store: opened by the first caller
// (with Open) and shared by every later one until CloseConnections(), so
// that Controller::Impl and DBSetupHandler of one request open the store
// once. Core operations run one after another on it, never nested: a
// transaction cannot begin inside another. A failed open is not kept.
// Throws as Open does.
std::shared_ptr<Database> Connection(uint32_t uid, bool create);

// Drops the shared connections; each closes when its last user lets go of
// it. For tests and for code about to move or remove a store.
void CloseConnections();

// Drops the shared connection to the store of `uid`; it closes when its last
// user lets go of it, and the next Connection() opens a new one.
void CloseConnection(uint32_t uid);

// Writes "<unit>:<line> <text>" to the system log at error level.
void LogError(const char* unit, int line, const std::string& text);

// Runs `body`; an ornic::Error passes unchanged, any other exception is
// logged with `what` and becomes ornic::Error(kErrorDatabase).
template <typename Body>
auto Guard(const std::string& what, Body&& body) -> decltype(body()) {
  try {
    return body();
  } catch (const ornic::Error&) {
    throw;
  } catch (const std::exception& e) {
    LogError("store", __LINE__, what + " failed: " + e.what());
    throw ornic::Error(kErrorDatabase);
  }
}

}  // namespace ornic::larkpost::store

namespace ornic::larkpost::control {

struct Controller::Impl {
  Impl(sdk::ZevoUser user, std::string session_id)
      : user(std::move(user)), session_id(std::move(session_id)) {}

  // The user's store (store::Connection), taken on first use. Throws
  // ornic::Error(kErrorDatabase) when it does not exist or cannot be opened.
  store::Database& db();
  // Lets go of the connection (and of the process's shared one), so that
  // the store is closed unless someone else still holds it.
  void CloseDb();

  sdk::ZevoUser user;
  std::string session_id;

 private:
  std::shared_ptr<store::Database> db_;
};

}  // namespace ornic::larkpost::control
