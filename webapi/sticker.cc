#include "webapi/sticker.h"

#include <json/value.h>

#include <vector>

#include "platform/mailcore/apivalidator.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/record.h"
#include "platform/zevo/download.h"
#include "webapi/format/mail_record.h"
#include "webapi/handler_util.h"
#include "webapi/log.h"

namespace ornic::larkpost::webapi {

namespace {

constexpr char kLogUnit[] = "sticker";
constexpr int kDefaultCategory = 1;

}  // namespace

StickerAPI::StickerAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response)
    : NormalAPI(request, response) {}

void StickerAPI::List_v1() {
  const auto category =
      request_->GetAndCheckInt("category", ZEVO::kOptional, apivalidator::IntGreaterEqualZero);
  if (IsResetOrInvalid(category)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  Json::Value stickers(Json::arrayValue);
  for (const record::Sticker& sticker :
       control::StickerControl(controller_).List(category.Get(kDefaultCategory))) {
    stickers.append(format::StickerToJson(sticker));
  }
  Json::Value data(Json::objectValue);
  data["total"] = Json::UInt(stickers.size());
  data["sticker"] = stickers;
  response_->SetSuccess(data);
}

void StickerAPI::Get_v1() {
  const auto id = request_->GetAndCheckInt("id", ZEVO::kRequired, nullptr);
  // The answer is ours from here on, the 404 page included.
  response_->SetEnableOutput(false);
  if (IsResetOrInvalid(id)) {
    WEBAPI_LOG("%s:%d input parameter is not valid");
    Output404NotFound();
    return;
  }
  const record::Sticker sticker = control::StickerControl(controller_).Get(id.Get());
  if (!sticker.IsValid()) {
    WEBAPI_LOG("%s:%d id [%d] of stickers is not exist", id.Get());
    Output404NotFound();
    return;
  }
  ZEVO::APIDownload download;
  download.SetMimeTypeFromFileName(sticker.path);
  download.Output(sticker.path);
}

// "add" and "delete" answer success and change nothing: the stickers are
// the product's own.
void StickerAPI::Add_v1() {}
void StickerAPI::Delete_v1() {}

}  // namespace ornic::larkpost::webapi
