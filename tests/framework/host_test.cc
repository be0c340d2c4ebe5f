// entry.cgi and auth.cgi as real CGI processes, over a data root of their
// own, with a test plug-in whose handlers answer, fail, throw and write
// their own answers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/writer.h>  // prints values in failure messages
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "appliance/system/appliance.h"
#include "appliance/system/testing.h"
#include "platform/zevo/webapi.h"

namespace {

namespace appliance = larkpost::appliance;
using Env = std::map<std::string, std::string>;

Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(ZEVO::WebAPIUtil::FromString(text, value)) << text;
  return value;
}

Json::Value Error(int code) {
  Json::Value envelope = Parse(R"({"success": false, "error": {}})");
  envelope["error"]["code"] = code;
  return envelope;
}

struct Answer {
  std::string raw;
  std::map<std::string, std::string> headers;  // names lower-cased
  Json::Value json;                            // null unless the body is JSON
};

// Runs `program` with exactly `env` and `body` on its standard input (from a
// file, so that no pipe can fill up), and splits its CGI answer.
Answer RunCgi(const std::string& program, Env env, const std::string& body,
              const std::string& scratch) {
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "PATH"}) {
    if (const char* value = std::getenv(name)) env.emplace(name, value);
  }
  const std::string input = scratch + "/stdin";
  std::ofstream(input, std::ios::binary) << body;
  int out[2];
  EXPECT_EQ(pipe(out), 0);
  std::vector<std::string> texts;
  for (const auto& [name, value] : env) texts.push_back(name + "=" + value);
  std::vector<char*> envp;
  for (std::string& text : texts) envp.push_back(text.data());
  envp.push_back(nullptr);

  const pid_t pid = fork();
  if (pid == 0) {
    const int in = open(input.c_str(), O_RDONLY);
    dup2(in, STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    close(out[0]);
    close(out[1]);
    char* argv[] = {const_cast<char*>(program.c_str()), nullptr};
    execve(program.c_str(), argv, envp.data());
    _exit(127);
  }
  close(out[1]);
  Answer answer;
  char buffer[4096];
  ssize_t got;
  while ((got = read(out[0], buffer, sizeof(buffer))) > 0) answer.raw.append(buffer, got);
  close(out[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << program << " status " << status;

  const size_t end = answer.raw.find("\r\n\r\n");
  if (end == std::string::npos) return answer;
  size_t start = 0;
  while (start < end) {
    const size_t line_end = answer.raw.find("\r\n", start);
    const std::string line = answer.raw.substr(start, line_end - start);
    const size_t colon = line.find(':');
    std::string name = line.substr(0, colon);
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    answer.headers[name] = line.substr(colon + 2);
    start = line_end + 2;
  }
  const std::string text = answer.raw.substr(end + 4);
  if (!ZEVO::WebAPIUtil::FromString(text, answer.json)) answer.json = Json::Value();
  if (answer.headers.count("content-length") != 0) {
    EXPECT_EQ(answer.headers["content-length"], std::to_string(text.size()));
  }
  return answer;
}

class HostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/larkpost-host-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    root_ = name;
    setenv("LARKPOST_ROOT", root_.c_str(), 1);
    appliance::ResetForTesting();
    WriteConfig(R"({"login_failure_delay_ms": 20})");
    const uint32_t alice = appliance::UserStore::Add("alice", "alice pw", false, "localdomain");
    appliance::UserStore::Add("root", "root pw", true, "localdomain");
    user_ = *appliance::UserStore::FindByUid(alice);
    session_ = appliance::SessionStore::Create(user_);
  }

  void TearDown() override {
    std::filesystem::remove_all(root_);
    unsetenv("LARKPOST_ROOT");
    appliance::ResetForTesting();
  }

  void WriteConfig(const std::string& json) const {
    ASSERT_TRUE(appliance::MakeDirs(root_ + "/etc"));
    std::ofstream(root_ + "/etc/larkpost.json") << json;
  }

  Env BaseEnv() const {
    return {{"LARKPOST_ROOT", root_},
            {"LARKPOST_PLUGIN", TEST_PLUGIN},
            {"GATEWAY_INTERFACE", "CGI/1.1"}};
  }

  // A GET of entry.cgi with `query`; `extra` adds or replaces variables.
  Answer Entry(const std::string& query, const Env& extra = {}) const {
    Env env = BaseEnv();
    env["REQUEST_METHOD"] = "GET";
    env["QUERY_STRING"] = query;
    for (const auto& [name, value] : extra) env[name] = value;
    return RunCgi(ENTRY_CGI, env, "", root_);
  }

  Answer Post(const char* program, const std::string& body, const Env& extra = {},
              const std::string& type = "application/x-www-form-urlencoded") const {
    Env env = BaseEnv();
    env["REQUEST_METHOD"] = "POST";
    env["CONTENT_TYPE"] = type;
    env["CONTENT_LENGTH"] = std::to_string(body.size());
    for (const auto& [name, value] : extra) env[name] = value;
    return RunCgi(program, env, body, root_);
  }

  std::string Sid() const { return "&_sid=" + session_.id; }

  std::string root_;
  appliance::UserRecord user_;
  appliance::Session session_;
};

const char kEcho[] = "api=ZEVO.Test.Echo&version=1&method=echo";

TEST_F(HostTest, RunsTheEntryFunctionWithTheRequest) {
  const Answer answer = Entry(std::string(kEcho) + "&id=%5B1%2C2%5D&name=Work&read=true" + Sid(),
                              {{"HTTP_ACCEPT_LANGUAGE", "de-DE,de;q=0.9"}});
  EXPECT_EQ(answer.headers.at("content-type"), "application/json; charset=utf-8");
  EXPECT_EQ(answer.headers.at("x-content-type-options"), "nosniff");
  EXPECT_EQ(answer.headers.at("cache-control"), "no-store");
  Json::Value expected = Parse(R"({"success": true, "data": {
      "api": "ZEVO.Test.Echo", "version": 1, "method": "echo", "user": "alice",
      "admin": false, "language": "ger", "upload": false,
      "params": {"id": [1, 2], "name": "Work", "read": true}}})");
  expected["data"]["uid"] = Json::Int64{user_.uid};
  expected["data"]["sid"] = session_.id;
  EXPECT_EQ(answer.json, expected);

  // Another declared version has its own row.
  EXPECT_EQ(Entry("api=ZEVO.Test.Echo&version=2&method=echo" + Sid()).json["data"]["version"], 2);
}

TEST_F(HostTest, HostErrorsComeBeforeThePlugin) {
  const struct {
    std::string query;
    int code;
  } cases[] = {
      {"version=1&method=echo", 101},
      {"api=ZEVO.Test.Echo&method=echo", 101},
      {"api=ZEVO.Test.Echo&version=1", 101},
      {"api=&version=1&method=echo", 101},
      {"api=ZEVO.Test.Echo&version=&method=echo", 101},
      {"api=ZEVO.Test.Echo&version=one&method=echo", 104},
      {"api=ZEVO.Test.Echo&version=0&method=echo", 104},
      {"api=ZEVO.Test.Echo&version=-1&method=echo", 104},
      {"api=ZEVO.Test.Echo&version=3&method=echo", 104},
      {"api=ZEVO.Test.Nothing&version=1&method=echo", 102},
      {"api=ZEVO.Test.Echo&version=1&method=nothing", 103},
      {"api=ZEVO.Test.Echo&version=2&method=fail", 103},
      // Declared, but the plug-in has no row for it.
      {"api=ZEVO.Test.Echo&version=1&method=not_served", 103},
  };
  for (const auto& c : cases) {
    // Without a session too: the request is refused for what it asks first.
    EXPECT_EQ(Entry(c.query).json, Error(c.code)) << c.query;
    EXPECT_EQ(Entry(c.query + Sid()).json, Error(c.code)) << c.query;
  }
}

TEST_F(HostTest, SessionsAndTokens) {
  const std::string cookie = "theme=dark; id=" + session_.id;
  const struct {
    const char* what;
    std::string query;
    Env env;
    bool served;
  } cases[] = {
      {"no session", kEcho, {}, false},
      {"unknown session", std::string(kEcho) + "&_sid=" + std::string(64, 'a'), {}, false},
      {"the field needs no token", std::string(kEcho) + Sid(), {}, true},
      {"cookie without token", kEcho, {{"HTTP_COOKIE", cookie}}, false},
      {"cookie with a wrong token",
       kEcho,
       {{"HTTP_COOKIE", cookie}, {"HTTP_X_ZEVO_TOKEN", std::string(32, '0')}},
       false},
      {"cookie with a token prefix",
       kEcho,
       {{"HTTP_COOKIE", cookie}, {"HTTP_X_ZEVO_TOKEN", session_.token.substr(0, 31)}},
       false},
      {"cookie with the header token",
       kEcho,
       {{"HTTP_COOKIE", cookie}, {"HTTP_X_ZEVO_TOKEN", session_.token}},
       true},
      {"cookie with the field token",
       std::string(kEcho) + "&_token=" + session_.token,
       {{"HTTP_COOKIE", cookie}},
       true},
  };
  for (const auto& c : cases) {
    const Answer answer = Entry(c.query, c.env);
    if (c.served) {
      EXPECT_EQ(answer.json["data"]["user"], "alice") << c.what;
    } else {
      EXPECT_EQ(answer.json, Error(119)) << c.what;
    }
  }
  // An ended session is no session.
  ASSERT_TRUE(appliance::SessionStore::Remove(session_.id));
  EXPECT_EQ(Entry(std::string(kEcho) + Sid()).json, Error(119));
}

TEST_F(HostTest, AdministratorAPIs) {
  EXPECT_EQ(Entry("api=ZEVO.Test.Admin&version=1&method=echo" + Sid()).json, Error(105));
  EXPECT_EQ(Entry("api=ZEVO.Test.Admin&version=1&method=echo").json, Error(119));
  const appliance::Session admin =
      appliance::SessionStore::Create(*appliance::UserStore::FindByName("root"));
  const Json::Value data =
      Entry("api=ZEVO.Test.Admin&version=1&method=echo&_sid=" + admin.id).json["data"];
  EXPECT_EQ(data["user"], "root");
  EXPECT_EQ(data["admin"], true);
}

TEST_F(HostTest, CustomAuthenticationLeavesTheDecisionToThePlugin) {
  const std::string custom = "api=ZEVO.Test.Custom&version=1&method=echo";
  Json::Value data = Entry(custom + "&_sid=stale").json["data"];
  EXPECT_EQ(data["uid"].asInt64(), ZEVO::kUnknownUID);
  EXPECT_EQ(data["sid"], "stale");
  EXPECT_EQ(data["user"], "");
  // A link opened from the page carries the cookie but no token.
  data = Entry(custom, {{"HTTP_COOKIE", "id=" + session_.id}}).json["data"];
  EXPECT_EQ(data["uid"].asInt64(), user_.uid);
  EXPECT_EQ(data["sid"], session_.id);
  EXPECT_EQ(Entry(custom).json["data"]["uid"].asInt64(), ZEVO::kUnknownUID);
}

TEST_F(HostTest, WhatTheHandlerDid) {
  const std::string echo = "api=ZEVO.Test.Echo&version=1&method=";
  EXPECT_EQ(Entry(echo + "fail" + Sid()).json,
            Parse(R"({"success": false, "error": {"code": 42, "errors": {"why": "asked to"}}})"));
  // The plug-in catches its own core errors; one that escapes is a fault.
  EXPECT_EQ(Entry(echo + "throw_core" + Sid()).json, Error(100));
  EXPECT_EQ(Entry(echo + "throw_std" + Sid()).json, Error(100));
  // The checker's refusal is the answer; the entry function never runs.
  EXPECT_EQ(Entry(echo + "checked&ok=false" + Sid()).json,
            Parse(R"({"success": false, "error": {"code": 120,
                      "errors": {"name": "ok", "reason": "condition"}}})"));
  EXPECT_EQ(Entry(echo + "checked&ok=true" + Sid()).json,
            Parse(R"({"success": true, "data": "handler ran"})"));
  // Output off: the handler's own bytes are the whole answer.
  EXPECT_EQ(Entry(echo + "raw" + Sid()).raw, "Status: 404 Not Found\r\n\r\n");
  EXPECT_EQ(Entry(echo + "raw_then_throw" + Sid()).raw, "Status: 404 Not Found\r\n\r\n");
}

TEST_F(HostTest, UploadsReachThePluginAndAreRemovedAfter) {
  const std::string body =
      "--xx\r\nContent-Disposition: form-data; name=\"id\"\r\n\r\n7\r\n"
      "--xx\r\nContent-Disposition: form-data; name=\"file\"; filename=\"/home/me/a b.txt\"\r\n"
      "Content-Type: text/plain\r\n\r\nfile\r\ncontent\r\n--xx--\r\n";
  const Answer answer = Post(ENTRY_CGI, body, {{"QUERY_STRING", std::string(kEcho) + Sid()}},
                             "multipart/form-data; boundary=xx");
  const Json::Value& data = answer.json["data"];
  EXPECT_EQ(data["upload"], true);
  EXPECT_EQ(data["file_content"], "file\r\ncontent");
  EXPECT_EQ(data["params"]["id"], "7");
  EXPECT_EQ(data["params"]["file"], "a b.txt");
  const std::string stored = data["params"]["file_tmp"].asString();
  EXPECT_EQ(stored.rfind(root_ + "/tmp/upload/", 0), 0u) << stored;
  EXPECT_FALSE(std::filesystem::exists(stored));

  EXPECT_EQ(Post(ENTRY_CGI, body.substr(0, body.size() - 8),
                 {{"QUERY_STRING", std::string(kEcho) + Sid()}}, "multipart/form-data; boundary=xx")
                .json,
            Error(101));
  EXPECT_TRUE(std::filesystem::is_empty(root_ + "/tmp/upload"));
}

TEST_F(HostTest, BrokenSetupsAndOversizedRequests) {
  WriteConfig(R"({"max_request_size": 100})");
  EXPECT_EQ(Post(ENTRY_CGI, "a=" + std::string(200, 'x'), {{"QUERY_STRING", kEcho + Sid()}}).json,
            Error(107));
  EXPECT_EQ(Entry(kEcho + Sid(), {{"LARKPOST_PLUGIN", root_ + "/missing.so"}}).json, Error(100));
  WriteConfig("{not json");
  EXPECT_EQ(Entry(kEcho + Sid()).json, Error(100));
}

TEST_F(HostTest, LoginAndLogout) {
  const Answer login = Post(AUTH_CGI, "account=alice&passwd=alice+pw");
  const Json::Value& data = login.json["data"];
  ASSERT_TRUE(login.json["success"].asBool()) << login.raw;
  EXPECT_EQ(data["is_admin"], false);
  const std::string sid = data["sid"].asString();
  const std::string token = data["token"].asString();
  EXPECT_EQ(login.headers.at("set-cookie"), "id=" + sid + "; HttpOnly; SameSite=Strict; Path=/");
  EXPECT_EQ(Entry(kEcho, {{"HTTP_COOKIE", "id=" + sid}, {"HTTP_X_ZEVO_TOKEN", token}})
                .json["data"]["user"],
            "alice");
  EXPECT_TRUE(Post(AUTH_CGI, "account=root&passwd=root+pw").json["data"]["is_admin"].asBool());

  const Answer wrong = Post(AUTH_CGI, "account=alice&passwd=wrong");
  const Answer unknown = Post(AUTH_CGI, "account=nobody&passwd=wrong");
  EXPECT_EQ(wrong.json, Error(400));
  EXPECT_EQ(wrong.raw, unknown.raw);
  EXPECT_EQ(Post(AUTH_CGI, "account=alice").json, Error(101));
  // A password in the URL is not taken.
  Env env = BaseEnv();
  env["REQUEST_METHOD"] = "GET";
  env["QUERY_STRING"] = "account=alice&passwd=alice+pw";
  EXPECT_EQ(RunCgi(AUTH_CGI, env, "", root_).json, Error(101));

  // Logging out through the cookie needs the token.
  EXPECT_EQ(Post(AUTH_CGI, "method=logout", {{"HTTP_COOKIE", "id=" + sid}}).json, Error(119));
  const Answer out =
      Post(AUTH_CGI, "method=logout", {{"HTTP_COOKIE", "id=" + sid}, {"HTTP_X_ZEVO_TOKEN", token}});
  EXPECT_EQ(out.json, Parse(R"({"success": true})"));
  EXPECT_EQ(out.headers.at("set-cookie"), "id=; Max-Age=0; HttpOnly; SameSite=Strict; Path=/");
  EXPECT_FALSE(appliance::SessionStore::Lookup(sid, 1800, false));
  EXPECT_EQ(Post(AUTH_CGI, "method=logout&_sid=" + sid).json, Error(119));
  // The field needs no token.
  EXPECT_EQ(Post(AUTH_CGI, "method=logout&_sid=" + session_.id).json,
            Parse(R"({"success": true})"));
  EXPECT_EQ(Post(AUTH_CGI, "method=logout").json, Error(119));
}

}  // namespace
