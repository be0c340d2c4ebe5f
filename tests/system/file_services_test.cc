// Shares, file copy and running programs through the platform's C interface,
// and the home that a new account hands over to its user.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "appliance/system/appliance.h"
#include "appliance/system/share_path.h"
#include "platform/zevo/file.h"
#include "tests/system/temp_root.h"

namespace larkpost::appliance {
namespace {

constexpr uint32_t kAlice = 1026, kBob = 1027;

class FileServicesTest : public ::testing::Test {
 protected:
  std::string Path(const std::string& name) const { return root_.path() + "/" + name; }

  // Every name in `folder`, hidden ones included.
  std::set<std::string> Listing(const std::string& folder) const {
    std::set<std::string> names;
    DIR* dir = opendir(Path(folder).c_str());
    while (const dirent* entry = dir ? readdir(dir) : nullptr) names.insert(entry->d_name);
    if (dir) closedir(dir);
    names.erase(".");
    names.erase("..");
    return names;
  }

  testing::TempRoot root_;
};

// Runs /bin/sh -c `script` with the arguments after it.
int Shell(const std::string& script, std::vector<std::string> args = {}, int wait = 1) {
  std::vector<char*> argv = {const_cast<char*>("sh"), const_cast<char*>("-c"),
                             const_cast<char*>(script.c_str()), const_cast<char*>("sh")};
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  return VESLCExecv("/bin/sh", argv.data(), wait);
}

TEST_F(FileServicesTest, OnlyConfiguredSharesExistAndErrorsAreEachThreadsOwn) {
  root_.Write("etc/larkpost.json", R"({"shares": {"public": "/srv/public"}})");
  ZEVOSHARE* share = nullptr;
  ASSERT_EQ(ZEVOShareGet("public", &share), 0);
  EXPECT_STREQ(VESLSharePathGet(share), "/srv/public");
  ZEVOShareFree(share);
  // Names are case-sensitive, and "home" is the plug-in's own business.
  for (const char* name : {"Public", "home", ""}) {
    EXPECT_EQ(ZEVOShareGet(name, &share), -1) << name;
    EXPECT_EQ(share, nullptr);
    EXPECT_EQ(VESLCErrGet(), unsigned{VESLC_ERR_NOT_FOUND}) << name;
  }
  EXPECT_EQ(ZEVOShareGet(nullptr, &share), -1);
  unsigned int other_thread = 1;
  std::thread([&] {
    ZEVOSHARE* mine = nullptr;
    ZEVOShareGet("public", &mine);
    ZEVOShareFree(mine);
    other_thread = VESLCErrGet();
  }).join();
  EXPECT_EQ(other_thread, unsigned{VESLC_ERR_NONE});
  EXPECT_EQ(VESLCErrGet(), unsigned{VESLC_ERR_INVALID});
}

TEST_F(FileServicesTest, CopiesReplaceTheDestinationWholeOrNotAtAll) {
  std::string data(1024 * 1024 + 7, '\0');  // several copy blocks and a bit
  std::mt19937 random(7);
  for (char& c : data) c = static_cast<char>(random());
  root_.Write("etc/larkpost.json", R"({"shares": {"src": ")" + Path("src") + R"("}})");
  SetRequestUser({kAlice, true});  // an administrator reads what the host can
  const std::string source = Path("src/in"), out = Path("dst/out");
  for (auto [mode, copy_mode, contents] :
       {std::tuple<mode_t, mode_t, std::string>{0640, 0640, data},
        {04755, 0755, "x"},  // never set-user-ID
        {0600, 0600, ""}}) {
    root_.Write("src/in", contents);
    ASSERT_EQ(chmod(source.c_str(), mode), 0);
    root_.Write("dst/out", "an older and longer destination");
    ASSERT_EQ(ZEVOFileCopy(source.c_str(), out.c_str(), 0), 0);
    EXPECT_TRUE(root_.Read("dst/out") == contents) << contents.size();
    struct stat info;
    EXPECT_EQ(stat(out.c_str(), &info) == 0 ? info.st_mode & 07777 : 0, copy_mode);
    EXPECT_EQ(Listing("dst"), std::set<std::string>{"out"});
  }

  root_.Write("dst/out", "kept");
  ASSERT_EQ(mkfifo(Path("src/fifo").c_str(), 0600), 0);
  ASSERT_EQ(mkdir(Path("dst/folder").c_str(), 0700), 0);
  const struct {
    std::string source, destination;
    unsigned int options, error;
  } refused[] = {
      {Path("src/missing"), out, 0, VESLC_ERR_NOT_FOUND},
      {Path("src"), out, 0, VESLC_ERR_INVALID},
      {Path("src/fifo"), out, 0, VESLC_ERR_INVALID},  // refused, not waited on
      {source, Path("nowhere/out"), 0, VESLC_ERR_NOT_FOUND},
      {source, Path("dst/folder"), 0, VESLC_ERR_IO},
      {source, out, 1, VESLC_ERR_INVALID},
  };
  for (const auto& c : refused) {
    EXPECT_EQ(ZEVOFileCopy(c.source.c_str(), c.destination.c_str(), c.options), -1) << c.source;
    EXPECT_EQ(VESLCErrGet(), c.error) << c.source << " -> " << c.destination;
    EXPECT_EQ(root_.Read("dst/out"), "kept");
    EXPECT_EQ(Listing("dst"), (std::set<std::string>{"folder", "out"})) << c.source;
  }
}

// A share and two homes, as a root host sees them:
//   public/readme (everyone's), public/secret (root's)
//   homes/alice/doc.txt, dir/file (alice's); to-doc -> doc.txt
//   homes/alice/stash/file (root's, in alice's home); homes/bob/private (bob's)
//   vault/file (root's, in no folder that is read from)
class ConfinedOpenTest : public FileServicesTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "reading with a user's rights needs a root host";
    root_.Write("etc/larkpost.json", R"({"shares": {"public": ")" + Path("public") + R"("}})");
    Make("public/readme", 0, 0644);
    Make("public/secret", 0, 0600);
    chmod(Path("public").c_str(), 0755);
    Make("homes/alice/doc.txt", kAlice, 0600);
    Make("homes/alice/dir/file", kAlice, 0600);
    Make("homes/alice/stash/file", 0, 0600);
    Make("homes/bob/private", kBob, 0600);
    Make("vault/file", 0, 0600);
    for (const auto& [dir, owner] : {std::pair<const char*, uint32_t>{"homes/alice", kAlice},
                                     {"homes/alice/dir", kAlice},
                                     {"homes/bob", kBob}}) {
      ASSERT_EQ(chown(Path(dir).c_str(), owner, 0), 0);
    }
    // As a new account leaves them: the user may pass through to the home.
    for (const std::string& passable : {root_.path(), Path("homes")}) {
      ASSERT_EQ(chmod(passable.c_str(), 0711), 0);
    }
    ASSERT_EQ(symlink("doc.txt", Path("homes/alice/to-doc").c_str()), 0);
    MakeDirs(Path("out"));
  }

  void Make(const std::string& relative, uint32_t owner, mode_t mode) {
    root_.Write(relative, relative);
    ASSERT_EQ(chown(Path(relative).c_str(), owner, 0), 0);
    ASSERT_EQ(chmod(Path(relative).c_str(), mode), 0);
  }

  // What ZEVOFileCopy makes of `source` for `user`: VESLC_ERR_NONE when it
  // copied the file whole.
  unsigned int Copy(const std::string& source, RequestUser user) {
    SetRequestUser(user);
    const std::string out = Path("out/copy");
    unlink(out.c_str());
    if (ZEVOFileCopy(source.c_str(), out.c_str(), 0) != 0) {
      EXPECT_EQ(Listing("out"), std::set<std::string>()) << source;
      return VESLCErrGet();
    }
    EXPECT_EQ(root_.Read("out/copy"), ReadAsRoot(source)) << source;
    return VESLC_ERR_NONE;
  }

  std::string ReadAsRoot(const std::string& path) const {
    return root_.Read(path.substr(root_.path().size() + 1));
  }
};

TEST_F(ConfinedOpenTest, SharePathsResolveBeneathTheirRootWithTheUsersRights) {
  const std::string home = Path("homes/alice");
  const RequestUser alice{kAlice, false}, admin{kBob, true};
  const struct {
    std::string path;  // as the plug-in joins it: the share's folder and the rest
    RequestUser user;
    int error;  // of the confined open; 0 when it opens
  } cases[] = {
      // Escapes and links as the plug-in asks for them are refused through
      // the host (ShareSecurityTest); here, what only the file services see.
      {home + "//dir/./file", alice, 0},
      {Path("public/secret"), alice, EACCES},
      {Path("public/secret"), admin, 0},
      {home + "/stash/file", alice, EACCES},
      {Path("homes/bob/private"), alice, EACCES},
      {home + "/../bob/private", admin, EXDEV},
      {home + "/to-doc", admin, ELOOP},
      // Beneath no folder that is read from.
      {"/etc/passwd", admin, EACCES},
      {Path("vault/file"), admin, EACCES},
      {"public/readme", admin, EACCES},
  };
  for (const auto& c : cases) {
    const std::string what = c.path + (c.user.is_admin ? " (admin)" : " (alice)");
    SetRequestUser(c.user);
    errno = 0;
    const int fd = OpenBeneathRoot(c.path, O_RDONLY);
    EXPECT_EQ(fd < 0 ? errno : 0, c.error) << what;
    if (fd >= 0) close(fd);
    EXPECT_EQ(Copy(c.path, c.user), unsigned{c.error == 0 ? VESLC_ERR_NONE : VESLC_ERR_ACCESS})
        << what;
  }
  // A host process keeps its own rights after reading with the user's.
  EXPECT_EQ(access(Path("vault/file").c_str(), R_OK), 0);
  EXPECT_EQ(setfsuid(static_cast<uid_t>(-1)), 0);
}

// The readability test and the copy used to be two lookups of one path: a
// folder swapped for a link (or another folder) between them had root copy
// what the user could not read. Now the copy is its own test.
TEST_F(ConfinedOpenTest, AFolderSwappedAfterTheTestGivesNothingAway) {
  const std::string source = Path("homes/alice/dir/file");
  ASSERT_EQ(seteuid(kAlice), 0);
  const int tested = faccessat(AT_FDCWD, source.c_str(), R_OK, AT_EACCESS);
  ASSERT_EQ(seteuid(0), 0);
  ASSERT_EQ(tested, 0) << "what the plug-in tests first, as the user";
  const std::string dir = Path("homes/alice/dir");
  ASSERT_EQ(rename(dir.c_str(), (dir + ".old").c_str()), 0);
  for (const auto& [what, swap] : std::vector<std::pair<std::string, std::function<int()>>>{
           {"link out of the home", [&] { return symlink(Path("vault").c_str(), dir.c_str()); }},
           {"link in the home", [&] { return symlink("stash", dir.c_str()); }},
           {"root's folder",
            [&] { return rename(Path("homes/alice/stash").c_str(), dir.c_str()); }},
       }) {
    ASSERT_EQ(swap(), 0) << what;
    EXPECT_EQ(Copy(source, {kAlice, false}), unsigned{VESLC_ERR_ACCESS}) << what;
    if (what == "root's folder") {
      rename(dir.c_str(), Path("homes/alice/stash").c_str());
    } else {
      unlink(dir.c_str());
    }
  }
}

TEST_F(FileServicesTest, ProgramsReportExitStatusSignalAndStartFailures) {
  root_.Write("not-executable", "#!/bin/sh\n");
  const std::string not_executable = Path("not-executable");
  char* const no_args[] = {nullptr};
  const struct {
    const char* what;
    std::function<int()> run;
    unsigned int error;
  } cases[] = {
      {"exit 0", [] { return Shell("exit 0"); }, VESLC_ERR_NONE},
      {"exit 3", [] { return Shell("exit 3"); }, VESLC_ERR_EXIT | 3},
      {"killed", [] { return Shell("kill -TERM $$"); }, VESLC_ERR_SIGNAL | SIGTERM},
      {"list form", [] { return VESLCExec(1, "/bin/sh", "-c", "exit 4", nullptr); },
       VESLC_ERR_EXIT | 4},
      {"missing", [] { return VESLCExec(1, "/no/such/program", nullptr); }, VESLC_ERR_NOT_FOUND},
      {"missing, unwaited", [] { return VESLCExec(0, "/no/such/program", nullptr); },
       VESLC_ERR_NOT_FOUND},
      {"not executable", [&] { return VESLCExec(1, not_executable.c_str(), nullptr); },
       VESLC_ERR_ACCESS},
      {"no argv[0]", [&] { return VESLCExecv("/bin/sh", no_args, 1); }, VESLC_ERR_INVALID},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.run(), c.error == VESLC_ERR_NONE ? 0 : -1) << c.what;
    EXPECT_EQ(VESLCErrGet(), c.error) << c.what;
  }
  // Arguments arrive as given, empty ones and blanks included.
  ASSERT_EQ(Shell("printf '%s|' \"$0\" \"$@\" > \"$1\"", {Path("args"), "a b", "", "c"}), 0);
  EXPECT_EQ(root_.Read("args"), "sh|" + Path("args") + "|a b||c|");
}

TEST_F(FileServicesTest, AProgramNeitherReadsTheRequestNorWritesTheAnswer) {
  // Our standard input is a request body, our standard output the answer.
  int body[2];
  ASSERT_EQ(pipe(body), 0);
  ASSERT_EQ(write(body[1], "body", 4), 4);
  close(body[1]);
  const int out = open(Path("answer").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  const int err = open(Path("log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::fflush(stdout);
  const int saved[3] = {dup(0), dup(1), dup(2)};
  dup2(body[0], 0);
  dup2(out, 1);
  dup2(err, 2);
  const int result = Shell("cat; echo chatter; echo complaint >&2");
  for (int fd : {0, 1, 2}) {
    dup2(saved[fd], fd);
    close(saved[fd]);
  }
  close(out);
  close(err);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(root_.Read("answer"), "");
  EXPECT_EQ(root_.Read("log"), "chatter\ncomplaint\n");
  char left[8] = {};
  EXPECT_EQ(read(body[0], left, sizeof(left)), 4);
  close(body[0]);
}

void Ignore(int) {}

TEST_F(FileServicesTest, WaitingSurvivesSignalsAndStartingLeavesNoChildBehind) {
  struct sigaction action = {}, old = {};
  action.sa_handler = Ignore;  // no SA_RESTART: waitpid sees EINTR
  ASSERT_EQ(sigaction(SIGALRM, &action, &old), 0);
  itimerval timer = {{0, 20 * 1000}, {0, 50 * 1000}};
  setitimer(ITIMER_REAL, &timer, nullptr);
  EXPECT_EQ(Shell("sleep 0.3; exit 6"), -1);
  EXPECT_EQ(VESLCErrGet(), unsigned{VESLC_ERR_EXIT | 6});
  timer = {};
  setitimer(ITIMER_REAL, &timer, nullptr);
  sigaction(SIGALRM, &old, nullptr);

  // Without waiting: the call returns while the program waits for us (five
  // seconds at most, so that a call that waits fails instead of hanging).
  ASSERT_EQ(Shell("i=0; while [ ! -e \"$1\" ] && [ $i -lt 500 ]; do sleep 0.01; i=$((i+1)); done;"
                  " echo done > \"$2\"",
                  {Path("go"), Path("done")}, 0),
            0);
  EXPECT_NE(access(Path("done").c_str(), F_OK), 0) << "the call waited";
  root_.Write("go", "");
  for (int i = 0; i < 1000 && access(Path("done").c_str(), F_OK) != 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(root_.Read("done"), "done\n");
  errno = 0;
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD) << "a child is left to reap";
}

TEST_F(FileServicesTest, AProgramOverItsTimeLimitIsKilledWithWhatItStarted) {
  root_.Write("etc/larkpost.json", R"({"program_time_limit": 1})");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Shell("sleep 30 & echo $! > \"$1\"; wait", {Path("pid")}), -1);
  EXPECT_EQ(VESLCErrGet(), unsigned{VESLC_ERR_SIGNAL | SIGKILL});
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  // The program's own child went with it (a zombie waiting for init is gone).
  const std::string stat = "/proc/" + std::to_string(std::stoi(root_.Read("pid"))) + "/stat";
  std::string state;
  for (int i = 0; i < 200; ++i) {
    std::ostringstream text;
    text << std::ifstream(stat).rdbuf();
    state = text.str();
    if (state.empty() || state.find(") Z") != std::string::npos) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_TRUE(state.empty() || state.find(") Z") != std::string::npos) << state;
  // Within the limit, nothing changes.
  EXPECT_EQ(Shell("exit 0"), 0);
}

TEST_F(FileServicesTest, ZevoPathsRunTheProgramsBelowThePrefix) {
  root_.Write("etc/larkpost.json", R"({"program_prefix": ")" + Path("prefix/") + R"("})");
  root_.Write("prefix/bin/tool", "#!/bin/sh\necho \"$0 $1\" > \"$1\"\nexit 5\n");
  ASSERT_EQ(chmod(Path("prefix/bin/tool").c_str(), 0755), 0);
  EXPECT_EQ(VESLCExec(1, "/usr/zevo/bin/tool", Path("ran").c_str(), nullptr), -1);
  EXPECT_EQ(VESLCErrGet(), unsigned{VESLC_ERR_EXIT | 5});
  EXPECT_EQ(root_.Read("ran"), Path("prefix/bin/tool") + " " + Path("ran") + "\n");
  // A program that the prefix lacks runs as named.
  EXPECT_EQ(VESLCExec(1, "/usr/zevo/bin/absent", nullptr), -1);
  EXPECT_EQ(VESLCErrGet(), unsigned{VESLC_ERR_NOT_FOUND});

  // Without a configured prefix, the folder above this program's own: it
  // finds itself.
  testing::TempRoot unconfigured;
  char self[PATH_MAX] = {};
  ASSERT_GT(readlink("/proc/self/exe", self, sizeof(self) - 1), 0);
  const std::string path = self;
  const std::string zevo_path =
      "/usr/zevo/" + path.substr(path.rfind('/', path.rfind('/') - 1) + 1);
  EXPECT_EQ(VESLCExec(1, zevo_path.c_str(), "--gtest_filter=NoSuchTest", nullptr), 0) << zevo_path;
}

TEST_F(FileServicesTest, ANewUsersHomeIsReadableUnderTheUsersOwnUid) {
  if (geteuid() != 0) GTEST_SKIP() << "only a root host hands homes over";
  const uint32_t alice = UserStore::Add("alice", "pw", false, "localdomain");
  UserStore::Add("bob", "pw", false, "localdomain");
  for (const char* name : {"alice", "bob"}) {
    root_.Write(std::string("homes/") + name + "/doc.txt", "text");
    chmod((HomeDir(name) + "/doc.txt").c_str(), 0644);
  }
  const pid_t child = fork();
  if (child == 0) {
    if (setuid(alice) != 0) _exit(10);
    _exit((access((HomeDir("alice") + "/doc.txt").c_str(), R_OK) != 0 ? 1 : 0) |
          (access((HomeDir("bob") + "/doc.txt").c_str(), R_OK) == 0 ? 2 : 0));
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "1: alice cannot read hers, 2: alice can read bob's";
}

}  // namespace
}  // namespace larkpost::appliance
