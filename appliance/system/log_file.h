// Append-only record files below the data root (notifications, sync
// requests) that tests and tools read back.
#pragma once

#include <string>

namespace larkpost::appliance {

// Appends `line` and a newline to `path` with a single write on a descriptor
// opened with O_APPEND, so lines of concurrent processes never interleave.
// Creates the file (mode 0600) and its folder when missing. False when the
// line could not be written whole.
//
// The descriptor stays open for the rest of the process and serves every
// later line to the same path: a request that records three lines opens the
// file once. A process that outlives a rotation of the file therefore keeps
// writing to the old one; the appliance's writers live for one request.
bool AppendLine(const std::string& path, const std::string& line);

}  // namespace larkpost::appliance
