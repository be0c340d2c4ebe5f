#include "platform/mailcore/zevo_user.h"

#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/system/appliance.h"
#include "platform/mailcore/error.h"

namespace ornic::sdk {
namespace {

constexpr uint32_t kUnknownUid = 4294967295u;

// The parts of a relative path, or nullopt when it leaves the folder it is
// relative to (absolute, or a ".." part) or names nothing.
std::optional<std::vector<std::string>> RelativeParts(const std::string& path) {
  if (path.empty() || path[0] == '/') return std::nullopt;
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    std::string part = path.substr(start, end - start);
    if (part == ".." || part.find('\0') != std::string::npos) return std::nullopt;
    if (!part.empty() && part != ".") parts.push_back(part);
    start = end + 1;
  }
  if (parts.empty()) return std::nullopt;
  return parts;
}

// The account `find` returns; nullopt, logged, when the account store
// cannot be read.
template <typename Find>
std::optional<::larkpost::appliance::UserRecord> LookUp(Find find, const std::string& what) {
  try {
    return find();
  } catch (const std::exception& e) {
    larkpost::store::LogError("zevo_user", __LINE__, "cannot read " + what + ": " + e.what());
    return std::nullopt;
  }
}

}  // namespace

ZevoUser::ZevoUser(uint32_t uid) : uid_(kUnknownUid) {
  if (uid == kUnknownUid) return;
  std::optional<::larkpost::appliance::UserRecord> user =
      LookUp([&] { return ::larkpost::appliance::UserStore::FindByUid(uid); },
             "user " + std::to_string(uid));
  if (!user) return;
  uid_ = user->uid;
  name_ = user->name;
  domain_ = user->domain;
  is_admin_ = user->is_admin;
  valid_ = true;
}

// The account store remembers what it found for the process, so taking the
// snapshot by uid reads nothing twice.
ZevoUser::ZevoUser(const std::string& name) : uid_(kUnknownUid) {
  std::optional<::larkpost::appliance::UserRecord> user = LookUp(
      [&] { return ::larkpost::appliance::UserStore::FindByName(name); }, "user \"" + name + "\"");
  if (user) *this = ZevoUser(user->uid);
}

bool ZevoUser::IsValid() const { return valid_; }
uint32_t ZevoUser::uid() const { return uid_; }
const std::string& ZevoUser::name() const { return name_; }
const std::string& ZevoUser::domain() const { return domain_; }
bool ZevoUser::is_admin() const { return is_admin_; }

std::string ZevoUser::home() const {
  return valid_ ? ::larkpost::appliance::HomeDir(name_) : std::string();
}

std::string ZevoUser::PrepareUserLarkpostDir(const std::string& name) const {
  if (!valid_) throw Error(kErrorNoSuchUser);
  std::optional<std::vector<std::string>> parts = RelativeParts(name);
  if (!parts) {
    larkpost::store::LogError("zevo_user", __LINE__, "refused folder name \"" + name + "\"");
    throw Error(kErrorInvalidArgument);
  }
  std::string path = ::larkpost::appliance::UserDir(uid_);
  for (const std::string& part : *parts) path += "/" + part;
  if (!::larkpost::appliance::MakeDirs(path)) {
    larkpost::store::LogError("zevo_user", __LINE__, "cannot create " + path);
    throw Error(kErrorStorage);
  }
  return path;
}

}  // namespace ornic::sdk
