// Limits on failed logins, kept in a small store under etc/ that every
// auth.cgi process shares.
//
// An attempt is reserved before the password is checked, and counts as a
// failure until it succeeds: a burst of parallel guesses cannot slip past
// the limits while their hashes are computed, and a refused attempt costs
// no hashing at all.
//
// Two limits hold. A client address (an IPv6 address counts by its /64)
// may fail `address_limit` times within `window` seconds; then it waits
// until its oldest failure leaves the window. An account that failed
// `account_limit` times within the window is not locked: it takes one
// attempt per `account_spacing` seconds, from everywhere at once, so that a
// stranger can slow its logins down but never stop them; and an address
// that logged into the account before (within `trust_time`) is not held to
// the account's limit at all. A success clears the address's failures for
// that account.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "appliance/system/sqlite.h"

namespace larkpost::cgi {

struct ThrottlePolicy {
  int address_limit = 10;
  int account_limit = 5;
  int64_t window = 15 * 60;
  int64_t account_spacing = 5;
  int64_t trust_time = 30 * 24 * 3600;
};

// The key under which a client address counts: the address itself for
// IPv4 (also when written IPv4-mapped), "PREFIX::/64" for IPv6, and the text
// as it is for anything else.
std::string ClientKey(const std::string& remote_addr);

class LoginThrottle {
 public:
  // Opens (creating) the store at `path`. Throws sqlite::Error.
  explicit LoginThrottle(const std::string& path, const ThrottlePolicy& policy = ThrottlePolicy());
  ~LoginThrottle();

  // Reserves an attempt at `account` from `client` (a ClientKey). 0 when the
  // attempt may go on; otherwise the seconds to wait (at least 1), and
  // nothing was counted. Throws sqlite::Error.
  int64_t Reserve(const std::string& account, const std::string& client);
  // The reserved attempt succeeded.
  void Succeeded(const std::string& account, const std::string& client);

 private:
  ThrottlePolicy policy_;
  std::unique_ptr<appliance::sqlite::Database> db_;
};

}  // namespace larkpost::cgi
