// Mailbox names in IMAP's modified UTF-7 (RFC 3501, 5.1.3): printable ASCII
// stands for itself, "&" is written "&-", everything else is UTF-16BE in a
// base64 run between "&" and "-" with "," in place of "/". The store keeps
// mailbox paths in this form; the web client sees UTF-8.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ornic::larkpost::imap {

// The modified UTF-7 form of `utf8`; nullopt when `utf8` is not valid UTF-8
// (overlong forms, surrogates and code points above U+10FFFF included).
// "/" is printable ASCII and stays as it is, so a whole path can be encoded
// in one call.
std::optional<std::string> EncodeModifiedUTF7(std::string_view utf8);

// The UTF-8 text of `mutf7`; nullopt when it is not modified UTF-7 as an
// encoder writes it: a byte outside printable ASCII, a run that is not
// closed by "-", holds a character outside the base64 alphabet, ends with
// more than padding bits or non-zero padding, encodes printable ASCII, or
// holds a surrogate that is not part of a pair, or follows another run
// directly.
std::optional<std::string> DecodeModifiedUTF7(std::string_view mutf7);

}  // namespace ornic::larkpost::imap
