// Passwords at rest: sealed under the data root's key, opened only there.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "appliance/mailcore/secret_box.h"
#include "tests/store/store_fixture.h"

namespace ornic::larkpost::testing {
namespace {

class SecretBoxTest : public StoreTest {};

TEST_F(SecretBoxTest, SealsUnderAKeyMadeOnFirstUseOnlyTheOwnerReads) {
  struct stat info;
  ASSERT_NE(stat(store::SecretKeyPath().c_str(), &info), 0);
  const std::string sealed = store::SealSecret("hunter2 é");
  ASSERT_EQ(stat(store::SecretKeyPath().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_EQ(info.st_size, 32);

  EXPECT_TRUE(store::IsSealed(sealed));
  EXPECT_EQ(sealed.find("hunter2"), std::string::npos);
  EXPECT_NE(store::SealSecret("hunter2 é"), sealed);  // a fresh nonce each time
  EXPECT_EQ(store::OpenSecret(sealed), "hunter2 é");
  EXPECT_EQ(store::SealSecret(""), "");
  EXPECT_EQ(store::OpenSecret("plain old"), "plain old");

  std::string damaged = sealed;
  damaged[10] = damaged[10] == 'A' ? 'B' : 'A';
  EXPECT_EQ(CodeOf([&] { store::OpenSecret(damaged); }), kErrorStorage);
  // Another key (a store carried to another appliance) opens nothing.
  ::larkpost::testing::TempRoot other;
  other.Write("etc/secret.key", std::string(32, 'k'));
  EXPECT_EQ(CodeOf([&] { store::OpenSecret(sealed); }), kErrorStorage);
}

TEST_F(SecretBoxTest, PlainPasswordsKeptBeforeAreSealedInPlace) {
  db().Exec(
      "INSERT INTO smtp_account(mail, host_name, port, password) VALUES"
      " ('a@x.org', 'h', 25, 'old secret'), ('b@x.org', 'h', 25, '')");
  store::SealPlainSecrets(db(), "smtp_account", "password");
  store::Statement rows(db(), "SELECT password FROM smtp_account ORDER BY id");
  ASSERT_TRUE(rows.Step());
  EXPECT_TRUE(store::IsSealed(rows.Text(0)));
  EXPECT_EQ(store::OpenSecret(rows.Text(0)), "old secret");
  ASSERT_TRUE(rows.Step());
  EXPECT_EQ(rows.Text(0), "");
}

}  // namespace
}  // namespace ornic::larkpost::testing
