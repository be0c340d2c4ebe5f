#include "tests/fake/fake_core.h"

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "platform/mailcore/controller.h"
#include "platform/mailcore/db_setup.h"
#include "platform/mailcore/error.h"
#include "platform/mailcore/mail_server.h"
#include "platform/mailcore/sync.h"
#include "platform/mailcore/zevo_user.h"
#include "platform/zevo/notify.h"
#include "platform/zevo/session.h"
#include "platform/zevo/webapi.h"
#include "tests/fake/fake_platform.h"

namespace larkpost::fake {

Core& core() {
  static Core instance;
  return instance;
}

void Reset() {
  core() = Core();
  ResetPlatform();
}

bool Call(const std::string& op, const std::string& args) {
  const std::string call = args.empty() ? op : op + " " + args;
  core().calls.push_back(call);
  auto failure = core().failures.find(call);
  if (failure == core().failures.end()) failure = core().failures.find(op);
  if (failure == core().failures.end()) return true;
  if (failure->second > 0) throw ornic::Error(failure->second);
  return false;
}

std::vector<std::string> CallsStartingWith(const std::string& prefix) {
  std::vector<std::string> found;
  for (const std::string& call : core().calls) {
    if (call.compare(0, prefix.size(), prefix) == 0) found.push_back(call);
  }
  return found;
}

}  // namespace larkpost::fake

using larkpost::fake::Call;
using larkpost::fake::core;

// ------------------------------------------------------------------ sdk::ZevoUser

namespace ornic::sdk {

ZevoUser::ZevoUser(uint32_t uid) : uid_(ZEVO::kUnknownUID) {
  auto user = core().users.find(uid);
  if (user == core().users.end()) return;
  uid_ = uid;
  name_ = user->second;
  auto domain = core().domains.find(uid);
  domain_ = domain == core().domains.end() ? "localdomain" : domain->second;
  valid_ = true;
}

ZevoUser::ZevoUser(const std::string& name) : uid_(ZEVO::kUnknownUID) {
  Call("ZevoUser", name);
  for (const auto& [uid, user_name] : core().users) {
    if (user_name == name) *this = ZevoUser(uid);
  }
}

bool ZevoUser::IsValid() const { return valid_; }
uint32_t ZevoUser::uid() const { return uid_; }
const std::string& ZevoUser::name() const { return name_; }
const std::string& ZevoUser::domain() const { return domain_; }

std::string ZevoUser::PrepareUserLarkpostDir(const std::string& name) const {
  Call("ZevoUser::PrepareUserLarkpostDir", name);
  const std::string path = core().app_root + "/" + std::to_string(uid_) + "/" + name;
  std::filesystem::create_directories(path);
  return path;
}

}  // namespace ornic::sdk

// ---------------------------------------------------------------- control::Controller

namespace ornic::larkpost::control {

struct Controller::Impl {
  sdk::ZevoUser user;
};

namespace {

// `args` as recorded: the uid, and the session id when one is given.
std::unique_ptr<Controller::Impl> OpenSession(uint32_t uid, const std::string& args) {
  Call("Controller", args);
  sdk::ZevoUser user(uid);
  if (!user.IsValid()) throw ornic::Error(kErrorNoSuchUser);
  return std::unique_ptr<Controller::Impl>(new Controller::Impl{user});
}

}  // namespace

Controller::Controller(uint32_t uid, std::string session_id)
    : impl_(OpenSession(uid, std::to_string(uid) + " " + session_id)) {}
Controller::Controller(uint32_t uid) : impl_(OpenSession(uid, std::to_string(uid))) {}
Controller::~Controller() = default;
uint32_t Controller::uid() const { return impl_->user.uid(); }
const sdk::ZevoUser& Controller::zevo_user() const { return impl_->user; }

// ------------------------------------------------------------- syncers and upkeep

Syncer::Syncer(Controller& controller) : controller_(controller) {}

void Syncer::TriggerSync(constant::SyncType type) {
  Call("Syncer::TriggerSync", std::to_string(static_cast<int>(type)));
}

void MailboxSyncer::CheckDefaultMailbox(Controller& controller) {
  Call("MailboxSyncer::CheckDefaultMailbox", std::to_string(controller.uid()));
}

UpdateControl::UpdateControl(Controller& controller) : controller_(controller) {}

bool UpdateControl::UpdateAllMailbox(bool notify) {
  return Call("UpdateControl::UpdateAllMailbox",
              std::to_string(controller_.uid()) + (notify ? " true" : " false"));
}

}  // namespace ornic::larkpost::control

// ------------------------------------------------------------------------ db setup

namespace ornic::larkpost::db {

DBSetupHandler::DBSetupHandler(uint32_t uid) : uid_(uid) {}

bool DBSetupHandler::DoesDBExist() const {
  Call("DBSetupHandler::DoesDBExist", std::to_string(uid_));
  return core().databases.count(uid_) > 0;
}

bool DBSetupHandler::SetupDB() const {
  if (!Call("DBSetupHandler::SetupDB", std::to_string(uid_))) return false;
  core().databases.insert(uid_);
  return true;
}

}  // namespace ornic::larkpost::db

// ------------------------------------------------------------------- mail server

namespace ornic::larkpost {

std::string GetMailServerKey(const std::string& key) {
  Call("GetMailServerKey", key);
  auto value = core().mail_server.find(key);
  return value == core().mail_server.end() ? "" : value->second;
}

}  // namespace ornic::larkpost

// ------------------------------------------------------------- platform services

struct ZevoCgiContext {
  int timeout;
};

extern "C" {

int ZEVOLarkpostNotifyMailboxUpdate(uint32_t uid) {
  return Call("ZEVOLarkpostNotifyMailboxUpdate", std::to_string(uid)) ? 0 : -1;
}

int ZEVOLarkpostNotifyMailboxDelayUpdate(uint32_t uid, int delay) {
  return Call("ZEVOLarkpostNotifyMailboxDelayUpdate",
              std::to_string(uid) + " " + std::to_string(delay))
             ? 0
             : -1;
}

ZEVO_CGI_CTX* ZevoCgiInitEx(int timeout, int mode, const char* session_file, const char* extra) {
  if (!Call("ZevoCgiInitEx", std::to_string(timeout) + " " + std::to_string(mode) + " " +
                                 session_file + " '" + extra + "'")) {
    return nullptr;
  }
  return new ZevoCgiContext{timeout};
}

int ZevoCgiIsAuthorizedEx(ZEVO_CGI_CTX* /*ctx*/, const char* session_id, char* user,
                          size_t user_size, uint32_t* flags, int reserved) {
  bool ok =
      Call("ZevoCgiIsAuthorizedEx", std::string(session_id) + " " + std::to_string(user_size) +
                                        " " + std::to_string(flags[0]) + "," +
                                        std::to_string(flags[1]) + " " + std::to_string(reserved));
  auto session = core().sessions.find(session_id);
  if (!ok || session == core().sessions.end()) return -1;
  std::strncpy(user, session->second.c_str(), user_size - 1);
  user[user_size - 1] = '\0';
  return 0;
}

void ZevoCgiFree(ZEVO_CGI_CTX* ctx) {
  Call("ZevoCgiFree");
  delete ctx;
}

int VESLCConfGetVexTimeout(void) { return core().vex_timeout; }

}  // extern "C"
