// RFC 5322 / MIME messages, as received, turned into what the store keeps.
//
// The MIME structure and the content transfer encodings are GMime's; header
// texts, addresses, parameters and charsets are read here, more leniently
// than GMime reads them (it drops text after a padded base64 encoded word,
// and cuts parameter values at an encoded NUL). Safe to call from several
// threads at once.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "appliance/mailcore/message_store.h"

namespace ornic::larkpost::mime {

// Parses one message; never fails, and never loses it. `raw` may start with
// an mbox "From " line (it is skipped, and kept in `raw`).
//
// The result: decoded Subject, From (the first address, or all of them
// joined by ", "), To, Cc, Bcc; Message-ID, In-Reply-To (its first id) and
// References without angle brackets; arrival_time from the Date header, or
// `time_without_date` when there is no readable Date; the first text/plain
// and the first text/html part that are not attachments as the bodies (an
// HTML-only message gets a plain body made from the HTML's text; plain text
// with its line ends as "\n"); every other leaf part as an attachment (an
// attached message as one attachment, its own parts not listed), with its
// decoded size, its GMime part path and, unless it is uuencoded or an
// encoded attached message, where its content lies in the source (an
// attached message's content is its source), is_inline when it has a Content-ID
// and is a part of multipart/related other than its root or is marked
// Content-Disposition: inline; body_preview; and `raw` itself, unchanged.
// The mailbox, type and flags are left at their defaults.
//
// A source that GMime cannot read as a message at all keeps whatever a
// simple header scan finds, and the rest as its plain body.
store::NewMessage ParseMessage(std::string raw, int64_t time_without_date);

// The same for the first `size` bytes of the file `fd`, read a window at a
// time rather than held in memory: `raw` stays empty, and raw_fd and
// raw_size name the file (which the caller keeps open until the message is
// stored). Moves the file's offset.
store::NewMessage ParseMessageFile(int fd, int64_t size, int64_t time_without_date);

// The content of the part at `part_path` (NewAttachment::part_path) of the
// message `raw`: the transfer encoding undone, an attached message as its
// source. nullopt when the message has no such part. Parses `raw` where it
// is, and decodes into the result a bounded piece at a time.
std::optional<std::string> ExtractPart(std::string_view raw, const std::string& part_path);

// The first 200 characters of `text` with every run of white space made one
// blank and none at either end.
std::string BodyPreview(const std::string& text);

}  // namespace ornic::larkpost::mime
