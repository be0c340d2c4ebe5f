// larkpostctl check as an operator runs it: every user (one without a store
// among them), an unknown one, and a store whose file was damaged on disk.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>
#include <string>

#include "tests/integration/integration_util.h"

namespace larkpost::itest {
namespace {

TEST(CheckCommandTest, ReportsEveryUserAndNamesAFileDamagedOnDisk) {
  DataRoot root;
  const uint32_t uid = root.AddUser("alice", "pw");
  root.AddUser("bob", "pw");
  for (int n = 0; n < 20; ++n) {
    ASSERT_EQ(root.Ctl({"deliver", "alice"}, "From: ann@example.org\r\nSubject: note " +
                                                 std::to_string(n) + "\r\n\r\nbody " +
                                                 std::string(500, 'x') + "\r\n")
                  .exit_code,
              0);
  }
  const ProcessResult all = root.Ctl({"check", "--all"});
  EXPECT_EQ(all.out, "alice: ok\nbob: no store\n") << all.err;
  EXPECT_EQ(all.exit_code, 0);
  const ProcessResult unknown = root.Ctl({"check", "carol"});
  EXPECT_EQ(unknown.err, "larkpostctl: no user carol\n");
  EXPECT_EQ(unknown.exit_code, 1);

  // The last page of the file overwritten, as a failing disk would.
  const std::string store = root.path() + "/mail/" + std::to_string(uid) + "/larkpost.db";
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(store.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "PRAGMA wal_checkpoint(TRUNCATE)", nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  std::fstream file(store, std::ios::in | std::ios::out | std::ios::binary);
  file.seekg(0, std::ios::end);
  const std::streamoff size = file.tellg();
  ASSERT_GT(size, 8 * 4096);
  file.seekp(size - 4096);
  file << std::string(4096, '\x55');
  file.close();

  const ProcessResult damaged = root.Ctl({"check", "alice"});
  EXPECT_EQ(damaged.out.rfind("alice: sqlite: ", 0), 0u) << damaged.out << damaged.err;
  EXPECT_EQ(damaged.exit_code, 1);
}

}  // namespace
}  // namespace larkpost::itest
