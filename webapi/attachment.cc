#include "webapi/attachment.h"

#include <fcntl.h>
#include <json/value.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "platform/mailcore/error.h"
#include "platform/mailcore/util.h"
#include "platform/zevo/download.h"
#include "platform/zevo/file.h"
#include "webapi/handler_util.h"
#include "webapi/log.h"

namespace ornic::larkpost::webapi {

namespace {

constexpr char kLogUnit[] = "attachment";

constexpr off_t kMaxFileSize = 41943040;  // 40 MiB
constexpr int kErrorFileTooLarge = 460;
constexpr int kErrorNotRegularFile = 461;
constexpr int kErrorNoSuchSticker = 462;

constexpr char kTempDir[] = ".ORNIC/@tmp";
constexpr char kPreviewDir[] = ".ORNIC/@image";
constexpr char kTempFilePrefix[] = "attachment_";
constexpr int kTempFileRandomLength = 8;
constexpr char kHomeShare[] = "home";

constexpr char kConvertTool[] = "/usr/zevo/bin/convert-thumb";
constexpr char kZipTool[] = "/usr/zevo/bin/zip";
constexpr char kRemoveTool[] = "/bin/rm";
constexpr char kArchiveMimeType[] = "application/force-download";
constexpr char kCodepageUTF8[] = "utf8";

using ZEVO::kOptional;
using ZEVO::kRequired;

bool IsImage(const std::string& mime_type) { return mime_type.find("image/") != std::string::npos; }

// Runs `argv[0]` with `argv` and waits: true when it exited with 0.
bool RunAndWait(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  args.reserve(argv.size() + 1);
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  return VESLCExecv(argv[0].c_str(), args.data(), 1) == 0;
}

// "<pid>_<seconds>": unique enough for one request of one process.
std::string ProcessTimeStamp() {
  return std::to_string(getpid()) + "_" + std::to_string(std::time(nullptr));
}

// Lets go of the share record on every way out of GetFullPath.
class ShareRecord {
 public:
  ShareRecord() = default;
  ~ShareRecord() { ZEVOShareFree(share_); }
  ShareRecord(const ShareRecord&) = delete;
  ShareRecord& operator=(const ShareRecord&) = delete;
  ZEVOSHARE** out() { return &share_; }
  const ZEVOSHARE* get() const { return share_; }

 private:
  ZEVOSHARE* share_ = nullptr;
};

// The host serves requests as root; whatever happened while the effective
// uid was the user's, the process leaves GetFullPath as root again.
class RootAgainOnExit {
 public:
  RootAgainOnExit() = default;
  ~RootAgainOnExit() {
    if (geteuid() != 0 && seteuid(0) != 0) {
      // Not root to begin with: there is nothing to go back to.
    }
  }
  RootAgainOnExit(const RootAgainOnExit&) = delete;
  RootAgainOnExit& operator=(const RootAgainOnExit&) = delete;
};

}  // namespace

AttachmentAPI::AttachmentAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response)
    : CustomAuthAPI(request, response), attachment_control_(controller_) {}

// ------------------------------------------------------------------- uploads

void AttachmentAPI::Upload_v1() {
  const auto file = request_->GetAndCheckString("file", kRequired, nullptr);
  const auto file_tmp = request_->GetAndCheckString("file_tmp", kRequired, nullptr);
  const auto is_inline = request_->GetAndCheckBool("is_inline", kOptional, nullptr);

  CheckFileSizeAndType(file_tmp.Get());
  const std::string& name = file.Get();
  const bool inline_image = is_inline.Get(false) && IsImage(control::GetMimeType(name));
  AddTempAttachment(file_tmp.Get(), name, inline_image, inline_image);
}

void AttachmentAPI::UploadVex_v1() {
  const auto source = request_->GetAndCheckString("source", kRequired, nullptr);
  const auto is_inline = request_->GetAndCheckBool("is_inline", kOptional, nullptr);

  std::string full_path;
  if (!GetFullPath(source.Get(), full_path)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  CheckFileSizeAndType(full_path);
  const std::string name = util::GetSubstrAfterLast(full_path, '/');
  const bool inline_image = is_inline.Get(false) && IsImage(control::GetMimeType(name));
  AddTempAttachment(full_path, name, inline_image, inline_image);
}

void AttachmentAPI::UploadSticker_v1() {
  const auto id = request_->GetAndCheckInt("id", kRequired, nullptr);
  const record::Sticker sticker = control::StickerControl(controller_).Get(id.Get());
  if (!sticker.IsValid()) {
    WEBAPI_LOG("%s:%d sticker [%d] does not exist", id.Get());
    throw ornic::Error(kErrorNoSuchSticker);
  }
  // Stickers are drawn upright: no rotation to read.
  AddTempAttachment(sticker.path, util::GetSubstrAfterLast(sticker.path, '/'), true, false);
}

void AttachmentAPI::AddTempAttachment(const std::string& source, const std::string& name,
                                      bool is_inline, bool auto_rotate) {
  control::AttachmentConfig config;
  config.name.Set(name);
  config.is_inline.Set(is_inline);
  std::string temp_path;
  if (!CopyConvertAndGetTempFilePath(source, temp_path, auto_rotate)) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    return;
  }
  config.path.Set(temp_path);
  // A refused registration leaves the copy behind: the core may own it
  // already, and it sits in the user's own temporary folder.
  std::string content_id;
  const int id = attachment_control_.AddAttachmentTemp(config, content_id);
  if (id < 1) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    return;
  }
  Json::Value data(Json::objectValue);
  data["id"] = id;
  data["content_id"] = content_id;
  response_->SetSuccess(data);
}

void AttachmentAPI::CheckFileSizeAndType(const std::string& path) {
  // lstat: a link is refused, not followed, so an upload can never name a
  // file that the link's owner could not.
  struct stat info;
  if (lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    WEBAPI_LOG("%s:%d attachment [%s] is not valid", path.c_str());
    throw ornic::Error(kErrorNotRegularFile);
  }
  if (info.st_size > kMaxFileSize) throw ornic::Error(kErrorFileTooLarge);
}

std::string AttachmentAPI::PrepareDir(const std::string& name) {
  try {
    return PrepareUserLarkpostDir(name);
  } catch (const ornic::Error&) {
    return "";
  }
}

bool AttachmentAPI::GetTempPath(std::string& path) {
  const std::string dir = PrepareDir(kTempDir);
  if (dir.empty()) return false;
  do {
    path = dir + "/" + control::RandomString(kTempFilePrefix, kTempFileRandomLength);
  } while (access(path.c_str(), F_OK) == 0);
  return true;
}

bool AttachmentAPI::OutputContentToTempFile(const std::string& content, std::string& path) {
  if (!GetTempPath(path)) return false;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  return true;
}

bool AttachmentAPI::CopyConvertAndGetTempFilePath(const std::string& source, std::string& path,
                                                  bool auto_rotate) {
  if (!GetTempPath(path)) return false;
  if (auto_rotate) {
    const int degrees = util::GetImageRotationDegree(source);
    if (degrees > 0) {
      if (RunAndWait({kConvertTool, source, "-auto-orient", path})) return true;
      WEBAPI_LOG("%s:%d Failed to auto convert file %s to %s, reason=[%X]", source.c_str(),
                 path.c_str(), VESLCErrGet());
    } else if (degrees < 0) {
      // The rotation could not be read: the path is registered as it is,
      // without a file behind it.
      return true;
    }
  }
  if (ZEVOFileCopy(source.c_str(), path.c_str(), 0) == 0) return true;
  WEBAPI_LOG("%s:%d Failed to copy %s to %s, reason=[%X]", source.c_str(), path.c_str(),
             VESLCErrGet());
  return false;
}

bool AttachmentAPI::GetFullPath(const std::string& vex_path, std::string& full_path) {
  if (vex_path.size() <= 1 || vex_path[0] != '/') return false;
  const size_t second_slash = vex_path.find('/', 1);
  if (second_slash == std::string::npos) return false;
  const std::string share = vex_path.substr(1, second_slash - 1);

  ShareRecord record;
  RootAgainOnExit root_again;
  if (share == kHomeShare) {
    full_path = controller_.zevo_user().home();
  } else {
    if (ZEVOShareGet(share.c_str(), record.out()) == -1) {
      WEBAPI_LOG("%s:%d Failed to ZEVOShareGet [%s][%X]", share.c_str(), VESLCErrGet());
      return false;
    }
    const char* share_path = VESLSharePathGet(record.get());
    if (share_path == nullptr) {
      WEBAPI_LOG("%s:%d Failed to VESLSharePathGet[%s]", share.c_str());
      return false;
    }
    full_path = share_path;  // a copy: the record owns the text
  }
  full_path += vex_path.substr(second_slash);

  if (request_->IsAdmin()) return true;
  // The file must be readable by the user, not merely by the host. The test
  // is made with the effective uid (AT_EACCESS): plain access() would ask
  // for the real one, root's, and always pass.
  const uid_t saved_euid = geteuid();
  if (seteuid(request_->GetLoginUID()) != 0 ||
      faccessat(AT_FDCWD, full_path.c_str(), R_OK, AT_EACCESS) != 0) {
    WEBAPI_LOG("%s:%d Failed to access the file. err = %s", std::strerror(errno));
    return false;
  }
  if (seteuid(saved_euid) != 0) {
    // RootAgainOnExit tries once more on the way out.
  }
  return true;
}

// ----------------------------------------------------------------- downloads

void AttachmentAPI::Download_v1() {
  const auto id = request_->GetAndCheckInt("id", kRequired, nullptr);
  const auto type = request_->GetAndCheckString("type", kOptional, nullptr);
  // The answer is ours from here on, the 404 page included.
  response_->SetEnableOutput(false);
  if (IsResetOrInvalid(id)) {
    WEBAPI_LOG("%s:%d input parameter is not valid");
    Output404NotFound();
    return;
  }
  const record::Attachment attachment = attachment_control_.Get(id.Get());
  if (!attachment.IsValid()) {
    WEBAPI_LOG("%s:%d id [%d] of attachment is not exist", id.Get());
    Output404NotFound();
    return;
  }
  const std::string kind = type.Get("download");
  // A GIF would lose its animation and an inline image is small already:
  // both go out whole.
  if (kind == "thumb" && !attachment.is_inline && IsImage(attachment.mimetype) &&
      attachment.mimetype != "image/gif") {
    OutputPreview(attachment);
    return;
  }

  const std::string content = attachment_control_.GetContentByRecord(attachment);
  std::string head = "Content-Length: " + std::to_string(content.size()) + "\r\n" +
                     "Content-Type: " + attachment.mimetype + "\r\n";
  if (kind != "original") head += "Content-Disposition: attachment\r\n";
  head += "\r\n";
  std::fwrite(head.data(), 1, head.size(), stdout);
  std::fwrite(content.data(), 1, content.size(), stdout);
  std::fflush(stdout);
}

bool AttachmentAPI::ConvertThumbnail(const std::string& source, std::string& preview_path) {
  const std::string dir = PrepareDir(kPreviewDir);
  if (dir.empty()) {
    preview_path.clear();
    return false;
  }
  preview_path = dir + "/" + ProcessTimeStamp() + ".jpg";
  if (RunAndWait({kConvertTool, source, "-auto-orient", "-define", "jpeg:size=320x320",
                  "-thumbnail", "320x320>", "-quality", "90", "-unsharp", "0.5x0.5+1.25+0.0",
                  "-colorspace", "sRGB", "-flatten", preview_path})) {
    return true;
  }
  WEBAPI_LOG("%s:%d Failed to auto convert file %s to %s, reason=[%X]", source.c_str(),
             preview_path.c_str(), VESLCErrGet());
  return false;
}

void AttachmentAPI::OutputPreview(const record::Attachment& attachment) {
  std::string preview_path = attachment.preview_path;
  struct stat info;
  if (preview_path.empty() || lstat(preview_path.c_str(), &info) != 0) {
    std::string temp_path;
    bool written;
    {
      const std::string content = attachment_control_.GetContentByRecord(attachment);
      // The conversion may take a while: it must not hold the store.
      controller_.CloseDatabaseConnection();
      written = OutputContentToTempFile(content, temp_path);
    }
    if (!written || !ConvertThumbnail(temp_path, preview_path)) {
      WEBAPI_LOG("%s:%d Fail to convert attachment thumbnail file[%s, %s].", temp_path.c_str(),
                 preview_path.c_str());
      Output404NotFound();
      return;
    }
    unlink(temp_path.c_str());
    attachment_control_.SetPreviewPath(attachment.id, preview_path);
  }
  controller_.CloseDatabaseConnection();
  ZEVO::APIDownload download;
  // The attachment's own type, although the preview is a JPEG: clients
  // show it by that type.
  download.SetMimeType(attachment.mimetype);
  download.Output(preview_path);
}

void AttachmentAPI::DownloadTemp_v1() {
  const auto id = request_->GetAndCheckInt("id", kRequired, nullptr);
  const auto preview = request_->GetAndCheckBool("preview", kOptional, nullptr);
  response_->SetEnableOutput(false);
  const record::AttachmentTemp temp = attachment_control_.GetTemp(id.Get());
  if (!temp.IsValid()) {
    WEBAPI_LOG("%s:%d id [%d] of attachment is not exist", id.Get());
    Output404NotFound();
    return;
  }
  if (access(temp.path.c_str(), F_OK) != 0) {
    WEBAPI_LOG("%s:%d File not exists! [%s]", temp.path.c_str());
    Output404NotFound();
    return;
  }
  ZEVO::APIDownload download;
  download.SetMimeTypeFromFileName(temp.name);
  if (!(preview.Get(false) && IsImage(control::GetMimeType(temp.name)))) {
    download.SetHeader("content-disposition", "attachment;");
  }
  download.Output(temp.path);
}

void AttachmentAPI::DownloadAll_v1() {
  const auto id = request_->GetAndCheckInt("id", kRequired, nullptr);
  response_->SetEnableOutput(false);
  if (IsResetOrInvalid(id)) {
    WEBAPI_LOG("%s:%d input parameter is not valid");
    Output404NotFound();
    return;
  }
  const record::Message message = control::MessageControl(controller_).GetMessage(id.Get());
  if (!message.IsValid()) {
    WEBAPI_LOG("%s:%d id [%d] of message is not exist", id.Get());
    Output404NotFound();
    return;
  }
  if (message.attachments.empty()) {
    WEBAPI_LOG("%s:%d No files to download");
    Output404NotFound();
    return;
  }
  const std::string work_dir = PrepareDir(std::string(kTempDir) + "/" + ProcessTimeStamp());
  if (work_dir.empty()) {
    WEBAPI_LOG("%s:%d Failed to create temp dir");
    Output404NotFound();
    return;
  }
  const std::string archive = work_dir + ".zip";

  int written = 0;
  for (const record::Attachment& attachment : message.attachments) {
    // Names never carry a directory; should one ever, it still cannot lead
    // out of the work directory.
    const std::string name = util::GetSubstrAfterLast(attachment.name, '/');
    std::string path = work_dir + "/" + name;
    // Same names are numbered before the extension: a.pdf, a_1.pdf, a_2.pdf.
    std::string base = util::GetSubstrBeforeLast(name, '.');
    if (base.empty()) base = name;
    const std::string extension =
        name.find('.') == std::string::npos ? "" : util::GetSubstrAfterLast(name, '.');
    for (int counter = 1; access(path.c_str(), F_OK) == 0; ++counter) {
      path = work_dir + "/" + base + "_" + std::to_string(counter) +
             (extension.empty() ? "" : "." + extension);
    }
    const std::string content = attachment_control_.GetContentByRecord(attachment);
    std::ofstream out(path, std::ios::binary);
    if (!out) {
      WEBAPI_LOG("%s:%d bad ofstream [%s]", path.c_str());
      continue;
    }
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    ++written;
  }

  bool sent = false;
  if (written == 0) {
    WEBAPI_LOG("%s:%d No file to download");
  } else {
    const std::string codepage = control::SettingControl(controller_).GetGeneralSetting().codepage;
    // Packing may take a while: it must not hold the store.
    controller_.CloseDatabaseConnection();
    std::vector<std::string> zip = {kZipTool, "-jr", archive};
    if (codepage.empty()) {
      zip.insert(zip.end(), {"-cp", request_->GetUILanguage()});
    } else if (codepage == kCodepageUTF8) {
      zip.push_back("-UN=UTF8");
    } else {
      zip.insert(zip.end(), {"-cp", codepage});
    }
    zip.push_back(work_dir);
    if (!RunAndWait(zip)) {
      WEBAPI_LOG("%s:%d Failed to zip path [%s]", work_dir.c_str());
    } else if (ZEVO::HTTPFileOutputer::Output(archive, kArchiveMimeType) != 0) {
      WEBAPI_LOG("%s:%d Failed to output path [%s]", archive.c_str());
    } else {
      sent = true;
    }
  }
  RunAndWait({kRemoveTool, "-rf", work_dir, archive});
  if (!sent) Output404NotFound();
}

// "delete" and "savevx" answer success and change nothing.
void AttachmentAPI::Delete_v1() {}
void AttachmentAPI::SaveVX_v1() {}

}  // namespace ornic::larkpost::webapi
