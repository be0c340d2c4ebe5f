#include <gtest/gtest.h>

#include <string>

#include "platform/zevo/notify.h"
#include "tests/system/temp_root.h"

namespace larkpost::appliance {
namespace {

TEST(NotifyTest, EachNoticeIsOneLineWithTimeUidAndDelay) {
  testing::TempRoot root;
  testing::FakeClock clock(1700000000);
  EXPECT_EQ(ZEVOLarkpostNotifyMailboxUpdate(1026), 0);  // creates log/
  clock.Advance(5);
  EXPECT_EQ(ZEVOLarkpostNotifyMailboxDelayUpdate(1027, 30), 0);
  EXPECT_EQ(ZEVOLarkpostNotifyMailboxDelayUpdate(4294967295u, 0), 0);
  EXPECT_EQ(root.Read("log/notify.log"),
            "1700000000 1026 0\n"
            "1700000005 1027 30\n"
            "1700000005 4294967295 0\n");
}

TEST(NotifyTest, RefusedNoticesWriteNothing) {
  testing::TempRoot root;
  EXPECT_EQ(ZEVOLarkpostNotifyMailboxDelayUpdate(1026, -1), -1);
  EXPECT_EQ(root.Read("log/notify.log"), "");
  root.Write("log", "a file where the log folder should be");
  EXPECT_EQ(ZEVOLarkpostNotifyMailboxUpdate(1026), -1);
}

}  // namespace
}  // namespace larkpost::appliance
