// The platform programs as the plug-in runs them: convert-thumb with the
// plug-in's two argument vectors, for a user, on files in that user's
// application folder; zip with each form of naming; both read back with the
// libraries that understand their output.
#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <wand/MagickWand.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "appliance/system/appliance.h"
#include "tests/system/temp_root.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

std::string ReadFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

constexpr uint32_t kUser = 1026;

class ProgramsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { MagickWandGenesis(); }
  static void TearDownTestSuite() { MagickWandTerminus(); }

  // The file services tell a program whose request it serves.
  ProgramsTest() { setenv("LARKPOST_REQUEST_USER", std::to_string(kUser).c_str(), 1); }
  ~ProgramsTest() override { unsetenv("LARKPOST_REQUEST_USER"); }

  std::string Path(const std::string& name) const { return root_.path() + "/" + name; }
  // In the request user's application folder, where the webmail converts.
  std::string Image(const std::string& name) const {
    const std::string path = larkpost::appliance::UserDir(kUser) + "/.ORNIC/" + name;
    fs::create_directories(fs::path(path).parent_path());
    return path;
  }

  struct Outcome {
    int status = -1;  // the exit status; -1 when the program did not exit
    std::string errors;
  };

  Outcome Run(const char* program, const std::vector<std::string>& args) const {
    std::vector<char*> argv = {const_cast<char*>(program)};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    const std::string errors = Path("stderr");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = 0;
    int status = 0;
    Outcome outcome;
    if (posix_spawn(&pid, program, &actions, nullptr, argv.data(), environ) == 0 &&
        waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
      outcome.status = WEXITSTATUS(status);
    }
    posix_spawn_file_actions_destroy(&actions);
    outcome.errors = ReadFile(errors);
    unlink(errors.c_str());
    return outcome;
  }

  std::set<std::string> Listing() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(root_.path())) {
      names.insert(entry.path().filename().string());
    }
    return names;
  }

  larkpost::testing::TempRoot root_;
};

// ------------------------------------------------------------ convert-thumb

// A picture red at the top and blue at the bottom.
void MakeImage(const std::string& path, size_t width, size_t height) {
  MagickWand* wand = NewMagickWand();
  MagickSetSize(wand, width, height);
  ASSERT_EQ(MagickReadImage(wand, "gradient:red-blue"), MagickTrue);
  MagickStripImage(wand);
  ASSERT_EQ(MagickWriteImage(wand, path.c_str()), MagickTrue);  // format by extension
  DestroyMagickWand(wand);
}

struct Picture {
  std::string format;
  size_t width = 0, height = 0;
  OrientationType orientation = UndefinedOrientation;
  double red_left = 0, red_right = 0;  // 0..1, halfway down
};

Picture ReadImage(const std::string& path) {
  Picture picture;
  MagickWand* wand = NewMagickWand();
  if (MagickReadImage(wand, path.c_str()) == MagickTrue) {
    char* format = MagickGetImageFormat(wand);
    picture.format = format;
    MagickRelinquishMemory(format);
    picture.width = MagickGetImageWidth(wand);
    picture.height = MagickGetImageHeight(wand);
    picture.orientation = MagickGetImageOrientation(wand);
    PixelWand* pixel = NewPixelWand();
    const auto y = static_cast<ssize_t>(picture.height / 2);
    MagickGetImagePixelColor(wand, 1, y, pixel);
    picture.red_left = PixelGetRed(pixel);
    MagickGetImagePixelColor(wand, static_cast<ssize_t>(picture.width) - 2, y, pixel);
    picture.red_right = PixelGetRed(pixel);
    DestroyPixelWand(pixel);
  }
  DestroyMagickWand(wand);
  return picture;
}

// The preview vector of the attachment download.
std::vector<std::string> ThumbnailArgs(const std::string& source, const std::string& preview) {
  return {source,     "-auto-orient", "-define",  "jpeg:size=320x320", "-thumbnail",  "320x320>",
          "-quality", "90",           "-unsharp", "0.5x0.5+1.25+0.0",  "-colorspace", "sRGB",
          "-flatten", preview};
}

// An EXIF block with the orientation tag, right after the start-of-image
// marker.
std::string WithExifOrientation(const std::string& jpeg, char orientation) {
  const std::string body = std::string("Exif\0\0MM\0\x2A\0\0\0\x08", 14) +  // big-endian TIFF
                           std::string("\0\x01\x01\x12\0\x03\0\0\0\x01\0", 11) + orientation +
                           std::string("\0\0\0\0\0\0", 6);  // one SHORT entry, no next IFD
  const size_t length = body.size() + 2;
  return jpeg.substr(0, 2) + "\xFF\xE1" + char(length >> 8) + char(length & 0xFF) + body +
         jpeg.substr(2);
}

TEST_F(ProgramsTest, ThumbnailsAreJpegsWithinTheBoxAndNeverEnlarged) {
  const struct {
    const char* source;
    size_t width, height, thumb_width, thumb_height;
  } cases[] = {
      {"wide.jpg", 800, 600, 320, 240},
      {"tall.png", 600, 800, 240, 320},
      {"small.gif", 100, 50, 100, 50},
  };
  for (const auto& c : cases) {
    MakeImage(Image(c.source), c.width, c.height);
    const std::string preview = Image(std::string(c.source) + ".preview.jpg");
    const Outcome outcome = Run(CONVERT_THUMB, ThumbnailArgs(Image(c.source), preview));
    ASSERT_EQ(outcome.status, 0) << c.source << ": " << outcome.errors;
    EXPECT_EQ(ReadFile(preview).substr(0, 3), "\xFF\xD8\xFF") << c.source;
    const Picture thumb = ReadImage(preview);
    EXPECT_EQ(thumb.format, "JPEG");
    EXPECT_EQ(std::make_pair(thumb.width, thumb.height),
              std::make_pair(c.thumb_width, c.thumb_height))
        << c.source;
  }
}

TEST_F(ProgramsTest, AutoOrientTurnsARotatedPhotoUpright) {
  MakeImage(Image("plain.jpg"), 40, 20);
  // Orientation 6: to be seen upright, the picture turns 90 degrees
  // clockwise, and red, now at the top, ends up on the right.
  std::ofstream(Image("rotated.jpg"), std::ios::binary)
      << WithExifOrientation(ReadFile(Image("plain.jpg")), 6);
  ASSERT_EQ(ReadImage(Image("rotated.jpg")).orientation, RightTopOrientation);
  // The upload's vector writes to a name without an extension: the format
  // stays the source's.
  for (const auto& args : {std::vector<std::string>{Image("rotated.jpg"), "-auto-orient",
                                                    Image("attachment_AbCd1234")},
                           ThumbnailArgs(Image("rotated.jpg"), Image("thumb.jpg"))}) {
    const Outcome outcome = Run(CONVERT_THUMB, args);
    ASSERT_EQ(outcome.status, 0) << outcome.errors;
    const Picture upright = ReadImage(args.back());
    EXPECT_EQ(upright.format, "JPEG");
    EXPECT_EQ(std::make_pair(upright.width, upright.height),
              std::make_pair(size_t{20}, size_t{40}));
    EXPECT_GT(upright.red_right, 0.8);
    EXPECT_LT(upright.red_left, 0.2);
    // And saying so: a viewer must not turn it again.
    EXPECT_NE(upright.orientation, RightTopOrientation);
  }
}

TEST_F(ProgramsTest, ConversionFailuresSayWhyAndLeaveNoFile) {
  std::ofstream(Image("text.jpg")) << "not a picture at all";
  std::ofstream(Image("tiny.bmp")) << "BM";  // shorter than any file head we look at
  MakeImage(Image("ok.jpg"), 10, 10);
  const std::vector<std::string> cases[] = {
      {Image("missing.jpg"), "-auto-orient", Image("out/a")},
      ThumbnailArgs(Image("text.jpg"), Image("out/b.jpg")),
      ThumbnailArgs(Image("tiny.bmp"), Image("out/e.jpg")),
      {"gradient:red-blue", "-auto-orient", Image("out/c.jpg")},   // a coder, not a file
      {Image("ok.jpg"), "-auto-orient", "msl:" + Image("out/d")},  // a coder, not a file
      {Image("ok.jpg")},
  };
  fs::create_directory(Image("out"));
  for (const auto& args : cases) {
    const Outcome outcome = Run(CONVERT_THUMB, args);
    EXPECT_EQ(outcome.status, 1) << args.back();
    EXPECT_EQ(outcome.errors.rfind("convert-thumb: ", 0), 0u) << outcome.errors;
    EXPECT_TRUE(fs::is_empty(Image("out"))) << args.back();
  }
}

// Content from mail: only the raster formats are decoded, recognised by
// their bytes whatever the name says, and only files beneath the request
// user's folders are read, never through a link. (An SVG mailed as PNG is
// tried through the host, in ShareSecurityTest.)
TEST_F(ProgramsTest, ReadsOnlyRasterImagesBeneathTheUsersFolders) {
  MakeImage(Path("secret.png"), 8, 8);  // below the data root, in no folder of the user's
  MakeImage(Image("@tmp/real.png"), 8, 8);
  fs::create_symlink(Image("@tmp/real.png"), Image("@tmp/link.png"));
  const std::string secret = Path("secret.png");
  const std::string mvg = "push graphic-context\nviewbox 0 0 8 8\nimage over 0,0 8,8 '" + secret +
                          "'\npop graphic-context\n";
  const struct {
    std::string what, content, source;
    bool user_known;
    int status;
  } cases[] = {
      {"png", "", Image("@tmp/real.png"), true, 0},
      {"mvg", mvg, "", true, 1},
      {"text", "text:" + secret, "", true, 1},
      {"tiff", std::string("II*\0\x08\0\0\0", 8), "", true, 1},
      {"a link", "", Image("@tmp/link.png"), true, 1},
      {"no folder of the user's", "", secret, true, 1},
      {"out of the folder", "", Image("@tmp/../../../../secret.png"), true, 1},
      {"whose request?", "", Image("@tmp/real.png"), false, 1},
  };
  for (const auto& c : cases) {
    std::string source = c.source;
    if (source.empty()) {
      source = Image("@tmp/attachment_" + c.what + ".png");
      std::ofstream(source, std::ios::binary) << c.content;
    }
    if (!c.user_known) unsetenv("LARKPOST_REQUEST_USER");
    const std::string preview = Image("@image/preview.jpg");
    const Outcome outcome = Run(CONVERT_THUMB, ThumbnailArgs(source, preview));
    setenv("LARKPOST_REQUEST_USER", std::to_string(kUser).c_str(), 1);
    EXPECT_EQ(outcome.status, c.status) << c.what << ": " << outcome.errors;
    if (c.status == 0) {
      EXPECT_EQ(ReadImage(preview).format, "JPEG");
    } else {
      EXPECT_EQ(outcome.errors.rfind("convert-thumb: ", 0), 0u) << outcome.errors;
      EXPECT_TRUE(fs::is_empty(Image("@image"))) << c.what;
    }
    fs::remove(preview);
  }
  // Written only into a folder of the user's.
  const Outcome outside = Run(CONVERT_THUMB, ThumbnailArgs(Image("@tmp/real.png"), Path("x.jpg")));
  EXPECT_EQ(outside.status, 1);
  EXPECT_FALSE(fs::exists(Path("x.jpg")));
}

// --------------------------------------------------------------------- zip

// What an unzip program sees of an entry: the stored name bytes, whether the
// name is flagged as UTF-8, and the contents.
using Entry = std::tuple<std::string, bool, std::string>;

uint32_t Little(const std::string& data, size_t at, int bytes) {
  uint32_t value = 0;
  for (int i = bytes - 1; i >= 0; --i) value = value << 8 | static_cast<uint8_t>(data[at + i]);
  return value;
}

// Names and flags from the central directory as stored (a library would
// convert them); contents through libarchive, in the same order.
std::vector<Entry> ReadZip(const std::string& path) {
  const std::string data = ReadFile(path);
  std::vector<Entry> entries;
  const size_t end = data.rfind(std::string("PK\x05\x06", 4));
  if (end == std::string::npos) return entries;
  size_t at = Little(data, end + 16, 4);
  for (uint32_t i = 0, count = Little(data, end + 10, 2); i < count; ++i) {
    const size_t name_length = Little(data, at + 28, 2);
    entries.emplace_back(data.substr(at + 46, name_length), (Little(data, at + 8, 2) & 0x0800) != 0,
                         "");
    at += 46 + name_length + Little(data, at + 30, 2) + Little(data, at + 32, 2);
  }
  archive* reader = archive_read_new();
  archive_read_support_format_zip(reader);
  archive_read_open_filename(reader, path.c_str(), 10240);
  archive_entry* header = nullptr;
  for (Entry& entry : entries) {
    if (archive_read_next_header(reader, &header) < ARCHIVE_WARN) break;
    char block[4096];
    for (la_ssize_t got; (got = archive_read_data(reader, block, sizeof(block))) > 0;) {
      std::get<2>(entry).append(block, static_cast<size_t>(got));
    }
  }
  archive_read_free(reader);
  return entries;
}

TEST_F(ProgramsTest, ZipJunksPathsRecursesAndKeepsEveryByte) {
  std::string big(300 * 1024 + 3, '\0');  // several blocks
  std::mt19937 random(11);
  for (char& c : big) c = static_cast<char>(random());
  root_.Write("work/b.pdf", "pdf");
  root_.Write("work/a_1.pdf", "");
  root_.Write("work/sub/deeper/big.bin", big);
  root_.Write("work/sub/..\\..\\up.txt", "up");  // a step up for Windows extractors
  fs::create_symlink(Path("work/b.pdf"), Path("work/link.pdf"));
  const Outcome outcome = Run(ZIP_PROGRAM, {"-jr", Path("work.zip"), "-UN=UTF8", Path("work")});
  ASSERT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_EQ(ReadZip(Path("work.zip")), (std::vector<Entry>{{"a_1.pdf", false, ""},
                                                           {"b.pdf", false, "pdf"},
                                                           {"link.pdf", false, "pdf"},
                                                           {"up.txt", false, "up"},
                                                           {"big.bin", false, big}}));
  const Outcome kept = Run(ZIP_PROGRAM, {"-r", Path("kept.zip"), Path("work/sub")});
  ASSERT_EQ(kept.status, 0) << kept.errors;
  std::set<std::string> names;
  for (const Entry& entry : ReadZip(Path("kept.zip"))) names.insert(std::get<0>(entry));
  EXPECT_EQ(names.count(Path("work/sub/up.txt").substr(1)), 1u) << kept.errors;
  EXPECT_EQ(Listing(), (std::set<std::string>{"kept.zip", "work", "work.zip"}));
}

TEST_F(ProgramsTest, ZipNamesInTheCodePageAskedForElseFlaggedUtf8) {
  const std::string japanese = "日本.txt", french = "café.txt", russian = "файл.txt";
  const struct {
    std::vector<std::string> naming;
    std::string file;
    Entry entry;
  } cases[] = {
      {{"-cp", "jpn"}, japanese, {"\x93\xFA\x96\x7B.txt", false, "x"}},
      {{"-cp", "932"}, japanese, {"\x93\xFA\x96\x7B.txt", false, "x"}},
      {{"-cp", "enu"}, french, {"caf\x82.txt", false, "x"}},
      {{"-cp", "rus"}, russian, {"\xE4\xA0\xA9\xAB.txt", false, "x"}},
      {{"-cp", "jpn"}, "plain.txt", {"plain.txt", false, "x"}},
      {{"-UN=UTF8"}, japanese, {japanese, true, "x"}},
      {{"-cp", "utf8"}, japanese, {japanese, true, "x"}},
      {{}, french, {french, true, "x"}},
      // A name that the code page cannot hold, a code page nobody knows.
      {{"-cp", "enu"}, japanese, {japanese, true, "x"}},
      {{"-cp", "no-such-codepage"}, french, {french, true, "x"}},
  };
  for (const auto& c : cases) {
    fs::remove_all(Path("work"));
    root_.Write("work/" + c.file, "x");
    std::vector<std::string> args = {"-jr", Path("out.zip")};
    args.insert(args.end(), c.naming.begin(), c.naming.end());
    args.push_back(Path("work"));
    const Outcome outcome = Run(ZIP_PROGRAM, args);
    const std::string what = (c.naming.empty() ? "default" : c.naming.back()) + " " + c.file;
    ASSERT_EQ(outcome.status, 0) << what << ": " << outcome.errors;
    EXPECT_EQ(ReadZip(Path("out.zip")), std::vector<Entry>{c.entry}) << what;
  }
}

TEST_F(ProgramsTest, ZipRefusalsSayWhyAndLeaveNoArchive) {
  root_.Write("work/a/same.txt", "1");
  root_.Write("work/b/same.txt", "2");
  root_.Write("one/file.txt", "1");
  const std::string out = Path("out.zip");
  const struct {
    std::vector<std::string> args;
    int status;
  } cases[] = {
      {{"-jr", out, Path("work")}, 1},  // two files of one name
      {{"-jr", out, Path("one"), Path("missing")}, 1},
      {{"-j", out, Path("one")}, 1},  // a folder, without -r: nothing to add
      {{"-jr", Path("none/out.zip"), Path("one")}, 1},
      {{"-jr", out}, 2},
      {{"-jrx", out, Path("one")}, 2},
      {{"-jr", out, Path("one"), "-cp"}, 2},
      {{"-jr", out, "-UN=latin1", Path("one")}, 2},
      {{"-jr", out, "-cp", "jpn", "-UN=UTF8", Path("one")}, 2},
  };
  for (const auto& c : cases) {
    const Outcome outcome = Run(ZIP_PROGRAM, c.args);
    EXPECT_EQ(outcome.status, c.status) << outcome.errors;
    EXPECT_EQ(outcome.errors.rfind("zip: ", 0), 0u) << outcome.errors;
    EXPECT_EQ(Listing(), (std::set<std::string>{"one", "work"})) << outcome.errors;
  }
}

TEST_F(ProgramsTest, ZipPastTheFileSizeLimitFailsAndLeavesNoArchive) {
  // Random bytes do not compress: the archive outgrows a 64 KiB limit.
  std::string noise(256 * 1024, '\0');
  std::mt19937 random(7);
  for (char& c : noise) c = static_cast<char>(random());
  root_.Write("big/noise.bin", noise);
  const Outcome outcome = Run("/bin/sh", {"-c", "ulimit -f 128; exec \"$0\" \"$@\"", ZIP_PROGRAM,
                                          "-jr", Path("out.zip"), Path("big")});
  EXPECT_EQ(outcome.status, 1) << outcome.errors;
  EXPECT_EQ(outcome.errors.rfind("zip: ", 0), 0u) << outcome.errors;
  EXPECT_EQ(Listing(), (std::set<std::string>{"big"}));
}

}  // namespace
