#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include "appliance/tools/lighttpd_config.h"
#include "tests/system/temp_root.h"

namespace larkpost::tools {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;

struct Result {
  int status = -1;  // exit status, or -1 when the program did not exit normally
  std::string out;
  std::string err;
};

// Runs `command` through the shell, its standard error going to the file
// `err`. The output is read as it comes, so a chatty program never blocks.
Result Shell(const std::string& command, const std::string& err = "/dev/null") {
  FILE* pipe = popen((command + " 2>" + err + " </dev/null").c_str(), "r");
  Result result;
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) result.out.append(buffer, n);
  int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
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
  // larkpostctl on this test's data root with the arguments `words`.
  Result Ctl(const std::string& words) {
    Result result = Shell("'" LARKPOSTCTL_PATH "' --root " + root_.path() + " " + words,
                          root_.path() + "/stderr");
    result.err = root_.Read("stderr");
    return result;
  }

  testing::TempRoot root_;
};

TEST_F(LarkpostctlTest, UserAddPrintsTheUidAndUserListShowsTheAccounts) {
  Result added = Ctl("user add alice --password pw --admin");
  EXPECT_EQ(added.status, 0) << added.err;
  EXPECT_EQ(added.out, "1026\n");
  EXPECT_EQ(Ctl("user add --domain=example.org bob --password=pw").out, "1027\n");
  for (const auto& [words, error] :
       {std::pair{"user add alice --password other", "already exists"},
        std::pair{"user add ../x --password pw", "not a valid user name"}}) {
    Result refused = Ctl(words);
    EXPECT_EQ(refused.status, 1) << words;
    EXPECT_EQ(refused.out, "") << words;
    EXPECT_THAT(refused.err, HasSubstr(error)) << words;
  }
  Result list = Ctl("user list");
  EXPECT_EQ(list.status, 0);
  EXPECT_EQ(list.out, "1026 alice localdomain admin\n1027 bob example.org\n");
}

TEST_F(LarkpostctlTest, MistakesGiveUsageAndStatusOne) {
  for (const char* words : {"", "frobnicate", "user", "user remove alice", "user add alice",
                            "user add --password pw", "user add alice bob --password pw",
                            "user add alice --password", "user add alice --password pw --root /x",
                            "user list extra", "serve --listen nonsense", "serve --port 80"}) {
    Result result = Ctl(words);
    EXPECT_EQ(result.status, 1) << words;
    EXPECT_THAT(result.err, HasSubstr("usage: larkpostctl")) << words;
    EXPECT_EQ(result.out, "") << words;
  }
  Result help = Ctl("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.out, HasSubstr("usage: larkpostctl"));
}

TEST_F(LarkpostctlTest, ServeAnswersOnLoopbackAndStopsOnSigint) {
  // A data root whose path needs quoting in the web server's syntax.
  std::string data = root_.path() + "/data \"root\"";
  std::string listen = "127.0.0.1:" + std::to_string(FreeLoopbackPort());
  std::string log = root_.path() + "/serve.log";
  pid_t server = fork();
  if (server == 0) {
    int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 1);
    dup2(fd, 2);
    execl(LARKPOSTCTL_PATH, LARKPOSTCTL_PATH, "--root", data.c_str(), "serve", "--listen",
          listen.c_str(), nullptr);
    _exit(127);
  }
  auto get = [&](const std::string& path) {
    return Shell("curl -s -w '\\n%{http_code}' --max-time 5 http://" + listen + path);
  };
  Result page;
  for (int attempt = 0; attempt < 100 && (page = get("/index.html")).status != 0; ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_EQ(page.status, 0) << root_.Read("serve.log");
  EXPECT_THAT(page.out, HasSubstr("Larkpost"));
  EXPECT_THAT(page.out, EndsWith("\n200"));
  EXPECT_THAT(get("/webapi/other.cgi").out, EndsWith("\n403"));
  EXPECT_THAT(get("/etc/lighttpd.conf").out, EndsWith("\n404"));
  EXPECT_THAT(root_.Read("data \"root\"/etc/lighttpd.conf"),
              HasSubstr("\"LARKPOST_ROOT\" => \"" + root_.path() + "/data \\\"root\\\"\""));

  ASSERT_EQ(kill(server, SIGINT), 0);
  int status = 0;
  pid_t done = 0;
  for (int attempt = 0; attempt < 100 && (done = waitpid(server, &status, WNOHANG)) == 0;
       ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  if (done == 0) {
    kill(server, SIGKILL);
    waitpid(server, &status, 0);
  }
  ASSERT_NE(done, 0) << "the server did not stop on SIGINT";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << root_.Read("serve.log");
  EXPECT_NE(get("/index.html").status, 0);  // nobody listens any more
}

TEST(ListenTest, ParsesHostAndPortAndRefusesTheRest) {
  for (const auto& [text, host, port] :
       {std::tuple{"127.0.0.1:8080", "127.0.0.1", 8080}, std::tuple{"[::1]:80", "[::1]", 80},
        std::tuple{"localhost:65535", "localhost", 65535},
        std::tuple{"[fe80::1]:1", "[fe80::1]", 1}}) {
    ListenAddress address = ParseListen(text);
    EXPECT_EQ(address.host, host);
    EXPECT_EQ(address.port, port);
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
