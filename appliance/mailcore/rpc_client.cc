// The core's side of the background service's calls: one request on the
// service's socket each (appliance/mailcore/service_channel.h). The service
// answers from its queue alone, so a call takes a fraction of a
// millisecond; when it is not running the connection is refused at once.
#include <string>

#include "appliance/mailcore/service_channel.h"
#include "platform/mailcore/rpc.h"
#include "proto/task.pb.h"

namespace ornic::larkpost::rpc {
namespace {

std::string AddTask(unsigned int uid, const std::string& conditions, const std::string& actions,
                    const char* origin) {
  proto::Request request;
  request.set_uid(uid);
  auto* add = request.MutableExtension(proto::AddTaskRequest::add_task);
  add->set_conditions(conditions);
  add->set_actions(actions);
  add->set_origin(origin);
  proto::Response response;
  if (!service::Call(request, &response) || response.code() != proto::Response::OK) return "";
  return response.GetExtension(proto::AddTaskResponse::add_task).task_key();
}

}  // namespace

std::string ExecuteBatchTask(unsigned int uid, const std::string& conditions,
                             const std::string& actions) {
  return AddTask(uid, conditions, actions, "task");
}

std::string GetTaskStatus(unsigned int uid, const std::string& key) {
  proto::Request request;
  request.set_uid(uid);
  request.MutableExtension(proto::GetTaskStatusRequest::get_task_status)->set_task_key(key);
  proto::Response response;
  if (!service::Call(request, &response) || response.code() != proto::Response::OK) {
    // No service, no task: the answer the service gives for an unknown key.
    response.Clear();
    response.MutableExtension(proto::GetTaskStatusResponse::get_task_status)
        ->set_status(proto::GetTaskStatusResponse::UNKNOWN);
  }
  return response.SerializeAsString();
}

bool CancelTask(unsigned int uid, const std::string& key) {
  proto::Request request;
  request.set_uid(uid);
  request.MutableExtension(proto::CancelTaskRequest::cancel_task)->set_task_key(key);
  proto::Response response;
  return service::Call(request, &response) && response.code() == proto::Response::OK &&
         response.GetExtension(proto::CancelTaskResponse::cancel_task).cancelled();
}

bool ExecuteFilter(unsigned int uid, const std::string& conditions, const std::string& actions) {
  return !AddTask(uid, conditions, actions, "filter").empty();
}

}  // namespace ornic::larkpost::rpc
