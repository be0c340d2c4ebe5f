#include "appliance/mailcore/mime/transfer_decoder.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace ornic::larkpost::mime {
namespace {

constexpr unsigned char kNoRank = 0xff;

// The value of each base64 character; "=" is padding.
constexpr std::array<unsigned char, 256> Base64Ranks() {
  std::array<unsigned char, 256> ranks{};
  for (auto& rank : ranks) rank = kNoRank;
  for (int i = 0; i < 26; ++i) {
    ranks['A' + i] = static_cast<unsigned char>(i);
    ranks['a' + i] = static_cast<unsigned char>(26 + i);
  }
  for (int i = 0; i < 10; ++i) ranks['0' + i] = static_cast<unsigned char>(52 + i);
  ranks['+'] = 62;
  ranks['/'] = 63;
  return ranks;
}
constexpr std::array<unsigned char, 256> kRanks = Base64Ranks();

int HexValue(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool TransferEncodingNamed(std::string_view name, TransferEncoding* encoding) {
  auto is = [&](const char* known) {
    return name.size() == strlen(known) && strncasecmp(name.data(), known, name.size()) == 0;
  };
  if (is("7bit") || is("8bit") || is("binary")) {
    *encoding = TransferEncoding::kIdentity;
  } else if (is("base64")) {
    *encoding = TransferEncoding::kBase64;
  } else if (is("quoted-printable")) {
    *encoding = TransferEncoding::kQuotedPrintable;
  } else if (is("x-uuencode") || is("uuencode") || is("x-uue")) {
    *encoding = TransferEncoding::kUuencode;
  } else {
    return false;
  }
  return true;
}

void TransferDecoder::Step(const char* data, size_t size, std::string* out) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(data);
  switch (encoding_) {
    case TransferEncoding::kIdentity:
      out->append(data, size);
      break;
    case TransferEncoding::kBase64:
      Base64Step(bytes, size, out);
      break;
    case TransferEncoding::kQuotedPrintable:
      QuotedStep(bytes, size, out);
      break;
    case TransferEncoding::kUuencode:
      UuStep(bytes, size, out);
      break;
  }
}

void TransferDecoder::Base64Step(const unsigned char* data, size_t size, std::string* out) {
  if (padded_) return;
  size_t end = out->size();
  out->resize(end + size / 4 * 3 + 3);
  char* put = out->data() + end;
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == '=') {
      // Padding ends the content: what the quartet so far holds is its
      // last byte or two, and anything after it is not data.
      if (count_ >= 2) *put++ = static_cast<char>(saved_ >> (count_ == 2 ? 4 : 10));
      if (count_ == 3) *put++ = static_cast<char>(saved_ >> 2);
      padded_ = true;
      break;
    }
    const unsigned char rank = kRanks[data[i]];
    if (rank == kNoRank) continue;  // line breaks, and garbage
    saved_ = (saved_ << 6) | rank;
    if (++count_ == 4) {
      *put++ = static_cast<char>(saved_ >> 16);
      *put++ = static_cast<char>(saved_ >> 8);
      *put++ = static_cast<char>(saved_);
      saved_ = 0;
      count_ = 0;
    }
  }
  out->resize(static_cast<size_t>(put - out->data()));
}

void TransferDecoder::QuotedStep(const unsigned char* data, size_t size, std::string* out) {
  size_t i = 0;
  while (i < size) {
    if (qp_state_ == 0) {
      const void* mark = std::memchr(data + i, '=', size - i);
      size_t run =
          mark ? static_cast<size_t>(static_cast<const unsigned char*>(mark) - data) : size;
      out->append(reinterpret_cast<const char*>(data + i), run - i);
      i = run;
      if (i < size) {
        qp_state_ = 1;
        ++i;
      }
      continue;
    }
    const unsigned char c = data[i++];
    if (qp_state_ == 1) {
      // "=" at the end of a line is a soft line break.
      if (c == '\n') {
        qp_state_ = 0;
      } else {
        saved_ = c;
        qp_state_ = 2;
      }
      continue;
    }
    const int high = HexValue(static_cast<unsigned char>(saved_)), low = HexValue(c);
    if (high >= 0 && low >= 0) {
      out->push_back(static_cast<char>(high << 4 | low));
    } else if (!(c == '\n' && saved_ == '\r')) {
      // Not an escape: the text stays as written.
      out->push_back('=');
      out->push_back(static_cast<char>(saved_));
      out->push_back(static_cast<char>(c));
    }
    qp_state_ = 0;
  }
}

void TransferDecoder::UuStep(const unsigned char* data, size_t size, std::string* out) {
  // Longer than any uuencoded line (a length character and 84 more).
  constexpr size_t kLineCap = 128;
  for (size_t i = 0; i < size && !uu_ended_; ++i) {
    if (data[i] == '\n') {
      UuLine(out);
      line_.clear();
    } else if (line_.size() < kLineCap) {
      line_ += static_cast<char>(data[i]);
    }
  }
}

void TransferDecoder::UuLine(std::string* out) {
  if (!line_.empty() && line_.back() == '\r') line_.pop_back();
  if (!uu_begun_) {
    uu_begun_ = line_.compare(0, 6, "begin ") == 0;
    return;
  }
  if (line_.empty()) return;
  if (line_.compare(0, 3, "end") == 0) {
    uu_ended_ = true;
    return;
  }
  auto value = [](char c) { return static_cast<unsigned char>((c - 0x20) & 0x3F); };
  size_t count = value(line_[0]);
  if (count == 0) {
    uu_ended_ = true;
    return;
  }
  // Characters missing at the end of the line were blanks that a mail
  // program trimmed: a blank is 0, as is "`".
  line_.resize(std::max(line_.size(), 1 + (count + 2) / 3 * 4), ' ');
  for (size_t at = 1; count > 0; at += 4) {
    uint32_t bits = static_cast<uint32_t>(value(line_[at])) << 18 |
                    static_cast<uint32_t>(value(line_[at + 1])) << 12 |
                    static_cast<uint32_t>(value(line_[at + 2])) << 6 | value(line_[at + 3]);
    for (int shift = 16; shift >= 0 && count > 0; shift -= 8, --count) {
      out->push_back(static_cast<char>(bits >> shift));
    }
  }
}

void TransferDecoder::Finish(std::string* out) {
  // Nothing else is held back: an unfinished base64 quartet without
  // padding, or an "=" escape cut short at the end, yields nothing.
  if (encoding_ == TransferEncoding::kUuencode && !uu_ended_ && !line_.empty()) {
    UuLine(out);
    line_.clear();
  }
}

uint64_t DecodedLength(TransferEncoding encoding, std::string_view data) {
  TransferDecoder decoder(encoding);
  constexpr size_t kPiece = 64 * 1024;
  std::string out;
  uint64_t length = 0;
  for (size_t at = 0; at < data.size(); at += kPiece) {
    decoder.Step(data.data() + at, std::min(kPiece, data.size() - at), &out);
    length += out.size();
    out.clear();
  }
  decoder.Finish(&out);
  return length + out.size();
}

}  // namespace ornic::larkpost::mime
