// zip's command line and names: files with the input's names are archived
// with the input's code page, and the archive holds one entry per file and
// folder, none of them reaching outside the folder it is unpacked into (the
// program's file, with its main renamed). Input: NUL-separated pieces: the
// code page ("" for none, "UN" for -UN=UTF8), flags ("j", "r", "/" to name
// the inputs with a "./" in front), then the file names.
#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <iconv.h>
#include <locale.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/fuzz_util.h"

#define main ZipMain
#include "appliance/tools/programs/zip.cc"
#undef main

using larkpost::fuzz::Broken;

namespace {

std::string base;

void RemoveAll(const std::string& path) {
  nftw(
      path.c_str(), [](const char* p, const struct stat*, int, FTW*) { return remove(p); }, 16,
      FTW_DEPTH | FTW_PHYS);
}

// Makes `name` (relative, below the current folder) as a file, its folders
// first; false when it cannot be made or would leave the folder.
bool MakeFile(const std::string& name) {
  if (name.empty() || name[0] == '/' || name.size() > 200) return false;
  size_t start = 0;
  for (;;) {
    const size_t slash = name.find('/', start);
    const std::string step = name.substr(start, slash - start);
    if (step == "..") return false;
    if (slash == std::string::npos) break;
    if (mkdir(name.substr(0, slash).c_str(), 0700) != 0 && errno != EEXIST) return false;
    start = slash + 1;
  }
  if (name.back() == '/') return true;
  const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  const ssize_t wrote = write(fd, name.data(), name.size());
  close(fd);
  return wrote == static_cast<ssize_t>(name.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (base.empty()) {
    char pattern[] = "/tmp/larkpost-fuzz-zip-XXXXXX";
    if (mkdtemp(pattern) == nullptr) abort();
    base = pattern;
    atexit([] { RemoveAll(base); });
  }
  const auto pieces = larkpost::fuzz::SplitNul({reinterpret_cast<const char*>(data), size});
  if (pieces.size() < 3 || pieces.size() > 40) return 0;
  const std::string in = base + "/in", archive_path = base + "/out.zip";
  RemoveAll(in);
  unlink(archive_path.c_str());
  // zip runs in the folder of the inputs, as the plug-in runs it; libFuzzer
  // finds its corpus where it started.
  const int started = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (started < 0 || mkdir(in.c_str(), 0700) != 0 || chdir(in.c_str()) != 0) abort();

  std::vector<std::string> args = {"zip"};
  const std::string& flags = pieces[1];
  std::string options = "-";
  if (flags.find('j') != std::string::npos) options += 'j';
  if (flags.find('r') != std::string::npos) options += 'r';
  if (options.size() > 1) args.push_back(options);
  args.push_back(archive_path);
  if (pieces[0] == "UN") {
    args.push_back("-UN=UTF8");
  } else if (!pieces[0].empty()) {
    args.push_back("-cp");
    args.push_back(pieces[0]);
  }
  args.push_back("--");
  std::set<std::string> made;
  for (size_t i = 2; i < pieces.size(); ++i) {
    if (!MakeFile(pieces[i]) || !made.insert(pieces[i]).second) continue;
    args.push_back((flags.find('/') != std::string::npos ? "./" : "") + pieces[i]);
  }
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  bool written = false;
  try {
    written = Run(static_cast<int>(args.size()), argv.data()) == 0;
  } catch (const Failure&) {
  }
  if (fchdir(started) != 0) abort();
  close(started);
  if (!written) return 0;

  struct archive* reader = archive_read_new();
  archive_read_support_format_zip(reader);
  if (archive_read_open_filename(reader, archive_path.c_str(), 10240) != ARCHIVE_OK) {
    Broken(std::string("the archive cannot be read: ") + archive_error_string(reader));
  }
  archive_entry* entry;
  while (archive_read_next_header(reader, &entry) == ARCHIVE_OK) {
    const char* name = archive_entry_pathname(entry);
    if (name == nullptr) continue;
    const std::string path = name;
    if (path.empty() || path[0] == '/') Broken("an entry named " + path);
    for (size_t start = 0; start <= path.size();) {
      const size_t slash = std::min(path.find('/', start), path.size());
      if (path.compare(start, slash - start, "..") == 0 && slash - start == 2) {
        Broken("an entry that climbs out: " + path);
      }
      start = slash + 1;
    }
  }
  archive_read_free(reader);
  return 0;
}
