// The fake of the attachment side (see fake_platform.h). Core calls are
// recorded as "AttachmentControl::AddAttachmentTemp 'name' 'path' true"
// (unset change-record fields as "-"), "StickerControl::Get 3" and the like.
#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <system_error>

#include "appliance/system/mime_types.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/error.h"
#include "platform/mailcore/util.h"
#include "platform/zevo/file.h"
#include "tests/fake/fake_core.h"
#include "tests/fake/fake_platform.h"

using larkpost::fake::Call;
using larkpost::fake::platform;

namespace larkpost::fake {

namespace {

namespace fs = std::filesystem;
using Argv = std::vector<std::string>;

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

unsigned int ConvertThumb(const Argv& argv) {
  if (argv.size() < 3) return VESLC_ERR_INVALID;
  std::ofstream out(argv.back(), std::ios::binary);
  out << "converted " << argv[1];
  return out ? 0 : VESLC_ERR_IO;
}

unsigned int Zip(const Argv& argv) {
  if (argv.size() < 4) return VESLC_ERR_INVALID;
  std::set<std::string> names;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(argv.back(), error)) {
    names.insert(entry.path().filename().string());
  }
  if (error) return VESLC_ERR_NOT_FOUND;
  std::ofstream out(argv[2], std::ios::binary);
  for (const std::string& name : names) {
    out << name << "=" << ReadFile(fs::path(argv.back()) / name) << "\n";
  }
  return out ? 0 : VESLC_ERR_IO;
}

unsigned int Remove(const Argv& argv) {
  for (size_t i = 1; i < argv.size(); ++i) {
    if (argv[i].empty() || argv[i][0] == '-') continue;
    std::error_code error;
    fs::remove_all(argv[i], error);
  }
  return 0;
}

}  // namespace

Platform& platform() {
  static Platform instance;
  return instance;
}

void ResetPlatform() {
  platform() = Platform();
  platform().programs = {
      {"/usr/zevo/bin/convert-thumb", ConvertThumb},
      {"/usr/zevo/bin/zip", Zip},
      {"/bin/rm", Remove},
  };
}

}  // namespace larkpost::fake

// ------------------------------------------------------------------- the core

namespace ornic::sdk {

// The "home" share of the user: <app_root>/homes/<name>, made by the test
// when it needs files there.
std::string ZevoUser::home() const { return ::larkpost::fake::core().app_root + "/homes/" + name_; }

}  // namespace ornic::sdk

namespace ornic::larkpost::control {

namespace {

std::string Field(const ConfigField<std::string>& field) {
  return field.IsSet() ? "'" + field.Get() + "'" : "-";
}
std::string Field(const ConfigField<bool>& field) {
  return field.IsSet() ? (field.Get() ? "true" : "false") : "-";
}

}  // namespace

void Controller::CloseDatabaseConnection() { Call("Controller::CloseDatabaseConnection"); }

std::string RandomString(const std::string& prefix, int length) {
  auto& names = platform().random_names;
  if (!names.empty()) {
    std::string name = names.front();
    names.pop_front();
    return name;
  }
  std::string count = std::to_string(++platform().random_count);
  if (static_cast<int>(count.size()) < length) count.insert(0, length - count.size(), '0');
  return prefix + count;
}

std::string GetMimeType(const std::string& file_name) {
  return ::larkpost::appliance::MimeTypeForFileName(file_name);
}

AttachmentControl::AttachmentControl(Controller& controller) : controller_(controller) {}

int AttachmentControl::AddAttachmentTemp(const AttachmentConfig& config, std::string& content_id) {
  if (!Call("AttachmentControl::AddAttachmentTemp",
            Field(config.name) + " " + Field(config.path) + " " + Field(config.is_inline))) {
    return 0;
  }
  record::AttachmentTemp temp;
  temp.id = platform().next_temp_id++;
  temp.name = config.name.Get();
  temp.path = config.path.Get();
  temp.mimetype = GetMimeType(temp.name);
  temp.content_id = "cid-" + std::to_string(temp.id);
  temp.is_inline = config.is_inline.Get();
  platform().temps[temp.id] = temp;
  content_id = temp.content_id;
  return temp.id;
}

record::AttachmentTemp AttachmentControl::GetTemp(int id) {
  if (!Call("AttachmentControl::GetTemp", std::to_string(id))) return {};
  auto temp = platform().temps.find(id);
  return temp == platform().temps.end() ? record::AttachmentTemp() : temp->second;
}

record::Attachment AttachmentControl::Get(int id) {
  if (!Call("AttachmentControl::Get", std::to_string(id))) return {};
  auto attachment = platform().attachments.find(id);
  return attachment == platform().attachments.end() ? record::Attachment() : attachment->second;
}

std::string AttachmentControl::GetContentByRecord(const record::Attachment& attachment) {
  if (!Call("AttachmentControl::GetContentByRecord", std::to_string(attachment.id))) return "";
  auto content = platform().contents.find(attachment.id);
  return content == platform().contents.end() ? "" : content->second;
}

bool AttachmentControl::SetPreviewPath(int id, const std::string& path) {
  if (!Call("AttachmentControl::SetPreviewPath", std::to_string(id) + " " + path)) return false;
  auto attachment = platform().attachments.find(id);
  if (attachment == platform().attachments.end()) return false;
  attachment->second.preview_path = path;
  return true;
}

StickerControl::StickerControl(Controller& controller) : controller_(controller) {}

std::vector<record::Sticker> StickerControl::List(int category) {
  if (!Call("StickerControl::List", std::to_string(category))) return {};
  std::vector<record::Sticker> found;
  for (const record::Sticker& sticker : platform().stickers) {
    if (sticker.category == category) found.push_back(sticker);
  }
  return found;
}

record::Sticker StickerControl::Get(int id) {
  if (!Call("StickerControl::Get", std::to_string(id))) return {};
  for (const record::Sticker& sticker : platform().stickers) {
    if (sticker.id == id) return sticker;
  }
  return {};
}

}  // namespace ornic::larkpost::control

namespace ornic::util {

int GetImageRotationDegree(const std::string& path) {
  Call("GetImageRotationDegree", path);
  auto rotation = platform().rotations.find(path);
  return rotation == platform().rotations.end() ? 0 : rotation->second;
}

}  // namespace ornic::util

// ------------------------------------------------------------- file services

struct ZevoShareInfo {
  std::string path;
};

namespace {

unsigned int& LastError() { return platform().last_error; }

// Runs the stand-in of `path`; "VESLCExecv" fails it without running
// anything when the test says so.
int Run(const std::string& path, const std::vector<std::string>& argv, int wait) {
  platform().runs.push_back(argv);
  unsigned int error = VESLC_ERR_EXEC;
  if (Call("VESLCExecv", path + (wait != 0 ? "" : " nowait"))) {
    auto program = platform().programs.find(path);
    error = program == platform().programs.end() ? static_cast<unsigned int>(VESLC_ERR_NOT_FOUND)
                                                 : program->second(argv);
  }
  LastError() = error;
  return error == 0 ? 0 : -1;
}

}  // namespace

extern "C" {

int ZEVOShareGet(const char* name, ZEVOSHARE** share) {
  Call("ZEVOShareGet", name);
  auto found = platform().shares.find(name);
  if (found == platform().shares.end()) {
    LastError() = VESLC_ERR_NOT_FOUND;
    return -1;
  }
  *share = new ZevoShareInfo{found->second};
  ++platform().shares_held;
  return 0;
}

const char* VESLSharePathGet(const ZEVOSHARE* share) {
  return share == nullptr || share->path.empty() ? nullptr : share->path.c_str();
}

void ZEVOShareFree(ZEVOSHARE* share) {
  if (share == nullptr) return;
  --platform().shares_held;
  delete share;
}

int ZEVOFileCopy(const char* source, const char* destination, unsigned int options) {
  if (!Call("ZEVOFileCopy",
            std::string(source) + " " + destination + " " + std::to_string(options))) {
    LastError() = VESLC_ERR_IO;
    return -1;
  }
  std::error_code error;
  std::filesystem::copy_file(source, destination, std::filesystem::copy_options::overwrite_existing,
                             error);
  LastError() = error ? VESLC_ERR_NOT_FOUND : VESLC_ERR_NONE;
  return error ? -1 : 0;
}

int VESLCExecv(const char* path, char* const argv[], int wait) {
  std::vector<std::string> args;
  for (char* const* arg = argv; *arg != nullptr; ++arg) args.emplace_back(*arg);
  return Run(path, args, wait);
}

int VESLCExec(int wait, const char* path, ...) {
  std::vector<std::string> args{path};
  va_list list;
  va_start(list, path);
  while (const char* arg = va_arg(list, const char*)) args.emplace_back(arg);
  va_end(list);
  return Run(path, args, wait);
}

unsigned int VESLCErrGet(void) { return platform().last_error; }

}  // extern "C"
