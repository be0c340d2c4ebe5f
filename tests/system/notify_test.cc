#include <dirent.h>
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

size_t OpenDescriptors() {
  size_t count = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
  }
  return count;
}

TEST(NotifyTest, OneProcessKeepsOneDescriptorForItsNotices) {
  testing::TempRoot root;
  testing::FakeClock clock(1700000000);
  ASSERT_EQ(ZEVOLarkpostNotifyMailboxUpdate(1), 0);
  size_t open = OpenDescriptors();
  std::string want = "1700000000 1 0\n";
  for (uint32_t uid = 2; uid <= 100; ++uid) {
    ASSERT_EQ(ZEVOLarkpostNotifyMailboxUpdate(uid), 0);
    want += "1700000000 " + std::to_string(uid) + " 0\n";
  }
  EXPECT_EQ(OpenDescriptors(), open);
  EXPECT_EQ(root.Read("log/notify.log"), want);
}

}  // namespace
}  // namespace larkpost::appliance
