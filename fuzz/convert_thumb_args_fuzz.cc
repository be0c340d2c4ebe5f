// convert-thumb's command line and names: what it accepts before a byte of
// the image is read (paths, options, the request user), which coder the
// first bytes of a file pick and which coder a destination's name asks for
// (the program's file, with its main renamed; without a request user it
// never gets as far as opening a file). Input: NUL-separated arguments;
// the first 16 bytes also serve as a file's head.
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
#include <set>
#include <string>
#include <vector>

#include "appliance/system/appliance.h"
#include "appliance/system/share_path.h"
#include "fuzz/fuzz_util.h"

#define main ConvertThumbMain
#include "appliance/tools/programs/convert_thumb.cc"
#undef main

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::string coder = RasterCoder(input.substr(0, 16));
  static const std::set<std::string> kCoders = {"", "JPEG", "PNG", "GIF", "WEBP", "BMP"};
  if (!kCoders.count(coder)) larkpost::fuzz::Broken("a coder outside the list: " + coder);

  auto pieces = larkpost::fuzz::SplitNul(input);
  if (pieces.size() > 64) return 0;
  const std::string out = OutputCoder(pieces.back(), coder);
  if (!kCoders.count(out) || (out.empty() && !coder.empty())) {
    larkpost::fuzz::Broken("an output coder outside the list: " + out);
  }
  std::vector<std::string> args = {"convert-thumb"};
  args.insert(args.end(), pieces.begin(), pieces.end());
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  unsetenv(larkpost::appliance::kRequestUserVariable);
  if (ConvertThumbMain(static_cast<int>(args.size()), argv.data()) != 1) {
    larkpost::fuzz::Broken("a conversion without a request user");
  }
  larkpost::appliance::ParseRequestUser(pieces[0].c_str());
  return 0;
}
