// "ZEVO.Larkpost.Mailbox": the user's mailboxes (folders): listing with
// counts, reading, creating, changing, deleting, and emptying junk and trash.
#pragma once

#include <string>

#include "platform/mailcore/control.h"
#include "webapi/base_api.h"

namespace ornic::larkpost::webapi {

// The rule for a mailbox name that a user gives: after trimming, not empty,
// not a built-in mailbox's name in any capitalisation, and without "." or
// "/" (hierarchy separators of mail stores).
bool IsAllowedMailboxName(const std::string& name);

class MailboxAPI : public NormalAPI {
 public:
  MailboxAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response);

  // "get": {"mailbox": [...]}: those of the mailboxes "id" that exist, in
  // the core's order; "additional" as for "list".
  void Get_v1();
  // "list": {"mailbox": [...], "total": their number (unsigned)}; only the
  // subscribed ones unless "subscription" is false. "additional" may ask for
  // "unread_count" and "draft_total_count" (which fills "total_count").
  void List_v1();
  // "create": {"id"} of a new mailbox "name" (trimmed) under "parent_id"
  // (default 0, the top), "subscribed" (default true).
  void Create_v1();
  // "set": changes what the request gives of "name" (kept as given),
  // "parent_id" and "subscribed" of mailbox "id".
  void Set_v1();
  // "delete": each of the mailboxes "id"; {} or {"failed": [ids]}.
  void Delete_v1();
  // "clear_message": deletes every message of the mailboxes "id", which must
  // all be junk or trash; {} or {"failed": [ids]}.
  void ClearMessage_v1();

 private:
  control::MailboxControl mailboxes_;
};

}  // namespace ornic::larkpost::webapi
