// The sending library (liblarkpost_send.so): building a draft into a MIME
// message and handing it to an SMTP server. It pulls in GMime and libcurl,
// so the core loads it on first use (store::LazyFunction) through the one
// C entry below; web requests that do not send never load it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "appliance/mailcore/draft_store.h"
#include "appliance/mailcore/message_store.h"
#include "appliance/mailcore/send/smtp_client.h"
#include "platform/mailcore/controller.h"

namespace ornic::larkpost::send {

// What to send and where. Every pointer outlives the call.
struct SendJob {
  control::Controller* controller = nullptr;  // the draft's owner: attachment contents
  const store::Draft* draft = nullptr;
  SmtpServer server;
  // Set when the server is the appliance's own: the message goes out only
  // from one of `own_addresses`. An account of the user's own is the
  // account's server's to judge.
  bool sender_must_be_own = false;
  std::vector<std::string> own_addresses;
  std::string sender_name;  // the From's display name when the draft's From has none
  std::string id_domain;    // the domain of the Message-ID
  std::string work_dir;     // where anonymous work files go (the user's folder)
  int64_t now = 0;          // Unix seconds: the Date
};

struct SendOutcome {
  // 0 when the server took the message; otherwise a send code of
  // platform/mailcore/error.h, or kErrorStorage / kErrorDatabase when the
  // message could not be built.
  int32_t error = 0;
  // The message as it went out, parsed from the exact bytes sent, with the
  // draft's Bcc recipients, which no header carries. Its source is the work
  // file it went out from (sent.raw_fd), left open for storing the copy:
  // the caller closes it.
  store::NewMessage sent;
};

// Builds, sends and parses; never throws.
using SendEntry = void(const SendJob* job, SendOutcome* outcome);

// A message that the appliance sends on its own (a redirect, a forward, a
// vacation reply) through the configured relay.
struct RelayJob {
  std::string sender;  // bare address; "" : the null sender "<>"
  std::vector<std::string> recipients;
  const std::string* message = nullptr;  // CRLF line ends
};

// 0 when the relay took the message, else a code as Transmit's; never throws.
using RelayEntry = int32_t(const RelayJob* job);

constexpr char kLibraryName[] = "liblarkpost_send.so";
constexpr char kEntryName[] = "larkpost_send_draft";
constexpr char kRelayEntryName[] = "larkpost_relay_message";

}  // namespace ornic::larkpost::send

// Defined in the library only; the core reaches it by name.
extern "C" ornic::larkpost::send::SendEntry larkpost_send_draft;
extern "C" ornic::larkpost::send::RelayEntry larkpost_relay_message;
