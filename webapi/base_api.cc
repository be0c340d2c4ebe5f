#include "webapi/base_api.h"

#include <syslog.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <utility>

#include "platform/mailcore/error.h"
#include "platform/mailcore/util.h"
#include "platform/mailcore/zevo_user.h"
#include "platform/zevo/session.h"

namespace ornic::larkpost::webapi {

namespace {

constexpr char kCmdlinePath[] = "/proc/self/cmdline";
constexpr char kSessionStore[] = "current.users";
constexpr size_t kUserNameSize = 493;
constexpr int kErrorNoUser = 105;

std::string UserLogIdent(const std::string& log_name, const control::Controller& controller) {
  return log_name + " (" + controller.zevo_user().name() + ") ";
}

// Runs in destructors, which must not throw: losing the log identity is the
// lesser evil.
void RestoreSystemLog(const std::string& process_name) noexcept {
  try {
    ReopenSystemLog(process_name);
  } catch (...) {
  }
}

}  // namespace

std::string ReadProgramName(const char* cmdline_path) {
  std::ifstream in(cmdline_path, std::ios::binary);
  if (!in) return "";
  std::string text;
  std::getline(in, text, ' ');
  // The arguments are separated by NULs: only the program path counts.
  text.resize(std::strlen(text.c_str()));
  size_t slash = text.rfind('/');
  if (slash != std::string::npos) text.erase(0, slash + 1);
  return text;
}

void ReopenSystemLog(const std::string& ident) {
  // Two slots, used in turn, so that the text the log holds is never the one
  // being overwritten. Allocated once and never freed: the log may use the
  // last identity up to the very end of the process.
  static auto* const slots = new std::array<std::string, 2>();
  static size_t current = 0;
  size_t next = current ^ 1;
  (*slots)[next] = ident;
  closelog();
  openlog((*slots)[next].c_str(), LOG_PID | LOG_CONS, 0);
  current = next;
}

BaseAPI::BaseAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response)
    : request_(request),
      response_(response),
      uid_(request->GetLoginUID()),
      session_id_(request->GetSessionID()),
      additional_(0),
      process_name_(ReadProgramName(kCmdlinePath)),
      log_name_(process_name_) {}

BaseAPI::~BaseAPI() = default;

void BaseAPI::ParseAdditional() {
  static const std::pair<const char*, int32_t> kWords[] = {
      {"unread_count", ADDITIONAL_UNREAD_COUNT},
      {"draft_total_count", ADDITIONAL_DRAFT_TOTAL_COUNT},
      {"blockquote", ADDITIONAL_BLOCKQUOTE},
      {"body_preview", ADDITIONAL_BODY_PREVIEW},
      {"block_external_image", ADDITIONAL_BLOCK_EXTERNAL_IMAGE},
  };
  ZEVO::APIParameter<Json::Value> additional =
      request_->GetAndCheckArray("additional", ZEVO::kOptional, nullptr);
  if (!additional.IsSet()) return;
  for (const std::string& word : util::JsonArrayToVector<std::string>(additional.Get())) {
    for (const auto& [text, bit] : kWords) {
      if (word == text) additional_ |= bit;
    }
  }
}

void BaseAPI::Output404NotFound() {
  static constexpr char kAnswer[] = "Status: 404 Not Found\r\n\r\n";
  std::fwrite(kAnswer, 1, sizeof(kAnswer) - 1, stdout);
  std::fflush(stdout);
}

NormalAPI::NormalAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response)
    : BaseAPI(request, response),
      controller_(uid_, session_id_),
      log_ident_(UserLogIdent(log_name_, controller_)) {
  ReopenSystemLog(log_ident_);
}

NormalAPI::~NormalAPI() { RestoreSystemLog(process_name_); }

std::string NormalAPI::PrepareUserLarkpostDir(const std::string& name) {
  return controller_.zevo_user().PrepareUserLarkpostDir(name);
}

CustomAuthAPI::CustomAuthAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response)
    : BaseAPI(request, response),
      controller_(GetAuthUID(), session_id_),
      log_ident_(UserLogIdent(log_name_, controller_)) {
  ReopenSystemLog(log_ident_);
}

CustomAuthAPI::~CustomAuthAPI() { RestoreSystemLog(process_name_); }

std::string CustomAuthAPI::PrepareUserLarkpostDir(const std::string& name) {
  return controller_.zevo_user().PrepareUserLarkpostDir(name);
}

uint32_t CustomAuthAPI::GetAuthUID() {
  if (uid_ != ZEVO::kUnknownUID) return uid_;

  char user[kUserNameSize];
  std::memset(user, 0, sizeof(user));
  uint32_t flags[2] = {15, 0};
  ZEVO_CGI_CTX* context = ZevoCgiInitEx(VESLCConfGetVexTimeout(), 1, kSessionStore, "");
  int result = context != nullptr ? ZevoCgiIsAuthorizedEx(context, session_id_.c_str(), user,
                                                          sizeof(user), flags, 0)
                                  : -1;
  ZevoCgiFree(context);
  user[sizeof(user) - 1] = '\0';

  if (result >= 0 && user[0] != '\0') uid_ = sdk::ZevoUser(std::string(user)).uid();
  if (uid_ == ZEVO::kUnknownUID) throw ornic::Error(kErrorNoUser);
  return uid_;
}

}  // namespace ornic::larkpost::webapi
