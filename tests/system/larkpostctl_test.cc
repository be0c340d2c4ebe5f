#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "appliance/tools/lighttpd_config.h"
#include "tests/system/temp_root.h"

namespace larkpost::tools {
namespace {

using ::testing::HasSubstr;

struct Result {
  int status = -1;  // exit status, or -1 when the program did not exit normally
  std::string out;
  std::string err;
};

std::string Slurp(int fd) {
  std::string text;
  char buffer[4096];
  ssize_t n;
  while ((n = read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
  close(fd);
  return text;
}

// Starts `argv` with standard output and error going to `out_fd`/`err_fd`.
pid_t Spawn(const std::vector<std::string>& argv, int out_fd, int err_fd) {
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out_fd, 1);
    dup2(err_fd, 2);
    int null = open("/dev/null", O_RDONLY);
    dup2(null, 0);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  return pid;
}

// Runs a program to its end. Its output goes through files, so a chatty
// program never blocks on a full pipe.
Result RunProgram(const std::vector<std::string>& argv) {
  FILE* out = tmpfile();
  FILE* err = tmpfile();
  pid_t pid = Spawn(argv, fileno(out), fileno(err));
  int status = 0;
  waitpid(pid, &status, 0);
  Result result;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  lseek(fileno(out), 0, SEEK_SET);
  lseek(fileno(err), 0, SEEK_SET);
  result.out = Slurp(dup(fileno(out)));
  result.err = Slurp(dup(fileno(err)));
  fclose(out);
  fclose(err);
  return result;
}

Result Ctl(const std::string& root, std::vector<std::string> args) {
  args.insert(args.begin(), {LARKPOSTCTL_PATH, "--root", root});
  return RunProgram(args);
}

int FreeLoopbackPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

class LarkpostctlTest : public ::testing::Test {
 protected:
  testing::TempRoot root_;
};

TEST_F(LarkpostctlTest, UserAddPrintsTheUidAndUserListShowsTheAccounts) {
  Result added = Ctl(root_.path(), {"user", "add", "alice", "--password", "pw", "--admin"});
  EXPECT_EQ(added.status, 0) << added.err;
  EXPECT_EQ(added.out, "1026\n");
  added = Ctl(root_.path(), {"user", "add", "--domain=example.org", "bob", "--password=pw"});
  EXPECT_EQ(added.out, "1027\n");

  Result again = Ctl(root_.path(), {"user", "add", "alice", "--password", "other"});
  EXPECT_EQ(again.status, 1);
  EXPECT_EQ(again.out, "");
  EXPECT_THAT(again.err, HasSubstr("already exists"));

  Result list = Ctl(root_.path(), {"user", "list"});
  EXPECT_EQ(list.status, 0);
  EXPECT_EQ(list.out, "1026 alice localdomain admin\n1027 bob example.org\n");
}

TEST_F(LarkpostctlTest, MistakesGiveUsageAndStatusOne) {
  const std::vector<std::vector<std::string>> mistakes = {
      {},
      {"frobnicate"},
      {"user"},
      {"user", "remove", "alice"},
      {"user", "add", "alice"},
      {"user", "add", "--password", "pw"},
      {"user", "add", "alice", "bob", "--password", "pw"},
      {"user", "add", "alice", "--password"},
      {"user", "add", "alice", "--password", "pw", "--root", "/x"},
      {"user", "list", "extra"},
      {"serve", "--listen", "nonsense"},
      {"serve", "--listen", "127.0.0.1:0"},
      {"serve", "--listen", "127.0.0.1:65536"},
      {"serve", "--port", "80"},
  };
  for (const auto& args : mistakes) {
    Result result = Ctl(root_.path(), args);
    std::string shown = ::testing::PrintToString(args);
    EXPECT_EQ(result.status, 1) << shown;
    EXPECT_THAT(result.err, HasSubstr("usage: larkpostctl")) << shown;
    EXPECT_EQ(result.out, "") << shown;
  }
  Result bad_name = Ctl(root_.path(), {"user", "add", "../x", "--password", "pw"});
  EXPECT_EQ(bad_name.status, 1);
  EXPECT_THAT(bad_name.err, HasSubstr("not a valid user name"));

  Result help = Ctl(root_.path(), {"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.out, HasSubstr("usage: larkpostctl"));
}

TEST_F(LarkpostctlTest, ServeAnswersOnLoopbackAndStopsOnSigint) {
  // A data root whose path needs quoting in the web server's syntax.
  std::string data = root_.path() + "/data \"root\"";
  int port = FreeLoopbackPort();
  std::string log = root_.path() + "/serve.log";
  int log_fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  pid_t server = Spawn(
      {LARKPOSTCTL_PATH, "--root", data, "serve", "--listen", "127.0.0.1:" + std::to_string(port)},
      log_fd, log_fd);
  close(log_fd);

  std::string base = "http://127.0.0.1:" + std::to_string(port);
  auto get = [&](const std::string& path) {
    return RunProgram(
        {"/usr/bin/curl", "-s", "-w", "\n%{http_code}", "--max-time", "5", base + path});
  };
  Result page;
  for (int attempt = 0; attempt < 100; ++attempt) {
    page = get("/index.html");
    if (page.status == 0) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_EQ(page.status, 0) << root_.Read("serve.log");
  EXPECT_THAT(page.out, HasSubstr("Larkpost"));
  EXPECT_THAT(page.out, ::testing::EndsWith("\n200"));
  EXPECT_THAT(get("/webapi/other.cgi").out, ::testing::EndsWith("\n403"));
  EXPECT_THAT(get("/etc/lighttpd.conf").out, ::testing::EndsWith("\n404"));

  std::string conf = root_.Read("data \"root\"/etc/lighttpd.conf");
  EXPECT_THAT(conf, HasSubstr("\"LARKPOST_ROOT\" => \"" + root_.path() + "/data \\\"root\\\"\""));

  ASSERT_EQ(kill(server, SIGINT), 0);
  int status = 0;
  pid_t done = 0;
  for (int attempt = 0; attempt < 100 && done == 0; ++attempt) {
    done = waitpid(server, &status, WNOHANG);
    if (done == 0) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  if (done == 0) {
    kill(server, SIGKILL);
    waitpid(server, &status, 0);
    FAIL() << "the server did not stop on SIGINT";
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << root_.Read("serve.log");
  EXPECT_NE(get("/index.html").status, 0);  // nobody listens any more
}

TEST(ListenTest, ParsesHostAndPort) {
  struct Case {
    const char* text;
    const char* host;
    int port;
  };
  for (const Case& c :
       {Case{"127.0.0.1:8080", "127.0.0.1", 8080}, Case{"[::1]:80", "[::1]", 80},
        Case{"localhost:65535", "localhost", 65535}, Case{"[fe80::1]:1", "[fe80::1]", 1}}) {
    ListenAddress address = ParseListen(c.text);
    EXPECT_EQ(address.host, c.host);
    EXPECT_EQ(address.port, c.port);
  }
  for (const char* bad :
       {"", "8080", ":8080", "host:", "host:http", "host:0", "host:99999", "::1:8080", "[]:80",
        "[::1:80", "[::g]:80", "a b:80", "h\"x:80", "host:+80", "host:080800"}) {
    EXPECT_THROW(ParseListen(bad), std::invalid_argument) << bad;
  }
}

TEST(LighttpdStringTest, QuotesWhatLighttpdCanReadAndRefusesTheRest) {
  EXPECT_EQ(LighttpdString("/srv/a b"), "\"/srv/a b\"");
  EXPECT_EQ(LighttpdString("say \"hi\""), "\"say \\\"hi\\\"\"");
  EXPECT_EQ(LighttpdString("C:\\dir\\x"), "\"C:\\dir\\x\"");  // a lone backslash is literal
  for (const char* bad : {"ends\\", "back\\\"quote", "new\nline", "tab\there"}) {
    EXPECT_THROW(LighttpdString(bad), std::invalid_argument) << bad;
  }
}

}  // namespace
}  // namespace larkpost::tools
