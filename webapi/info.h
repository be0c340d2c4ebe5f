// "ZEVO.Larkpost.Info": the first call of the web client. Prepares the
// user's mail store on first use and tells the client about the server.
#pragma once

#include "webapi/base_api.h"

namespace ornic::larkpost::webapi {

class InfoAPI : public NormalAPI {
 public:
  using NormalAPI::NormalAPI;

  // "getinfo": {"max_upload_size", "database_ready", "smtp_hostname",
  // "fts_enabled"}.
  void GetInfo_v1();

  // Creates the user's store on first use (with its default mailboxes, and
  // a notification to the user's listeners) or upgrades an existing one.
  // True when the store is ready.
  bool SetupDatabase();
  void CheckDefaultMailbox();
  // Starts the filter, label and setting synchronisations, in that order.
  void TriggerSyncAll();
};

}  // namespace ornic::larkpost::webapi
