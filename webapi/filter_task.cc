#include <json/value.h>

#include "webapi/filter.h"
#include "webapi/handler_util.h"

namespace ornic::larkpost::webapi {

void FilterAPI::AddTask_v1() { response_->SetError(kErrorOperationFailed, Json::Value()); }

void FilterAPI::GetTaskStatus_v1() { response_->SetError(kErrorOperationFailed, Json::Value()); }

void FilterAPI::CancelTask_v1() { response_->SetError(kErrorOperationFailed, Json::Value()); }

}  // namespace ornic::larkpost::webapi
