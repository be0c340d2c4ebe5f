// File answers of the framework: a whole CGI answer (headers, an empty line,
// the file's bytes) written to standard output.
//
// The file is sent in blocks, so an answer costs one block of memory whatever
// the file's size. Content-Length is the size that fstat gave when the file
// was opened, and exactly that many bytes follow: a file that grows while it
// is sent is cut at that size, one that shrinks ends the answer early and the
// call reports failure (the client sees a short body, never a wrong length).
#include "platform/zevo/download.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "appliance/framework/text.h"
#include "appliance/system/mime_types.h"

namespace ZEVO {

namespace {

constexpr size_t kBlockSize = 64 * 1024;
constexpr char kDefaultMimeType[] = "application/octet-stream";

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, data, size);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

// A header text without line breaks: a CR or LF in a value (a file name, a
// caller's header) would otherwise start a header line of its own.
std::string OneLine(const std::string& text) {
  std::string line;
  line.reserve(text.size());
  for (char c : text) {
    if (c != '\r' && c != '\n') line += c;
  }
  return line;
}

// Closes the descriptor on every way out.
class File {
 public:
  explicit File(const std::string& path) : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~File() {
    if (fd_ >= 0) close(fd_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// Sends the file at `path` with the header lines `headers` (each ended by
// CR LF, Content-Length not among them). 0 when every byte went out; -1
// when the file cannot be opened or is not a regular file (nothing written
// then), or when reading or writing failed part way.
int SendFile(const std::string& path, const std::string& headers) {
  File file(path);
  if (file.fd() < 0) return -1;
  struct stat info;
  if (fstat(file.fd(), &info) != 0 || !S_ISREG(info.st_mode)) return -1;

  const std::string head =
      "Content-Length: " + std::to_string(info.st_size) + "\r\n" + headers + "\r\n";
  // What the plug-in already wrote through stdio goes first.
  std::fflush(stdout);
  if (!WriteAll(STDOUT_FILENO, head.data(), head.size())) return -1;

  std::vector<char> block(kBlockSize);
  off_t left = info.st_size;
  while (left > 0) {
    const size_t want =
        left < static_cast<off_t>(block.size()) ? static_cast<size_t>(left) : block.size();
    const ssize_t got = read(file.fd(), block.data(), want);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return -1;
    if (!WriteAll(STDOUT_FILENO, block.data(), static_cast<size_t>(got))) return -1;
    left -= got;
  }
  return 0;
}

bool IsPlainFileNameChar(unsigned char c) { return c >= 0x20 && c < 0x7f && c != '"' && c != '\\'; }

// "attachment; filename=..." for `name`; a name that is not plain ASCII
// also goes as filename*= (RFC 6266), percent-encoded UTF-8, beside a plain
// fallback for clients that do not read that form.
std::string AttachmentDisposition(const std::string& name) {
  bool plain = true;
  std::string fallback;
  for (unsigned char c : name) {
    plain = plain && IsPlainFileNameChar(c);
    fallback += IsPlainFileNameChar(c) ? static_cast<char>(c) : '_';
  }
  std::string value = "attachment; filename=\"" + fallback + "\"";
  if (plain) return value;

  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string encoded;
  for (unsigned char c : name) {
    const bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                            (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_' || c == '~';
    if (unreserved) {
      encoded += static_cast<char>(c);
    } else {
      encoded += '%';
      encoded += kHex[c >> 4];
      encoded += kHex[c & 0x0f];
    }
  }
  return value + "; filename*=UTF-8''" + encoded;
}

}  // namespace

APIDownload::APIDownload() : mime_type_(kDefaultMimeType) {}

APIDownload::~APIDownload() = default;

void APIDownload::SetMimeTypeFromFileName(const std::string& file_name) {
  mime_type_ = larkpost::appliance::MimeTypeForFileName(file_name);
}

void APIDownload::SetMimeType(const std::string& mime_type) { mime_type_ = mime_type; }

void APIDownload::SetHeader(const std::string& name, const std::string& value) {
  const std::string key = larkpost::cgi::Lower(name);
  // The two headers that Output writes itself: the type is the caller's to
  // change, the length never is (it is the file's).
  if (key == "content-type") {
    mime_type_ = value;
    return;
  }
  if (key == "content-length") return;
  for (auto& header : headers_) {
    if (larkpost::cgi::Lower(header.first) == key) {
      header.second = value;
      return;
    }
  }
  headers_.emplace_back(name, value);
}

int APIDownload::Output(const std::string& path) {
  std::string headers = "Content-Type: " + OneLine(mime_type_) + "\r\n";
  for (const auto& [name, value] : headers_) {
    headers += OneLine(name) + ": " + OneLine(value) + "\r\n";
  }
  return SendFile(path, headers);
}

int HTTPFileOutputer::Output(const std::string& path, const std::string& mime_type) {
  const size_t slash = path.rfind('/');
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  return SendFile(path, "Content-Type: " + OneLine(mime_type) + "\r\n" + "Content-Disposition: " +
                            AttachmentDisposition(OneLine(name)) + "\r\n");
}

}  // namespace ZEVO
