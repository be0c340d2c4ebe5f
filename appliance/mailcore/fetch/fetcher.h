// Fetching the mail of a user's POP3 accounts into the user's store: what
// `larkpostctl fetch` and the background service run.
//
// Each new message (by UIDL) goes through the delivery path into the
// account's mailbox, so the user's filters, forwarding and vacation reply
// apply, and its UIDL is remembered once it is stored; only then, when the
// account says so, is it deleted on the server. A server that refuses the login, cannot be
// reached or goes away mid-way leaves what was stored stored and everything
// else on the server for the next fetch. The account keeps the time of the
// attempt and its error ("" when it went through).
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "platform/mailcore/controller.h"

namespace ornic::larkpost::fetch {

struct FetchOptions {
  std::string ca_file;  // "" : the system's certificate authorities
  // When set and it turns true, the fetch ends soon: the message under way
  // is dropped (it stays on the server), the account's error says so.
  const std::atomic<bool>* stop = nullptr;
};

struct FetchOutcome {
  int account_id = 0;
  int stored = 0;     // messages stored by this fetch
  bool busy = false;  // another fetch of the account was under way: nothing done
  std::string error;  // "" when the fetch went through
};

// Fetches one account now. Two fetches of one account never run at once,
// in one process or several: the second returns busy. An unknown account
// gives an outcome with an error and changes nothing.
FetchOutcome FetchAccount(control::Controller& controller, int account_id,
                          const FetchOptions& options = {});

// Every account of the user, one after another, in id order.
std::vector<FetchOutcome> FetchAllAccounts(control::Controller& controller,
                                           const FetchOptions& options = {});

}  // namespace ornic::larkpost::fetch
