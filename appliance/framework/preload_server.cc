// The preloaded host: a server that loads the plug-in once and forks one
// process per request, ahead of the request. Each request still runs in a process of its own, from
// a state no earlier request touched (the server never serves one itself),
// so a crash, a leak or a stuck request stays with that request; what it
// saves is starting a program and loading a dozen libraries every time.
//
// A flood degrades, it does not topple: a request that finds the configured
// number ("max_requests") already in service is answered 503 at once, with
// Retry-After, instead of waiting in a queue that grows with the flood; and
// each request runs within its time limit ("request_time_limit").
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "appliance/framework/cgi.h"
#include "appliance/framework/host.h"
#include "appliance/framework/preload_protocol.h"
#include "appliance/framework/request_limits.h"
#include "appliance/system/appliance.h"

namespace larkpost::cgi {
namespace {

volatile sig_atomic_t stop_requested = 0;

// The number of requests in service (processes that took a connection and
// have not ended), kept by the server in memory it shares with its
// children. Only one spare waits at a time, and the server counts it in
// before it forks the next: a spare that reads this as it takes a
// connection (before it tells the server) reads the others.
std::atomic<int>* in_service = nullptr;

void RequestStop(int) { stop_requested = 1; }

void Log(const std::string& message) {
  openlog("larkpost-cgi", LOG_PID, LOG_USER);
  syslog(LOG_ERR, "%s", message.c_str());
}

bool ReadAll(int fd, char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = read(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Receives the header and the client's three descriptors; false when the
// message is not one (the descriptors that came are closed then).
bool ReceiveHeader(int connection, PreloadHeader& header, int (&descriptors)[3]) {
  union {
    char buffer[CMSG_SPACE(sizeof(int) * 3)];
    cmsghdr align;
  } control{};
  iovec data{&header, sizeof(header)};
  msghdr message{};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control.buffer;
  message.msg_controllen = sizeof(control.buffer);
  ssize_t got;
  do {
    got = recvmsg(connection, &message, MSG_CMSG_CLOEXEC | MSG_WAITALL);
  } while (got < 0 && errno == EINTR);
  int received = 0;
  for (cmsghdr* item = CMSG_FIRSTHDR(&message); item != nullptr;
       item = CMSG_NXTHDR(&message, item)) {
    if (item->cmsg_level != SOL_SOCKET || item->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (item->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; ++i) {
      int fd;
      std::memcpy(&fd, CMSG_DATA(item) + i * sizeof(int), sizeof(int));
      if (received < 3) {
        descriptors[received++] = fd;
      } else {
        close(fd);
      }
    }
  }
  const bool ok = got == static_cast<ssize_t>(sizeof(header)) && received == 3 &&
                  (message.msg_flags & MSG_CTRUNC) == 0 &&
                  std::memcmp(header.magic, LARKPOST_PRELOAD_MAGIC, sizeof(header.magic)) == 0 &&
                  (header.program == 'e' || header.program == 'a') &&
                  header.environment_size <= LARKPOST_PRELOAD_MAX_ENVIRONMENT &&
                  header.name_size <= LARKPOST_PRELOAD_MAX_NAME;
  if (!ok) {
    for (int i = 0; i < received; ++i) close(descriptors[i]);
  }
  return ok;
}

// Makes /proc/self/cmdline read `name`: the plug-in names its log lines
// after the program the web server ran.
void ShowAs(const std::string& name, char* cmdline, size_t cmdline_size) {
  if (cmdline == nullptr || cmdline_size == 0) return;
  std::memset(cmdline, 0, cmdline_size);
  std::memcpy(cmdline, name.data(), std::min(name.size(), cmdline_size - 1));
}

// The child's whole life: becomes the CGI process the client would have
// been, serves the request, reports the exit status.
// `busy`: the number of other requests in service when this one came.
[[noreturn]] void ServeConnection(int connection, int taken, int busy, char* cmdline,
                                  size_t cmdline_size) {
  PreloadHeader header{};
  int descriptors[3] = {-1, -1, -1};
  if (!ReceiveHeader(connection, header, descriptors)) {
    Log("a preload client sent no valid request");
    _exit(1);
  }
  // Kept for the rest of the process: putenv does not copy.
  static std::vector<char> environment;
  environment.resize(header.environment_size + 1);
  std::string name(header.name_size, '\0');
  if (!ReadAll(connection, environment.data(), header.environment_size) ||
      !ReadAll(connection, name.data(), header.name_size)) {
    Log("a preload client went away mid-request");
    _exit(1);
  }
  environment[header.environment_size] = '\0';
  for (int target = 0; target < 3; ++target) {
    if (dup2(descriptors[target], target) < 0) _exit(1);
  }
  for (int fd : descriptors) {
    if (fd > 2) close(fd);
  }
  clearenv();
  for (size_t at = 0; at < header.environment_size;) {
    char* entry = environment.data() + at;
    const size_t length = std::strlen(entry);
    if (std::strchr(entry, '=') != nullptr) putenv(entry);
    at += length + 1;
  }
  ShowAs(name.empty() ? (header.program == 'e' ? "entry.cgi" : "auth.cgi") : name, cmdline,
         cmdline_size);

  // Read as the request would: a broken configuration is the request's to
  // report, with the bounds at their defaults meanwhile.
  appliance::Config limits;
  try {
    limits = appliance::GetConfig();
  } catch (const std::exception&) {
  }
  int status = 0;
  if (busy >= limits.max_requests) {
    WriteAnswer(BuildAnswer(ErrorEnvelope(kErrorBusy), {"Retry-After: 1"}));
    Log("busy: " + std::to_string(busy) + " requests in service, one refused");
  } else {
    StartTimeLimit(limits.request_time_limit);
    status = header.program == 'e' ? RunEntryProgram() : RunAuthProgram();
  }
  std::cout.flush();
  std::fflush(stdout);
  StopTimeLimit();
  // The answer ends here for the web server, whatever else this process
  // still does on its way out; and the request leaves the count in service
  // (an exit can take a while: the sanitizers check for leaks).
  close(1);
  // A server gone meanwhile is no reason to die before the status is sent.
  std::signal(SIGPIPE, SIG_IGN);
  const pid_t done = -getpid();
  if (write(taken, &done, sizeof(done)) != sizeof(done)) {
    // reaping counts it out instead
  }
  size_t sent = 0;
  while (sent < sizeof(status)) {
    const ssize_t n =
        write(connection, reinterpret_cast<const char*>(&status) + sent, sizeof(status) - sent);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
  std::exit(status);
}

// Copies, ahead of the request, every page this process shares with the
// server and may write: the libraries' data, the heap, the stack. A fork
// shares them copy-on-write, and on this kind of machine each first write
// is a costly fault; a spare pays them while it waits, not while it serves.
// Not instrumented: the sanitizers would take the walk over their own and
// the allocator's guard areas for faults.
__attribute__((no_sanitize("address", "undefined"))) void TouchWritablePages() {
  FILE* maps = std::fopen("/proc/self/maps", "re");
  if (maps == nullptr) return;
  const long page = sysconf(_SC_PAGESIZE);
  char line[512];
  while (std::fgets(line, sizeof(line), maps) != nullptr) {
    unsigned long begin = 0, end = 0;
    char permissions[5] = {};
    if (std::sscanf(line, "%lx-%lx %4s", &begin, &end, permissions) != 3) continue;
    // Large mappings are reservations (a sanitizer's shadow memory), not
    // data a request will write.
    if (std::strcmp(permissions, "rw-p") != 0 || end - begin > (16ul << 20)) continue;
    for (unsigned long at = begin; at < end; at += static_cast<unsigned long>(page)) {
      volatile char* byte = reinterpret_cast<volatile char*>(at);
      *byte = *byte;
    }
  }
  std::fclose(maps);
}

// A spare's life: waits for one connection from the web server's user,
// tells the server it took it, and serves it.
[[noreturn]] void WaitAndServe(int listener, int taken, char* cmdline, size_t cmdline_size) {
  for (int signal_number : {SIGCHLD, SIGTERM, SIGINT, SIGPIPE, SIGHUP}) {
    std::signal(signal_number, SIG_DFL);
  }
  // A spare goes with the server.
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() == 1) _exit(0);
  TouchWritablePages();
  for (;;) {
    const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) {
      if (errno != EINTR && errno != ECONNABORTED) {
        Log(std::string("accept: ") + std::strerror(errno));
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) sleep(1);
      }
      continue;
    }
    ucred peer{};
    socklen_t peer_size = sizeof(peer);
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &peer_size) == 0 &&
        (peer.uid == getuid() || peer.uid == 0)) {
      // Read before the server hears of this one and counts it in.
      const int busy = in_service->load();
      const pid_t self = getpid();
      if (write(taken, &self, sizeof(self)) != sizeof(self)) _exit(1);
      close(listener);
      // From here on the request is this process's, whatever the server does.
      prctl(PR_SET_PDEATHSIG, 0);
      ServeConnection(connection, taken, busy, cmdline, cmdline_size);
    }
    close(connection);
  }
}

int Listen(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    Log("socket path too long: " + path);
    return -1;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  unlink(path.c_str());
  // Only the web server's own user may hand requests over.
  const mode_t old_mask = umask(0177);
  const int bound = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  umask(old_mask);
  if (bound != 0 || listen(fd, 128) != 0) {
    Log("cannot listen on " + path + ": " + std::strerror(errno));
    close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

int ServePreloaded(const std::string& socket_path, char* cmdline, size_t cmdline_size) {
  // The server lives exactly as long as the web server that started it.
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  struct sigaction stop {};
  stop.sa_handler = RequestStop;
  sigemptyset(&stop.sa_mask);
  stop.sa_flags = 0;  // poll() must return on a signal
  sigaction(SIGTERM, &stop, nullptr);
  sigaction(SIGINT, &stop, nullptr);
  sigaction(SIGHUP, &stop, nullptr);
  struct sigaction child_ended {};
  child_ended.sa_handler = [](int) {};  // only to wake poll()
  sigemptyset(&child_ended.sa_mask);
  child_ended.sa_flags = SA_NOCLDSTOP;
  sigaction(SIGCHLD, &child_ended, nullptr);
  std::signal(SIGPIPE, SIG_IGN);

  PreloadPlugin();
  void* shared = mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) {
    Log(std::string("mmap: ") + std::strerror(errno));
    return 1;
  }
  in_service = new (shared) std::atomic<int>(0);
  std::set<pid_t> serving;
  const int listener = Listen(socket_path);
  if (listener < 0) return 1;
  int taken[2];
  if (pipe2(taken, O_CLOEXEC) != 0) {
    Log(std::string("pipe: ") + std::strerror(errno));
    close(listener);
    return 1;
  }
  // Read until the pipe is empty, whatever woke the loop.
  fcntl(taken[0], F_SETFL, O_NONBLOCK);
  // One process always waits in accept(), forked ahead of time: a request
  // finds its process ready instead of waiting for a fork. It tells this one
  // (its pid on the pipe) when it took a connection, and a new one is forked;
  // and (its pid negated) when it answered.
  pid_t spare = 0;
  while (!stop_requested) {
    if (spare == 0) {
      spare = fork();
      if (spare == 0) {
        close(taken[0]);
        WaitAndServe(listener, taken[1], cmdline, cmdline_size);
      }
      if (spare < 0) {
        Log(std::string("fork: ") + std::strerror(errno));
        spare = 0;
        sleep(1);
        continue;
      }
    }
    pollfd wait{taken[0], POLLIN, 0};
    // The time-out only covers a signal that came just before poll().
    poll(&wait, 1, 1000);
    for (pid_t message = 0; read(taken[0], &message, sizeof(message)) == sizeof(message);) {
      if (message > 0 && message == spare) {
        serving.insert(spare);
        spare = 0;
      } else if (message < 0) {
        serving.erase(-message);
      }
    }
    // Served processes are reaped here; so is a spare that died unused.
    for (pid_t ended; (ended = waitpid(-1, nullptr, WNOHANG)) > 0;) {
      if (ended == spare) spare = 0;
      serving.erase(ended);
    }
    in_service->store(static_cast<int>(serving.size()));
  }
  if (spare > 0) kill(spare, SIGTERM);
  close(listener);
  unlink(socket_path.c_str());
  return 0;
}

}  // namespace larkpost::cgi
