// The core's side of the background service's calls, answering as when the
// service is not running.
#include <string>

#include "platform/mailcore/rpc.h"

namespace ornic::larkpost::rpc {

std::string ExecuteBatchTask(unsigned int, const std::string&, const std::string&) { return ""; }

std::string GetTaskStatus(unsigned int, const std::string&) { return ""; }

bool CancelTask(unsigned int, const std::string&) { return false; }

bool ExecuteFilter(unsigned int, const std::string&, const std::string&) { return false; }

}  // namespace ornic::larkpost::rpc
