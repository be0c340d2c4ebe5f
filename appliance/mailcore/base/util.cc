#include "platform/mailcore/util.h"

#include <string>
#include <vector>

#include "platform/mailcore/error.h"

namespace ornic::util {
namespace {

// The web API's bad parameter: a list converted here is a request's.
constexpr int32_t kBadParameter = 120;

// What counts as an element of type T, and its value.
template <typename T>
struct Element;

template <>
struct Element<int> {
  // jsoncpp calls 5.0 an int as well; a number with a fraction part is not
  // an id, whatever its value.
  static bool Accepts(const Json::Value& value) {
    return (value.type() == Json::intValue || value.type() == Json::uintValue) && value.isInt();
  }
  static int Get(const Json::Value& value) { return value.asInt(); }
};

template <>
struct Element<std::string> {
  static bool Accepts(const Json::Value& value) { return value.isString(); }
  static std::string Get(const Json::Value& value) { return value.asString(); }
};

}  // namespace

template <typename T>
std::vector<T> JsonArrayToVector(const Json::Value& array) {
  if (!array.isArray()) throw Error(kBadParameter);
  std::vector<T> values;
  values.reserve(array.size());
  for (const Json::Value& element : array) {
    if (!Element<T>::Accepts(element)) throw Error(kBadParameter);
    values.push_back(Element<T>::Get(element));
  }
  return values;
}

template <typename T>
Json::Value VectorToJsonArray(const std::vector<T>& values) {
  Json::Value array(Json::arrayValue);
  for (const T& value : values) array.append(Json::Value(value));
  return array;
}

template std::vector<int> JsonArrayToVector<int>(const Json::Value&);
template std::vector<std::string> JsonArrayToVector<std::string>(const Json::Value&);
template Json::Value VectorToJsonArray<int>(const std::vector<int>&);
template Json::Value VectorToJsonArray<std::string>(const std::vector<std::string>&);

std::string GetSubstrAfterLast(const std::string& text, char separator) {
  size_t last = text.rfind(separator);
  return last == std::string::npos ? text : text.substr(last + 1);
}

std::string GetSubstrBeforeLast(const std::string& text, char separator) {
  size_t last = text.rfind(separator);
  return last == std::string::npos ? std::string() : text.substr(0, last);
}

std::string Trim(const std::string& text) {
  static constexpr char kBlanks[] = " \t\r\n\f\v";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string::npos) return std::string();
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

}  // namespace ornic::util
