#include "webapi/filter.h"

#include <json/value.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/mailcore/constant.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/rpc.h"
#include "platform/mailcore/sync.h"
#include "webapi/format/filter.h"
#include "webapi/handler_util.h"
#include "webapi/log.h"

namespace ornic::larkpost::webapi {

namespace {

constexpr char kLogUnit[] = "filter";

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

// A label or mailbox id as the platform's JSON library reads it: an
// integer, or a text holding a whole number (the browser sends "5"). Any
// other value raises the library's conversion error, as asInt() does.
int IdOf(const Json::Value& value) {
  if (value.isString()) {
    const std::string text = value.asString();
    const char* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(begin, &end, 10);
    const bool digits = !text.empty() && text.find_first_not_of("-0123456789") == std::string::npos;
    if (digits && *end == '\0' && errno == 0 && number >= INT_MIN && number <= INT_MAX) {
      return static_cast<int>(number);
    }
  }
  return value.asInt();
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
        const std::vector<record::Label> found = labels.Get({IdOf(element["value"])}, false);
        if (!found.empty()) {
          action.kind = kind;
          action.value = found.front().key;
        }
        break;
      }
      case constant::kActionMoveTo: {
        control::MailboxControl mailboxes(controller_);
        const record::Mailbox mailbox = mailboxes.Get(IdOf(element["value"]));
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

namespace {

Json::Value FiltersToJson(const std::vector<record::Filter>& filters) {
  Json::Value json(Json::arrayValue);
  for (const record::Filter& filter : filters) json.append(format::FilterToJson(filter));
  return json;
}

}  // namespace

using ZEVO::kOptional;
using ZEVO::kRequired;

FilterAPI::FilterAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response)
    : NormalAPI(request, response), filters_(controller_) {}

void FilterAPI::SyncFilters() { control::Syncer(controller_).TriggerSync(constant::kSyncFilter); }

void FilterAPI::List_v1() {
  const std::vector<record::Filter> filters = filters_.List();
  Json::Value data(Json::objectValue);
  data["filter"] = FiltersToJson(filters);
  data["total"] = Json::UInt(filters.size());
  response_->SetSuccess(data);
}

void FilterAPI::Get_v1() {
  const auto id = GetIdArray(*request_, "id");
  if (IsResetOrInvalid(id)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    WEBAPI_LOG("%s:%d parameter invalid");
    return;
  }
  Json::Value data(Json::objectValue);
  data["filter"] = FiltersToJson(filters_.Get(Ids(id)));
  response_->SetSuccess(data);
}

void FilterAPI::Create_v1() {
  const auto condition = request_->GetAndCheckArray("condition", kRequired, nullptr);
  const auto action = request_->GetAndCheckArray("action", kRequired, nullptr);
  const auto apply_exist = request_->GetAndCheckBool("apply_exist", kOptional, nullptr);
  if (condition.Get().empty() || action.Get().empty()) {
    response_->SetError(kErrorBadParameter, Json::Value());
    WEBAPI_LOG("%s:%d parameter invalid");
    return;
  }
  control::FilterConfig config;
  FilterParser parser(controller_);
  record::ConditionSet conditions;
  record::ActionSet actions;
  parser.ParseCondition(condition.Get(), conditions);
  parser.ParseAction(action.Get(), actions);
  config.condition.Set(conditions);
  config.action.Set(actions);
  const int id = filters_.Create(config);
  if (id <= 0) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    WEBAPI_LOG("%s:%d create filter failed");
    return;
  }
  if (apply_exist.Get(false) && !ApplyExistThreads(id)) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    return;
  }
  SyncFilters();
  Json::Value data(Json::objectValue);
  data["id"] = id;
  response_->SetSuccess(data);
}

void FilterAPI::Set_v1() {
  // The check table vouches for "id", "condition" and "action".
  const auto id = request_->GetAndCheckInt("id", kRequired, nullptr);
  const auto condition = request_->GetAndCheckArray("condition", kOptional, nullptr);
  const auto action = request_->GetAndCheckArray("action", kOptional, nullptr);
  const auto apply_exist = request_->GetAndCheckBool("apply_exist", kOptional, nullptr);
  control::FilterConfig config;
  FilterParser parser(controller_);
  if (condition.IsSet()) {
    record::ConditionSet conditions;
    parser.ParseCondition(condition.Get(), conditions);
    config.condition.Set(conditions);
  }
  if (action.IsSet()) {
    record::ActionSet actions;
    parser.ParseAction(action.Get(), actions);
    config.action.Set(actions);
  }
  if (!filters_.Modify(id.Get(), config)) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    WEBAPI_LOG("%s:%d modify filter failed");
    return;
  }
  if (apply_exist.Get(false) && !ApplyExistThreads(id.Get())) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    return;
  }
  SyncFilters();
  response_->SetSuccess(Json::Value());
}

void FilterAPI::Delete_v1() {
  const auto id = GetIdArray(*request_, "id");
  if (IsResetOrInvalid(id)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    WEBAPI_LOG("%s:%d parameter invalid");
    return;
  }
  if (!filters_.Delete(Ids(id))) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    WEBAPI_LOG("%s:%d delete failed");
    return;
  }
  SyncFilters();
  response_->SetSuccess(Json::Value());
}

void FilterAPI::SetOrder_v1() {
  const auto id = GetIdArray(*request_, "id");
  if (IsResetOrInvalid(id)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    WEBAPI_LOG("%s:%d parameter invalid");
    return;
  }
  if (!filters_.SetOrder(Ids(id))) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    WEBAPI_LOG("%s:%d set order failed");
    return;
  }
  SyncFilters();
  response_->SetSuccess(Json::Value());
}

bool FilterAPI::ApplyExistThreads(int id) {
  const std::vector<record::Filter> found = filters_.Get({id});
  if (found.empty()) return false;
  const record::Filter& filter = found.front();
  if (!filter.IsValid()) return false;
  const std::string actions = filter.action.GetSerializedString();
  const std::string conditions = filter.condition.GetSerializedString();
  rpc::ExecuteFilter(uid_, conditions, actions);
  return true;
}

}  // namespace ornic::larkpost::webapi
