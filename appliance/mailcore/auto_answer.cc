// The vacation rules are those of careful mail servers: answer people, never
// machines (bounces, lists, other automatic replies), never oneself, and
// only mail that was addressed to the user rather than reached them by a
// list or a Bcc.
#include "appliance/mailcore/auto_answer.h"

#include <sodium.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "appliance/mailcore/mime/header.h"
#include "appliance/mailcore/store_text.h"
#include "platform/mailcore/control.h"

namespace ornic::larkpost::store {
namespace {

// Enough for any header block that mail servers let through.
constexpr size_t kHeaderWindow = 256 * 1024;

std::string Trimmed(const std::string& text) {
  const size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t\r\n") - begin + 1);
}

// A structured value without its comments, lower case: "Auto-Replied (x)".
std::string Keyword(const std::string& raw) {
  std::string text = raw.substr(0, raw.find('('));
  return FoldCase(Trimmed(mime::DecodeHeaderText(text)));
}

// The address of a Return-Path ("<a@x>", "<>", or a bare address).
std::string PathAddress(const std::string& raw) {
  const std::string text = Trimmed(raw);
  if (text == "<>") return "";
  return control::MailAddress(text).GetEmail();
}

bool Contains(const std::vector<std::string>& addresses, const std::string& address) {
  const std::string wanted = FoldCase(address);
  return std::any_of(addresses.begin(), addresses.end(),
                     [&](const std::string& own) { return FoldCase(own) == wanted; });
}

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// Addresses that belong to machines: the mailer's own, and the lists'.
bool IsMachine(const std::string& address) {
  const std::string local = FoldCase(address.substr(0, address.rfind('@')));
  return local == "mailer-daemon" || local.rfind("owner-", 0) == 0 || EndsWith(local, "-request");
}

bool IsAscii(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x80 && c != '\r' && c != '\n';
  });
}

std::string Base64(const std::string& bytes) {
  const int variant = sodium_base64_VARIANT_ORIGINAL;
  std::string text(sodium_base64_encoded_len(bytes.size(), variant), '\0');
  sodium_bin2base64(text.data(), text.size(), reinterpret_cast<const unsigned char*>(bytes.data()),
                    bytes.size(), variant);
  text.resize(text.size() - 1);  // the NUL
  return text;
}

// Header text in an encoded word when it is not plain ASCII.
std::string HeaderText(const std::string& text) {
  if (IsAscii(text)) return text;
  return "=?UTF-8?B?" + Base64(text) + "?=";
}

std::string DateText(int64_t now) {
  const time_t seconds = static_cast<time_t>(now);
  struct tm parts;
  gmtime_r(&seconds, &parts);
  static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  char text[64];
  snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d +0000", kDays[parts.tm_wday],
           parts.tm_mday, kMonths[parts.tm_mon], parts.tm_year + 1900, parts.tm_hour, parts.tm_min,
           parts.tm_sec);
  return text;
}

std::string DomainOf(const std::string& address) {
  const size_t at = address.rfind('@');
  return at == std::string::npos ? "localhost" : address.substr(at + 1);
}

}  // namespace

Arrival ReadArrival(const NewMessage& message) {
  std::string window;
  std::string_view source = message.raw;
  if (message.raw.empty() && message.raw_fd >= 0) {
    window.resize(static_cast<size_t>(std::min<int64_t>(message.raw_size, kHeaderWindow)));
    const ssize_t got = pread(message.raw_fd, window.data(), window.size(), 0);
    window.resize(got > 0 ? static_cast<size_t>(got) : 0);
    source = window;
  }
  const mime::HeaderBlock block = mime::ScanHeaders(source);
  Arrival arrival;
  arrival.header_block = std::string(source.substr(0, block.body_offset));
  for (const mime::HeaderField& field : block.fields) {
    const std::string name = FoldCase(field.name);
    if (name == "return-path" && !arrival.has_return_path) {
      arrival.has_return_path = true;
      arrival.return_path = PathAddress(field.value);
    } else if (name == "auto-submitted" && arrival.auto_submitted.empty()) {
      arrival.auto_submitted = Keyword(field.value);
    } else if (name == "precedence" && arrival.precedence.empty()) {
      arrival.precedence = Keyword(field.value);
    } else if (name.rfind("list-", 0) == 0) {
      arrival.list_header = true;
    } else if (name == FoldCase(kForwardMark)) {
      arrival.forward_marks.push_back(FoldCase(PathAddress(field.value)));
    }
  }
  return arrival;
}

bool ShouldForward(const AnswerRules& rules, const Arrival& arrival,
                   const std::string& user_address) {
  if (!rules.forward_enable || rules.forward_addr.empty()) return false;
  return !Contains(arrival.forward_marks, user_address);
}

std::string ForwardSender(const NewMessage& message, const Arrival& arrival) {
  if (arrival.has_return_path) return arrival.return_path;
  return control::MailAddress(message.from).GetEmail();
}

std::string ForwardedSource(const std::string& raw, const std::string& user_address) {
  return std::string(kForwardMark) + ": <" + user_address + ">\r\n" + WithCrlf(raw);
}

std::string VacationRecipient(const AnswerRules& rules, const NewMessage& message,
                              const Arrival& arrival, const std::vector<std::string>& own,
                              int64_t now, std::string* why) {
  auto refuse = [&](const char* reason) {
    *why = reason;
    return std::string();
  };
  if (!rules.reply_enable) return refuse("the vacation reply is off");
  if (rules.reply_begin_time != 0 && now < rules.reply_begin_time) {
    return refuse("the vacation has not begun");
  }
  if (rules.reply_end_time != 0 && now > rules.reply_end_time)
    return refuse("the vacation is over");
  if (arrival.has_return_path && arrival.return_path.empty()) {
    return refuse("the envelope sender is empty");
  }
  if (!arrival.auto_submitted.empty() && arrival.auto_submitted != "no") {
    return refuse("the message was sent automatically");
  }
  if (arrival.list_header) return refuse("the message comes from a list");
  if (arrival.precedence == "bulk" || arrival.precedence == "list" ||
      arrival.precedence == "junk") {
    return refuse("the message has a bulk precedence");
  }
  const std::string sender =
      arrival.has_return_path ? arrival.return_path : control::MailAddress(message.from).GetEmail();
  if (sender.empty()) return refuse("the message names no sender");
  if (IsMachine(sender)) return refuse("the sender is a mailer or a list");
  if (Contains(own, sender)) return refuse("the sender is the user");
  bool named = false;
  for (const std::vector<std::string>* list : {&message.to, &message.cc}) {
    for (const std::string& text : *list) {
      named = named || Contains(own, control::MailAddress(text).GetEmail());
    }
  }
  if (!named) return refuse("the message does not name the user in To or Cc");
  why->clear();
  return sender;
}

std::string VacationReply(const AnswerRules& rules, const NewMessage& message,
                          const std::string& recipient, const std::string& from_address,
                          int64_t now) {
  const std::string subject = !rules.subject.empty() ? rules.subject : "Auto: " + message.subject;
  std::string text = "From: <" + from_address + ">\r\n";
  text += "To: <" + recipient + ">\r\n";
  text += "Subject: " + HeaderText(subject) + "\r\n";
  text += "Date: " + DateText(now) + "\r\n";
  text += "Message-ID: <" + control::RandomString("", 24) + "@" + DomainOf(from_address) + ">\r\n";
  if (!message.rfc_message_id.empty()) {
    text += "In-Reply-To: <" + message.rfc_message_id + ">\r\n";
    std::string references;
    for (const std::string& id : message.references) references += "<" + id + "> ";
    text += "References: " + references + "<" + message.rfc_message_id + ">\r\n";
  }
  text += "Auto-Submitted: auto-replied\r\n";
  text += "MIME-Version: 1.0\r\n";
  text += "Content-Type: text/plain; charset=utf-8\r\n";
  text += "Content-Transfer-Encoding: base64\r\n\r\n";
  const std::string body = Base64(WithCrlf(rules.message));
  for (size_t at = 0; at < body.size(); at += 76) text += body.substr(at, 76) + "\r\n";
  return text;
}

std::string WithCrlf(const std::string& raw) {
  std::string out;
  out.reserve(raw.size() + raw.size() / 40 + 2);
  for (size_t i = 0; i < raw.size(); ++i) {
    if (raw[i] == '\n' && (i == 0 || raw[i - 1] != '\r')) out += '\r';
    out += raw[i];
  }
  if (!out.empty() && out.back() != '\n') out += "\r\n";
  return out;
}

}  // namespace ornic::larkpost::store
