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
  ZevoCgiTest() {
    UserRecord user;
    user.uid = 1026;
    user.name = "alice";
    session_ = SessionStore::Create(user);
  }

  // Runs the checker the way the plug-in does: a 493-byte buffer, flags
  // {15, 0}.
  int Check(const std::string& id, int timeout = 100, int mode = 1) {
    ZEVO_CGI_CTX* context = ZevoCgiInitEx(timeout, mode, "current.users", "");
    if (context == nullptr) return -100;
    std::memset(name_, 0x7f, sizeof name_);
    flags_[0] = 15;
    flags_[1] = 0;
    int uid = ZevoCgiIsAuthorizedEx(context, id.c_str(), name_, 493, flags_, 0);
    ZevoCgiFree(context);
    return uid;
  }

  testing::TempRoot root_;
  testing::FakeClock clock_;
  Session session_;
  char name_[493];
  uint32_t flags_[2];
};

TEST_F(ZevoCgiTest, LiveSessionGivesUidNameAndKind) {
  EXPECT_EQ(Check(session_.id), 1026);
  EXPECT_STREQ(name_, "alice");
  EXPECT_EQ(flags_[1], 1u);  // a web login
}

TEST_F(ZevoCgiTest, UnknownOrExpiredSessionIsNegativeWithEmptyName) {
  EXPECT_EQ(Check(std::string(64, '0')), -1);
  EXPECT_STREQ(name_, "");
  EXPECT_EQ(Check(""), -1);
  EXPECT_EQ(Check(session_.token), -1);
  clock_.Advance(100);
  EXPECT_EQ(Check(session_.id, 100), -1);
  EXPECT_STREQ(name_, "");
}

TEST_F(ZevoCgiTest, ModeOneRefreshesModeZeroOnlyReads) {
  clock_.Advance(80);
  EXPECT_EQ(Check(session_.id, 100, 0), 1026);
  clock_.Advance(30);  // 110 s since login
  EXPECT_EQ(Check(session_.id, 100, 0), -1);

  Session other = SessionStore::Create(session_.user);
  clock_.Advance(80);
  EXPECT_EQ(Check(other.id, 100, 1), 1026);
  clock_.Advance(30);
  EXPECT_EQ(Check(other.id, 100, 1), 1026);
}

TEST_F(ZevoCgiTest, KindMaskWithoutWebLoginFindsNothing) {
  ZEVO_CGI_CTX* context = ZevoCgiInitEx(100, 1, "current.users", "");
  ASSERT_NE(context, nullptr);
  uint32_t flags[2] = {2 | 4 | 8, 0};
  char name[64] = "x";
  EXPECT_EQ(ZevoCgiIsAuthorizedEx(context, session_.id.c_str(), name, sizeof name, flags, 0), -1);
  EXPECT_STREQ(name, "");
  flags[0] = 1;
  EXPECT_EQ(ZevoCgiIsAuthorizedEx(context, session_.id.c_str(), name, sizeof name, flags, 0), 1026);
  ZevoCgiFree(context);
}

TEST_F(ZevoCgiTest, NameIsNeverCutNorWrittenPastTheBuffer) {
  ZEVO_CGI_CTX* context = ZevoCgiInitEx(100, 0, "current.users", "");
  ASSERT_NE(context, nullptr);
  char buffer[8];
  for (size_t size : {size_t{6}, size_t{5}, size_t{1}}) {
    std::memset(buffer, '#', sizeof buffer);
    uint32_t flags[2] = {15, 0};
    int uid = ZevoCgiIsAuthorizedEx(context, session_.id.c_str(), buffer, size, flags, 0);
    if (size == 6) {  // "alice" and its NUL fit exactly
      EXPECT_EQ(uid, 1026);
      EXPECT_STREQ(buffer, "alice");
    } else {
      EXPECT_EQ(uid, -2) << size;
      EXPECT_EQ(buffer[0], '\0');
    }
    for (size_t i = size; i < sizeof buffer; ++i) EXPECT_EQ(buffer[i], '#') << size;
  }
  uint32_t flags[2] = {15, 0};
  EXPECT_EQ(ZevoCgiIsAuthorizedEx(context, session_.id.c_str(), nullptr, 0, flags, 0), -2);
  EXPECT_EQ(ZevoCgiIsAuthorizedEx(nullptr, session_.id.c_str(), buffer, 8, flags, 0), -2);
  ZevoCgiFree(context);
  ZevoCgiFree(nullptr);
}

TEST_F(ZevoCgiTest, InitRefusesBadArgumentsAndMissingStores) {
  EXPECT_EQ(ZevoCgiInitEx(100, 1, "other.users", ""), nullptr);
  EXPECT_EQ(ZevoCgiInitEx(100, 1, "../run/current.users", ""), nullptr);
  EXPECT_EQ(ZevoCgiInitEx(100, 1, "", ""), nullptr);
  EXPECT_EQ(ZevoCgiInitEx(100, 1, nullptr, ""), nullptr);
  EXPECT_EQ(ZevoCgiInitEx(0, 1, "current.users", ""), nullptr);
  EXPECT_EQ(ZevoCgiInitEx(100, 2, "current.users", ""), nullptr);
}

TEST_F(ZevoCgiTest, StoreThatIsNoFolderCannotBeOpened) {
  ::remove((root_.path() + "/run/current.users/" + sessions::FileName(session_.id)).c_str());
  ::remove((root_.path() + "/run/current.users").c_str());
  root_.Write("run/current.users", std::string(4096, 'x'));
  ZEVO_CGI_CTX* context = ZevoCgiInitEx(100, 1, "current.users", "");
  EXPECT_EQ(context, nullptr);
  ZevoCgiFree(context);
}

TEST_F(ZevoCgiTest, DamagedSessionIsAStoreFailure) {
  root_.Write("run/current.users/" + sessions::FileName(session_.id), "larkpost-session 1\ntok");
  EXPECT_EQ(Check(session_.id), -2);
  EXPECT_STREQ(name_, "");
  EXPECT_EQ(Check(std::string(64, '0')), -1);  // the others are still told apart
}

TEST(VexTimeoutTest, ComesFromTheConfiguration) {
  testing::TempRoot root;
  EXPECT_EQ(VESLCConfGetVexTimeout(), 1800);
  root.Write("etc/larkpost.json", R"({"session_timeout": 42})");
  ResetForTesting();
  EXPECT_EQ(VESLCConfGetVexTimeout(), 42);
  root.Write("etc/larkpost.json", "{broken");
  ResetForTesting();
  EXPECT_EQ(VESLCConfGetVexTimeout(), 1800);
}

}  // namespace
}  // namespace larkpost::appliance
