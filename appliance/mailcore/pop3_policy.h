// The administrator's POP3 policy, one per user domain, in
// <root>/etc/pop3/<domain>.json: whether the domain's users may fetch mail
// over POP3, and every how many minutes fetching runs. A domain without a
// file has POP3 off and the default period.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace ornic::larkpost::store {

constexpr uint32_t kDefaultFetchPeriod = 30;  // minutes

struct Pop3Policy {
  bool enable = false;
  uint32_t period = kDefaultFetchPeriod;  // minutes, > 0
};

// The policy of `domain`; nullopt when it cannot be read (a damaged file, a
// domain that cannot name a file). Logged.
std::optional<Pop3Policy> ReadPop3Policy(const std::string& domain);

// Stores the enable flag and, when given, the period (else the stored one
// stays). The file is replaced whole, so a reader sees the old policy or the
// new one; two changes at once are made one after the other. False (logged)
// when it cannot be stored or the period is 0.
bool WritePop3Policy(const std::string& domain, bool enable, std::optional<uint32_t> period);

}  // namespace ornic::larkpost::store
