// auth.cgi's work: logs a user in (a session id, its token and the session cookie)
// and out. Fields come from the POST body only, so that a password never
// lands in a URL, a server log or a browser history.
#include <syslog.h>

#include <chrono>
#include <iostream>
#include <optional>
#include <string>
#include <thread>

#include "appliance/framework/cgi.h"
#include "appliance/framework/host.h"
#include "appliance/framework/login_throttle.h"
#include "appliance/system/appliance.h"
#include "platform/zevo/webapi.h"

namespace {

namespace appliance = larkpost::appliance;
namespace cgi = larkpost::cgi;
using cgi::RequestError;

constexpr char kClearCookie[] = "Set-Cookie: id=; Max-Age=0; HttpOnly; SameSite=Strict; Path=/";

const std::string* Field(const cgi::FieldMap& fields, const std::string& name) {
  const auto found = fields.find(name);
  return found == fields.end() ? nullptr : &found->second;
}

std::string Login(const cgi::Environment& env, const cgi::FieldMap& fields) {
  const std::string* account = Field(fields, "account");
  const std::string* password = Field(fields, "passwd");
  if (account == nullptr || password == nullptr || account->empty() || password->empty()) {
    throw RequestError(cgi::kErrorBadRequest, "account and passwd are required");
  }
  // Counted before the password is: see login_throttle.h.
  if (!appliance::MakeDirs(appliance::EtcDir())) {
    throw std::runtime_error("cannot create " + appliance::EtcDir());
  }
  cgi::LoginThrottle throttle(appliance::EtcDir() + "/login_attempts.db");
  const std::string client = cgi::ClientKey(cgi::Get(env, "REMOTE_ADDR"));
  if (const int64_t wait = throttle.Reserve(*account, client)) {
    return cgi::BuildAnswer(cgi::ErrorEnvelope(cgi::kErrorLoginThrottled),
                            {"Retry-After: " + std::to_string(wait)});
  }
  const std::optional<appliance::UserRecord> user =
      appliance::UserStore::Verify(*account, *password);
  if (!user) {
    // One answer, after one delay, for an unknown account and a wrong
    // password: neither the text nor the time tells which it was.
    std::this_thread::sleep_for(
        std::chrono::milliseconds(appliance::GetConfig().login_failure_delay_ms));
    throw RequestError(cgi::kErrorLoginFailed, "login failed");
  }
  throttle.Succeeded(*account, client);
  const appliance::Session session = appliance::SessionStore::Create(*user);
  Json::Value data(Json::objectValue);
  data["sid"] = session.id;
  data["token"] = session.token;
  data["is_admin"] = user->is_admin;
  ZEVO::APIResponse response;
  response.SetSuccess(data);
  return cgi::BuildAnswer(response.ToEnvelope(),
                          {"Set-Cookie: id=" + session.id + "; HttpOnly; SameSite=Strict; Path=/"});
}

std::string Logout(const cgi::Environment& env, const cgi::FieldMap& fields) {
  const cgi::Credentials credentials = cgi::ReadCredentials(env, fields);
  if (credentials.session_id.empty()) throw RequestError(cgi::kErrorNoSession, "no session");
  const std::optional<appliance::Session> session = appliance::SessionStore::Lookup(
      credentials.session_id, appliance::GetConfig().session_timeout, false);
  if (!session) throw RequestError(cgi::kErrorNoSession, "no such session");
  // Without the token, any page could log the user out through the cookie.
  if (credentials.source == cgi::SessionSource::kCookie &&
      !cgi::ConstantTimeEquals(credentials.token, session->token)) {
    throw RequestError(cgi::kErrorNoSession, "missing or wrong token");
  }
  if (!appliance::SessionStore::Remove(credentials.session_id)) {
    throw RequestError(cgi::kErrorNoSession, "no such session");
  }
  ZEVO::APIResponse response;
  return cgi::BuildAnswer(response.ToEnvelope(), {kClearCookie});
}

std::string Serve() {
  const cgi::Environment env = cgi::ProcessEnvironment();
  cgi::FormOptions options;
  options.max_body = appliance::GetConfig().max_request_size;
  options.with_query = false;
  const cgi::Form form = cgi::ReadForm(env, std::cin, options);
  const std::string* method = Field(form.fields, "method");
  if (method == nullptr || *method == "login") return Login(env, form.fields);
  if (*method == "logout") return Logout(env, form.fields);
  throw RequestError(cgi::kErrorNoSuchMethod, "unknown method");
}

}  // namespace

namespace larkpost::cgi {

int RunAuthProgram() {
  std::string answer;
  try {
    answer = Serve();
  } catch (const RequestError& e) {
    if (e.code() == cgi::kErrorUnknown) {
      openlog("auth.cgi", LOG_PID, LOG_USER);
      syslog(LOG_ERR, "%s", e.what());
    }
    answer = cgi::BuildAnswer(cgi::ErrorEnvelope(e.code()));
  } catch (const std::exception& e) {
    openlog("auth.cgi", LOG_PID, LOG_USER);
    syslog(LOG_ERR, "%s", e.what());
    answer = cgi::BuildAnswer(cgi::ErrorEnvelope(cgi::kErrorUnknown));
  }
  cgi::WriteAnswer(answer);
  return 0;
}

}  // namespace larkpost::cgi
