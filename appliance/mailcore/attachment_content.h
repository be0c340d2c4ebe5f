// Attachment contents, in and out of the store, without holding more than
// one copy of a content in memory: drafts keep theirs in
// attachment.content, written and read through SQLite's incremental blob
// I/O; received mail has its parts decoded from the stored source by the
// MIME library, which is loaded on first use. Private to the core.
#pragma once

#include <cstdint>
#include <string>

#include "appliance/mailcore/controller_impl.h"

namespace ornic::larkpost::store {

// The content of attachment `id`: its stored content, else its part decoded
// from its message's source. Throws ornic::Error(kErrorNotFound) when there
// is no attachment `id`, ornic::Error(kErrorStorage) when its part cannot be
// decoded (or the MIME library cannot be loaded), ::larkpost::appliance::
// sqlite::Error when the store fails.
std::string AttachmentContent(Database& db, int id);

// A file name that is safe to store: the last part of `name` after any "/"
// or "\\", without NUL and control characters; "attachment" for what
// leaves nothing, ".", or "..".
std::string SafeAttachmentName(const std::string& name);

// Stores `content` (or the file at `path`) as the content of attachment row
// `id`, whose content must be a zeroblob of the same size (bind it with
// "zeroblob(?)"). WriteAttachmentFile returns false when the file holds other
// than `size` bytes or cannot be read.
void WriteAttachmentContent(Database& db, int64_t id, const std::string& content);
bool WriteAttachmentFile(Database& db, int64_t id, const std::string& path, int64_t size);

}  // namespace ornic::larkpost::store
