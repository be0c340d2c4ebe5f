#include "webapi/message.h"

#include <json/value.h>

#include <cstdio>
#include <string>

#include "platform/mailcore/apivalidator.h"
#include "platform/mailcore/constant.h"
#include "platform/mailcore/record.h"
#include "webapi/format/full_message.h"
#include "webapi/handler_util.h"
#include "webapi/log.h"

namespace ornic::larkpost::webapi {

namespace {

constexpr char kLogUnit[] = "message";
constexpr char kOriginalHeader[] = "Content-Type: text/plain\r\n\r\n";

}  // namespace

using ZEVO::kRequired;

MessageAPI::MessageAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response)
    : NormalAPI(request, response), messages_(controller_) {}

void MessageAPI::Get_v1() {
  const auto id = GetIdArray(*request_, "id");
  if (IsResetOrInvalid(id)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  ParseAdditional();
  const constant::HTMLBodyFormat format = (additional_ & ADDITIONAL_BLOCKQUOTE)
                                              ? constant::kHTMLBodyReadSplitQuote
                                              : constant::kHTMLBodyRead;
  const bool body_preview = additional_ & ADDITIONAL_BODY_PREVIEW;
  const bool block_external_image = additional_ & ADDITIONAL_BLOCK_EXTERNAL_IMAGE;

  Json::Value messages(Json::arrayValue);
  for (const record::FullMessage& message : messages_.GetFullMessages(Ids(id))) {
    messages.append(format::FullMessageToJson(message, format, body_preview, block_external_image));
  }
  Json::Value data(Json::objectValue);
  data["message"] = messages;
  response_->SetSuccess(data);
}

void MessageAPI::GetOriginal_v1() {
  const auto id = request_->GetAndCheckInt("id", kRequired, apivalidator::IntGreaterZero);
  // The answer is ours from here on, the 404 page included.
  response_->SetEnableOutput(false);
  if (IsResetOrInvalid(id)) {
    WEBAPI_LOG("%s:%d input parameter is not valid");
    Output404NotFound();
    return;
  }
  const std::string content = messages_.OriginalContent(id.Get());
  if (content.empty()) {
    WEBAPI_LOG("%s:%d content of message[%d] not available", id.Get());
    Output404NotFound();
    return;
  }
  std::fwrite(kOriginalHeader, 1, sizeof(kOriginalHeader) - 1, stdout);
  std::fwrite(content.data(), 1, content.size(), stdout);
  std::fflush(stdout);
}

void MessageAPI::SetStar_v1() {
  const auto id = GetIdArray(*request_, "id");
  const auto star = request_->GetAndCheckInt("star", kRequired, apivalidator::IntGreaterEqualZero);
  if (id.IsInvalid() || star.IsInvalid()) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  if (!AnswerChange(response_, messages_.SetStarByID(Ids(id), star.Get()))) {
    WEBAPI_LOG("%s:%d set message star faild (id: %s, star:%d)", id.Get().toStyledString().c_str(),
               star.Get());
  }
}

void MessageAPI::SetRead_v1() {
  const auto id = GetIdArray(*request_, "id");
  // "read" itself is the check table's to vouch for.
  const auto read = request_->GetAndCheckBool("read", kRequired, nullptr);
  if (id.IsInvalid()) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  if (!AnswerChange(response_, messages_.SetReadByID(Ids(id), read.Get()))) {
    // The words "set message star" are the line's own, read change or not.
    WEBAPI_LOG("%s:%d set message star faild (id: %s, read:%s)", id.Get().toStyledString().c_str(),
               read.Get() ? "read" : "unread");
  }
}

void MessageAPI::SetMailbox_v1() {
  const auto id = GetIdArray(*request_, "id");
  // "mailbox_id" itself is the check table's to vouch for.
  const auto mailbox_id = request_->GetAndCheckInt("mailbox_id", kRequired, nullptr);
  if (id.IsInvalid()) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  if (!AnswerChange(response_, messages_.SetMailbox(Ids(id), mailbox_id.Get()))) {
    WEBAPI_LOG("%s:%d set mailbox faild (id: %s, mailbox_id:%d)", id.Get().toStyledString().c_str(),
               mailbox_id.Get());
  }
}

}  // namespace ornic::larkpost::webapi
