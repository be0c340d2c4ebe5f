#include <gtest/gtest.h>
#include <sodium.h>

#include <optional>
#include <set>
#include <string>

#include "appliance/system/appliance.h"
#include "appliance/system/sqlite.h"
#include "tests/system/temp_root.h"

namespace larkpost::appliance {
namespace {

bool IsLowerHex(const std::string& text) {
  return text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

class SessionStoreTest : public ::testing::Test {
 protected:
  SessionStoreTest() {
    alice_.uid = 1026;
    alice_.name = "alice";
    alice_.domain = "example.org";
    alice_.is_admin = true;
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

  std::string other = created.id;
  other[0] = other[0] == 'a' ? 'b' : 'a';
  for (const std::string& id : {other, std::string(), created.id.substr(1), created.token}) {
    EXPECT_FALSE(SessionStore::Lookup(id, 1800, false)) << id;
  }
  std::string upper = created.id;
  for (char& c : upper) c = static_cast<char>(toupper(c));
  if (upper != created.id) {
    EXPECT_FALSE(SessionStore::Lookup(upper, 1800, false));
  }
}

TEST_F(SessionStoreTest, NoStoreMeansNoSession) {
  EXPECT_FALSE(SessionStore::Lookup(std::string(64, 'a'), 1800, true));
  EXPECT_FALSE(SessionStore::Remove(std::string(64, 'a')));
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

  clock_.Advance(30);
  std::optional<Session> found = SessionStore::Lookup(session.id, 100, true);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->last_seen, start);  // too soon to be worth a write

  clock_.Advance(40);  // 70 s idle
  found = SessionStore::Lookup(session.id, 100, true);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->last_seen, start + 70);

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
}

TEST_F(SessionStoreTest, StoreKeepsAHashOfTheIdNeverTheId) {
  Session session = SessionStore::Create(alice_);
  std::string store = RunDir() + "/current.users";
  std::string bytes = root_.Read("run/current.users") + root_.Read("run/current.users-wal");
  EXPECT_EQ(bytes.find(session.id), std::string::npos);

  unsigned char expected[crypto_generichash_BYTES];
  crypto_generichash(expected, sizeof expected,
                     reinterpret_cast<const unsigned char*>(session.id.data()), session.id.size(),
                     nullptr, 0);
  sqlite::Database db(store, sqlite::OpenOptions{});
  sqlite::Statement keys(db, "SELECT hex(key) FROM session");
  ASSERT_TRUE(keys.Step());
  char hex[2 * sizeof expected + 1];
  sodium_bin2hex(hex, sizeof hex, expected, sizeof expected);
  std::string want(hex);
  for (char& c : want) c = static_cast<char>(toupper(c));
  EXPECT_EQ(keys.Text(0), want);
  EXPECT_FALSE(keys.Step());
}

TEST_F(SessionStoreTest, CreatePurgesExpiredSessions) {
  root_.Write("etc/larkpost.json", R"({"session_timeout": 100})");
  Session old_session = SessionStore::Create(alice_);
  clock_.Advance(50);
  Session recent = SessionStore::Create(alice_);
  clock_.Advance(60);  // the first is 110 s idle, the second 60 s
  SessionStore::Create(alice_);
  sqlite::Database db(RunDir() + "/current.users", sqlite::OpenOptions{});
  EXPECT_EQ(db.QueryInt("SELECT count(*) FROM session"), 2);
  EXPECT_FALSE(SessionStore::Lookup(old_session.id, 1000, false));
  EXPECT_TRUE(SessionStore::Lookup(recent.id, 1000, false));
}

}  // namespace
}  // namespace larkpost::appliance
