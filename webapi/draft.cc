#include "webapi/draft.h"

// Work in progress: replaced by the real handlers.
namespace ornic::larkpost::webapi {

DraftAPI::DraftAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response)
    : NormalAPI(request, response), message_control_(controller_) {}
void DraftAPI::Create_v1() { response_->SetError(117, Json::Value()); }
void DraftAPI::Get_v1() { response_->SetError(117, Json::Value()); }
void DraftAPI::Set_v1() { response_->SetError(117, Json::Value()); }
void DraftAPI::Send_v1() { response_->SetError(117, Json::Value()); }
void DraftAPI::Delete_v1() { response_->SetError(117, Json::Value()); }

}  // namespace ornic::larkpost::webapi
