#include <dirent.h>
#include <gtest/gtest.h>

#include <string>

#include "platform/zevo/notify.h"
#include "tests/system/temp_root.h"

namespace larkpost::appliance {
namespace {

size_t OpenDescriptors() {
  size_t count = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
  }
  return count;
}

TEST(NotifyTest, EachNoticeIsOneLineWithTimeUidAndDelayThroughOneDescriptor) {
  testing::TempRoot root;
  testing::FakeClock clock(1700000000);
  EXPECT_EQ(ZEVOLarkpostNotifyMailboxUpdate(1026), 0);  // creates log/
  size_t open = OpenDescriptors();
  clock.Advance(5);
  EXPECT_EQ(ZEVOLarkpostNotifyMailboxDelayUpdate(1027, 30), 0);
  std::string want = "1700000000 1026 0\n1700000005 1027 30\n";
  for (uint32_t uid : {0u, 1u, 4294967295u}) {
    EXPECT_EQ(ZEVOLarkpostNotifyMailboxUpdate(uid), 0);
    want += "1700000005 " + std::to_string(uid) + " 0\n";
  }
  EXPECT_EQ(OpenDescriptors(), open);
  EXPECT_EQ(root.Read("log/notify.log"), want);

  EXPECT_EQ(ZEVOLarkpostNotifyMailboxDelayUpdate(1026, -1), -1);
  EXPECT_EQ(root.Read("log/notify.log"), want);
}

TEST(NotifyTest, LogThatCannotBeWrittenIsAnError) {
  testing::TempRoot root;
  root.Write("log", "a file where the log folder should be");
  EXPECT_EQ(ZEVOLarkpostNotifyMailboxUpdate(1026), -1);
}

}  // namespace
}  // namespace larkpost::appliance
