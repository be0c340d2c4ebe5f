// The store under faults: a delivery killed half-way, a disk that fills up,
// a store that another process keeps locked. Whatever happens, nothing that
// was acknowledged is lost and nothing half-done is left.
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "tests/integration/integration_util.h"

namespace larkpost::itest {
namespace {

constexpr uint32_t kUid = 1026;  // the first account

class FaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(root_.AddUser("alice", "pw"), kUid);
    // The first delivery creates the store.
    ASSERT_EQ(Deliver(Message(1, "")).exit_code, 0);
  }

  std::string StorePath() const {
    return root_.path() + "/mail/" + std::to_string(kUid) + "/larkpost.db";
  }

  static std::string Message(int n, const std::string& padding) {
    return "From: ann@example.org\r\nTo: alice@localdomain\r\nSubject: message " +
           std::to_string(n) + "\r\nMessage-ID: <" + std::to_string(n) +
           "@example.org>\r\n\r\nBody " + std::to_string(n) + "\r\n" + padding + "\r\n";
  }

  ProcessResult Deliver(const std::string& message) const {
    return root_.Ctl({"deliver", "alice"}, message);
  }

  // The store's own check, whole messages only (each with its source, body
  // and counted in its mailbox), and how many it holds.
  void ExpectSound(int64_t* messages) const {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open_v2(StorePath().c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    auto query = [db](const char* sql) {
      sqlite3_stmt* statement = nullptr;
      std::string text;
      if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) == SQLITE_OK &&
          sqlite3_step(statement) == SQLITE_ROW) {
        text = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
      }
      sqlite3_finalize(statement);
      return text;
    };
    EXPECT_EQ(query("PRAGMA integrity_check"), "ok");
    EXPECT_EQ(query("SELECT count(*) FROM message WHERE id NOT IN (SELECT message_id FROM "
                    "message_source) OR id NOT IN (SELECT message_id FROM message_body)"),
              "0");
    EXPECT_EQ(query("SELECT count(*) FROM mailbox WHERE message_count <> "
                    "(SELECT count(*) FROM message WHERE mailbox_id = mailbox.id)"),
              "0");
    *messages = std::stoll(query("SELECT count(*) FROM message"));
    sqlite3_close(db);
  }

  // Whatever the fault did, the store check finds the store whole.
  void TearDown() override {
    const ProcessResult check = root_.Ctl({"check", "alice"});
    EXPECT_EQ(check.out, "alice: ok\n") << check.err;
    EXPECT_EQ(check.exit_code, 0);
  }

  DataRoot root_;
};

// Import stores its messages in batches of 500, each all or nothing.
TEST_F(FaultTest, AnImportKilledHalfWayKeepsWholeBatches) {
  const std::string mbox = root_.path() + "/big.mbox";
  {
    std::ofstream out(mbox, std::ios::binary);
    for (int n = 2; n < 3002; ++n) {
      out << "From ann@example.org Mon Jan  1 00:00:00 2024\n"
          << Message(n, std::string(400, 'x')) << "\n";
    }
  }
  const std::string wal = StorePath() + "-wal";
  const pid_t import = fork();
  ASSERT_GE(import, 0);
  if (import == 0) {
    const std::string ctl = BinDir() + "/larkpostctl";
    execl(ctl.c_str(), ctl.c_str(), "--root", root_.path().c_str(), "import", "alice", mbox.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  // Killed once the import is writing (or after it finished, when it was
  // faster than this loop: then all of it is there).
  struct stat info {};
  for (int i = 0; i < 2000; ++i) {
    if (stat(wal.c_str(), &info) == 0 && info.st_size > (1 << 20)) break;
    if (waitpid(import, nullptr, WNOHANG) == import) break;
    usleep(1000);
  }
  kill(import, SIGKILL);
  waitpid(import, nullptr, 0);

  int64_t messages = 0;
  ExpectSound(&messages);
  EXPECT_EQ((messages - 1) % 500, 0) << messages;
  ASSERT_EQ(Deliver(Message(5000, "")).exit_code, 0) << "the store goes on";
  int64_t after = 0;
  ExpectSound(&after);
  EXPECT_EQ(after, messages + 1);
}

TEST_F(FaultTest, ADeliveryThatFillsTheDiskIsRefusedAndLosesNothing) {
  // The file size limit stands in for a full disk: a write past it fails
  // (with the signal that would kill the writer ignored, as a daemon does).
  struct stat info {};
  ASSERT_EQ(stat(StorePath().c_str(), &info), 0);
  const std::string blocks = std::to_string(info.st_size / 512 + 64);
  const ProcessResult full =
      RunProcess({"/bin/sh", "-c", "trap '' XFSZ; ulimit -f " + blocks + "; exec \"$0\" \"$@\"",
                  BinDir() + "/larkpostctl", "--root", root_.path(), "deliver", "alice"},
                 {{"PATH", "/usr/bin:/bin"}}, Message(2, std::string(2 << 20, 'y')));
  EXPECT_NE(full.exit_code, 0) << full.out;
  int64_t messages = 0;
  ExpectSound(&messages);
  EXPECT_EQ(messages, 1);
  ASSERT_EQ(Deliver(Message(3, "")).exit_code, 0) << "once there is room again";
  ExpectSound(&messages);
  EXPECT_EQ(messages, 2);
}

TEST_F(FaultTest, AStoreLockedByAnotherProcessRefusesTheChangeUntilReleased) {
  Json::Value login = root_.Login("alice", "pw");
  CgiRequest create;
  create.query =
      "api=ZEVO.Larkpost.Label&version=1&method=create&name=Work&text_color=%23000"
      "&background_color=%23fff&_sid=" +
      login["sid"].asString();

  sqlite3* holder = nullptr;
  ASSERT_EQ(sqlite3_open(StorePath().c_str(), &holder), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(holder, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  // Past the store's busy time-out the change gives up, whole.
  EXPECT_EQ(root_.Cgi("entry.cgi", create).json["error"]["code"].asInt(), 502);
  ASSERT_EQ(sqlite3_exec(holder, "ROLLBACK", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(holder);

  EXPECT_TRUE(root_.Cgi("entry.cgi", create).json["success"].asBool());
}

}  // namespace
}  // namespace larkpost::itest
