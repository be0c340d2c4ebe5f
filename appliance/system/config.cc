#include <errno.h>
#include <fcntl.h>
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>
#include <stdio.h>
#include <unistd.h>

#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include "appliance/system/appliance.h"
#include "appliance/system/testing.h"

namespace larkpost::appliance {
namespace {

[[noreturn]] void Bad(const std::string& key, const std::string& what) {
  throw std::runtime_error("configuration: \"" + key + "\" " + what);
}

std::string String(const Json::Value& value, const std::string& key) {
  if (!value.isString()) Bad(key, "must be a string");
  return value.asString();
}

// Integers only: 5.0 or "5" is a mistake in a hand-written file, not a
// number to round.
int64_t Integer(const Json::Value& value, const std::string& key, int64_t low, int64_t high) {
  if (!value.isInt64() || value.type() == Json::realValue) Bad(key, "must be an integer");
  int64_t number = value.asInt64();
  if (number < low || number > high) {
    Bad(key, "must be between " + std::to_string(low) + " and " + std::to_string(high));
  }
  return number;
}

const Json::Value& Object(const Json::Value& value, const std::string& key) {
  if (!value.isObject()) Bad(key, "must be an object");
  return value;
}

enum class ReadResult { kRead, kMissing, kFailed };

// Reads a whole file of at most kMaxConfigSize bytes.
constexpr size_t kMaxConfigSize = 1 << 20;

ReadResult ReadSmallFile(const std::string& path, std::string* text) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno == ENOENT ? ReadResult::kMissing : ReadResult::kFailed;
  char buffer[16384];
  bool ok = true;
  text->clear();
  for (;;) {
    ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      ok = got == 0;
      break;
    }
    text->append(buffer, static_cast<size_t>(got));
    if (text->size() > kMaxConfigSize) {
      ok = false;
      break;
    }
  }
  close(fd);
  return ok ? ReadResult::kRead : ReadResult::kFailed;
}

std::mutex g_config_mutex;
std::unique_ptr<Config> g_config;

}  // namespace

Config ParseConfig(const std::string& json_text) {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  builder["rejectDupKeys"] = true;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string errors;
  if (!reader->parse(json_text.data(), json_text.data() + json_text.size(), &root, &errors)) {
    throw std::runtime_error("configuration: not valid JSON: " + errors);
  }
  if (!root.isObject()) throw std::runtime_error("configuration: must be a JSON object");

  constexpr int kIntMax = std::numeric_limits<int>::max();
  Config config;
  if (root.isMember("mail_server")) {
    const Json::Value& servers = Object(root["mail_server"], "mail_server");
    for (const std::string& name : servers.getMemberNames()) {
      config.mail_server[name] = String(servers[name], "mail_server." + name);
    }
  }
  if (root.isMember("relay")) {
    const Json::Value& relay = Object(root["relay"], "relay");
    if (relay.isMember("host")) {
      config.relay_host = String(relay["host"], "relay.host");
      if (config.relay_host.empty()) Bad("relay.host", "must not be empty");
    }
    if (relay.isMember("port")) {
      config.relay_port = static_cast<int>(Integer(relay["port"], "relay.port", 1, 65535));
    }
  }
  if (root.isMember("shares")) {
    const Json::Value& shares = Object(root["shares"], "shares");
    for (const std::string& name : shares.getMemberNames()) {
      std::string key = "shares." + name;
      if (name.empty() || name.find('/') != std::string::npos) Bad(key, "is not a share name");
      std::string dir = String(shares[name], key);
      if (dir.empty() || dir[0] != '/') Bad(key, "must be an absolute directory");
      config.shares[name] = dir;
    }
  }
  if (root.isMember("session_timeout")) {
    config.session_timeout =
        static_cast<int>(Integer(root["session_timeout"], "session_timeout", 1, kIntMax));
  }
  if (root.isMember("program_prefix")) {
    config.program_prefix = String(root["program_prefix"], "program_prefix");
  }
  if (root.isMember("login_failure_delay_ms")) {
    config.login_failure_delay_ms = static_cast<int>(
        Integer(root["login_failure_delay_ms"], "login_failure_delay_ms", 0, 60000));
  }
  if (root.isMember("max_request_size")) {
    config.max_request_size = Integer(root["max_request_size"], "max_request_size", 1,
                                      std::numeric_limits<int64_t>::max());
  }
  const struct {
    const char* key;
    int* value;
    int64_t high;
  } bounds[] = {{"max_requests", &config.max_requests, 4096},
                {"request_time_limit", &config.request_time_limit, 86400},
                {"program_time_limit", &config.program_time_limit, 86400}};
  for (const auto& bound : bounds) {
    if (root.isMember(bound.key)) {
      *bound.value = static_cast<int>(Integer(root[bound.key], bound.key, 1, bound.high));
    }
  }
  return config;
}

const Config& GetConfig() {
  std::lock_guard<std::mutex> lock(g_config_mutex);
  if (g_config) return *g_config;
  auto config = std::make_unique<Config>();
  std::string text;
  // A missing file is the common case and costs one failed open.
  switch (ReadSmallFile(ConfigPath(), &text)) {
    case ReadResult::kMissing:
      break;
    case ReadResult::kFailed:
      throw std::runtime_error("configuration: cannot read " + ConfigPath());
    case ReadResult::kRead:
      try {
        *config = ParseConfig(text);
      } catch (const std::runtime_error& e) {
        throw std::runtime_error(ConfigPath() + ": " + e.what());
      }
      break;
  }
  g_config = std::move(config);
  return *g_config;
}

namespace detail {
void ForgetConfig() {
  std::lock_guard<std::mutex> lock(g_config_mutex);
  g_config.reset();
}
}  // namespace detail

void ResetForTesting() {
  detail::ForgetDataRoot();
  detail::ForgetConfig();
  detail::ForgetUsers();
  detail::CloseLogFiles();
}

void SaveConfig(const Config& config) {
  Json::Value root(Json::objectValue);
  Json::Value& servers = root["mail_server"] = Json::Value(Json::objectValue);
  for (const auto& [key, value] : config.mail_server) servers[key] = value;
  root["relay"]["host"] = config.relay_host;
  root["relay"]["port"] = config.relay_port;
  Json::Value& shares = root["shares"] = Json::Value(Json::objectValue);
  for (const auto& [name, dir] : config.shares) shares[name] = dir;
  root["session_timeout"] = config.session_timeout;
  root["program_prefix"] = config.program_prefix;
  root["login_failure_delay_ms"] = config.login_failure_delay_ms;
  root["max_request_size"] = Json::Int64(config.max_request_size);
  root["max_requests"] = config.max_requests;
  root["request_time_limit"] = config.request_time_limit;
  root["program_time_limit"] = config.program_time_limit;

  Json::StreamWriterBuilder writer;
  writer["indentation"] = "  ";
  std::string text = Json::writeString(writer, root) + "\n";

  if (!MakeDirs(EtcDir())) throw std::runtime_error("cannot create " + EtcDir());
  std::string path = ConfigPath();
  std::string temp = path + ".tmp." + std::to_string(getpid());
  FILE* file = fopen(temp.c_str(), "we");
  if (!file) throw std::runtime_error("cannot write " + temp);
  bool ok = fwrite(text.data(), 1, text.size(), file) == text.size();
  ok = fflush(file) == 0 && ok;
  ok = fsync(fileno(file)) == 0 && ok;
  ok = fclose(file) == 0 && ok;
  if (!ok || rename(temp.c_str(), path.c_str()) != 0) {
    unlink(temp.c_str());
    throw std::runtime_error("cannot write " + path);
  }
}

}  // namespace larkpost::appliance
