// zip [-jr] ARCHIVE [-cp CODEPAGE | -UN=UTF8] INPUT...
//
// Writes a zip archive of the inputs:
//   -j             entries are the bare file names (no folders);
//   -r             folders are walked, in name order;
//   -cp CODEPAGE   names are stored in that code page, for unzip programs
//                  that read names in the local code page: a code-page name
//                  or number ("cp932", "932", "windows-1252") or an
//                  interface language ("jpn", "enu", ...); "utf8" is UTF-8;
//   -UN=UTF8       names are stored in UTF-8 and flagged as such.
// Without either, names are UTF-8 too. When a name cannot be written in the
// chosen code page (or the code page is unknown), the whole archive falls
// back to flagged UTF-8 names: an archive with names in two encodings would
// read wrongly everywhere.
//
// Entries with code-page names are marked as made on MS-DOS, which tells
// extractors to read their names in the OEM code page, and carry the UTF-8
// name in an Info-ZIP Unicode Path field for the extractors that read it.
//
// The archive is written under a temporary name beside ARCHIVE and renamed
// into place (an existing one is replaced, never updated), so a failure
// leaves nothing behind. File contents are streamed in blocks. Exit status 0
// on success, 1 when the archive could not be made, 2 for a bad command line;
// each failure says why on standard error.
#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <iconv.h>
#include <limits.h>
#include <locale.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr size_t kBlock = size_t{64} * 1024;

// What one archive may cost. It reads mail content that strangers sent:
// whatever is in it, the program ends, within a bounded memory, and never
// fills the disk.
constexpr rlim_t kCpuSeconds = 120;
constexpr rlim_t kLargestArchive = rlim_t{4} * 1024 * 1024 * 1024;
constexpr rlim_t kAddressSpace = rlim_t{1024} * 1024 * 1024;

// The temporary archives being written, for a program stopped for its CPU
// time: it removes them on its way out, as a failure does.
char g_temporaries[2][PATH_MAX];

extern "C" void StopForCpuTime(int) {
  for (const char* path : g_temporaries) {
    if (path[0] != '\0') unlink(path);
  }
  static const char kMessage[] = "zip: stopped: over its CPU time limit\n";
  ssize_t ignored = write(STDERR_FILENO, kMessage, sizeof(kMessage) - 1);
  (void)ignored;
  _exit(1);
}

// Lowers a limit (never raises one that the caller set lower).
void Limit(int resource, rlim_t value) {
  struct rlimit limit = {};
  if (getrlimit(resource, &limit) != 0) return;
  limit.rlim_cur = std::min(limit.rlim_cur, value);
  limit.rlim_max = std::min(limit.rlim_max, value + (resource == RLIMIT_CPU ? 5 : 0));
  setrlimit(resource, &limit);
}

void LimitResources() {
  // At the soft CPU limit SIGXCPU ends the program cleanly; the hard one,
  // a little later, kills it whatever it does.
  signal(SIGXCPU, StopForCpuTime);
  Limit(RLIMIT_CPU, kCpuSeconds);
  // A write past the size limit fails (EFBIG) instead of killing: the
  // failure path removes the temporary archive.
  signal(SIGXFSZ, SIG_IGN);
  Limit(RLIMIT_FSIZE, kLargestArchive);
  Limit(RLIMIT_CORE, 0);
#ifndef __SANITIZE_ADDRESS__
  Limit(RLIMIT_AS, kAddressSpace);
#endif
}

// A refusal of the command line (exit 2) or a failure (exit 1).
struct Failure : std::runtime_error {
  Failure(int status, const std::string& why) : std::runtime_error(why), status(status) {}
  int status;
};

[[noreturn]] void Usage(const std::string& why) {
  throw Failure(2, why + "\nusage: zip [-jr] ARCHIVE [-cp CODEPAGE | -UN=UTF8] INPUT...");
}

[[noreturn]] void Fail(const std::string& why) { throw Failure(1, why); }

std::string ErrnoText(const std::string& what, const std::string& path) {
  return what + " " + path + ": " + std::strerror(errno);
}

void Warn(const std::string& what) { std::fprintf(stderr, "zip: warning: %s\n", what.c_str()); }

struct Options {
  bool junk_paths = false;
  bool recurse = false;
  std::optional<std::string> code_page;
  bool utf8 = false;
  std::string archive;
  std::vector<std::string> inputs;
};

Options ParseCommandLine(int argc, char** argv) {
  Options options;
  bool positional_only = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (positional_only || arg.size() < 2 || arg[0] != '-') {
      if (options.archive.empty()) {
        options.archive = arg;
      } else {
        options.inputs.push_back(arg);
      }
    } else if (arg == "--") {
      positional_only = true;
    } else if (arg == "-cp") {
      if (i + 1 == argc) Usage("-cp needs a code page");
      options.code_page = argv[++i];
    } else if (arg.rfind("-UN=", 0) == 0) {
      std::string value = arg.substr(4);
      for (char& c : value) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      if (value != "UTF8" && value != "UTF-8") Usage("unknown name encoding " + arg);
      options.utf8 = true;
    } else {
      for (char flag : arg.substr(1)) {
        if (flag == 'j') {
          options.junk_paths = true;
        } else if (flag == 'r') {
          options.recurse = true;
        } else {
          Usage("unknown option " + arg);
        }
      }
    }
  }
  if (options.code_page && options.utf8) Usage("-cp and -UN=UTF8 exclude each other");
  if (options.archive.empty()) Usage("no archive named");
  if (options.inputs.empty()) Usage("nothing to add");
  return options;
}

// The character set (an iconv name) for a code page as the webmail names it;
// nullopt for UTF-8.
std::optional<std::string> CharsetFor(const std::string& code_page) {
  std::string key;
  for (char c : code_page) key += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (key == "utf8" || key == "utf-8" || key == "65001") return std::nullopt;
  // Interface languages: the OEM code page that archive programs of the
  // language's systems read names in.
  static const std::map<std::string, std::string> kLanguages = {
      {"enu", "CP437"}, {"fre", "CP850"}, {"ger", "CP850"}, {"ita", "CP850"}, {"spn", "CP850"},
      {"nld", "CP850"}, {"sve", "CP850"}, {"dan", "CP850"}, {"nor", "CP850"}, {"fin", "CP850"},
      {"ptb", "CP850"}, {"ptg", "CP850"}, {"csy", "CP852"}, {"hun", "CP852"}, {"plk", "CP852"},
      {"trk", "CP857"}, {"rus", "CP866"}, {"tha", "CP874"}, {"jpn", "CP932"}, {"chs", "CP936"},
      {"krn", "CP949"}, {"cht", "CP950"},
  };
  if (const auto found = kLanguages.find(key); found != kLanguages.end()) return found->second;
  if (!key.empty() &&
      std::all_of(key.begin(), key.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return "CP" + key;
  }
  return code_page;
}

// True when every name can be written in `charset`.
bool AllConvert(const std::string& charset, const std::vector<std::string>& names) {
  iconv_t converter = iconv_open(charset.c_str(), "UTF-8");
  if (converter == reinterpret_cast<iconv_t>(-1)) {
    Warn("unknown code page " + charset + ", names are stored in UTF-8");
    return false;
  }
  bool all = true;
  for (const std::string& name : names) {
    iconv(converter, nullptr, nullptr, nullptr, nullptr);
    std::string in = name;
    char* in_pos = in.data();
    size_t in_left = in.size();
    std::string out(in.size() * 4 + 8, '\0');
    char* out_pos = out.data();
    size_t out_left = out.size();
    if (iconv(converter, &in_pos, &in_left, &out_pos, &out_left) == static_cast<size_t>(-1) ||
        iconv(converter, nullptr, nullptr, &out_pos, &out_left) == static_cast<size_t>(-1)) {
      Warn("\"" + name + "\" cannot be written in " + charset + ", names are stored in UTF-8");
      all = false;
      break;
    }
  }
  iconv_close(converter);
  return all;
}

struct Item {
  std::string path;
  std::string name;  // in the archive; a folder's ends with "/"
  struct stat info;
};

class Collector {
 public:
  Collector(const Options& options, const std::string& archive) : options_(options) {
    struct stat info;
    if (stat(archive.c_str(), &info) == 0) archive_ = info;
  }

  void AddInput(const std::string& path) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0) Fail(ErrnoText("cannot read", path));
    if (S_ISREG(info.st_mode)) {
      Add(path, options_.junk_paths ? BaseName(path) : CleanName(path), info);
    } else if (S_ISDIR(info.st_mode)) {
      const std::string name = CleanName(path);
      if (!options_.junk_paths && !name.empty()) Add(path, name + "/", info);
      if (options_.recurse) {
        Walk(path, name);
      } else if (options_.junk_paths) {
        Warn(path + " is a folder and -r was not given: nothing of it is added");
      }
    } else {
      Fail(path + " is neither a file nor a folder");
    }
  }

  std::vector<Item>& items() { return items_; }

 private:
  static std::string BaseName(const std::string& path) {
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
    return trimmed.substr(trimmed.find_last_of("/\\") + 1);
  }

  // The path as an entry name: no leading "/", no "." or ".." steps, so that
  // an unzip program never writes outside the folder it unpacks into. A
  // backslash separates steps too: extractors on Windows read it so, and a
  // file here may have one in its name ("..\\x").
  static std::string CleanName(const std::string& path) {
    std::string name;
    size_t start = 0;
    while (start <= path.size()) {
      size_t end = path.find_first_of("/\\", start);
      if (end == std::string::npos) end = path.size();
      const std::string step = path.substr(start, end - start);
      if (!step.empty() && step != "." && step != "..") name += (name.empty() ? "" : "/") + step;
      start = end + 1;
    }
    return name;
  }

  void Walk(const std::string& folder, const std::string& prefix) {
    DIR* dir = opendir(folder.c_str());
    if (dir == nullptr) Fail(ErrnoText("cannot read", folder));
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* entry = readdir(dir)) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    const int read_error = errno;
    closedir(dir);
    if (read_error != 0) {
      errno = read_error;
      Fail(ErrnoText("cannot read", folder));
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      const std::string path = folder + (folder.back() == '/' ? "" : "/") + name;
      const std::string entry_name = prefix.empty() ? name : prefix + "/" + name;
      struct stat info;
      if (lstat(path.c_str(), &info) != 0) Fail(ErrnoText("cannot read", path));
      if (S_ISDIR(info.st_mode)) {
        if (!options_.junk_paths) Add(path, entry_name + "/", info);
        Walk(path, entry_name);
        continue;
      }
      // A link is followed to a file, but never into a folder: that way
      // lies a loop.
      if (S_ISLNK(info.st_mode) && stat(path.c_str(), &info) != 0) {
        Warn(ErrnoText("skipped the broken link", path));
        continue;
      }
      if (!S_ISREG(info.st_mode)) {
        Warn("skipped " + path + ": not a file");
        continue;
      }
      Add(path, options_.junk_paths ? name : entry_name, info);
    }
  }

  void Add(const std::string& path, const std::string& given, const struct stat& info) {
    if (archive_ && archive_->st_dev == info.st_dev && archive_->st_ino == info.st_ino) return;
    const bool folder = !given.empty() && given.back() == '/';
    const std::string name = CleanName(given) + (folder ? "/" : "");
    if (name.empty() || name == "/") {
      Warn("skipped " + path + ": its name is no name in an archive");
      return;
    }
    const auto [seen, added] = names_.emplace(name, path);
    if (!added) Fail("two entries would be named \"" + name + "\": " + seen->second + ", " + path);
    items_.push_back({path, name, info});
  }

  const Options& options_;
  std::optional<struct stat> archive_;
  std::vector<Item> items_;
  std::map<std::string, std::string> names_;  // entry name -> path
};

// The archive being written: its temporary file goes away unless Commit
// renamed it into place.
class Output {
 public:
  explicit Output(std::string archive) : archive_(std::move(archive)) {
    const size_t slash = archive_.rfind('/');
    temporary_ = (slash == std::string::npos ? std::string() : archive_.substr(0, slash + 1)) +
                 ".zip-XXXXXX";
    fd_ = mkostemp(temporary_.data(), O_CLOEXEC);
    if (fd_ < 0) Fail(ErrnoText("cannot write beside", archive_));
    for (char* slot : g_temporaries) {
      if (slot[0] == '\0' && temporary_.size() < PATH_MAX) {
        std::memcpy(slot, temporary_.c_str(), temporary_.size() + 1);
        slot_ = slot;
        break;
      }
    }
  }
  ~Output() {
    if (fd_ >= 0) close(fd_);
    if (!committed_) unlink(temporary_.c_str());
    if (slot_ != nullptr) slot_[0] = '\0';
  }
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  int fd() const { return fd_; }

  void Commit() {
    if (fchmod(fd_, 0644 & ~CurrentUmask()) != 0 || close(fd_) != 0) {
      fd_ = -1;
      Fail(ErrnoText("cannot write", archive_));
    }
    fd_ = -1;
    if (rename(temporary_.c_str(), archive_.c_str()) != 0)
      Fail(ErrnoText("cannot write", archive_));
    committed_ = true;
    if (slot_ != nullptr) slot_[0] = '\0';
  }

 private:
  static mode_t CurrentUmask() {
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
  }

  std::string archive_;
  std::string temporary_;
  int fd_ = -1;
  bool committed_ = false;
  char* slot_ = nullptr;  // our entry in g_temporaries
};

class Writer {
 public:
  Writer(int fd, const std::string& charset) : archive_(archive_write_new()) {
    if (archive_ == nullptr) Fail("out of memory");
    if (archive_write_set_format_zip(archive_) != ARCHIVE_OK ||
        archive_write_set_format_option(archive_, "zip", "hdrcharset", charset.c_str()) !=
            ARCHIVE_OK ||
        archive_write_open_fd(archive_, fd) != ARCHIVE_OK) {
      Fail(Error("cannot start the archive"));
    }
  }
  ~Writer() { archive_write_free(archive_); }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  void Add(const Item& item) {
    archive_entry* entry = archive_entry_new();
    archive_entry_copy_stat(entry, &item.info);
    archive_entry_copy_pathname(entry, item.name.c_str());
    const bool file = S_ISREG(item.info.st_mode);
    if (!file) archive_entry_set_size(entry, 0);
    const int result = archive_write_header(archive_, entry);
    archive_entry_free(entry);
    if (result == ARCHIVE_WARN) Warn(Error(item.path));
    if (result < ARCHIVE_WARN) Fail(Error("cannot add " + item.path));
    if (file) CopyContents(item);
  }

  void Close() {
    if (archive_write_close(archive_) != ARCHIVE_OK) Fail(Error("cannot finish the archive"));
  }

 private:
  std::string Error(const std::string& what) const {
    const char* text = archive_error_string(archive_);
    return what + ": " + (text != nullptr ? text : "unknown error");
  }

  void CopyContents(const Item& item) {
    const int fd = open(item.path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) Fail(ErrnoText("cannot read", item.path));
    std::vector<char> block(kBlock);
    int64_t left = item.info.st_size;
    while (left > 0) {
      const ssize_t got =
          read(fd, block.data(), static_cast<size_t>(std::min<int64_t>(left, kBlock)));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) {
        const std::string why =
            got < 0 ? ErrnoText("cannot read", item.path) : item.path + " shrank while being read";
        close(fd);
        Fail(why);
      }
      if (archive_write_data(archive_, block.data(), static_cast<size_t>(got)) != got) {
        close(fd);
        Fail(Error("cannot add " + item.path));
      }
      left -= got;
    }
    close(fd);
  }

  archive* archive_;
};

// Raw little-endian fields of the zip format.
uint64_t Little(const std::string& data, size_t at, int bytes) {
  uint64_t value = 0;
  for (int i = bytes - 1; i >= 0; --i) value = value << 8 | static_cast<uint8_t>(data.at(at + i));
  return value;
}

void SetLittle(std::string& data, size_t at, int bytes, uint64_t value) {
  for (int i = 0; i < bytes; ++i) data.at(at + i) = static_cast<char>(value >> (8 * i) & 0xFF);
}

std::string PutLittle(int bytes, uint64_t value) {
  std::string data(bytes, '\0');
  SetLittle(data, 0, bytes, value);
  return data;
}

uint32_t Crc32(const std::string& data) {
  uint32_t crc = 0xFFFFFFFF;
  for (unsigned char c : data) {
    crc ^= c;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320 & (0 - (crc & 1)));
  }
  return ~crc;
}

std::string ReadAt(int fd, uint64_t offset, uint64_t length) {
  std::string data(length, '\0');
  if (pread(fd, data.data(), length, static_cast<off_t>(offset)) != static_cast<ssize_t>(length))
    Fail("cannot read back the archive");
  return data;
}

void WriteAll(int fd, const std::string& data) {
  for (size_t done = 0; done < data.size();) {
    const ssize_t put = write(fd, data.data() + done, data.size() - done);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) Fail("cannot write the archive");
    done += static_cast<size_t>(put);
  }
}

// Where a central directory entry keeps its local header's offset: the
// entry itself, or its Zip64 field when the entry says 0xFFFFFFFF.
size_t OffsetField(const std::string& entry, size_t extra_at, size_t extra_length) {
  if (Little(entry, 42, 4) != 0xFFFFFFFF) return 42;
  for (size_t at = extra_at; at + 4 <= extra_at + extra_length;) {
    const size_t length = Little(entry, at + 2, 2);
    if (Little(entry, at, 2) == 0x0001) {
      size_t field = at + 4;
      if (Little(entry, 24, 4) == 0xFFFFFFFF) field += 8;
      if (Little(entry, 20, 4) == 0xFFFFFFFF) field += 8;
      if (field + 8 <= at + 4 + length) return field;
    }
    at += 4 + length;
  }
  Fail("unexpected central directory");
}

// The Info-ZIP Unicode Path field: the UTF-8 name, tied by a checksum to
// the stored name it stands for.
std::string UnicodePath(const std::string& stored, const std::string& utf8) {
  const std::string field = "\x01" + PutLittle(4, Crc32(stored)) + utf8;
  return PutLittle(2, 0x7075) + PutLittle(2, field.size()) + field;
}

// libarchive marks every entry as made on Unix, and unzip programs take the
// names of Unix entries as they are: names in an OEM code page come out as
// raw bytes. Marked as made on MS-DOS, their names are converted from the
// OEM code page by the extractors of every system; the Info-ZIP Unicode Path
// field (0x7075), in the local header and the central directory alike (unzip
// compares the two), gives those that read it the exact UTF-8 name. This
// copies the archive that libarchive wrote in `from` to `to` with both.
void CopyWithOemNames(int from, int to, const std::vector<Item>& items) {
  struct stat info;
  if (fstat(from, &info) != 0 || info.st_size < 22) Fail("cannot read back the archive");
  const uint64_t size = static_cast<uint64_t>(info.st_size);
  std::string end = ReadAt(from, size - 22, 22);
  if (Little(end, 0, 4) != 0x06054b50) Fail("unexpected end of the archive");
  uint64_t count = Little(end, 10, 2), cd_size = Little(end, 12, 4), cd_offset = Little(end, 16, 4);
  std::string locator, end64;
  if (size >= 22 + 20 + 56 && Little(locator = ReadAt(from, size - 42, 20), 0, 4) == 0x07064b50) {
    end64 = ReadAt(from, Little(locator, 8, 8), 56);
    if (Little(end64, 0, 4) != 0x06064b50) Fail("unexpected end of the archive");
    count = Little(end64, 32, 8);
    cd_size = Little(end64, 40, 8);
    cd_offset = Little(end64, 48, 8);
  }
  if (count != items.size()) Fail("unexpected entries in the archive");
  const std::string old_cd = ReadAt(from, cd_offset, cd_size);

  // Central entries in the order of their local headers, which is the
  // order libarchive wrote them in.
  struct Central {
    std::string entry;
    size_t offset_field;
  };
  std::vector<Central> centrals;
  size_t at = 0;
  for (const Item& item : items) {
    if (Little(old_cd, at, 4) != 0x02014b50) Fail("unexpected central directory");
    const size_t name_length = Little(old_cd, at + 28, 2),
                 extra_length = Little(old_cd, at + 30, 2);
    const size_t length = 46 + name_length + extra_length + Little(old_cd, at + 32, 2);
    std::string entry = old_cd.substr(at, length);
    at += length;
    const size_t offset_field = OffsetField(entry, 46 + name_length, extra_length);
    const std::string field = UnicodePath(entry.substr(46, name_length), item.name);
    entry.insert(46 + name_length + extra_length, field);
    if (extra_length + field.size() > 0xFFFF) Fail("name too long: " + item.name);
    SetLittle(entry, 30, 2, extra_length + field.size());
    entry[5] = 0;  // made on MS-DOS; the Unix mode stays in the high half
    uint32_t dos_attributes = S_ISDIR(item.info.st_mode) ? 0x10 : 0;
    if ((item.info.st_mode & S_IWUSR) == 0) dos_attributes |= 0x01;
    SetLittle(entry, 38, 1, dos_attributes);
    centrals.push_back({entry, offset_field});
  }

  uint64_t written = 0;
  for (size_t i = 0; i < centrals.size(); ++i) {
    Central& central = centrals[i];
    const int width = central.offset_field == 42 ? 4 : 8;
    const uint64_t old_offset = Little(central.entry, central.offset_field, width);
    const uint64_t next = i + 1 < centrals.size()
                              ? Little(centrals[i + 1].entry, centrals[i + 1].offset_field,
                                       centrals[i + 1].offset_field == 42 ? 4 : 8)
                              : cd_offset;
    std::string local = ReadAt(from, old_offset, 30);
    if (Little(local, 0, 4) != 0x04034b50 || next < old_offset) Fail("unexpected local header");
    const size_t name_length = Little(local, 26, 2), extra_length = Little(local, 28, 2);
    local += ReadAt(from, old_offset + 30, name_length + extra_length);
    const std::string field = UnicodePath(local.substr(30, name_length), items[i].name);
    local += field;
    SetLittle(local, 28, 2, extra_length + field.size());
    // unzip takes an entry with both this field and a data descriptor for
    // overlapping the next; the sizes are known now, so they go into the
    // local header and the descriptor is left out (not for Zip64 sizes).
    uint64_t data_end = next;
    if ((Little(local, 6, 2) & 0x08) != 0 && Little(central.entry, 20, 4) != 0xFFFFFFFF &&
        Little(central.entry, 24, 4) != 0xFFFFFFFF) {
      SetLittle(local, 6, 2, Little(local, 6, 2) & ~0x08);
      SetLittle(central.entry, 8, 2, Little(central.entry, 8, 2) & ~0x08);
      local.replace(14, 12, central.entry.substr(16, 12));  // CRC and both sizes
      data_end = old_offset + 30 + name_length + extra_length + Little(central.entry, 20, 4);
      if (data_end > next) Fail("unexpected local header");
    }
    if (width == 4 && written >= 0xFFFFFFFF) Fail("archive too large for OEM names");
    SetLittle(central.entry, central.offset_field, width, written);
    WriteAll(to, local);
    written += local.size();
    for (uint64_t from_at = old_offset + 30 + name_length + extra_length; from_at < data_end;) {
      const std::string block =
          ReadAt(from, from_at, std::min<uint64_t>(kBlock, data_end - from_at));
      WriteAll(to, block);
      from_at += block.size();
      written += block.size();
    }
  }

  std::string cd;
  for (const Central& central : centrals) cd += central.entry;
  const uint64_t new_cd_offset = written;
  if (!end64.empty()) {
    SetLittle(end64, 40, 8, cd.size());
    SetLittle(end64, 48, 8, new_cd_offset);
    SetLittle(locator, 8, 8, new_cd_offset + cd.size());
    cd += end64 + locator;
  }
  for (const auto& [offset, value] :
       {std::pair<size_t, uint64_t>{12, cd.size()}, {16, new_cd_offset}}) {
    if (Little(end, offset, 4) == 0xFFFFFFFF) continue;
    if (value >= 0xFFFFFFFF) Fail("archive too large for OEM names");
    SetLittle(end, offset, 4, value);
  }
  WriteAll(to, cd + end);
}

int Run(int argc, char** argv) {
  LimitResources();
  const Options options = ParseCommandLine(argc, argv);
  // Names are UTF-8 on this appliance, and libarchive converts names from
  // the locale's character set.
  if (setlocale(LC_CTYPE, "C.UTF-8") == nullptr && setlocale(LC_CTYPE, "C.utf8") == nullptr) {
    Fail("no UTF-8 locale (C.UTF-8) is available");
  }
  Collector collector(options, options.archive);
  for (const std::string& input : options.inputs) collector.AddInput(input);
  const std::vector<Item>& items = collector.items();
  if (items.empty()) Fail("nothing to add");

  std::string charset = "UTF-8";
  if (options.code_page) {
    if (const std::optional<std::string> wanted = CharsetFor(*options.code_page)) {
      std::vector<std::string> names;
      for (const Item& item : items) names.push_back(item.name);
      if (AllConvert(*wanted, names)) charset = *wanted;
    }
  }
  Output output(options.archive);
  if (charset == "UTF-8") {
    Writer writer(output.fd(), charset);
    for (const Item& item : items) writer.Add(item);
    writer.Close();
  } else {
    const Output scratch(options.archive);  // never committed: removed
    Writer writer(scratch.fd(), charset);
    for (const Item& item : items) writer.Add(item);
    writer.Close();
    CopyWithOemNames(scratch.fd(), output.fd(), items);
  }
  output.Commit();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const Failure& failure) {
    std::fprintf(stderr, "zip: %s\n", failure.what());
    return failure.status;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zip: %s\n", e.what());
    return 1;
  }
}
