// Small text helpers shared by the host's header and form parsers.
#pragma once

#include <cctype>
#include <string>
#include <string_view>

namespace larkpost::cgi {

inline bool IsBlank(char c) { return c == ' ' || c == '\t'; }

inline std::string_view Trim(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

inline std::string Lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

}  // namespace larkpost::cgi
