// larkpostctl deliver and import, run as programs on a fresh data root; what
// they stored is read back through the core.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/system/appliance.h"
#include "platform/mailcore/constant.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/controller.h"
#include "platform/mailcore/db_setup.h"
#include "tests/system/temp_root.h"

namespace ornic::larkpost {
namespace {

using ::testing::HasSubstr;

const std::string kFixtures = LARKPOST_MAIL_FIXTURES;

std::string Fixture(const std::string& name) {
  std::ifstream in(kFixtures + "/" + name, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

struct Result {
  int status = -1;
  std::string out, err;
};

class LarkpostctlMailTest : public ::testing::Test {
 protected:
  ~LarkpostctlMailTest() override { store::CloseConnections(); }

  // larkpostctl WORDS on this test's root, standard input from the file
  // `input`.
  Result Ctl(const std::string& words, const std::string& input = "/dev/null") {
    std::string command = "'" LARKPOSTCTL_PATH "' --root " + root_.path() + " " + words + " <'" +
                          input + "' 2>" + root_.path() + "/stderr";
    FILE* pipe = popen(command.c_str(), "r");
    Result result;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) result.out.append(buffer, n);
    int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.err = root_.Read("stderr");
    return result;
  }

  Result Deliver(const std::string& words, const std::string& message) {
    root_.Write("input.eml", message);
    return Ctl("deliver " + words, root_.path() + "/input.eml");
  }

  // Every stored message (ids are small numbers in a fresh store).
  std::vector<record::FullMessage> Messages() {
    std::vector<int> ids;
    for (int id = 1; id <= 2000; ++id) ids.push_back(id);
    return control::MessageControl(controller_).GetFullMessages(ids);
  }

  std::map<int, record::Mailbox> Mailboxes() {
    std::map<int, record::Mailbox> by_id;
    for (const record::Mailbox& mailbox : control::MailboxControl(controller_).List(true, true)) {
      by_id[mailbox.id] = mailbox;
    }
    return by_id;
  }

  ::larkpost::testing::TempRoot root_;
  uint32_t uid_ = ::larkpost::appliance::UserStore::Add("ann", "pw", false, "example.org");
  control::Controller controller_{uid_};
};

constexpr int kInbox = control::DefaultMailbox::id<constant::kInbox>();

TEST_F(LarkpostctlMailTest, DeliverCreatesTheStoreAndFindsAMailboxByItsUtf8Path) {
  EXPECT_FALSE(db::DBSetupHandler(uid_).DoesDBExist());
  const std::string raw = Fixture("related_inline.eml");
  int64_t before = time(nullptr);
  Result delivered = Deliver("ann", raw);
  int64_t after = time(nullptr);
  ASSERT_EQ(delivered.status, 0) << delivered.err;
  int id = std::stoi(delivered.out);
  EXPECT_EQ(delivered.out, std::to_string(id) + "\n");
  std::map<int, record::Mailbox> mailboxes = Mailboxes();
  EXPECT_EQ(mailboxes.size(), static_cast<size_t>(constant::kBuiltinMailboxCount));
  EXPECT_EQ(mailboxes[kInbox].unread_count, 1);
  // What the parser reads from it is the parser's tests' business; here:
  // it got there whole, with its parts, unread, as of delivery time.
  control::MessageControl messages(controller_);
  std::vector<record::FullMessage> stored = messages.GetFullMessages({id});
  ASSERT_EQ(stored.size(), 1u);
  const record::FullMessage& message = stored[0];
  EXPECT_EQ(std::make_tuple(message.mailbox_id, message.subject, message.read,
                            message.attachments.size(), message.inline_images.size()),
            std::make_tuple(kInbox, std::string("Our new logo"), false, size_t{4}, size_t{2}));
  EXPECT_GE(message.arrival_time, before);
  EXPECT_LE(message.arrival_time, after);
  EXPECT_EQ(messages.OriginalContent(id), raw);

  control::MailboxControl folders(controller_);
  int work = folders.Create(0, "Work", true);
  int ete = folders.Create(work, "Été", true);
  ASSERT_GT(ete, 0);
  for (const auto& [words, mailbox] :
       {std::pair{"ann --mailbox Work/Été", ete}, std::pair{"--mailbox=Work ann", work},
        std::pair{"ann --mailbox inbox", kInbox}}) {
    delivered = Deliver(words, Fixture("thread/1.eml"));
    ASSERT_EQ(delivered.status, 0) << words << ": " << delivered.err;
    stored = messages.GetFullMessages({std::stoi(delivered.out)});
    ASSERT_EQ(stored.size(), 1u) << words;
    EXPECT_EQ(stored[0].mailbox_id, mailbox) << words;
  }
}

TEST_F(LarkpostctlMailTest, ImportReadsMboxMaildirAndMessageFilesWithTheirFlags) {
  Result imported =
      Ctl("import ann " + kFixtures + "/archive.mbox " + kFixtures + "/maildir " + kFixtures +
          "/thread/1.eml " + kFixtures + "/thread/2.eml " + kFixtures + "/thread/3.eml " +
          kFixtures + "/broken_mime.eml " + kFixtures + "/no_header.eml");
  ASSERT_EQ(imported.status, 0) << imported.err;
  EXPECT_EQ(imported.out, "11\n");

  std::map<std::string, record::FullMessage> by_subject;
  for (const record::FullMessage& message : Messages()) by_subject[message.subject] = message;
  ASSERT_EQ(by_subject.size(), 11u);
  // The sources' flags (read, flagged) as the store keeps them.
  for (const auto& [subject, read, star] : {std::tuple{"First in the box", true, 0},
                                            {"No date header here", false, 1},
                                            {"Seen and flagged", true, 1},
                                            {"Budget 2024", false, 0}}) {
    const record::FullMessage& message = by_subject[subject];
    EXPECT_EQ(std::make_tuple(message.read, message.star, message.mailbox_id),
              std::make_tuple(read, star, kInbox))
        << subject;
  }
  // The Date header, else the mbox From line's time.
  EXPECT_EQ(by_subject["First in the box"].arrival_time, 1704099600);
  EXPECT_EQ(by_subject["No date header here"].arrival_time, 1704191400);
  EXPECT_NE(by_subject["First in the box"].plain_body.find("\nFrom the archive"),
            std::string::npos);
  // The reply chain is one thread.
  EXPECT_EQ(by_subject["Re: Budget 2024"].thread_id, by_subject["Budget 2024"].thread_id);
  EXPECT_EQ(by_subject["RE: Re: Budget 2024"].thread_id, by_subject["Budget 2024"].thread_id);
  // What could hardly be read is kept byte for byte.
  control::MessageControl messages(controller_);
  EXPECT_EQ(messages.OriginalContent(by_subject["Broken but readable"].id),
            Fixture("broken_mime.eml"));
  EXPECT_EQ(messages.OriginalContent(by_subject[""].id), Fixture("no_header.eml"));

  std::map<int, record::Mailbox> mailboxes = Mailboxes();
  EXPECT_EQ(mailboxes[kInbox].total_count, 11);
  EXPECT_EQ(mailboxes[kInbox].unread_count, 8);
}

// An import looks at every source before storing any.
TEST_F(LarkpostctlMailTest, RefusalsStoreNothing) {
  const std::string raw = Fixture("thread/1.eml"), mbox = kFixtures + "/archive.mbox ";
  const struct {
    std::string words, input, error;  // deliver reads `input`, import no input
  } rows[] = {
      {"deliver bob", raw, "no user bob"},
      {"deliver ann --mailbox Nowhere", raw, "no mailbox Nowhere"},
      {"deliver ann --mailbox Starred", raw, "Starred"},
      {"deliver ann", "", "no message on standard input"},
      {"deliver ann", "\n\r\n  \n", "no message on standard input"},
      {"deliver", raw, "NAME is missing"},
      {"deliver ann extra", raw, "unexpected extra"},
      {"deliver ann --mailbox", raw, "--mailbox needs a value"},
      {"import ann " + mbox + kFixtures + "/missing.mbox", "",
       kFixtures + "/missing.mbox: No such file"},
      {"import ann " + mbox + kFixtures + "/thread", "", "not a Maildir"},
      {"import ann --mailbox Nowhere " + mbox, "", "no mailbox Nowhere"},
      {"import bob " + mbox, "", "no user bob"},
      {"import ann", "", "no SOURCE given"},
  };
  for (const auto& row : rows) {
    root_.Write("input.eml", row.input);
    Result refused = Ctl(row.words, root_.path() + "/input.eml");
    EXPECT_EQ(refused.status, 1) << row.words;
    EXPECT_EQ(refused.out, "") << row.words;
    EXPECT_THAT(refused.err, HasSubstr(row.error)) << row.words;
  }
  EXPECT_TRUE(Messages().empty());
}

TEST_F(LarkpostctlMailTest, ImportStoresLargeSourcesInBatchesIntoTheMailboxAsked) {
  std::string mbox;
  constexpr int kCount = 1234;  // more than two batches
  for (int i = 0; i < kCount; ++i) {
    mbox += "From sender@example.org Mon Jan  1 09:00:00 2024\nSubject: number " +
            std::to_string(i) + "\nMessage-ID: <n" + std::to_string(i) +
            "@example.org>\n\nbody\n\n";
  }
  root_.Write("big.mbox", mbox);
  Result imported = Ctl("import --mailbox Archived ann " + root_.path() + "/big.mbox");
  ASSERT_EQ(imported.status, 0) << imported.err;
  EXPECT_EQ(imported.out, std::to_string(kCount) + "\n");
  std::map<int, record::Mailbox> mailboxes = Mailboxes();
  EXPECT_EQ(mailboxes[control::DefaultMailbox::id<constant::kArchived>()].total_count, kCount);
  EXPECT_EQ(mailboxes[kInbox].total_count, 0);
}

// Mail as senders and mail programs write it (intake/), imported: "From "
// lines without a date start messages, raw 8-bit headers are read in the
// charset the message declares, and addresses that break the syntax come
// out as the sender meant them.
TEST_F(LarkpostctlMailTest, ImportReadsMailAsSendersWriteIt) {
  std::string sources;
  for (const char* file :
       {"from_lines.mbox", "gb2312_raw_header.eml", "big5_raw_header.eml", "addresses.eml"}) {
    sources += " " + kFixtures + "/intake/" + file;
  }
  const Result imported = Ctl("import ann" + sources);
  ASSERT_EQ(imported.status, 0) << imported.err;
  EXPECT_EQ(imported.out, "8\n");
  std::map<std::string, record::FullMessage> messages;
  for (record::FullMessage& message : Messages()) messages[message.subject] = message;
  std::vector<std::string> subjects;
  for (const auto& [subject, message] : messages) subjects.push_back(subject);
  EXPECT_EQ(subjects, (std::vector<std::string>{
                          "Addresses that senders write", "Five: the last", "Four: its length told",
                          "One: a dated separator", "Three: a sender and nothing after it",
                          "Two: a separator without a date", "会议通知", "測試郵件"}));
  EXPECT_EQ(messages["One: a dated separator"].plain_body,
            "Quoted by the writer:\nFrom the archive\n\n"
            "From here on, a sender forgot to quote: no header follows.\n");
  EXPECT_EQ(messages["Two: a separator without a date"].from, "Bob <bob@example.net>");
  EXPECT_EQ(messages["Four: its length told"].plain_body,
            "Top.\n\nFrom the desk of Dave\nNote: still the body.\n");

  EXPECT_EQ(messages["会议通知"].from, "张伟 <wei@example.cn>");
  EXPECT_EQ(messages["会议通知"].to, std::vector<std::string>{"Big Bug <bb@bug.com>"});
  EXPECT_EQ(messages["測試郵件"].from, "陳大文 <chan@example.tw>");

  const record::FullMessage& addresses = messages["Addresses that senders write"];
  EXPECT_EQ(addresses.from, "tim@a.example, concierge@a.example");
  EXPECT_EQ(addresses.to,
            (std::vector<std::string>{"Big Bug <bb@bug.com>", "Pete <pete@silly.test>"}));
  EXPECT_EQ(addresses.cc, std::vector<std::string>{"pete@silly.test"});
}

// Mail as real senders write it, one class per file of real/: delivered,
// then read back as the reader sees it (the bodies, and every attachment in
// the list with its name, type and bytes). names.eml is read through the
// host, in HostSecurityTest.
TEST_F(LarkpostctlMailTest, RealWorldMailReadsAsItsReaderExpects) {
  struct Listed {
    std::string name, mimetype, content;
  };
  const std::string table = std::string(120, '\0') + "tail of the file\n" + std::string(45, '\0');
  const std::string pdf =
      "%PDF-1.4\n%\xc7\xec\x8f\xa2\n1 0 obj\n<<>>\nendobj\ntrailer\n<<>>\n%%EOF\n";
  std::string photo;
  for (int k = 0; k < 512; ++k) photo += static_cast<char>(k % 256);
  const struct {
    std::string file, subject, plain;
    std::vector<Listed> attachments;
  } rows[] = {
      // A text type without a subtype is plain text, not an attachment.
      {"text_without_subtype.eml",
       "Re: build fails on ARM",
       "Hallo,\n\nthe patch from Jörg fixes it for me. Grüße, Hans\n",
       {}},
      // Inline parts that no HTML body shows are in the list.
      {"inline_not_shown.eml",
       "Photos from the trip",
       "Here is the view from the top.\n",
       {{"IMG_0042.jpg", "image/jpeg", photo},
        {"Directions.eml", "message/rfc822",
         "From: Carol <carol@example.net>\nSubject: Directions\nDate: Tue, 04 Jun 2019 09:00:00 "
         "+0200\n\nTake the second left.\n"}}},
      // The header of the log runs into its body: the body starts at its
      // first line that is not a header field.
      {"part_without_blank_line.eml",
       "Nightly build log",
       "The nightly build failed; the log is attached.\n",
       {{"build.log", "text/plain",
         "Build started at 03:00 on host ci-4\ncc -c main.c\nmain.c:3: error: expected ';'"}}},
      // Lines that lost their trailing blanks decode to the whole file.
      {"uuencode_trimmed.eml",
       "the table you asked for",
       "Table attached, uuencoded.\n",
       {{"table.dat", "application/octet-stream", table}}},
      // The last line is the closing delimiter, without a line break.
      {"closing_boundary_at_end.eml",
       "Scanned list",
       "The list you scanned.",
       {{"list.csv", "text/csv", "name,count\r\napples,3"}}},
      // The first Content-Type wins.
      {"content_type_twice.eml",
       "Order 1187",
       "A new order came in: 2 x tea.\n",
       {{"order-1187.pdf", "application/pdf", pdf}}},
      // A blank line before the header.
      {"header_after_blank_line.eml",
       "Disk report",
       "Disk usage is at 91 percent.\n",
       {{"df.txt", "text/plain", "/dev/sda1 91%\n"}}},
  };
  control::MessageControl messages(controller_);
  control::AttachmentControl attachments(controller_);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.file);
    const std::string raw = Fixture("real/" + row.file);
    Result delivered = Deliver("ann", raw);
    ASSERT_EQ(delivered.status, 0) << delivered.err;
    const int id = std::stoi(delivered.out);
    std::vector<record::FullMessage> stored = messages.GetFullMessages({id});
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0].subject, row.subject);
    EXPECT_EQ(stored[0].plain_body, row.plain);
    EXPECT_EQ(messages.OriginalContent(id), raw);
    // The list that the reader sees: what no HTML body shows inline.
    std::vector<record::Attachment> listed;
    for (const record::Attachment& attachment : stored[0].attachments) {
      if (!attachment.is_inline) listed.push_back(attachment);
    }
    EXPECT_EQ(listed.size(), row.attachments.size());
    for (size_t k = 0; k < std::min(listed.size(), row.attachments.size()); ++k) {
      const Listed& want = row.attachments[k];
      EXPECT_EQ(std::make_tuple(listed[k].name, listed[k].mimetype, listed[k].size),
                std::make_tuple(want.name, want.mimetype, static_cast<int>(want.content.size())));
      EXPECT_EQ(attachments.GetContentByRecord(listed[k]), want.content) << want.name;
    }
  }
}

}  // namespace
}  // namespace ornic::larkpost
