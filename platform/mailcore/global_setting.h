// Settings that the administrator keeps for every user of a domain, not per
// user: the POP3 fetching policy.
#pragma once

#include <cstdint>
#include <string>

#include "platform/export.h"
#include "platform/mailcore/record.h"
#include "platform/mailcore/util.h"

namespace ornic::larkpost::global_control {

// A new POP3 policy. A period that is not given leaves the stored one as it
// is.
struct POP3Config {
  bool enable_pop3 = false;
  util::optional<int32_t> pop3_fetch_period;  // minutes between fetches, > 0
};

// The global settings of one user domain, stored under the data root's etc/.
// A domain whose settings were never written reads as POP3 off with the
// default period.
class ZEVO_PLATFORM_API SettingControl {
 public:
  explicit SettingControl(const std::string& domain);

  // Not valid when the stored policy cannot be read.
  record::GlobalPOP3Config GetPOP3Config() const;
  // Replaces the policy at once (readers see the old or the new one, never
  // a mix). False when the period is given and not above 0, or the store
  // cannot be written.
  bool SetPOP3Config(const POP3Config& config) const;

 private:
  std::string domain_;
};

}  // namespace ornic::larkpost::global_control
