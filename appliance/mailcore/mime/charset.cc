#include "appliance/mailcore/mime/charset.h"

#include <errno.h>
#include <iconv.h>

#include <cctype>
#include <string>
#include <unordered_map>

#include "appliance/mailcore/base/utf8.h"

namespace ornic::larkpost::mime {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

// Bytes 0x80 to 0x9F of Windows-1252; the five it leaves undefined map to
// the C1 controls of the same number, as web browsers do.
constexpr char16_t kWindows1252High[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

// The length of the well-formed UTF-8 sequence at text[i], 0 when there is
// none.
size_t Utf8SequenceAt(const std::string& text, size_t i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  unsigned char lead = byte(i);
  if (lead < 0x80) return 1;
  size_t length;
  unsigned char low = 0x80, high = 0xBF;  // bounds of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;   // overlong
    if (lead == 0xED) high = 0x9F;  // surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;   // overlong
    if (lead == 0xF4) high = 0x8F;  // above U+10FFFF
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  if (byte(i + 1) < low || byte(i + 1) > high) return 0;
  for (size_t k = 2; k < length; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
  }
  return length;
}

std::string FromWindows1252(const std::string& bytes) {
  std::string out;
  out.reserve(bytes.size() + bytes.size() / 4);
  for (char c : bytes) {
    auto b = static_cast<unsigned char>(c);
    if (b < 0x80) {
      out += c;
    } else if (b < 0xA0) {
      AppendUtf8(out, kWindows1252High[b - 0x80]);
    } else {
      AppendUtf8(out, b);
    }
  }
  return out;
}

std::string Lower(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    if (!isspace(static_cast<unsigned char>(c)) && c != '"') {
      out += static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
  }
  return out;
}

// Labels that senders use for a charset whose wider sibling is what they
// actually wrote (as web browsers read them), and labels that iconv does not
// know by that name.
const char* IconvName(const std::string& charset) {
  static const std::unordered_map<std::string, const char*> kAliases = {
      {"gb2312", "GB18030"},
      {"gbk", "GB18030"},
      {"x-gbk", "GB18030"},
      {"cp936", "GB18030"},
      {"euc-cn", "GB18030"},
      {"ks_c_5601-1987", "CP949"},
      {"euc-kr", "CP949"},
      {"shift_jis", "CP932"},
      {"shift-jis", "CP932"},
      {"x-sjis", "CP932"},
      {"sjis", "CP932"},
      {"windows-31j", "CP932"},
      {"iso-8859-8-i", "ISO-8859-8"},
      {"unicode-1-1-utf-7", "UTF-7"},
      {"x-mac-roman", "MACINTOSH"},
      {"big5", "BIG5-HKSCS"},
      {"tis-620", "CP874"},
      {"windows-874", "CP874"},
  };
  auto it = kAliases.find(charset);
  return it == kAliases.end() ? charset.c_str() : it->second;
}

// iconv descriptors to UTF-8 by charset, opened once per thread; an unknown
// charset is remembered as one.
class ConverterCache {
 public:
  ~ConverterCache() {
    for (auto& entry : converters_) {
      if (entry.second != kNone) iconv_close(entry.second);
    }
  }
  // The descriptor, reset to its initial state; kNone for an unknown
  // charset.
  iconv_t Get(const std::string& charset) {
    auto it = converters_.find(charset);
    if (it == converters_.end()) {
      it = converters_.emplace(charset, iconv_open("UTF-8", IconvName(charset))).first;
    }
    if (it->second != kNone) iconv(it->second, nullptr, nullptr, nullptr, nullptr);
    return it->second;
  }
  static inline const iconv_t kNone = reinterpret_cast<iconv_t>(-1);

 private:
  std::unordered_map<std::string, iconv_t> converters_;
};

// `bytes` through `converter`; `*clean`, when given, tells whether every
// sequence was valid.
std::string Convert(iconv_t converter, const std::string& bytes, bool* clean = nullptr) {
  if (clean != nullptr) *clean = true;
  std::string out;
  out.reserve(bytes.size() + bytes.size() / 2);
  char* in = const_cast<char*>(bytes.data());
  size_t in_left = bytes.size();
  char buffer[4096];
  while (in_left > 0) {
    char* target = buffer;
    size_t target_left = sizeof buffer;
    size_t result = iconv(converter, &in, &in_left, &target, &target_left);
    int error = errno;
    out.append(buffer, static_cast<size_t>(target - buffer));
    if (result != static_cast<size_t>(-1) || error == E2BIG) continue;
    // An invalid sequence (EILSEQ), or one cut off by the end of the text
    // (EINVAL): one replacement for it, then on after its first byte.
    AppendUtf8(out, kReplacement);
    if (clean != nullptr) *clean = false;
    if (error == EINVAL) break;
    ++in;
    --in_left;
  }
  // What a stateful charset still holds (ISO-2022-JP's return to ASCII).
  for (;;) {
    char* target = buffer;
    size_t target_left = sizeof buffer;
    size_t result = iconv(converter, nullptr, nullptr, &target, &target_left);
    int error = errno;
    out.append(buffer, static_cast<size_t>(target - buffer));
    if (result != static_cast<size_t>(-1) || error != E2BIG) break;
  }
  return out;
}

}  // namespace

void AppendUtf8(std::string& out, char32_t c) { utf8::Append(c, &out); }

bool IsValidUtf8(const std::string& text) {
  for (size_t i = 0; i < text.size();) {
    // Runs of ASCII are the common case.
    if (static_cast<unsigned char>(text[i]) < 0x80) {
      ++i;
      continue;
    }
    size_t length = Utf8SequenceAt(text, i);
    if (length == 0) return false;
    i += length;
  }
  return true;
}

std::string RepairUtf8(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    size_t length = Utf8SequenceAt(text, i);
    if (length == 0) {
      AppendUtf8(out, kReplacement);
      ++i;
    } else {
      out.append(text, i, length);
      i += length;
    }
  }
  return out;
}

std::string Utf8Prefix(const std::string& text, size_t max_bytes) {
  if (text.size() <= max_bytes) return text;
  size_t end = max_bytes;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

namespace {

// iconv descriptors of this thread.
ConverterCache& Converters() {
  static thread_local ConverterCache converters;
  return converters;
}

}  // namespace

bool ToUtf8Strict(const std::string& bytes, const std::string& charset, std::string* text) {
  const std::string name = Lower(charset);
  if (name.empty()) return false;
  if (name == "utf-8" || name == "utf8") {
    *text = bytes;
    return IsValidUtf8(bytes);
  }
  iconv_t converter = Converters().Get(name);
  if (converter == ConverterCache::kNone) return false;
  bool clean = false;
  *text = Convert(converter, bytes, &clean);
  return clean;
}

std::string ToUtf8(const std::string& bytes, const std::string& charset) {
  std::string name = Lower(charset);
  if (name == "utf-8" || name == "utf8") {
    return IsValidUtf8(bytes) ? bytes : RepairUtf8(bytes);
  }
  if (name.empty() || name == "us-ascii" || name == "ascii" || name == "iso-8859-1" ||
      name == "iso8859-1" || name == "latin1") {
    return IsValidUtf8(bytes) ? bytes : FromWindows1252(bytes);
  }
  if (name == "windows-1252" || name == "cp1252") return FromWindows1252(bytes);
  iconv_t converter = Converters().Get(name);
  if (converter == ConverterCache::kNone) return ToUtf8(bytes, "");
  return Convert(converter, bytes);
}

}  // namespace ornic::larkpost::mime
