#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "tests/store/store_fixture.h"

namespace ornic::larkpost::testing {
namespace {

// A message for threading: its Message-ID, In-Reply-To, References,
// subject and arrival day.
Mail M(const std::string& id, const std::string& in_reply_to,
       const std::vector<std::string>& references, const std::string& subject, int day = 0) {
  Mail mail;
  mail.message_id = id;
  mail.in_reply_to = in_reply_to;
  mail.references = references;
  mail.subject = subject;
  mail.arrival = 1700000000 + day * kDay;
  return mail;
}

struct ThreadingCase {
  const char* name;
  std::vector<Mail> mails;  // stored in this order
  std::string threads;      // a letter per mail: the same letter, the same thread
};

void PrintTo(const ThreadingCase& c, std::ostream* out) { *out << c.name; }

class ThreadingTest : public StoreTest, public ::testing::WithParamInterface<ThreadingCase> {};

TEST_P(ThreadingTest, MessagesJoinTheirThreads) {
  const ThreadingCase& c = GetParam();
  std::vector<int> ids, threads;
  for (const Mail& mail : c.mails) ids.push_back(Add(mail));
  for (int id : ids) threads.push_back(ThreadOf(id));
  for (size_t i = 0; i < threads.size(); ++i) {
    for (size_t j = i + 1; j < threads.size(); ++j) {
      EXPECT_EQ(threads[i] == threads[j], c.threads[i] == c.threads[j])
          << "mails " << i << " and " << j;
    }
  }
  EXPECT_EQ(Inconsistencies(), Texts());
}

INSTANTIATE_TEST_SUITE_P(
    Store, ThreadingTest,
    ::testing::Values(
        ThreadingCase{
            "ReplyChainInOrder",
            {M("a", "", {}, "s1"), M("b", "a", {"a"}, "s2"), M("c", "b", {"a", "b"}, "s3")},
            "AAA"},
        ThreadingCase{"ReplyBeforeItsParents",
                      {M("c", "b", {"a", "b"}, "s3"), M("a", "", {}, "s1"), M("b", "a", {}, "s2")},
                      "AAA"},
        ThreadingCase{"ParentAfterAReplyThatNamesItOnlyInInReplyTo",
                      {M("b", "a", {}, "s2"), M("a", "", {}, "s1")},
                      "AA"},
        ThreadingCase{"MissingMiddleJoinsTwoThreads",
                      {M("a", "", {}, "s1"), M("c", "b", {}, "s3"), M("b", "a", {"a"}, "s2"),
                       M("d", "", {}, "s4")},
                      "AAAB"},
        ThreadingCase{
            "HeadersWinOverTheSubject",
            {M("a", "", {}, "Lunch"), M("x", "", {}, "Other"), M("b", "x", {}, "Re: Lunch")},
            "ABB"},
        ThreadingCase{"SubjectWithinAMonth",
                      {M("", "", {}, "Lunch", 0), M("", "", {}, "RE: fwd: LUNCH", 1),
                       M("", "", {}, "Lunch", 40)},
                      "AAB"},
        ThreadingCase{"UnknownParentFallsBackOnTheSubject",
                      {M("a", "", {}, "Report"), M("b", "zzz", {"yyy"}, "Re: Report")},
                      "AA"},
        ThreadingCase{
            "CopiesOfOneMessage", {M("a", "", {}, "s1"), M("a", "", {}, "copy in sent")}, "AA"},
        ThreadingCase{"EmptySubjectsNeverGroup",
                      {M("", "", {}, ""), M("", "", {}, ""), M("", "", {}, "Re:")},
                      "ABC"}),
    [](const ::testing::TestParamInfo<ThreadingCase>& info) { return info.param.name; });

TEST_F(StoreTest, MergedThreadsKeepEveryLabel) {
  int first = CreateLabel("L"), second = CreateLabel("L");
  int a = Add(M("a", "", {}, "s1")), c = Add(M("c", "b", {}, "s3"));
  control::ThreadControl threads(controller());
  ASSERT_TRUE(threads.AddLabel({ThreadOf(a)}, {first}));
  ASSERT_TRUE(threads.AddLabel({ThreadOf(c)}, {first, second}));
  int b = Add(M("b", "a", {}, "s2"));
  ASSERT_EQ(ThreadOf(a), ThreadOf(c));
  std::vector<record::Thread> merged = threads.List({ThreadOf(b)});
  ASSERT_EQ(merged.size(), 1u);
  EXPECT_EQ(merged[0].messages.size(), 3u);
  EXPECT_EQ(merged[0].labels.size(), 2u);
  EXPECT_EQ(control::LabelControl(controller()).Get({first}, true).at(0).unread_count, 3);
  EXPECT_EQ(Query("SELECT count(*) FROM thread"), 1);
  EXPECT_EQ(Inconsistencies(), Texts());
}

TEST_F(StoreTest, AMessageIsStoredWholeAndReadBackAsItCame) {
  Mail mail;
  mail.subject = "Été report";
  mail.message_id = "m1@example.org";
  mail.to = {"\"Doe, Jo\" <jo@example.org>", "odd\\one\n\x01é😀"};  // survive the store's lists
  mail.cc = {"cc@example.org"};
  mail.html = "<p>See the report.<img src=\"cid:logo@x\"></p>";
  mail.attachments = {Part("report.pdf", "application/pdf", "", false, 1234, "2"),
                      Part("logo.png", "image/png", "logo@x", true, 99, "1.2")};
  mail.raw = std::string("Subject: x\r\n\r\nbody\0with nul\r\n", 30);
  store::NewMessage message = ToNew(mail, clock_.now());
  message.bcc = {"secret@example.org"};
  message.body_preview = "See the";
  int id = store::InsertMessage(controller(), message);

  control::MessageControl messages(controller());
  std::vector<record::FullMessage> full = messages.GetFullMessages({999, id, id});
  ASSERT_EQ(full.size(), 1u);
  const record::FullMessage& m = full[0];
  EXPECT_EQ(std::tie(m.id, m.subject, m.from, m.rfc_message_id, m.body_preview, m.arrival_time),
            std::make_tuple(id, mail.subject, mail.from, mail.message_id, message.body_preview,
                            clock_.now()));
  EXPECT_EQ(std::tie(m.to, m.cc, m.bcc, m.plain_body, m.html_body),
            std::tie(mail.to, mail.cc, message.bcc, mail.plain, mail.html));
  ASSERT_EQ(m.attachments.size(), 2u);
  EXPECT_EQ(std::tie(m.attachments[0].name, m.attachments[0].size, m.attachments[0].is_inline),
            std::make_tuple("report.pdf", 1234, false));
  EXPECT_EQ(std::tie(m.attachments[1].content_id, m.attachments[1].is_inline),
            std::make_tuple("logo@x", true));
  EXPECT_EQ(m.inline_images,
            (record::InlineImageMap{{"logo@x", {"logo.png", m.attachments[1].id}}}));
  EXPECT_EQ(messages.OriginalContent(id), mail.raw);
  EXPECT_EQ(messages.OriginalContent(id + 1), "");
  EXPECT_EQ(Query("SELECT size FROM message WHERE id = " + std::to_string(id)), 30);

  // A thread list shows the listed attachments only.
  std::vector<record::Thread> threads = control::ThreadControl(controller()).List({m.thread_id});
  ASSERT_EQ(threads.size(), 1u);
  ASSERT_EQ(threads[0].messages.at(0).attachments.size(), 1u);
  EXPECT_EQ(threads[0].messages[0].attachments[0].name, "report.pdf");
  EXPECT_EQ(threads[0].last_modified, clock_.now());
}

TEST_F(StoreTest, AnHtmlOnlyMessageIsPreviewedAndSearchedByItsText) {
  Mail mail;
  mail.plain = " \r\n";
  mail.html = "<style>.x{}</style><p>Caf&eacute;   ouvert</p>";
  mail.attachments = {Part("logo.png", "image/png", "logo", true, 9, "2")};
  int id = Add(mail);
  std::vector<record::FullMessage> full =
      control::MessageControl(controller()).GetFullMessages({id});
  ASSERT_EQ(full.size(), 1u);
  EXPECT_EQ(full[0].body_preview, "Café ouvert");
  EXPECT_EQ(Query("SELECT has_attachment FROM message"), 0);  // inline parts only
  EXPECT_EQ(Query("SELECT count(*) FROM message_fts WHERE message_fts MATCH 'cafe'"), 1);
}

TEST_F(StoreTest, NewMailNeedsARealMailboxAndABatchIsAllOrNothing) {
  Mail good, unknown, starred;
  unknown.mailbox = 99;
  starred.mailbox = kStarred;
  EXPECT_EQ(CodeOf([&] { Add(unknown); }), kErrorInvalidArgument);
  EXPECT_EQ(CodeOf([&] { Add(starred); }), kErrorInvalidArgument);
  EXPECT_EQ(
      CodeOf([&] {
        store::InsertMessages(controller(), {ToNew(good, 1), ToNew(good, 2), ToNew(unknown, 3)});
      }),
      kErrorInvalidArgument);
  EXPECT_EQ(Query("SELECT count(*) FROM message"), 0);
  EXPECT_EQ(Query("SELECT count(*) FROM thread"), 0);
  EXPECT_EQ(Query("SELECT message_count FROM mailbox WHERE id = 1"), 0);

  std::vector<int> ids = store::InsertMessages(controller(), {ToNew(good, 1), ToNew(good, 2)});
  ASSERT_EQ(ids.size(), 2u);
  EXPECT_LT(ids[0], ids[1]);
  EXPECT_EQ(Query("SELECT unread_count FROM mailbox WHERE id = 1"), 2);
}

}  // namespace
}  // namespace ornic::larkpost::testing
