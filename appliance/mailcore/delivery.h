// Delivering a new message: the user's filters, forwarding and the vacation
// reply, and the store, in one transaction. Private to the appliance
// (larkpostctl deliver, fetching).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "appliance/mailcore/auto_answer.h"
#include "appliance/mailcore/message_store.h"
#include "platform/mailcore/controller.h"

namespace ornic::larkpost::store {

struct Delivered {
  int id = 0;  // the stored message; 0 when a rule deleted it
  // Bare addresses that matching rules redirect the message to, in order:
  // the caller sends it on, unchanged, once it is stored.
  std::vector<std::string> redirects;
  bool forwarded = false;  // the forward went out
  bool replied = false;    // a vacation reply went out
};

// Runs the user's filters, in the user's order, over `message`, and stores
// it as they leave it. A rule matches when the message, as it arrived,
// meets its conditions (the thread search's meanings, for this one
// message). The actions of every matching rule apply in order: read and
// star states and labels (of the message's thread) accumulate, the last
// mailbox that a move_to, archive or trash named is where the message ends
// (else message.mailbox_id), a delete discards it, a redirect is handed
// back. A rule whose mailbox or label no longer exists is skipped whole
// (logged). The store, its counts and its search index see the message
// once, in its final state. Throws as InsertMessage.
//
// With `keep`, it is asked, once the rules have decided and before anything
// is committed, whether to store the message (its argument: whether a rule
// deleted it); false leaves the store as it was and the result's id 0.
Delivered DeliverMessage(control::Controller& controller, const NewMessage& message,
                         const std::function<bool(bool deleted)>& keep = nullptr);

// The one way new mail comes in (larkpostctl deliver, every fetched
// message): DeliverMessage, then forwarding, then the vacation reply, then
// the rules' redirects, all through the appliance's relay.
//
// Forwarding sends the message as it arrived, with our mark, to the
// forward address; without keep_copy the message is stored only when the
// forward failed (logged), so that nothing is lost. A message that a rule
// deleted is neither forwarded nor answered; one that carries our mark for
// this user is stored and not forwarded again.
//
// The vacation reply (see VacationRecipient) goes to a sender once in
// kVacationInterval, remembered in the store only once the relay took it.
// Neither a failed forward nor a failed reply fails the delivery.
//
// `with_message`, when given, runs in the transaction that stores the
// message (or finds that a rule deleted it): what the caller records there
// (a fetched message's UIDL) commits with the message or not at all.
Delivered Deliver(control::Controller& controller, const NewMessage& message,
                  const std::function<void()>& with_message = nullptr);

// The rules as stored (defaults for a store that has none yet).
AnswerRules LoadAnswerRules(Database& db);

// The user's own addresses: the account's NAME@DOMAIN first, then the
// addresses of the sending identities.
std::vector<std::string> UserAddresses(control::Controller& controller);

// Sends `message` (CRLF) through the appliance's relay; 0 when it took it,
// else a send code (logged by the sender). Never throws.
int32_t SendThroughRelay(const std::string& sender, const std::vector<std::string>& recipients,
                         const std::string& message);

}  // namespace ornic::larkpost::store
