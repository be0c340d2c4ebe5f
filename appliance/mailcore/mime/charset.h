// Text of mail in any charset, made UTF-8.
#pragma once

#include <string>

namespace ornic::larkpost::mime {

// `bytes` in `charset` (a MIME charset name, any case, "" when the sender
// named none) as UTF-8. Nothing is dropped: a byte sequence that is not
// valid in its charset becomes U+FFFD and decoding goes on after it.
//
// Undeclared text, and text declared US-ASCII or ISO-8859-1, is taken as
// UTF-8 when it is valid UTF-8 and as Windows-1252 otherwise: mail that
// carries 8-bit bytes under those labels is nearly always one of the two
// (and Windows-1252 is what ISO-8859-1 senders mean by bytes 0x80-0x9F).
// A charset that this system does not know is treated as undeclared.
std::string ToUtf8(const std::string& bytes, const std::string& charset);

// `bytes` in `charset` as UTF-8 into `*text`, only when `charset` is known
// and every byte sequence is valid in it; false otherwise.
bool ToUtf8Strict(const std::string& bytes, const std::string& charset, std::string* text);

// True when `text` is well-formed UTF-8 (no overlong forms, no surrogates).
bool IsValidUtf8(const std::string& text);

// `text` with every invalid UTF-8 sequence replaced by U+FFFD.
std::string RepairUtf8(const std::string& text);

// The longest prefix of `text` of at most `max_bytes` bytes that does not
// cut a UTF-8 sequence in two.
std::string Utf8Prefix(const std::string& text, size_t max_bytes);

// Appends code point `c` to `out` as UTF-8.
void AppendUtf8(std::string& out, char32_t c);

}  // namespace ornic::larkpost::mime
