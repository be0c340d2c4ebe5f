// DecodeUploadParams over any form an upload can carry: each field's text
// as the host hands it over. Input: a JSON object whose strings are the
// field texts.
#include <json/json.h>

#include "fuzz/fuzz_util.h"
#include "upload/upload_params.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Json::Value fields;
  if (!ZEVO::WebAPIUtil::FromString(std::string(reinterpret_cast<const char*>(data), size),
                                    fields) ||
      !fields.isObject()) {
    // Anything but an object becomes the one field a form may hold: the
    // host makes an object of every form.
    fields = Json::Value(Json::objectValue);
    fields["file"] = std::string(reinterpret_cast<const char*>(data), size);
  }
  ZEVO::APIRequest request(fields);
  request.SetUploadRequest(true);
  ZEVO::DecodeUploadParams(&request);
  const Json::Value& decoded = request.GetParamRef("", Json::Value::nullSingleton());
  if (!decoded.isObject()) larkpost::fuzz::Broken("the decoded set is an object");
  for (const char* name : {"file", "file_tmp"}) {
    if (fields.isMember(name) && decoded[name] != fields[name]) {
      larkpost::fuzz::Broken(std::string(name) + " is kept as it came");
    }
  }
  return 0;
}
