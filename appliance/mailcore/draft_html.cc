#include "appliance/mailcore/draft_html.h"

#include <cctype>
#include <climits>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace ornic::larkpost::store {
namespace {

constexpr std::string_view kEntry = "entry.cgi?";

// Where a URL in HTML ends: a blank, a quote, a bracket of the markup or of
// CSS's url(...).
bool EndsUrl(char c) {
  return static_cast<unsigned char>(c) <= ' ' || std::strchr("\"'<>()`", c) != nullptr;
}

// Where one begins, looking back from its path: also after "=", ";" (of
// "&quot;") and "," (between srcset candidates).
bool BeforeUrl(char c) { return EndsUrl(c) || std::strchr("=;,", c) != nullptr; }

// The length of the character reference at `at` ("&amp;", "&#38;"), 0 when
// there is none.
size_t ReferenceLength(std::string_view html, size_t at) {
  size_t end = at + 1;
  while (end < html.size() && end - at <= 10 &&
         (std::isalnum(static_cast<unsigned char>(html[end])) || html[end] == '#')) {
    ++end;
  }
  return end > at + 1 && end < html.size() && html[end] == ';' ? end - at + 1 : 0;
}

bool IsAmpersand(std::string_view reference) {
  for (std::string_view amp : {"&amp;", "&AMP;", "&#38;", "&#x26;", "&#X26;"}) {
    if (reference == amp) return true;
  }
  return false;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

std::string PercentDecode(std::string_view text) {
  std::string decoded;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 &&
        HexValue(text[i + 2]) >= 0) {
      decoded += static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  return decoded;
}

// An attachment id as a download URL gives it: 1 to INT_MAX in decimal
// digits; 0 otherwise.
int AttachmentId(const std::string& text) {
  if (text.empty() || text.size() > 10) return 0;
  long long value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return 0;
    value = value * 10 + (c - '0');
  }
  return value > 0 && value <= INT_MAX ? static_cast<int>(value) : 0;
}

// A content id that reads back the same from an attribute and from CSS.
bool Writable(const std::string& content_id) {
  if (content_id.empty()) return false;
  for (char c : content_id) {
    if (EndsUrl(c) || c == '&') return false;
  }
  return true;
}

struct Parameter {
  std::string_view raw;  // "name=value" as written
  std::string name;      // decoded
  std::string value;     // decoded
};

// One URL of the host's entry.cgi: [start, end) of `html`, its query's
// parameters and what separated them.
struct EntryUrl {
  size_t start = 0;
  size_t query = 0;  // just after "?"
  size_t fragment = 0;
  size_t end = 0;
  std::vector<Parameter> parameters;
  std::string_view separator;
};

// How far the URL goes from `at`: to where it ends, or to a character
// reference other than "&" (the "&quot;" closing CSS's url(&quot;...&quot;)
// in a style attribute). In the query, also to the next parameter's
// separator, whose length ("&" or "&amp;") goes to `*separator` (0 when it
// stopped for another reason); and to the fragment.
size_t ScanUrl(std::string_view html, size_t at, bool in_query, size_t* separator) {
  *separator = 0;
  for (; at < html.size(); ++at) {
    const char c = html[at];
    if (EndsUrl(c) || (in_query && c == '#')) return at;
    if (c != '&') continue;
    const size_t reference = ReferenceLength(html, at);
    if (reference != 0 && !IsAmpersand(html.substr(at, reference))) return at;
    if (in_query) {
      *separator = reference != 0 ? reference : 1;
      return at;
    }
  }
  return at;
}

EntryUrl ParseEntryUrl(std::string_view html, size_t start, size_t query) {
  EntryUrl url;
  url.start = start;
  url.query = query;
  size_t at = query;
  while (true) {
    size_t separator = 0;
    const size_t end = ScanUrl(html, at, true, &separator);
    Parameter parameter;
    parameter.raw = html.substr(at, end - at);
    const size_t equals = parameter.raw.find('=');
    parameter.name = PercentDecode(parameter.raw.substr(0, equals));
    if (equals != std::string_view::npos) {
      parameter.value = PercentDecode(parameter.raw.substr(equals + 1));
    }
    url.parameters.push_back(std::move(parameter));
    if (separator == 0) {
      at = end;
      break;
    }
    if (url.separator.empty()) url.separator = html.substr(end, separator);
    at = end + separator;
  }
  url.fragment = at;
  size_t ignored = 0;
  url.end = at < html.size() && html[at] == '#' ? ScanUrl(html, at, false, &ignored) : at;
  return url;
}

const std::string* Find(const EntryUrl& url, const char* name) {
  for (const Parameter& parameter : url.parameters) {
    if (parameter.name == name) return &parameter.value;
  }
  return nullptr;
}

// The content id that `url` is a download of, when it is one of `content_ids`.
const std::string* ShownImage(const EntryUrl& url, const std::map<int, std::string>& content_ids) {
  const std::string* api = Find(url, "api");
  const std::string* method = Find(url, "method");
  const std::string* id = Find(url, "id");
  if (api == nullptr || *api != "ZEVO.Larkpost.Attachment" || method == nullptr ||
      *method != "download" || id == nullptr) {
    return nullptr;
  }
  auto found = content_ids.find(AttachmentId(*id));
  return found != content_ids.end() && Writable(found->second) ? &found->second : nullptr;
}

void AppendWithoutSession(std::string_view html, const EntryUrl& url, std::string* out) {
  out->append(html.substr(url.start, url.query - url.start));
  bool first = true;
  for (const Parameter& parameter : url.parameters) {
    if (parameter.name == "_sid" || parameter.name == "_token") continue;
    if (!first) out->append(url.separator);
    out->append(parameter.raw);
    first = false;
  }
  out->append(html.substr(url.fragment, url.end - url.fragment));
}

}  // namespace

std::string RestoreInlineImages(const std::string& html,
                                const std::map<int, std::string>& content_ids) {
  const std::string_view text(html);
  std::string out;
  size_t copied = 0;
  for (size_t found = text.find(kEntry); found != std::string_view::npos;
       found = text.find(kEntry, found + kEntry.size())) {
    if (found < copied) continue;
    size_t start = found;
    while (start > copied && !BeforeUrl(text[start - 1])) --start;
    // "myentry.cgi" is another program.
    if (start != found && text[found - 1] != '/') continue;
    const EntryUrl url = ParseEntryUrl(text, start, found + kEntry.size());
    out.append(text.substr(copied, start - copied));
    if (const std::string* content_id = ShownImage(url, content_ids)) {
      out += "cid:" + *content_id;
    } else {
      AppendWithoutSession(text, url, &out);
    }
    copied = url.end;
  }
  if (copied == 0) return html;
  out.append(text.substr(copied));
  return out;
}

}  // namespace ornic::larkpost::store
