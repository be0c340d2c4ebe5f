#include "appliance/mailcore/store_text.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "appliance/mailcore/base/utf8.h"

namespace ornic::larkpost::store {
namespace {

bool IsBlank(unsigned char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v';
}

char AsciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

uint32_t FoldCodePoint(uint32_t c) {
  if (c >= 'A' && c <= 'Z') return c + 32;
  if (c < 0xC0) return c;
  if (c <= 0xDE) return c == 0xD7 ? c : c + 32;
  if (c >= 0x100 && c <= 0x17F) {
    // Latin Extended-A pairs capitals with the next code point, except
    // around the dotless i and Ÿ, where the pairing shifts by one. İ has
    // no one-letter lower case.
    if (c == 0x178) return 0xFF;
    if (c == 0x130) return c;
    if ((c <= 0x137 || (c >= 0x14A && c <= 0x177)) && c % 2 == 0) return c + 1;
    if (((c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E)) && c % 2 == 1) return c + 1;
    return c;
  }
  if (c >= 0x391 && c <= 0x3A9 && c != 0x3A2) return c + 32;
  if (c >= 0x410 && c <= 0x42F) return c + 32;
  if (c >= 0x400 && c <= 0x40F) return c + 80;
  return c;
}

std::string CollapseSpace(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  bool pending = false;
  for (char c : text) {
    if (IsBlank(static_cast<unsigned char>(c))) {
      pending = !out.empty();
      continue;
    }
    if (pending) out.push_back(' ');
    pending = false;
    out.push_back(c);
  }
  return out;
}

// Length of a reply or forward prefix at the start of `s` ("Re:", "fwd :",
// "Re[2]:", "AW:"), 0 when there is none.
size_t ReplyPrefixLength(const std::string& s) {
  static const char* const kWords[] = {"re", "fwd", "fw", "aw", "sv"};
  for (const char* word : kWords) {
    size_t n = 0;
    while (word[n] && n < s.size() && AsciiLower(s[n]) == word[n]) ++n;
    if (word[n]) continue;
    size_t i = n;
    if (i < s.size() && (s[i] == '[' || s[i] == '(')) {
      char close = s[i] == '[' ? ']' : ')';
      size_t j = i + 1;
      while (j < s.size() && s[j] >= '0' && s[j] <= '9') ++j;
      if (j == i + 1 || j >= s.size() || s[j] != close) continue;
      i = j + 1;
    }
    while (i < s.size() && s[i] == ' ') ++i;
    if (i < s.size() && s[i] == ':') return i + 1;
  }
  return 0;
}

}  // namespace

std::string FoldCase(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  size_t pos = 0;
  while (pos < text.size()) {
    unsigned char c = static_cast<unsigned char>(text[pos]);
    if (c < 0x80) {
      out.push_back(AsciiLower(static_cast<char>(c)));
      ++pos;
      continue;
    }
    uint32_t code;
    if (!utf8::Next(text, &pos, &code)) {
      out.push_back(static_cast<char>(c));
      ++pos;
      continue;
    }
    utf8::Append(FoldCodePoint(code), &out);
  }
  return out;
}

std::string SubjectKey(const std::string& subject) {
  std::string s = CollapseSpace(subject);
  for (;;) {
    size_t prefix = ReplyPrefixLength(s);
    if (prefix == 0) break;
    size_t start = prefix;
    while (start < s.size() && s[start] == ' ') ++start;
    s.erase(0, start);
  }
  return FoldCase(s);
}

std::string Preview(const std::string& text, size_t chars) {
  std::string collapsed = CollapseSpace(text);
  size_t pos = 0;
  for (size_t n = 0; n < chars && pos < collapsed.size(); ++n) {
    uint32_t code;
    if (!utf8::Next(collapsed, &pos, &code)) ++pos;
  }
  return collapsed.substr(0, pos);
}

std::string EncodeStringArray(const std::vector<std::string>& values) {
  static const char kHex[] = "0123456789abcdef";
  std::string out = "[";
  for (size_t k = 0; k < values.size(); ++k) {
    if (k) out.push_back(',');
    out.push_back('"');
    for (char ch : values[k]) {
      unsigned char c = static_cast<unsigned char>(ch);
      if (c == '"' || c == '\\') {
        out.push_back('\\');
        out.push_back(ch);
      } else if (c < 0x20) {
        out += "\\u00";
        out.push_back(kHex[c >> 4]);
        out.push_back(kHex[c & 0xF]);
      } else {
        out.push_back(ch);
      }
    }
    out.push_back('"');
  }
  out.push_back(']');
  return out;
}

std::vector<std::string> DecodeStringArray(const std::string& json) {
  std::vector<std::string> values;
  size_t i = 0;
  auto skip_blanks = [&] {
    while (i < json.size() && IsBlank(static_cast<unsigned char>(json[i]))) ++i;
  };
  auto hex4 = [&](size_t at, uint32_t* unit) {
    if (at + 4 > json.size()) return false;
    char* stop = nullptr;
    std::string digits = json.substr(at, 4);
    *unit = static_cast<uint32_t>(std::strtoul(digits.c_str(), &stop, 16));
    return *stop == '\0';
  };
  skip_blanks();
  if (i >= json.size() || json[i++] != '[') return {};
  skip_blanks();
  if (i < json.size() && json[i] == ']') return values;
  for (;;) {
    skip_blanks();
    if (i >= json.size() || json[i++] != '"') return {};
    std::string value;
    for (;;) {
      if (i >= json.size()) return {};
      char c = json[i++];
      if (c == '"') break;
      if (c != '\\') {
        value.push_back(c);
        continue;
      }
      if (i >= json.size()) return {};
      char e = json[i++];
      switch (e) {
        case 'n':
          value.push_back('\n');
          break;
        case 't':
          value.push_back('\t');
          break;
        case 'r':
          value.push_back('\r');
          break;
        case 'b':
          value.push_back('\b');
          break;
        case 'f':
          value.push_back('\f');
          break;
        case 'u': {
          uint32_t unit;
          if (!hex4(i, &unit)) return {};
          i += 4;
          if (unit >= 0xD800 && unit <= 0xDBFF && i + 6 <= json.size() && json[i] == '\\' &&
              json[i + 1] == 'u') {
            uint32_t low;
            if (hex4(i + 2, &low) && low >= 0xDC00 && low <= 0xDFFF) {
              unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
              i += 6;
            }
          }
          if (unit >= 0xD800 && unit <= 0xDFFF) unit = 0xFFFD;
          utf8::Append(unit, &value);
          break;
        }
        default:
          value.push_back(e);
      }
    }
    values.push_back(std::move(value));
    skip_blanks();
    if (i >= json.size()) return {};
    if (json[i] == ']') return values;
    if (json[i++] != ',') return {};
  }
}

std::string EncodeIdArray(const std::vector<int>& ids) {
  std::string out = "[";
  for (size_t k = 0; k < ids.size(); ++k) {
    if (k) out.push_back(',');
    out += std::to_string(ids[k]);
  }
  out.push_back(']');
  return out;
}

std::string FullTextQuery(const std::string& words) {
  std::string query;
  size_t i = 0;
  while (i < words.size()) {
    while (i < words.size() && IsBlank(static_cast<unsigned char>(words[i]))) ++i;
    size_t start = i;
    while (i < words.size() && !IsBlank(static_cast<unsigned char>(words[i]))) ++i;
    std::string word = words.substr(start, i - start);
    // A word of punctuation only would be an empty phrase, which matches
    // nothing: it is not a word to search for.
    bool searchable = false;
    for (char c : word) {
      unsigned char u = static_cast<unsigned char>(c);
      if (u >= 0x80 || (u >= '0' && u <= '9') || (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z')) {
        searchable = true;
      }
    }
    if (!searchable) continue;
    if (!query.empty()) query.push_back(' ');
    query.push_back('"');
    for (char c : word) {
      if (c == '"') query.push_back('"');
      query.push_back(c);
    }
    query += "\"*";
  }
  return query;
}

bool ParseInt64(const std::string& text, int64_t* value) {
  if (text.empty()) return false;
  size_t start = (text[0] == '-' || text[0] == '+') ? 1 : 0;
  if (start == text.size()) return false;
  for (size_t i = start; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
  }
  errno = 0;
  char* stop = nullptr;
  long long parsed = std::strtoll(text.c_str(), &stop, 10);
  if (errno == ERANGE || *stop != '\0') return false;
  *value = parsed;
  return true;
}

}  // namespace ornic::larkpost::store
