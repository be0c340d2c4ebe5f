// "ZEVO.Larkpost.AdminSetting.POP3": the administrator's POP3 policy of the
// calling user's domain. Deliberately light: no user mail session, no log
// identity, no check-table row. The host's API declaration alone restricts
// it to administrators; the handler does not check.
#pragma once

#include "platform/mailcore/global_setting.h"
#include "platform/mailcore/zevo_user.h"
#include "platform/zevo/webapi.h"

namespace ornic::larkpost::webapi {

class AdminSettingAPI {
 public:
  AdminSettingAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response);

  // "get": {"enable_pop3", "pop3_fetch_period" (unsigned)}; 117 when the
  // policy cannot be read.
  void POP3Get_v1();
  // "set": "enable_pop3" (required) and "pop3_fetch_period" (optional,
  // above 0; when absent the stored period stays).
  void POP3Set_v1();

 private:
  ZEVO::APIRequest* request_;
  ZEVO::APIResponse* response_;
  sdk::ZevoUser user_;
  global_control::SettingControl setting_;
};

}  // namespace ornic::larkpost::webapi
