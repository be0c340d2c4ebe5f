#include "appliance/mailcore/base/utf8.h"

namespace ornic::larkpost::utf8 {

bool Next(std::string_view text, size_t* pos, uint32_t* code) {
  const size_t at = *pos;
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(at);
  int length;
  uint32_t value;
  uint32_t min;
  if (lead < 0x80) {
    *code = lead;
    *pos = at + 1;
    return true;
  } else if ((lead & 0xE0) == 0xC0) {
    length = 2, value = lead & 0x1F, min = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3, value = lead & 0x0F, min = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4, value = lead & 0x07, min = 0x10000;
  } else {
    return false;
  }
  if (at + length > text.size()) return false;
  for (int i = 1; i < length; ++i) {
    const unsigned char next = byte(at + i);
    if ((next & 0xC0) != 0x80) return false;
    value = (value << 6) | (next & 0x3F);
  }
  if (value < min || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return false;
  *code = value;
  *pos = at + length;
  return true;
}

void Append(uint32_t code, std::string* out) {
  if (code < 0x80) {
    out->push_back(static_cast<char>(code));
  } else if (code < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (code >> 6)));
    out->push_back(static_cast<char>(0x80 | (code & 0x3F)));
  } else if (code < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (code >> 12)));
    out->push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (code & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (code >> 18)));
    out->push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (code & 0x3F)));
  }
}

}  // namespace ornic::larkpost::utf8
