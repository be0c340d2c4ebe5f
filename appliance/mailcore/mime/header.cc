#include "appliance/mailcore/mime/header.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>
#include <vector>

#include "appliance/mailcore/mime/charset.h"
#include "appliance/system/mime_types.h"

namespace ornic::larkpost::mime {
namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t'; }
bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string TrimBlanks(const std::string& text) {
  size_t begin = 0, end = text.size();
  while (begin < end && IsSpace(text[begin])) ++begin;
  while (end > begin && IsSpace(text[end - 1])) --end;
  return text.substr(begin, end - begin);
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return text;
}

// One logical line: CR dropped, a line break followed by a blank joined to
// the line before, any other line break a blank.
std::string Unfold(const std::string& raw) {
  std::string out;
  out.reserve(raw.size());
  for (size_t i = 0; i < raw.size(); ++i) {
    char c = raw[i];
    if (c == '\r') continue;
    if (c == '\n') {
      size_t next = i + 1;
      while (next < raw.size() && raw[next] == '\r') ++next;
      if (next < raw.size() && IsBlank(raw[next])) continue;
      out += ' ';
      continue;
    }
    out += c;
  }
  return out;
}

// The end of the line that starts at `begin` (the index of its '\n', or the
// end of `source`).
size_t LineEnd(std::string_view source, size_t begin) {
  size_t end = source.find('\n', begin);
  return end == std::string_view::npos ? source.size() : end;
}

bool IsBlankLine(std::string_view source, size_t begin, size_t end) {
  return end == begin || (end == begin + 1 && source[begin] == '\r');
}

// The length of the field name at `begin` (up to its colon), 0 when the
// line does not start a header field.
size_t FieldNameLength(std::string_view source, size_t begin, size_t end) {
  size_t i = begin;
  while (i < end && source[i] > ' ' && source[i] < 127 && source[i] != ':') ++i;
  size_t name_end = i;
  while (i < end && IsBlank(source[i])) ++i;  // "Subject : x" happens
  if (name_end == begin || i == end || source[i] != ':') return 0;
  return name_end - begin;
}

// ------------------------------------------------------------ encoded words

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

int Base64Value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

// Lenient: characters outside the alphabet are skipped; padding ends it.
std::string DecodeBase64(const std::string& text) {
  std::string out;
  uint32_t bits = 0;
  int count = 0;
  for (char c : text) {
    if (c == '=') break;
    int value = Base64Value(c);
    if (value < 0) continue;
    bits = (bits << 6) | static_cast<uint32_t>(value);
    count += 6;
    if (count >= 8) {
      count -= 8;
      out += static_cast<char>((bits >> count) & 0xFF);
    }
  }
  return out;
}

std::string DecodeQ(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '_') {
      out += ' ';
    } else if (text[i] == '=' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 &&
               HexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

struct EncodedWord {
  std::string charset;  // lower case, language removed
  std::string bytes;    // decoded, still in `charset`
  size_t end = 0;       // index after "?="
};

// Reads "=?charset?B|Q?text?=" at text[begin]; false when there is none.
bool ReadEncodedWord(const std::string& text, size_t begin, EncodedWord* word) {
  if (text.compare(begin, 2, "=?") != 0) return false;
  size_t charset_end = text.find('?', begin + 2);
  if (charset_end == std::string::npos || charset_end == begin + 2) return false;
  if (charset_end + 2 >= text.size() || text[charset_end + 2] != '?') return false;
  char encoding = static_cast<char>(toupper(static_cast<unsigned char>(text[charset_end + 1])));
  if (encoding != 'B' && encoding != 'Q') return false;
  size_t payload = charset_end + 3;
  size_t close = text.find("?=", payload);
  if (close == std::string::npos) return false;
  std::string charset = text.substr(begin + 2, charset_end - begin - 2);
  for (char c : charset) {
    if (IsSpace(c)) return false;
  }
  std::string encoded = text.substr(payload, close - payload);
  if (encoding == 'B') {
    for (char c : encoded) {
      if (IsSpace(c)) return false;
    }
  }
  size_t star = charset.find('*');  // RFC 2231 language: "utf-8*en"
  if (star != std::string::npos) charset.erase(star);
  word->charset = Lower(charset);
  word->bytes = encoding == 'B' ? DecodeBase64(encoded) : DecodeQ(encoded);
  word->end = close + 2;
  return true;
}

// Control characters as blanks, NUL gone.
std::string CleanControls(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    auto b = static_cast<unsigned char>(c);
    if (b == 0) continue;
    out += (b < 0x20 || b == 0x7F) ? ' ' : c;
  }
  return out;
}

std::string CollapseBlanks(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (IsSpace(c)) {
      if (!out.empty() && out.back() != ' ') out += ' ';
    } else {
      out += c;
    }
  }
  if (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

// ------------------------------------------------------------------ phrases

// Reads a quoted string that starts at text[*i] == '"'; *i ends after its
// closing quote (or at the end of a string that never closes).
std::string ReadQuoted(const std::string& text, size_t* i) {
  std::string out;
  for (++*i; *i < text.size(); ++*i) {
    char c = text[*i];
    if (c == '\\' && *i + 1 < text.size()) {
      out += text[++*i];
    } else if (c == '"') {
      ++*i;
      return out;
    } else {
      out += c;
    }
  }
  return out;
}

// Reads a (possibly nested) comment that starts at text[*i] == '('.
std::string ReadComment(const std::string& text, size_t* i) {
  std::string out;
  int depth = 0;
  for (; *i < text.size(); ++*i) {
    char c = text[*i];
    if (c == '\\' && *i + 1 < text.size()) {
      out += text[++*i];
    } else if (c == '(') {
      if (depth++ > 0) out += c;
    } else if (c == ')') {
      if (--depth == 0) {
        ++*i;
        return out;
      }
      out += c;
    } else {
      out += c;
    }
  }
  return out;
}

bool NeedsQuotes(const std::string& name) {
  return name.find_first_of(",;<>@:\"()[]\\") != std::string::npos;
}

std::string DisplayText(const std::string& name, const std::string& address) {
  if (name.empty()) return address;
  std::string shown = name;
  if (NeedsQuotes(name)) {
    shown = "\"";
    for (char c : name) {
      if (c == '"' || c == '\\') shown += '\\';
      shown += c;
    }
    shown += '"';
  }
  return address.empty() ? shown : shown + " <" + address + ">";
}

// Raw header bytes as UTF-8: UTF-8 when they are, else the charset that the
// message declares for its text when they read cleanly in it, else
// Windows-1252. Legacy CJK mail (GB2312, Big5) often writes its headers in
// the body's charset, unencoded.
std::string DecodeRaw(const std::string& bytes, const std::string& charset) {
  std::string text;
  if (!charset.empty() && !IsValidUtf8(bytes) && ToUtf8Strict(bytes, charset, &text)) return text;
  return ToUtf8(bytes, "");
}

// ------------------------------------------------------------ file names

// Decodes the UTF-8 sequence at text[*i] (valid UTF-8 assumed) and moves
// past it.
char32_t NextCodePoint(const std::string& text, size_t* i) {
  auto b = static_cast<unsigned char>(text[*i]);
  size_t length = b < 0x80 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : 4;
  char32_t c = length == 1 ? b : length == 2 ? (b & 0x1F) : length == 3 ? (b & 0x0F) : (b & 0x07);
  for (size_t k = 1; k < length && *i + k < text.size(); ++k) {
    c = (c << 6) | (static_cast<unsigned char>(text[*i + k]) & 0x3F);
  }
  *i += length;
  return c;
}

bool IsUnsafeInName(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c <= 0x9F) ||  // controls, NUL among them
         (c >= 0x200E && c <= 0x200F) ||          // direction marks
         (c >= 0x202A && c <= 0x202E) ||          // embeddings and overrides
         (c >= 0x2066 && c <= 0x2069);            // isolates
}

std::string ExtensionFor(const std::string& mimetype) {
  static const std::map<std::string, std::string> kExtensions = {
      {"text/plain", ".txt"},
      {"text/html", ".html"},
      {"text/calendar", ".ics"},
      {"text/csv", ".csv"},
      {"text/xml", ".xml"},
      {"image/jpeg", ".jpg"},
      {"image/png", ".png"},
      {"image/gif", ".gif"},
      {"image/webp", ".webp"},
      {"image/bmp", ".bmp"},
      {"image/tiff", ".tif"},
      {"image/svg+xml", ".svg"},
      {"audio/mpeg", ".mp3"},
      {"video/mp4", ".mp4"},
      {"message/rfc822", ".eml"},
      {"application/pdf", ".pdf"},
      {"application/zip", ".zip"},
      {"application/gzip", ".gz"},
      {"application/json", ".json"},
      {"application/xml", ".xml"},
      {"application/ics", ".ics"},
      {"application/msword", ".doc"},
      {"application/vnd.ms-excel", ".xls"},
      {"application/vnd.ms-powerpoint", ".ppt"},
      {"application/vnd.openxmlformats-officedocument.wordprocessingml.document", ".docx"},
      {"application/vnd.openxmlformats-officedocument.spreadsheetml.sheet", ".xlsx"},
      {"application/vnd.openxmlformats-officedocument.presentationml.presentation", ".pptx"},
      {"application/pgp-signature", ".asc"},
      {"application/pgp-encrypted", ".asc"},
      {"application/pkcs7-signature", ".p7s"},
      {"application/octet-stream", ".bin"},
  };
  auto it = kExtensions.find(mimetype);
  return it == kExtensions.end() ? "" : it->second;
}

}  // namespace

// ------------------------------------------------------------- header block

const std::string* HeaderBlock::Find(const std::string& name) const {
  for (const HeaderField& field : fields) {
    if (strcasecmp(field.name.c_str(), name.c_str()) == 0) return &field.value;
  }
  return nullptr;
}

std::vector<std::string> HeaderBlock::FindAll(const std::string& name) const {
  std::vector<std::string> values;
  for (const HeaderField& field : fields) {
    if (strcasecmp(field.name.c_str(), name.c_str()) == 0) values.push_back(field.value);
  }
  return values;
}

HeaderBlock ScanHeaders(std::string_view source) {
  HeaderBlock block;
  size_t begin = 0;
  if (source.substr(0, 5) == "From ") begin = std::min(LineEnd(source, 0) + 1, source.size());
  bool in_garbage = false;  // continuation lines of a skipped line are skipped too
  bool first = true;
  while (begin < source.size()) {
    size_t end = LineEnd(source, begin);
    size_t next = std::min(end + 1, source.size());
    if (IsBlankLine(source, begin, end)) {
      block.body_offset = next;
      return block;
    }
    if (IsBlank(source[begin])) {
      if (!block.fields.empty() && !in_garbage) {
        block.fields.back().value.append(source.substr(begin - 1, end - begin + 1));  // "\n" + line
      }
    } else if (size_t length = FieldNameLength(source, begin, end)) {
      size_t colon = source.find(':', begin + length);
      block.fields.push_back({std::string(source.substr(begin, length)),
                              std::string(source.substr(colon + 1, end - colon - 1))});
      in_garbage = false;
    } else if (first) {
      // Not a message with a header: all of it is body.
      block.body_offset = 0;
      return block;
    } else {
      in_garbage = true;
    }
    first = false;
    begin = next;
  }
  block.body_offset = source.size();
  return block;
}

std::string FieldValueAt(std::string_view source, size_t offset, const std::string& name,
                         size_t* field_end) {
  if (field_end != nullptr) *field_end = offset;
  if (offset >= source.size() || source.size() - offset < name.size() ||
      strncasecmp(source.data() + offset, name.c_str(), name.size()) != 0) {
    return "";
  }
  size_t end = LineEnd(source, offset);
  size_t colon = offset + name.size();
  while (colon < end && IsBlank(source[colon])) ++colon;
  if (colon >= end || source[colon] != ':') return "";
  std::string value(source.substr(colon + 1, end - colon - 1));
  size_t begin = end + 1;
  for (; begin < source.size() && IsBlank(source[begin]); begin = end + 1) {
    end = LineEnd(source, begin);
    value += '\n';
    value.append(source.substr(begin, end - begin));
  }
  if (field_end != nullptr) *field_end = std::min(begin, source.size());
  return value;
}

// ----------------------------------------------------------- decoded texts

std::string DecodeHeaderText(const std::string& raw, const std::string& charset) {
  std::string text = Unfold(raw);
  std::string out;
  std::string plain;  // text since the last encoded word
  bool have_word = false;
  std::string word_charset, word_bytes;  // encoded words not yet decoded
  auto flush_word = [&] {
    if (have_word) out += ToUtf8(word_bytes, word_charset);
    have_word = false;
    word_bytes.clear();
  };
  for (size_t i = 0; i < text.size();) {
    EncodedWord word;
    if (text[i] != '=' || !ReadEncodedWord(text, i, &word)) {
      plain += text[i++];
      continue;
    }
    // Blanks between two encoded words are not part of the text.
    bool only_blanks = plain.find_first_not_of(" \t") == std::string::npos;
    if (have_word && only_blanks && word.charset == word_charset) {
      word_bytes += word.bytes;
    } else {
      bool between_words = have_word && only_blanks;
      flush_word();
      if (!between_words) out += DecodeRaw(plain, charset);
      have_word = true;
      word_charset = word.charset;
      word_bytes = word.bytes;
    }
    plain.clear();
    i = word.end;
  }
  flush_word();
  out += DecodeRaw(plain, charset);
  return TrimBlanks(CleanControls(out));
}

namespace {

// One mailbox of an address list, as tokens: words (atoms, with the dots
// and domain literals they hold), quoted strings, comments and the specials
// that matter inside a mailbox.
struct AddressToken {
  enum Kind { kWord, kQuoted, kComment, kAt, kOpen, kClose } kind;
  std::string text;
  bool space_before;  // blanks (or a comment) before it
};

std::string AddressWordText(const AddressToken& token) {
  if (token.kind == AddressToken::kAt) return "@";
  if (token.kind != AddressToken::kQuoted) return token.text;
  // A quoted local part keeps its quotes.
  std::string quoted = "\"";
  for (char c : token.text) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

// An address without blanks or comments, without a source route
// ("@relay:ann@x").
std::string JoinAddress(const std::vector<AddressToken>& tokens, const std::string& charset) {
  std::string address;
  for (const AddressToken& token : tokens) {
    if (token.kind != AddressToken::kComment) address += AddressWordText(token);
  }
  size_t route = address.rfind(':');
  if (route != std::string::npos && !address.empty() && address[0] == '@') {
    address.erase(0, route + 1);
  }
  // A control character in an address is noise, not the blank it is in a
  // name: an address with a blank would neither read back nor deliver.
  address.erase(
      std::remove_if(address.begin(), address.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }),
      address.end());
  return DecodeRaw(CleanControls(address), charset);
}

std::string JoinPhrase(const std::vector<AddressToken>& tokens, const std::string& charset) {
  std::string phrase;
  for (const AddressToken& token : tokens) {
    if (token.kind == AddressToken::kComment) continue;
    if (!phrase.empty() && token.space_before) phrase += ' ';
    phrase += token.kind == AddressToken::kAt ? "@" : token.text;
  }
  return CollapseBlanks(DecodeHeaderText(phrase, charset));
}

std::string FirstComment(const std::vector<AddressToken>& tokens, const std::string& charset) {
  for (const AddressToken& token : tokens) {
    if (token.kind == AddressToken::kComment) {
      std::string text = CollapseBlanks(DecodeHeaderText(token.text, charset));
      if (!text.empty()) return text;
    }
  }
  return "";
}

// A mailbox written without angle brackets: whatever senders put there.
// Words joined by "@" (blanks and comments around it allowed, as the
// obsolete syntax does) are addresses, every other word is display name:
// "tim@a.example concierge@a.example" is two mailboxes, "Big Bug bb@bug.com"
// one with a name. A comment after an address names it when nothing else
// does ("ann@example.org (Ann)"); a comment inside one is dropped.
void AddBareMailboxes(const std::vector<AddressToken>& tokens, const std::string& charset,
                      std::vector<std::string>* list) {
  struct Piece {
    std::vector<AddressToken> tokens;
    bool address = false;
  };
  std::vector<Piece> pieces;
  std::vector<AddressToken> comments_outside;
  for (size_t i = 0; i < tokens.size(); ++i) {
    const AddressToken& token = tokens[i];
    const bool at = token.kind == AddressToken::kAt;
    if (token.kind == AddressToken::kComment) {
      // Inside an address when an "@" is next to it.
      auto at_beside = [&](size_t k, int step) {
        while (k < tokens.size() && tokens[k].kind == AddressToken::kComment) k += step;
        return k < tokens.size() && tokens[k].kind == AddressToken::kAt;
      };
      if (!at_beside(i + 1, 1) && !(i > 0 && at_beside(i - 1, -1))) {
        comments_outside.push_back(token);
      }
      continue;
    }
    // Blanks may stand around the "@" and, in a domain, around its dots.
    auto dot_beside = [&](const AddressToken& before) {
      return pieces.back().address && ((!token.text.empty() && token.text.front() == '.') ||
                                       (!before.text.empty() && before.text.back() == '.'));
    };
    const bool glued = !pieces.empty() && (at || !token.space_before ||
                                           pieces.back().tokens.back().kind == AddressToken::kAt ||
                                           dot_beside(pieces.back().tokens.back()));
    if (!glued) pieces.emplace_back();
    pieces.back().tokens.push_back(token);
    if (at) pieces.back().address = true;
  }
  std::vector<AddressToken> name;
  std::vector<std::pair<std::string, std::string>> found;  // name, address
  for (const Piece& piece : pieces) {
    if (!piece.address) {
      name.insert(name.end(), piece.tokens.begin(), piece.tokens.end());
      name.back().space_before = true;
      continue;
    }
    found.emplace_back(JoinPhrase(name, charset), JoinAddress(piece.tokens, charset));
    name.clear();
  }
  if (found.empty()) {
    // A name with no address (a local part alone, a list's label).
    const std::string text = JoinPhrase(name, charset);
    if (!text.empty()) list->push_back(DisplayText(text, ""));
    return;
  }
  // Words after the last address name it, or a comment when nothing else.
  std::pair<std::string, std::string>& last = found.back();
  if (last.first.empty()) last.first = JoinPhrase(name, charset);
  if (last.first.empty() && found.size() == 1) last.first = FirstComment(comments_outside, charset);
  for (const auto& [text, address] : found) list->push_back(DisplayText(text, address));
}

// One mailbox (or a run of bare addresses) of an address list.
void AddMailboxes(const std::vector<AddressToken>& tokens, const std::string& charset,
                  std::vector<std::string>* list) {
  const auto open = std::find_if(tokens.begin(), tokens.end(), [](const AddressToken& token) {
    return token.kind == AddressToken::kOpen;
  });
  if (open == tokens.end()) {
    AddBareMailboxes(tokens, charset, list);
    return;
  }
  const auto close = std::find_if(open, tokens.end(), [](const AddressToken& token) {
    return token.kind == AddressToken::kClose;
  });
  const std::vector<AddressToken> phrase(tokens.begin(), open);
  std::string name = JoinPhrase(phrase, charset);
  const std::string address = JoinAddress({open + 1, close}, charset);
  if (name.empty()) name = FirstComment(tokens, charset);
  if (!address.empty() || !name.empty()) list->push_back(DisplayText(name, address));
}

}  // namespace

std::vector<std::string> ParseAddressList(const std::string& raw, const std::string& charset) {
  const std::string text = Unfold(raw);
  std::vector<std::string> list;
  std::vector<AddressToken> tokens;  // of the mailbox being read
  bool space = false, angle = false;
  auto add = [&](AddressToken::Kind kind, std::string token_text) {
    tokens.push_back({kind, std::move(token_text), space});
    space = false;
  };
  for (size_t i = 0; i < text.size();) {
    const char c = text[i];
    if (IsSpace(c)) {
      space = true;
      ++i;
    } else if (c == '"') {
      // Its specials (",", ":") are text; encoded words in it are decoded
      // with the rest of the phrase, as many senders expect.
      add(AddressToken::kQuoted, ReadQuoted(text, &i));
    } else if (c == '(') {
      add(AddressToken::kComment, ReadComment(text, &i));
      space = true;
    } else if (c == '<' && !angle) {
      add(AddressToken::kOpen, "");
      angle = true;
      ++i;
    } else if (c == '>' && angle) {
      add(AddressToken::kClose, "");
      angle = false;
      ++i;
    } else if (c == '@') {
      add(AddressToken::kAt, "");
      ++i;
    } else if ((c == ',' || c == ';') && !angle) {
      AddMailboxes(tokens, charset, &list);
      tokens.clear();
      ++i;
    } else if (c == ':' && !angle) {
      tokens.clear();  // a group's name
      ++i;
    } else {
      // A word: an atom with its dots, or a domain literal.
      size_t end = i;
      while (end < text.size() && !IsSpace(text[end]) &&
             std::string_view("\"()<>@,;:").find(text[end]) == std::string_view::npos) {
        if (text[end] == '[') {
          const size_t literal_end = text.find(']', end);
          end = literal_end == std::string::npos ? text.size() : literal_end + 1;
        } else {
          end += text[end] == '\\' && end + 1 < text.size() ? 2 : 1;
        }
      }
      if (end == i) end = i + 1;  // a stray ">" or ":" inside brackets
      add(AddressToken::kWord, text.substr(i, end - i));
      i = end;
    }
  }
  AddMailboxes(tokens, charset, &list);
  return list;
}

std::vector<std::string> ParseMessageIds(const std::string& raw) {
  std::string text = Unfold(raw);
  std::vector<std::string> ids;
  bool angles = false;
  for (size_t open = text.find('<'); open != std::string::npos; open = text.find('<', open + 1)) {
    size_t close = text.find('>', open + 1);
    if (close == std::string::npos) break;
    angles = true;
    std::string id;
    for (size_t k = open + 1; k < close; ++k) {
      if (!IsSpace(text[k])) id += text[k];
    }
    if (!id.empty()) ids.push_back(ToUtf8(CleanControls(id), ""));
    open = close;
  }
  if (angles) return ids;
  std::string word;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || IsSpace(text[i]) || text[i] == ',') {
      if (!word.empty()) ids.push_back(ToUtf8(CleanControls(word), ""));
      word.clear();
    } else {
      word += text[i];
    }
  }
  return ids;
}

namespace {

// `raw` up to its first NUL, in it or in one of its encoded words. A NUL
// ends a parameter value, as it ends it for programs written in C: what
// follows cannot lend the value another meaning ("x.txt\0.svg").
std::string UpToNul(const std::string& raw) {
  std::string text = raw.substr(0, raw.find('\0'));
  for (size_t at = text.find("=?"); at != std::string::npos; at = text.find("=?", at + 2)) {
    EncodedWord word;
    if (!ReadEncodedWord(text, at, &word)) continue;
    size_t nul = word.bytes.find('\0');
    if (nul == std::string::npos) {
      at = word.end - 2;
      continue;
    }
    // The word again, as much of it as comes before the NUL.
    std::string cut = text.substr(0, at) + "=?" + word.charset + "?Q?";
    for (size_t k = 0; k < nul; ++k) {
      char escape[4];
      snprintf(escape, sizeof escape, "=%02X", static_cast<unsigned char>(word.bytes[k]));
      cut += escape;
    }
    return cut + "?=";
  }
  return text;
}

bool IsTokenText(const std::string& text) {
  return !text.empty() && text.find_first_of(" \t()<>@,;:\\\"/[]?=") == std::string::npos &&
         std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 127; });
}

// Types whose content runs script where a browser shows it.
bool IsActiveType(const std::string& mimetype) {
  return mimetype == "text/html" || mimetype == "image/svg+xml" || mimetype == "application/xml" ||
         mimetype == "text/javascript";
}

}  // namespace

std::string MediaType(const std::string& raw) {
  std::string value = ParseParameterizedValue(raw).value;
  size_t slash = value.find('/');
  if (slash != std::string::npos && IsTokenText(value.substr(0, slash)) &&
      IsTokenText(value.substr(slash + 1))) {
    return value;
  }
  return value.substr(0, value.find_first_of("/ \t")) == "text" ? "text/plain" : "";
}

ParameterizedValue ParseParameterizedValue(const std::string& raw) {
  std::string text = Unfold(raw);
  ParameterizedValue result;
  // Pieces of RFC 2231 values: name -> section -> (extended, text).
  std::map<std::string, std::map<int, std::pair<bool, std::string>>> pieces;
  std::map<std::string, std::string> plain;

  size_t i = 0;
  auto read_until_semicolon = [&] {
    std::string out;
    while (i < text.size() && text[i] != ';') {
      if (text[i] == '"') {
        out += ReadQuoted(text, &i);
      } else {
        out += text[i++];
      }
    }
    return out;
  };
  result.value = Lower(TrimBlanks(read_until_semicolon()));
  while (i < text.size()) {
    ++i;  // the ';'
    size_t equals = text.find('=', i);
    size_t semicolon = text.find(';', i);
    if (equals == std::string::npos || (semicolon != std::string::npos && semicolon < equals)) {
      if (semicolon == std::string::npos) break;
      i = semicolon;
      continue;
    }
    std::string name = Lower(TrimBlanks(text.substr(i, equals - i)));
    i = equals + 1;
    while (i < text.size() && IsBlank(text[i])) ++i;
    std::string value;
    if (i < text.size() && text[i] == '"') {
      value = ReadQuoted(text, &i);
      read_until_semicolon();  // anything after the closing quote
    } else {
      value = TrimBlanks(read_until_semicolon());
    }
    if (name.empty()) continue;

    size_t star = name.find('*');
    if (star == std::string::npos) {
      plain.emplace(name, value);
      continue;
    }
    std::string base = name.substr(0, star);
    std::string rest = name.substr(star + 1);  // "", "0", "0*", "1"
    bool extended = !rest.empty() ? rest.back() == '*' : true;
    if (!rest.empty() && rest.back() == '*') rest.pop_back();
    int section = 0;
    if (!rest.empty()) {
      if (rest.find_first_not_of("0123456789") != std::string::npos || rest.size() > 4) continue;
      section = std::stoi(rest);
    }
    pieces[base].emplace(section, std::make_pair(extended, value));
  }

  for (auto& [name, value] : plain) result.params[name] = DecodeHeaderText(UpToNul(value));
  for (auto& [name, sections] : pieces) {
    std::string charset, bytes;
    bool any_extended = false;
    int expected = 0;
    for (auto& [section, piece] : sections) {
      if (section != expected++) break;  // a missing piece ends the value
      std::string part = piece.second;
      if (piece.first) {
        any_extended = true;
        if (section == 0) {
          size_t quote1 = part.find('\'');
          size_t quote2 = quote1 == std::string::npos ? quote1 : part.find('\'', quote1 + 1);
          if (quote2 != std::string::npos) {
            charset = part.substr(0, quote1);
            part.erase(0, quote2 + 1);
          }
        }
        std::string decoded;
        for (size_t k = 0; k < part.size(); ++k) {
          if (part[k] == '%' && k + 2 < part.size() && HexValue(part[k + 1]) >= 0 &&
              HexValue(part[k + 2]) >= 0) {
            decoded += static_cast<char>(HexValue(part[k + 1]) * 16 + HexValue(part[k + 2]));
            k += 2;
          } else {
            decoded += part[k];
          }
        }
        part = decoded;
      }
      bytes += part;
    }
    if (expected == 0) continue;
    std::string value = any_extended ? ToUtf8(bytes, charset) : DecodeHeaderText(UpToNul(bytes));
    result.params[name] = value.substr(0, value.find('\0'));
  }
  return result;
}

std::string SafeFileName(const std::string& name, const std::string& mimetype) {
  std::string text = name.substr(0, name.find('\0'));
  text = IsValidUtf8(text) ? text : RepairUtf8(text);
  std::string clean;
  for (size_t i = 0; i < text.size();) {
    size_t start = i;
    char32_t c = NextCodePoint(text, &i);
    if (c == '/' || c == '\\') {
      clean.clear();  // only what follows the last separator counts
    } else if (!IsUnsafeInName(c)) {
      clean.append(text, start, i - start);
    }
  }
  clean = TrimBlanks(clean);
  if (clean.empty() || clean == "." || clean == "..") return "attachment" + ExtensionFor(mimetype);
  // The name must not claim a type that runs script for content of
  // another type (a type that says nothing is left to the name).
  const std::string claimed = ::larkpost::appliance::MimeTypeForFileName(clean);
  const size_t dot = clean.rfind('.');
  const std::string extension = dot == std::string::npos ? "" : Lower(clean.substr(dot));
  if (IsActiveType(claimed) && claimed != mimetype && mimetype != "application/octet-stream" &&
      extension != ExtensionFor(mimetype)) {
    clean += ExtensionFor(mimetype).empty() ? ".bin" : ExtensionFor(mimetype);
  }
  // A file name takes 255 bytes; what is left is room for the number that
  // tells apart two attachments of one name when they are written as
  // files side by side ("name_12.pdf").
  constexpr size_t kMaxBytes = 240;
  if (clean.size() > kMaxBytes) {
    size_t last_dot = clean.rfind('.');
    std::string kept = last_dot != std::string::npos && clean.size() - last_dot <= 16
                           ? clean.substr(last_dot)
                           : "";
    clean = Utf8Prefix(clean.substr(0, clean.size() - kept.size()), kMaxBytes - kept.size()) + kept;
  }
  return clean;
}

}  // namespace ornic::larkpost::mime
