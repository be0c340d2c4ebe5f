// File answers: the framework's way for a streaming method (JSON output
// switched off) to send a file as the whole HTTP answer, CGI style, on
// standard output. Files are streamed in blocks, never read whole.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/export.h"

namespace ZEVO {

class ZEVO_PLATFORM_API APIDownload {
 public:
  APIDownload();
  ~APIDownload();

  // The Content-Type from the extension of `file_name`
  // (control::GetMimeType's table), "application/octet-stream" when unknown.
  void SetMimeTypeFromFileName(const std::string& file_name);
  void SetMimeType(const std::string& mime_type);
  // One more header line; a name given again (in any case) replaces the
  // earlier value.
  void SetHeader(const std::string& name, const std::string& value);

  // Writes "Content-Length", "Content-Type", the headers set, an empty line
  // and the file's bytes; flushes. 0 when the whole file went out; -1 when
  // the file cannot be opened (then nothing was written) or writing failed.
  int Output(const std::string& path);

 private:
  std::string mime_type_;
  std::vector<std::pair<std::string, std::string>> headers_;
};

class ZEVO_PLATFORM_API HTTPFileOutputer {
 public:
  // Sends `path` as a download: Content-Type `mime_type`, Content-Length,
  // and "Content-Disposition: attachment" with the file's own name (RFC 6266
  // filename*= for names that are not plain ASCII). 0 when the whole file
  // went out; -1 otherwise (nothing written when it cannot be opened).
  static int Output(const std::string& path, const std::string& mime_type);
};

}  // namespace ZEVO
