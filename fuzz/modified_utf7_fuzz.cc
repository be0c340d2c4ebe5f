// Mailbox names in modified UTF-7: any UTF-8 text encodes and decodes back
// to itself, and any text the decoder accepts is what the encoder writes for
// the result.
#include <string>

#include "appliance/mailcore/base/modified_utf7.h"
#include "fuzz/fuzz_util.h"

namespace imap = ornic::larkpost::imap;
using larkpost::fuzz::Broken;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (const auto encoded = imap::EncodeModifiedUTF7(text)) {
    const auto decoded = imap::DecodeModifiedUTF7(*encoded);
    if (!decoded || *decoded != text) Broken("UTF-8 does not survive a round trip");
  }
  if (const auto decoded = imap::DecodeModifiedUTF7(text)) {
    const auto encoded = imap::EncodeModifiedUTF7(*decoded);
    if (!encoded || *encoded != text) Broken("an accepted name is not the encoder's form");
  }
  return 0;
}
