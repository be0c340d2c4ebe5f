// How every entry function serves its request.
#pragma once

#include <json/value.h>

#include "platform/mailcore/error.h"
#include "platform/zevo/webapi.h"

namespace ornic::larkpost::webapi {

// Builds the handler for the request, runs one of its methods and lets the
// handler go. A core error (from the constructor or the method) becomes the
// response's error code with no data, after whatever part of the handler was
// built has been destroyed; any other exception is the framework's to handle.
template <typename API, void (API::*Method)()>
void RunEntry(ZEVO::APIRequest* request, ZEVO::APIResponse* response) {
  try {
    API api(request, response);
    (api.*Method)();
  } catch (const ornic::Error& error) {
    response->SetError(error.ErrorCode(), Json::Value());
  }
}

}  // namespace ornic::larkpost::webapi
