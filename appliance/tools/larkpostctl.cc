// larkpostctl: administration of the stand-in appliance.
//
//   larkpostctl [--root DIR] COMMAND ...
//
// Commands are rows of kCommands; each gets the words after its name.
#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "appliance/system/appliance.h"
#include "appliance/system/user_admin.h"
#include "appliance/tools/check_command.h"
#include "appliance/tools/command_line.h"
#include "appliance/tools/lighttpd_config.h"
#include "appliance/tools/mail_commands.h"

namespace larkpost::tools {

void PrepareDataRoot() {
  using namespace larkpost::appliance;
  for (const std::string& dir :
       {DataRoot(), EtcDir(), RunDir(), LogDir(), UploadDir(), DataRoot() + "/mail",
        DataRoot() + "/homes", DataRoot() + "/tmp/lighttpd", DataRoot() + "/www"}) {
    if (!MakeDirs(dir)) throw std::runtime_error("cannot create " + dir + ": " + strerror(errno));
  }
}

bool TakeOption(const Args& args, size_t& i, const std::string& name, std::string* value) {
  if (args[i] == name) {
    if (i + 1 >= args.size()) throw UsageError(name + " needs a value");
    *value = args[++i];
    return true;
  }
  if (args[i].compare(0, name.size() + 1, name + "=") == 0) {
    *value = args[i].substr(name.size() + 1);
    return true;
  }
  return false;
}

namespace {

constexpr char kUsage[] =
    "usage: larkpostctl [--root DIR] COMMAND ...\n"
    "\n"
    "  user add NAME --password PW [--admin] [--domain D]\n"
    "      add an account; prints its uid\n"
    "  user list\n"
    "      one line per account: uid, name, domain, \"admin\" for administrators\n"
    "  deliver NAME [--mailbox PATH] < MESSAGE\n"
    "      store one message (RFC 5322, on standard input) for user NAME, in the\n"
    "      inbox or the mailbox PATH (\"Work/Projects\"); prints the message id\n"
    "  import NAME [--mailbox PATH] SOURCE...\n"
    "      store the messages of mbox files, Maildir folders or single message\n"
    "      files for user NAME; prints how many were stored\n"
    "  fetch NAME\n"
    "      fetch the mail of user NAME's POP3 accounts now; prints how many\n"
    "      messages were stored (an account's error goes to standard error)\n"
    "  serve [--listen HOST:PORT] [--no-preload]\n"
    "      run the web server in the foreground (default 127.0.0.1:8080; IPv6 as\n"
    "      [::1]:8080), and beside it the mail core's background service\n"
    "      (filter tasks, POP3 fetching), started again if it dies; Ctrl-C stops\n"
    "      both\n"
    "  check NAME|--all\n"
    "      check the mail store of user NAME (or of every user) and the user's\n"
    "      application folders; one line per finding, \"NAME: ok\" when sound,\n"
    "      status 1 when anything was found\n"
    "\n"
    "--root DIR is the data root (default $LARKPOST_ROOT, else ./var).\n";

int UserAdd(const Args& args) {
  std::string name, password, domain = "localdomain";
  bool have_password = false, admin = false;
  for (size_t i = 0; i < args.size(); ++i) {
    if (TakeOption(args, i, "--password", &password)) {
      have_password = true;
    } else if (TakeOption(args, i, "--domain", &domain)) {
    } else if (args[i] == "--admin") {
      admin = true;
    } else if (args[i].size() > 1 && args[i][0] == '-') {
      throw UsageError("user add: unknown option " + args[i]);
    } else if (name.empty()) {
      name = args[i];
    } else {
      throw UsageError("user add: one name only");
    }
  }
  if (name.empty()) throw UsageError("user add: NAME is missing");
  if (!have_password) throw UsageError("user add: --password is missing");
  PrepareDataRoot();
  uint32_t uid = appliance::UserStore::Add(name, password, admin, domain);
  std::cout << uid << "\n";
  return 0;
}

int UserList(const Args& args) {
  if (!args.empty()) throw UsageError("user list takes no arguments");
  for (const appliance::UserRecord& user : appliance::ListUsers()) {
    std::cout << user.uid << " " << user.name << " " << user.domain
              << (user.is_admin ? " admin" : "") << "\n";
  }
  return 0;
}

int User(const Args& args) {
  if (args.empty()) throw UsageError("user: add or list?");
  Args rest(args.begin() + 1, args.end());
  if (args[0] == "add") return UserAdd(rest);
  if (args[0] == "list") return UserList(rest);
  throw UsageError("user: unknown command " + args[0]);
}

// The folder that this program was started from.
std::string ProgramDir() {
  char buffer[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (length <= 0) throw std::runtime_error("cannot find this program's own folder");
  std::string self(buffer, static_cast<size_t>(length));
  return self.substr(0, self.rfind('/'));
}

bool Exists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

// Starts the preloaded host (larkpost-cgi serve) beside the web server. It
// ends when this process (lighttpd, once exec'd) does, or with Ctrl-C, which
// reaches both; when it is not running, entry.cgi and auth.cgi start the host
// themselves, so a failure here only costs speed.
void StartPreloadedHost(const std::string& program, const std::string& socket_path) {
  if (!Exists(program)) {
    std::cerr << "larkpostctl: warning: " << program << " is missing\n";
    return;
  }
  std::cout.flush();
  std::cerr.flush();
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error(std::string("fork: ") + strerror(errno));
  if (child == 0) {
    const char* const argv[] = {program.c_str(), "serve", socket_path.c_str(), nullptr};
    execv(program.c_str(), const_cast<char* const*>(argv));
    _exit(127);
  }
}

volatile sig_atomic_t g_supervisor_stop = 0;

// The supervisor's life: runs the core's background service and starts it
// again whenever it ends, until the web server (its parent) ends or it is
// told to stop; then stops the service and waits for it. A service that
// dies at once is started again after a growing pause (up to 5 s), so a
// broken one does not spin.
[[noreturn]] void SuperviseService(const std::string& program, pid_t web_server) {
  struct sigaction stop {};
  stop.sa_handler = [](int) { g_supervisor_stop = 1; };
  sigemptyset(&stop.sa_mask);
  stop.sa_flags = 0;  // waitpid and nanosleep must return on a signal
  for (int number : {SIGTERM, SIGINT, SIGHUP}) sigaction(number, &stop, nullptr);
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != web_server) _exit(0);
  openlog("larkpostctl", LOG_PID, LOG_MAIL);
  long pause_ms = 100;
  while (!g_supervisor_stop) {
    timespec started{};
    clock_gettime(CLOCK_MONOTONIC, &started);
    const pid_t service = fork();
    if (service == 0) {
      const char* const argv[] = {program.c_str(), nullptr};
      execv(program.c_str(), const_cast<char* const*>(argv));
      _exit(127);
    }
    int status = 0;
    if (service > 0) {
      while (waitpid(service, &status, 0) < 0) {
        if (errno != EINTR) break;
        if (g_supervisor_stop) kill(service, SIGTERM);
      }
    }
    if (g_supervisor_stop) break;
    timespec ended{};
    clock_gettime(CLOCK_MONOTONIC, &ended);
    const long ran_ms =
        (ended.tv_sec - started.tv_sec) * 1000 + (ended.tv_nsec - started.tv_nsec) / 1000000;
    pause_ms = ran_ms > 10000 ? 100 : std::min(pause_ms * 2, 5000L);
    syslog(LOG_ERR, "%s ended (%s %d); starting it again in %ld ms", program.c_str(),
           WIFSIGNALED(status) ? "signal" : "status",
           WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status), pause_ms);
    timespec pause{pause_ms / 1000, (pause_ms % 1000) * 1000000};
    nanosleep(&pause, nullptr);
  }
  _exit(0);
}

// Starts the supervisor of the core's background service beside the web
// server. Like the preloaded host it goes when this process (lighttpd,
// once exec'd) does.
void StartService(const std::string& program) {
  if (!Exists(program)) {
    std::cerr << "larkpostctl: warning: " << program << " is missing; filter tasks will not run\n";
    return;
  }
  std::cout.flush();
  std::cerr.flush();
  const pid_t web_server = getpid();
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error(std::string("fork: ") + strerror(errno));
  if (child == 0) SuperviseService(program, web_server);
}

int Serve(const Args& args) {
  std::string listen = "127.0.0.1:8080";
  bool preload = true;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--no-preload") {
      preload = false;
    } else if (!TakeOption(args, i, "--listen", &listen)) {
      throw UsageError("serve: unexpected " + args[i]);
    }
  }
  ServeSettings settings;
  try {
    settings.listen = ParseListen(listen);
  } catch (const std::invalid_argument& e) {
    throw UsageError(e.what());
  }
  const appliance::Config& config = appliance::GetConfig();
  PrepareDataRoot();
  settings.data_root = appliance::DataRoot();
  settings.program_dir = ProgramDir();
  settings.max_request_size = config.max_request_size;
  // Room for browsers that keep several connections open, and for the
  // refusals beyond the requests in service.
  settings.max_connections = std::max(128, 8 * config.max_requests);
  settings.environment.emplace_back("LARKPOST_ROOT", settings.data_root);
  for (const char* name : {"LARKPOST_PLUGIN", "ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
    if (const char* value = getenv(name)) settings.environment.emplace_back(name, value);
  }
  for (const char* program : {"entry.cgi", "auth.cgi"}) {
    if (!Exists(settings.program_dir + "/" + program)) {
      std::cerr << "larkpostctl: warning: " << settings.program_dir << "/" << program
                << " is missing; its URL will fail\n";
    }
  }

  const std::string socket_path = appliance::RunDir() + "/cgi.sock";
  if (preload && socket_path.size() >= sizeof(sockaddr_un::sun_path)) {
    std::cerr << "larkpostctl: warning: " << socket_path
              << " is too long for a socket; requests start the host each time\n";
    preload = false;
  }
  if (preload) {
    settings.environment.emplace_back("LARKPOST_CGI_SOCKET", socket_path);
    StartPreloadedHost(settings.program_dir + "/larkpost-cgi", socket_path);
  }

  StartService(settings.program_dir + "/larkpost-service");

  std::string index = settings.data_root + "/www/index.html";
  if (!Exists(index)) {
    std::ofstream(index) << "<!doctype html><title>Larkpost</title><p>Larkpost is running.</p>\n";
  }
  std::string conf = appliance::EtcDir() + "/lighttpd.conf";
  std::string temp = conf + ".tmp";
  {
    std::ofstream out(temp, std::ios::trunc);
    out << LighttpdConfig(settings);
    out.close();
    if (!out || rename(temp.c_str(), conf.c_str()) != 0) {
      throw std::runtime_error("cannot write " + conf);
    }
  }

  std::cout.flush();
  std::cerr.flush();
  // lighttpd takes this process over: Ctrl-C reaches it directly and it
  // shuts down cleanly, with no parent left to forward signals.
  const char* const argv[] = {"lighttpd", "-D", "-f", conf.c_str(), nullptr};
  execv("/usr/sbin/lighttpd", const_cast<char* const*>(argv));
  throw std::runtime_error(std::string("cannot run /usr/sbin/lighttpd: ") + strerror(errno));
}

struct Command {
  const char* name;
  int (*run)(const Args&);
};

constexpr Command kCommands[] = {
    {"user", User},   {"deliver", Deliver}, {"import", Import},
    {"fetch", Fetch}, {"serve", Serve},     {"check", Check},
};

int Main(int argc, char** argv) {
  Args args(argv + 1, argv + argc);
  size_t i = 0;
  std::string root;
  for (; i < args.size(); ++i) {
    if (args[i] == "--help" || args[i] == "-h" || args[i] == "help") {
      std::cout << kUsage;
      return 0;
    }
    if (!TakeOption(args, i, "--root", &root)) break;
    if (root.empty()) throw UsageError("--root needs a folder");
    // Before anything asks for the data root: it is read once per process.
    setenv("LARKPOST_ROOT", root.c_str(), 1);
  }
  if (i == args.size()) throw UsageError("no command given");
  for (const Command& command : kCommands) {
    if (args[i] == command.name) return command.run(Args(args.begin() + i + 1, args.end()));
  }
  throw UsageError("unknown command " + args[i]);
}

}  // namespace
}  // namespace larkpost::tools

int main(int argc, char** argv) {
  try {
    return larkpost::tools::Main(argc, argv);
  } catch (const larkpost::tools::UsageError& e) {
    std::cerr << "larkpostctl: " << e.what() << "\n\n" << larkpost::tools::kUsage;
  } catch (const std::exception& e) {
    std::cerr << "larkpostctl: " << e.what() << "\n";
  }
  return 1;
}
