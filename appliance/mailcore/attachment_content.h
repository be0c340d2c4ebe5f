// Attachment contents and message sources, in and out of the store a
// bounded piece at a time, so that no operation holds more than the one
// copy of a content that its caller asks for. Drafts keep their contents in
// attachment_content (the blob last in its row, so that a zeroblob stays a
// length until it is written, and SQLite's incremental blob I/O writes and
// reads it in place); stored mail keeps only its source, and an
// attachment's content is decoded from the range of the source where it
// lies. Parts stored before ranges were recorded are decoded by the MIME
// library, which is loaded on first use. Private to the core.
#pragma once

#include <cstdint>
#include <string>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/message_store.h"

namespace ornic::larkpost::store {

// The content of attachment `id`: its stored content, else its part
// decoded from its message's source. Throws ornic::Error(kErrorNotFound)
// when there is no attachment `id`, ornic::Error(kErrorStorage) when its
// part cannot be decoded (or the MIME library cannot be loaded), ::larkpost::
// appliance::sqlite::Error when the store fails.
std::string AttachmentContent(Database& db, int id);

// The same content written to `fd` from its current offset. Throws as
// AttachmentContent does, and ornic::Error(kErrorStorage) when `fd` cannot
// be written.
void WriteAttachmentContent(Database& db, int id, int fd);

// Gives attachment row `id` the content of the file at `path`, which must
// hold `size` bytes. False when it holds other than `size` bytes or cannot
// be read.
bool StoreAttachmentFile(Database& db, int64_t id, const std::string& path, int64_t size);

// Gives attachment row `to` the content of attachment `from`, whether
// stored or decoded from a source. Throws as AttachmentContent does.
void CopyAttachmentContent(Database& db, int from, int64_t to);

// A file name that is safe to store: the last part of `name` after any "/"
// or "\\", without NUL and control characters; "attachment" for what
// leaves nothing, ".", or "..".
std::string SafeAttachmentName(const std::string& name);

// The size of the message's source (NewMessage::raw, or the file it names).
int64_t SourceSize(const NewMessage& message);

// Stores the source of `message` as that of message `message_id`; from a
// file, a piece at a time. Throws ornic::Error(kErrorStorage) when the file
// cannot be read whole.
void StoreSource(Database& db, int64_t message_id, const NewMessage& message);

// Binds the content range of `attachment` (NewAttachment::content_offset,
// content_length, content_encoding) to parameters `first` to `first` + 2.
void BindContentRange(Statement& statement, int first, const NewAttachment& attachment);

}  // namespace ornic::larkpost::store
