#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "appliance/system/appliance.h"
#include "appliance/system/session_store.h"
#include "platform/zevo/session.h"
#include "tests/system/temp_root.h"

namespace larkpost::appliance {
namespace {

class ZevoCgiTest : public ::testing::Test {
 protected:
  // Runs the checker the way the plug-in does (a 493-byte buffer, every
  // session kind) on sessions that expire after 100 s.
  int Check(const std::string& id, int mode = 1, uint32_t kinds = 15, size_t size = 493) {
    ZEVO_CGI_CTX* context = ZevoCgiInitEx(100, mode, "current.users", "");
    if (context == nullptr) return -100;
    std::memset(name_, 0x7f, sizeof name_);
    flags_[0] = kinds;
    flags_[1] = 0;
    int uid = ZevoCgiIsAuthorizedEx(context, id.c_str(), name_, size, flags_, 0);
    ZevoCgiFree(context);
    return uid;
  }

  testing::TempRoot root_;
  testing::FakeClock clock_;
  Session session_ = SessionStore::Create(UserRecord{1026, "alice"});
  char name_[493];
  uint32_t flags_[2];
};

TEST_F(ZevoCgiTest, LiveSessionGivesUidNameAndKindAnyOtherIdMinusOne) {
  EXPECT_EQ(Check(session_.id, 1, 1), 1026);
  EXPECT_STREQ(name_, "alice");
  EXPECT_EQ(flags_[1], 1u);  // a web login
  for (const std::string& id : {std::string(64, '0'), std::string(), session_.token}) {
    EXPECT_EQ(Check(id), -1) << id;
    EXPECT_STREQ(name_, "") << id;
  }
  EXPECT_EQ(Check(session_.id, 1, 2 | 4 | 8), -1);  // not a kind that was asked for
  EXPECT_STREQ(name_, "");
}

TEST_F(ZevoCgiTest, ModeOneRefreshesModeZeroOnlyReads) {
  Session other = SessionStore::Create(session_.user);
  clock_.Advance(80);
  EXPECT_EQ(Check(session_.id, 0), 1026);
  EXPECT_EQ(Check(other.id, 1), 1026);
  clock_.Advance(30);
  EXPECT_EQ(Check(session_.id, 0), -1);
  EXPECT_STREQ(name_, "");
  EXPECT_EQ(Check(other.id, 1), 1026);
}

TEST_F(ZevoCgiTest, NameIsNeverCutNorWrittenPastItsSize) {
  for (size_t size : {6, 5, 1}) {  // "alice" and its NUL fit exactly in 6
    EXPECT_EQ(Check(session_.id, 0, 15, size), size == 6 ? 1026 : -2) << size;
    EXPECT_STREQ(name_, size == 6 ? "alice" : "") << size;
    for (size_t i = size; i < sizeof name_; ++i) ASSERT_EQ(name_[i], '\x7f') << size;
  }
  ZEVO_CGI_CTX* context = ZevoCgiInitEx(100, 0, "current.users", "");
  EXPECT_EQ(ZevoCgiIsAuthorizedEx(context, session_.id.c_str(), nullptr, 0, flags_, 0), -2);
  EXPECT_EQ(ZevoCgiIsAuthorizedEx(nullptr, session_.id.c_str(), name_, 8, flags_, 0), -2);
  ZevoCgiFree(context);
  ZevoCgiFree(nullptr);
}

TEST_F(ZevoCgiTest, InitRefusesBadArgumentsAndStoresThatAreNoFolder) {
  EXPECT_EQ(ZevoCgiInitEx(100, 1, "other.users", ""), nullptr);
  EXPECT_EQ(ZevoCgiInitEx(100, 1, "../run/current.users", ""), nullptr);
  EXPECT_EQ(ZevoCgiInitEx(100, 1, nullptr, ""), nullptr);
  EXPECT_EQ(ZevoCgiInitEx(0, 1, "current.users", ""), nullptr);
  EXPECT_EQ(ZevoCgiInitEx(100, 2, "current.users", ""), nullptr);
  ::remove((RunDir() + "/current.users/" + sessions::FileName(session_.id)).c_str());
  ::remove((RunDir() + "/current.users").c_str());
  root_.Write("run/current.users", "a file where the store should be");
  EXPECT_EQ(ZevoCgiInitEx(100, 1, "current.users", ""), nullptr);
}

TEST_F(ZevoCgiTest, DamagedSessionIsAStoreFailure) {
  root_.Write("run/current.users/" + sessions::FileName(session_.id), "larkpost-session 1\ntok");
  EXPECT_EQ(Check(session_.id), -2);
  EXPECT_STREQ(name_, "");
  EXPECT_EQ(Check(std::string(64, '0')), -1);  // the others are still told apart
}
}  // namespace
}  // namespace larkpost::appliance
