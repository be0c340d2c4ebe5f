// What the browsing handlers share: the plug-in's own error codes, reading
// an id list, and answering a change that the core reported on.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "platform/zevo/webapi.h"

namespace ornic::larkpost::webapi {

// A bad parameter, as the Thread API reports it in "list" (the condition),
// "get", "check_exist" and "delete".
inline constexpr int kErrorThreadParameter = 114;
// The core reported failure (false, or an id of 0 or less).
inline constexpr int kErrorOperationFailed = 117;
// A bad parameter, everywhere else.
inline constexpr int kErrorBadParameter = 120;

// Reads the required array parameter `name` of ids: a non-empty array of
// JSON integers from 1 to 2147483647; anything else is invalid.
ZEVO::APIParameter<Json::Value> GetIdArray(const ZEVO::APIRequest& request,
                                           const std::string& name);

// The ids of an array parameter, in request order; an element that is not a
// 32-bit integer throws ornic::Error(120) (util::JsonArrayToVector).
std::vector<int> Ids(const ZEVO::APIParameter<Json::Value>& param);

// True when `param` is null or unusable.
template <typename T>
bool IsResetOrInvalid(const ZEVO::APIParameter<T>& param) {
  return param.IsReset() || param.IsInvalid();
}

// Answers a change that the core reported on: success without data when
// `done`, else error 117. Returns `done`, so that the caller logs its own
// line (with its own unit and line number) when it is false.
bool AnswerChange(ZEVO::APIResponse* response, bool done);

}  // namespace ornic::larkpost::webapi
