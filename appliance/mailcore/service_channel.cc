#include "appliance/mailcore/service_channel.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "appliance/system/appliance.h"

namespace ornic::larkpost::service {

std::string SocketPath() { return ::larkpost::appliance::RunDir() + "/core.sock"; }

namespace {

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool ReadAll(int fd, char* data, size_t size) {
  while (size > 0) {
    ssize_t n = recv(fd, data, size, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

bool WriteFrame(int fd, const std::string& bytes) {
  if (bytes.size() > kMaxFrame) return false;
  uint32_t size = static_cast<uint32_t>(bytes.size());
  unsigned char header[4] = {
      static_cast<unsigned char>(size >> 24), static_cast<unsigned char>(size >> 16),
      static_cast<unsigned char>(size >> 8), static_cast<unsigned char>(size)};
  return WriteAll(fd, reinterpret_cast<const char*>(header), sizeof header) &&
         WriteAll(fd, bytes.data(), bytes.size());
}

bool ReadFrame(int fd, std::string* bytes) {
  unsigned char header[4];
  if (!ReadAll(fd, reinterpret_cast<char*>(header), sizeof header)) return false;
  size_t size = (size_t{header[0]} << 24) | (size_t{header[1]} << 16) | (size_t{header[2]} << 8) |
                size_t{header[3]};
  if (size > kMaxFrame) return false;
  bytes->assign(size, '\0');
  return ReadAll(fd, bytes->data(), size);
}

void SetTimeouts(int fd, int timeout_ms) {
  timeval limit{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

bool Call(const proto::Request& request, proto::Response* response, int timeout_ms) {
  std::string path = SocketPath();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  SetTimeouts(fd, timeout_ms);
  // A socket file that nobody listens on (a killed service's) refuses at
  // once: the caller learns that the service is down without waiting.
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  std::string bytes;
  ok = ok && request.SerializeToString(&bytes) && WriteFrame(fd, bytes) && ReadFrame(fd, &bytes) &&
       response->ParseFromString(bytes);
  close(fd);
  return ok;
}

}  // namespace ornic::larkpost::service
