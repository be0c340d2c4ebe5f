#include "appliance/system/log_file.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "appliance/system/appliance.h"

namespace larkpost::appliance {

bool AppendLine(const std::string& path, const std::string& line) {
  size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0 && !MakeDirs(path.substr(0, slash))) return false;
  int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  std::string text = line + "\n";
  ssize_t written;
  do {
    written = write(fd, text.data(), text.size());
  } while (written < 0 && errno == EINTR);
  bool whole = written == static_cast<ssize_t>(text.size());
  return close(fd) == 0 && whole;
}

}  // namespace larkpost::appliance
