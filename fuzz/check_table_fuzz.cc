// Every checker of the check table against one parameter object: a checker
// either lets it through with the response untouched, or answers false with
// error 120 and {"name", "reason"}. Input: JSON text (anything that is not
// an object is wrapped as {"id": value}).
#include <json/json.h>

#include "fuzz/fuzz_util.h"
#include "webapi/check/check_table.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Json::Value params;
  if (!ZEVO::WebAPIUtil::FromString(std::string(reinterpret_cast<const char*>(data), size),
                                    params)) {
    return 0;
  }
  if (!params.isObject()) {
    Json::Value wrapped(Json::objectValue);
    wrapped["id"] = params;
    params = wrapped;
  }
  for (const ZEVO::APICheckEntry* row = GetAPICheckTable(); row->api != nullptr; ++row) {
    ZEVO::APIRequest request(params);
    request.SetAPI(row->api, row->version, row->method);
    request.SetLoginUser(1026, "alice", false);
    ZEVO::APIResponse response;
    const bool passed = row->checker(&request, &response);
    if (passed != response.IsSuccess() ||
        (!passed && (response.GetErrorCode() != 120 || !response.GetErrorData().isMember("name") ||
                     !response.GetErrorData().isMember("reason")))) {
      larkpost::fuzz::Broken(std::string("checker of ") + row->api + " " + row->method +
                             " answers as a checker must");
    }
  }
  return 0;
}
