// Forwarding and the vacation reply, decided from an arriving message alone:
// what its header says, the user's rules and addresses, and the time. Nothing
// here reads the store or sends anything (delivery does, with these answers).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "appliance/mailcore/message_store.h"

namespace ornic::larkpost::store {

// The header of our forwards: its value is the address of the user whose
// rule forwarded the message. A message that comes back carrying it for the
// same user is not forwarded again.
constexpr char kForwardMark[] = "X-Larkpost-Forwarded";

// A vacation reply goes to one sender at most once in this many seconds.
constexpr int64_t kVacationInterval = 7 * 24 * 3600;

// The user's forwarding and vacation rules as stored. A time of 0 is not
// set: no beginning, or no end.
struct AnswerRules {
  bool forward_enable = false;
  std::string forward_addr;  // bare address
  bool keep_copy = false;
  bool reply_enable = false;
  int64_t reply_begin_time = 0;
  int64_t reply_end_time = 0;
  std::string subject;  // "" : "Auto: " and the original's
  std::string message;
};

// What the rules look at in a message's header, besides what NewMessage
// already holds (from, to, cc, subject, ids).
struct Arrival {
  // Return-Path, bare: the envelope sender as the delivering server wrote it.
  bool has_return_path = false;
  std::string return_path;                 // "" for "<>": a bounce or another automatic message
  std::string auto_submitted;              // lower case, without comments; "" when absent
  std::string precedence;                  // lower case
  bool list_header = false;                // any List-* field (List-Id, List-Unsubscribe, ...)
  std::vector<std::string> forward_marks;  // values of kForwardMark, bare, lower case
  std::string header_block;                // the raw header block, for a forward
};

// Reads the header block of `message` (raw, else the start of raw_fd).
Arrival ReadArrival(const NewMessage& message);

// Whether the message goes on to rules.forward_addr: forwarding is on and
// the message does not already carry our mark for `user_address`.
bool ShouldForward(const AnswerRules& rules, const Arrival& arrival,
                   const std::string& user_address);

// The envelope sender of a forward: the original one (bounces go to whoever
// sent the message), else the From address.
std::string ForwardSender(const NewMessage& message, const Arrival& arrival);

// The message as it goes on: our mark for `user_address` in front of the
// original header and body, which are left as they are; lines end in CRLF.
std::string ForwardedSource(const std::string& raw, const std::string& user_address);

// Where the vacation reply to `message` goes (bare address), or "" with the
// reason in `*why` when none may be sent. `own` are the user's addresses
// (the account's and its sending identities'); `now` Unix seconds. The
// once-per-sender memory is the caller's.
std::string VacationRecipient(const AnswerRules& rules, const NewMessage& message,
                              const Arrival& arrival, const std::vector<std::string>& own,
                              int64_t now, std::string* why);

// The reply, ready for SMTP (CRLF), From `from_address`.
std::string VacationReply(const AnswerRules& rules, const NewMessage& message,
                          const std::string& recipient, const std::string& from_address,
                          int64_t now);

// `raw` with every line ended by CRLF, and a last line end.
std::string WithCrlf(const std::string& raw);

}  // namespace ornic::larkpost::store
