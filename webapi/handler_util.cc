#include "webapi/handler_util.h"

#include "platform/mailcore/apivalidator.h"
#include "platform/mailcore/util.h"

namespace ornic::larkpost::webapi {

ZEVO::APIParameter<Json::Value> GetIdArray(const ZEVO::APIRequest& request,
                                           const std::string& name) {
  return request.GetAndCheckArray(name, ZEVO::kRequired, apivalidator::JsonIntArrayGreaterZero);
}

std::vector<int> Ids(const ZEVO::APIParameter<Json::Value>& param) {
  return util::JsonArrayToVector<int>(param.Get());
}

bool AnswerChange(ZEVO::APIResponse* response, bool done) {
  if (done) {
    response->SetSuccess(Json::Value());
  } else {
    response->SetError(kErrorOperationFailed, Json::Value());
  }
  return done;
}

}  // namespace ornic::larkpost::webapi
