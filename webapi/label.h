// "ZEVO.Larkpost.Label": the user's labels (named, coloured tags on
// threads). Every change that succeeds asks the core to synchronise labels.
#pragma once

#include "platform/mailcore/control.h"
#include "webapi/base_api.h"

namespace ornic::larkpost::webapi {

class LabelAPI : public NormalAPI {
 public:
  LabelAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response);

  // "create": {"id"} of a new label "name" (not empty) with "text_color" and
  // "background_color" ("#rgb" or "#rrggbb").
  void Create_v1();
  // "get": {"label": [...]}: those of the labels "id" that exist;
  // "additional" may ask for "unread_count".
  void Get_v1();
  // "set": changes what the request gives of "name", "text_color" and
  // "background_color" of label "id".
  void Set_v1();
  // "list": {"label": [...], "total": their number (unsigned)}.
  void List_v1();
  // "delete": the labels "id", all or none.
  void Delete_v1();

 private:
  // Asks the core to bring labels up to date for the user's other clients.
  void SyncLabels();

  control::LabelControl labels_;
};

}  // namespace ornic::larkpost::webapi
