// The core's exception type and the error codes that it throws.
#pragma once

#include <cstdint>
#include <stdexcept>

#include "platform/export.h"

namespace ornic {

// Thrown by value by the mail core (and by plug-in code) to report a failure
// that the client sees as an error code. The entry functions catch it by
// reference and copy `ErrorCode()` into the answer unchanged.
class ZEVO_PLATFORM_API Error : private std::runtime_error {
 public:
  explicit Error(int32_t code);
  Error(const Error&) = default;
  Error& operator=(const Error&) = default;
  ~Error() override;  // out of line: the type information lives in one library

  int32_t ErrorCode() const noexcept { return code_; }
  using std::runtime_error::what;

 private:
  int32_t code_;
};

// Codes thrown by the mail core itself. Codes below 500 belong to the web API
// framework and the plug-in; the core never throws those, but for the
// request-list conversion of util.h, which answers 120 (a bad parameter) as
// the plug-in's checkers do.
enum CoreErrorCode : int32_t {
  kErrorNoSuchUser = 501,       // the uid or name is not a user of this system
  kErrorDatabase = 502,         // the user's store cannot be opened or is damaged
  kErrorStorage = 503,          // a file below the data root cannot be read or written
  kErrorConfiguration = 504,    // the appliance's configuration cannot be read
  kErrorNotFound = 505,         // the record asked for does not exist
  kErrorInvalidArgument = 506,  // the core refused a value it was handed
  // Sending (MessageControl::Send). The draft stays as it was.
  kErrorNoRecipient = 507,    // the draft has no To, Cc or Bcc address
  kErrorNoSmtpAccount = 508,  // no sending identity, and the local server is off
  kErrorSmtpConnect = 509,    // the SMTP server cannot be reached (or TLS failed)
  kErrorSmtpAuth = 510,       // the SMTP server refused the login
  kErrorSmtpRejected = 511,   // the server refused the sender, a recipient or the message
  kErrorSmtpTimeout = 512,    // the SMTP server stopped answering
  // Through the appliance's own server the From (and so the envelope sender)
  // must be one of the user's own addresses: NAME@DOMAIN of the account, or
  // the address of one of the user's sending identities.
  kErrorSenderNotOwn = 513,
};

}  // namespace ornic
