#include "appliance/mailcore/mime/html_text.h"

#include <strings.h>

#include <cctype>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "appliance/mailcore/mime/charset.h"

namespace ornic::larkpost::mime {
namespace {

// Tags whose contents are not text.
const std::unordered_set<std::string>& SkippedElements() {
  static const std::unordered_set<std::string> kSkipped = {"head",  "script",   "style",
                                                           "title", "template", "noscript"};
  return kSkipped;
}

// Tags that end a line where they open and where they close.
const std::unordered_set<std::string>& BlockElements() {
  static const std::unordered_set<std::string> kBlocks = {
      "p",       "div",    "br",   "li",         "tr",      "h1",      "h2",     "h3",
      "h4",      "h5",     "h6",   "ul",         "ol",      "dl",      "dt",     "dd",
      "table",   "hr",     "pre",  "blockquote", "section", "article", "header", "footer",
      "address", "center", "form", "fieldset",   "figure",  "main",    "nav"};
  return kBlocks;
}

char32_t NamedReference(const std::string& name) {
  static const std::unordered_map<std::string, char32_t> kNames = {
      {"nbsp", ' '},     {"amp", '&'},       {"lt", '<'},       {"gt", '>'},
      {"quot", '"'},     {"apos", '\''},     {"copy", 0xA9},    {"reg", 0xAE},
      {"trade", 0x2122}, {"hellip", 0x2026}, {"mdash", 0x2014}, {"ndash", 0x2013},
      {"lsquo", 0x2018}, {"rsquo", 0x2019},  {"ldquo", 0x201C}, {"rdquo", 0x201D},
      {"laquo", 0xAB},   {"raquo", 0xBB},    {"bull", 0x2022},  {"middot", 0xB7},
      {"euro", 0x20AC},  {"pound", 0xA3},    {"yen", 0xA5},     {"cent", 0xA2},
      {"deg", 0xB0},     {"times", 0xD7},    {"divide", 0xF7},  {"sect", 0xA7},
      {"para", 0xB6},    {"iexcl", 0xA1},    {"iquest", 0xBF},  {"szlig", 0xDF},
      {"agrave", 0xE0},  {"aacute", 0xE1},   {"acirc", 0xE2},   {"auml", 0xE4},
      {"ccedil", 0xE7},  {"egrave", 0xE8},   {"eacute", 0xE9},  {"ecirc", 0xEA},
      {"euml", 0xEB},    {"iacute", 0xED},   {"ntilde", 0xF1},  {"oacute", 0xF3},
      {"ouml", 0xF6},    {"uacute", 0xFA},   {"uuml", 0xFC},    {"Auml", 0xC4},
      {"Ouml", 0xD6},    {"Uuml", 0xDC},     {"Eacute", 0xC9},  {"zwnj", 0x200C},
      {"zwj", 0x200D},   {"shy", 0xAD},
  };
  auto it = kNames.find(name);
  return it == kNames.end() ? 0 : it->second;
}

// Decodes the character reference at html[*i] == '&' into `out`; false
// (and nothing consumed) when it is not one.
bool DecodeReference(const std::string& html, size_t* i, std::string& out) {
  size_t end = html.find(';', *i + 1);
  if (end == std::string::npos || end - *i > 12) return false;
  std::string name = html.substr(*i + 1, end - *i - 1);
  char32_t c = 0;
  if (name.size() > 1 && name[0] == '#') {
    bool hex = name[1] == 'x' || name[1] == 'X';
    std::string digits = name.substr(hex ? 2 : 1);
    if (digits.empty() || digits.size() > 8) return false;
    for (char d : digits) {
      if (!(hex ? isxdigit(static_cast<unsigned char>(d))
                : isdigit(static_cast<unsigned char>(d)))) {
        return false;
      }
    }
    unsigned long value = std::stoul(digits, nullptr, hex ? 16 : 10);
    // NUL, surrogates and what lies beyond Unicode are not characters.
    c = value == 0 || (value >= 0xD800 && value <= 0xDFFF) || value > 0x10FFFF
            ? 0xFFFD
            : static_cast<char32_t>(value);
  } else {
    c = NamedReference(name);
    if (c == 0) return false;
  }
  if (c != 0xAD) AppendUtf8(out, c);  // a soft hyphen shows nothing
  *i = end + 1;
  return true;
}

std::string LowerName(const std::string& html, size_t begin, size_t* end) {
  std::string name;
  size_t k = begin;
  while (k < html.size() && isalnum(static_cast<unsigned char>(html[k]))) {
    name += static_cast<char>(tolower(static_cast<unsigned char>(html[k])));
    ++k;
  }
  *end = k;
  return name;
}

// The index after the '>' that closes the tag starting at html[begin],
// quotes in attribute values respected.
size_t TagEnd(const std::string& html, size_t begin) {
  char quote = 0;
  for (size_t k = begin; k < html.size(); ++k) {
    char c = html[k];
    if (quote) {
      if (c == quote) quote = 0;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '>') {
      return k + 1;
    }
  }
  return html.size();
}

// Builds the text: blanks collapsed, line breaks from blocks, no blanks at
// line ends, at most one empty line in a row.
class TextBuilder {
 public:
  void Text(char c) {
    if (c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f') {
      pending_blank_ = true;
      return;
    }
    if (pending_blank_ && !text_.empty() && text_.back() != '\n') text_ += ' ';
    pending_blank_ = false;
    text_ += c;
  }
  void Text(const std::string& piece) {
    for (char c : piece) Text(c);
  }
  void LineBreak() {
    pending_blank_ = false;
    if (text_.empty()) return;
    size_t newlines = 0;
    for (size_t k = text_.size(); k > 0 && text_[k - 1] == '\n'; --k) ++newlines;
    if (newlines < 2) text_ += '\n';
  }
  std::string Take() {
    while (!text_.empty() && text_.back() == '\n') text_.pop_back();
    return text_;
  }

 private:
  std::string text_;
  bool pending_blank_ = false;
};

}  // namespace

std::string HtmlToText(const std::string& html) {
  TextBuilder text;
  for (size_t i = 0; i < html.size();) {
    char c = html[i];
    if (c == '&') {
      std::string decoded;
      if (DecodeReference(html, &i, decoded)) {
        text.Text(decoded);
      } else {
        text.Text(c);
        ++i;
      }
      continue;
    }
    if (c != '<') {
      text.Text(c);
      ++i;
      continue;
    }
    if (html.compare(i, 4, "<!--") == 0) {
      size_t end = html.find("-->", i + 4);
      i = end == std::string::npos ? html.size() : end + 3;
      continue;
    }
    bool closing = i + 1 < html.size() && html[i + 1] == '/';
    size_t name_end;
    std::string name = LowerName(html, i + (closing ? 2 : 1), &name_end);
    if (name.empty() && !(i + 1 < html.size() && (html[i + 1] == '!' || html[i + 1] == '?'))) {
      text.Text(c);  // a lone "<" is text
      ++i;
      continue;
    }
    i = TagEnd(html, i);
    if (!closing && SkippedElements().count(name)) {
      // Everything up to the matching end tag goes.
      std::string end_tag = "</" + name;
      size_t end = i;
      while ((end = html.find("</", end)) != std::string::npos &&
             strncasecmp(html.c_str() + end, end_tag.c_str(), end_tag.size()) != 0) {
        end += 2;
      }
      i = end == std::string::npos ? html.size() : TagEnd(html, end);
      continue;
    }
    if (BlockElements().count(name)) {
      text.LineBreak();
    } else if (name == "td" || name == "th") {
      text.Text(' ');
    }
  }
  return text.Take();
}

}  // namespace ornic::larkpost::mime
