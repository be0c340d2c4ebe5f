// The appliance's notion of "now", in one place so that tests of expiry and
// of time-stamped records can move time instead of sleeping.
#pragma once

#include <cstdint>
#include <functional>

namespace larkpost::appliance {

// Seconds since the epoch.
int64_t UnixTime();

// Makes UnixTime() answer from `source` until it is called again with an
// empty function (which restores the real clock). Tests only.
void SetUnixTimeForTesting(std::function<int64_t()> source);

}  // namespace larkpost::appliance
