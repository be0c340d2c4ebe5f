// Drafts as the sending side of the core sees them: everything needed to
// build the outgoing message, and the one step that turns a sent draft into
// its copy in Sent. Private to the appliance: the plug-in never sees it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "appliance/mailcore/message_store.h"
#include "platform/mailcore/controller.h"

namespace ornic::larkpost::store {

// One of a draft's attachments. Every attachment of a draft has its content
// stored with it (uploads and the attachments a forward took over alike);
// ReadDraftAttachment gives it.
struct DraftAttachment {
  int id = 0;
  std::string name;        // safe file name, never with a directory part
  std::string mimetype;    // "image/png"
  std::string content_id;  // without angle brackets; "" when none
  bool is_inline = false;  // shown inside the HTML body ("cid:" + content_id)
  int64_t size = 0;        // bytes of the content
};

struct Draft {
  int id = 0;
  int thread_id = 0;
  int reply_to = 0;                      // the message it answers or forwards; 0 when none
  std::string from;                      // header text, "Ann <ann@example.org>" or a bare address
  std::vector<std::string> to, cc, bcc;  // one address text each
  std::string subject;
  std::string html_body;                     // UTF-8, as the composer wrote it
  std::string plain_body;                    // UTF-8, made from the HTML
  std::string in_reply_to;                   // without angle brackets; "" when none
  std::vector<std::string> references;       // without angle brackets, oldest first
  std::vector<DraftAttachment> attachments;  // in stored order
};

// Reads draft `id`; false when there is no message `id` or it is not a
// draft. Throws ornic::Error(kErrorDatabase) when the store fails.
bool LoadDraft(control::Controller& controller, int id, Draft* draft);

// The content of attachment `attachment_id` of draft `draft_id`, byte for
// byte. Throws ornic::Error(kErrorNotFound) when the draft has no such
// attachment, ornic::Error(kErrorDatabase) when the store fails.
std::string ReadDraftAttachment(control::Controller& controller, int draft_id, int attachment_id);

// The same content written to `fd` from its current offset, a piece at a
// time. Throws as ReadDraftAttachment does, and ornic::Error(kErrorStorage)
// when `fd` cannot be written.
void WriteDraftAttachment(control::Controller& controller, int draft_id, int attachment_id, int fd);

// In one transaction: stores `sent` in Sent, read, in the thread of draft
// `draft_id` (its mailbox_id, type and read flag are not looked at), and
// deletes the draft. `sent` is what went out, parsed from the exact bytes
// sent, its source included (raw, or the file raw_fd from which it is
// copied a piece at a time), so that the copy shows what the recipients got.
// Returns the id of the copy. Throws ornic::Error(kErrorNotFound) when
// `draft_id` is no longer a draft (nothing is stored then),
// ornic::Error(kErrorDatabase) when the store fails.
int StoreSentCopy(control::Controller& controller, int draft_id, const NewMessage& sent);

}  // namespace ornic::larkpost::store
