// entry.cgi's work: serves one web-API request per process. It decodes the request,
// finds the API in the plug-in's declaration, establishes the user as the
// API's authentication level demands, and calls the plug-in's entry function
// (after its checker, when the check table names one).
//
// Start-up is most of what this program costs, so it reads each file once,
// loads the plug-in only for a request that passed the declaration, and does
// nothing per request that it could skip.
#include <dlfcn.h>
#include <link.h>
#include <syslog.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "appliance/framework/answer_relay.h"
#include "appliance/framework/cgi.h"
#include "appliance/framework/host.h"
#include "appliance/framework/output_hook.h"
#include "appliance/system/appliance.h"
#include "platform/zevo/webapi.h"

namespace {

using larkpost::cgi::EntryRequest;
using larkpost::cgi::RequestError;
using larkpost::cgi::SessionSource;
namespace appliance = larkpost::appliance;
namespace cgi = larkpost::cgi;

void LogError(const std::string& message) {
  openlog("entry.cgi", LOG_PID, LOG_USER);
  syslog(LOG_ERR, "%s", message.c_str());
}

// "$LARKPOST_PLUGIN", else the plug-in installed beside this program:
// <bin>/../lib/liblarkpost_webapi.so.
std::string PluginPath(const cgi::Environment& env) {
  const std::string& configured = cgi::Get(env, "LARKPOST_PLUGIN");
  if (!configured.empty()) return configured;
  char exe[PATH_MAX];
  const ssize_t size = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
  if (size <= 0) throw std::runtime_error("cannot find this program's own path");
  const std::string self(exe, static_cast<size_t>(size));
  return self.substr(0, self.rfind('/')) + "/../lib/liblarkpost_webapi.so";
}

// The declaration file larkpost.api.json beside the plug-in, parsed. A
// process reads it once (the preloaded host before it forks, so that its
// children find it parsed, as they find the plug-in loaded). Throws for a
// missing or broken file.
const Json::Value& Declarations(const std::string& plugin_path) {
  static std::string cached_path;
  static Json::Value cached;
  const std::string path = plugin_path.substr(0, plugin_path.rfind('/') + 1) + "larkpost.api.json";
  if (path == cached_path) return cached;
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read the API declaration " + path);
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  Json::Value root;
  if (!ZEVO::WebAPIUtil::FromString(text, root) || !root.isObject()) {
    throw std::runtime_error("the API declaration " + path + " is not a JSON object");
  }
  cached = std::move(root);
  cached_path = path;
  return cached;
}

// The declaration of one API, {"auth": "user"|"admin"|"custom", "methods":
// {"1": ["getinfo", ...]}}. nullopt when the API is not declared; throws for
// a broken file.
std::optional<Json::Value> FindDeclaration(const std::string& plugin_path, const std::string& api) {
  const Json::Value& root = Declarations(plugin_path);
  const Json::Value* declaration = root.find(api.data(), api.data() + api.size());
  if (declaration == nullptr) return std::nullopt;
  if (!declaration->isObject() || !(*declaration)["auth"].isString() ||
      !(*declaration)["methods"].isObject()) {
    throw std::runtime_error("the API declaration of " + api + " is malformed");
  }
  return *declaration;
}

// A positive decimal integer, or nullopt.
std::optional<int> ParseVersion(const std::string& text) {
  if (text.empty() || text.size() > 9) return std::nullopt;
  int version = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    version = version * 10 + (c - '0');
  }
  return version > 0 ? std::optional<int>(version) : std::nullopt;
}

struct Plugin {
  const ZEVO::APITableEntry* table = nullptr;
  size_t rows = 0;
  const ZEVO::APICheckEntry* checks = nullptr;
};

// Loads the plug-in for the rest of the process's life.
Plugin LoadPlugin(const std::string& path) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr)
    throw std::runtime_error(std::string("cannot load the plug-in: ") + dlerror());
  Plugin plugin;
  void* table = dlsym(handle, "gTable");
  if (table == nullptr) throw std::runtime_error("the plug-in exports no gTable");
  // The method table has no end marker: its size is the symbol's own.
  Dl_info info;
  void* entry = nullptr;
  if (dladdr1(table, &info, &entry, RTLD_DL_SYMENT) == 0 || entry == nullptr) {
    throw std::runtime_error("cannot find the size of the plug-in's gTable");
  }
  plugin.table = static_cast<const ZEVO::APITableEntry*>(table);
  plugin.rows = static_cast<const ElfW(Sym)*>(entry)->st_size / sizeof(ZEVO::APITableEntry);
  plugin.checks = static_cast<const ZEVO::APICheckEntry*>(dlsym(handle, "gCheckTable"));
  return plugin;
}

bool Matches(const char* api, int32_t version, const char* method, const ZEVO::APIRequest& r) {
  return api != nullptr && method != nullptr && version == r.GetAPIVersion() &&
         r.GetAPIName() == api && r.GetAPIMethod() == method;
}

ZEVO::APIHandler FindHandler(const Plugin& plugin, const ZEVO::APIRequest& request) {
  for (size_t i = 0; i < plugin.rows; ++i) {
    const ZEVO::APITableEntry& row = plugin.table[i];
    if (Matches(row.api, row.version, row.method, request)) return row.handler;
  }
  return nullptr;
}

ZEVO::APIChecker FindChecker(const Plugin& plugin, const ZEVO::APIRequest& request) {
  if (plugin.checks == nullptr) return nullptr;
  for (const ZEVO::APICheckEntry* row = plugin.checks;
       row->api != nullptr || row->method != nullptr || row->checker != nullptr; ++row) {
    if (Matches(row->api, row->version, row->method, request)) return row->checker;
  }
  return nullptr;
}

// Establishes the user for `auth`; answers a host error code when the
// request may not go on.
int Authenticate(const std::string& auth, const cgi::Credentials& credentials,
                 ZEVO::APIRequest& request) {
  std::optional<appliance::Session> session;
  if (!credentials.session_id.empty()) {
    session = appliance::SessionStore::Lookup(credentials.session_id,
                                              appliance::GetConfig().session_timeout, true);
  }
  // A cookie comes along with every request a browser makes, also with one
  // that another site forged; the token proves the page sent it.
  const bool token_ok = session && cgi::ConstantTimeEquals(credentials.token, session->token);
  if (auth == "custom") {
    // Attachment transfers, opened as links: a link in a mail, or one with
    // another user's _sid, must not act as a session. Only a session with
    // its token is one; anything else reaches the plug-in without a user or
    // a session id, and its own check refuses it.
    if (token_ok) {
      request.SetSessionID(credentials.session_id);
      request.SetLoginUser(session->user.uid, session->user.name, session->user.is_admin);
      appliance::SetRequestUser({session->user.uid, session->user.is_admin});
    } else {
      request.SetSessionID("");
      request.SetLoginUser(ZEVO::kUnknownUID, "", false);
    }
    return 0;
  }
  request.SetSessionID(credentials.session_id);
  if (auth != "user" && auth != "admin") {
    throw std::runtime_error("unknown authentication level \"" + auth + "\" in the declaration");
  }
  if (!session) return cgi::kErrorNoSession;
  // Scripts name their session by _sid and need no token.
  if (credentials.source == SessionSource::kCookie && !token_ok) return cgi::kErrorNoSession;
  if (auth == "admin" && !session->user.is_admin) return cgi::kErrorNotAdmin;
  request.SetLoginUser(session->user.uid, session->user.name, session->user.is_admin);
  appliance::SetRequestUser({session->user.uid, session->user.is_admin});
  return 0;
}

void AnswerError(int code) { cgi::WriteAnswer(cgi::BuildAnswer(cgi::ErrorEnvelope(code))); }

// The answer a handler writes itself once it switched the JSON output off.
cgi::StdoutRelay* g_relay = nullptr;

void StartRelay() {
  if (g_relay != nullptr && !g_relay->active() && !g_relay->Start()) {
    LogError("cannot relay the handler's own answer; it goes out as written");
  }
}

// Runs the checker and the entry function. A handler that switched the
// output off writes its own answer, which reaches the client through the
// relay; the host answers with the envelope when nothing came that way.
void RunPlugin(ZEVO::APIChecker checker, ZEVO::APIHandler handler, ZEVO::APIRequest& request) {
  ZEVO::APIResponse response;
  cgi::StdoutRelay relay;
  g_relay = &relay;
  cgi::SetOutputOffHook(StartRelay);
  try {
    if (checker == nullptr || checker(&request, &response)) handler(&request, &response);
  } catch (const std::exception& e) {
    LogError(request.GetAPIName() + " " + request.GetAPIMethod() + ": " + e.what());
    response.SetError(cgi::kErrorUnknown);
  } catch (...) {
    LogError(request.GetAPIName() + " " + request.GetAPIMethod() + ": unknown exception");
    response.SetError(cgi::kErrorUnknown);
  }
  cgi::SetOutputOffHook(nullptr);
  g_relay = nullptr;
  const bool relayed = relay.active();
  // A handler that switched the output off and wrote nothing (it threw, as
  // a rule) still gets an answer; one whose relay could not start wrote its
  // own, unchecked.
  if (relay.Finish() == 0 && (relayed || response.IsOutputEnabled())) {
    cgi::WriteAnswer(cgi::BuildAnswer(response.ToEnvelope()));
  } else {
    std::cout.flush();
    std::fflush(stdout);
  }
}

int Serve() {
  const cgi::Environment env = cgi::ProcessEnvironment();
  cgi::FormOptions options;
  options.max_body = appliance::GetConfig().max_request_size;
  options.upload_dir = appliance::UploadDir();
  // Owns the stored upload, if any, until the request is over.
  EntryRequest decoded = cgi::DecodeEntryRequest(env, std::cin, options);
  const auto missing = [](const std::optional<std::string>& field) {
    return !field || field->empty();
  };
  if (missing(decoded.api) || missing(decoded.version) || missing(decoded.method)) {
    throw RequestError(cgi::kErrorBadRequest, "api, version and method are required");
  }
  const std::optional<int> version = ParseVersion(*decoded.version);
  if (!version) throw RequestError(cgi::kErrorBadVersion, "bad version");

  const std::string plugin_path = PluginPath(env);
  const std::optional<Json::Value> declaration = FindDeclaration(plugin_path, *decoded.api);
  if (!declaration) throw RequestError(cgi::kErrorNoSuchAPI, "unknown API");
  const Json::Value& methods = (*declaration)["methods"][std::to_string(*version)];
  if (methods.isNull()) throw RequestError(cgi::kErrorBadVersion, "unsupported version");
  bool declared = false;
  for (const Json::Value& method : methods) {
    declared = declared || (method.isString() && method.asString() == *decoded.method);
  }
  if (!declared) throw RequestError(cgi::kErrorNoSuchMethod, "unknown method");

  ZEVO::APIRequest request(decoded.params);
  request.SetAPI(*decoded.api, *version, *decoded.method);
  const Plugin plugin = LoadPlugin(plugin_path);
  const ZEVO::APIHandler handler = FindHandler(plugin, request);
  if (handler == nullptr) throw RequestError(cgi::kErrorNoSuchMethod, "method not served");

  if (const int refused =
          Authenticate((*declaration)["auth"].asString(), decoded.credentials, request)) {
    throw RequestError(refused, "not authenticated");
  }
  // Text that is not UTF-8, or holds a NUL, would end up in a store whose
  // answers must stay valid JSON and in C strings that it would cut short.
  if (const std::optional<std::string> name = cgi::FindUncleanParameter(decoded.params)) {
    ZEVO::APIResponse refusal;
    Json::Value data(Json::objectValue);
    data["name"] = *name;
    data["reason"] = "type";
    refusal.SetError(cgi::kErrorBadText, data);
    cgi::WriteAnswer(cgi::BuildAnswer(refusal.ToEnvelope()));
    return 0;
  }
  request.SetUILanguage(decoded.language);
  request.SetUploadRequest(decoded.upload);
  RunPlugin(FindChecker(plugin, request), handler, request);
  return 0;
}

}  // namespace

namespace larkpost::cgi {

void PreloadPlugin() {
  try {
    const std::string path = PluginPath(ProcessEnvironment());
    LoadPlugin(path);
    Declarations(path);
  } catch (const std::exception& e) {
    // Each request will meet the same failure and answer it.
    LogError(e.what());
  }
}

int RunEntryProgram() {
  try {
    return Serve();
  } catch (const RequestError& e) {
    if (e.code() == cgi::kErrorUnknown) LogError(e.what());
    AnswerError(e.code());
  } catch (const std::exception& e) {
    LogError(e.what());
    AnswerError(cgi::kErrorUnknown);
  }
  return 0;
}

}  // namespace larkpost::cgi
