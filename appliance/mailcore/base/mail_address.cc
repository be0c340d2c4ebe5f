// Splitting an address header text into its display name and bare address.
// The text comes already decoded (encoded words turned into UTF-8), so the
// display name may hold anything, including characters that are special in
// a header; only quotes, comments and angle brackets structure it.
#include <string>

#include "platform/mailcore/control.h"
#include "platform/mailcore/util.h"

namespace ornic::larkpost::control {
namespace {

// Reads the quoted string that starts at text[*pos] (a '"') into `out`
// without its quotes and escapes; `*pos` ends after the closing quote, or at
// the end of an unclosed string.
void ReadQuoted(const std::string& text, size_t* pos, std::string* out) {
  size_t i = *pos + 1;
  for (; i < text.size() && text[i] != '"'; ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) ++i;
    out->push_back(text[i]);
  }
  *pos = i < text.size() ? i + 1 : i;
}

// Reads the comment that starts at text[*pos] (a '('), nested ones
// included, into `out` without its outer parentheses.
void ReadComment(const std::string& text, size_t* pos, std::string* out) {
  int depth = 0;
  size_t i = *pos;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\\' && i + 1 < text.size()) {
      out->push_back(text[++i]);
      continue;
    }
    if (c == '(' && depth++ == 0) continue;
    if (c == ')' && --depth == 0) break;
    out->push_back(c);
  }
  *pos = i < text.size() ? i + 1 : i;
}

// Folds runs of white space into one blank and trims: a display name spread
// over folded header lines reads as one line.
std::string Squeeze(const std::string& text) {
  std::string out;
  bool blank = false;
  for (char c : util::Trim(text)) {
    const bool space = c == ' ' || c == '\t' || c == '\r' || c == '\n';
    if (space) {
      blank = true;
      continue;
    }
    if (blank) out.push_back(' ');
    blank = false;
    out.push_back(c);
  }
  return out;
}

std::string WithoutBlanks(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n') out.push_back(c);
  }
  return out;
}

}  // namespace

// The first angle-bracket address is the address and the phrase before it
// the name ("Ann <a@b>", "\"Doe, Ann\" <a@b>", "<a@b>"). Without one, the
// text is a bare address, and a comment after it ("a@b (Ann)") is the name,
// as old mailers wrote it. A text without any "@" and without brackets
// ("MAILER-DAEMON", "undisclosed-recipients:;") has no address: it is all
// name. Of a list, the first address counts.
MailAddress::MailAddress(const std::string& text) {
  std::string phrase;  // unquoted text outside comments and brackets
  std::string bare;    // the same, but quoted strings kept with their quotes
  std::string comment;
  size_t i = 0;
  while (i < text.size()) {
    const char c = text[i];
    if (c == '"') {
      std::string quoted;
      ReadQuoted(text, &i, &quoted);
      phrase += quoted;
      bare += '"' + quoted + '"';
    } else if (c == '(') {
      std::string inner;
      ReadComment(text, &i, &inner);
      if (comment.empty()) comment = Squeeze(inner);
    } else if (c == '<') {
      const size_t close = text.find('>', i + 1);
      const size_t end = close == std::string::npos ? text.size() : close;
      email_ = WithoutBlanks(text.substr(i + 1, end - i - 1));
      name_ = Squeeze(phrase);
      // "<a@b> (Ann)": a comment after the address names it too.
      const size_t open = end < text.size() ? text.find('(', end) : std::string::npos;
      if (comment.empty() && open != std::string::npos) {
        size_t at = open;
        std::string inner;
        ReadComment(text, &at, &inner);
        comment = Squeeze(inner);
      }
      if (name_.empty()) name_ = comment;
      return;
    } else if (c == ',' && bare.find('@') != std::string::npos) {
      break;  // "a@b, Bob <c@d>": the first of a list
    } else {
      phrase.push_back(c);
      bare.push_back(c);
      ++i;
    }
  }
  const std::string address = WithoutBlanks(bare);
  if (address.find('@') != std::string::npos) {
    email_ = address;
    name_ = comment;
  } else {
    name_ = Squeeze(phrase);
    if (name_.empty()) name_ = comment;
  }
}

const std::string& MailAddress::GetEmail() const { return email_; }

const std::string& MailAddress::GetName() const { return name_; }

}  // namespace ornic::larkpost::control
