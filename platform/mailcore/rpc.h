// The core's background service, which runs filters over a user's stored
// mail. Every call answers within milliseconds, whatever the service is
// doing; none throws. When the service is not running, ExecuteBatchTask and
// ExecuteFilter answer "" and false, GetTaskStatus a status of no task, and
// CancelTask does nothing.
#pragma once

#include <string>

#include "platform/export.h"

namespace ornic::larkpost::rpc {

// Queues a run of the condition and action sets (serialised, see
// record::ConditionSet) over the user's stored mail. Returns the new task's
// key, an unguessable text that only this user can use; "" when the task
// cannot be queued.
ZEVO_PLATFORM_API std::string ExecuteBatchTask(unsigned int uid, const std::string& conditions,
                                               const std::string& actions);

// The state of the user's task `key`: a serialised proto::Response carrying
// the extension proto::GetTaskStatusResponse::get_task_status. A key that
// is unknown, finished, cancelled or another user's reads as no task.
ZEVO_PLATFORM_API std::string GetTaskStatus(unsigned int uid, const std::string& key);

// Stops the user's task `key` (within half a second; no message is left
// half changed). False when there is no such task of the user.
ZEVO_PLATFORM_API bool CancelTask(unsigned int uid, const std::string& key);

// As ExecuteBatchTask for a stored filter's sets; true when queued.
ZEVO_PLATFORM_API bool ExecuteFilter(unsigned int uid, const std::string& conditions,
                                     const std::string& actions);

}  // namespace ornic::larkpost::rpc
