// Failed-login limits, with time moved by the test.
#include "appliance/framework/login_throttle.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "appliance/system/clock.h"

namespace larkpost::cgi {
namespace {

TEST(ClientKeyTest, AddressesAndTheirBuckets) {
  const struct {
    const char* address;
    const char* key;
  } cases[] = {
      {"192.0.2.7", "192.0.2.7"},
      {"::ffff:192.0.2.7", "192.0.2.7"},
      {"2001:db8:1:2:aaaa:bbbb:cccc:dddd", "2001:db8:1:2::/64"},
      {"::1", "::/64"},
      {"not an address", "not an address"},
  };
  for (const auto& c : cases) EXPECT_EQ(ClientKey(c.address), c.key) << c.address;
}

class LoginThrottleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/larkpost-throttle-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    dir_ = name;
    appliance::SetUnixTimeForTesting([this] { return now_; });
  }
  void TearDown() override {
    appliance::SetUnixTimeForTesting(nullptr);
    std::filesystem::remove_all(dir_);
  }
  LoginThrottle Open() { return LoginThrottle(dir_ + "/attempts.db", policy_); }

  std::string dir_;
  int64_t now_ = 1'700'000'000;
  ThrottlePolicy policy_;  // 10 per address, 5 per account, 900 s, 5 s apart
};

TEST_F(LoginThrottleTest, AnAddressWaitsUntilItsOldestFailureLeavesTheWindow) {
  LoginThrottle throttle = Open();
  for (int i = 0; i < 10; ++i) {
    // Each failure at another account: only the address's limit counts.
    EXPECT_EQ(throttle.Reserve("user" + std::to_string(i), "192.0.2.1"), 0) << i;
    now_ += 10;
  }
  // The first failure was 100 s ago.
  EXPECT_EQ(throttle.Reserve("other", "192.0.2.1"), 800);
  EXPECT_EQ(Open().Reserve("other", "192.0.2.1"), 800) << "kept for every process";
  EXPECT_EQ(throttle.Reserve("other", "192.0.2.2"), 0) << "another address";
  now_ += 800;
  EXPECT_EQ(throttle.Reserve("other", "192.0.2.1"), 0);
  EXPECT_EQ(throttle.Reserve("other", "192.0.2.1"), 10);
}

TEST_F(LoginThrottleTest, ASuccessClearsThatAddresssFailuresForTheAccount) {
  LoginThrottle throttle = Open();
  for (int i = 0; i < 4; ++i) ASSERT_EQ(throttle.Reserve("alice", "192.0.2.1"), 0);
  ASSERT_EQ(throttle.Reserve("bob", "192.0.2.1"), 0);
  // The fifth attempt (a reservation) succeeds: alice's failures from
  // here go, bob's stay.
  ASSERT_EQ(throttle.Reserve("alice", "192.0.2.1"), 0);
  throttle.Succeeded("alice", "192.0.2.1");
  for (int i = 0; i < 9; ++i) {
    EXPECT_EQ(throttle.Reserve("user" + std::to_string(i), "192.0.2.1"), 0) << i;
  }
  EXPECT_GT(throttle.Reserve("carol", "192.0.2.1"), 0) << "bob's failure still counts";
}

}  // namespace
}  // namespace larkpost::cgi
