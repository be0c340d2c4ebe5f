// "ZEVO.Larkpost.Thread": the conversation list (searched and paged),
// whole threads, and the bulk changes on threads. A bad parameter is error
// 114 in "list" (the condition list), "get", "check_exist" and "delete", and
// 120 everywhere else; clients tell the two apart, so both stay.
#pragma once

#include <json/value.h>

#include <vector>

#include "platform/mailcore/control.h"
#include "webapi/base_api.h"

namespace ornic::larkpost::webapi {

class ThreadAPI : public NormalAPI {
 public:
  ThreadAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response);

  // "list": {"thread": [...], "total": matches before paging (unsigned)}.
  // "condition" (required array; elements as the filter parser reads them),
  // "offset" (>= 0, default 0), "limit" (>= -1, default -1: no limit),
  // "max_arrival_before" (64-bit, > 0).
  void List_v1();
  // "get": {"thread": [...]} for the required ids "id".
  void Get_v1();
  // "check_exist": {"id": those of "id" that exist}, within the optional
  // "mailbox_id" and "label_id" (> 0).
  void CheckExist_v1();
  // "delete": threads outside trash go to trash, those in trash for good.
  void Delete_v1();
  // "add_label", "remove_label": the labels "label_id" on the threads "id".
  void AddLabel_v1();
  void RemoveLabel_v1();
  // "set_mailbox": the threads' messages (drafts excepted) to "mailbox_id".
  void SetMailbox_v1();
  // "set_read": every message of the threads takes the state "read".
  void SetRead_v1();

 private:
  Json::Value ThreadsToJson(const std::vector<int>& ids);

  control::ThreadControl threads_;
  control::SearchControl search_;
};

}  // namespace ornic::larkpost::webapi
