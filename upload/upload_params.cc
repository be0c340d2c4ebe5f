#include "upload/upload_params.h"

#include <string>

namespace ZEVO {

void DecodeUploadParams(APIRequest* request) {
  if (!request->IsUploadRequest()) {
    return;
  }

  Json::Value kept(Json::objectValue);
  // GetParamRef hands back the fallback by reference, so it must outlive the
  // walk; InitParam below replaces the set and ends `params`' life.
  const Json::Value no_params;
  const Json::Value& params = request->GetParamRef("", no_params);
  if (params.isObject()) {
    for (auto it = params.begin(); it != params.end(); ++it) {
      const std::string name = it.name();
      if (name == "file" || name == "file_tmp") {
        // The file's name and stored path are meant as texts, even when they
        // happen to read as JSON.
        kept[name] = *it;
      } else if (it->isString()) {
        Json::Value parsed;
        if (WebAPIUtil::FromString(it->asString(), parsed)) {
          kept[name] = parsed;
        }
      } else {
        kept[name] = *it;
      }
    }
  }

  Json::Value form(Json::objectValue);
  form["postParam"] = kept;
  request->InitParam(form, true);
}

}  // namespace ZEVO
