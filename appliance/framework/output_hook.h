// How the host learns that a handler takes the answer over: the framework
// calls the hook when APIResponse::SetEnableOutput(false) switches the JSON
// output off, before the handler writes a byte of its own.
#pragma once

namespace larkpost::cgi {

using OutputOffHook = void (*)();
// Installs `hook` (nullptr: none) for the rest of the process.
void SetOutputOffHook(OutputOffHook hook);

}  // namespace larkpost::cgi
