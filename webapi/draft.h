// "ZEVO.Larkpost.Draft": writing, saving, sending and deleting drafts.
#pragma once

#include <json/value.h>

#include "platform/mailcore/control.h"
#include "webapi/base_api.h"

namespace ornic::larkpost::webapi {

class DraftAPI : public NormalAPI {
 public:
  DraftAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response);

  // "create": a new draft from the content parameters ("from" required);
  // {"id", "attachment"}.
  void Create_v1();
  // "get": {"draft": [full messages]} of the ids "id" that exist.
  void Get_v1();
  // "set": changes draft "id" by the content parameters given; {"attachment"}.
  void Set_v1();
  // "send": sends draft "id" as stored, or a new draft from the content
  // parameters when there is no "id"; {"id"} of the sent message.
  void Send_v1();
  // "delete": deletes the drafts "id".
  void Delete_v1();

 private:
  // Reads the content parameters into `config`; throws ornic::Error(120)
  // when "from", "to", "cc" or "bcc" is not acceptable, before anything of
  // `config` is set. "from" is required and "refer_to" used only when
  // `is_create`.
  void GetDraftConfig(bool is_create, control::MessageConfig& config);
  // A new draft from the request's content; its id. Core failures leave as
  // the core's exceptions.
  int CreateDraft();
  // Puts the recipients of sent message `message_id` into the address book;
  // nothing for a message that does not exist.
  void AddRecipient(int message_id);
  // The listed (not inline) attachments of the message.
  Json::Value GetAttachmentJson(int message_id);
  // Asks the clients to refresh their mailboxes after a change to a draft.
  void NotifyDraftChange();

  control::MessageControl message_control_;
};

}  // namespace ornic::larkpost::webapi
