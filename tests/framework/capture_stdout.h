// What a piece of code writes to standard output, through stdio and the
// descriptor alike. Standard output is back in place afterwards, also when
// the code throws.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>

namespace larkpost::test {

inline std::string CaptureStdout(const std::function<void()>& run) {
  std::FILE* capture = std::tmpfile();
  if (capture == nullptr) throw std::runtime_error("no temporary file to capture into");
  std::fflush(stdout);
  const int saved = dup(STDOUT_FILENO);
  dup2(fileno(capture), STDOUT_FILENO);
  const auto restore = [&] {
    std::fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
  };
  try {
    run();
  } catch (...) {
    restore();
    std::fclose(capture);
    throw;
  }
  restore();
  std::string text;
  std::rewind(capture);
  char buffer[4096];
  for (size_t size; (size = std::fread(buffer, 1, sizeof(buffer), capture)) > 0;) {
    text.append(buffer, size);
  }
  std::fclose(capture);
  return text;
}

}  // namespace larkpost::test
