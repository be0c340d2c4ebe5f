#include <syslog.h>

#include <memory>
#include <string>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/system/appliance.h"

namespace ornic::larkpost {
namespace store {

std::string StorePath(uint32_t uid) { return ::larkpost::appliance::UserDir(uid) + "/larkpost.db"; }

std::unique_ptr<Database> Open(uint32_t uid, bool create) {
  ::larkpost::appliance::sqlite::OpenOptions options;
  options.create = create;
  options.wal = true;
  options.foreign_keys = true;
  options.busy_timeout_ms = 5000;
  return std::make_unique<Database>(StorePath(uid), options);
}

void LogError(const char* unit, int line, const std::string& text) {
  syslog(LOG_ERR, "%s:%d %s", unit, line, text.c_str());
}

}  // namespace store

namespace control {

store::Database& Controller::Impl::db() {
  if (!db_) {
    db_ = store::Guard("opening the store of user " + std::to_string(user.uid()),
                       [&] { return store::Open(user.uid(), false); });
  }
  return *db_;
}

}  // namespace control
}  // namespace ornic::larkpost
