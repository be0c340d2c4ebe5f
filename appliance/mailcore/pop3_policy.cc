#include "appliance/mailcore/pop3_policy.h"

#include <errno.h>
#include <fcntl.h>
#include <json/json.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <fstream>
#include <string>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/system/appliance.h"

namespace ornic::larkpost::store {
namespace {

namespace appliance = ::larkpost::appliance;

void Log(int line, const std::string& text) { LogError("pop3_policy", line, text); }

std::string PolicyDir() { return appliance::EtcDir() + "/pop3"; }

// A domain names a file only when it is a plain DNS name.
bool IsFileName(const std::string& domain) {
  if (domain.empty() || domain.size() > 253 || domain[0] == '.') return false;
  for (char c : domain) {
    if (!isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '-' && c != '_') return false;
  }
  return true;
}

std::string PolicyPath(const std::string& domain) { return PolicyDir() + "/" + domain + ".json"; }

std::optional<Pop3Policy> Read(const std::string& domain) {
  if (!IsFileName(domain)) {
    Log(__LINE__, "no POP3 policy can be kept for the domain \"" + domain + "\"");
    return std::nullopt;
  }
  const std::string path = PolicyPath(domain);
  struct stat info;
  if (lstat(path.c_str(), &info) != 0 && errno == ENOENT) return Pop3Policy{};
  std::ifstream file(path);
  if (!file || lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    Log(__LINE__, "cannot read " + path);
    return std::nullopt;
  }
  Json::Value root;
  Json::CharReaderBuilder reader;
  std::string errors;
  if (!Json::parseFromStream(reader, file, &root, &errors) || !root.isObject() ||
      !root["enable_pop3"].isBool() || !root["pop3_fetch_period"].isUInt() ||
      root["pop3_fetch_period"].asUInt() == 0) {
    Log(__LINE__, path + " is not a POP3 policy");
    return std::nullopt;
  }
  return Pop3Policy{root["enable_pop3"].asBool(), root["pop3_fetch_period"].asUInt()};
}

bool Write(const std::string& path, const Pop3Policy& policy) {
  Json::Value root(Json::objectValue);
  root["enable_pop3"] = policy.enable;
  root["pop3_fetch_period"] = policy.period;
  const std::string text = Json::writeString(Json::StreamWriterBuilder(), root) + "\n";
  const std::string temp = path + ".tmp." + std::to_string(getpid());
  int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  bool ok = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
            fsync(fd) == 0;
  if (fd >= 0) ok = close(fd) == 0 && ok;
  if (!ok || rename(temp.c_str(), path.c_str()) != 0) {
    Log(__LINE__, "cannot write " + path + ": " + strerror(errno));
    unlink(temp.c_str());
    return false;
  }
  return true;
}

}  // namespace

std::optional<Pop3Policy> ReadPop3Policy(const std::string& domain) { return Read(domain); }

bool WritePop3Policy(const std::string& domain, bool enable, std::optional<uint32_t> period) {
  if (period && *period == 0) return false;
  if (!IsFileName(domain) || !appliance::MakeDirs(PolicyDir())) {
    Log(__LINE__, "cannot keep the POP3 policy of \"" + domain + "\"");
    return false;
  }
  // Read, change and replace under a lock, so that a change of the flag
  // alone never undoes a change of the period made at the same moment.
  const std::string lock_path = PolicyDir() + "/.lock";
  int lock = open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (lock < 0 || flock(lock, LOCK_EX) != 0) {
    Log(__LINE__, lock_path + ": " + strerror(errno));
    if (lock >= 0) close(lock);
    return false;
  }
  std::optional<Pop3Policy> policy = Read(domain);
  // A damaged file is replaced by the new policy, not kept forever.
  if (!policy) policy = Pop3Policy{};
  policy->enable = enable;
  if (period) policy->period = *period;
  const bool written = Write(PolicyPath(domain), *policy);
  close(lock);
  return written;
}

}  // namespace ornic::larkpost::store
