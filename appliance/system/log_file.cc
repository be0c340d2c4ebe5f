#include "appliance/system/log_file.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <string>

#include "appliance/system/appliance.h"
#include "appliance/system/testing.h"

namespace larkpost::appliance {
namespace {

std::mutex g_logs_mutex;
// Path -> open descriptor. Never destroyed: a line may still be written
// from another library's static destructor, and the descriptors go with
// the process.
std::map<std::string, int>& OpenLogs() {
  static auto* const logs = new std::map<std::string, int>();
  return *logs;
}

int OpenForAppend(const std::string& path) {
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC;
  int fd = open(path.c_str(), kFlags, 0600);
  if (fd >= 0 || errno != ENOENT) return fd;
  // The folder is made only when it is missing, not before every open.
  size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0 || !MakeDirs(path.substr(0, slash))) return -1;
  return open(path.c_str(), kFlags, 0600);
}

}  // namespace

bool AppendLine(const std::string& path, const std::string& line) {
  std::lock_guard<std::mutex> lock(g_logs_mutex);
  auto found = OpenLogs().find(path);
  if (found == OpenLogs().end()) {
    int fd = OpenForAppend(path);
    if (fd < 0) return false;
    found = OpenLogs().emplace(path, fd).first;
  }
  std::string text = line + "\n";
  ssize_t written;
  do {
    written = write(found->second, text.data(), text.size());
  } while (written < 0 && errno == EINTR);
  return written == static_cast<ssize_t>(text.size());
}

namespace detail {
void CloseLogFiles() {
  std::lock_guard<std::mutex> lock(g_logs_mutex);
  for (const auto& [path, fd] : OpenLogs()) close(fd);
  OpenLogs().clear();
}
}  // namespace detail

}  // namespace larkpost::appliance
