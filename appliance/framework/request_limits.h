// How long a request may take. The host ends a request whose handler runs
// past the configured limit: the client gets a clean error when nothing of
// the answer was written yet, and a cut answer otherwise. The limit is on
// the request's process, not on the client: the web server takes the whole
// answer from the process as fast as it comes (spooling a large one to
// disk) and sends it at the client's pace, so a slow reader of a big
// download costs the request nothing.
#pragma once

namespace larkpost::cgi {

// Whether the request itself may write its answer: true until the time
// limit took the answer over (every write of the request's answer asks
// first; once one was allowed, the limit only cuts).
bool ClaimAnswer();

// Ends this process `seconds` from now, answering 503 with error 109 when
// nothing was written yet. Standard output must be the client's.
void StartTimeLimit(int seconds);
// The request is over: the limit neither answers nor holds the client's
// descriptor any longer (the web server sees the answer end when standard
// output closes).
void StopTimeLimit();

}  // namespace larkpost::cgi
