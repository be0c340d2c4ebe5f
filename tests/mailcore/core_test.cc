#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/system/appliance.h"
#include "appliance/system/sqlite.h"
#include "appliance/system/testing.h"
#include "platform/mailcore/constant.h"
#include "platform/mailcore/controller.h"
#include "platform/mailcore/db_setup.h"
#include "platform/mailcore/error.h"
#include "platform/mailcore/mail_server.h"
#include "platform/mailcore/sync.h"
#include "platform/mailcore/zevo_user.h"
#include "tests/system/temp_root.h"

namespace ornic::larkpost {
namespace {

namespace appliance = ::larkpost::appliance;
namespace sqlite = ::larkpost::appliance::sqlite;
using appliance::UserStore;
using control::Controller;
using db::DBSetupHandler;

constexpr uint32_t kUnknownUid = 4294967295u;

bool IsDir(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The code of the ornic::Error that `body` throws (0 for none): a number that
// clients see, so tests compare it with the number itself.
template <typename Body>
int32_t CodeOf(Body&& body) {
  try {
    body();
  } catch (const Error& e) {
    return e.ErrorCode();
  }
  return 0;
}

class CoreTest : public ::testing::Test {
 protected:
  ~CoreTest() override { store::CloseConnections(); }

  // A connection of its own to a user's store, as another process would have.
  sqlite::Database StoreOf(uint32_t uid, bool create = false) {
    sqlite::OpenOptions options;
    options.create = create;
    return sqlite::Database(store::StorePath(uid), options);
  }
  int64_t Query(const std::string& sql) { return StoreOf(uid_).QueryInt(sql); }

  ::larkpost::testing::TempRoot root_;
  uint32_t uid_ = UserStore::Add("alice", "pw", false, "example.org");
};

TEST_F(CoreTest, ZevoUserIsFoundByUidOrNameAndPreparesFoldersBelowTheUserDir) {
  sdk::ZevoUser user(uid_);
  ASSERT_TRUE(user.IsValid());
  EXPECT_EQ(user.name() + "@" + user.domain(), "alice@example.org");
  EXPECT_EQ(sdk::ZevoUser("alice").uid(), uid_);
  for (const sdk::ZevoUser& unknown : {sdk::ZevoUser(kUnknownUid), sdk::ZevoUser(uid_ + 1),
                                       sdk::ZevoUser("bob"), sdk::ZevoUser("../alice")}) {
    EXPECT_FALSE(unknown.IsValid());
    EXPECT_EQ(unknown.uid(), kUnknownUid);
  }

  std::string base = appliance::UserDir(uid_);
  EXPECT_EQ(user.PrepareUserLarkpostDir(".ORNIC/@tmp"), base + "/.ORNIC/@tmp");
  EXPECT_EQ(user.PrepareUserLarkpostDir(".ORNIC/@tmp"), base + "/.ORNIC/@tmp");  // again
  EXPECT_EQ(user.PrepareUserLarkpostDir("./.ORNIC//@image/"), base + "/.ORNIC/@image");
  EXPECT_TRUE(IsDir(base + "/.ORNIC/@tmp") && IsDir(base + "/.ORNIC/@image"));
  for (const char* bad : {"", "/tmp/x", "..", "../1027", ".ORNIC/../../x", "a/..", ".", "//"}) {
    EXPECT_EQ(CodeOf([&] { user.PrepareUserLarkpostDir(bad); }), 506) << bad;
  }
  root_.Write("mail/" + std::to_string(uid_) + "/blocked", "a file");
  EXPECT_EQ(CodeOf([&] { user.PrepareUserLarkpostDir("blocked/x"); }), 503);
  EXPECT_EQ(CodeOf([] { sdk::ZevoUser(kUnknownUid).PrepareUserLarkpostDir("x"); }), 501);
}

TEST_F(CoreTest, ControllerNeedsAUserAndOpensTheStoreOnlyWhenUsed) {
  EXPECT_EQ(CodeOf([] { Controller c(kUnknownUid); }), 501);
  EXPECT_EQ(CodeOf([&] { Controller c(uid_ + 1, "sid"); }), 501);
  Controller controller(uid_, "sid");
  // Looking for a store that is not there creates nothing.
  EXPECT_FALSE(DBSetupHandler(uid_).DoesDBExist());
  EXPECT_EQ(CodeOf([&] { controller.impl().db(); }), 502);
  EXPECT_FALSE(IsDir(appliance::UserDir(uid_)));

  ASSERT_TRUE(DBSetupHandler(uid_).SetupDB());
  store::Database& db = controller.impl().db();
  EXPECT_EQ(db.QueryInt("PRAGMA foreign_keys"), 1);
  EXPECT_EQ(db.QueryInt("PRAGMA busy_timeout"), 5000);
  sqlite::Statement mode(db, "PRAGMA journal_mode");
  ASSERT_TRUE(mode.Step());
  EXPECT_EQ(mode.Text(0), "wal");
}

TEST_F(CoreTest, OneConnectionPerUserServesControllersAndSetup) {
  ASSERT_TRUE(DBSetupHandler(uid_).SetupDB());
  Controller first(uid_);
  EXPECT_EQ(&first.impl().db(), &Controller(uid_, "sid").impl().db());
  EXPECT_EQ(&first.impl().db(), store::Connection(uid_, false).get());
  uint32_t bob = UserStore::Add("bob", "pw", false, "localdomain");
  ASSERT_TRUE(DBSetupHandler(bob).SetupDB());
  EXPECT_NE(&Controller(bob).impl().db(), &first.impl().db());

  // A controller keeps its connection when the shared ones are dropped.
  store::Database& held = first.impl().db();
  store::CloseConnections();
  EXPECT_EQ(held.QueryInt("SELECT count(*) FROM mailbox"), 0);
  EXPECT_NE(store::Connection(uid_, false).get(), &held);
}

TEST_F(CoreTest, UpToDateStoreIsKeptWithoutTheWriteLockAndItsLogFilesStay) {
  ASSERT_TRUE(DBSetupHandler(uid_).SetupDB());
  StoreOf(uid_).Exec("INSERT INTO mailbox(raw_path) VALUES ('Work')");
  const int64_t version = Query("PRAGMA user_version");
  EXPECT_GE(version, 1);
  store::CloseConnections();  // the last connection closes
  struct stat info;
  ASSERT_EQ(stat((store::StorePath(uid_) + "-wal").c_str(), &info), 0);
  EXPECT_EQ(info.st_size, 0);  // checkpointed and emptied, not deleted
  EXPECT_EQ(stat((store::StorePath(uid_) + "-shm").c_str(), &info), 0);
  {
    sqlite::Database writer = StoreOf(uid_);
    sqlite::Transaction busy(writer);  // another process in the middle of a change
    EXPECT_TRUE(DBSetupHandler(uid_).DoesDBExist());
    EXPECT_TRUE(DBSetupHandler(uid_).SetupDB());
  }
  EXPECT_EQ(Query("PRAGMA user_version"), version);
  EXPECT_EQ(Query("SELECT count(*) FROM mailbox WHERE raw_path = 'Work'"), 1);
}

// A connection opened beside another in the same process leaves the other's
// locks in place: without its lock on the file, another process closing the
// store last would reset the log under it (a store damaged under load).
TEST_F(CoreTest, OpeningTheStoreAgainKeepsTheLocksOfTheProcessOtherConnections) {
  ASSERT_TRUE(DBSetupHandler(uid_).SetupDB());
  sqlite::OpenOptions options;
  options.wal = true;
  sqlite::Database reader(store::StorePath(uid_), options);
  reader.Exec("BEGIN");
  reader.QueryInt("SELECT count(*) FROM mailbox");
  sqlite::Database another(store::StorePath(uid_), options);
  const pid_t child = fork();
  if (child == 0) {
    // Another process asks whether it could take the file for itself.
    const int fd = open(store::StorePath(uid_).c_str(), O_RDWR);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0x40000002;  // the range of SQLite's shared locks
    lock.l_len = 510;
    _exit(fd >= 0 && fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "the reader's lock is gone";
  reader.Exec("COMMIT");
}

TEST_F(CoreTest, SetupUpgradesAnOlderStoreAndAFailedStepLeavesNothing) {
  // Stores that exist but that no migration has touched yet.
  uint32_t bob = UserStore::Add("bob", "pw", false, "localdomain");
  for (const auto& [uid, sql] :
       {std::pair{uid_, "CREATE TABLE note(text TEXT); INSERT INTO note VALUES ('kept')"},
        std::pair{bob, "CREATE TABLE message(x)"}}) {  // in the way of the first step
    ASSERT_TRUE(appliance::MakeDirs(appliance::UserDir(uid)));
    StoreOf(uid, true).Exec(sql);
  }
  EXPECT_FALSE(DBSetupHandler(uid_).DoesDBExist());
  ASSERT_TRUE(DBSetupHandler(uid_).SetupDB());
  EXPECT_TRUE(DBSetupHandler(uid_).DoesDBExist());
  EXPECT_EQ(Query("SELECT count(*) FROM note"), 1);
  EXPECT_EQ(Query("SELECT count(*) FROM sqlite_master WHERE name = 'mailbox'"), 1);

  EXPECT_FALSE(DBSetupHandler(bob).SetupDB());
  EXPECT_EQ(StoreOf(bob).QueryInt("PRAGMA user_version"), 0);
  EXPECT_EQ(StoreOf(bob).QueryInt("SELECT count(*) FROM sqlite_master WHERE name = 'mailbox'"), 0);
}

TEST_F(CoreTest, SetupRefusesNewerStoresUnknownUsersAndDamage) {
  ASSERT_TRUE(DBSetupHandler(uid_).SetupDB());
  StoreOf(uid_).Exec("PRAGMA user_version = 9999");
  EXPECT_FALSE(DBSetupHandler(uid_).SetupDB());
  EXPECT_EQ(Query("PRAGMA user_version"), 9999);
  EXPECT_FALSE(DBSetupHandler(kUnknownUid).SetupDB());
  uint32_t bob = UserStore::Add("bob", "pw", false, "localdomain");
  root_.Write("mail/" + std::to_string(bob) + "/larkpost.db", std::string(8192, 'x'));
  EXPECT_FALSE(DBSetupHandler(bob).DoesDBExist());
  EXPECT_FALSE(DBSetupHandler(bob).SetupDB());
}

class MailboxTest : public CoreTest {
 protected:
  MailboxTest() { EXPECT_TRUE(DBSetupHandler(uid_).SetupDB()); }

  // "id raw_path builtin messages unread drafts" of each mailbox, by id.
  std::vector<std::string> Mailboxes() {
    sqlite::Database db = StoreOf(uid_);
    sqlite::Statement all(db,
                          "SELECT id || ' ' || raw_path || ' ' || ifnull(builtin, '-') || ' ' || "
                          "message_count || ' ' || unread_count || ' ' || draft_count "
                          "FROM mailbox ORDER BY id");
    std::vector<std::string> rows;
    while (all.Step()) rows.push_back(all.Text(0));
    return rows;
  }
};

TEST_F(MailboxTest, BuiltinMailboxesGetTheirFixedIdsOnceAndComeBackWhenMissing) {
  // A user mailbox made before the check still gets an id above the built-ins.
  StoreOf(uid_).Exec("INSERT INTO mailbox(raw_path) VALUES ('Work')");
  Controller controller(uid_);
  control::MailboxSyncer::CheckDefaultMailbox(controller);
  control::MailboxSyncer::CheckDefaultMailbox(controller);
  StoreOf(uid_).Exec("DELETE FROM mailbox WHERE id = 4");
  control::MailboxSyncer::CheckDefaultMailbox(controller);
  EXPECT_EQ(Mailboxes(),
            (std::vector<std::string>{"1 INBOX 0 0 0 0", "2 Drafts 1 0 0 0", "3 Sent 2 0 0 0",
                                      "4 Archived 3 0 0 0", "5 Junk 4 0 0 0", "6 Trash 5 0 0 0",
                                      "7 Starred 6 0 0 0", "8 Work - 0 0 0"}));
  EXPECT_EQ(control::DefaultMailbox::id<constant::kJunk>(), 5);
  EXPECT_EQ(control::DefaultMailbox::id<constant::kTrash>(), 6);

  // A top-level user mailbox called "Trash" blocks the built-in one: nothing is made.
  StoreOf(uid_).Exec(
      "DELETE FROM mailbox WHERE id IN (3, 6); UPDATE mailbox SET raw_path = "
      "'Trash' WHERE id = 8");
  EXPECT_EQ(CodeOf([&] { control::MailboxSyncer::CheckDefaultMailbox(controller); }), 502);
  EXPECT_EQ(Query("SELECT count(*) FROM mailbox"), 6);
}

TEST_F(MailboxTest, UpdateAllMailboxRecountsFromTheMessages) {
  Controller controller(uid_);
  control::MailboxSyncer::CheckDefaultMailbox(controller);
  // (mailbox, thread, read, starred, type 1 for a draft); starred junk and
  // trash are not in Starred. Then every counter is damaged.
  StoreOf(uid_).Exec(
      "INSERT INTO mailbox(raw_path) VALUES ('Work');"
      "INSERT INTO message(mailbox_id, thread_id, is_read, star, type) VALUES (1, 1, 0, 0, 0),"
      " (1, 1, 1, 1, 0), (1, 2, 0, 1, 0), (2, 3, 1, 0, 1), (2, 4, 0, 0, 1), (5, 5, 0, 1, 0),"
      " (6, 6, 0, 1, 0), (8, 7, 1, 0, 0);"
      "UPDATE mailbox SET message_count = 9, unread_count = 9, draft_count = 9");
  ASSERT_TRUE(control::UpdateControl(controller).UpdateAllMailbox(false));
  const std::vector<std::string> want = {
      "1 INBOX 0 3 2 0", "2 Drafts 1 2 1 2", "3 Sent 2 0 0 0",    "4 Archived 3 0 0 0",
      "5 Junk 4 1 1 0",  "6 Trash 5 1 1 0",  "7 Starred 6 2 1 0", "8 Work - 1 0 0"};
  EXPECT_EQ(Mailboxes(), want);
  EXPECT_EQ(root_.Read("log/notify.log"), "");
  ASSERT_TRUE(control::UpdateControl(controller).UpdateAllMailbox(true));
  EXPECT_EQ(Mailboxes(), want);
  EXPECT_NE(root_.Read("log/notify.log").find(" " + std::to_string(uid_) + " 0\n"),
            std::string::npos);

  Controller without_store(UserStore::Add("bob", "pw", false, "localdomain"));
  EXPECT_FALSE(control::UpdateControl(without_store).UpdateAllMailbox(true));
  EXPECT_EQ(root_.Read("log/notify.log").find(" " + std::to_string(without_store.uid()) + " "),
            std::string::npos);
}

TEST_F(CoreTest, TriggerSyncRecordsEachRequestInOrder) {
  ::larkpost::testing::FakeClock clock(1700000000);
  Controller controller(uid_);
  control::Syncer syncer(controller);
  syncer.TriggerSync(constant::kSyncFilter);
  syncer.TriggerSync(constant::kSyncLabel);
  clock.Advance(1);
  syncer.TriggerSync(constant::kSyncSetting);
  syncer.TriggerSync(constant::kSyncForwardReply);
  std::string uid = std::to_string(uid_);
  EXPECT_EQ(root_.Read("log/sync.log"), "1700000000 " + uid + " 0\n1700000000 " + uid +
                                            " 1\n1700000001 " + uid + " 2\n1700000001 " + uid +
                                            " 3\n");

  EXPECT_EQ(CodeOf([&] { syncer.TriggerSync(static_cast<constant::SyncType>(4)); }), 506);
  ::remove((root_.path() + "/log/sync.log").c_str());
  ::remove((root_.path() + "/log").c_str());
  root_.Write("log", "a file where the log folder should be");
  appliance::ResetForTesting();  // this process still held the old log open
  EXPECT_EQ(CodeOf([&] { syncer.TriggerSync(constant::kSyncFilter); }), 503);
}

TEST_F(CoreTest, MailServerKeysComeFromTheConfiguration) {
  root_.Write("etc/larkpost.json", R"({"mail_server": {"smtp_hostname": "mx.example.org"}})");
  EXPECT_EQ(GetMailServerKey("smtp_hostname"), "mx.example.org");
  EXPECT_EQ(GetMailServerKey("no_such_key"), "");
  root_.Write("etc/larkpost.json", R"({"mail_server": []})");
  appliance::detail::ForgetConfig();
  EXPECT_EQ(CodeOf([] { GetMailServerKey("smtp_enabled"); }), 504);
}

}  // namespace
}  // namespace ornic::larkpost
