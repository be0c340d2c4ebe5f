#include "platform/mailcore/record.h"

#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <sstream>
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

const char* ActionName(constant::ActionKind kind) {
  switch (kind) {
    case constant::kActionArchive:
      return "archive";
    case constant::kActionSetRead:
      return "set_read";
    case constant::kActionSetStar:
      return "set_star";
    case constant::kActionSetLabel:
      return "set_label";
    case constant::kActionMoveTo:
      return "move_to";
    case constant::kActionRedirect:
      return "redirect";
    case constant::kActionTrash:
      return "trash";
    case constant::kActionDelete:
      return "delete";
    case constant::kActionRemoveLabel:
      return "remove_label";
    case constant::kActionNone:
      break;
  }
  return "";
}

// Compact, members sorted by key, UTF-8 written as it is: one value has one
// text, which is what makes the serialised sets round-trip.
std::string WriteCompact(const Json::Value& value) {
  static const std::unique_ptr<Json::StreamWriter> writer = [] {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
  }();
  std::ostringstream out;
  writer->write(value, &out);
  return out.str();
}

// `text` as an object with exactly the members `members`, each an array of
// arrays; false when it is anything else.
bool ReadSet(const std::string& text, std::initializer_list<const char*> members,
             Json::Value* value) {
  static const std::unique_ptr<Json::CharReader> reader = [] {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
  }();
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), value, &errors)) return false;
  if (!value->isObject() || value->size() != members.size()) return false;
  for (const char* member : members) {
    if (!value->isMember(member)) return false;
  }
  return true;
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

std::string ConditionSet::GetSerializedString() const {
  Json::Value set(Json::objectValue);
  set["match_any"] = match_any;
  Json::Value& list = set["condition"] = Json::Value(Json::arrayValue);
  for (const Condition& condition : conditions) {
    Json::Value entry(Json::arrayValue);
    entry.append(static_cast<int>(condition.key));
    entry.append(condition.value);
    entry.append(condition.negate);
    list.append(entry);
  }
  return WriteCompact(set);
}

bool ConditionSet::ParseSerializedString(const std::string& text, ConditionSet* out) {
  Json::Value set;
  if (!ReadSet(text, {"condition", "match_any"}, &set)) return false;
  if (!set["match_any"].isBool() || !set["condition"].isArray()) return false;
  ConditionSet parsed;
  parsed.match_any = set["match_any"].asBool();
  for (const Json::Value& entry : set["condition"]) {
    if (!entry.isArray() || entry.size() != 3 || !entry[0].isInt() || !entry[1].isString() ||
        !entry[2].isBool()) {
      return false;
    }
    const auto key = static_cast<constant::ConditionKey>(entry[0].asInt());
    if (*ConditionName(key) == '\0') return false;
    parsed.AddCondition(key, entry[1].asString(), entry[2].asBool());
  }
  *out = std::move(parsed);
  return true;
}

void ActionSet::AddAction(Action action) {
  action.name = ActionName(action.kind);
  actions.push_back(std::move(action));
}

std::string ActionSet::GetSerializedString() const {
  Json::Value set(Json::objectValue);
  Json::Value& list = set["action"] = Json::Value(Json::arrayValue);
  for (const Action& action : actions) {
    Json::Value entry(Json::arrayValue);
    entry.append(static_cast<int>(action.kind));
    entry.append(action.value);
    list.append(entry);
  }
  return WriteCompact(set);
}

bool ActionSet::ParseSerializedString(const std::string& text, ActionSet* out) {
  Json::Value set;
  if (!ReadSet(text, {"action"}, &set) || !set["action"].isArray()) return false;
  ActionSet parsed;
  for (const Json::Value& entry : set["action"]) {
    if (!entry.isArray() || entry.size() != 2 || !entry[0].isInt() || !entry[1].isString()) {
      return false;
    }
    Action action;
    action.kind = static_cast<constant::ActionKind>(entry[0].asInt());
    if (*ActionName(action.kind) == '\0') return false;
    action.value = entry[1].asString();
    parsed.AddAction(std::move(action));
  }
  *out = std::move(parsed);
  return true;
}

bool Filter::IsValid() const {
  if (id <= 0 || action.actions.empty()) return false;
  return std::all_of(action.actions.begin(), action.actions.end(),
                     [](const Action& entry) { return entry.IsValid(); });
}

}  // namespace ornic::larkpost::record
