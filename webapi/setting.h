// The user's settings: "ZEVO.Larkpost.Setting.General" (preferences),
// "ZEVO.Larkpost.Setting.SMTP" (sending identities),
// "ZEVO.Larkpost.Setting.POP3" (fetch accounts, within the administrator's
// policy) and "ZEVO.Larkpost.Setting.ForwardReply" (forwarding and the
// vacation reply). Every change that the core accepted is announced to the
// user's other clients: a setting sync (type 2), or a forward-reply sync
// (type 3) for forwarding and the vacation reply.
#pragma once

#include "platform/mailcore/control.h"
#include "webapi/base_api.h"

namespace ornic::larkpost::webapi {

class SettingAPI : public NormalAPI {
 public:
  SettingAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response);

  // "get": the twelve preferences.
  void GeneralGet_v1();
  // "set": changes the preferences the request gives; one value outside
  // its accepted ones refuses the whole request (120).
  void GeneralSet_v1();

  // "list": {"smtp": [...], "smtp_default_id"}.
  void SMTPList_v1();
  // "create": {"id"}. "display_name", "mail", "host_name", "port" and
  // "connection_type" are required; a "user_name" or "signature" that is
  // sent must not be empty.
  void SMTPCreate_v1();
  // "set": changes what the request gives of identity "id"; an empty
  // "user_name" or "signature" clears it, the password changes only when
  // "password" is sent.
  void SMTPSet_v1();
  // "delete": the identities "id", all or none.
  void SMTPDelete_v1();
  // "set_default": identity "id" becomes the default.
  void SMTPSetDefault_v1();

  // "getinfo": {"enable_pop3"}: whether the administrator allows fetching.
  void POP3GetInfo_v1();
  // The others answer 120 while the administrator does not allow fetching.
  // "list": {"pop3": [...]}.
  void POP3List_v1();
  // "create": {"id"}; all ten fields are required, and "fetch_pass_days"
  // can only be given here.
  void POP3Create_v1();
  // "set": changes what the request gives of account "id" (never
  // "fetch_pass_days").
  void POP3Set_v1();
  // "delete": the accounts "id", all or none.
  void POP3Delete_v1();

  // "get": both rules, unset members as "", false or 0.
  void ForwardReplyGet_v1();
  // "set": replaces both rules; both enable flags are required.
  void ForwardReplySet_v1();

 private:
  void Sync(constant::SyncType type);
  // Answers 120 and returns false when the administrator does not allow
  // POP3 fetching.
  bool POP3Allowed();

  control::SettingControl setting_;
};

}  // namespace ornic::larkpost::webapi
