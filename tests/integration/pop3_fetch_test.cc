// POP3 fetching through lighttpd with the core's background service that
// `larkpostctl serve` runs: the administrator allows POP3, the user adds an
// account, and its mail arrives at once, from the test POP3 server on
// loopback; `larkpostctl fetch` and the kept error of a refused login.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/integration/integration_util.h"
#include "tests/support/pop3_server.h"

namespace larkpost::itest {
namespace {

using namespace std::chrono_literals;
using ::larkpost::testing::Pop3Server;

std::string Message(const std::string& subject) {
  return "From: Carol <carol@example.net>\nTo: alice@example.net\nSubject: " + subject +
         "\nMessage-ID: <" + subject + "@example.net>\n\nHello from afar.\n";
}

// Every "subject" in `value`, depth first.
void Subjects(const Json::Value& value, std::vector<std::string>* out) {
  if (value.isObject() && value.isMember("subject")) out->push_back(value["subject"].asString());
  if (value.isObject() || value.isArray()) {
    for (const Json::Value& member : value) Subjects(member, out);
  }
}

class Pop3FetchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.AddUser("root", "rootpw", true);
    root_.AddUser("alice", "pw");
    server_ = std::make_unique<Server>(root_);
    admin_ = Login("root", "rootpw");
    alice_ = Login("alice", "pw");
    // The web client's first call, which makes the user's store.
    ASSERT_TRUE(Api(alice_, "ZEVO.Larkpost.Info", "getinfo")["data"]["database_ready"].asBool());
    pop3_.Add("m1", Message("first"));
    pop3_.Add("m2", Message("second"));
  }

  std::string Login(const std::string& account, const std::string& password) {
    std::string sid =
        Http(server_->url("/webapi/auth.cgi"), {{"account", account}, {"passwd", password}}, true)
            .json["data"]["sid"]
            .asString();
    EXPECT_FALSE(sid.empty()) << account;
    return sid;
  }

  Json::Value Api(const std::string& sid, const std::string& api, const std::string& method,
                  std::map<std::string, std::string> form = {}) {
    form["api"] = api;
    form["version"] = "1";
    form["method"] = method;
    form["_sid"] = sid;
    return Http(server_->url("/webapi/entry.cgi"), form, true).json;
  }

  Json::Value CreateAccount() {
    return Api(alice_, "ZEVO.Larkpost.Setting.POP3", "create",
               {{"mail", "alice@example.net"},
                {"server_provider", "0"},
                {"host_name", "127.0.0.1"},
                {"port", std::to_string(pop3_.port())},
                {"user_name", "user"},
                {"password", "secret"},
                {"enable_ssl", "false"},
                {"delete_after_fetch", "true"},
                {"mailbox_path", "INBOX"},
                {"fetch_pass_days", "0"}});
  }

  // The subjects of the inbox's mail, once there are `count` (waits up to
  // 15 s).
  std::vector<std::string> Inbox(size_t count) {
    std::vector<std::string> subjects;
    for (auto end = std::chrono::steady_clock::now() + 15s; std::chrono::steady_clock::now() < end;
         std::this_thread::sleep_for(100ms)) {
      subjects.clear();
      Subjects(Api(alice_, "ZEVO.Larkpost.Thread", "list",
                   {{"condition", R"([{"name": "mailbox", "value": "1"}])"}})["data"],
               &subjects);
      if (subjects.size() >= count) break;
    }
    return subjects;
  }

  DataRoot root_;
  Pop3Server pop3_;
  std::unique_ptr<Server> server_;
  std::string admin_, alice_;
};

TEST_F(Pop3FetchTest, AnAccountFetchesAtOnceUnderThePolicy) {
  // POP3 off: only getinfo answers.
  EXPECT_FALSE(
      Api(alice_, "ZEVO.Larkpost.Setting.POP3", "getinfo")["data"]["enable_pop3"].asBool());
  EXPECT_EQ(CreateAccount()["error"]["code"].asInt(), 120);

  Json::Value set = Api(admin_, "ZEVO.Larkpost.AdminSetting.POP3", "set",
                        {{"enable_pop3", "true"}, {"pop3_fetch_period", "60"}});
  ASSERT_TRUE(set["success"].asBool()) << set;
  Json::Value created = CreateAccount();
  ASSERT_TRUE(created["success"].asBool()) << created;

  // The settings sync asks the service to fetch now, not in 60 minutes.
  std::vector<std::string> subjects = Inbox(2);
  std::sort(subjects.begin(), subjects.end());
  EXPECT_EQ(subjects, (std::vector<std::string>{"first", "second"}));
  for (auto end = std::chrono::steady_clock::now() + 5s;
       !pop3_.uidls().empty() && std::chrono::steady_clock::now() < end;) {
    std::this_thread::sleep_for(50ms);
  }
  EXPECT_TRUE(pop3_.uidls().empty()) << "deleted on the server once stored";

  // larkpostctl fetch: what came since, once.
  pop3_.Add("m3", Message("third"));
  ProcessResult fetch = root_.Ctl({"fetch", "alice"});
  EXPECT_EQ(fetch.exit_code, 0) << fetch.err;
  EXPECT_EQ(fetch.out, "1\n");
  EXPECT_EQ(root_.Ctl({"fetch", "alice"}).out, "0\n");
  EXPECT_EQ(Inbox(3).size(), 3u);

  // A refused login stores nothing; the error is said and kept.
  pop3_.RefuseLogin();
  pop3_.Add("m4", Message("fourth"));
  ProcessResult refused = root_.Ctl({"fetch", "alice"});
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_EQ(refused.out, "0\n");
  EXPECT_NE(refused.err.find("-ERR [AUTH] Authentication failed"), std::string::npos)
      << refused.err;
  EXPECT_EQ(refused.err.find("secret"), std::string::npos);
  EXPECT_EQ(Inbox(3).size(), 3u);
  EXPECT_EQ(pop3_.uidls(), std::vector<std::string>{"m4"});
}

}  // namespace
}  // namespace larkpost::itest
