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
  // A JPEG preview of at most 320x320 of `source` in the user's
  // ".ORNIC/@image"; its path in `preview_path`.
  bool ConvertThumbnail(const std::string& source, std::string& preview_path);
  // Streams the attachment's preview, made (and remembered by the core) on
  // first use; the 404 page when it cannot be made.
  void OutputPreview(const record::Attachment& attachment);

  // What the three uploads end with: copy `source` (turned upright when
  // `auto_rotate`) and register the copy; answers {"id", "content_id"} or
  // error 117.
  void AddTempAttachment(const std::string& source, const std::string& name, bool is_inline,
                         bool auto_rotate);
  // PrepareUserLarkpostDir, with "" for a folder that cannot be made.
  std::string PrepareDir(const std::string& name);

  control::AttachmentControl attachment_control_;
};

}  // namespace ornic::larkpost::webapi
