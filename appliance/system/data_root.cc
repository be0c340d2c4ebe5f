#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "appliance/system/appliance.h"
#include "appliance/system/testing.h"

namespace larkpost::appliance {
namespace {

std::mutex g_root_mutex;
std::string g_root;
bool g_root_known = false;

// "a//b/./c/" -> "a/b/c". ".." stays: resolving it lexically would be wrong
// across symbolic links.
std::string CleanPath(const std::string& path) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    std::string part = path.substr(start, end - start);
    if (!part.empty() && part != ".") parts.push_back(part);
    start = end + 1;
  }
  std::string clean;
  for (const std::string& part : parts) clean += "/" + part;
  if (clean.empty()) return "/";
  return path[0] == '/' ? clean : clean.substr(1);
}

std::string ReadRoot() {
  const char* env = std::getenv("LARKPOST_ROOT");
  std::string root = env && *env ? env : "./var";
  if (root[0] != '/') {
    std::string cwd(4096, '\0');
    if (getcwd(&cwd[0], cwd.size()) == nullptr) return CleanPath(root);
    cwd.resize(cwd.find('\0'));
    root = cwd + "/" + root;
  }
  return CleanPath(root);
}

}  // namespace

const std::string& DataRoot() {
  std::lock_guard<std::mutex> lock(g_root_mutex);
  if (!g_root_known) {
    g_root = ReadRoot();
    g_root_known = true;
  }
  return g_root;
}

namespace detail {
void ForgetDataRoot() {
  std::lock_guard<std::mutex> lock(g_root_mutex);
  g_root_known = false;
}
}  // namespace detail

std::string EtcDir() { return DataRoot() + "/etc"; }
std::string ConfigPath() { return EtcDir() + "/larkpost.json"; }
std::string UsersDbPath() { return EtcDir() + "/users.db"; }
std::string RunDir() { return DataRoot() + "/run"; }
std::string LogDir() { return DataRoot() + "/log"; }
std::string UploadDir() { return DataRoot() + "/tmp/upload"; }
std::string UserDir(uint32_t uid) { return DataRoot() + "/mail/" + std::to_string(uid); }
std::string HomeDir(const std::string& name) { return DataRoot() + "/homes/" + name; }

bool MakeDirs(const std::string& path) {
  if (path.empty()) return false;
  // The folder nearly always exists already: one stat answers, and only a
  // missing folder costs a walk up the path.
  struct stat info;
  if (stat(path.c_str(), &info) == 0) return S_ISDIR(info.st_mode);
  if (mkdir(path.c_str(), 0700) == 0) return true;
  if (errno == ENOENT) {
    size_t slash = path.find_last_not_of('/');
    slash = slash == std::string::npos ? std::string::npos : path.rfind('/', slash);
    if (slash == std::string::npos) return false;
    std::string parent = path.substr(0, slash);
    if (!parent.empty() && !MakeDirs(parent)) return false;
    if (mkdir(path.c_str(), 0700) == 0) return true;
  }
  // EEXIST: another process made it meanwhile, or it is not a folder.
  return errno == EEXIST && stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace larkpost::appliance
