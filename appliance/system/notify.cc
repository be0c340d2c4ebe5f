// Mailbox notifications. There are no live listeners on this appliance: a
// notice is a line in <root>/log/notify.log ("<unix time> <uid> <delay>",
// delay 0 for an immediate one) for whoever watches it, tests included.
// Folding notices that fall within a delay is the reader's business; every
// request is recorded as it came.
#include "platform/zevo/notify.h"

#include <string>

#include "appliance/system/appliance.h"
#include "appliance/system/clock.h"
#include "appliance/system/log_file.h"

namespace {

int Record(uint32_t uid, int delay) {
  if (delay < 0) return -1;
  try {
    std::string line = std::to_string(larkpost::appliance::UnixTime()) + " " + std::to_string(uid) +
                       " " + std::to_string(delay);
    return larkpost::appliance::AppendLine(larkpost::appliance::LogDir() + "/notify.log", line)
               ? 0
               : -1;
  } catch (const std::exception&) {
    return -1;
  }
}

}  // namespace

extern "C" {

int ZEVOLarkpostNotifyMailboxUpdate(uint32_t uid) { return Record(uid, 0); }

int ZEVOLarkpostNotifyMailboxDelayUpdate(uint32_t uid, int delay) { return Record(uid, delay); }

}  // extern "C"
