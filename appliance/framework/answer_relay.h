// The host's hold on answers that a plug-in writes itself. A handler that
// switches the JSON output off writes a whole CGI answer (its own header
// lines, an empty line, the body) to standard output; the host puts a pipe
// there instead and relays what comes through it, so that every answer
// carries the host's headers whatever the handler wrote.
#pragma once

#include <cstdint>
#include <thread>

namespace larkpost::cgi {

// The header lines (each ended by CR LF) that every answer of the host
// carries: no sniffing, no caching, and a policy under which nothing served
// runs script or counts as the webmail's origin (mail content is served
// through the same programs as the API). No referrer: download URLs carry
// the session's token.
extern const char kHostHeaders[];

// Copies one CGI answer from `in` to `out` until `in` ends. A leading header
// block keeps its lines, except those that the host's own headers replace;
// output without a header block becomes the body of an
// application/octet-stream answer. The body is streamed unchanged in blocks.
// Returns the number of bytes read from `in` (0: nothing was written).
int64_t RelayAnswer(int in, int out);

// Puts a pipe on standard output and relays it to what was there, from a
// thread of its own, until Finish. Not copyable; Finish runs on destruction.
class StdoutRelay {
 public:
  StdoutRelay() = default;
  ~StdoutRelay() { Finish(); }
  StdoutRelay(const StdoutRelay&) = delete;
  StdoutRelay& operator=(const StdoutRelay&) = delete;

  // False when the pipe cannot be made (standard output is left as it was).
  bool Start();
  bool active() const { return saved_ >= 0; }
  // Flushes stdio, puts the original standard output back and waits for
  // the relay to end. Returns what RelayAnswer returned (0 when inactive).
  int64_t Finish();

 private:
  int saved_ = -1;
  int64_t relayed_ = 0;
  std::thread thread_;
};

}  // namespace larkpost::cgi
