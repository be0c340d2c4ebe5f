#include "webapi/sticker.h"

// Work in progress: replaced by the real handlers.
namespace ornic::larkpost::webapi {

StickerAPI::StickerAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response)
    : NormalAPI(request, response) {}
void StickerAPI::List_v1() { response_->SetError(117, Json::Value()); }
void StickerAPI::Get_v1() { response_->SetError(117, Json::Value()); }
void StickerAPI::Add_v1() { response_->SetError(117, Json::Value()); }
void StickerAPI::Delete_v1() { response_->SetError(117, Json::Value()); }

}  // namespace ornic::larkpost::webapi
