// The request and response objects that the host hands to a plug-in.
#include <stdexcept>

#include "appliance/framework/output_hook.h"
#include "platform/zevo/webapi.h"

namespace larkpost::cgi {
namespace {
OutputOffHook g_output_off_hook = nullptr;
}  // namespace

void SetOutputOffHook(OutputOffHook hook) { g_output_off_hook = hook; }

}  // namespace larkpost::cgi

namespace ZEVO {
namespace {

// The parameter set is always an object, so that lookups by name never meet
// a scalar; null stands for "no parameters".
Json::Value ParameterObject(const Json::Value& params) {
  if (params.isNull()) return Json::Value(Json::objectValue);
  if (!params.isObject()) throw std::invalid_argument("request parameters must be a JSON object");
  return params;
}

}  // namespace

APIRequest::APIRequest() : params_(Json::objectValue) {}

APIRequest::APIRequest(const Json::Value& params) : params_(ParameterObject(params)) {}

APIRequest::~APIRequest() = default;

void APIRequest::SetAPI(const std::string& api, int version, const std::string& method) {
  api_ = api;
  version_ = version;
  method_ = method;
}

void APIRequest::SetLoginUser(uint32_t uid, const std::string& name, bool is_admin) {
  uid_ = uid;
  user_name_ = name;
  is_admin_ = is_admin;
}

void APIRequest::SetSessionID(const std::string& session_id) { session_id_ = session_id; }

void APIRequest::SetUILanguage(const std::string& language) { language_ = language; }

void APIRequest::SetUploadRequest(bool upload) { upload_ = upload; }

const std::string& APIRequest::GetAPIName() const { return api_; }

int APIRequest::GetAPIVersion() const { return version_; }

const std::string& APIRequest::GetAPIMethod() const { return method_; }

uint32_t APIRequest::GetLoginUID() const { return uid_; }

const std::string& APIRequest::GetLoginUserName() const { return user_name_; }

std::string APIRequest::GetSessionID() const { return session_id_; }

std::string APIRequest::GetUILanguage() const { return language_; }

bool APIRequest::IsAdmin() const { return is_admin_; }

bool APIRequest::IsUploadRequest() const { return upload_; }

const Json::Value& APIRequest::GetParamRef(const std::string& name,
                                           const Json::Value& fallback) const {
  if (name.empty()) return params_;
  const Json::Value* member = params_.find(name.data(), name.data() + name.size());
  return member != nullptr ? *member : fallback;
}

bool APIRequest::HasParam(const std::string& name) const {
  return params_.find(name.data(), name.data() + name.size()) != nullptr;
}

void APIRequest::InitParam(const Json::Value& params, bool post) {
  // Build first, then swap: a refused set leaves the old one in place.
  Json::Value next = ParameterObject(post ? params.get("postParam", Json::Value()) : params);
  params_.swap(next);
}

APIParameter<int> APIRequest::GetAndCheckInt(const std::string& name, int necessity,
                                             const APIParameter<int>::Validator& validator) const {
  return APIParameter<int>::FromMember(params_.find(name.data(), name.data() + name.size()),
                                       necessity, validator);
}

APIParameter<int64_t> APIRequest::GetAndCheckInt64(
    const std::string& name, int necessity,
    const APIParameter<int64_t>::Validator& validator) const {
  return APIParameter<int64_t>::FromMember(params_.find(name.data(), name.data() + name.size()),
                                           necessity, validator);
}

APIParameter<bool> APIRequest::GetAndCheckBool(
    const std::string& name, int necessity, const APIParameter<bool>::Validator& validator) const {
  return APIParameter<bool>::FromMember(params_.find(name.data(), name.data() + name.size()),
                                        necessity, validator);
}

APIParameter<std::string> APIRequest::GetAndCheckString(
    const std::string& name, int necessity,
    const APIParameter<std::string>::Validator& validator) const {
  return APIParameter<std::string>::FromMember(params_.find(name.data(), name.data() + name.size()),
                                               necessity, validator);
}

APIParameter<Json::Value> APIRequest::GetAndCheckArray(
    const std::string& name, int necessity,
    const APIParameter<Json::Value>::Validator& validator) const {
  // Anything but an array is the wrong type; the parameter machinery knows
  // that state as "refused", which is the same invalid-and-set.
  const APIParameter<Json::Value>::Validator array_only = [&validator](const Json::Value& value) {
    return value.isArray() && (!validator || validator(value));
  };
  return APIParameter<Json::Value>::FromMember(params_.find(name.data(), name.data() + name.size()),
                                               necessity, array_only);
}

APIParameter<Json::Value> APIRequest::GetAndCheckUnitArray(
    const std::string& name, int necessity,
    const APIParameter<Json::Value>::Validator& validator) const {
  return GetAndCheckArray(name, necessity, validator);
}

APIResponse::APIResponse() = default;

APIResponse::~APIResponse() = default;

void APIResponse::SetSuccess(const Json::Value& data) {
  success_ = true;
  code_ = 0;
  data_ = data;
  error_data_ = Json::Value();
}

void APIResponse::SetError(int code, const Json::Value& data) {
  success_ = false;
  code_ = code;
  data_ = Json::Value();
  error_data_ = data;
}

void APIResponse::SetEnableOutput(bool enable) {
  if (output_ && !enable && larkpost::cgi::g_output_off_hook != nullptr) {
    larkpost::cgi::g_output_off_hook();
  }
  output_ = enable;
}

bool APIResponse::IsOutputEnabled() const { return output_; }

bool APIResponse::IsSuccess() const { return success_; }

int APIResponse::GetErrorCode() const { return success_ ? 0 : code_; }

const Json::Value& APIResponse::GetData() const { return data_; }

const Json::Value& APIResponse::GetErrorData() const { return error_data_; }

Json::Value APIResponse::ToEnvelope() const {
  Json::Value envelope(Json::objectValue);
  envelope["success"] = success_;
  if (success_) {
    if (!data_.isNull()) envelope["data"] = data_;
    return envelope;
  }
  Json::Value& error = envelope["error"];
  error["code"] = code_;
  if (!error_data_.isNull()) error["errors"] = error_data_;
  return envelope;
}

}  // namespace ZEVO
