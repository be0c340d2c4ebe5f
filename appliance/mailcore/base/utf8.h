// UTF-8 one code point at a time, for the core's text handling (mailbox
// paths, search keys, previews, charset conversion).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ornic::larkpost::utf8 {

// Reads the code point at `*pos` and advances past it. False, with `*pos`
// unchanged, when the bytes there are not the shortest encoding of a scalar
// value (overlong forms, surrogates, values above U+10FFFF, cut sequences).
bool Next(std::string_view text, size_t* pos, uint32_t* code);

// Appends the UTF-8 encoding of `code` (a scalar value).
void Append(uint32_t code, std::string* out);

}  // namespace ornic::larkpost::utf8
