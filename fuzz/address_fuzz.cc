// Address parsing: the core's MailAddress (name and address of one text)
// and the MIME layer's address list reader. Every display text of a list is
// read back by both without harm, and one with a well-formed address reads
// back as itself. Input: the header text.
#include <string>

#include "appliance/mailcore/mime/header.h"
#include "fuzz/fuzz_util.h"
#include "platform/mailcore/control.h"

namespace control = ornic::larkpost::control;
namespace mime = ornic::larkpost::mime;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const control::MailAddress address(text);
  (void)address.GetEmail();
  for (const std::string& display : mime::ParseAddressList(text, "iso-2022-jp")) {
    const control::MailAddress one(display);
    (void)one.GetEmail();
    // Only an address that is one: junk inside brackets stays junk.
    size_t from = 0;  // after a quoted name
    if (!display.empty() && display[0] == '"') {
      for (from = 1; from < display.size() && display[from] != '"'; ++from) {
        if (display[from] == '\\') ++from;
      }
    }
    const size_t open = display.find('<', from);
    const std::string email = !display.empty() && display.back() == '>' && open != std::string::npos
                                  ? display.substr(open + 1, display.size() - open - 2)
                                  : display;
    // A name that reads as an encoded word ("=?...?=") is decoded when read
    // again: senders put them inside quotes.
    if (display.find("=?") != std::string::npos || email.empty() ||
        email.find_first_of(" <>()[],;:\\\"") != std::string::npos ||
        email.find('@') == std::string::npos || email.find('@') != email.rfind('@')) {
      continue;
    }
    // A display text the list reader wrote reads back as itself.
    const auto again = mime::ParseAddressList(display);
    if (again.size() != 1 || again[0] != display) {
      larkpost::fuzz::Broken("a written address does not read back: " + display);
    }
  }
  return 0;
}
