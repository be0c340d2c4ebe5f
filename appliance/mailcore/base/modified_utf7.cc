#include "appliance/mailcore/base/modified_utf7.h"

#include <cstdint>
#include <vector>

#include "appliance/mailcore/base/utf8.h"

namespace ornic::larkpost::imap {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+,";

bool IsDirect(uint32_t c) { return c >= 0x20 && c <= 0x7e; }

int AlphabetIndex(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == ',') return 63;
  return -1;
}

// Writes `units` as one "&...-" run.
void AppendRun(const std::vector<uint16_t>& units, std::string* out) {
  out->push_back('&');
  uint32_t bits = 0;
  int count = 0;
  for (uint16_t unit : units) {
    bits = (bits << 16) | unit;
    count += 16;
    while (count >= 6) {
      count -= 6;
      out->push_back(kAlphabet[(bits >> count) & 0x3f]);
    }
    bits &= (1u << count) - 1;
  }
  if (count > 0) out->push_back(kAlphabet[(bits << (6 - count)) & 0x3f]);
  out->push_back('-');
}

// Decodes the base64 run of `text` that starts at `*pos` (just after "&")
// into UTF-16 units, and moves `*pos` past its closing "-".
bool ReadRun(std::string_view text, size_t* pos, std::vector<uint16_t>* units) {
  uint32_t bits = 0;
  int count = 0;
  for (size_t i = *pos; i < text.size(); ++i) {
    if (text[i] == '-') {
      // What is left must be the zero padding of the last unit.
      if (count >= 6 || (bits & ((1u << count) - 1)) != 0) return false;
      *pos = i + 1;
      return true;
    }
    const int value = AlphabetIndex(text[i]);
    if (value < 0) return false;
    bits = (bits << 6) | static_cast<uint32_t>(value);
    count += 6;
    if (count >= 16) {
      count -= 16;
      units->push_back(static_cast<uint16_t>(bits >> count));
      bits &= (1u << count) - 1;
    }
  }
  return false;  // never closed
}

}  // namespace

std::optional<std::string> EncodeModifiedUTF7(std::string_view utf8) {
  std::string out;
  out.reserve(utf8.size());
  std::vector<uint16_t> run;
  size_t pos = 0;
  while (pos < utf8.size()) {
    uint32_t c;
    if (!utf8::Next(utf8, &pos, &c)) return std::nullopt;
    if (IsDirect(c)) {
      if (!run.empty()) {
        AppendRun(run, &out);
        run.clear();
      }
      out += c == '&' ? "&-" : std::string(1, static_cast<char>(c));
    } else if (c < 0x10000) {
      run.push_back(static_cast<uint16_t>(c));
    } else {
      c -= 0x10000;
      run.push_back(static_cast<uint16_t>(0xd800 | (c >> 10)));
      run.push_back(static_cast<uint16_t>(0xdc00 | (c & 0x3ff)));
    }
  }
  if (!run.empty()) AppendRun(run, &out);
  return out;
}

std::optional<std::string> DecodeModifiedUTF7(std::string_view mutf7) {
  std::string out;
  out.reserve(mutf7.size());
  std::vector<uint16_t> units;
  size_t pos = 0;
  // An encoder writes neighbouring characters in one run; two runs side by
  // side would be a second spelling of the same name.
  size_t run_end = std::string_view::npos;
  while (pos < mutf7.size()) {
    const unsigned char c = static_cast<unsigned char>(mutf7[pos]);
    if (!IsDirect(c)) return std::nullopt;
    if (c != '&') {
      out.push_back(static_cast<char>(c));
      ++pos;
      continue;
    }
    ++pos;
    if (pos < mutf7.size() && mutf7[pos] == '-') {
      out.push_back('&');
      ++pos;
      continue;
    }
    if (pos - 1 == run_end) return std::nullopt;
    units.clear();
    if (!ReadRun(mutf7, &pos, &units) || units.empty()) return std::nullopt;
    run_end = pos;
    for (size_t i = 0; i < units.size(); ++i) {
      uint32_t unit = units[i];
      if (unit >= 0xd800 && unit <= 0xdbff) {
        if (i + 1 >= units.size() || units[i + 1] < 0xdc00 || units[i + 1] > 0xdfff) {
          return std::nullopt;
        }
        unit = 0x10000 + ((unit - 0xd800) << 10) + (units[++i] - 0xdc00);
      } else if ((unit >= 0xdc00 && unit <= 0xdfff) || IsDirect(unit)) {
        return std::nullopt;
      }
      utf8::Append(unit, &out);
    }
  }
  return out;
}

}  // namespace ornic::larkpost::imap
