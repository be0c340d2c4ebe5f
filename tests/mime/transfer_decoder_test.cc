// The core's own transfer decoding against GMime's: for any content, cut
// into any pieces, the same bytes as GMime decoding the whole content at
// once. Well-formed contents are also checked against their known bytes.
#include <gmime/gmime.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "appliance/mailcore/mime/transfer_decoder.h"

namespace ornic::larkpost::mime {
namespace {

using namespace std::string_literals;

std::string GMimeDecode(GMimeContentEncoding encoding, const std::string& data) {
  static const bool ready = (g_mime_init(), true);
  (void)ready;
  GMimeEncoding state;
  g_mime_encoding_init_decode(&state, encoding);
  std::string out(g_mime_encoding_outlen(&state, data.size()) + 16, '\0');
  size_t n = g_mime_encoding_step(&state, data.data(), data.size(), out.data());
  n += g_mime_encoding_flush(&state, nullptr, 0, out.data() + n);
  out.resize(n);
  return out;
}

// `data` fed in pieces of the given sizes (the last size repeats).
std::string Decode(TransferEncoding encoding, const std::string& data,
                   const std::vector<size_t>& pieces) {
  TransferDecoder decoder(encoding);
  std::string out;
  size_t at = 0;
  for (size_t k = 0; at < data.size(); ++k) {
    size_t piece = std::min(pieces[std::min(k, pieces.size() - 1)], data.size() - at);
    decoder.Step(data.data() + at, piece, &out);
    at += piece;
  }
  decoder.Finish(&out);
  return out;
}

std::string Base64(const std::string& bytes, bool crlf) {
  static const char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    uint32_t v = static_cast<unsigned char>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) v |= static_cast<unsigned char>(bytes[i + 1]) << 8;
    if (i + 2 < bytes.size()) v |= static_cast<unsigned char>(bytes[i + 2]);
    text += kDigits[v >> 18];
    text += kDigits[(v >> 12) & 63];
    text += i + 1 < bytes.size() ? kDigits[(v >> 6) & 63] : '=';
    text += i + 2 < bytes.size() ? kDigits[v & 63] : '=';
    if (text.size() % 78 == 76) text += crlf ? "\r\n" : "\n";
  }
  return text;
}

TEST(TransferDecoderTest, WellFormedContentsComeBackByteForByte) {
  std::mt19937 random(7);
  const size_t kChunk = 64 * 1024;
  for (size_t size : {size_t{0}, size_t{1}, size_t{2}, size_t{3}, size_t{57}, kChunk - 1, kChunk,
                      kChunk + 1, 3 * kChunk + 2}) {
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    for (bool crlf : {false, true}) {
      const std::string text = Base64(bytes, crlf) + (crlf ? "\r\n" : "\n");
      for (const auto& pieces : std::vector<std::vector<size_t>>{{kChunk}, {1}, {4093, 3}}) {
        ASSERT_EQ(Decode(TransferEncoding::kBase64, text, pieces), bytes)
            << size << (crlf ? " CRLF" : " LF") << " pieces of " << pieces[0];
      }
    }
    EXPECT_EQ(Decode(TransferEncoding::kIdentity, bytes, {kChunk}), bytes);
  }
  const struct {
    std::string encoded, decoded;
  } quoted[] = {
      {"caf=C3=A9 =3D ok", "café = ok"},
      {"lower =c3=a9", "lower é"},
      {"soft=\r\nbreak and=\nunix", "softbreak andunix"},
      {"hard\r\nbreak\r\n", "hard\r\nbreak\r\n"},
      {"=ZZ stays, = stays", "=ZZ stays, = stays"},
      {"trailing =", "trailing "},
  };
  for (const auto& row : quoted) {
    for (size_t piece : {size_t{1}, size_t{2}, kChunk}) {
      EXPECT_EQ(Decode(TransferEncoding::kQuotedPrintable, row.encoded, {piece}), row.decoded)
          << row.encoded << " in pieces of " << piece;
    }
  }
}

TEST(TransferDecoderTest, AnyContentDecodesAsGMimeDecodesIt) {
  // Alphabets that make the hard cases likely: padding anywhere, garbage
  // between quartets, escapes cut in two, soft breaks of either kind.
  const struct {
    TransferEncoding encoding;
    GMimeContentEncoding gmime;
    std::string alphabet;
  } kinds[] = {
      {TransferEncoding::kBase64, GMIME_CONTENT_ENCODING_BASE64, "QUJDZa+/9==\r\n -*\x80"s},
      {TransferEncoding::kBase64, GMIME_CONTENT_ENCODING_BASE64, "AQ=\n"},
      {TransferEncoding::kQuotedPrintable, GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE,
       "=3Dafz\r\n \t\x00\xff"s},
      {TransferEncoding::kQuotedPrintable, GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE, "==\r\nA"},
      {TransferEncoding::kIdentity, GMIME_CONTENT_ENCODING_BINARY, "a\r\n\x00"s},
  };
  std::mt19937 random(11);
  for (const auto& kind : kinds) {
    for (int round = 0; round < 3000; ++round) {
      std::string data(random() % 40, '\0');
      for (char& c : data) c = kind.alphabet[random() % kind.alphabet.size()];
      const std::string want = GMimeDecode(kind.gmime, data);
      const size_t piece = 1 + random() % 7;
      ASSERT_EQ(Decode(kind.encoding, data, {piece}), want)
          << ::testing::PrintToString(data) << " in pieces of " << piece;
      ASSERT_EQ(DecodedLength(kind.encoding, data), want.size());
    }
  }
}

TEST(TransferDecoderTest, StoredEncodingNames) {
  const struct {
    const char* name;
    bool known;
    TransferEncoding encoding;
  } rows[] = {
      {"7bit", true, TransferEncoding::kIdentity},
      {"8BIT", true, TransferEncoding::kIdentity},
      {"binary", true, TransferEncoding::kIdentity},
      {"Base64", true, TransferEncoding::kBase64},
      {"quoted-printable", true, TransferEncoding::kQuotedPrintable},
      {"x-uuencode", false, TransferEncoding::kIdentity},
      {"", false, TransferEncoding::kIdentity},
      {"base64 ", false, TransferEncoding::kIdentity},
  };
  for (const auto& row : rows) {
    TransferEncoding encoding = TransferEncoding::kIdentity;
    EXPECT_EQ(TransferEncodingNamed(row.name, &encoding), row.known) << row.name;
    EXPECT_EQ(encoding, row.encoding) << row.name;
  }
}

}  // namespace
}  // namespace ornic::larkpost::mime
