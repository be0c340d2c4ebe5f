// A whole message for reading or for editing a draft: the summary of
// MessageToJson with its recipients, both bodies (the HTML one normalised)
// and its attachments as objects.
#pragma once

#include <json/value.h>

#include "platform/mailcore/constant.h"
#include "platform/mailcore/record.h"

namespace ornic::larkpost::webapi::format {

// MessageToJson(message) with:
//   "to", "cc", "bcc": the recipient texts, in order (always present);
//   "body": {"plain", "html"} where "html" is the body after the core's
//     normaliser ("" when there is none), plus "blockquote" (the quoted
//     blocks, taken out of "html": an empty quote carrying its index stands
//     where each was) for kHTMLBodyReadSplitQuote when there is an HTML body;
//   "attachment": AttachmentToJson of each attachment that is not inline,
//     with "content_id" for a draft;
//   "body_preview" only when `body_preview`.
// The normaliser is given the request's token (the environment's
// "HTTP_X_ZEVO_TOKEN", "" without it) for the inline image links; links open
// in a new window unless a draft is being edited (kHTMLBodyEdit). Exceptions
// of the normaliser pass through.
Json::Value FullMessageToJson(const record::FullMessage& message, constant::HTMLBodyFormat format,
                              bool body_preview, bool block_external_image);

}  // namespace ornic::larkpost::webapi::format
