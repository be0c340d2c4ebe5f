// The core's validators of request parameters, given to the framework's
// typed getters. Each answers whether the value is acceptable.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

#include "platform/export.h"

namespace ornic::apivalidator {

ZEVO_PLATFORM_API bool IntGreaterZero(const int& value);
ZEVO_PLATFORM_API bool IntGreaterEqualZero(const int& value);
ZEVO_PLATFORM_API bool IntGreaterEqualNegativeOne(const int& value);
ZEVO_PLATFORM_API bool LLongGreaterZero(const int64_t& value);
// An array whose every element is a JSON integer from 1 to 2147483647; the
// empty array is one (an operation on no ids is the core's to answer).
ZEVO_PLATFORM_API bool JsonIntArrayGreaterZero(const Json::Value& value);
ZEVO_PLATFORM_API bool StringNotEmpty(const std::string& value);
// "#rgb" or "#rrggbb" with hexadecimal digits in any case.
ZEVO_PLATFORM_API bool StringIsColor(const std::string& value);

}  // namespace ornic::apivalidator
