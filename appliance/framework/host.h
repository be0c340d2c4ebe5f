// The CGI host's programs as functions, so that one executable can run them
// once (a plain CGI process) or in processes forked from a server that has
// the plug-in loaded already (the preloaded host).
#pragma once

#include <cstddef>
#include <string>

namespace larkpost::cgi {

// Serve one request of entry.cgi / auth.cgi from this process's environment,
// standard input and standard output. Return the exit status.
int RunEntryProgram();
int RunAuthProgram();

// Loads the plug-in (and with it the core) into this process, so that
// processes forked from it start with everything in place.
void PreloadPlugin();

// Listens on `socket_path` and serves each connection in a child process.
// `cmdline` and `cmdline_size` are this process's argument area, which each
// child overwrites with the client's program path so that it shows (in
// /proc/self/cmdline, the system log) as the program the web server ran.
// Returns when SIGTERM or SIGINT arrives, or when the parent goes.
int ServePreloaded(const std::string& socket_path, char* cmdline, size_t cmdline_size);

}  // namespace larkpost::cgi
