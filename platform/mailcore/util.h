// Small helpers of the core that the web API shares.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/export.h"

namespace ornic::util {

template <typename T>
using optional = std::optional<T>;

// The elements of a JSON array of T, in order. For int, an element is a JSON
// integer within the 32-bit range (not 5.0, "5", true or null). A list with
// one element of another type is a bad list, never a shorter one: throws
// ornic::Error(120), the web API's bad parameter, when `array` is not an
// array or any element is not a T, so that a caller acting on the ids never
// acts on some of them.
template <typename T>
ZEVO_PLATFORM_API std::vector<T> JsonArrayToVector(const Json::Value& array);

template <typename T>
ZEVO_PLATFORM_API Json::Value VectorToJsonArray(const std::vector<T>& values);

extern template std::vector<int> JsonArrayToVector<int>(const Json::Value&);
extern template std::vector<std::string> JsonArrayToVector<std::string>(const Json::Value&);
extern template Json::Value VectorToJsonArray<int>(const std::vector<int>&);
extern template Json::Value VectorToJsonArray<std::string>(const std::vector<std::string>&);

// What follows the last `separator` in `text`; all of `text` when it holds
// none.
ZEVO_PLATFORM_API std::string GetSubstrAfterLast(const std::string& text, char separator);

// What precedes the last `separator` in `text`; "" when it holds none.
ZEVO_PLATFORM_API std::string GetSubstrBeforeLast(const std::string& text, char separator);

// The clockwise rotation in degrees (0, 90, 180, 270) that the EXIF
// orientation of the image at `path` asks for: 0 for an image without EXIF
// data or without an orientation (including every non-JPEG), -1 when the
// file cannot be read. Lives in the core proper (it reads EXIF data).
ZEVO_PLATFORM_API int GetImageRotationDegree(const std::string& path);

// `text` without leading and trailing white space (blank, tab, CR, LF, FF,
// VT).
ZEVO_PLATFORM_API std::string Trim(const std::string& text);

}  // namespace ornic::util
