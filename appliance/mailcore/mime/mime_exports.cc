#include "appliance/mailcore/mime/mime_exports.h"

#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "appliance/mailcore/mime/mime_parser.h"

extern "C" __attribute__((visibility("default"))) bool larkpost_mime_extract_part(
    const char* raw, size_t size, const char* part_path, std::string* content) {
  // An exception must not cross the C boundary: the caller was built to
  // expect none from a symbol it looked up by name.
  try {
    std::optional<std::string> part =
        ornic::larkpost::mime::ExtractPart(std::string_view(raw, size), part_path);
    if (!part) return false;
    *content = std::move(*part);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

// The declaration above and the definition must agree, or the lookup hands
// the caller a function of another type.
static_assert(std::is_same_v<decltype(larkpost_mime_extract_part), LarkpostMimeExtractPart>);
