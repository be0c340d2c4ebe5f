#include "appliance/mailcore/mime/mail_source.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>
#include <string>
#include <vector>

#include "appliance/mailcore/mime/header.h"

namespace ornic::larkpost::mime {
namespace {

// How much of a message's start is looked at for its header block.
constexpr size_t kHeaderWindow = size_t{256} << 10;

std::runtime_error Failure(const std::string& path, const std::string& what) {
  return std::runtime_error(path + ": " + what);
}

std::runtime_error SystemFailure(const std::string& path) { return Failure(path, strerror(errno)); }

// An open file descriptor, closed with the object.
class File {
 public:
  explicit File(const std::string& path) : path_(path), fd_(open(path.c_str(), O_RDONLY)) {
    if (fd_ < 0) throw SystemFailure(path);
    if (fstat(fd_, &info_) != 0) {
      int error = errno;
      close(fd_);
      errno = error;
      throw SystemFailure(path);
    }
  }
  ~File() { close(fd_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  int fd() const { return fd_; }
  const struct stat& info() const { return info_; }

  std::string ReadAll() const {
    std::string bytes(static_cast<size_t>(info_.st_size), '\0');
    size_t done = 0;
    while (done < bytes.size()) {
      ssize_t got = pread(fd_, &bytes[done], bytes.size() - done, static_cast<off_t>(done));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) throw SystemFailure(path_);
      if (got == 0) break;  // it shrank meanwhile
      done += static_cast<size_t>(got);
    }
    bytes.resize(done);
    return bytes;
  }

 private:
  std::string path_;
  int fd_;
  struct stat info_;
};

bool IsDirectory(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The names of the regular files of `dir` that do not start with ".".
std::vector<std::string> FilesIn(const std::string& dir) {
  std::vector<std::string> names;
  DIR* listing = opendir(dir.c_str());
  if (listing == nullptr) throw SystemFailure(dir);
  while (struct dirent* entry = readdir(listing)) {
    if (entry->d_name[0] == '.') continue;
    std::string name = entry->d_name;
    struct stat info;
    if (stat((dir + "/" + name).c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
      names.push_back(name);
    }
  }
  closedir(listing);
  return names;
}

// The flags of a Maildir file name: the letters after ":2,".
std::string MaildirFlags(const std::string& name) {
  size_t info = name.rfind(":2,");
  return info == std::string::npos ? "" : name.substr(info + 3);
}

// Maildir names start with the delivery time in seconds; order by that
// number first so that "999.x" comes before "1000.x", then by name.
bool MaildirOrder(const std::string& a, const std::string& b) {
  std::string name_a = a.substr(a.find('/') + 1), name_b = b.substr(b.find('/') + 1);
  unsigned long long time_a = strtoull(name_a.c_str(), nullptr, 10);
  unsigned long long time_b = strtoull(name_b.c_str(), nullptr, 10);
  if (time_a != time_b) return time_a < time_b;
  return name_a < name_b;
}

int MonthNumber(const std::string& word) {
  static const char* const kMonths[] = {"jan", "feb", "mar", "apr", "may", "jun",
                                        "jul", "aug", "sep", "oct", "nov", "dec"};
  if (word.size() != 3) return -1;
  for (int k = 0; k < 12; ++k) {
    if (strncasecmp(word.c_str(), kMonths[k], 3) == 0) return k;
  }
  return -1;
}

bool AllDigits(const std::string& word) {
  return !word.empty() && std::all_of(word.begin(), word.end(), [](char c) {
    return isdigit(static_cast<unsigned char>(c));
  });
}

// Undoes mbox quoting: one ">" less on every line that is ">From ",
// ">>From ", and so on.
std::string Unquote(const char* data, size_t size) {
  std::string out;
  out.reserve(size);
  size_t copied = 0;
  for (size_t at = 0; at + 5 <= size;) {
    const void* hit = memmem(data + at, size - at, "From ", 5);
    if (hit == nullptr) break;
    size_t from = static_cast<const char*>(hit) - data;
    size_t quote = from;
    while (quote > 0 && data[quote - 1] == '>') --quote;
    if (quote < from && (quote == 0 || data[quote - 1] == '\n')) {
      out.append(data + copied, quote - copied);
      copied = quote + 1;  // the first '>' goes
    }
    at = from + 5;
  }
  out.append(data + copied, size - copied);
  return out;
}

void ReadMboxFlags(const std::string& raw, SourceMessage& message) {
  HeaderBlock headers = ScanHeaders(raw);
  if (const std::string* status = headers.Find("Status")) {
    message.read = status->find('R') != std::string::npos;
  }
  if (const std::string* status = headers.Find("X-Status")) {
    message.starred = status->find('F') != std::string::npos;
  }
}

}  // namespace

bool ParseFromLine(const std::string& line, int64_t* time) {
  if (line.compare(0, 5, "From ") != 0) return false;
  std::vector<std::string> words;
  for (size_t at = 5; at < line.size();) {
    size_t end = line.find_first_of(" \t\r\n", at);
    if (end == std::string::npos) end = line.size();
    if (end > at) words.push_back(line.substr(at, end - at));
    at = end + 1;
  }
  // "SENDER [WEEKDAY] MONTH DAY HH:MM[:SS] [ZONE] YEAR [ZONE]"
  for (size_t m = 1; m + 3 < words.size(); ++m) {
    int month = MonthNumber(words[m]);
    if (month < 0 || !AllDigits(words[m + 1])) continue;
    int day = atoi(words[m + 1].c_str());
    int hour = 0, minute = 0, second = 0;
    if (sscanf(words[m + 2].c_str(), "%d:%d:%d", &hour, &minute, &second) < 2) continue;
    for (size_t y = m + 3; y < words.size() && y <= m + 4; ++y) {
      if (words[y].size() != 4 || !AllDigits(words[y])) continue;
      struct tm parts = {};
      parts.tm_year = atoi(words[y].c_str()) - 1900;
      parts.tm_mon = month;
      parts.tm_mday = day;
      parts.tm_hour = hour;
      parts.tm_min = minute;
      parts.tm_sec = second;
      if (day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) return false;
      *time = timegm(&parts);
      return true;
    }
  }
  return false;
}

MailSource::MailSource(std::string path) : path_(std::move(path)) {
  struct stat info;
  if (stat(path_.c_str(), &info) != 0) throw SystemFailure(path_);
  if (S_ISDIR(info.st_mode)) {
    bool cur = IsDirectory(path_ + "/cur"), fresh = IsDirectory(path_ + "/new");
    if (!cur && !fresh) throw Failure(path_, "a folder, but not a Maildir (no cur/ or new/)");
    for (const char* sub : {"cur", "new"}) {
      if (!IsDirectory(path_ + "/" + sub)) continue;
      for (const std::string& name : FilesIn(path_ + "/" + sub)) {
        std::string file = std::string(sub) + "/" + name;
        if (access((path_ + "/" + file).c_str(), R_OK) != 0)
          throw SystemFailure(path_ + "/" + file);
        maildir_files_.push_back(file);
      }
    }
    std::sort(maildir_files_.begin(), maildir_files_.end(), MaildirOrder);
    kind_ = kMaildir;
    return;
  }
  if (!S_ISREG(info.st_mode)) throw Failure(path_, "not a file or a Maildir folder");
  File file(path_);
  char start[5];
  ssize_t got = pread(file.fd(), start, sizeof start, 0);
  if (got < 0) throw SystemFailure(path_);
  if (got == 0) throw Failure(path_, "empty file");
  kind_ = got == 5 && memcmp(start, "From ", 5) == 0 ? kMbox : kMessageFile;
}

void MailSource::ForEach(const std::function<void(SourceMessage&&)>& each) const {
  switch (kind_) {
    case kMbox:
      ForEachInMbox(each);
      return;
    case kMessageFile: {
      File file(path_);
      SourceMessage message;
      message.raw = file.ReadAll();
      message.time_without_date = file.info().st_mtime;
      each(std::move(message));
      return;
    }
    case kMaildir:
      for (const std::string& name : maildir_files_) {
        File file(path_ + "/" + name);
        SourceMessage message;
        message.raw = file.ReadAll();
        message.time_without_date = file.info().st_mtime;
        std::string flags = MaildirFlags(name);
        message.read = flags.find('S') != std::string::npos;
        message.starred = flags.find('F') != std::string::npos;
        each(std::move(message));
      }
      return;
  }
}

void MailSource::ForEachInMbox(const std::function<void(SourceMessage&&)>& each) const {
  File file(path_);
  size_t size = static_cast<size_t>(file.info().st_size);
  if (size == 0) return;
  void* mapped = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file.fd(), 0);
  if (mapped == MAP_FAILED) throw SystemFailure(path_);
  struct Unmap {
    void* at;
    size_t size;
    ~Unmap() { munmap(at, size); }
  } unmap{mapped, size};
  madvise(mapped, size, MADV_SEQUENTIAL);
  const char* data = static_cast<const char*>(mapped);

  auto line_end = [&](size_t begin) {
    const void* newline = memchr(data + begin, '\n', size - begin);
    return newline ? static_cast<size_t>(static_cast<const char*>(newline) - data) : size;
  };
  auto starts_with_from = [&](size_t at) {
    return size - at >= 5 && memcmp(data + at, "From ", 5) == 0;
  };
  // Where the line before the one at `at` (just after a "\n") is blank.
  auto after_blank_line = [&](size_t at) {
    return (at >= 2 && data[at - 2] == '\n') ||
           (at >= 3 && data[at - 2] == '\r' && data[at - 3] == '\n');
  };
  // A "From " line starts a message when it is the file's first line, or
  // comes after a blank line (as mbox writers put it) and is followed by a
  // header field or has a sender and a date, whatever else it says ("From
  // - ", "From 1844@xxx"). One that reads as a sender and a date starts a
  // message even without the blank line; a body line "From here on..." that
  // a writer forgot to quote stays in its message.
  auto starts_message = [&](size_t candidate, int64_t* time) {
    const size_t end = line_end(candidate);
    if (ParseFromLine(std::string(data + candidate, end - candidate), time)) return true;
    *time = 0;
    if (!after_blank_line(candidate) || end >= size) return false;
    const size_t next = end + 1, next_end = line_end(next);
    const size_t colon = std::string_view(data + next, next_end - next).find(':');
    return colon != std::string_view::npos && colon > 0 &&
           std::all_of(data + next, data + next + colon, [](char c) { return c > ' ' && c < 127; });
  };
  // The end of the message that starts at `begin` as its Content-Length
  // header says, when it is there and agrees with the file: the end of the
  // file or a "From " line (after a blank line) is found there. Senders'
  // unquoted "From " lines in such bodies stay in them.
  auto end_by_length = [&](size_t begin, size_t* next) {
    const std::string_view window(data + begin, std::min(size - begin, kHeaderWindow));
    const HeaderBlock headers = ScanHeaders(window);
    const std::string* length = headers.Find("Content-Length");
    if (length == nullptr || headers.body_offset == 0 || headers.body_offset >= window.size()) {
      return size_t{0};
    }
    const std::string digits = std::string(*length).erase(0, length->find_first_not_of(" \t"));
    char* stop = nullptr;
    errno = 0;
    const unsigned long long count = strtoull(digits.c_str(), &stop, 10);
    if (stop == digits.c_str() || errno != 0 || count > size) return size_t{0};
    const size_t end = begin + headers.body_offset + static_cast<size_t>(count);
    if (end > size) return size_t{0};
    if (end == size) {
      *next = size;
      return end;
    }
    for (size_t from : {end, end + 1, end + 2}) {
      if (from <= size && data[from - 1] == '\n' && starts_with_from(from) &&
          std::all_of(data + end, data + from, [](char c) { return c == '\r' || c == '\n'; })) {
        *next = from;
        return end;
      }
    }
    return size_t{0};
  };
  size_t from_line = 0;
  int64_t from_time = 0;
  constexpr size_t kReleaseBytes = size_t{64} << 20;
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  size_t released = 0;
  ParseFromLine(std::string(data, line_end(0)), &from_time);
  while (from_line < size) {
    size_t begin = std::min(line_end(from_line) + 1, size);
    size_t end = size, next = size;
    int64_t next_time = 0;
    if (size_t by_length = end_by_length(begin, &next)) {
      end = by_length;
      if (next < size) ParseFromLine(std::string(data + next, line_end(next) - next), &next_time);
    } else {
      for (size_t at = begin; at < size;) {
        const void* hit = memmem(data + at, size - at, "\nFrom ", 6);
        if (hit == nullptr) break;
        size_t candidate = static_cast<const char*>(hit) - data + 1;
        if (starts_message(candidate, &next_time)) {
          end = next = candidate;
          break;
        }
        at = candidate;
      }
      // The blank line that the mbox writer put before the next "From " is
      // the format's, not the message's.
      if (end - begin >= 2 && data[end - 1] == '\n' && data[end - 2] == '\n') {
        --end;
      } else if (end - begin >= 4 && memcmp(data + end - 4, "\r\n\r\n", 4) == 0) {
        end -= 2;
      }
    }
    SourceMessage message;
    message.raw = Unquote(data + begin, end - begin);
    message.time_without_date = from_time > 0 ? from_time : file.info().st_mtime;
    ReadMboxFlags(message.raw, message);
    if (!message.raw.empty()) each(std::move(message));
    from_line = next;
    from_time = next_time;
    // What has been read is not needed again: a large mbox does not stay
    // in memory as it is read.
    if (from_line - released >= kReleaseBytes) {
      size_t upto = from_line / page * page;
      madvise(const_cast<char*>(data) + released, upto - released, MADV_DONTNEED);
      released = upto;
    }
  }
}

}  // namespace ornic::larkpost::mime
