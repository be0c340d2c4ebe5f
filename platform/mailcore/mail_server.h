// The local mail server's configuration, as far as the core exposes it.
#pragma once

#include <string>

#include "platform/export.h"

namespace ornic::larkpost {

// The value of a key of the local mail server ("smtp_enabled",
// "smtp_hostname", "fts_enabled", ...); "" when the key is unset. Throws
// ornic::Error(kErrorConfiguration) when the configuration cannot be read.
ZEVO_PLATFORM_API std::string GetMailServerKey(const std::string& key);

}  // namespace ornic::larkpost
