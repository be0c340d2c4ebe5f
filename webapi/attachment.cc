#include "webapi/attachment.h"

// Work in progress: replaced by the real handlers.
namespace ornic::larkpost::webapi {

AttachmentAPI::AttachmentAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response)
    : CustomAuthAPI(request, response), attachment_control_(controller_) {}
void AttachmentAPI::Upload_v1() { response_->SetError(117, Json::Value()); }
void AttachmentAPI::UploadVex_v1() { response_->SetError(117, Json::Value()); }
void AttachmentAPI::UploadSticker_v1() { response_->SetError(117, Json::Value()); }
void AttachmentAPI::Download_v1() { response_->SetError(117, Json::Value()); }
void AttachmentAPI::DownloadTemp_v1() { response_->SetError(117, Json::Value()); }
void AttachmentAPI::DownloadAll_v1() { response_->SetError(117, Json::Value()); }
void AttachmentAPI::Delete_v1() { response_->SetError(117, Json::Value()); }
void AttachmentAPI::SaveVX_v1() { response_->SetError(117, Json::Value()); }

}  // namespace ornic::larkpost::webapi
