#include "webapi/check/param_check.h"

namespace ornic::larkpost::webapi::check {

using ZEVO::APIParameter;

template <typename T>
const APIParameter<T>& ParamCheck::Note(const char* name, const APIParameter<T>& param) {
  noted_.push_back({name, param.IsSet(), param.IsInvalid(), Elements::kNone, nullptr, {}});
  return param;
}

const APIParameter<Json::Value>& ParamCheck::NoteArray(const char* name,
                                                       const APIParameter<Json::Value>& param,
                                                       Elements elements, NestedCheck nested) {
  noted_.push_back({name, param.IsSet(), param.IsInvalid(), elements, nested, param.Get()});
  return param;
}

APIParameter<int> ParamCheck::Int(const char* name, int necessity) {
  return Note(name, request_.GetAndCheckInt(name, necessity, nullptr));
}

APIParameter<int> ParamCheck::Int(const char* name, int necessity, int fallback) {
  APIParameter<int> param = request_.GetAndCheckInt(name, necessity, nullptr);
  param.SetDefault(fallback);
  return Note(name, param);
}

APIParameter<std::string> ParamCheck::String(const char* name, int necessity) {
  return Note(name, request_.GetAndCheckString(name, necessity, nullptr));
}

APIParameter<std::string> ParamCheck::String(const char* name, int necessity,
                                             const std::string& fallback) {
  APIParameter<std::string> param = request_.GetAndCheckString(name, necessity, nullptr);
  param.SetDefault(fallback);
  return Note(name, param);
}

APIParameter<bool> ParamCheck::Bool(const char* name, int necessity) {
  return Note(name, request_.GetAndCheckBool(name, necessity, nullptr));
}

APIParameter<bool> ParamCheck::Bool(const char* name, int necessity, bool fallback) {
  APIParameter<bool> param = request_.GetAndCheckBool(name, necessity, nullptr);
  param.SetDefault(fallback);
  return Note(name, param);
}

APIParameter<Json::Value> ParamCheck::IntArray(const char* name, int necessity) {
  return NoteArray(name, request_.GetAndCheckUnitArray(name, necessity, nullptr), Elements::kInt,
                   nullptr);
}

APIParameter<Json::Value> ParamCheck::StringArray(const char* name, int necessity) {
  return NoteArray(name, request_.GetAndCheckUnitArray(name, necessity, nullptr), Elements::kString,
                   nullptr);
}

APIParameter<Json::Value> ParamCheck::StringArray(const char* name, int necessity,
                                                  const char* fallback_json) {
  APIParameter<Json::Value> param = request_.GetAndCheckUnitArray(name, necessity, nullptr);
  param.SetDefault(ZEVO::WebAPIUtil::ParseJson(fallback_json));
  return NoteArray(name, param, Elements::kString, nullptr);
}

APIParameter<Json::Value> ParamCheck::ObjectArray(const char* name, int necessity,
                                                  NestedCheck nested) {
  return NoteArray(name, request_.GetAndCheckUnitArray(name, necessity, nullptr), Elements::kObject,
                   nested);
}

bool ParamCheck::ElementsHold(const Noted& noted) {
  for (const Json::Value& element : noted.array) {
    switch (noted.elements) {
      case Elements::kNone:
        return true;
      case Elements::kInt:
        // A JSON integer that fits 32 bits; 5.0 or "5" is not one.
        if ((element.type() != Json::intValue && element.type() != Json::uintValue) ||
            !element.isInt()) {
          return false;
        }
        break;
      case Elements::kString:
        if (!element.isString()) {
          return false;
        }
        break;
      case Elements::kObject:
        if (!element.isObject() || !noted.nested(element)) {
          return false;
        }
        break;
    }
  }
  return true;
}

bool ParamCheck::Holds(ZEVO::APIResponse* response) const {
  for (const Noted& noted : noted_) {
    if (noted.invalid) {
      return Fail(response, noted.name, noted.set ? kReasonType : kReasonRequired);
    }
  }
  for (const Noted& noted : noted_) {
    if (!ElementsHold(noted)) {
      return Fail(response, noted.name, kReasonType);
    }
  }
  return true;
}

bool Condition(ZEVO::APIResponse* response, const char* name, bool holds) {
  return holds || Fail(response, name, kReasonCondition);
}

bool Fail(ZEVO::APIResponse* response, const std::string& name, const char* reason) {
  Json::Value data(Json::objectValue);
  data["name"] = name;
  data["reason"] = reason;
  response->SetError(kErrorBadParameter, data);
  return false;
}

}  // namespace ornic::larkpost::webapi::check
