// convert-thumb SOURCE OPTION... DESTINATION
//
// The image converter of the appliance: "-auto-orient" turns a photo
// upright and "-thumbnail 320x320>" makes a preview, as ImageMagick's
// convert would. Exit status 0 when the destination was written, 1 with a
// message on standard error otherwise.
//
// What it reads comes from mail, so it reads as little as it can:
// - SOURCE is opened beneath the folder it lies in with the rights of the
//   user whose request this is ($LARKPOST_REQUEST_USER, set by the file
//   services that start us), like any other file a request names;
// - only the raster formats a mail reader shows are decoded (JPEG, PNG, GIF,
//   WebP, BMP), recognised by their first bytes and handed to that coder
//   alone, so ImageMagick never guesses a format from the content or the name
//   (SVG, MVG, MSL, text and the like can name other files). TIFF is left out:
//   browsers do not show it, and its decoder is a large surface;
// - options are the ones the webmail uses, nothing that names a file;
// - ImageMagick runs under our own security policy (share/larkpost/imagemagick
//   /policy.xml: those coders only, no delegates, no "@file", resource
//   limits) and under rlimits, in a child that has given up root for nobody
//   before it decodes a byte. The child reads and writes only the
//   descriptors opened for it.
// The result is written under a fresh name beside DESTINATION and renamed
// into place once the child succeeded, so a failed conversion leaves nothing.
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <wand/MagickWand.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "appliance/system/appliance.h"
#include "appliance/system/share_path.h"

namespace {

namespace appliance = larkpost::appliance;

constexpr uid_t kNobody = 65534;
constexpr gid_t kNoGroup = 65534;
constexpr rlim_t kCpuSeconds = 30;
constexpr rlim_t kLargestOutput = rlim_t{64} * 1024 * 1024;
#ifndef __SANITIZE_ADDRESS__
constexpr rlim_t kAddressSpace = rlim_t{1024} * 1024 * 1024;
#endif

int Fail(const std::string& message) {
  std::fprintf(stderr, "convert-thumb: %s\n", message.c_str());
  return 1;
}

// The ImageMagick coder for content that begins with `head`; "" for what we
// do not read.
std::string RasterCoder(const std::string& head) {
  const struct {
    size_t at;
    std::string magic;
    const char* coder;
  } kinds[] = {
      {0, "\xFF\xD8\xFF", "JPEG"},
      {0, "\x89PNG\r\n\x1A\n", "PNG"},
      {0, "GIF87a", "GIF"},
      {0, "GIF89a", "GIF"},
      {8, "WEBP", "WEBP"},  // after "RIFF" and the length
      {0, "BM", "BMP"},
  };
  for (const auto& kind : kinds) {
    if (head.size() >= kind.at && head.compare(kind.at, kind.magic.size(), kind.magic) == 0 &&
        (kind.at == 0 || head.compare(0, 4, "RIFF") == 0)) {
      return kind.coder;
    }
  }
  return "";
}

// The coder that a destination's extension asks for; the source's for a name
// without one we write (the upload's temporary files have none).
std::string OutputCoder(const std::string& destination, const std::string& source_coder) {
  static const std::map<std::string, std::string> kByExtension = {
      {"jpg", "JPEG"}, {"jpeg", "JPEG"}, {"png", "PNG"},
      {"gif", "GIF"},  {"webp", "WEBP"}, {"bmp", "BMP"}};
  const size_t slash = destination.rfind('/');
  const size_t dot = destination.rfind('.');
  if (dot == std::string::npos || dot < slash) return source_coder;
  std::string extension = destination.substr(dot + 1);
  for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const auto found = kByExtension.find(extension);
  return found == kByExtension.end() ? source_coder : found->second;
}

// The options we pass on, with the number of values each takes.
bool AllowedOptions(int argc, char** argv) {
  static const std::map<std::string, int> kOptions = {
      {"-auto-orient", 0}, {"-define", 1},     {"-thumbnail", 1}, {"-resize", 1}, {"-quality", 1},
      {"-unsharp", 1},     {"-colorspace", 1}, {"-flatten", 0},   {"-strip", 0}};
  for (int i = 2; i < argc - 1; ++i) {
    const auto found = kOptions.find(argv[i]);
    if (found == kOptions.end() || i + found->second >= argc - 1) return false;
    i += found->second;
  }
  return true;
}

// <folder of this program>/../share/larkpost/imagemagick.
std::string PolicyDir() {
  char self[PATH_MAX];
  const ssize_t size = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (size <= 0) return std::string();
  std::string dir(self, static_cast<size_t>(size));
  dir.erase(dir.rfind('/'));
  return dir + "/../share/larkpost/imagemagick";
}

// A fresh file beside nothing else in `dir_fd`, opened for writing; its name
// in `name`. -1 when none can be made.
int CreateTemporary(int dir_fd, std::string* name) {
  for (int attempt = 0; attempt < 16; ++attempt) {
    unsigned char random[6];
    if (getrandom(random, sizeof(random), 0) != sizeof(random)) return -1;
    char text[sizeof(random) * 2 + 1];
    for (size_t i = 0; i < sizeof(random); ++i) std::snprintf(text + 2 * i, 3, "%02x", random[i]);
    *name = std::string(".convert-") + text;
    const int fd =
        openat(dir_fd, name->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  errno = EEXIST;
  return -1;
}

void Limit(int resource, rlim_t value) {
  const struct rlimit limit = {value, value};
  setrlimit(resource, &limit);
}

// Gives up root for good: no way back, no groups.
bool BecomeNobody() {
  if (geteuid() != 0) return true;  // nothing to give up
  return setgroups(0, nullptr) == 0 && setresgid(kNoGroup, kNoGroup, kNoGroup) == 0 &&
         setresuid(kNobody, kNobody, kNobody) == 0 && getuid() == kNobody;
}

// The child's work: decode `in` with `coder`, apply the options, encode into
// `out` with `out_coder`. Returns the exit status.
int Decode(int argc, char** argv, int in, const std::string& coder, int out,
           const std::string& out_coder) {
  Limit(RLIMIT_CPU, kCpuSeconds);
  Limit(RLIMIT_FSIZE, kLargestOutput);
  Limit(RLIMIT_CORE, 0);
#ifndef __SANITIZE_ADDRESS__
  Limit(RLIMIT_AS, kAddressSpace);
#endif
  // The policy is read when ImageMagick starts, while the files that hold
  // it can still be read; decoding starts only after root is gone.
  setenv("MAGICK_CONFIGURE_PATH", PolicyDir().c_str(), 1);
  MagickWandGenesis();
  if (IsRightsAuthorized(CoderPolicyDomain, ReadPolicyRights, "SVG") != MagickFalse ||
      IsRightsAuthorized(DelegatePolicyDomain, ExecutePolicyRights, "*") != MagickFalse ||
      IsRightsAuthorized(CoderPolicyDomain, ReadPolicyRights, coder.c_str()) == MagickFalse) {
    return Fail("ImageMagick's security policy is not in force (" + PolicyDir() + ")");
  }
  if (!BecomeNobody()) return Fail(std::string("cannot give up root: ") + std::strerror(errno));

  const std::string input = coder + ":fd:" + std::to_string(in);
  const std::string output = out_coder + ":fd:" + std::to_string(out);
  std::vector<char*> args(argv, argv + argc);
  args[1] = const_cast<char*>(input.c_str());
  args.back() = const_cast<char*>(output.c_str());
  args.push_back(nullptr);

  ImageInfo* info = AcquireImageInfo();
  ExceptionInfo* exception = AcquireExceptionInfo();
  const MagickBooleanType converted =
      ConvertImageCommand(info, argc, args.data(), nullptr, exception);
  std::string problem;
  if (exception->severity != UndefinedException) {
    problem = exception->reason != nullptr ? exception->reason : "unknown problem";
    if (exception->description != nullptr)
      problem += std::string(" (") + exception->description + ")";
  }
  if (converted == MagickFalse) return Fail(problem.empty() ? "conversion failed" : problem);
  if (!problem.empty()) std::fprintf(stderr, "convert-thumb: warning: %s\n", problem.c_str());
  return 0;
}

// Closes a descriptor when it goes out of scope.
struct Closer {
  int fd;
  ~Closer() {
    if (fd >= 0) close(fd);
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return Fail("usage: convert-thumb SOURCE [OPTION...] DESTINATION");
  const std::string source = argv[1];
  const std::string destination = argv[argc - 1];
  if (source.empty() || source[0] != '/' || destination.size() < 2 || destination[0] != '/' ||
      destination.back() == '/') {
    return Fail("source and destination must be absolute file paths");
  }
  if (!AllowedOptions(argc, argv)) return Fail("an option that is not allowed");
  const auto user = appliance::ParseRequestUser(getenv(appliance::kRequestUserVariable));
  if (!user) return Fail(std::string("no request user in $") + appliance::kRequestUserVariable);
  appliance::SetRequestUser(*user);

  const Closer in{appliance::OpenBeneathRoot(source, O_RDONLY | O_NONBLOCK)};
  struct stat info;
  if (in.fd < 0 || fstat(in.fd, &info) != 0) {
    return Fail("cannot read " + source + ": " + std::strerror(errno));
  }
  if (!S_ISREG(info.st_mode)) return Fail(source + " is not a file");
  fcntl(in.fd, F_SETFL, fcntl(in.fd, F_GETFL) & ~O_NONBLOCK);
  std::string head(16, '\0');
  const ssize_t got = pread(in.fd, head.data(), head.size(), 0);
  head.resize(got > 0 ? static_cast<size_t>(got) : 0);
  const std::string coder = RasterCoder(head);
  if (coder.empty()) return Fail(source + " is not a JPEG, PNG, GIF, WebP or BMP image");

  const size_t slash = destination.rfind('/');
  const std::string folder = slash == 0 ? "/" : destination.substr(0, slash);
  const std::string name = destination.substr(slash + 1);
  const Closer dir{appliance::OpenBeneathRoot(folder, O_PATH | O_DIRECTORY)};
  std::string temporary;
  const Closer out{dir.fd < 0 ? -1 : CreateTemporary(dir.fd, &temporary)};
  if (out.fd < 0) return Fail("cannot write beside " + destination + ": " + std::strerror(errno));

  std::fflush(stderr);
  const pid_t child = fork();
  if (child == 0) {
    // _exit: the child leaves without the parent's exit handlers.
    _exit(Decode(argc, argv, in.fd, coder, out.fd, OutputCoder(destination, coder)));
  }
  int status = 0;
  bool written = child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
                 WEXITSTATUS(status) == 0;
  if (child > 0 && WIFSIGNALED(status)) {
    Fail("the conversion was stopped by signal " + std::to_string(WTERMSIG(status)));
  }
  written = written && fstat(out.fd, &info) == 0 && info.st_size > 0;
  if (written && renameat(dir.fd, temporary.c_str(), dir.fd, name.c_str()) != 0) {
    written = false;
    Fail("cannot write " + destination + ": " + std::strerror(errno));
  }
  if (!written) {
    unlinkat(dir.fd, temporary.c_str(), 0);
    return 1;
  }
  return 0;
}
