// The host's decoding of a request: query string, urlencoded or multipart
// body, cookie, token and language headers, then the clean-text check that
// guards the plug-in. Input: six lines (QUERY_STRING, CONTENT_TYPE,
// HTTP_COOKIE, HTTP_ACCEPT_LANGUAGE, HTTP_X_ZEVO_TOKEN, CONTENT_LENGTH, the
// body's own length when empty), then the body.
#include <stdlib.h>
#include <unistd.h>

#include <sstream>

#include "appliance/framework/cgi.h"
#include "fuzz/fuzz_util.h"

namespace cgi = larkpost::cgi;

namespace {

// Every stored part goes with its request; the folder goes at the end.
char upload_dir[] = "/tmp/larkpost-fuzz-cgi-XXXXXX";

std::string UploadDir() {
  static const bool made = [] {
    if (mkdtemp(upload_dir) == nullptr) abort();
    atexit([] { rmdir(upload_dir); });
    return true;
  }();
  (void)made;
  return upload_dir;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view body;
  const auto lines =
      larkpost::fuzz::TakeLines({reinterpret_cast<const char*>(data), size}, 6, &body);
  cgi::Environment env = {
      {"QUERY_STRING", lines[0]},
      {"CONTENT_TYPE", lines[1]},
      {"HTTP_COOKIE", lines[2]},
      {"HTTP_ACCEPT_LANGUAGE", lines[3]},
      {"HTTP_X_ZEVO_TOKEN", lines[4]},
      {"REQUEST_METHOD", "POST"},
      {"CONTENT_LENGTH", lines[5].empty() ? std::to_string(body.size()) : lines[5]}};
  std::istringstream stream{std::string(body)};
  cgi::FormOptions options;
  options.max_body = 1 << 20;
  options.upload_dir = UploadDir();
  try {
    cgi::EntryRequest request = cgi::DecodeEntryRequest(env, stream, options);
    cgi::FindUncleanParameter(request.params);
    if (request.upload_file.empty() != !request.params.isMember("file_tmp")) {
      larkpost::fuzz::Broken("a stored file part and file_tmp go together");
    }
  } catch (const cgi::RequestError& error) {
    if (error.code() != cgi::kErrorBadRequest && error.code() != cgi::kErrorTooLarge) {
      larkpost::fuzz::Broken("unexpected host error " + std::to_string(error.code()));
    }
  }
  cgi::CookieValue(lines[2], "id");
  return 0;
}
