#include <gtest/gtest.h>
#include <utime.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "appliance/mailcore/mime/mail_source.h"
#include "appliance/system/appliance.h"
#include "tests/system/temp_root.h"

namespace ornic::larkpost::mime {
namespace {

const std::string kFixtures = LARKPOST_MAIL_FIXTURES;

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::vector<SourceMessage> ReadAll(const std::string& path) {
  std::vector<SourceMessage> messages;
  MailSource(path).ForEach([&](SourceMessage&& message) { messages.push_back(message); });
  return messages;
}

// "R" read, "F" flagged (starred), "-" neither, per message.
std::string Flags(const std::vector<SourceMessage>& messages) {
  std::string flags;
  for (const SourceMessage& message : messages) {
    flags += std::string(message.read ? "R" : "-") + (message.starred ? "F " : "- ");
  }
  return flags;
}

// A temporary folder for sources the test writes itself.
class Scratch : public ::larkpost::testing::TempRoot {
 public:
  std::string Write(const std::string& relative, const std::string& bytes) const {
    TempRoot::Write(relative, bytes);
    return path() + "/" + relative;
  }
  std::string Dir(const std::string& relative) const {
    ::larkpost::appliance::MakeDirs(path() + "/" + relative);
    return path() + "/" + relative;
  }
};

TEST(MailSourceTest, MboxSplitsOnFromLinesAndUndoesTheQuoting) {
  MailSource source(kFixtures + "/archive.mbox");
  EXPECT_EQ(source.kind(), MailSource::kMbox);
  std::vector<SourceMessage> messages = ReadAll(source.path());
  ASSERT_EQ(messages.size(), 3u);

  const std::string& first = messages[0].raw;
  EXPECT_EQ(first.compare(0, 28, "From: Ann <ann@example.org>\n"), 0) << first;
  EXPECT_NE(first.find("\nFrom the archive: this line was quoted"), std::string::npos);
  EXPECT_NE(first.find("\n>From here too, quoted twice."), std::string::npos);
  // A "From " line that is no separator (no date) stays in its message.
  EXPECT_NE(first.find("\nFrom here on the writer forgot to quote.\n"), std::string::npos);
  // The blank line before the next "From " belongs to the mbox format.
  EXPECT_TRUE(EndsWith(first, "to quote.\n")) << first;

  EXPECT_EQ(messages[1].time_without_date, 1704191400);  // Tue Jan  2 10:30:00 2024
  EXPECT_TRUE(EndsWith(messages[2].raw, "\n\nUnread, not flagged.\n")) << messages[2].raw;

  EXPECT_EQ(Flags(messages), "R- -F -- ");  // Status: R, X-Status: F
}

TEST(MailSourceTest, MboxWithCrlfLineEndsAndNoBlankLineBeforeFrom) {
  Scratch scratch;
  std::string path =
      scratch.Write("crlf.mbox",
                    "From a@x Sat Feb  3 04:05:06 2024\r\nSubject: one\r\n\r\nbody one\r\n\r\n"
                    "From b@x Sun Feb  4 04:05:06 +0100 2024\r\nSubject: two\r\n\r\nbody two\r\n"
                    "From c@x Mon Feb  5 04:05:06 2024\nSubject: three\n\nbody three\n");
  std::vector<SourceMessage> messages = ReadAll(path);
  ASSERT_EQ(messages.size(), 3u);
  EXPECT_EQ(messages[0].raw, "Subject: one\r\n\r\nbody one\r\n");
  EXPECT_EQ(messages[1].raw, "Subject: two\r\n\r\nbody two\r\n");
  EXPECT_EQ(messages[1].time_without_date, 1707019506);
  EXPECT_EQ(messages[2].raw, "Subject: three\n\nbody three\n");
}

TEST(MailSourceTest, FromLines) {
  const struct {
    const char* line;
    bool valid;
    int64_t time;
  } rows[] = {
      {"From ann@example.org Mon Jan  1 09:00:00 2024", true, 1704099600},
      {"From ann@example.org Mon Jan 1 09:00 2024", true, 1704099600},
      {"From MAILER-DAEMON Fri Jul  8 12:08:34 2011 +0000", true, 1310126914},
      {"From ann@example.org  Jan  1 09:00:00 PST 2024", true, 1704099600},
      {"From here on the writer forgot to quote.", false, 0},
      {"From: Ann <ann@example.org>", false, 0},
      {"From ann Mon Jan 32 09:00:00 2024", false, 0},
      {"Subject: Mon Jan  1 09:00:00 2024", false, 0},
  };
  for (const auto& row : rows) {
    int64_t time = 0;
    EXPECT_EQ(ParseFromLine(row.line, &time), row.valid) << row.line;
    EXPECT_EQ(time, row.time) << row.line;
  }
}

TEST(MailSourceTest, MaildirReadsCurAndNewInDeliveryOrderWithTheirFlags) {
  MailSource source(kFixtures + "/maildir");
  EXPECT_EQ(source.kind(), MailSource::kMaildir);
  std::vector<SourceMessage> messages = ReadAll(source.path());
  ASSERT_EQ(messages.size(), 3u);  // tmp/ holds mail still being delivered
  const char* subjects[] = {"Subject: Seen\n", "Subject: Seen and flagged\n", "Subject: New\n"};
  for (size_t k = 0; k < 3; ++k) {
    EXPECT_NE(messages[k].raw.find(subjects[k]), std::string::npos) << k;
  }
  EXPECT_EQ(Flags(messages), "R- RF -- ");
}

TEST(MailSourceTest, MaildirOrdersByTimeNotByNameAndGivesTheFileTime) {
  Scratch scratch;
  scratch.Dir("md");
  scratch.Dir("md/new");
  std::string late = scratch.Write("md/new/1000.a.host", "Subject: late\n\nx\n");
  std::string early = scratch.Write("md/new/999.b.host", "Subject: early\n\nx\n");
  scratch.Write("md/new/.hidden", "Subject: hidden\n\nx\n");
  struct utimbuf times = {1600000000, 1600000000};
  utime(early.c_str(), &times);
  std::vector<SourceMessage> messages = ReadAll(scratch.Dir("md"));
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0].raw, "Subject: early\n\nx\n");
  EXPECT_EQ(messages[0].time_without_date, 1600000000);
  EXPECT_EQ(messages[1].raw, "Subject: late\n\nx\n");
}

TEST(MailSourceTest, AnyOtherFileIsOneMessageByteForByte) {
  Scratch scratch;
  std::string bytes = "Subject: one\n\nFrom the start\n\nFrom x Mon Jan  1 09:00:00 2024\n";
  std::string path = scratch.Write("one.eml", bytes);
  struct utimbuf times = {1500000000, 1500000000};
  utime(path.c_str(), &times);
  MailSource source(path);
  EXPECT_EQ(source.kind(), MailSource::kMessageFile);
  std::vector<SourceMessage> messages = ReadAll(path);
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_EQ(messages[0].raw, bytes);
  EXPECT_EQ(messages[0].time_without_date, 1500000000);
}

TEST(MailSourceTest, WhatCannotBeASourceIsRefusedWithItsPath) {
  Scratch scratch;
  const std::string empty = scratch.Write("empty.eml", "");
  const std::string plain_dir = scratch.Dir("not-a-maildir");
  for (const auto& [path, reason] :
       {std::pair{scratch.Dir("") + "/missing.mbox", std::string("No such file")},
        std::pair{empty, std::string("empty file")},
        std::pair{plain_dir, std::string("not a Maildir")},
        std::pair{std::string("/dev/null"), std::string("not a file")}}) {
    try {
      MailSource source(path);
      ADD_FAILURE() << path << " was accepted";
    } catch (const std::runtime_error& e) {
      EXPECT_NE(std::string(e.what()).find(path), std::string::npos) << e.what();
      EXPECT_NE(std::string(e.what()).find(reason), std::string::npos) << e.what();
    }
  }
}

}  // namespace
}  // namespace ornic::larkpost::mime
