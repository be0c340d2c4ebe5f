#include <gtest/gtest.h>
#include <sys/stat.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

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

// "uid name domain admin" of every account.
std::string Listed() {
  std::string text;
  for (const UserRecord& user : ListUsers()) {
    text += std::to_string(user.uid) + " " + user.name + " " + user.domain +
            (user.is_admin ? " admin\n" : "\n");
  }
  return text;
}

TEST_F(UserStoreTest, AddNumbersFrom1026AndMakesTheHome) {
  EXPECT_FALSE(UserStore::FindByName("alice"));
  EXPECT_EQ(Listed(), "");
  EXPECT_EQ(UserStore::Add("alice", "secret", true, "example.org"), 1026u);
  EXPECT_EQ(UserStore::Add("bob", "hunter2", false, "localdomain"), 1027u);
  EXPECT_TRUE(IsDir(HomeDir("alice")) && IsDir(HomeDir("bob")));
  EXPECT_EQ(Listed(), "1026 alice example.org admin\n1027 bob localdomain\n");
  EXPECT_TRUE(UserStore::FindByUid(1026).value().is_admin);
}

TEST_F(UserStoreTest, RefusedAccountsChangeNothing) {
  UserStore::Add("alice", "secret", false, "localdomain");
  for (const char* name : {"alice", "", ".hidden", "-x", "a/b", "a b", "..", "ä"}) {
    EXPECT_THROW(UserStore::Add(name, "pw", true, "localdomain"), std::runtime_error) << name;
  }
  EXPECT_THROW(UserStore::Add(std::string(65, 'a'), "pw", false, "localdomain"),
               std::runtime_error);
  EXPECT_THROW(UserStore::Add("dave", "pw", false, ""), std::runtime_error);
  EXPECT_THROW(UserStore::Add("dave", "pw", false, "a b"), std::runtime_error);
  EXPECT_THROW(UserStore::Add("dave", "", false, "localdomain"), std::runtime_error);
  EXPECT_EQ(Listed(), "1026 alice localdomain\n");
  EXPECT_TRUE(UserStore::Verify("alice", "secret"));
  EXPECT_FALSE(IsDir(HomeDir("dave")));
  EXPECT_EQ(UserStore::Add(std::string(64, 'a'), "pw", false, "localdomain"), 1027u);
  EXPECT_EQ(UserStore::Add("a.b_c-9", "pw", false, "localdomain"), 1028u);
}

TEST_F(UserStoreTest, PasswordIsKeptOnlyAsAnArgon2idHash) {
  UserStore::Add("alice", "correct horse", false, "localdomain");
  std::string file = root_.Read("etc/users.db") + root_.Read("etc/users.db-wal");
  EXPECT_EQ(file.find("correct horse"), std::string::npos);
  EXPECT_NE(file.find("$argon2id$"), std::string::npos);
  EXPECT_EQ(UserStore::Verify("alice", "correct horse").value().uid, 1026u);
  for (const auto& [name, password] :
       {std::pair{"alice", "correct horse "}, std::pair{"alice", ""},
        std::pair{"Alice", "correct horse"}, std::pair{"mallory", "correct horse"},
        std::pair{"../etc", "correct horse"}}) {
    EXPECT_FALSE(UserStore::Verify(name, password)) << name << " " << password;
  }
}

TEST_F(UserStoreTest, LookupsAreRememberedButPasswordsAlwaysChecked) {
  EXPECT_FALSE(UserStore::FindByName("alice"));  // unknown now, so not remembered
  UserStore::Add("alice", "secret", false, "example.org");
  EXPECT_EQ(UserStore::FindByName("alice").value().uid, 1026u);
  // With the database gone, only what was looked up before is still known.
  for (const char* suffix : {"", "-wal", "-shm"}) ::remove((UsersDbPath() + suffix).c_str());
  EXPECT_EQ(UserStore::FindByUid(1026).value().domain, "example.org");
  EXPECT_FALSE(UserStore::Verify("alice", "secret"));
  ResetForTesting();  // as a new process
  EXPECT_FALSE(UserStore::FindByUid(1026));
}

TEST_F(UserStoreTest, HomeThatCannotBeMadeLeavesNoAccount) {
  root_.Write("homes", "a file where the folder of homes should be");
  EXPECT_THROW(UserStore::Add("alice", "pw", false, "localdomain"), std::runtime_error);
  EXPECT_EQ(Listed(), "");
}

}  // namespace
}  // namespace larkpost::appliance
