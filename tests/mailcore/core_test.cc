#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
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

using ::larkpost::appliance::UserStore;
namespace sqlite = ::larkpost::appliance::sqlite;

constexpr uint32_t kUnknownUid = 4294967295u;

bool IsDir(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

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
  CoreTest() : uid_(UserStore::Add("alice", "pw", false, "example.org")) {}

  // A second connection to the user's store, as another process would have.
  sqlite::Database Store() {
    sqlite::OpenOptions options;
    options.foreign_keys = true;
    return sqlite::Database(store::StorePath(uid_), options);
  }

  ~CoreTest() override { store::CloseConnections(); }

  ::larkpost::testing::TempRoot root_;
  uint32_t uid_;
};

// ------------------------------------------------------------- users

TEST_F(CoreTest, ZevoUserLooksUpByUidAndName) {
  sdk::ZevoUser by_uid(uid_);
  ASSERT_TRUE(by_uid.IsValid());
  EXPECT_EQ(by_uid.name(), "alice");
  EXPECT_EQ(by_uid.domain(), "example.org");
  EXPECT_FALSE(by_uid.is_admin());
  EXPECT_EQ(by_uid.home(), root_.path() + "/homes/alice");
  sdk::ZevoUser by_name("alice");
  ASSERT_TRUE(by_name.IsValid());
  EXPECT_EQ(by_name.uid(), uid_);

  for (const sdk::ZevoUser& unknown :
       {sdk::ZevoUser(kUnknownUid), sdk::ZevoUser(uid_ + 1), sdk::ZevoUser("bob"),
        sdk::ZevoUser(""), sdk::ZevoUser("../alice")}) {
    EXPECT_FALSE(unknown.IsValid());
    EXPECT_EQ(unknown.uid(), kUnknownUid);
    EXPECT_EQ(unknown.name(), "");
  }
}

TEST_F(CoreTest, PrepareUserLarkpostDirMakesFoldersBelowTheUserDir) {
  sdk::ZevoUser user(uid_);
  std::string base = ::larkpost::appliance::UserDir(uid_);
  EXPECT_EQ(user.PrepareUserLarkpostDir(".ORNIC/@tmp"), base + "/.ORNIC/@tmp");
  EXPECT_TRUE(IsDir(base + "/.ORNIC/@tmp"));
  EXPECT_EQ(user.PrepareUserLarkpostDir(".ORNIC/@tmp"), base + "/.ORNIC/@tmp");  // again
  EXPECT_EQ(user.PrepareUserLarkpostDir("./.ORNIC//@image/"), base + "/.ORNIC/@image");
  EXPECT_TRUE(IsDir(base + "/.ORNIC/@image"));

  for (const char* bad : {"", "/tmp/x", "..", "../1027", ".ORNIC/../../x", "a/..", ".", "//"}) {
    EXPECT_EQ(CodeOf([&] { user.PrepareUserLarkpostDir(bad); }), kErrorInvalidArgument) << bad;
  }
  root_.Write("mail/" + std::to_string(uid_) + "/blocked", "a file");
  EXPECT_EQ(CodeOf([&] { user.PrepareUserLarkpostDir("blocked/x"); }), kErrorStorage);
  EXPECT_EQ(CodeOf([&] { sdk::ZevoUser(kUnknownUid).PrepareUserLarkpostDir(".ORNIC/@tmp"); }),
            kErrorNoSuchUser);
}

// ------------------------------------------------------------- controller

TEST_F(CoreTest, ControllerNeedsAnExistingUser) {
  EXPECT_EQ(CodeOf([] { control::Controller c(kUnknownUid); }), kErrorNoSuchUser);
  EXPECT_EQ(CodeOf([&] { control::Controller c(uid_ + 1, "sid"); }), kErrorNoSuchUser);

  control::Controller controller(uid_, "the-session");
  EXPECT_EQ(controller.uid(), uid_);
  EXPECT_EQ(controller.session_id(), "the-session");
  EXPECT_EQ(controller.zevo_user().name(), "alice");
  EXPECT_EQ(control::Controller(uid_).session_id(), "");
}

TEST_F(CoreTest, ControllerOpensTheStoreOnlyWhenUsed) {
  control::Controller controller(uid_);  // no store yet: fine
  EXPECT_EQ(CodeOf([&] { controller.impl().db(); }), kErrorDatabase);
  ASSERT_TRUE(db::DBSetupHandler(uid_).SetupDB());
  EXPECT_EQ(controller.impl().db().QueryInt("PRAGMA foreign_keys"), 1);
  EXPECT_EQ(controller.impl().db().QueryInt("PRAGMA busy_timeout"), 5000);
  sqlite::Statement mode(controller.impl().db(), "PRAGMA journal_mode");
  ASSERT_TRUE(mode.Step());
  EXPECT_EQ(mode.Text(0), "wal");
}

TEST_F(CoreTest, OneConnectionPerUserServesControllersAndSetup) {
  ASSERT_TRUE(db::DBSetupHandler(uid_).SetupDB());
  control::Controller first(uid_);
  control::Controller second(uid_, "sid");
  EXPECT_EQ(&first.impl().db(), &second.impl().db());
  EXPECT_EQ(&first.impl().db(), store::Connection(uid_, false).get());
  uint32_t bob = UserStore::Add("bob", "pw", false, "localdomain");
  ASSERT_TRUE(db::DBSetupHandler(bob).SetupDB());
  EXPECT_NE(&control::Controller(bob).impl().db(), &first.impl().db());

  // A controller keeps its connection when the shared ones are dropped.
  store::Database& held = first.impl().db();
  store::CloseConnections();
  EXPECT_EQ(held.QueryInt("SELECT count(*) FROM mailbox"), 0);
  EXPECT_NE(store::Connection(uid_, false).get(), &held);
}

TEST_F(CoreTest, WriteAheadLogFilesOutliveTheLastConnection) {
  ASSERT_TRUE(db::DBSetupHandler(uid_).SetupDB());
  {
    control::Controller controller(uid_);
    control::MailboxSyncer::CheckDefaultMailbox(controller);
  }
  store::CloseConnections();  // the last connection closes
  struct stat wal;
  ASSERT_EQ(stat((store::StorePath(uid_) + "-wal").c_str(), &wal), 0);
  EXPECT_EQ(wal.st_size, 0);  // checkpointed and emptied, not deleted
  EXPECT_TRUE(std::ifstream(store::StorePath(uid_) + "-shm").good());
  EXPECT_EQ(Store().QueryInt("SELECT count(*) FROM mailbox"), constant::kBuiltinMailboxCount);
}

TEST_F(CoreTest, UpToDateStoreIsSetUpWithoutTakingTheWriteLock) {
  ASSERT_TRUE(db::DBSetupHandler(uid_).SetupDB());
  store::CloseConnections();
  sqlite::Database writer = Store();
  writer.Exec("PRAGMA busy_timeout = 0");
  sqlite::Transaction busy(writer);  // another process in the middle of a change
  auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(db::DBSetupHandler(uid_).DoesDBExist());
  EXPECT_TRUE(db::DBSetupHandler(uid_).SetupDB());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

TEST_F(CoreTest, LookingForAMissingStoreCreatesNothing) {
  EXPECT_FALSE(db::DBSetupHandler(uid_).DoesDBExist());
  EXPECT_FALSE(IsDir(::larkpost::appliance::UserDir(uid_)));
  control::Controller controller(uid_);
  EXPECT_EQ(CodeOf([&] { controller.impl().db(); }), kErrorDatabase);
  EXPECT_FALSE(IsDir(::larkpost::appliance::UserDir(uid_)));
  ASSERT_TRUE(db::DBSetupHandler(uid_).SetupDB());  // makes the folder it needs
  EXPECT_TRUE(db::DBSetupHandler(uid_).DoesDBExist());
}

TEST_F(CoreTest, TransactionRollsBackUnlessCommitted) {
  ASSERT_TRUE(db::DBSetupHandler(uid_).SetupDB());
  control::Controller controller(uid_);
  store::Database& db = controller.impl().db();
  {
    store::Transaction transaction(db);
    db.Exec("INSERT INTO mailbox(raw_path) VALUES ('Lost')");
  }
  {
    store::Transaction transaction(db);
    db.Exec("INSERT INTO mailbox(raw_path) VALUES ('Kept')");
    transaction.Commit();
  }
  EXPECT_EQ(Store().QueryInt("SELECT count(*) FROM mailbox WHERE raw_path = 'Lost'"), 0);
  EXPECT_EQ(Store().QueryInt("SELECT count(*) FROM mailbox WHERE raw_path = 'Kept'"), 1);
}

// ------------------------------------------------------------- schema

TEST_F(CoreTest, SetupCreatesAFreshStore) {
  db::DBSetupHandler setup(uid_);
  EXPECT_FALSE(setup.DoesDBExist());
  ASSERT_TRUE(setup.SetupDB());
  EXPECT_TRUE(setup.DoesDBExist());
  sqlite::Database db = Store();
  EXPECT_GE(db.QueryInt("PRAGMA user_version"), 1);
  EXPECT_EQ(db.QueryInt("SELECT count(*) FROM sqlite_master WHERE name IN ('mailbox', 'message')"),
            2);
}

TEST_F(CoreTest, SetupKeepsAnExistingStore) {
  ASSERT_TRUE(db::DBSetupHandler(uid_).SetupDB());
  Store().Exec("INSERT INTO mailbox(raw_path) VALUES ('Work')");
  int64_t version = Store().QueryInt("PRAGMA user_version");
  EXPECT_TRUE(db::DBSetupHandler(uid_).SetupDB());
  EXPECT_EQ(Store().QueryInt("PRAGMA user_version"), version);
  EXPECT_EQ(Store().QueryInt("SELECT count(*) FROM mailbox WHERE raw_path = 'Work'"), 1);
}

TEST_F(CoreTest, SetupUpgradesAStoreOfAnOlderVersion) {
  // A store that exists but that no migration has touched yet.
  ASSERT_TRUE(::larkpost::appliance::MakeDirs(::larkpost::appliance::UserDir(uid_)));
  {
    sqlite::OpenOptions options;
    options.create = true;
    sqlite::Database db(store::StorePath(uid_), options);
    db.Exec("CREATE TABLE note(text TEXT); INSERT INTO note VALUES ('kept')");
  }
  db::DBSetupHandler setup(uid_);
  EXPECT_FALSE(setup.DoesDBExist());
  ASSERT_TRUE(setup.SetupDB());
  EXPECT_TRUE(setup.DoesDBExist());
  EXPECT_EQ(Store().QueryInt("SELECT count(*) FROM note"), 1);
  EXPECT_EQ(Store().QueryInt("SELECT count(*) FROM sqlite_master WHERE name = 'message'"), 1);
}

TEST_F(CoreTest, FailedMigrationLeavesNothingBehind) {
  ASSERT_TRUE(::larkpost::appliance::MakeDirs(::larkpost::appliance::UserDir(uid_)));
  {
    sqlite::OpenOptions options;
    options.create = true;
    sqlite::Database db(store::StorePath(uid_), options);
    db.Exec("CREATE TABLE message(x)");  // in the way of migration 1
  }
  EXPECT_FALSE(db::DBSetupHandler(uid_).SetupDB());
  EXPECT_EQ(Store().QueryInt("PRAGMA user_version"), 0);
  EXPECT_EQ(Store().QueryInt("SELECT count(*) FROM sqlite_master WHERE name = 'mailbox'"), 0);
}

TEST_F(CoreTest, SetupRefusesNewerStoresUnknownUsersAndDamage) {
  ASSERT_TRUE(db::DBSetupHandler(uid_).SetupDB());
  Store().Exec("PRAGMA user_version = 9999");
  EXPECT_FALSE(db::DBSetupHandler(uid_).SetupDB());
  EXPECT_EQ(Store().QueryInt("PRAGMA user_version"), 9999);

  EXPECT_FALSE(db::DBSetupHandler(kUnknownUid).SetupDB());
  EXPECT_FALSE(db::DBSetupHandler(kUnknownUid).DoesDBExist());

  uint32_t bob = UserStore::Add("bob", "pw", false, "localdomain");
  root_.Write("mail/" + std::to_string(bob) + "/larkpost.db", std::string(8192, 'x'));
  EXPECT_FALSE(db::DBSetupHandler(bob).DoesDBExist());
  EXPECT_FALSE(db::DBSetupHandler(bob).SetupDB());
}

// ------------------------------------------------------------- mailboxes

class MailboxTest : public CoreTest {
 protected:
  MailboxTest() { EXPECT_TRUE(db::DBSetupHandler(uid_).SetupDB()); }

  void AddMessage(int mailbox, bool read, bool star, int type = 0) {
    sqlite::Database db = Store();
    sqlite::Statement insert(db,
                             "INSERT INTO message(mailbox_id, is_read, star, type) "
                             "VALUES (?1, ?2, ?3, ?4)");
    insert.Bind(1, mailbox).Bind(2, read).Bind(3, star).Bind(4, type);
    insert.Run();
  }

  // id, message_count, unread_count, draft_count of each mailbox, by id.
  std::vector<std::vector<int64_t>> Counters() {
    sqlite::Database db = Store();
    sqlite::Statement all(
        db, "SELECT id, message_count, unread_count, draft_count FROM mailbox ORDER BY id");
    std::vector<std::vector<int64_t>> rows;
    while (all.Step()) rows.push_back({all.Int64(0), all.Int64(1), all.Int64(2), all.Int64(3)});
    return rows;
  }
};

TEST_F(MailboxTest, DefaultMailboxesGetTheirFixedIdsOnce) {
  control::Controller controller(uid_);
  control::MailboxSyncer::CheckDefaultMailbox(controller);
  control::MailboxSyncer::CheckDefaultMailbox(controller);

  sqlite::Database db = Store();
  sqlite::Statement all(db, "SELECT id, raw_path, builtin, parent_id FROM mailbox ORDER BY id");
  const char* const names[] = {"INBOX", "Drafts", "Sent", "Archived", "Junk", "Trash", "Starred"};
  for (int kind = 0; kind < constant::kBuiltinMailboxCount; ++kind) {
    ASSERT_TRUE(all.Step());
    EXPECT_EQ(all.Int64(0), kind + 1);
    EXPECT_EQ(all.Text(1), names[kind]);
    EXPECT_EQ(all.Int64(2), kind);
    EXPECT_TRUE(all.IsNull(3));
  }
  EXPECT_FALSE(all.Step());
  EXPECT_EQ(control::DefaultMailbox::id<constant::kJunk>(), 5);
  EXPECT_EQ(control::DefaultMailbox::id<constant::kTrash>(), 6);
}

TEST_F(MailboxTest, MissingDefaultMailboxIsPutBackAndUserMailboxesComeAfter) {
  // A user mailbox made before the check still gets an id above the built-ins.
  Store().Exec("INSERT INTO mailbox(raw_path) VALUES ('Work')");
  control::Controller controller(uid_);
  control::MailboxSyncer::CheckDefaultMailbox(controller);
  EXPECT_EQ(Store().QueryInt("SELECT id FROM mailbox WHERE raw_path = 'Work'"), 8);
  Store().Exec("DELETE FROM mailbox WHERE id = 4");
  control::MailboxSyncer::CheckDefaultMailbox(controller);
  EXPECT_EQ(Store().QueryInt("SELECT builtin FROM mailbox WHERE id = 4"), constant::kArchived);
  Store().Exec("INSERT INTO mailbox(raw_path) VALUES ('Play')");
  EXPECT_EQ(Store().QueryInt("SELECT id FROM mailbox WHERE raw_path = 'Play'"), 9);
}

TEST_F(MailboxTest, DefaultMailboxCheckFailsWholeOrNotAtAll) {
  // A top-level user mailbox already called "Trash" blocks the built-in one.
  Store().Exec("INSERT INTO mailbox(raw_path) VALUES ('Trash')");
  control::Controller controller(uid_);
  EXPECT_EQ(CodeOf([&] { control::MailboxSyncer::CheckDefaultMailbox(controller); }),
            kErrorDatabase);
  EXPECT_EQ(Store().QueryInt("SELECT count(*) FROM mailbox"), 1);
}

TEST_F(MailboxTest, UpdateAllMailboxRecountsFromTheMessages) {
  control::Controller controller(uid_);
  control::MailboxSyncer::CheckDefaultMailbox(controller);
  Store().Exec("INSERT INTO mailbox(raw_path) VALUES ('Work')");
  AddMessage(1, false, false);
  AddMessage(1, true, true);
  AddMessage(1, false, true);
  AddMessage(2, true, false, 1);
  AddMessage(2, false, false, 1);
  AddMessage(5, false, true);  // starred junk is not in Starred
  AddMessage(6, false, true);  // nor is starred trash
  AddMessage(8, true, false);

  ASSERT_TRUE(control::UpdateControl(controller).UpdateAllMailbox(false));
  std::vector<std::vector<int64_t>> want = {
      {1, 3, 2, 0}, {2, 2, 1, 2}, {3, 0, 0, 0}, {4, 0, 0, 0},
      {5, 1, 1, 0}, {6, 1, 1, 0}, {7, 2, 1, 0}, {8, 1, 0, 0},
  };
  EXPECT_EQ(Counters(), want);
  EXPECT_EQ(root_.Read("log/notify.log"), "");

  Store().Exec(
      "UPDATE message SET is_read = 1 WHERE mailbox_id = 1; DELETE FROM message "
      "WHERE mailbox_id = 8");
  ASSERT_TRUE(control::UpdateControl(controller).UpdateAllMailbox(true));
  want[0] = {1, 3, 0, 0};
  want[6] = {7, 2, 0, 0};
  want[7] = {8, 0, 0, 0};
  EXPECT_EQ(Counters(), want);
  EXPECT_NE(root_.Read("log/notify.log").find(" " + std::to_string(uid_) + " 0\n"),
            std::string::npos);
}

TEST_F(MailboxTest, UpdateAllMailboxWithoutAStoreReportsFalse) {
  uint32_t bob = UserStore::Add("bob", "pw", false, "localdomain");
  control::Controller controller(bob);
  EXPECT_FALSE(control::UpdateControl(controller).UpdateAllMailbox(true));
  EXPECT_EQ(root_.Read("log/notify.log"), "");
}

// ------------------------------------------------------------- sync, config

TEST_F(CoreTest, TriggerSyncRecordsEachRequestInOrder) {
  ::larkpost::testing::FakeClock clock(1700000000);
  control::Controller controller(uid_);
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

  EXPECT_EQ(CodeOf([&] { syncer.TriggerSync(static_cast<constant::SyncType>(4)); }),
            kErrorInvalidArgument);
  ::remove((root_.path() + "/log/sync.log").c_str());
  ::remove((root_.path() + "/log").c_str());
  root_.Write("log", "a file where the log folder should be");
  // This process still holds the old log open; the next one would not.
  ::larkpost::appliance::ResetForTesting();
  EXPECT_EQ(CodeOf([&] { syncer.TriggerSync(constant::kSyncFilter); }), kErrorStorage);
}

TEST_F(CoreTest, MailServerKeysComeFromTheConfiguration) {
  EXPECT_EQ(GetMailServerKey("smtp_enabled"), "no");
  EXPECT_EQ(GetMailServerKey("fts_enabled"), "yes");
  EXPECT_EQ(GetMailServerKey("smtp_hostname"), "");
  EXPECT_EQ(GetMailServerKey("no_such_key"), "");

  root_.Write("etc/larkpost.json",
              R"({"mail_server": {"smtp_enabled": "yes", "smtp_hostname": "mx.example.org"}})");
  ::larkpost::appliance::detail::ForgetConfig();
  EXPECT_EQ(GetMailServerKey("smtp_enabled"), "yes");
  EXPECT_EQ(GetMailServerKey("smtp_hostname"), "mx.example.org");
  EXPECT_EQ(GetMailServerKey("fts_enabled"), "yes");

  root_.Write("etc/larkpost.json", R"({"mail_server": []})");
  ::larkpost::appliance::detail::ForgetConfig();
  EXPECT_EQ(CodeOf([] { GetMailServerKey("smtp_enabled"); }), kErrorConfiguration);
}

}  // namespace
}  // namespace ornic::larkpost
