// The session checker's C interface over the session store.
#include <sys/stat.h>

#include <climits>
#include <cstring>
#include <exception>
#include <memory>
#include <string>

#include "appliance/system/appliance.h"
#include "appliance/system/session_store.h"
#include "platform/zevo/session.h"

struct ZevoCgiContext {
  int timeout = 0;
  bool refresh = false;
  std::string store;  // the store's folder
};

namespace {

// Our logins are all of one kind: a web login (bit 0).
constexpr uint32_t kWebLogin = 1;

}  // namespace

extern "C" {

ZEVO_CGI_CTX* ZevoCgiInitEx(int timeout, int mode, const char* session_file, const char* extra) {
  (void)extra;
  namespace sessions = larkpost::appliance::sessions;
  if (timeout <= 0 || (mode != 0 && mode != 1) || session_file == nullptr) return nullptr;
  try {
    std::string path = sessions::StorePath(session_file);
    struct stat info;
    // Nobody has logged in yet, or this is not a store: there is nothing to
    // open, and a checker must not create the store.
    if (path.empty() || stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return nullptr;
    auto context = std::make_unique<ZevoCgiContext>();
    context->timeout = timeout;
    context->refresh = mode == 1;
    context->store = std::move(path);
    return context.release();
  } catch (const std::exception&) {
    return nullptr;
  }
}

int ZevoCgiIsAuthorizedEx(ZEVO_CGI_CTX* ctx, const char* session_id, char* user, size_t user_size,
                          uint32_t* flags, int reserved) {
  namespace sessions = larkpost::appliance::sessions;
  (void)reserved;
  if (user != nullptr && user_size > 0) user[0] = '\0';
  if (ctx == nullptr || user == nullptr) return -2;
  if (session_id == nullptr) return -1;
  if (flags != nullptr && (flags[0] & kWebLogin) == 0) return -1;
  larkpost::appliance::Session session;
  try {
    if (sessions::Lookup(ctx->store, session_id, ctx->timeout, ctx->refresh, &session) !=
        sessions::Found::kLive) {
      return -1;
    }
  } catch (const std::exception&) {
    return -2;
  }
  // A cut name would name another user ("alice2" -> "alice"): refuse rather
  // than truncate.
  if (session.user.name.size() >= user_size || session.user.uid > INT_MAX) return -2;
  std::memcpy(user, session.user.name.c_str(), session.user.name.size() + 1);
  if (flags != nullptr) flags[1] = kWebLogin;
  larkpost::appliance::SetRequestUser({session.user.uid, session.user.is_admin});
  return static_cast<int>(session.user.uid);
}

void ZevoCgiFree(ZEVO_CGI_CTX* ctx) { delete ctx; }

int VESLCConfGetVexTimeout(void) {
  try {
    return larkpost::appliance::GetConfig().session_timeout;
  } catch (const std::exception&) {
    return larkpost::appliance::Config().session_timeout;
  }
}

}  // extern "C"
