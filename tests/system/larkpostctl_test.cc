// larkpostctl through its command line, and the pieces of its web server
// configuration (serving itself is run end to end with the plug-in).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

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

class LarkpostctlTest : public ::testing::Test {
 protected:
  // larkpostctl on this test's data root with the arguments `words`, through
  // the shell. The output is read as it comes, so a chatty program never
  // blocks.
  Result Ctl(const std::string& words) {
    const std::string command = "'" LARKPOSTCTL_PATH "' --root " + root_.path() + " " + words +
                                " 2>" + root_.path() + "/stderr </dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    Result result;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) result.out.append(buffer, n);
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
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
