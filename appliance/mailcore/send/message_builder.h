// A draft made into a MIME message as it goes out.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "appliance/mailcore/draft_store.h"
#include "appliance/mailcore/send/smtp_client.h"

namespace ornic::larkpost::send {

struct MessageHeaders {
  std::string message_id;   // without angle brackets
  int64_t date = 0;         // Unix seconds
  std::string sender_name;  // the From's display name when the draft's From has none
};

// Writes the content of one of the draft's attachments, byte for byte, to
// the file `fd` from its current offset.
using ContentWriter = std::function<void(const store::DraftAttachment&, int fd)>;

// Writes `draft` as a MIME message (CRLF line ends) to file `out`, from its
// current offset, and returns the envelope: the From address and every To,
// Cc and Bcc address once. The message carries Date, Message-ID, From, To,
// Cc (never Bcc), Subject, In-Reply-To and References of a reply, and
// MIME-Version; header texts that are not ASCII as UTF-8 encoded words,
// file names as RFC 2231 parameters. The body: text/plain, or
// multipart/alternative of text/plain and text/html when there is HTML; the
// inline images beside the HTML in multipart/related; attachments after the
// body in multipart/mixed. Contents are written to anonymous files in
// `work_dir`, which GMime reads a piece at a time as it writes the message.
//
// Throws ornic::Error: kErrorInvalidArgument when the From holds no
// address, kErrorNoRecipient when no To, Cc or Bcc text holds one,
// kErrorStorage when a file cannot be written, and whatever `content`
// throws.
Envelope WriteMessage(const store::Draft& draft, const MessageHeaders& headers,
                      const ContentWriter& content, const std::string& work_dir, int out);

// The address a draft whose From is `from_text` goes out from: the first
// mailbox of the From (a group's members included), which is both the From
// header and the envelope sender; "" when there is none. Later mailboxes
// of the From never go out.
std::string SenderAddress(const std::string& from_text);

// Whether `address` is one of `own`: the local part as it is written (user
// names differ by case), the domain without regard to ASCII case.
bool IsOwnAddress(const std::string& address, const std::vector<std::string>& own);

// A new file in `dir` that has no name and goes when closed. Throws
// ornic::Error(kErrorStorage) when none can be made.
int OpenWorkFile(const std::string& dir);

}  // namespace ornic::larkpost::send
