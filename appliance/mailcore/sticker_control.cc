// The stickers ship as image files with a manifest beside them
// (stickers.txt: one sticker a line, "id<TAB>category<TAB>name<TAB>file",
// "#" starting a comment). They are found relative to the core's own
// library (<libdir>/../share/larkpost/stickers), so that a build tree and an
// installed tree both work, unless $LARKPOST_STICKER_DIR names the folder.
// Ids come from the manifest, so they stay the same from one release to the
// next; the manifest is small and read on each call.
#include <dlfcn.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/store_text.h"
#include "platform/mailcore/control.h"

namespace ornic::larkpost::control {
namespace {

std::string StickerDir() {
  const char* configured = getenv("LARKPOST_STICKER_DIR");
  if (configured != nullptr && *configured != '\0') return configured;
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&StickerDir), &info) == 0 || info.dli_fname == nullptr) {
    return "share/larkpost/stickers";
  }
  std::string library = info.dli_fname;
  size_t slash = library.rfind('/');
  std::string dir = slash == std::string::npos ? "." : library.substr(0, slash);
  return dir + "/../share/larkpost/stickers";
}

// Every sticker of the manifest whose image exists, in manifest order.
std::vector<record::Sticker> ReadManifest() {
  std::string dir = StickerDir();
  std::ifstream manifest(dir + "/stickers.txt");
  std::vector<record::Sticker> stickers;
  if (!manifest) {
    store::LogError("sticker", __LINE__, "no sticker manifest in " + dir);
    return stickers;
  }
  std::string line;
  int number = 0;
  while (std::getline(manifest, line)) {
    ++number;
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> fields;
    std::stringstream split(line);
    for (std::string field; std::getline(split, field, '\t');) fields.push_back(field);
    int64_t id = 0, category = 0;
    if (fields.size() != 4 || !store::ParseInt64(fields[0], &id) || id <= 0 || id > INT32_MAX ||
        !store::ParseInt64(fields[1], &category) || category < 0 || category > INT32_MAX ||
        fields[3].empty() || fields[3].find('/') != std::string::npos) {
      store::LogError("sticker", __LINE__,
                      "stickers.txt line " + std::to_string(number) + " is not a sticker");
      continue;
    }
    record::Sticker sticker;
    sticker.id = static_cast<int32_t>(id);
    sticker.category = static_cast<int32_t>(category);
    sticker.name = fields[2];
    sticker.path = dir + "/" + fields[3];
    struct stat info;
    if (stat(sticker.path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
      store::LogError("sticker", __LINE__, "sticker image " + sticker.path + " is missing");
      continue;
    }
    sticker.last_modified = static_cast<int64_t>(info.st_mtime);
    stickers.push_back(std::move(sticker));
  }
  return stickers;
}

}  // namespace

StickerControl::StickerControl(Controller& controller) : controller_(controller) {}

std::vector<record::Sticker> StickerControl::List(int category) {
  std::vector<record::Sticker> stickers;
  for (record::Sticker& sticker : ReadManifest()) {
    if (sticker.category == category) stickers.push_back(std::move(sticker));
  }
  std::sort(stickers.begin(), stickers.end(),
            [](const record::Sticker& a, const record::Sticker& b) { return a.id < b.id; });
  return stickers;
}

record::Sticker StickerControl::Get(int id) {
  for (record::Sticker& sticker : ReadManifest()) {
    if (sticker.id == id) return std::move(sticker);
  }
  return record::Sticker();
}

}  // namespace ornic::larkpost::control
