#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sodium.h>
#include <sys/stat.h>

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "appliance/system/appliance.h"
#include "appliance/system/session_store.h"
#include "tests/system/temp_root.h"

namespace larkpost::appliance {
namespace {

bool IsLowerHex(const std::string& text) {
  return text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// The names in `dir`, without "." and "..".
std::set<std::string> List(const std::string& dir) {
  std::set<std::string> names;
  if (DIR* handle = opendir(dir.c_str())) {
    while (const dirent* entry = readdir(handle)) {
      std::string name = entry->d_name;
      if (name != "." && name != "..") names.insert(name);
    }
    closedir(handle);
  }
  return names;
}

class SessionStoreTest : public ::testing::Test {
 protected:
  SessionStoreTest() {
    alice_.uid = 1026;
    alice_.name = "alice";
    alice_.domain = "example.org";
    alice_.is_admin = true;
  }

  std::string Store() const { return RunDir() + "/current.users"; }
  std::string FileOf(const Session& session) const {
    return Store() + "/" + sessions::FileName(session.id);
  }
  int64_t MtimeOf(const Session& session) const {
    struct stat info;
    return stat(FileOf(session).c_str(), &info) == 0 ? info.st_mtim.tv_sec : -1;
  }

  testing::TempRoot root_;
  testing::FakeClock clock_;
  UserRecord alice_;
};

TEST_F(SessionStoreTest, CreateGivesFreshRandomIdsAndTokens) {
  std::set<std::string> seen;
  for (int i = 0; i < 3; ++i) {
    Session session = SessionStore::Create(alice_);
    EXPECT_EQ(session.id.size(), 64u);
    EXPECT_EQ(session.token.size(), 32u);
    EXPECT_TRUE(IsLowerHex(session.id) && IsLowerHex(session.token));
    EXPECT_TRUE(seen.insert(session.id).second);
    EXPECT_TRUE(seen.insert(session.token).second);
    EXPECT_EQ(session.created, clock_.now());
    EXPECT_EQ(session.last_seen, clock_.now());
  }
}

TEST_F(SessionStoreTest, LookupFindsTheSessionWithItsUser) {
  Session created = SessionStore::Create(alice_);
  std::optional<Session> found = SessionStore::Lookup(created.id, 1800, false);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->id, created.id);
  EXPECT_EQ(found->token, created.token);
  EXPECT_EQ(found->user.uid, 1026u);
  EXPECT_EQ(found->user.name, "alice");
  EXPECT_EQ(found->user.domain, "example.org");
  EXPECT_TRUE(found->user.is_admin);
  EXPECT_EQ(found->created, created.created);
  EXPECT_EQ(found->last_seen, created.created);

  std::string other = created.id;
  other[0] = other[0] == 'a' ? 'b' : 'a';
  std::string upper = created.id;
  for (char& c : upper) c = static_cast<char>(toupper(c));
  for (const std::string& id : {other, std::string(), created.id.substr(1), created.token,
                                created.id + "0", std::string("../") + created.id.substr(3)}) {
    EXPECT_FALSE(SessionStore::Lookup(id, 1800, false)) << id;
  }
  if (upper != created.id) {
    EXPECT_FALSE(SessionStore::Lookup(upper, 1800, false));
  }
}

TEST_F(SessionStoreTest, NoStoreMeansNoSession) {
  EXPECT_FALSE(SessionStore::Lookup(std::string(64, 'a'), 1800, true));
  EXPECT_FALSE(SessionStore::Remove(std::string(64, 'a')));
  EXPECT_TRUE(List(RunDir()).empty());  // neither call made the store
}

TEST_F(SessionStoreTest, SessionExpiresAfterTheTimeoutOfInactivity) {
  Session session = SessionStore::Create(alice_);
  clock_.Advance(9);
  EXPECT_TRUE(SessionStore::Lookup(session.id, 10, false));
  clock_.Advance(1);
  EXPECT_FALSE(SessionStore::Lookup(session.id, 10, false));
  EXPECT_TRUE(SessionStore::Lookup(session.id, 11, false));  // another caller's timeout
}

TEST_F(SessionStoreTest, RefreshWritesAtMostOncePerMinute) {
  Session session = SessionStore::Create(alice_);
  int64_t start = clock_.now();
  std::string record = root_.Read("run/current.users/" + sessions::FileName(session.id));

  clock_.Advance(30);
  std::optional<Session> found = SessionStore::Lookup(session.id, 100, true);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->last_seen, start);  // too soon to be worth a write
  EXPECT_EQ(MtimeOf(session), start);

  clock_.Advance(40);  // 70 s idle
  found = SessionStore::Lookup(session.id, 100, true);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->last_seen, start + 70);
  EXPECT_EQ(MtimeOf(session), start + 70);
  // Only the time stamp moves; the record is never rewritten.
  EXPECT_EQ(root_.Read("run/current.users/" + sessions::FileName(session.id)), record);

  clock_.Advance(90);  // 160 s after creation, 90 s after the refresh
  EXPECT_TRUE(SessionStore::Lookup(session.id, 100, false));
  clock_.Advance(10);
  EXPECT_FALSE(SessionStore::Lookup(session.id, 100, true));
}

TEST_F(SessionStoreTest, LookupWithoutRefreshKeepsTheTimer) {
  Session session = SessionStore::Create(alice_);
  clock_.Advance(70);
  ASSERT_TRUE(SessionStore::Lookup(session.id, 100, false));
  clock_.Advance(30);
  EXPECT_FALSE(SessionStore::Lookup(session.id, 100, false));
}

TEST_F(SessionStoreTest, RemoveEndsOnlyThatSession) {
  Session first = SessionStore::Create(alice_);
  Session second = SessionStore::Create(alice_);
  EXPECT_TRUE(SessionStore::Remove(first.id));
  EXPECT_FALSE(SessionStore::Remove(first.id));
  EXPECT_FALSE(SessionStore::Lookup(first.id, 1800, false));
  EXPECT_TRUE(SessionStore::Lookup(second.id, 1800, false));
  EXPECT_FALSE(SessionStore::Remove("not a session id"));
  EXPECT_EQ(List(Store()), std::set<std::string>{sessions::FileName(second.id)});
}

TEST_F(SessionStoreTest, StoreKeepsAHashOfTheIdNeverTheId) {
  Session session = SessionStore::Create(alice_);
  unsigned char expected[crypto_generichash_BYTES];
  crypto_generichash(expected, sizeof expected,
                     reinterpret_cast<const unsigned char*>(session.id.data()), session.id.size(),
                     nullptr, 0);
  char hex[2 * sizeof expected + 1];
  sodium_bin2hex(hex, sizeof hex, expected, sizeof expected);
  EXPECT_EQ(List(Store()), std::set<std::string>{hex});
  std::string record = root_.Read("run/current.users/" + std::string(hex));
  EXPECT_NE(record.find(session.token), std::string::npos);
  EXPECT_EQ(record.find(session.id), std::string::npos);

  struct stat info;
  ASSERT_EQ(stat(Store().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
  ASSERT_EQ(stat(FileOf(session).c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST_F(SessionStoreTest, CreatePurgesExpiredSessionsAndDeadWritersLeftovers) {
  root_.Write("etc/larkpost.json", R"({"session_timeout": 100})");
  Session old_session = SessionStore::Create(alice_);
  clock_.Advance(50);
  Session recent = SessionStore::Create(alice_);
  root_.Write("run/current.users/." + std::string(64, 'a') + ".tmp", "half a record");
  std::string leftover = Store() + "/." + std::string(64, 'a') + ".tmp";
  struct timespec old_times[2] = {{clock_.now() - 61, 0}, {clock_.now() - 61, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, leftover.c_str(), old_times, 0), 0);
  root_.Write("run/current.users/notes", "not ours: left alone");
  clock_.Advance(60);  // the first is 110 s idle, the second 60 s
  Session newest = SessionStore::Create(alice_);
  EXPECT_EQ(List(Store()), (std::set<std::string>{sessions::FileName(recent.id),
                                                  sessions::FileName(newest.id), "notes"}));
  EXPECT_FALSE(SessionStore::Lookup(old_session.id, 1000, false));
  EXPECT_TRUE(SessionStore::Lookup(recent.id, 1000, false));
}

TEST_F(SessionStoreTest, StoreOfTheOldSingleFileKindIsReplaced) {
  root_.Write("run/current.users", "SQLite format 3");
  root_.Write("run/current.users-wal", "log");
  Session session = SessionStore::Create(alice_);
  EXPECT_TRUE(SessionStore::Lookup(session.id, 1800, false));
  EXPECT_EQ(List(RunDir()), std::set<std::string>{"current.users"});
}

TEST_F(SessionStoreTest, LiveSessionTellsTheUserStoreItsAccount) {
  // No account was ever added: only the session knows alice.
  ASSERT_FALSE(UserStore::FindByUid(1026));
  Session session = SessionStore::Create(alice_);
  ASSERT_FALSE(UserStore::FindByUid(1026));
  clock_.Advance(100);
  ASSERT_FALSE(SessionStore::Lookup(session.id, 100, false));  // expired: tells nothing
  ASSERT_FALSE(UserStore::FindByName("alice"));
  ASSERT_TRUE(SessionStore::Lookup(session.id, 1000, false));
  std::optional<UserRecord> by_uid = UserStore::FindByUid(1026);
  ASSERT_TRUE(by_uid);
  EXPECT_EQ(by_uid->name, "alice");
  EXPECT_EQ(by_uid->domain, "example.org");
  EXPECT_TRUE(by_uid->is_admin);
  std::optional<UserRecord> by_name = UserStore::FindByName("alice");
  ASSERT_TRUE(by_name);
  EXPECT_EQ(by_name->uid, 1026u);
  EXPECT_FALSE(UserStore::Verify("alice", "anything"));  // the password is the database's
}

// ------------------------------------------------------------- record format

TEST(SessionRecordTest, RoundTripsEveryField) {
  Session session;
  session.token = std::string(32, 'f');
  session.user.uid = 4294967294u;
  session.user.name = std::string(64, 'z');
  session.user.domain = std::string(253, 'd');
  session.user.is_admin = true;
  session.created = 1700000000;
  std::optional<Session> read = sessions::ParseRecord(sessions::FormatRecord(session));
  ASSERT_TRUE(read);
  EXPECT_EQ(read->token, session.token);
  EXPECT_EQ(read->user.uid, session.user.uid);
  EXPECT_EQ(read->user.name, session.user.name);
  EXPECT_EQ(read->user.domain, session.user.domain);
  EXPECT_TRUE(read->user.is_admin);
  EXPECT_EQ(read->created, session.created);
}

TEST(SessionRecordTest, RefusesTruncatedForeignAndAlteredRecords) {
  Session session;
  session.token = "0123456789abcdef0123456789abcdef";
  session.user.uid = 1026;
  session.user.name = "alice";
  session.created = 1700000000;
  const std::string good = sessions::FormatRecord(session);
  ASSERT_TRUE(sessions::ParseRecord(good));
  // Every cut of a record, however it was cut, is refused.
  for (size_t size = 0; size < good.size(); ++size) {
    EXPECT_FALSE(sessions::ParseRecord(good.substr(0, size))) << size;
  }
  auto with = [&](const std::string& from, const std::string& to) {
    std::string text = good;
    size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
  };
  for (const std::string& bad : {
           good + "x",                                            // something after the end
           with("larkpost-session 1", "larkpost-session 2"),      // another version
           with("uid 1026\nname alice", "name alice\nuid 1026"),  // fields out of order
           with("uid 1026", "uid 01026"),                         // not as we write numbers
           with("uid 1026", "uid -1"),
           with("uid 1026", "uid 4294967296"),   // beyond a uid
           with("name alice", "name ../alice"),  // not a user name
           with("name alice", "name "),
           with("domain localdomain", "domain local domain"),
           with("admin 0", "admin 2"),
           with("token 0123456789abcdef", "token 0123456789ABCDEF"),
           with("created 1700000000", "created 99999999999999999999"),
           with("\nend\n", "\nend\r\n"),
           std::string("SQLite format 3\0", 16),
           std::string(),
       }) {
    EXPECT_FALSE(sessions::ParseRecord(bad)) << bad;
  }
}

TEST_F(SessionStoreTest, DamagedSessionFileIsNoSession) {
  Session session = SessionStore::Create(alice_);
  std::string name = "run/current.users/" + sessions::FileName(session.id);
  std::string record = root_.Read(name);
  root_.Write(name, record.substr(0, record.size() / 2));
  EXPECT_FALSE(SessionStore::Lookup(session.id, 1800, false));
  EXPECT_THROW(sessions::Lookup(Store(), session.id, 1800, false, nullptr), std::runtime_error);
  root_.Write(name, record + std::string(2000, '\n'));  // too large to be ours
  EXPECT_THROW(sessions::Lookup(Store(), session.id, 1800, false, nullptr), std::runtime_error);
  root_.Write(name, record);
  EXPECT_TRUE(SessionStore::Lookup(session.id, 1800, false));
}

}  // namespace
}  // namespace larkpost::appliance
