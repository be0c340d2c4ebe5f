#include "platform/mailcore/apivalidator.h"

#include <limits>

namespace ornic::apivalidator {

bool IntGreaterZero(const int& value) { return value > 0; }

bool IntGreaterEqualZero(const int& value) { return value >= 0; }

bool IntGreaterEqualNegativeOne(const int& value) { return value >= -1; }

bool LLongGreaterZero(const int64_t& value) { return value > 0; }

bool JsonIntArrayGreaterZero(const Json::Value& value) {
  if (!value.isArray()) return false;
  for (const Json::Value& element : value) {
    // jsoncpp calls 3.0 an integer too; an id written with a fraction part
    // is a client bug we would rather see than round away.
    if (element.type() == Json::intValue) {
      if (element.asInt64() < 1 || element.asInt64() > std::numeric_limits<int32_t>::max()) {
        return false;
      }
    } else if (element.type() == Json::uintValue) {
      if (element.asUInt64() < 1 || element.asUInt64() > std::numeric_limits<int32_t>::max()) {
        return false;
      }
    } else {
      return false;
    }
  }
  return true;
}

bool StringNotEmpty(const std::string& value) { return !value.empty(); }

bool StringIsColor(const std::string& value) {
  if (value.size() != 4 && value.size() != 7) return false;
  if (value[0] != '#') return false;
  for (size_t i = 1; i < value.size(); ++i) {
    const char c = value[i];
    const bool hex = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    if (!hex) return false;
  }
  return true;
}

}  // namespace ornic::apivalidator
