#include "webapi/format/mail_record.h"

#include "platform/mailcore/control.h"

namespace ornic::larkpost::webapi::format {

Json::Value MailboxToJson(const record::Mailbox& mailbox) {
  Json::Value json(Json::objectValue);
  json["id"] = mailbox.id;
  json["path"] = mailbox.UTF8MailboxPath();
  json["subscribed"] = mailbox.subscribed;
  if (mailbox.unread_count >= 0) json["additional"]["unread_count"] = mailbox.unread_count;
  if (mailbox.total_count >= 0) json["additional"]["total_count"] = mailbox.total_count;
  return json;
}

Json::Value MessageToJson(const record::Message& message) {
  Json::Value json(Json::objectValue);
  json["id"] = message.id;
  json["type"] = message.type;
  if (message.type == kMessageTypeDraft) json["reply_to"] = message.reply_to;
  json["mailbox_id"] = message.mailbox_id;
  json["thread_id"] = message.thread_id;
  json["from"] = message.from;
  json["email"] = control::MailAddress(message.from).GetEmail();
  json["subject"] = message.subject;
  json["body_preview"] = message.body_preview;
  json["arrival_time"] = Json::Int64(message.arrival_time);
  json["last_modified"] = Json::Int64(message.last_modified);
  json["star"] = message.star;
  json["read"] = message.read;
  json["rfc_message_id"] = message.rfc_message_id;
  Json::Value& names = json["attachment"] = Json::Value(Json::arrayValue);
  for (const record::Attachment& attachment : message.attachments) names.append(attachment.name);
  return json;
}

Json::Value AttachmentToJson(const record::Attachment& attachment, bool with_content_id) {
  Json::Value json(Json::objectValue);
  json["id"] = attachment.id;
  json["name"] = attachment.name;
  json["size"] = attachment.size;
  json["mimetype"] = attachment.mimetype;
  if (with_content_id) json["content_id"] = attachment.content_id;
  return json;
}

Json::Value LabelToJson(const record::Label& label) {
  Json::Value json(Json::objectValue);
  json["id"] = label.id;
  json["name"] = label.name;
  json["text_color"] = label.text_color;
  json["background_color"] = label.background_color;
  if (label.unread_count >= 0) json["additional"]["unread_count"] = label.unread_count;
  return json;
}

Json::Value ThreadToJson(const record::Thread& thread) {
  Json::Value json(Json::objectValue);
  json["id"] = thread.id;
  json["last_modified"] = Json::Int64(thread.last_modified);
  json["star"] = thread.MaxStar();
  json["unread"] = thread.UnreadMessageCount();
  Json::Value& messages = json["message"] = Json::Value(Json::arrayValue);
  Json::Value& drafts = json["draft"] = Json::Value(Json::arrayValue);
  Json::Value& labels = json["label"] = Json::Value(Json::arrayValue);
  for (const record::Message& message : thread.messages) {
    (message.type == kMessageTypeDraft ? drafts : messages).append(MessageToJson(message));
  }
  for (const record::Label& label : thread.labels) labels.append(LabelToJson(label));
  return json;
}

Json::Value StickerToJson(const record::Sticker& sticker) {
  Json::Value json(Json::objectValue);
  json["id"] = sticker.id;
  json["name"] = sticker.name;
  json["category"] = sticker.category;
  json["last_modified"] = Json::Int64(sticker.last_modified);
  return json;
}

}  // namespace ornic::larkpost::webapi::format
