// Shared folders, file copy and running programs, behind the platform's C
// interface. Every call records why it failed (or that it did not) in the
// calling thread's last error, which VESLCErrGet() reads.
//
// Programs run with the caller's environment but never with its standard
// input and output: a host program's standard input is the request body and
// its standard output the answer, so a child reads /dev/null and writes what
// it prints to our standard error (the web server's error log). A program
// learns whose request it serves from $LARKPOST_REQUEST_USER, which we set.
//
// A copy reads its source through OpenBeneathRoot: beneath the share, home
// or appliance folder that the path lies in, with the request user's rights,
// and from the one descriptor that was checked, so that what the kernel let
// the user open is what is copied.
#include "platform/zevo/file.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "appliance/system/appliance.h"
#include "appliance/system/share_path.h"

extern char** environ;

struct ZevoShareInfo {
  std::string name;
  std::string path;
};

namespace {

thread_local unsigned int g_last_error = VESLC_ERR_NONE;

constexpr char kProgramRoot[] = "/usr/zevo/";
constexpr size_t kCopyBlock = size_t{128} * 1024;

int Fail(unsigned int error) {
  g_last_error = error;
  return -1;
}

int Succeed() {
  g_last_error = VESLC_ERR_NONE;
  return 0;
}

// `fallback` for what is neither a missing file nor a refusal.
unsigned int ErrorFromErrno(int error, unsigned int fallback = VESLC_ERR_IO) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return VESLC_ERR_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EROFS:
    case EXDEV:  // a path that leaves its share
    case ELOOP:  // a path through a symbolic link
      return VESLC_ERR_ACCESS;
    default:
      return fallback;
  }
}

// Closes `fd` (if open) when the owner goes away.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() { Close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // 0 or the errno of a failed close (a write error can surface only there).
  int Close() {
    if (fd_ < 0) return 0;
    const int result = close(fd_);
    fd_ = -1;
    return result == 0 ? 0 : errno;
  }

 private:
  int fd_;
};

// Writes all of `size` bytes; false with errno set otherwise.
bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    if (written == 0) {
      errno = EIO;
      return false;
    }
    data += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

// 0, or the errno of the failed read or write.
int CopyContents(int from, int to) {
  std::vector<char> block(kCopyBlock);
  for (;;) {
    const ssize_t got = read(from, block.data(), block.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    if (got == 0) return 0;
    if (!WriteAll(to, block.data(), static_cast<size_t>(got))) return errno;
  }
}

// ------------------------------------------------------------- programs

// The folder that our own programs live below: the configured program
// prefix, else the folder above the running program's own (a program in
// <build>/bin finds its siblings as <build>/bin/...). Empty when neither is
// known.
std::string ProgramPrefix() {
  std::string prefix;
  try {
    prefix = larkpost::appliance::GetConfig().program_prefix;
  } catch (const std::exception&) {
    // A broken configuration breaks the request anyway; the programs beside
    // us are still the best guess.
  }
  if (prefix.empty()) {
    char self[PATH_MAX];
    const ssize_t size = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (size <= 0) return std::string();
    prefix.assign(self, static_cast<size_t>(size));
    for (int up = 0; up < 2; ++up) {
      const size_t slash = prefix.rfind('/');
      prefix.erase(slash == std::string::npos ? 0 : slash);
    }
  }
  while (prefix.size() > 1 && prefix.back() == '/') prefix.pop_back();
  return prefix;
}

// "/usr/zevo/X" runs "<prefix>/X" when that exists; anything else, and a
// program that the prefix does not have, runs as named.
std::string ResolveProgram(const char* path) {
  const size_t root = sizeof(kProgramRoot) - 1;
  if (std::strncmp(path, kProgramRoot, root) != 0) return path;
  const std::string prefix = ProgramPrefix();
  if (prefix.empty()) return path;
  std::string candidate = prefix + "/" + (path + root);
  return access(candidate.c_str(), F_OK) == 0 ? candidate : std::string(path);
}

// Moves a descriptor of ours out of the standard descriptors' way, so that
// setting up a child's 0, 1 and 2 never overwrites it.
int AboveStdio(int fd) {
  if (fd < 0 || fd > STDERR_FILENO) return fd;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  close(fd);
  return moved;
}

// Everything a child needs, prepared before the fork: after it, only
// async-signal-safe calls are allowed.
struct ChildSetup {
  const char* path = nullptr;
  char* const* argv = nullptr;
  char* const* envp = nullptr;
  int null_fd = -1;   // /dev/null
  int error_fd = -1;  // where a failed exec reports its errno
  bool has_stderr = false;
};

[[noreturn]] void RunChild(const ChildSetup& setup) {
  dup2(setup.null_fd, STDIN_FILENO);
  dup2(setup.has_stderr ? STDERR_FILENO : setup.null_fd, STDOUT_FILENO);
  if (!setup.has_stderr) dup2(setup.null_fd, STDERR_FILENO);
  // Our descriptors (the web server's sockets among them) are none of the
  // program's business.
  if (setup.error_fd > STDERR_FILENO + 1) close_range(STDERR_FILENO + 1, setup.error_fd - 1, 0);
  close_range(setup.error_fd + 1, ~0U, 0);
  // An ignored SIGPIPE or a blocked signal would be inherited through exec.
  struct sigaction default_action;
  std::memset(&default_action, 0, sizeof(default_action));
  default_action.sa_handler = SIG_DFL;
  sigaction(SIGPIPE, &default_action, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  // A group of its own, so that a program over its time limit is killed
  // with the processes it started.
  setpgid(0, 0);
  execve(setup.path, setup.argv, setup.envp);
  const int error = errno;
  ssize_t ignored = write(setup.error_fd, &error, sizeof(error));
  (void)ignored;
  _exit(127);
}

// waitpid, again after a signal.
bool WaitFor(pid_t pid, int* status) {
  for (;;) {
    if (waitpid(pid, status, 0) == pid) return true;
    if (errno != EINTR) return false;
  }
}

// The configured time a program may take, in milliseconds.
int ProgramTimeLimitMs() {
  try {
    return larkpost::appliance::GetConfig().program_time_limit * 1000;
  } catch (const std::exception&) {
    return larkpost::appliance::Config().program_time_limit * 1000;
  }
}

// WaitFor, but a program that is still running after `limit_ms` is killed
// with everything it started (its process group): a hung converter must
// not hold its request, and the request's process slot, for ever.
bool WaitWithin(pid_t pid, int limit_ms, int* status, bool* timed_out) {
  *timed_out = false;
  const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (pidfd < 0) return WaitFor(pid, status);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit_ms);
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd ended{pidfd, POLLIN, 0};
    const int ready = left.count() <= 0 ? 0 : poll(&ended, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      *timed_out = true;
      kill(-pid, SIGKILL);
      kill(pid, SIGKILL);
    }
    break;
  }
  close(pidfd);
  return WaitFor(pid, status);
}

// The errno that the child's failed exec reported, or 0 once the exec
// succeeded (the descriptor closed on exec, and the pipe reads as ended).
int ExecError(int read_fd) {
  int error = 0;
  size_t got = 0;
  while (got < sizeof(error)) {
    const ssize_t n = read(read_fd, reinterpret_cast<char*>(&error) + got, sizeof(error) - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  return got == sizeof(error) ? error : 0;
}

// Our environment with the request's user in kRequestUserVariable (and
// without it when no user is known, so that none is passed on by mistake).
std::vector<std::string> ChildEnvironment() {
  const std::string variable = std::string(larkpost::appliance::kRequestUserVariable) + "=";
  std::vector<std::string> env;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (std::strncmp(*entry, variable.c_str(), variable.size()) != 0) env.emplace_back(*entry);
  }
  if (const auto user = larkpost::appliance::GetRequestUser()) {
    env.push_back(variable + larkpost::appliance::FormatRequestUser(*user));
  }
  return env;
}

int Execute(const char* path, char* const argv[], bool wait) {
  if (path == nullptr || *path == '\0' || argv == nullptr || argv[0] == nullptr) {
    return Fail(VESLC_ERR_INVALID);
  }
  const std::string program = ResolveProgram(path);
  Descriptor null_fd(AboveStdio(open("/dev/null", O_RDWR | O_CLOEXEC)));
  int pipe_fds[2];
  if (!null_fd.valid() || pipe2(pipe_fds, O_CLOEXEC) != 0) return Fail(VESLC_ERR_EXEC);
  Descriptor error_read(AboveStdio(pipe_fds[0]));
  Descriptor error_write(AboveStdio(pipe_fds[1]));
  if (!error_read.valid() || !error_write.valid()) return Fail(VESLC_ERR_EXEC);

  std::vector<std::string> env = ChildEnvironment();
  std::vector<char*> envp;
  for (std::string& entry : env) envp.push_back(entry.data());
  envp.push_back(nullptr);

  ChildSetup setup;
  setup.path = program.c_str();
  setup.argv = argv;
  setup.envp = envp.data();
  setup.null_fd = null_fd.get();
  setup.error_fd = error_write.get();
  setup.has_stderr = fcntl(STDERR_FILENO, F_GETFD) != -1;

  const pid_t pid = fork();
  if (pid < 0) return Fail(VESLC_ERR_EXEC);
  if (pid == 0) {
    if (wait) RunChild(setup);
    // A program we do not wait for is run by a short-lived middle process,
    // so that it is nobody's child to reap here: no zombie stays behind in
    // a long-running caller.
    const pid_t grandchild = fork();
    if (grandchild == 0) RunChild(setup);
    _exit(grandchild < 0 ? 1 : 0);
  }
  if (wait) setpgid(pid, pid);  // whichever of us comes first
  error_write.Close();
  const int exec_error = ExecError(error_read.get());
  int status = 0;
  bool timed_out = false;
  if (!(wait ? WaitWithin(pid, ProgramTimeLimitMs(), &status, &timed_out)
             : WaitFor(pid, &status))) {
    return Fail(VESLC_ERR_EXEC);
  }
  if (exec_error != 0) return Fail(ErrorFromErrno(exec_error, VESLC_ERR_EXEC));
  if (timed_out) {
    syslog(LOG_ERR, "program over its time limit (%d s), killed: %s", ProgramTimeLimitMs() / 1000,
           program.c_str());
  }
  if (!wait) {
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? Succeed() : Fail(VESLC_ERR_EXEC);
  }
  if (WIFSIGNALED(status)) return Fail(VESLC_ERR_SIGNAL | static_cast<unsigned>(WTERMSIG(status)));
  if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
    return Fail(VESLC_ERR_EXIT | static_cast<unsigned>(WEXITSTATUS(status)));
  }
  return Succeed();
}

}  // namespace

extern "C" {

// ----------------------------------------------------------------- shares

int ZEVOShareGet(const char* name, ZEVOSHARE** share) {
  if (share != nullptr) *share = nullptr;
  if (name == nullptr || share == nullptr) return Fail(VESLC_ERR_INVALID);
  try {
    const auto& shares = larkpost::appliance::GetConfig().shares;
    const auto found = shares.find(name);
    if (found == shares.end()) return Fail(VESLC_ERR_NOT_FOUND);
    *share = new ZevoShareInfo{found->first, found->second};
    return Succeed();
  } catch (const std::exception&) {
    return Fail(VESLC_ERR_IO);  // the configuration cannot be read
  }
}

const char* VESLSharePathGet(const ZEVOSHARE* share) {
  if (share == nullptr || share->path.empty()) return nullptr;
  return share->path.c_str();
}

void ZEVOShareFree(ZEVOSHARE* share) { delete share; }

// -------------------------------------------------------------- file copy

int ZEVOFileCopy(const char* source, const char* destination, unsigned int options) {
  if (source == nullptr || destination == nullptr || *source == '\0' || *destination == '\0' ||
      options != 0) {
    return Fail(VESLC_ERR_INVALID);
  }
  // Non-blocking, so that a FIFO named as the source is refused below
  // instead of waiting for a writer.
  Descriptor from(larkpost::appliance::OpenBeneathRoot(source, O_RDONLY | O_NONBLOCK));
  if (!from.valid()) return Fail(ErrorFromErrno(errno));
  struct stat info;
  if (fstat(from.get(), &info) != 0) return Fail(ErrorFromErrno(errno));
  if (!S_ISREG(info.st_mode)) return Fail(VESLC_ERR_INVALID);
  fcntl(from.get(), F_SETFL, fcntl(from.get(), F_GETFL) & ~O_NONBLOCK);

  const std::string target = destination;
  const size_t slash = target.rfind('/');
  const std::string folder =
      slash == std::string::npos ? std::string(".") : target.substr(0, slash == 0 ? 1 : slash);
  std::string temp = folder + (folder == "/" ? "" : "/") + ".copy-XXXXXX";
  Descriptor to(mkostemp(temp.data(), O_CLOEXEC));
  if (!to.valid()) return Fail(ErrorFromErrno(errno));

  // The permission bits, without set-user-ID and set-group-ID: a copy is
  // owned by whoever made it.
  int error = fchmod(to.get(), info.st_mode & 0777) == 0 ? 0 : errno;
  if (error == 0) error = CopyContents(from.get(), to.get());
  const int close_error = to.Close();
  if (error == 0) error = close_error;
  if (error == 0 && rename(temp.c_str(), destination) != 0) error = errno;
  if (error != 0) {
    unlink(temp.c_str());
    return Fail(ErrorFromErrno(error));
  }
  return Succeed();
}

// --------------------------------------------------------------- programs

int VESLCExecv(const char* path, char* const argv[], int wait) {
  return Execute(path, argv, wait != 0);
}

int VESLCExec(int wait, const char* path, ...) {
  if (path == nullptr) return Fail(VESLC_ERR_INVALID);
  std::vector<char*> argv{const_cast<char*>(path)};
  va_list args;
  va_start(args, path);
  while (char* arg = va_arg(args, char*)) argv.push_back(arg);
  va_end(args);
  argv.push_back(nullptr);
  return Execute(path, argv.data(), wait != 0);
}

unsigned int VESLCErrGet(void) { return g_last_error; }

}  // extern "C"
