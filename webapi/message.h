// "ZEVO.Larkpost.Message": whole messages for reading, a message's original
// source, and the per-message changes (star, read state, mailbox).
#pragma once

#include "platform/mailcore/control.h"
#include "webapi/base_api.h"

namespace ornic::larkpost::webapi {

class MessageAPI : public NormalAPI {
 public:
  MessageAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response);

  // "get": {"message": [full messages]} for the ids "id", in the core's
  // answer; "additional" may ask for "blockquote", "body_preview" and
  // "block_external_image".
  void Get_v1();
  // "get_original": writes the source of message "id" as a text/plain CGI
  // answer; the 404 page when "id" is bad or the source is not available.
  // Never a JSON answer.
  void GetOriginal_v1();
  // "set_star": the star level "star" (>= 0) on the messages "id".
  void SetStar_v1();
  // "set_read": the read state "read" on the messages "id".
  void SetRead_v1();
  // "set_mailbox": the messages "id" to mailbox "mailbox_id".
  void SetMailbox_v1();

 private:
  control::MessageControl messages_;
};

}  // namespace ornic::larkpost::webapi
