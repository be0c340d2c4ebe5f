// Typed parameters, the nested-object factory and the value conditions.
#include <utility>

#include "platform/zevo/webapi.h"

namespace ZEVO {
namespace {

// Copies `json` into `out` when it has the JSON type that T stands for.
template <typename T>
bool ReadJson(const Json::Value& json, T& out);

// Integers must arrive as JSON integers: jsoncpp also calls 5.0 an int, and a
// client that sends 5.0 sends a real number, so the raw type decides first.
template <>
bool ReadJson<int>(const Json::Value& json, int& out) {
  const Json::ValueType type = json.type();
  if ((type != Json::intValue && type != Json::uintValue) || !json.isInt()) return false;
  out = json.asInt();
  return true;
}

template <>
bool ReadJson<int64_t>(const Json::Value& json, int64_t& out) {
  const Json::ValueType type = json.type();
  if ((type != Json::intValue && type != Json::uintValue) || !json.isInt64()) return false;
  out = json.asInt64();
  return true;
}

template <>
bool ReadJson<bool>(const Json::Value& json, bool& out) {
  if (!json.isBool()) return false;
  out = json.asBool();
  return true;
}

template <>
bool ReadJson<std::string>(const Json::Value& json, std::string& out) {
  if (!json.isString()) return false;
  out = json.asString();
  return true;
}

// Any value is a Json::Value; readers that want a particular kind (arrays)
// check it before they get here.
template <>
bool ReadJson<Json::Value>(const Json::Value& json, Json::Value& out) {
  out = json;
  return true;
}

}  // namespace

template <typename T>
APIParameter<T>::APIParameter() = default;

template <typename T>
APIParameter<T> APIParameter<T>::FromMember(const Json::Value* member, int necessity,
                                            const Validator& validator) {
  APIParameter parameter;
  if (member == nullptr || member->isNull()) {
    parameter.reset_ = member != nullptr;
    parameter.invalid_ = necessity == kRequired;
    return parameter;
  }
  parameter.set_ = true;
  T value{};
  if (!ReadJson<T>(*member, value) || (validator && !validator(value))) {
    parameter.invalid_ = true;
    return parameter;
  }
  parameter.value_ = std::move(value);
  return parameter;
}

template <typename T>
bool APIParameter<T>::IsSet() const {
  return set_;
}

template <typename T>
bool APIParameter<T>::IsReset() const {
  return reset_;
}

template <typename T>
bool APIParameter<T>::IsInvalid() const {
  return invalid_;
}

template <typename T>
const T& APIParameter<T>::Get() const {
  return value_;
}

template <typename T>
T APIParameter<T>::Get(const T& fallback) const {
  return set_ && !invalid_ ? value_ : fallback;
}

template <typename T>
void APIParameter<T>::SetDefault(const T& value) {
  // value_ holds the default whenever there is no valid value to hide it.
  if (!set_ || invalid_) value_ = value;
}

template class APIParameter<int>;
template class APIParameter<int64_t>;
template class APIParameter<bool>;
template class APIParameter<std::string>;
template class APIParameter<Json::Value>;

template <typename T>
APIParameter<T> APIParameterFactoryBasicImpl<T>::FromJson(
    const Json::Value& object, const std::string& name, int necessity,
    const typename APIParameter<T>::Validator& validator) {
  const Json::Value* member =
      object.isObject() ? object.find(name.data(), name.data() + name.size()) : nullptr;
  return APIParameter<T>::FromMember(member, necessity, validator);
}

template class APIParameterFactoryBasicImpl<int>;
template class APIParameterFactoryBasicImpl<int64_t>;
template class APIParameterFactoryBasicImpl<bool>;
template class APIParameterFactoryBasicImpl<std::string>;
template class APIParameterFactoryBasicImpl<Json::Value>;

bool APIValidator::IsGreater(const APIParameter<int>& param, int bound) {
  return param.Get() > bound;
}

bool APIValidator::IsBetween(const APIParameter<int>& param, int low, int high) {
  return low <= param.Get() && param.Get() <= high;
}

template <typename T>
bool APIValidator::IsEqual(const APIParameter<T>& param, const T& value) {
  return param.Get() == value;
}

template bool APIValidator::IsEqual<int>(const APIParameter<int>&, const int&);
template bool APIValidator::IsEqual<int64_t>(const APIParameter<int64_t>&, const int64_t&);
template bool APIValidator::IsEqual<bool>(const APIParameter<bool>&, const bool&);
template bool APIValidator::IsEqual<std::string>(const APIParameter<std::string>&,
                                                 const std::string&);

namespace {

// jsoncpp's operator== tells a signed 1 from an unsigned 1; a client's list
// and our allowed list must not differ on that.
bool SameJson(const Json::Value& a, const Json::Value& b) {
  const bool a_int = a.type() == Json::intValue || a.type() == Json::uintValue;
  const bool b_int = b.type() == Json::intValue || b.type() == Json::uintValue;
  if (a_int && b_int) {
    if (a.isInt64() && b.isInt64()) return a.asInt64() == b.asInt64();
    if (a.isUInt64() && b.isUInt64()) return a.asUInt64() == b.asUInt64();
    return false;
  }
  return a == b;
}

}  // namespace

bool APIValidator::IsBelong(const APIParameter<Json::Value>& param, const Json::Value& allowed) {
  if (!param.IsSet()) return true;
  const Json::Value& value = param.Get();
  if (param.IsInvalid() || !value.isArray()) return false;
  for (const Json::Value& element : value) {
    bool found = false;
    if (allowed.isArray()) {
      for (const Json::Value& candidate : allowed) {
        if (SameJson(element, candidate)) {
          found = true;
          break;
        }
      }
    }
    if (!found) return false;
  }
  return true;
}

}  // namespace ZEVO
