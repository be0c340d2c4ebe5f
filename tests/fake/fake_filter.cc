// The recording fake of the core's filters and of its background service.
// Filter changes are recorded with their sets in the serialised text form
// ("-" for a set that is not set), so that a test sees exactly what the
// background runner and the store would get:
//   FilterControl::Create condition={"condition":[...],"match_any":false} action={"action":[...]}
//   rpc::ExecuteFilter 1026 <condition text> <action text>
#include <algorithm>
#include <string>
#include <vector>

#include "platform/mailcore/control.h"
#include "platform/mailcore/rpc.h"
#include "tests/fake/fake_core.h"

using larkpost::fake::Call;
using larkpost::fake::core;

namespace ornic::larkpost::control {

namespace {

std::string IdList(const std::vector<int>& ids) {
  std::string text = "[";
  for (size_t i = 0; i < ids.size(); ++i) {
    if (i > 0) text += ",";
    text += std::to_string(ids[i]);
  }
  return text + "]";
}

std::string FilterFields(const FilterConfig& config) {
  return "condition=" +
         (config.condition.IsSet() ? config.condition.Get().GetSerializedString() : "-") +
         " action=" + (config.action.IsSet() ? config.action.Get().GetSerializedString() : "-");
}

}  // namespace

FilterControl::FilterControl(Controller& controller) : controller_(controller) {}

std::vector<record::Filter> FilterControl::List() {
  if (!Call("FilterControl::List")) return {};
  return core().filters;
}

std::vector<record::Filter> FilterControl::Get(const std::vector<int>& ids) {
  if (!Call("FilterControl::Get", IdList(ids))) return {};
  std::vector<record::Filter> found;
  for (const record::Filter& filter : core().filters) {
    if (std::find(ids.begin(), ids.end(), filter.id) != ids.end()) found.push_back(filter);
  }
  return found;
}

int FilterControl::Create(const FilterConfig& config) {
  return Call("FilterControl::Create", FilterFields(config)) ? core().next_id : 0;
}

bool FilterControl::Modify(int id, const FilterConfig& config) {
  return Call("FilterControl::Modify", std::to_string(id) + " " + FilterFields(config));
}

bool FilterControl::Delete(const std::vector<int>& ids) {
  return Call("FilterControl::Delete", IdList(ids));
}

bool FilterControl::SetOrder(const std::vector<int>& ids) {
  return Call("FilterControl::SetOrder", IdList(ids));
}

}  // namespace ornic::larkpost::control

namespace ornic::larkpost::rpc {

namespace {

std::string Args(unsigned int uid, const std::string& first, const std::string& second = "") {
  return std::to_string(uid) + " " + first + (second.empty() ? "" : " " + second);
}

}  // namespace

std::string ExecuteBatchTask(unsigned int uid, const std::string& conditions,
                             const std::string& actions) {
  return Call("rpc::ExecuteBatchTask", Args(uid, conditions, actions)) ? core().task_key : "";
}

std::string GetTaskStatus(unsigned int uid, const std::string& key) {
  return Call("rpc::GetTaskStatus", Args(uid, key)) ? core().task_status : "";
}

bool CancelTask(unsigned int uid, const std::string& key) {
  return Call("rpc::CancelTask", Args(uid, key));
}

bool ExecuteFilter(unsigned int uid, const std::string& conditions, const std::string& actions) {
  return Call("rpc::ExecuteFilter", Args(uid, conditions, actions));
}

}  // namespace ornic::larkpost::rpc
