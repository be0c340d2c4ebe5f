#include "tests/fake/syslog_capture.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>

namespace larkpost::fake {

SystemLog& system_log() {
  static SystemLog log;
  return log;
}

void ResetSystemLog() {
  const char* ident = system_log().ident;
  system_log() = SystemLog();
  system_log().ident = ident;
}

std::vector<std::string> LogTexts() {
  std::vector<std::string> texts;
  for (const auto& line : system_log().lines) texts.push_back(line.text);
  return texts;
}

}  // namespace larkpost::fake

namespace {

// What the held identity read when the log was given it.
std::string& HeldText() {
  static std::string text;
  return text;
}

void CheckHeldIdentity() {
  auto& log = larkpost::fake::system_log();
  if (log.ident != nullptr && HeldText() != log.ident) log.changed_while_held.push_back(HeldText());
}

void Record(int priority, const char* format, va_list args) {
  CheckHeldIdentity();
  char buffer[4096];
  std::vsnprintf(buffer, sizeof(buffer), format, args);
  larkpost::fake::system_log().lines.push_back({priority, buffer});
}

}  // namespace

extern "C" {

void openlog(const char* ident, int option, int facility) {
  auto& log = larkpost::fake::system_log();
  CheckHeldIdentity();
  log.ident = ident;
  HeldText() = ident != nullptr ? ident : "";
  log.idents.emplace_back(HeldText());
  log.options = option;
  log.facility = facility;
}

void closelog(void) {
  CheckHeldIdentity();
  auto& log = larkpost::fake::system_log();
  log.ident = nullptr;
  ++log.closes;
}

void vsyslog(int priority, const char* format, va_list args) { Record(priority, format, args); }

void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Record(priority, format, args);
  va_end(args);
}

// What calls to syslog become when the C library's checked variants are on.
void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Record(priority, format, args);
  va_end(args);
}

}  // extern "C"
