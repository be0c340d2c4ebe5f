#include "webapi/format/full_message.h"

#include <cstdlib>
#include <string>
#include <vector>

#include "platform/mailcore/html_parser.h"
#include "webapi/format/mail_record.h"

namespace ornic::larkpost::webapi::format {

namespace {

constexpr char kTokenVariable[] = "HTTP_X_ZEVO_TOKEN";

Json::Value StringArray(const std::vector<std::string>& texts) {
  Json::Value array(Json::arrayValue);
  for (const std::string& text : texts) array.append(text);
  return array;
}

std::string RequestToken() {
  const char* token = std::getenv(kTokenVariable);
  return token != nullptr ? token : "";
}

}  // namespace

Json::Value FullMessageToJson(const record::FullMessage& message, constant::HTMLBodyFormat format,
                              bool body_preview, bool block_external_image) {
  Json::Value json = MessageToJson(message);
  json["bcc"] = StringArray(message.bcc);
  json["cc"] = StringArray(message.cc);
  json["to"] = StringArray(message.to);

  Json::Value& body = json["body"];
  body["plain"] = message.plain_body;
  if (message.html_body.empty()) {
    body["html"] = "";
  } else {
    html::HTMLParser parser;
    parser.block_external_image = block_external_image;
    if (format == constant::kHTMLBodyEdit) parser.open_links_in_new_window = false;
    parser.split_quotes = format == constant::kHTMLBodyReadSplitQuote;
    parser.Normalize(message.html_body, RequestToken(), message.InlineImageMapping());
    body["html"] = parser.GetBody();
    if (format == constant::kHTMLBodyReadSplitQuote) {
      body["blockquote"] = StringArray(parser.OriginBlockquote());
    }
  }

  if (!body_preview) json.removeMember("body_preview");

  // Inline parts are shown inside the HTML body; only a draft's attachments
  // need their Content-ID, for the composer to keep the references.
  const bool with_content_id = message.type == kMessageTypeDraft;
  Json::Value& attachments = json["attachment"] = Json::Value(Json::arrayValue);
  for (const record::Attachment& attachment : message.attachments) {
    if (!attachment.is_inline) attachments.append(AttachmentToJson(attachment, with_content_id));
  }
  return json;
}

}  // namespace ornic::larkpost::webapi::format
