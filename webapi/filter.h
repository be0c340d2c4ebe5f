// Filter rules as the browser sends them: arrays of conditions and of
// actions, turned into the core's condition and action sets. The thread
// list's search speaks the same condition language.
#pragma once

#include <json/value.h>

#include "platform/mailcore/control.h"
#include "platform/mailcore/controller.h"
#include "platform/mailcore/record.h"
#include "webapi/base_api.h"

namespace ornic::larkpost::webapi {

// Never reports an error: an element it cannot use is left out, and the
// caller decides what an empty or shortened set means. A "value" whose JSON
// type cannot be read as the text or the integer that its keyword needs
// raises the JSON library's error, which is not caught here.
class FilterParser {
 public:
  explicit FilterParser(control::Controller& controller) : controller_(controller) {}

  // Appends, in array order, one condition per element that is an object
  // with "name" and "value": the keyword's condition kind, "value" as text,
  // and "not_operator" (default false) for "from", "to", "subject" and
  // "keyword" only. Unknown keywords are skipped.
  void ParseCondition(const Json::Value& conditions, record::ConditionSet& out) const;

  // Appends, in array order, one action per element that is an object with
  // "name" and "value" and that makes a valid action: "archive", "trash" and
  // "delete" ignore the value; "set_read" and "set_star" store "true" for
  // the text "true" and "false" for anything else; "set_label" and
  // "remove_label" store the key text of the label whose id is the value;
  // "move_to" the raw path of the mailbox whose id is the value; "redirect"
  // the value as it is. Unknown keywords, labels and mailboxes are skipped.
  void ParseAction(const Json::Value& actions, record::ActionSet& out) const;

 private:
  control::Controller& controller_;
};

// "ZEVO.Larkpost.Filter": the user's filter rules (kept and applied by the
// core, in the user's order) and tasks that run conditions and actions over
// the mail already stored, in the core's background service. Every change
// that succeeds asks the core to synchronise filters; reads never do.
class FilterAPI : public NormalAPI {
 public:
  FilterAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response);

  // "list": {"filter": [...], "total": their number (unsigned)}.
  void List_v1();
  // "get": {"filter": [...]}: those of the filters "id" that exist.
  void Get_v1();
  // "create": {"id"} of a new filter of "condition" and "action" (neither
  // empty); with "apply_exist" true it is also run over the stored mail.
  void Create_v1();
  // "set": replaces what the request gives of "condition" and "action" of
  // filter "id"; "apply_exist" as in "create".
  void Set_v1();
  // "delete": the filters "id", all or none.
  void Delete_v1();
  // "setorder": "id", every filter of the user once, is the new order.
  void SetOrder_v1();

  // The tasks (filter_task.cc). "add_task": {"task_key"} of a run of
  // "condition" and "action" over the stored mail; no filter is kept.
  void AddTask_v1();
  // "get_task_status": {"status": "none" | "waiting" | "running", "total",
  // "progress"} of the task "task_key".
  void GetTaskStatus_v1();
  // "cancel_task": stops the task "task_key"; answers success whatever.
  void CancelTask_v1();

 private:
  // Starts a run of the stored filter `id` over the user's stored mail.
  // False when there is no valid filter `id`; what the service answers is
  // not looked at.
  bool ApplyExistThreads(int id);
  void SyncFilters();

  control::FilterControl filters_;
};

}  // namespace ornic::larkpost::webapi
