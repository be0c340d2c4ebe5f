// The reading and judging that every checker of the check table shares.
//
// A checker reads its parameters in the order of its row (pass 1), lets
// `ParamCheck::Holds` judge presence, JSON type and array elements (pass 2 and
// the first half of pass 3), and then tests its own value conditions with
// `Condition` (the rest of pass 3). The first failure writes error 120 with
// {"name", "reason"}; `Holds` and `Condition` return false after it, and the
// checker chains them with && so that nothing after a failure runs.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "platform/zevo/webapi.h"

namespace ornic::larkpost::webapi::check {

// The error code and the three reasons a checker reports.
inline constexpr int kErrorBadParameter = 120;
inline constexpr char kReasonRequired[] = "required";
inline constexpr char kReasonType[] = "type";
inline constexpr char kReasonCondition[] = "condition";

// Judges one element of an object array (the element is already known to be
// an object): true when its members have the right types.
using NestedCheck = bool (*)(const Json::Value& element);

class ParamCheck {
 public:
  explicit ParamCheck(const ZEVO::APIRequest& request) : request_(request) {}

  // Pass 1. Each reader reads one parameter with its necessity
  // (ZEVO::kRequired or ZEVO::kOptional), gives it the default when one is
  // named, notes it for Holds() and returns it for the value conditions.
  ZEVO::APIParameter<int> Int(const char* name, int necessity);
  ZEVO::APIParameter<int> Int(const char* name, int necessity, int fallback);
  ZEVO::APIParameter<std::string> String(const char* name, int necessity);
  ZEVO::APIParameter<std::string> String(const char* name, int necessity,
                                         const std::string& fallback);
  ZEVO::APIParameter<bool> Bool(const char* name, int necessity);
  ZEVO::APIParameter<bool> Bool(const char* name, int necessity, bool fallback);
  // Arrays whose elements must be 32-bit JSON integers, strings, or objects
  // that pass `nested`. The string array's default is JSON text, parsed here.
  ZEVO::APIParameter<Json::Value> IntArray(const char* name, int necessity);
  ZEVO::APIParameter<Json::Value> StringArray(const char* name, int necessity);
  ZEVO::APIParameter<Json::Value> StringArray(const char* name, int necessity,
                                              const char* fallback_json);
  ZEVO::APIParameter<Json::Value> ObjectArray(const char* name, int necessity, NestedCheck nested);

  // Pass 2, then the element checks: the first parameter, in reading order,
  // that is invalid fails ("required" when it is absent or null, "type" when
  // it is present), then the first array holding an element of the wrong kind
  // ("type"). Writes that one error and returns false; true otherwise, with
  // the response untouched.
  bool Holds(ZEVO::APIResponse* response) const;

 private:
  enum class Elements { kNone, kInt, kString, kObject };

  struct Noted {
    std::string name;
    bool set;
    bool invalid;
    Elements elements;
    NestedCheck nested;
    Json::Value array;  // the array as read, or its default
  };

  template <typename T>
  const ZEVO::APIParameter<T>& Note(const char* name, const ZEVO::APIParameter<T>& param);
  const ZEVO::APIParameter<Json::Value>& NoteArray(const char* name,
                                                   const ZEVO::APIParameter<Json::Value>& param,
                                                   Elements elements, NestedCheck nested);
  static bool ElementsHold(const Noted& noted);

  const ZEVO::APIRequest& request_;
  std::vector<Noted> noted_;
};

// A value condition of pass 3: true when it `holds`; otherwise writes
// {"name": name, "reason": "condition"} and returns false.
bool Condition(ZEVO::APIResponse* response, const char* name, bool holds);

// Writes error 120 with {"name": name, "reason": reason}; always false.
bool Fail(ZEVO::APIResponse* response, const std::string& name, const char* reason);

}  // namespace ornic::larkpost::webapi::check
