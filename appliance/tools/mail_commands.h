// larkpostctl's commands that bring mail into a user's store.
#pragma once

#include "appliance/tools/command_line.h"

namespace larkpost::tools {

// deliver NAME [--mailbox PATH]: one message from standard input into the
// inbox or the mailbox PATH, as the user's filters leave it; prints the new
// message's id (0 when a filter deleted it).
int Deliver(const Args& args);

// import NAME [--mailbox PATH] SOURCE...: every message of the sources
// (mbox files, Maildir folders, message files); prints how many it stored.
int Import(const Args& args);

}  // namespace larkpost::tools
