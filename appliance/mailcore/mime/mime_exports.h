// The functions of the MIME library that the core calls without linking it:
// the core loads the library on first use (store::LazyFunction), so these
// are plain C symbols. Private to the appliance.
#pragma once

#include <cstddef>
#include <string>

// The content of the part at `part_path` of the message whose source is
// the `size` bytes at `raw`, as mime::ExtractPart gives it, into `content`.
// False when the message has no such part (then `content` is left alone) or
// the part cannot be decoded.
#define LARKPOST_MIME_EXTRACT_PART "larkpost_mime_extract_part"
using LarkpostMimeExtractPart = bool(const char* raw, size_t size, const char* part_path,
                                     std::string* content);
