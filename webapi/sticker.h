// "ZEVO.Larkpost.Sticker": the stickers the composer offers, and their
// images.
#pragma once

#include "webapi/base_api.h"

namespace ornic::larkpost::webapi {

class StickerAPI : public NormalAPI {
 public:
  StickerAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response);

  // "list": {"sticker": [...], "total": n} of category "category" (1 when
  // not given).
  void List_v1();
  // "get": the image of sticker "id" as the whole answer; the 404 page when
  // it does not exist.
  void Get_v1();
  // "add" and "delete" exist for the client and change nothing.
  void Add_v1();
  void Delete_v1();
};

}  // namespace ornic::larkpost::webapi
