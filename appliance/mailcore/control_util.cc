// Helpers of the core that need more than pure code: a cryptographic random
// source, the appliance's table of file types, and EXIF data.
#include <fcntl.h>
#include <libexif/exif-data.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "appliance/system/mime_types.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/util.h"

namespace ornic::larkpost::control {

std::string RandomString(const std::string& prefix, int length) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  // sodium_init is safe to call again; it fails only when the system has no
  // source of randomness, and then no name or id may be made from it.
  if (sodium_init() < 0) throw std::runtime_error("no source of randomness");
  std::string text = prefix;
  for (int i = 0; i < length; ++i) {
    text += kAlphabet[randombytes_uniform(sizeof kAlphabet - 1)];
  }
  return text;
}

std::string GetMimeType(const std::string& file_name) {
  return ::larkpost::appliance::MimeTypeForFileName(file_name);
}

}  // namespace ornic::larkpost::control

namespace ornic::util {

int GetImageRotationDegree(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  struct stat info;
  bool regular = fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
  close(fd);
  if (!regular) return -1;
  std::unique_ptr<ExifData, void (*)(ExifData*)> data(exif_data_new_from_file(path.c_str()),
                                                      exif_data_unref);
  if (!data) return 0;
  ExifEntry* entry = exif_content_get_entry(data->ifd[EXIF_IFD_0], EXIF_TAG_ORIENTATION);
  if (entry == nullptr || entry->format != EXIF_FORMAT_SHORT || entry->size < 2) return 0;
  // Mirrored orientations (2, 4, 5, 7) count as their rotation: a preview
  // turned upright but mirrored is still readable.
  switch (exif_get_short(entry->data, exif_data_get_byte_order(data.get()))) {
    case 3:
    case 4:
      return 180;
    case 6:
    case 7:
      return 90;
    case 5:
    case 8:
      return 270;
    default:
      return 0;
  }
}

}  // namespace ornic::util
