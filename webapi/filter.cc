#include "webapi/filter.h"

#include <string>
#include <vector>

#include "platform/mailcore/constant.h"
#include "platform/mailcore/control.h"

namespace ornic::larkpost::webapi {

namespace {

// The keywords in the order they are tried; the first match decides.
struct ConditionKeyword {
  const char* name;
  constant::ConditionKey key;
  bool negatable;  // only text conditions can be turned into "does not"
};

constexpr ConditionKeyword kConditionKeywords[] = {
    {"mailbox", constant::kConditionMailbox, false},
    {"keyword", constant::kConditionKeyword, true},
    {"from", constant::kConditionFrom, true},
    {"to", constant::kConditionTo, true},
    {"subject", constant::kConditionSubject, true},
    {"before", constant::kConditionBefore, false},
    {"after", constant::kConditionAfter, false},
    {"larger", constant::kConditionLarger, false},
    {"smaller", constant::kConditionSmaller, false},
    {"has_attachment", constant::kConditionHasAttachment, false},
    {"unread", constant::kConditionUnread, false},
    {"modified_after", constant::kConditionModifiedAfter, false},
    {"starred", constant::kConditionStarred, false},
    {"label", constant::kConditionLabel, false},
};

struct ActionKeyword {
  const char* name;
  constant::ActionKind kind;
};

constexpr ActionKeyword kActionKeywords[] = {
    {"archive", constant::kActionArchive},
    {"set_read", constant::kActionSetRead},
    {"set_star", constant::kActionSetStar},
    {"set_label", constant::kActionSetLabel},
    {"remove_label", constant::kActionRemoveLabel},
    {"move_to", constant::kActionMoveTo},
    {"redirect", constant::kActionRedirect},
    {"trash", constant::kActionTrash},
    {"delete", constant::kActionDelete},
};

bool HasNameAndValue(const Json::Value& element) {
  return element.isObject() && element.isMember("name") && element.isMember("value");
}

constant::ActionKind ActionKindOf(const std::string& name) {
  for (const ActionKeyword& keyword : kActionKeywords) {
    if (name == keyword.name) return keyword.kind;
  }
  return constant::kActionNone;
}

}  // namespace

void FilterParser::ParseCondition(const Json::Value& conditions, record::ConditionSet& out) const {
  if (!conditions.isArray()) return;
  for (Json::ArrayIndex i = 0; i < conditions.size(); ++i) {
    const Json::Value& element = conditions[i];
    if (!HasNameAndValue(element)) continue;
    const std::string name = element["name"].asString();
    const std::string value = element["value"].asString();
    const bool negate = element.isMember("not_operator") && element["not_operator"].asBool();
    for (const ConditionKeyword& keyword : kConditionKeywords) {
      if (name != keyword.name) continue;
      out.AddCondition(keyword.key, value, keyword.negatable && negate);
      break;
    }
  }
}

void FilterParser::ParseAction(const Json::Value& actions, record::ActionSet& out) const {
  if (!actions.isArray()) return;
  control::LabelControl labels(controller_);
  for (Json::ArrayIndex i = 0; i < actions.size(); ++i) {
    record::Action action;
    const Json::Value& element = actions[i];
    if (!HasNameAndValue(element)) continue;
    const constant::ActionKind kind = ActionKindOf(element["name"].asString());
    switch (kind) {
      case constant::kActionArchive:
      case constant::kActionTrash:
      case constant::kActionDelete:
        action.kind = kind;
        break;
      case constant::kActionSetRead:
      case constant::kActionSetStar:
        action.kind = kind;
        action.value = element["value"].asString() == "true" ? "true" : "false";
        break;
      case constant::kActionSetLabel:
      case constant::kActionRemoveLabel: {
        // Filters keep the label's key text, which survives renaming.
        const std::vector<record::Label> found = labels.Get({element["value"].asInt()}, false);
        if (!found.empty()) {
          action.kind = kind;
          action.value = found.front().key;
        }
        break;
      }
      case constant::kActionMoveTo: {
        control::MailboxControl mailboxes(controller_);
        const record::Mailbox mailbox = mailboxes.Get(element["value"].asInt());
        if (mailbox.IsValid()) {
          action.kind = kind;
          action.value = mailbox.path;
        }
        break;
      }
      case constant::kActionRedirect:
        action.kind = kind;
        action.value = element["value"].asString();
        break;
      case constant::kActionNone:
        break;
    }
    if (action.IsValid()) out.AddAction(action);
  }
}

}  // namespace ornic::larkpost::webapi
