#include "webapi/format/filter.h"

#include "platform/mailcore/constant.h"

namespace ornic::larkpost::webapi::format {

Json::Value ConditionToJson(const record::Condition& condition) {
  Json::Value json(Json::objectValue);
  json["name"] = condition.name;
  json["value"] = condition.value;
  json["not_operator"] = condition.negate;
  return json;
}

Json::Value ActionToJson(const record::Action& action) {
  Json::Value json(Json::objectValue);
  json["name"] = action.name;
  json["value"] = action.value;
  if (action.kind == constant::kActionSetLabel) json["value"] = action.label.id;
  if (action.kind == constant::kActionMoveTo) json["value"] = action.mailbox.id;
  return json;
}

Json::Value FilterToJson(const record::Filter& filter) {
  Json::Value json(Json::objectValue);
  json["id"] = filter.id;
  json["condition"] = Json::Value(Json::arrayValue);
  json["action"] = Json::Value(Json::arrayValue);
  for (const record::Condition& condition : filter.condition.conditions) {
    json["condition"].append(ConditionToJson(condition));
  }
  for (const record::Action& action : filter.action.actions) {
    json["action"].append(ActionToJson(action));
  }
  return json;
}

}  // namespace ornic::larkpost::webapi::format
