// Small helpers shared by the fuzz targets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace larkpost::fuzz {

// Splits off the first `count` lines of `data` (without their "\n"); the
// rest, after the last line taken, is left in `*rest`. Missing lines are "".
inline std::vector<std::string> TakeLines(std::string_view data, size_t count,
                                          std::string_view* rest) {
  std::vector<std::string> lines;
  while (lines.size() < count) {
    const size_t end = data.find('\n');
    if (end == std::string_view::npos) {
      lines.emplace_back(data);
      data = {};
    } else {
      lines.emplace_back(data.substr(0, end));
      data.remove_prefix(end + 1);
    }
  }
  *rest = data;
  return lines;
}

// Pieces of `data` separated by NUL bytes.
inline std::vector<std::string> SplitNul(std::string_view data) {
  std::vector<std::string> parts;
  for (;;) {
    const size_t end = data.find('\0');
    parts.emplace_back(data.substr(0, end));
    if (end == std::string_view::npos) return parts;
    data.remove_prefix(end + 1);
  }
}

// A broken invariant: says which, with the input's text, and aborts so that
// libFuzzer keeps the input.
[[noreturn]] inline void Broken(const std::string& what) {
  std::fprintf(stderr, "invariant broken: %s\n", what.c_str());
  std::abort();
}

}  // namespace larkpost::fuzz
