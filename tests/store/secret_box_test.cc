// Passwords at rest: sealed under the data root's key, opened only there.
#include <gtest/gtest.h>

#include <string>

#include "appliance/mailcore/secret_box.h"
#include "tests/store/store_fixture.h"

namespace ornic::larkpost::testing {
namespace {

class SecretBoxTest : public StoreTest {};

TEST_F(SecretBoxTest, SealedTextsOpenOnlyUnderTheirOwnKey) {
  const std::string sealed = store::SealSecret("hunter2 é");
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

}  // namespace
}  // namespace ornic::larkpost::testing
