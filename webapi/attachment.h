// "ZEVO.Larkpost.Attachment": files into drafts (from the browser, from a
// shared folder, as a sticker) and attachments out (whole, as a preview
// image, a temporary upload, or all of a message as one zip archive).
#pragma once

#include <string>

#include "platform/mailcore/control.h"
#include "platform/mailcore/record.h"
#include "webapi/base_api.h"

namespace ornic::larkpost::webapi {

class AttachmentAPI : public CustomAuthAPI {
 public:
  AttachmentAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response);

  void Upload_v1();
  void UploadVex_v1();
  void UploadSticker_v1();
  void Download_v1();
  void DownloadTemp_v1();
  void DownloadAll_v1();
  // "delete" and "savevx" exist for the client and change nothing.
  void Delete_v1();
  void SaveVX_v1();

 private:
  // Throws ornic::Error(461) for a path that is not a regular file (links
  // are not followed) and 460 for one larger than 40 MiB.
  void CheckFileSizeAndType(const std::string& path);
  // A fresh name in the user's ".ORNIC/@tmp"; false when the folder is not
  // available.
  bool GetTempPath(std::string& path);
  bool OutputContentToTempFile(const std::string& content, std::string& path);
  // Copies `source` to a fresh temporary file, turned upright first when
  // `auto_rotate` and the image's EXIF data ask for it.
  bool CopyConvertAndGetTempFilePath(const std::string& source, std::string& path,
                                     bool auto_rotate);
  // A shared-folder path ("/share/dir/file") on disk, readable by the user.
  bool GetFullPath(const std::string& vex_path, std::string& full_path);
  bool ConvertThumbnail(const std::string& source, std::string& preview_path);
  void OutputPreview(const record::Attachment& attachment);

  control::AttachmentControl attachment_control_;
};

}  // namespace ornic::larkpost::webapi
