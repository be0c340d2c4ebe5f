// The web-API framework: requests, responses, typed parameters and the two
// tables through which a plug-in tells the framework what it serves.
//
// A plug-in reads its parameters through the typed getters of `APIRequest`
// and writes its answer into `APIResponse`; the framework turns that answer
// into the JSON envelope the client receives. One request is served by one
// thread from start to end; none of these objects is shared between threads.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <string>

#include "platform/export.h"

namespace ZEVO {

class APIRequest;
class APIResponse;

// The uid of a request whose user the framework could not establish.
inline constexpr uint32_t kUnknownUID = 4294967295u;

// Necessity arguments of the typed getters.
inline constexpr int kRequired = 0;
inline constexpr int kOptional = 1;

// One parameter as read from the request.
//
// States: absent (neither set nor reset); present with JSON null (reset, not
// set); present with a value of the wrong JSON type or one that its validator
// refused (invalid, and it counts as set). A required parameter that is absent
// or reset is invalid too. Integers are JSON integers only: the text "5" and
// the number 5.5 are the wrong type for every integer reader.
template <typename T>
class ZEVO_PLATFORM_API APIParameter {
 public:
  // Accepts or refuses a value of the right JSON type; empty means "accept".
  using Validator = std::function<bool(const T&)>;

  APIParameter();

  // Reads `member` (nullptr when the name is absent) with the given necessity.
  static APIParameter FromMember(const Json::Value* member, int necessity,
                                 const Validator& validator);

  bool IsSet() const;
  bool IsReset() const;
  bool IsInvalid() const;

  // The value when it is set and valid, else the default (T{} unless
  // SetDefault gave one).
  const T& Get() const;
  // The value when it is set and valid, else `fallback`.
  T Get(const T& fallback) const;

  // Gives an absent parameter a value; it stays "not set" and valid.
  void SetDefault(const T& value);

 private:
  T value_{};
  bool set_ = false;
  bool reset_ = false;
  bool invalid_ = false;
};

extern template class APIParameter<int>;
extern template class APIParameter<int64_t>;
extern template class APIParameter<bool>;
extern template class APIParameter<std::string>;
extern template class APIParameter<Json::Value>;

// Reads a member of a nested JSON object as a parameter (the checkers use it
// on the elements of object arrays). A non-object `object` has no members.
template <typename T>
class ZEVO_PLATFORM_API APIParameterFactoryBasicImpl {
 public:
  static APIParameter<T> FromJson(const Json::Value& object, const std::string& name, int necessity,
                                  const typename APIParameter<T>::Validator& validator);
};

extern template class APIParameterFactoryBasicImpl<int>;
extern template class APIParameterFactoryBasicImpl<int64_t>;
extern template class APIParameterFactoryBasicImpl<bool>;
extern template class APIParameterFactoryBasicImpl<std::string>;
extern template class APIParameterFactoryBasicImpl<Json::Value>;

// Value conditions on a parameter as read (its value, or its default when it
// was absent).
class ZEVO_PLATFORM_API APIValidator {
 public:
  static bool IsGreater(const APIParameter<int>& param, int bound);
  // Both ends included.
  static bool IsBetween(const APIParameter<int>& param, int low, int high);
  template <typename T>
  static bool IsEqual(const APIParameter<T>& param, const T& value);
  // True when `param` is an array and every element is a member of the JSON
  // array `allowed`; an empty or absent array belongs.
  static bool IsBelong(const APIParameter<Json::Value>& param, const Json::Value& allowed);
};

extern template bool APIValidator::IsEqual<int>(const APIParameter<int>&, const int&);

class ZEVO_PLATFORM_API WebAPIUtil {
 public:
  // Parses a JSON text; a text that is not JSON gives null.
  static Json::Value ParseJson(const std::string& text);
  // Parses a JSON text into `out`; false (and `out` untouched) when it is not
  // JSON. Any JSON value may stand at the top level.
  static bool FromString(const std::string& text, Json::Value& out);
  // Compact JSON text of a value, UTF-8 kept as it is.
  static std::string ToString(const Json::Value& value);
};

class ZEVO_PLATFORM_API APIRequest {
 public:
  APIRequest();
  // A request whose parameter set is `params` (an object), as the host builds
  // it from the decoded fields; tests build requests the same way.
  explicit APIRequest(const Json::Value& params);
  ~APIRequest();
  APIRequest(const APIRequest&) = delete;
  APIRequest& operator=(const APIRequest&) = delete;

  // Filled in by the host before the plug-in runs.
  void SetAPI(const std::string& api, int version, const std::string& method);
  void SetLoginUser(uint32_t uid, const std::string& name, bool is_admin);
  void SetSessionID(const std::string& session_id);
  void SetUILanguage(const std::string& language);
  void SetUploadRequest(bool upload);

  const std::string& GetAPIName() const;
  int GetAPIVersion() const;
  const std::string& GetAPIMethod() const;

  // kUnknownUID when the host could not establish the user.
  uint32_t GetLoginUID() const;
  const std::string& GetLoginUserName() const;
  std::string GetSessionID() const;
  // The interface language the client asked for ("enu" when it named none).
  std::string GetUILanguage() const;
  bool IsAdmin() const;
  // True for a multipart/form-data request.
  bool IsUploadRequest() const;

  // With the empty name: the object of all parameters. Otherwise the named
  // parameter, or `fallback` when it is absent (which must then outlive the
  // reference).
  const Json::Value& GetParamRef(const std::string& name, const Json::Value& fallback) const;
  bool HasParam(const std::string& name) const;

  // Replaces the parameter set. With `post` true, `params` is the form
  // wrapper whose member "postParam" holds the new set (an upload decoded by
  // the plug-in); with false, `params` is the new set itself.
  void InitParam(const Json::Value& params, bool post);

  APIParameter<int> GetAndCheckInt(const std::string& name, int necessity,
                                   const APIParameter<int>::Validator& validator) const;
  APIParameter<int64_t> GetAndCheckInt64(const std::string& name, int necessity,
                                         const APIParameter<int64_t>::Validator& validator) const;
  APIParameter<bool> GetAndCheckBool(const std::string& name, int necessity,
                                     const APIParameter<bool>::Validator& validator) const;
  APIParameter<std::string> GetAndCheckString(
      const std::string& name, int necessity,
      const APIParameter<std::string>::Validator& validator) const;
  // A JSON array; its elements are the caller's to check.
  APIParameter<Json::Value> GetAndCheckArray(
      const std::string& name, int necessity,
      const APIParameter<Json::Value>::Validator& validator) const;
  // The same reader under the name the checkers use.
  APIParameter<Json::Value> GetAndCheckUnitArray(
      const std::string& name, int necessity,
      const APIParameter<Json::Value>::Validator& validator) const;

 private:
  Json::Value params_;
  std::string api_;
  int version_ = 0;
  std::string method_;
  uint32_t uid_ = kUnknownUID;
  std::string user_name_;
  bool is_admin_ = false;
  std::string session_id_;
  std::string language_ = "enu";
  bool upload_ = false;
};

// What the plug-in answers. A fresh response is a success without data.
class ZEVO_PLATFORM_API APIResponse {
 public:
  APIResponse();
  ~APIResponse();
  APIResponse(const APIResponse&) = delete;
  APIResponse& operator=(const APIResponse&) = delete;

  void SetSuccess(const Json::Value& data = Json::Value());
  // `data` travels as "errors" inside "error" when it is not null.
  void SetError(int code, const Json::Value& data = Json::Value());
  // Off: the host writes nothing and the plug-in's standard output is the
  // whole HTTP answer (headers included, CGI style).
  void SetEnableOutput(bool enable);

  bool IsOutputEnabled() const;
  bool IsSuccess() const;
  int GetErrorCode() const;                 // 0 on success
  const Json::Value& GetData() const;       // success data
  const Json::Value& GetErrorData() const;  // error data
  // {"success":true[,"data":D]} or {"success":false,"error":{"code":N[,"errors":D]}}
  Json::Value ToEnvelope() const;

 private:
  bool success_ = true;
  int code_ = 0;
  Json::Value data_;
  Json::Value error_data_;
  bool output_ = true;
};

// A plug-in's entry function and checker.
using APIHandler = void (*)(APIRequest* request, APIResponse* response);
using APIChecker = bool (*)(APIRequest* request, APIResponse* response);

// One row of a plug-in's method table.
struct APITableEntry {
  const char* api;
  int32_t version;
  const char* method;
  APIHandler handler;
};

// One row of a plug-in's check table; a row of zeros ends the table.
struct APICheckEntry {
  const char* api;
  int32_t version;
  const char* method;
  APIChecker checker;
  void* reserved1;
  void* reserved2;
};

}  // namespace ZEVO
