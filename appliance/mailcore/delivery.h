// Delivering a new message: the user's filters, then the store, in one
// transaction. Private to the appliance (larkpostctl deliver, fetching).
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "appliance/mailcore/message_store.h"
#include "platform/mailcore/controller.h"

namespace ornic::larkpost::store {

struct Delivered {
  int id = 0;  // the stored message; 0 when a rule deleted it
  // Bare addresses that matching rules redirect the message to, in order:
  // the caller sends it on, unchanged, once it is stored.
  std::vector<std::string> redirects;
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
// once, in its final state. `also`, when given, runs in the same
// transaction (the fetcher remembers the message's UIDL
// there, so that a message is stored and remembered, or neither). Throws
// as InsertMessage.
Delivered DeliverMessage(control::Controller& controller, const NewMessage& message,
                         const std::function<void(Database& db)>& also = {});

}  // namespace ornic::larkpost::store
