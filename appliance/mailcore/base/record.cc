#include "platform/mailcore/record.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "appliance/mailcore/base/modified_utf7.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/util.h"

namespace ornic::larkpost::record {
namespace {

const char* ConditionName(constant::ConditionKey key) {
  switch (key) {
    case constant::kConditionMailbox:
      return "mailbox";
    case constant::kConditionFrom:
      return "from";
    case constant::kConditionTo:
      return "to";
    case constant::kConditionSubject:
      return "subject";
    case constant::kConditionBefore:
      return "before";
    case constant::kConditionAfter:
      return "after";
    case constant::kConditionLarger:
      return "larger";
    case constant::kConditionSmaller:
      return "smaller";
    case constant::kConditionUnread:
      return "unread";
    case constant::kConditionKeyword:
      return "keyword";
    case constant::kConditionModifiedAfter:
      return "modified_after";
    case constant::kConditionHasAttachment:
      return "has_attachment";
    case constant::kConditionStarred:
      return "starred";
    case constant::kConditionLabel:
      return "label";
  }
  return "";  // a number from outside the enumeration
}

bool IsAddressByte(unsigned char c) {
  // Printable ASCII but the specials of an address, or a byte of a UTF-8
  // (internationalised) address.
  if (c >= 0x80) return true;
  if (c <= 0x20 || c == 0x7f) return false;
  return std::string_view("()<>[]\\,;:@\"").find(static_cast<char>(c)) == std::string_view::npos;
}

// "ann@example.org": a dot-atom local part (a quoted one too) and a domain
// of non-empty dot-separated labels. Enough to catch a redirect target typed
// wrong; whether the address exists is the mail server's to find out.
bool LooksLikeAddress(const std::string& text) {
  const std::string address = control::MailAddress(text).GetEmail();
  const size_t at = address.rfind('@');
  if (at == std::string::npos || at == 0 || at + 1 == address.size()) return false;
  const std::string local = address.substr(0, at);
  const std::string domain = address.substr(at + 1);
  const bool quoted = local.size() >= 2 && local.front() == '"' && local.back() == '"';
  if (!quoted) {
    if (local.front() == '.' || local.back() == '.' || local.find("..") != std::string::npos) {
      return false;
    }
    for (unsigned char c : local) {
      if (c != '.' && !IsAddressByte(c)) return false;
    }
  } else if (local.find('\n') != std::string::npos || local.find('\r') != std::string::npos) {
    return false;
  }
  if (domain.front() == '.' || domain.back() == '.' || domain.find("..") != std::string::npos) {
    return false;
  }
  for (unsigned char c : domain) {
    const bool ok = c >= 0x80 || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                    (c >= '0' && c <= '9') || c == '-' || c == '.';
    if (!ok) return false;
  }
  return true;
}

}  // namespace

bool Message::IsValid() const { return id > 0; }

const InlineImageMap& Message::InlineImageMapping() const { return inline_images; }

int32_t Thread::MaxStar() const {
  int32_t star = 0;
  for (const Message& message : messages) star = std::max(star, message.star);
  return star;
}

int32_t Thread::UnreadMessageCount() const {
  return static_cast<int32_t>(
      std::count_if(messages.begin(), messages.end(), [](const Message& m) { return !m.read; }));
}

bool Mailbox::IsValid() const { return id > 0; }

std::string Mailbox::UTF8MailboxPath() const {
  // A path that some other program stored in plain UTF-8 (or that is damaged)
  // is still better shown as it is than hidden.
  return imap::DecodeModifiedUTF7(path).value_or(path);
}

void ConditionSet::AddCondition(constant::ConditionKey key, const std::string& value, bool negate) {
  Condition condition;
  condition.key = key;
  condition.name = ConditionName(key);
  condition.value = value;
  condition.negate = negate;
  conditions.push_back(std::move(condition));
}

bool Action::IsValid() const {
  switch (kind) {
    case constant::kActionArchive:
    case constant::kActionTrash:
    case constant::kActionDelete:
      return true;
    case constant::kActionSetRead:
    case constant::kActionSetStar:
      return value == "true" || value == "false";
    case constant::kActionSetLabel:
    case constant::kActionRemoveLabel:
    case constant::kActionMoveTo:
      return !value.empty();
    case constant::kActionRedirect:
      return LooksLikeAddress(value);
    case constant::kActionNone:
      return false;
  }
  return false;  // a number from outside the enumeration
}

void ActionSet::AddAction(Action action) { actions.push_back(std::move(action)); }

}  // namespace ornic::larkpost::record
