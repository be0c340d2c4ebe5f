// The core's mail records as the web API shows them. Every browsing answer
// is built from these objects, so their keys are the client's data model.
// Arrays that a converter creates are always present, empty when there is
// nothing to list; optional keys are left out rather than sent as null.
#pragma once

#include <json/value.h>

#include <cstdint>

#include "platform/mailcore/record.h"

namespace ornic::larkpost::webapi::format {

// `record::Message::type` of a draft.
inline constexpr int32_t kMessageTypeDraft = 1;

// {"id", "path" (UTF-8), "subscribed"}, and "additional" holding
// "unread_count" and "total_count" each only when it was loaded.
Json::Value MailboxToJson(const record::Mailbox& mailbox);

// The message's summary: ids, "from" as stored and its bare "email",
// subject, preview, 64-bit times, star, read state, Message-ID, "reply_to"
// only for a draft, and "attachment": the file names of all its attachments.
Json::Value MessageToJson(const record::Message& message);

// {"id", "name", "size", "mimetype"}, and "content_id" (even when empty)
// when `with_content_id`.
Json::Value AttachmentToJson(const record::Attachment& attachment, bool with_content_id);

// {"id", "name", "text_color", "background_color"}, and "additional" /
// "unread_count" only when it was loaded.
Json::Value LabelToJson(const record::Label& label);

// {"id", "last_modified", "star" (the highest of its messages), "unread" (a
// count), "message" and "draft" (its messages split by type, in order),
// "label"}.
Json::Value ThreadToJson(const record::Thread& thread);

// {"id", "name", "category", "last_modified" (64-bit)}; the image's path
// stays on the server.
Json::Value StickerToJson(const record::Sticker& sticker);

}  // namespace ornic::larkpost::webapi::format
