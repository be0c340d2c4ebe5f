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

// fetch NAME: every POP3 account of the user, now (whatever the
// administrator's policy: this is the operator's own call); prints how many
// messages it stored. An account that failed is named on standard error,
// with what its server said, and the command ends with status 1.
int Fetch(const Args& args);

}  // namespace larkpost::tools
