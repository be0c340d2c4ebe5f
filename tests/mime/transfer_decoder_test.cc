// The core's own transfer decoding against GMime's: for any content, cut
// into any pieces, the same bytes as GMime decoding the whole content at
// once; uuencode as uudecode reads it.
#include <gmime/gmime.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

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

// `data` fed in pieces of `piece` bytes.
std::string Decode(TransferEncoding encoding, const std::string& data, size_t piece) {
  TransferDecoder decoder(encoding);
  std::string out;
  for (size_t at = 0; at < data.size(); at += piece) {
    decoder.Step(data.data() + at, std::min(piece, data.size() - at), &out);
  }
  decoder.Finish(&out);
  return out;
}

// Large well-formed base64 across the pieces that the store reads is the
// store's content tests' business.
TEST(TransferDecoderTest, QuotedPrintableEscapesAndSoftBreaks) {
  const size_t kChunk = 64 * 1024;
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
      EXPECT_EQ(Decode(TransferEncoding::kQuotedPrintable, row.encoded, piece), row.decoded)
          << row.encoded << " in pieces of " << piece;
    }
  }
}

// uudecode's reading: lines that lost their trailing blanks on the way
// decode to the bytes their length counts; nothing before "begin" or after
// the end.
TEST(TransferDecoderTest, UuencodedLinesThatLostTheirTrailingBlanks) {
  const struct {
    std::string encoded, decoded;
  } rows[] = {
      {"begin 644 z\n&        \n \nend\n", std::string(6, '\0')},
      {"begin 644 z\n&\n \nend\n", std::string(6, '\0')},
      {"begin 644 z\r\n&````````\r\n`\r\nend\r\n", std::string(6, '\0')},
      {"begin 644 z\n%2&D\n#86)C\n\nend\n", "Hi\0\0\0abc"s},
      {"junk before\nbegin 600 a b\n#86)C\nend\n#86)C\n", "abc"},
      {"begin 644 z\n#86)C", "abc"},  // no line break at the end
      {"#86)C\n", ""},                // no "begin"
  };
  for (const auto& row : rows) {
    for (size_t piece : {size_t{1}, size_t{3}, size_t{64 * 1024}}) {
      EXPECT_EQ(Decode(TransferEncoding::kUuencode, row.encoded, piece), row.decoded)
          << ::testing::PrintToString(row.encoded) << " in pieces of " << piece;
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
      ASSERT_EQ(Decode(kind.encoding, data, piece), want)
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
      {"x-uuencode", true, TransferEncoding::kUuencode},
      {"x-uue", true, TransferEncoding::kUuencode},
      {"x-binhex", false, TransferEncoding::kIdentity},
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
