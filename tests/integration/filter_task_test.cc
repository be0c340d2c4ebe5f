// Filter tasks through lighttpd, with the core's background service that
// `larkpostctl serve` runs: a task followed to its end, tasks cancelled
// while waiting and while running, and the service killed in the middle of
// a task and started again by its supervisor.
#include <signal.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "platform/zevo/webapi.h"
#include "tests/integration/integration_util.h"

namespace larkpost::itest {
namespace {

using namespace std::chrono_literals;

// A user "ann" with `count` messages in the inbox, every third from Bob.
class FilterTaskTest : public ::testing::Test {
 protected:
  void SetUp() override {
    uid_ = root_.AddUser("ann", "pw");
    std::ofstream mbox(root_.path() + "/mail.mbox");
    for (int i = 0; i < kCount; ++i) {
      mbox << "From x@example.org Mon Jan  1 00:00:00 2024\n"
           << "From: " << (i % 3 == 0 ? "Bob <bob@example.org>" : "Carl <carl@example.org>")
           << "\nSubject: note " << i << "\nMessage-ID: <m" << i << "@example.org>\n\nbody " << i
           << "\n\n";
    }
    mbox.close();
    ProcessResult import = root_.Ctl({"import", "ann", root_.path() + "/mail.mbox"});
    ASSERT_EQ(import.exit_code, 0) << import.err;
    server_ = std::make_unique<Server>(root_);
    sid_ = root_.Login("ann", "pw")["sid"].asString();
    ASSERT_FALSE(sid_.empty());
    ASSERT_GT(ServicePid(), 0);
    Json::Value mailbox = Api("ZEVO.Larkpost.Mailbox", "create", {{"name", "Bob"}});
    bob_box_ = mailbox["data"]["id"].asInt();
    ASSERT_GT(bob_box_, 0) << mailbox;
  }

  Json::Value Api(const std::string& api, const std::string& method,
                  std::map<std::string, std::string> form) {
    form["api"] = api;
    form["version"] = "1";
    form["method"] = method;
    form["_sid"] = sid_;
    return Http(server_->url("/webapi/entry.cgi"), form, true).json;
  }
  // add_task of "from bob: move to Bob, mark read"; its key.
  std::string AddTask() {
    Json::Value answer =
        Api("ZEVO.Larkpost.Filter", "add_task",
            {{"condition", R"([{"name": "from", "value": "bob"}])"},
             {"action", R"([{"name": "move_to", "value": )" + std::to_string(bob_box_) +
                            R"(}, {"name": "set_read", "value": "true"}])"}});
    EXPECT_TRUE(answer["success"].asBool()) << answer;
    return answer["data"]["task_key"].asString();
  }
  Json::Value Status(const std::string& key) {
    return Api("ZEVO.Larkpost.Filter", "get_task_status", {{"task_key", key}})["data"];
  }
  // The service's pid, as the peer of a connection to its socket; 0 while
  // it does not answer (waits up to 10 s for one).
  pid_t ServicePid() {
    const std::string path = root_.path() + "/run/core.sock";
    for (auto end = std::chrono::steady_clock::now() + 10s; std::chrono::steady_clock::now() < end;
         std::this_thread::sleep_for(20ms)) {
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
      int fd = socket(AF_UNIX, SOCK_STREAM, 0);
      ucred peer{};
      socklen_t size = sizeof peer;
      bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0;
      close(fd);
      if (ok) return peer.pid;
    }
    return 0;
  }
  // One number from the user's store.
  int64_t Query(const std::string& sql) {
    sqlite3* db = nullptr;
    sqlite3_open_v2((root_.path() + "/mail/" + std::to_string(uid_) + "/larkpost.db").c_str(), &db,
                    SQLITE_OPEN_READONLY, nullptr);
    sqlite3_busy_timeout(db, 5000);
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr);
    int64_t value = sqlite3_step(statement) == SQLITE_ROW ? sqlite3_column_int64(statement, 0) : -1;
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return value;
  }
  // Bob's messages that the task changed; fails the test for any message
  // changed by one action and not the other.
  int64_t Changed() {
    EXPECT_EQ(Query("SELECT count(*) FROM message WHERE (mailbox_id = " + std::to_string(bob_box_) +
                    ") <> (is_read = 1)"),
              0);
    EXPECT_EQ(Query("SELECT count(*) FROM mailbox b WHERE b.id <> 7 AND message_count <> "
                    "(SELECT count(*) FROM message m WHERE m.mailbox_id = b.id)"),
              0);
    return Query("SELECT count(*) FROM message WHERE mailbox_id = " + std::to_string(bob_box_));
  }

  static constexpr int kCount = 3000;
  DataRoot root_;
  uint32_t uid_ = 0;
  std::unique_ptr<Server> server_;
  std::string sid_;
  int bob_box_ = 0;
};

TEST_F(FilterTaskTest, ATaskIsPolledToItsEnd) {
  const std::string key = AddTask();
  ASSERT_FALSE(key.empty());
  Json::Value status;
  uint32_t last_progress = 0;
  for (auto end = std::chrono::steady_clock::now() + 60s; std::chrono::steady_clock::now() < end;
       std::this_thread::sleep_for(10ms)) {
    status = Status(key);
    if (status["status"] == "none") break;
    EXPECT_TRUE(status["status"] == "running" || status["status"] == "waiting") << status;
    if (status["status"] == "running" && status["progress"].asUInt() > 0) {
      EXPECT_EQ(status["total"].asUInt(), unsigned{kCount}) << status;
    }
    EXPECT_GE(status["progress"].asUInt(), last_progress);
    last_progress = status["progress"].asUInt();
  }
  // Done: "none", with the final counts.
  EXPECT_EQ(status, ZEVO::WebAPIUtil::ParseJson(R"({"status": "none", "progress": 3000,
                                                   "total": 3000})"));
  EXPECT_EQ(Changed(), kCount / 3);
  const std::vector<std::string> log = root_.Lines("log/service.log");
  ASSERT_EQ(log.size(), 1u);
  EXPECT_NE(log[0].find(" " + std::to_string(uid_) + " filter task " + key.substr(0, 8) +
                        " finished: examined 3000 of 3000, matched 1000, changed 2000, "
                        "skipped actions: none"),
            std::string::npos)
      << log[0];
}

TEST_F(FilterTaskTest, TasksAreCancelledWhileWaitingAndWhileRunning) {
  const std::string running = AddTask();
  const std::string waiting = AddTask();  // the same user's: waits for the first
  EXPECT_EQ(Status(waiting)["status"], "waiting");
  EXPECT_TRUE(
      Api("ZEVO.Larkpost.Filter", "cancel_task", {{"task_key", waiting}})["success"].asBool());
  EXPECT_EQ(Status(waiting)["status"], "none");

  while (Status(running)["progress"].asUInt() == 0) std::this_thread::sleep_for(1ms);
  const auto asked = std::chrono::steady_clock::now();
  Api("ZEVO.Larkpost.Filter", "cancel_task", {{"task_key", running}});
  EXPECT_EQ(Status(running)["status"], "none");
  // The batch under way ends, and nothing after it starts. (How soon is the
  // bench's to measure; a sanitised build on a loaded machine only bounds it.)
  while (root_.Lines("log/service.log").empty()) std::this_thread::sleep_for(5ms);
  EXPECT_LT(std::chrono::steady_clock::now() - asked, 5s);
  const std::vector<std::string> log = root_.Lines("log/service.log");
  ASSERT_EQ(log.size(), 1u);
  EXPECT_NE(log[0].find(running.substr(0, 8) + " cancelled: examined "), std::string::npos)
      << log[0];
  const int64_t changed = Changed();
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(Changed(), changed);
  EXPECT_LT(changed, kCount / 3);
}

TEST_F(FilterTaskTest, AServiceKilledMidTaskLeavesNoHalfChangedMessageAndComesBack) {
  const pid_t service = ServicePid();
  const std::string key = AddTask();
  while (Status(key)["progress"].asUInt() == 0) std::this_thread::sleep_for(1ms);
  ASSERT_EQ(kill(service, SIGKILL), 0);

  // Down or back, the task is gone.
  EXPECT_EQ(Status(key)["status"], "none");
  pid_t restarted = 0;
  for (auto end = std::chrono::steady_clock::now() + 10s;
       std::chrono::steady_clock::now() < end && (restarted == 0 || restarted == service);
       std::this_thread::sleep_for(20ms)) {
    restarted = ServicePid();
  }
  ASSERT_NE(restarted, service);
  EXPECT_EQ(Status(key)["status"], "none");
  const int64_t changed = Changed();
  EXPECT_LT(changed, kCount / 3);
  EXPECT_TRUE(root_.Lines("log/service.log").empty());

  // The new service takes tasks, and finishes what the killed one left.
  const std::string again = AddTask();
  ASSERT_FALSE(again.empty());
  while (Status(again)["status"] != "none") std::this_thread::sleep_for(10ms);
  EXPECT_EQ(Changed(), kCount / 3);
  const ProcessResult check = root_.Ctl({"check", "ann"});
  EXPECT_EQ(check.out, "ann: ok\n") << check.err;
  EXPECT_EQ(check.exit_code, 0);
}

TEST_F(FilterTaskTest, ApplyExistRunsTheNewRuleOverTheStoredMail) {
  Json::Value created =
      Api("ZEVO.Larkpost.Filter", "create",
          {{"condition", R"([{"name": "from", "value": "bob"}])"},
           {"action", R"([{"name": "move_to", "value": ")" + std::to_string(bob_box_) +
                          R"("}, {"name": "set_read", "value": "true"}])"},
           {"apply_exist", "true"}});
  ASSERT_TRUE(created["success"].asBool()) << created;
  for (auto end = std::chrono::steady_clock::now() + 60s;
       root_.Lines("log/service.log").empty() && std::chrono::steady_clock::now() < end;) {
    std::this_thread::sleep_for(10ms);
  }
  const std::vector<std::string> log = root_.Lines("log/service.log");
  ASSERT_EQ(log.size(), 1u);
  EXPECT_NE(log[0].find(" filter run "), std::string::npos) << log[0];
  EXPECT_EQ(Changed(), kCount / 3);
}

}  // namespace
}  // namespace larkpost::itest
