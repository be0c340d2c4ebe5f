// Content-Transfer-Encodings undone piece by piece, so that an attachment is
// decoded straight from where its encoded bytes are stored, a bounded buffer
// at a time. The result does not depend on how the content is cut into
// pieces: for base64 and quoted-printable it is what GMime gives for the
// whole content decoded in one step. uuencode is decoded here only, as
// uudecode does it: a line that lost its trailing blanks still yields all
// the bytes its length character counts. Core code: no GMime needed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace ornic::larkpost::mime {

enum class TransferEncoding { kIdentity, kBase64, kQuotedPrintable, kUuencode };

// The encoding that a stored name stands for: "7bit", "8bit" and "binary"
// (no encoding), "base64", "quoted-printable", "x-uuencode" (and its other
// names "uuencode", "x-uue"). False for anything else.
bool TransferEncodingNamed(std::string_view name, TransferEncoding* encoding);

class TransferDecoder {
 public:
  explicit TransferDecoder(TransferEncoding encoding) : encoding_(encoding) {}

  // Appends to `out` what `size` more bytes of the content decode to.
  void Step(const char* data, size_t size, std::string* out);
  // The content is complete: appends what is left, if anything.
  void Finish(std::string* out);

 private:
  void Base64Step(const unsigned char* data, size_t size, std::string* out);
  void QuotedStep(const unsigned char* data, size_t size, std::string* out);
  void UuStep(const unsigned char* data, size_t size, std::string* out);
  void UuLine(std::string* out);

  TransferEncoding encoding_;
  // base64: the sextets of the quartet so far and how many there are, and
  // whether padding ended the content. quoted-printable: the character
  // after "=" (in saved_).
  uint32_t saved_ = 0;
  int count_ = 0;
  bool padded_ = false;
  // quoted-printable: 0 in text, 1 after "=", 2 after "=" and one more
  // character.
  int qp_state_ = 0;
  // uuencode: the line so far (its first bytes only: no uuencoded line is
  // longer), whether the "begin" line was seen, and whether the content
  // ended (a line of length 0, or "end").
  std::string line_;
  bool uu_begun_ = false;
  bool uu_ended_ = false;
};

// How many bytes `data` decodes to.
uint64_t DecodedLength(TransferEncoding encoding, std::string_view data);

}  // namespace ornic::larkpost::mime
