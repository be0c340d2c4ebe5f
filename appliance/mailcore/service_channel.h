// The channel between the core's rpc:: calls and its background service
// (appliance/service): a Unix stream socket below the data root that takes
// one framed request and gives one framed answer per connection. A frame is
// a 4-byte big-endian length and that many bytes of a serialised
// proto::Request or proto::Response.
#pragma once

#include <cstddef>
#include <string>

#include "proto/service.pb.h"

namespace ornic::larkpost::service {

// <root>/run/core.sock
std::string SocketPath();

// Frames larger than this are refused on both sides.
constexpr size_t kMaxFrame = 1 << 20;

// Write or read one frame on a connected socket whose time-outs the caller
// set. False on any failure (peer gone, time-out, frame too large).
bool WriteFrame(int fd, const std::string& bytes);
bool ReadFrame(int fd, std::string* bytes);

// Gives SO_SNDTIMEO and SO_RCVTIMEO of `timeout_ms` to `fd`.
void SetTimeouts(int fd, int timeout_ms);

// Sends `request` to the service and reads its answer, all within about
// `timeout_ms`. False when the service is not running (no socket, nobody
// listening), did not answer in time, or answered something unreadable.
bool Call(const proto::Request& request, proto::Response* response, int timeout_ms = 2000);

}  // namespace ornic::larkpost::service
