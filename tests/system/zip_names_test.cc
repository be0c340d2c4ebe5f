// The names of zip's entries as the extractors that people use show them:
// Info-ZIP's unzip (listing and unpacking, in a UTF-8 locale) and Python's
// zipfile module, for each way the plug-in asks for names.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/system/temp_root.h"

namespace {

namespace fs = std::filesystem;

// The standard output of a shell command; fails the test when it exits
// non-zero.
std::string Output(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return out;
  char block[4096];
  for (size_t got; (got = fread(block, 1, sizeof(block), pipe)) > 0;) out.append(block, got);
  EXPECT_EQ(pclose(pipe), 0) << command;
  return out;
}

std::string Quoted(const std::string& text) { return "'" + text + "'"; }

TEST(ZipNamesTest, ExtractorsShowTheIntendedNames) {
  const larkpost::testing::TempRoot root;
  const std::string dir = root.path();
  const struct {
    std::vector<std::string> naming;
    std::string name;
    bool python;  // zipfile reads unflagged names as CP437 only
  } cases[] = {
      {{"-cp", "enu"}, "Résumé.pdf", true},
      {{"-cp", "ger"}, "Øre und Grüße.txt", false},
      {{"-cp", "jpn"}, "日本語.txt", false},
      {{"-cp", "enu"}, "plain.txt", true},
      {{"-cp", "enu"}, "日本語 and é.txt", true},  // not in CP437: flagged UTF-8
      {{"-UN=UTF8"}, "Résumé 日本語.pdf", true},
      {{"-cp", "utf8"}, "Résumé.pdf", true},
      {{}, "Résumé.pdf", true},
  };
  for (const auto& c : cases) {
    const std::string what = (c.naming.empty() ? "default" : c.naming.back()) + " " + c.name;
    fs::remove_all(dir + "/work");
    fs::remove_all(dir + "/out");
    fs::remove(dir + "/out.zip");
    root.Write("work/" + c.name, "x");
    std::string command = std::string(ZIP_PROGRAM) + " -jr " + Quoted(dir + "/out.zip");
    for (const std::string& arg : c.naming) command += " " + Quoted(arg);
    command += " " + Quoted(dir + "/work") + " 2>/dev/null";
    Output(command);

    const std::string unzip = "LC_ALL=C.UTF-8 unzip ";
    EXPECT_EQ(Output(unzip + "-Z1 " + Quoted(dir + "/out.zip")), c.name + "\n") << what;
    Output(unzip + "-q " + Quoted(dir + "/out.zip") + " -d " + Quoted(dir + "/out"));
    std::set<std::string> unpacked;
    for (const auto& entry : fs::directory_iterator(dir + "/out")) {
      unpacked.insert(entry.path().filename().string());
    }
    EXPECT_EQ(unpacked, std::set<std::string>{c.name}) << what;
    if (c.python) {
      EXPECT_EQ(Output("python3 -c 'import sys, zipfile; "
                       "print(*zipfile.ZipFile(sys.argv[1]).namelist())' " +
                       Quoted(dir + "/out.zip")),
                c.name + "\n")
          << what;
    }
  }
}

// The entries are rewritten for OEM names: every byte must still come out,
// in every entry, with nothing that unzip takes for a damaged archive.
TEST(ZipNamesTest, OemArchivesUnpackWhole) {
  const larkpost::testing::TempRoot root;
  const std::string dir = root.path();
  std::string big(200 * 1024 + 7, '\0');
  std::mt19937 random(5);
  for (char& c : big) c = static_cast<char>(random());
  const std::map<std::string, std::string> files = {
      {"Résumé.pdf", "pdf"}, {"empty.txt", ""}, {"big.bin", big}, {"Ünïcödé.txt", "ü"}};
  for (const auto& [name, text] : files) root.Write("work/" + name, text);
  Output(std::string(ZIP_PROGRAM) + " -jr " + Quoted(dir + "/out.zip") + " -cp ger " +
         Quoted(dir + "/work"));
  Output("LC_ALL=C.UTF-8 unzip -q " + Quoted(dir + "/out.zip") + " -d " + Quoted(dir + "/out"));
  std::map<std::string, std::string> unpacked;
  for (const auto& entry : fs::directory_iterator(dir + "/out")) {
    unpacked[entry.path().filename().string()] =
        root.Read("out/" + entry.path().filename().string());
  }
  EXPECT_EQ(unpacked, files);
}

}  // namespace
