// A fresh data root per test: LARKPOST_ROOT points at a new temporary folder
// for the life of the object, and the process forgets the root, the
// configuration, the accounts and the open logs it had, as a new process
// would. The folder and everything in it go away with the object.
#pragma once

#include <ftw.h>
#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "appliance/system/appliance.h"
#include "appliance/system/clock.h"
#include "appliance/system/testing.h"

namespace larkpost::testing {

class TempRoot {
 public:
  TempRoot() {
    char pattern[] = "/tmp/larkpost-test-XXXXXX";
    if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
    setenv("LARKPOST_ROOT", pattern, 1);
    appliance::ResetForTesting();
  }
  ~TempRoot() {
    auto remove = [](const char* path, const struct stat*, int, FTW*) { return ::remove(path), 0; };
    nftw(path_.c_str(), remove, 16, FTW_DEPTH | FTW_PHYS);
    unsetenv("LARKPOST_ROOT");
    appliance::ResetForTesting();
  }
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;

  const std::string& path() const { return path_; }

  // Writes `text` to `relative` below the root, making its folders.
  void Write(const std::string& relative, const std::string& text) const {
    std::string file = path_ + "/" + relative;
    appliance::MakeDirs(file.substr(0, file.rfind('/')));
    std::ofstream(file) << text;
  }

  // The contents of `relative` below the root ("" when missing).
  std::string Read(const std::string& relative) const {
    std::ostringstream text;
    text << std::ifstream(path_ + "/" + relative).rdbuf();
    return text.str();
  }

 private:
  std::string path_;
};

// A clock that tests move by hand.
class FakeClock {
 public:
  explicit FakeClock(int64_t start = 1700000000) : now_(start) {
    appliance::SetUnixTimeForTesting([this] { return now_; });
  }
  ~FakeClock() { appliance::SetUnixTimeForTesting(nullptr); }
  void Advance(int64_t seconds) { now_ += seconds; }
  int64_t now() const { return now_; }

 private:
  int64_t now_;
};

}  // namespace larkpost::testing
