#include "webapi/info.h"

#include <json/value.h>

#include "platform/mailcore/constant.h"
#include "platform/mailcore/db_setup.h"
#include "platform/mailcore/mail_server.h"
#include "platform/mailcore/sync.h"
#include "platform/zevo/notify.h"

namespace ornic::larkpost::webapi {

namespace {
// What the client is told; the limit that uploads are held to is larger.
constexpr int kMaxUploadSize = 10485760;
}  // namespace

void InfoAPI::GetInfo_v1() {
  Json::Value info(Json::objectValue);
  info["max_upload_size"] = kMaxUploadSize;
  info["database_ready"] = SetupDatabase();
  info["smtp_hostname"] =
      GetMailServerKey("smtp_enabled") == "yes" ? GetMailServerKey("smtp_hostname") : "";
  info["fts_enabled"] = GetMailServerKey("fts_enabled") == "yes";
  TriggerSyncAll();
  response_->SetSuccess(info);
}

bool InfoAPI::SetupDatabase() {
  db::DBSetupHandler setup(uid_);
  if (setup.DoesDBExist()) return setup.SetupDB();
  if (!setup.SetupDB()) return false;
  CheckDefaultMailbox();
  control::UpdateControl(controller_).UpdateAllMailbox(false);
  ZEVOLarkpostNotifyMailboxUpdate(uid_);
  return true;
}

void InfoAPI::CheckDefaultMailbox() {
  control::Controller controller(uid_);
  control::MailboxSyncer::CheckDefaultMailbox(controller);
}

void InfoAPI::TriggerSyncAll() {
  control::Syncer syncer(controller_);
  syncer.TriggerSync(constant::kSyncFilter);
  syncer.TriggerSync(constant::kSyncLabel);
  syncer.TriggerSync(constant::kSyncSetting);
}

}  // namespace ornic::larkpost::webapi
