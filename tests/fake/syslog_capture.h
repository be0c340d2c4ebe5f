// The test binary's own openlog, syslog and closelog (they take the place of
// the C library's at link time), so that tests can read the exact lines and
// identities the plug-in used.
#pragma once

#include <string>
#include <vector>

namespace larkpost::fake {

struct SystemLog {
  struct Line {
    int priority;
    std::string text;
  };
  std::vector<Line> lines;
  // Every openlog, in order: the identity text as it was at the call.
  std::vector<std::string> idents;
  // The pointer the log holds now (as the C library would keep it), so a
  // test can check that it still points at live text.
  const char* ident = nullptr;
  // Identities whose text changed while the log held it (found when the log
  // lets go of it, or when a line is written): the log would have written
  // the changed text under the old name.
  std::vector<std::string> changed_while_held;
  int options = -1;
  int facility = -1;
  int closes = 0;
};

SystemLog& system_log();
void ResetSystemLog();

// The texts of the lines logged so far.
std::vector<std::string> LogTexts();

}  // namespace larkpost::fake
