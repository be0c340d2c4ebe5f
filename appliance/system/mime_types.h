// File name extensions and the MIME types they stand for: one table for the
// core (attachment types) and the framework (download answers). Header-only
// so that both can use it without linking each other.
#pragma once

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>

namespace larkpost::appliance {

// The MIME type for `file_name`'s extension, compared without regard to
// case; "application/octet-stream" when there is none or it is unknown.
inline std::string MimeTypeForFileName(std::string_view file_name) {
  struct Entry {
    std::string_view extension;
    std::string_view type;
  };
  // Sorted by extension: looked up by binary search.
  static constexpr Entry kTable[] = {
      {"7z", "application/x-7z-compressed"},
      {"avi", "video/x-msvideo"},
      {"bmp", "image/bmp"},
      {"css", "text/css"},
      {"csv", "text/csv"},
      {"doc", "application/msword"},
      {"docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
      {"eml", "message/rfc822"},
      {"gif", "image/gif"},
      {"gz", "application/gzip"},
      {"heic", "image/heic"},
      {"htm", "text/html"},
      {"html", "text/html"},
      {"ico", "image/x-icon"},
      {"ics", "text/calendar"},
      {"jpeg", "image/jpeg"},
      {"jpg", "image/jpeg"},
      {"js", "text/javascript"},
      {"json", "application/json"},
      {"m4a", "audio/mp4"},
      {"md", "text/markdown"},
      {"mov", "video/quicktime"},
      {"mp3", "audio/mpeg"},
      {"mp4", "video/mp4"},
      {"odp", "application/vnd.oasis.opendocument.presentation"},
      {"ods", "application/vnd.oasis.opendocument.spreadsheet"},
      {"odt", "application/vnd.oasis.opendocument.text"},
      {"ogg", "audio/ogg"},
      {"pdf", "application/pdf"},
      {"png", "image/png"},
      {"ppt", "application/vnd.ms-powerpoint"},
      {"pptx", "application/vnd.openxmlformats-officedocument.presentationml.presentation"},
      {"rar", "application/vnd.rar"},
      {"rtf", "application/rtf"},
      {"svg", "image/svg+xml"},
      {"tar", "application/x-tar"},
      {"tif", "image/tiff"},
      {"tiff", "image/tiff"},
      {"txt", "text/plain"},
      {"vcf", "text/vcard"},
      {"wav", "audio/wav"},
      {"webm", "video/webm"},
      {"webp", "image/webp"},
      {"xls", "application/vnd.ms-excel"},
      {"xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
      {"xml", "application/xml"},
      {"zip", "application/zip"},
  };
  const auto dot = file_name.rfind('.');
  const auto slash = file_name.find_last_of("/\\");
  if (dot == std::string_view::npos || (slash != std::string_view::npos && slash > dot)) {
    return "application/octet-stream";
  }
  std::string extension(file_name.substr(dot + 1));
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const auto* end = std::end(kTable);
  const auto* found = std::lower_bound(
      std::begin(kTable), end, extension,
      [](const Entry& entry, const std::string& key) { return entry.extension < key; });
  if (found == end || found->extension != extension) return "application/octet-stream";
  return std::string(found->type);
}

}  // namespace larkpost::appliance
