#include "appliance/framework/answer_relay.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <string>
#include <string_view>

#include "appliance/framework/request_limits.h"
#include "appliance/framework/text.h"

namespace larkpost::cgi {

const char kHostHeaders[] =
    "X-Content-Type-Options: nosniff\r\n"
    "Cache-Control: no-store\r\n"
    "Content-Security-Policy: sandbox; default-src 'none'; style-src 'unsafe-inline'; "
    "img-src data:; frame-ancestors 'self'\r\n"
    "Referrer-Policy: no-referrer\r\n";

namespace {

// A header block longer than this is no header block: the bytes are body.
constexpr size_t kMaxHead = 16 * 1024;
constexpr size_t kBlock = 64 * 1024;
constexpr char kDefaultType[] = "Content-Type: application/octet-stream\r\n";

// Once the client is gone, writing stops but reading goes on: the handler
// must not block on a full pipe.
class Sink {
 public:
  explicit Sink(int fd) : fd_(fd) {}
  void Write(std::string_view data) {
    if (!claimed_) {
      claimed_ = true;
      ok_ = ClaimAnswer();
    }
    while (ok_ && !data.empty()) {
      const ssize_t written = write(fd_, data.data(), data.size());
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) {
        ok_ = false;
        return;
      }
      data.remove_prefix(static_cast<size_t>(written));
    }
  }

 private:
  int fd_;
  bool ok_ = true;
  bool claimed_ = false;
};

bool IsTokenChar(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         std::string_view("!#$%&'*+-.^_`|~").find(static_cast<char>(c)) != std::string_view::npos;
}

// Headers whose say is the host's alone.
bool IsHostHeader(std::string_view name) {
  const std::string lower = Lower(name);
  return lower == "x-content-type-options" || lower == "cache-control" ||
         lower == "content-security-policy" || lower == "content-security-policy-report-only" ||
         lower == "referrer-policy";
}

// The offset just past the empty line that ends the header block at the
// start of `data`, or npos while none is in sight.
size_t HeadEnd(std::string_view data) {
  if (data.substr(0, 2) == "\r\n") return 2;
  if (data.substr(0, 1) == "\n") return 1;
  for (size_t at = data.find('\n'); at != std::string_view::npos; at = data.find('\n', at + 1)) {
    if (data.substr(at + 1, 1) == "\n") return at + 2;
    if (data.substr(at + 1, 2) == "\r\n") return at + 3;
  }
  return std::string_view::npos;
}

// The header lines of `head` (the block, its empty line included) as the
// client gets them; false when a line is not a header line.
bool RewriteHead(std::string_view head, std::string& lines) {
  bool has_type = false;
  while (true) {
    size_t end = head.find('\n');
    std::string_view line = head.substr(0, end);
    head.remove_prefix(end + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line.empty()) break;
    const size_t colon = line.find(':');
    if (colon == 0 || colon == std::string_view::npos) return false;
    for (size_t i = 0; i < colon; ++i) {
      if (!IsTokenChar(static_cast<unsigned char>(line[i]))) return false;
    }
    if (line.find_first_of(std::string_view("\r\0", 2)) != std::string_view::npos) return false;
    const std::string_view name = line.substr(0, colon);
    if (IsHostHeader(name)) continue;
    has_type = has_type || Lower(name) == "content-type";
    lines.append(line).append("\r\n");
  }
  if (!has_type) lines += kDefaultType;
  lines += kHostHeaders;
  lines += "\r\n";
  return true;
}

}  // namespace

int64_t RelayAnswer(int in, int out) {
  char buffer[kBlock];
  static_assert(kMaxHead <= kBlock);
  Sink sink(out);
  int64_t total = 0;
  size_t have = 0;
  size_t head_end = std::string_view::npos;
  bool ended = false;
  // The head: until its empty line, the end of the input or kMaxHead bytes.
  while (have < kMaxHead) {
    const ssize_t got = read(in, buffer + have, kMaxHead - have);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      ended = true;
      break;
    }
    have += static_cast<size_t>(got);
    head_end = HeadEnd(std::string_view(buffer, have));
    if (head_end != std::string_view::npos) break;
  }
  total = static_cast<int64_t>(have);
  if (have == 0) return 0;
  std::string lines;
  if (head_end != std::string_view::npos &&
      RewriteHead(std::string_view(buffer, head_end), lines)) {
    sink.Write(lines);
    sink.Write(std::string_view(buffer + head_end, have - head_end));
  } else {
    sink.Write(std::string(kDefaultType) + kHostHeaders + "\r\n");
    sink.Write(std::string_view(buffer, have));
  }
  while (!ended) {
    const ssize_t got = read(in, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    total += got;
    sink.Write(std::string_view(buffer, static_cast<size_t>(got)));
  }
  return total;
}

bool StdoutRelay::Start() {
  if (saved_ >= 0) return true;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  const int saved = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  // What the handler wrote through stdio before goes through the relay too:
  // nothing is flushed before the switch.
  if (saved < 0 || dup2(fds[1], STDOUT_FILENO) < 0) {
    if (saved >= 0) close(saved);
    close(fds[0]);
    close(fds[1]);
    return false;
  }
  close(fds[1]);
  saved_ = saved;
  relayed_ = 0;
  const int in = fds[0];
  try {
    thread_ = std::thread([this, in, saved] {
      relayed_ = RelayAnswer(in, saved);
      close(in);
    });
  } catch (const std::system_error&) {
    dup2(saved, STDOUT_FILENO);
    close(saved);
    close(in);
    saved_ = -1;
    return false;
  }
  return true;
}

int64_t StdoutRelay::Finish() {
  if (saved_ < 0) return 0;
  std::cout.flush();
  std::fflush(stdout);
  // Closes the pipe's last writer: the relay sees the end and stops.
  dup2(saved_, STDOUT_FILENO);
  thread_.join();
  close(saved_);
  saved_ = -1;
  return relayed_;
}

}  // namespace larkpost::cgi
