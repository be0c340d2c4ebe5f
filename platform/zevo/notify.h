// Mailbox change notifications to the webmail's listeners.
#pragma once

#include <cstdint>

#include "platform/export.h"

extern "C" {

// Tells listeners at once that `uid`'s mailboxes changed. Never blocks on the
// listeners; returns 0 when the notification was recorded, -1 otherwise.
ZEVO_PLATFORM_API int ZEVOLarkpostNotifyMailboxUpdate(uint32_t uid);

// The same, to be delivered after `delay` seconds; later notices for the same
// user within the delay fold into one.
ZEVO_PLATFORM_API int ZEVOLarkpostNotifyMailboxDelayUpdate(uint32_t uid, int delay);

}  // extern "C"
