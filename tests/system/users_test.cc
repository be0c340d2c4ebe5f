#include <gtest/gtest.h>
#include <sys/stat.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "appliance/system/appliance.h"
#include "appliance/system/testing.h"
#include "appliance/system/user_admin.h"
#include "tests/system/temp_root.h"

namespace larkpost::appliance {
namespace {

class UserStoreTest : public ::testing::Test {
 protected:
  testing::TempRoot root_;
};

bool IsDir(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

TEST_F(UserStoreTest, EmptyStoreHasNobody) {
  EXPECT_FALSE(UserStore::FindByUid(1026));
  EXPECT_FALSE(UserStore::FindByName("alice"));
  EXPECT_FALSE(UserStore::Verify("alice", "secret"));
  EXPECT_TRUE(ListUsers().empty());
}

TEST_F(UserStoreTest, AddNumbersFrom1026AndMakesTheHome) {
  EXPECT_EQ(UserStore::Add("alice", "secret", true, "example.org"), 1026u);
  EXPECT_EQ(UserStore::Add("bob", "hunter2", false, "localdomain"), 1027u);
  EXPECT_TRUE(IsDir(HomeDir("alice")));
  EXPECT_TRUE(IsDir(HomeDir("bob")));

  std::optional<UserRecord> alice = UserStore::FindByUid(1026);
  ASSERT_TRUE(alice);
  EXPECT_EQ(alice->name, "alice");
  EXPECT_EQ(alice->domain, "example.org");
  EXPECT_TRUE(alice->is_admin);
  std::optional<UserRecord> bob = UserStore::FindByName("bob");
  ASSERT_TRUE(bob);
  EXPECT_EQ(bob->uid, 1027u);
  EXPECT_FALSE(bob->is_admin);

  auto all = ListUsers();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].name, "alice");
  EXPECT_EQ(all[1].name, "bob");
}

TEST_F(UserStoreTest, DuplicateNameIsRefusedAndChangesNothing) {
  UserStore::Add("alice", "secret", false, "localdomain");
  EXPECT_THROW(UserStore::Add("alice", "other", true, "localdomain"), std::runtime_error);
  EXPECT_EQ(ListUsers().size(), 1u);
  EXPECT_TRUE(UserStore::Verify("alice", "secret"));
  EXPECT_EQ(UserStore::Add("carol", "pw", false, "localdomain"), 1027u);
}

TEST_F(UserStoreTest, BadNamesDomainsAndPasswordsAreRefused) {
  const std::string too_long(65, 'a');
  for (const std::string& name :
       {std::string(), std::string(".hidden"), std::string("-x"), std::string("a/b"),
        std::string("a b"), std::string(".."), std::string("ä"), too_long}) {
    EXPECT_THROW(UserStore::Add(name, "pw", false, "localdomain"), std::runtime_error) << name;
    EXPECT_FALSE(UserStore::FindByName(name)) << name;
  }
  EXPECT_THROW(UserStore::Add("dave", "pw", false, ""), std::runtime_error);
  EXPECT_THROW(UserStore::Add("dave", "pw", false, "a b"), std::runtime_error);
  EXPECT_THROW(UserStore::Add("dave", "", false, "localdomain"), std::runtime_error);
  EXPECT_TRUE(ListUsers().empty());
  EXPECT_FALSE(IsDir(HomeDir("dave")));

  EXPECT_EQ(UserStore::Add(std::string(64, 'a'), "pw", false, "localdomain"), 1026u);
  EXPECT_EQ(UserStore::Add("a.b_c-9", "pw", false, "localdomain"), 1027u);
}

TEST_F(UserStoreTest, VerifyAcceptsOnlyTheRightPassword) {
  UserStore::Add("alice", "correct horse", false, "localdomain");
  std::optional<UserRecord> user = UserStore::Verify("alice", "correct horse");
  ASSERT_TRUE(user);
  EXPECT_EQ(user->uid, 1026u);
  EXPECT_FALSE(UserStore::Verify("alice", "correct horse "));
  EXPECT_FALSE(UserStore::Verify("alice", ""));
  EXPECT_FALSE(UserStore::Verify("Alice", "correct horse"));
  EXPECT_FALSE(UserStore::Verify("mallory", "correct horse"));
  EXPECT_FALSE(UserStore::Verify("../etc", "correct horse"));
}

TEST_F(UserStoreTest, PasswordIsStoredOnlyAsArgon2idHash) {
  UserStore::Add("alice", "plain-text-password", false, "localdomain");
  std::string file = root_.Read("etc/users.db") + root_.Read("etc/users.db-wal");
  EXPECT_EQ(file.find("plain-text-password"), std::string::npos);
  EXPECT_NE(file.find("$argon2id$"), std::string::npos);
}

TEST_F(UserStoreTest, LookupsAreRememberedButPasswordsAlwaysChecked) {
  EXPECT_FALSE(UserStore::FindByName("alice"));  // unknown now, so not remembered
  UserStore::Add("alice", "secret", false, "example.org");
  ASSERT_TRUE(UserStore::FindByUid(1026));
  ASSERT_TRUE(UserStore::FindByName("alice"));
  // With the database gone, only what was looked up before is still known.
  for (const char* suffix : {"", "-wal", "-shm"}) ::remove((UsersDbPath() + suffix).c_str());
  std::optional<UserRecord> alice = UserStore::FindByUid(1026);
  ASSERT_TRUE(alice);
  EXPECT_EQ(alice->name, "alice");
  EXPECT_EQ(alice->domain, "example.org");
  ASSERT_TRUE(UserStore::FindByName("alice"));
  EXPECT_EQ(UserStore::FindByName("alice")->uid, 1026u);
  EXPECT_FALSE(UserStore::Verify("alice", "secret"));
  EXPECT_FALSE(UserStore::FindByUid(1027));
  // A new process (here: a reset) knows nothing.
  ResetForTesting();
  EXPECT_FALSE(UserStore::FindByUid(1026));
}

TEST_F(UserStoreTest, HomeThatCannotBeMadeLeavesNoAccount) {
  root_.Write("homes", "a file where the folder of homes should be");
  EXPECT_THROW(UserStore::Add("alice", "pw", false, "localdomain"), std::runtime_error);
  EXPECT_FALSE(UserStore::FindByName("alice"));
}

}  // namespace
}  // namespace larkpost::appliance
