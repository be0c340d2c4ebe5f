#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sodium.h>
#include <sys/stat.h>

#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "appliance/system/appliance.h"
#include "appliance/system/session_store.h"
#include "tests/system/temp_root.h"

namespace larkpost::appliance {
namespace {

// The names in `dir`, without "." and "..".
std::set<std::string> List(const std::string& dir) {
  std::set<std::string> names;
  if (DIR* handle = opendir(dir.c_str())) {
    while (const dirent* entry = readdir(handle)) names.insert(entry->d_name);
    closedir(handle);
  }
  names.erase(".");
  names.erase("..");
  return names;
}

class SessionStoreTest : public ::testing::Test {
 protected:
  // The session's file, below the data root.
  static std::string FileOf(const std::string& id) {
    return "run/current.users/" + sessions::FileName(id);
  }
  struct stat Stat(const std::string& relative) const {
    struct stat info {};
    EXPECT_EQ(stat((root_.path() + "/" + relative).c_str(), &info), 0) << relative;
    return info;
  }

  testing::TempRoot root_;
  testing::FakeClock clock_;
  UserRecord alice_{1026, "alice", "example.org", true};
};

TEST_F(SessionStoreTest, LookupFindsTheSessionByItsExactIdOnly) {
  Session created = SessionStore::Create(alice_);
  // The largest values an account can have still fit a session's file.
  Session widest = SessionStore::Create({4294967294u, std::string(64, 'z'), std::string(253, 'd')});
  EXPECT_EQ(created.id.size(), 64u);
  EXPECT_EQ(created.token.size(), 32u);
  EXPECT_EQ((created.id + created.token).find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_NE(created.id, widest.id);
  EXPECT_NE(created.token, widest.token);
  for (const Session& session : {created, widest}) {
    std::optional<Session> found = SessionStore::Lookup(session.id, 1800, false);
    ASSERT_TRUE(found);
    EXPECT_EQ(sessions::FormatRecord(*found), sessions::FormatRecord(session));  // token, user
    EXPECT_EQ(found->last_seen, clock_.now());
  }
  for (const std::string& id : {created.token, created.id + "0", "../" + created.id.substr(3)}) {
    EXPECT_FALSE(SessionStore::Lookup(id, 1800, false)) << id;
  }
}

TEST_F(SessionStoreTest, IdleSessionsExpireAndRefreshWritesAtMostOncePerMinute) {
  Session kept = SessionStore::Create(alice_);
  Session left = SessionStore::Create(alice_);
  const int64_t start = clock_.now();
  const std::string record = root_.Read(FileOf(kept.id));
  clock_.Advance(30);  // too soon to be worth a write
  EXPECT_EQ(SessionStore::Lookup(kept.id, 100, true).value().last_seen, start);
  EXPECT_EQ(Stat(FileOf(kept.id)).st_mtim.tv_sec, start);
  clock_.Advance(40);
  EXPECT_TRUE(SessionStore::Lookup(left.id, 100, false));
  EXPECT_EQ(SessionStore::Lookup(kept.id, 100, true).value().last_seen, start + 70);
  EXPECT_EQ(Stat(FileOf(kept.id)).st_mtim.tv_sec, start + 70);
  EXPECT_EQ(root_.Read(FileOf(kept.id)), record);  // only the time stamp moves

  clock_.Advance(29);
  EXPECT_TRUE(SessionStore::Lookup(left.id, 100, false));
  EXPECT_FALSE(SessionStore::Lookup(left.id, 99, false));  // another caller's time-out
  clock_.Advance(1);  // 100 s: the lookups without refresh did not keep it alive
  EXPECT_FALSE(SessionStore::Lookup(left.id, 100, false));
  EXPECT_TRUE(SessionStore::Lookup(kept.id, 100, false));
  clock_.Advance(70);
  EXPECT_FALSE(SessionStore::Lookup(kept.id, 100, true));
}

TEST_F(SessionStoreTest, RemoveEndsOneSessionAndTheStoreKeepsOnlyHashesOfIds) {
  Session first = SessionStore::Create(alice_);
  Session second = SessionStore::Create(alice_);
  EXPECT_TRUE(SessionStore::Remove(first.id));
  EXPECT_FALSE(SessionStore::Remove(first.id));
  EXPECT_FALSE(SessionStore::Remove("not a session id"));
  EXPECT_FALSE(SessionStore::Lookup(first.id, 1800, false));
  EXPECT_TRUE(SessionStore::Lookup(second.id, 1800, false));

  unsigned char hash[crypto_generichash_BYTES];
  crypto_generichash(hash, sizeof hash, reinterpret_cast<const unsigned char*>(second.id.data()),
                     second.id.size(), nullptr, 0);
  char hex[2 * sizeof hash + 1];
  sodium_bin2hex(hex, sizeof hex, hash, sizeof hash);
  EXPECT_EQ(List(RunDir() + "/current.users"), std::set<std::string>{hex});
  std::string record = root_.Read(FileOf(second.id));
  EXPECT_NE(record.find(second.token), std::string::npos);
  EXPECT_EQ(record.find(second.id), std::string::npos);
  EXPECT_EQ(Stat("run/current.users").st_mode & 0777, 0700u);
  EXPECT_EQ(Stat(FileOf(second.id)).st_mode & 0777, 0600u);
}

TEST_F(SessionStoreTest, CreatePurgesExpiredSessionsAndDeadWritersLeftovers) {
  root_.Write("etc/larkpost.json", R"({"session_timeout": 100})");
  Session expiring = SessionStore::Create(alice_);
  clock_.Advance(50);
  Session recent = SessionStore::Create(alice_);
  std::string leftover = "run/current.users/." + std::string(64, 'a') + ".tmp";
  root_.Write(leftover, "half a record");
  struct timespec old_times[2] = {{clock_.now() - 61, 0}, {clock_.now() - 61, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, (root_.path() + "/" + leftover).c_str(), old_times, 0), 0);
  root_.Write("run/current.users/notes", "not ours: left alone");
  clock_.Advance(60);  // the first is 110 s idle, the second 60 s
  Session newest = SessionStore::Create(alice_);
  EXPECT_EQ(List(RunDir() + "/current.users"),
            (std::set<std::string>{sessions::FileName(recent.id), sessions::FileName(newest.id),
                                   "notes"}));
}

TEST_F(SessionStoreTest, OnlyALiveSessionTellsTheUserStoreItsAccount) {
  Session session = SessionStore::Create(alice_);  // no account was ever added
  clock_.Advance(100);
  ASSERT_FALSE(SessionStore::Lookup(session.id, 100, false));
  EXPECT_FALSE(UserStore::FindByName("alice"));
  ASSERT_TRUE(SessionStore::Lookup(session.id, 1000, false));
  EXPECT_EQ(UserStore::FindByName("alice").value().domain, "example.org");
  EXPECT_TRUE(UserStore::FindByUid(1026).value().is_admin);
  EXPECT_FALSE(UserStore::Verify("alice", "anything"));  // the password is the database's
}

TEST(SessionRecordTest, RefusesAnythingButWhatItWrites) {
  Session session;
  session.token = "0123456789abcdef0123456789abcdef";
  session.user = {1026, "alice"};
  session.created = 1700000000;
  const std::string good = sessions::FormatRecord(session);
  ASSERT_TRUE(sessions::ParseRecord(good));
  for (size_t size = 0; size < good.size(); ++size) {
    EXPECT_FALSE(sessions::ParseRecord(good.substr(0, size))) << size;
  }
  const std::pair<const char*, const char*> edits[] = {
      {"end\n", "end\nx"},
      {"larkpost-session 1", "larkpost-session 2"},
      {"uid 1026\nname alice", "name alice\nuid 1026"},
      {"uid 1026", "uid 01026"},
      {"uid 1026", "uid 4294967296"},
      {"name alice", "name ../alice"},
      {"domain localdomain", "domain local domain"},
      {"admin 0", "admin 2"},
      {"token 0123456789abcdef", "token 0123456789ABCDEF"},
      {"created 1700000000", "created 99999999999999999999"},
      {"\nend\n", "\nend\r\n"}};
  for (const auto& [from, to] : edits) {
    std::string bad = good;
    ASSERT_NE(bad.find(from), std::string::npos) << from;
    EXPECT_FALSE(sessions::ParseRecord(bad.replace(bad.find(from), strlen(from), to))) << bad;
  }
  EXPECT_FALSE(sessions::ParseRecord(std::string("SQLite format 3\0", 16)));
}

TEST_F(SessionStoreTest, DamagedSessionFileIsNoSessionButAStoreFailure) {
  Session session = SessionStore::Create(alice_);
  std::string record = root_.Read(FileOf(session.id));
  for (const std::string& damaged :
       {record.substr(0, record.size() / 2), record + std::string(2000, '\n')}) {
    root_.Write(FileOf(session.id), damaged);
    EXPECT_FALSE(SessionStore::Lookup(session.id, 1800, false));
    EXPECT_THROW(sessions::Lookup(RunDir() + "/current.users", session.id, 1800, false, nullptr),
                 std::runtime_error);
  }
  root_.Write(FileOf(session.id), record);
  EXPECT_TRUE(SessionStore::Lookup(session.id, 1800, false));
}

}  // namespace
}  // namespace larkpost::appliance
