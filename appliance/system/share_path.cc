#include "appliance/system/share_path.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/openat2.h>
#include <stdlib.h>
#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "appliance/system/appliance.h"

namespace larkpost::appliance {
namespace {

// Appliance users have no group of their own: a user reads with the group
// that owns nothing.
constexpr gid_t kNoGroup = 65534;

constexpr char kAdminSuffix[] = ":admin";

// A folder that paths are resolved beneath. `per_entry`: each folder in it
// is a root of its own (the homes: one user's ".." must not reach the next
// user's home).
struct Root {
  std::string dir;
  bool with_host_rights;
  bool per_entry;
};

// "a//b/./c/" -> "a/b/c", without touching "..": the plug-in joins a root
// with the rest as text, so the root is found by text too, and what the rest
// means is the kernel's business.
std::string Tidy(const std::string& path) {
  std::string tidy;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    const std::string part = path.substr(start, end - start);
    if (!part.empty() && part != ".") tidy += "/" + part;
    start = end + 1;
  }
  return tidy.empty() ? "/" : tidy;
}

std::vector<Root> KnownRoots(const RequestUser& user) {
  std::vector<Root> roots = {
      {UploadDir(), true, false},
      {StickerDir(), true, false},
      {UserDir(user.uid) + "/.ORNIC", true, false},
      {DataRoot() + "/homes", false, true},
  };
  try {
    for (const auto& share : GetConfig().shares) roots.push_back({share.second, false, false});
  } catch (const std::exception&) {
    // A configuration that cannot be read has no shares.
  }
  return roots;
}

// The longest known root that `path` lies in, with the rest of the path
// relative to it in `rest`. False when the path lies beneath none.
bool FindRoot(const std::string& path, const RequestUser& user, Root* found, std::string* rest) {
  if (path.empty() || path[0] != '/') return false;
  const std::string tidy = Tidy(path);
  bool any = false;
  for (Root root : KnownRoots(user)) {
    if (root.dir.empty() || root.dir[0] != '/') continue;
    root.dir = Tidy(root.dir);
    const size_t length = root.dir == "/" ? 0 : root.dir.size();
    if (tidy.compare(0, length, root.dir, 0, length) != 0 ||
        (tidy.size() > length && tidy[length] != '/') || (any && length <= found->dir.size())) {
      continue;
    }
    *found = root;
    *rest = tidy.size() > length + 1 ? tidy.substr(length + 1) : std::string();
    any = true;
  }
  if (!any || !found->per_entry) return any;
  const size_t slash = rest->find('/');
  const std::string entry = rest->substr(0, slash);
  if (entry.empty() || entry == "..") return false;
  found->dir += "/" + entry;
  *rest = slash == std::string::npos ? std::string() : rest->substr(slash + 1);
  return true;
}

// The filesystem rights of `uid` (and no group) for the calling thread while
// the object lives; the host's again afterwards.
class UserRights {
 public:
  explicit UserRights(uid_t uid) {
    const int count = getgroups(0, nullptr);
    if (count > 0) {
      groups_.resize(static_cast<size_t>(count));
      groups_.resize(static_cast<size_t>(std::max(0, getgroups(count, groups_.data()))));
    }
    groups_dropped_ = setgroups(0, nullptr) == 0;
    old_gid_ = static_cast<gid_t>(setfsgid(kNoGroup));
    old_uid_ = static_cast<uid_t>(setfsuid(uid));
    // setfsuid reports the old value whatever happens: ask again.
    held_ = static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1))) == uid &&
            static_cast<gid_t>(setfsgid(static_cast<gid_t>(-1))) == kNoGroup &&
            (groups_dropped_ || groups_.empty());
  }
  ~UserRights() {
    setfsuid(old_uid_);
    setfsgid(old_gid_);
    if (groups_dropped_ && setgroups(groups_.size(), groups_.data()) != 0) {
      // Only root drops groups, and root can always take them back.
    }
  }
  UserRights(const UserRights&) = delete;
  UserRights& operator=(const UserRights&) = delete;

  bool held() const { return held_; }

 private:
  std::vector<gid_t> groups_;
  bool groups_dropped_ = false;
  uid_t old_uid_ = 0;
  gid_t old_gid_ = 0;
  bool held_ = false;
};

int OpenAt2(int dir_fd, const std::string& rest, int flags) {
  struct open_how how = {};
  // openat2 refuses flags that O_PATH does not take.
  how.flags = static_cast<uint64_t>(flags | O_CLOEXEC | ((flags & O_PATH) ? 0 : O_NOCTTY));
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  return static_cast<int>(
      syscall(SYS_openat2, dir_fd, rest.empty() ? "." : rest.c_str(), &how, sizeof(how)));
}

}  // namespace

int OpenBeneathRoot(const std::string& path, int flags) {
  const std::optional<RequestUser> user = GetRequestUser();
  Root root;
  std::string rest;
  if (!user || !FindRoot(path, *user, &root, &rest)) {
    errno = EACCES;
    return -1;
  }
  // The root's own path is the appliance's configuration, trusted as it is.
  const int root_fd = open(root.dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (root_fd < 0) return -1;
  int fd = -1;
  int error = 0;
  if (root.with_host_rights || user->is_admin) {
    fd = OpenAt2(root_fd, rest, flags);
    error = errno;
  } else {
    UserRights rights(user->uid);
    if (rights.held()) {
      fd = OpenAt2(root_fd, rest, flags);
      error = errno;
    } else {
      error = EACCES;
    }
  }
  close(root_fd);
  errno = error;
  return fd;
}

std::string FormatRequestUser(const RequestUser& user) {
  return std::to_string(user.uid) + (user.is_admin ? kAdminSuffix : "");
}

std::optional<RequestUser> ParseRequestUser(const char* text) {
  if (text == nullptr) return std::nullopt;
  std::string value = text;
  RequestUser user;
  const size_t suffix = sizeof(kAdminSuffix) - 1;
  if (value.size() > suffix && value.compare(value.size() - suffix, suffix, kAdminSuffix) == 0) {
    user.is_admin = true;
    value.resize(value.size() - suffix);
  }
  if (value.empty() || value.size() > 10 ||
      value.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  const unsigned long long uid = std::strtoull(value.c_str(), nullptr, 10);
  if (uid > 4294967294ULL) return std::nullopt;
  user.uid = static_cast<uint32_t>(uid);
  return user;
}

std::string StickerDir() {
  const char* configured = getenv("LARKPOST_STICKER_DIR");
  if (configured != nullptr && *configured != '\0') return configured;
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&StickerDir), &info) == 0 || info.dli_fname == nullptr) {
    return std::string();
  }
  const std::string library = info.dli_fname;
  const size_t slash = library.rfind('/');
  if (slash == std::string::npos) return std::string();
  return library.substr(0, slash) + "/../share/larkpost/stickers";
}

}  // namespace larkpost::appliance
