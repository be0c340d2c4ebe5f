// Storing new messages: what delivery, import and (later) drafts hand to the
// store. Private to the appliance: the plug-in never sees it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "platform/mailcore/controller.h"

namespace ornic::larkpost::store {

struct NewAttachment {
  std::string name;        // safe file name: no "/", "\\", NUL; never "." or ".."
  std::string mimetype;    // "application/pdf"
  std::string content_id;  // without angle brackets; "" when none
  bool is_inline = false;  // an inline part referred to by the HTML body
  int64_t size = 0;        // bytes of the decoded content
  // Where the part is in the message source, so that its content can be
  // decoded again on demand: the MIME part numbers joined by "." ("2",
  // "1.3"), as GMime's part iterator numbers them ("0" for the one part of
  // a message that is not multipart).
  std::string part_path;
  // Where the content lies in the source, still encoded: `content_length`
  // bytes from `content_offset`, in `content_encoding` ("base64",
  // "quoted-printable", "7bit", "8bit" or "binary"), so that it is decoded
  // straight from the stored source. content_offset < 0: not known (the
  // part is found by part_path and decoded by the MIME library).
  int64_t content_offset = -1;
  int64_t content_length = 0;
  std::string content_encoding;
};

struct NewMessage {
  int mailbox_id = 1;  // the inbox
  int type = 0;        // 1: a draft
  bool read = false;
  int star = 0;
  int64_t arrival_time = 0;              // Unix seconds
  std::string from;                      // decoded header text, "Ann <ann@example.org>"
  std::vector<std::string> to, cc, bcc;  // one address text each, decoded
  std::string subject;                   // decoded
  std::string rfc_message_id;            // without angle brackets
  std::string in_reply_to;               // without angle brackets
  std::vector<std::string> references;   // without angle brackets, oldest first
  std::string plain_body;                // UTF-8
  std::string html_body;                 // UTF-8, as received
  std::string body_preview;              // the first 200 characters of the text
  std::vector<NewAttachment> attachments;
  std::string raw;  // the source as received, byte for byte
  // A source too large to hold in memory: when raw_fd >= 0 (and raw is
  // empty) the source is the first raw_size bytes of the open file
  // raw_fd, which the store reads a piece at a time.
  int raw_fd = -1;
  int64_t raw_size = 0;
};

// Stores the message in its mailbox and thread (by Message-ID, In-Reply-To
// and References, else by normalised subject), with its full-text entry and
// the mailbox counters, in one transaction. Returns the new message id.
// Throws ornic::Error(kErrorInvalidArgument) for an unknown or virtual
// mailbox, ornic::Error(kErrorDatabase) when the store fails.
int InsertMessage(control::Controller& controller, const NewMessage& message);

// As InsertMessage, then `then(db, id)` in the same transaction, before it
// commits: what `then` changes is seen with the message, or neither is.
int InsertMessageThen(control::Controller& controller, const NewMessage& message,
                      const std::function<void(Database& db, int id)>& then);

// The same for many messages in one transaction (import): all or none.
std::vector<int> InsertMessages(control::Controller& controller,
                                const std::vector<NewMessage>& messages);

}  // namespace ornic::larkpost::store
