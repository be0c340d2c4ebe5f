// convert-thumb SOURCE OPTION... DESTINATION
//
// The image converter of the appliance: the arguments go to ImageMagick's
// convert as they are, so "-auto-orient" turns a photo upright and
// "-thumbnail 320x320>" makes a preview. Exit status 0 when the destination
// was written, 1 with a message on standard error otherwise.
//
// Source and destination must be absolute paths: ImageMagick reads a leading
// "name:" as a coder and a leading "-" as an option, and neither may come in
// through a file name. The result is written under a temporary name beside
// the destination and renamed into place, so a failed conversion leaves no
// half-written file behind.
#include <errno.h>
#include <stdlib.h>
#include <unistd.h>
#include <wand/MagickWand.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

int Fail(const std::string& message) {
  std::fprintf(stderr, "convert-thumb: %s\n", message.c_str());
  return 1;
}

// A temporary name beside `destination` that keeps its extension, from
// which ImageMagick takes the output format.
std::string TemporaryBeside(const std::string& destination, int* fd) {
  const size_t slash = destination.rfind('/');
  const std::string tail = "-" + destination.substr(slash + 1);
  std::string name = destination.substr(0, slash + 1) + ".convert-XXXXXX" + tail;
  *fd = mkstemps(name.data(), static_cast<int>(tail.size()));
  return *fd < 0 ? std::string() : name;
}

int Convert(int argc, char** argv) {
  ImageInfo* info = AcquireImageInfo();
  ExceptionInfo* exception = AcquireExceptionInfo();
  const MagickBooleanType converted = ConvertImageCommand(info, argc, argv, nullptr, exception);
  std::string problem;
  if (exception->severity != UndefinedException) {
    problem = exception->reason != nullptr ? exception->reason : "unknown problem";
    if (exception->description != nullptr)
      problem += std::string(" (") + exception->description + ")";
  }
  DestroyExceptionInfo(exception);
  DestroyImageInfo(info);
  if (converted == MagickFalse) return Fail(problem.empty() ? "conversion failed" : problem);
  if (!problem.empty()) std::fprintf(stderr, "convert-thumb: warning: %s\n", problem.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return Fail("usage: convert-thumb SOURCE [OPTION...] DESTINATION");
  const std::string source = argv[1];
  const std::string destination = argv[argc - 1];
  if (source.empty() || source[0] != '/' || destination.size() < 2 || destination[0] != '/' ||
      destination.back() == '/') {
    return Fail("source and destination must be absolute file paths");
  }
  int fd = -1;
  const std::string temporary = TemporaryBeside(destination, &fd);
  if (temporary.empty()) {
    return Fail("cannot write beside " + destination + ": " + std::strerror(errno));
  }
  close(fd);

  std::vector<char*> args(argv, argv + argc);
  args.back() = const_cast<char*>(temporary.c_str());
  args.push_back(nullptr);
  MagickWandGenesis();
  int status = Convert(argc, args.data());
  MagickWandTerminus();

  if (status == 0 && rename(temporary.c_str(), destination.c_str()) != 0) {
    status = Fail("cannot write " + destination + ": " + std::strerror(errno));
  }
  if (status != 0) unlink(temporary.c_str());
  return status;
}
