// entry.cgi as a real CGI process over a data root of its own, with a test
// plug-in: what only the host process can show. Every case runs twice: with
// entry.cgi starting the full host itself, and with it handing the request
// to a preloaded host (larkpost-cgi serve) that forks a process for it. Routing, sessions, tokens,
// login and headers are exercised through the real plug-in elsewhere.
#include <gtest/gtest.h>
#include <json/writer.h>  // prints values in failure messages
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "appliance/system/appliance.h"
#include "appliance/system/testing.h"
#include "platform/zevo/webapi.h"

namespace {

namespace appliance = larkpost::appliance;
using Env = std::map<std::string, std::string>;
constexpr auto Parse = &ZEVO::WebAPIUtil::ParseJson;

Json::Value Error(int code) {
  return Parse(R"({"success": false, "error": {"code": )" + std::to_string(code) + "}}");
}

std::string ShellQuoted(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// The JSON body of a CGI answer; null when there is none.
Json::Value Body(const std::string& answer) {
  const size_t end = answer.find("\r\n\r\n");
  return end == std::string::npos ? Json::Value() : Parse(answer.substr(end + 4));
}

class HostTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    char name[] = "/tmp/larkpost-host-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    root_ = name;
    setenv("LARKPOST_ROOT", root_.c_str(), 1);
    appliance::ResetForTesting();
    user_ = *appliance::UserStore::FindByUid(
        appliance::UserStore::Add("alice", "alice pw", false, "localdomain"));
    session_ = appliance::SessionStore::Create(user_);
    if (GetParam()) StartPreloadedHost();
  }

  void TearDown() override {
    if (preloaded_ > 0) {
      kill(preloaded_, SIGTERM);
      int status = 0;
      EXPECT_EQ(waitpid(preloaded_, &status, 0), preloaded_);
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
      EXPECT_FALSE(std::filesystem::exists(socket_)) << "the server removes its socket";
    }
    std::filesystem::remove_all(root_);
    unsetenv("LARKPOST_ROOT");
    appliance::ResetForTesting();
  }

  // The server sees the plug-in as the web server's environment names it.
  void StartPreloadedHost() {
    socket_ = root_ + "/cgi.sock";
    const std::string host = std::filesystem::path(ENTRY_CGI).replace_filename("larkpost-cgi");
    preloaded_ = fork();
    ASSERT_GE(preloaded_, 0);
    if (preloaded_ == 0) {
      setenv("LARKPOST_PLUGIN", TEST_PLUGIN, 1);
      execl(host.c_str(), host.c_str(), "serve", socket_.c_str(), nullptr);
      _exit(127);
    }
    for (int i = 0; i < 500 && !std::filesystem::exists(socket_); ++i) usleep(10000);
    ASSERT_TRUE(std::filesystem::exists(socket_));
  }

  void WriteConfig(const std::string& json) const {
    ASSERT_TRUE(appliance::MakeDirs(root_ + "/etc"));
    std::ofstream(root_ + "/etc/larkpost.json") << json;
  }

  // Runs `program` as a CGI program with exactly these variables (and the
  // sanitizers' settings): a GET of `query`, or a POST when there is a body;
  // `extra` adds or replaces variables. Answers all that it wrote.
  std::string Run(const std::string& query, const Env& extra = {}, const std::string& body = "",
                  const char* program = ENTRY_CGI) const {
    return Finish(Start(query, extra, body, program));
  }

  // Run in two halves: the request is under way when Start returns.
  FILE* Start(const std::string& query, const Env& extra = {}, const std::string& body = "",
              const char* program = ENTRY_CGI) const {
    Env env = {{"LARKPOST_ROOT", root_},
               {"LARKPOST_PLUGIN", TEST_PLUGIN},
               {"REQUEST_METHOD", body.empty() ? "GET" : "POST"},
               {"QUERY_STRING", query},
               {"CONTENT_TYPE", "application/x-www-form-urlencoded"},
               {"CONTENT_LENGTH", std::to_string(body.size())}};
    if (preloaded_ > 0) env["LARKPOST_CGI_SOCKET"] = socket_;
    for (const auto& [name, value] : extra) env[name] = value;
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
      if (const char* value = std::getenv(name)) env.emplace(name, value);
    }
    std::ofstream(root_ + "/stdin", std::ios::binary) << body;
    std::string command = "env -i";
    for (const auto& [name, value] : env) command += " " + ShellQuoted(name + "=" + value);
    command += " " + ShellQuoted(program) + " < " + ShellQuoted(root_ + "/stdin");
    FILE* out = popen(command.c_str(), "r");
    EXPECT_NE(out, nullptr) << command;
    return out;
  }

  std::string Finish(FILE* out) const {
    std::string answer;
    char buffer[4096];
    for (size_t got; out != nullptr && (got = std::fread(buffer, 1, sizeof(buffer), out)) > 0;) {
      answer.append(buffer, got);
    }
    if (out != nullptr) pclose(out);  // the program's status: the answer tells
    return answer;
  }

  // The number of slow requests that have started.
  int Started() const {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(root_)) {
      count += entry.path().filename().string().rfind("started-", 0) == 0;
    }
    return count;
  }

  // A method of the test API, by alice through the session field.
  std::string Echo(const std::string& method) const {
    return "api=ZEVO.Test.Echo&version=1&method=" + method + "&_sid=" + session_.id;
  }

  std::string root_;
  appliance::UserRecord user_;
  appliance::Session session_;
  pid_t preloaded_ = 0;
  std::string socket_;
};

INSTANTIATE_TEST_SUITE_P(Host, HostTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "Preloaded" : "Alone";
                         });

TEST_P(HostTest, TheHandlerSeesTheRequestAndItsUploadWhileItRuns) {
  const std::string body =
      "--xx\r\nContent-Disposition: form-data; name=\"id\"\r\n\r\n7\r\n"
      "--xx\r\nContent-Disposition: form-data; name=\"file\"; filename=\"/home/me/a b.txt\"\r\n"
      "\r\nfile\r\ncontent\r\n--xx--\r\n";
  const Json::Value data = Body(Run(Echo("echo"),
                                    {{"HTTP_ACCEPT_LANGUAGE", "de-DE,de;q=0.9"},
                                     {"CONTENT_TYPE", "multipart/form-data; boundary=xx"}},
                                    body))["data"];
  const std::string stored = data["params"]["file_tmp"].asString();
  Json::Value expected = Parse(R"({"user": "alice", "admin": false, "language": "ger",
      "program": "entry.cgi",
      "upload": true, "params": {"id": "7", "file": "a b.txt"},
      "file_content": "file\r\ncontent"})");
  expected["uid"] = Json::Int64{user_.uid};
  expected["sid"] = session_.id;
  expected["params"]["file_tmp"] = stored;
  // Served by a process the preloaded host forked, when there is one.
  if (preloaded_ > 0) {
    EXPECT_EQ(data["parent"].asInt(), preloaded_);
  }
  expected["parent"] = data["parent"];
  EXPECT_EQ(data, expected);
  EXPECT_EQ(stored.rfind(root_ + "/tmp/upload/", 0), 0u) << stored;
  EXPECT_FALSE(std::filesystem::exists(stored)) << "removed after the request";
}

TEST_P(HostTest, ARequestIsServedWhenThePreloadedHostIsGone) {
  if (preloaded_ == 0) GTEST_SKIP() << "no preloaded host";
  kill(preloaded_, SIGKILL);
  ASSERT_EQ(waitpid(preloaded_, nullptr, 0), preloaded_);
  preloaded_ = 0;
  ASSERT_TRUE(std::filesystem::exists(socket_)) << "a stale socket, nobody listening";
  EXPECT_EQ(Body(Run(Echo("echo")))["data"]["user"], "alice");
  EXPECT_EQ(Body(Run("", {}, "account=alice&passwd=wrong", AUTH_CGI)), Error(400));
}

TEST_P(HostTest, WhatTheHandlerLeavesBehind) {
  // An escaping exception is a fault: nothing the handler had set is sent.
  EXPECT_EQ(Body(Run(Echo("throw_core"))), Error(100));
  EXPECT_EQ(Body(Run(Echo("throw_std"))), Error(100));
  // The checker's refusal is the answer; the entry function never runs.
  EXPECT_EQ(Body(Run(Echo("checked&ok=false"))), Parse(R"({"success": false, "error":
      {"code": 120, "errors": {"name": "ok", "reason": "condition"}}})"));
  EXPECT_EQ(Body(Run(Echo("checked&ok=true")))["data"]["user"], "alice");
  // Output off: the handler's own bytes are the answer, also when it throws
  // after them, with the host's headers put in.
  const std::string page =
      "Status: 404 Not Found\r\nContent-Type: application/octet-stream\r\n"
      "X-Content-Type-Options: nosniff\r\nCache-Control: no-store\r\n"
      "Content-Security-Policy: sandbox; default-src 'none'; style-src 'unsafe-inline'; "
      "img-src data:; frame-ancestors 'self'\r\nReferrer-Policy: no-referrer\r\n\r\n";
  EXPECT_EQ(Run(Echo("raw")), page);
  EXPECT_EQ(Run(Echo("raw_then_throw")), page);
  // Output off and nothing written: the host answers after all.
  EXPECT_EQ(Body(Run(Echo("silent_throw"))), Error(100));
}

TEST_P(HostTest, AdministratorAndCustomAuthentication) {
  const std::string admin_api = "api=ZEVO.Test.Admin&version=1&method=echo&_sid=";
  EXPECT_EQ(Body(Run(admin_api + session_.id)), Error(105));
  const appliance::Session root = appliance::SessionStore::Create(*appliance::UserStore::FindByUid(
      appliance::UserStore::Add("root", "root pw", true, "localdomain")));
  EXPECT_EQ(Body(Run(admin_api + root.id))["data"]["user"], "root");

  // The plug-in decides about a request without a live session with its
  // token: it sees neither a user nor a session id then, so that a link in a
  // mail (the cookie comes along) or one naming another's _sid is no one's.
  const std::string custom = "api=ZEVO.Test.Custom&version=1&method=echo";
  const Json::Value nobody = Parse(R"({"uid": 4294967295, "sid": ""})");
  for (const auto& [query, extra] : std::vector<std::pair<std::string, Env>>{
           {custom + "&_sid=stale", {}},
           {custom, {}},
           {custom + "&_sid=" + session_.id, {}},
           {custom, {{"HTTP_COOKIE", "id=" + session_.id}}},
           {custom + "&_sid=" + session_.id + "&_token=wrong", {}},
       }) {
    const Json::Value data = Body(Run(query, extra))["data"];
    EXPECT_EQ(data["uid"], nobody["uid"]) << query;
    EXPECT_EQ(data["sid"], nobody["sid"]) << query;
  }
  EXPECT_EQ(Body(Run(custom + "&_sid=" + session_.id + "&_token=" + session_.token))["data"]["uid"]
                .asUInt(),
            user_.uid);
  EXPECT_EQ(Body(Run(custom, {{"HTTP_COOKIE", "id=" + session_.id},
                              {"HTTP_X_ZEVO_TOKEN", session_.token}}))["data"]["sid"],
            session_.id);
}

TEST_P(HostTest, BrokenSetupsAndRefusedRequests) {
  // A password in the URL is never taken: the login form is the body alone.
  EXPECT_EQ(Body(Run("account=alice&passwd=alice+pw", {}, "", AUTH_CGI)), Error(101));
  WriteConfig(R"({"max_request_size": 100})");
  const std::string too_large = Run(Echo("echo"), {}, "a=" + std::string(200, 'x'));
  EXPECT_EQ(too_large.rfind("Status: 413 Payload Too Large\r\n", 0), 0u) << too_large;
  EXPECT_EQ(Body(too_large), Error(107));
  // A plug-in without its declaration, one that does not load, a broken
  // configuration.
  EXPECT_EQ(Body(Run(Echo("echo"), {{"LARKPOST_PLUGIN", root_ + "/missing.so"}})), Error(100));
  std::filesystem::copy_file(
      std::filesystem::path(TEST_PLUGIN).replace_filename("larkpost.api.json"),
      root_ + "/larkpost.api.json");
  std::ofstream(root_ + "/broken.so") << "not a library";
  EXPECT_EQ(Body(Run(Echo("echo"), {{"LARKPOST_PLUGIN", root_ + "/broken.so"}})), Error(100));
  WriteConfig("{not json");
  EXPECT_EQ(Body(Run(Echo("echo"))), Error(100));
}

// A flood degrades: beyond the configured number in service, a request is
// refused at once, in HTTP terms and in the envelope, while those in bound
// are served; and a request past its time limit ends with a clean error.
TEST_P(HostTest, BoundsOnRequestsInServiceAndOnTheirTime) {
  WriteConfig(R"({"request_time_limit": 1})");
  const auto seconds_since = [](std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  const auto start = std::chrono::steady_clock::now();
  const std::string over_time = Run(Echo("slow") + "&ms=30000");
  EXPECT_LT(seconds_since(start), 10.0);
  EXPECT_EQ(over_time.rfind("Status: 503 Service Unavailable\r\n", 0), 0u) << over_time;
  EXPECT_NE(over_time.find("X-Content-Type-Options: nosniff\r\n"), std::string::npos);
  EXPECT_EQ(Body(over_time), Error(109));
  // Within the limit, nothing changes.
  EXPECT_EQ(Body(Run(Echo("slow") + "&ms=10"))["data"], "slept");
  if (preloaded_ == 0) return;  // alone, the web server's connection limit bounds them

  WriteConfig(R"({"max_requests": 2})");
  const int before = Started();
  FILE* slow[2];
  for (FILE*& request : slow) request = Start(Echo("slow") + "&ms=3000");
  for (int i = 0; i < 500 && Started() < before + 2; ++i) usleep(10000);
  ASSERT_EQ(Started(), before + 2);
  const auto flood = std::chrono::steady_clock::now();
  for (int i = 0; i < 3; ++i) {
    const std::string refused = Run(Echo("echo"));
    EXPECT_EQ(refused.rfind("Status: 503 Service Unavailable\r\n", 0), 0u) << refused;
    EXPECT_NE(refused.find("\r\nRetry-After: 1\r\n"), std::string::npos) << refused;
    EXPECT_NE(refused.find("X-Content-Type-Options: nosniff\r\n"), std::string::npos);
    EXPECT_EQ(Body(refused), Error(108));
  }
  EXPECT_LT(seconds_since(flood), 2.0) << "refused at once, not queued";
  for (FILE* request : slow) EXPECT_EQ(Body(Finish(request))["data"], "slept");
  // Their places free again once they ended.
  Json::Value served;
  for (int i = 0; i < 100 && !served.isObject(); ++i, usleep(10000)) {
    served = Body(Run(Echo("echo")))["data"];
  }
  EXPECT_EQ(served["user"], "alice");
}

}  // namespace
