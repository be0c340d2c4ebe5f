// larkpostctl check: the integrity check of users' mail stores.
#pragma once

#include "appliance/tools/command_line.h"

namespace larkpost::tools {

// check NAME|--all: prints every finding of the store check as
// "NAME: finding", or "NAME: ok" (or "NAME: no store") for a sound one;
// status 1 when anything was found or a store could not be read.
int Check(const Args& args);

}  // namespace larkpost::tools
