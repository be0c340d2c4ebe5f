#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/store/store_fixture.h"

namespace ornic::larkpost::testing {
namespace {

// One conversation in the inbox (m1, its reply m2, and a draft answering m2
// in Drafts) and a message u of its own in the inbox, labelled.
class ChangeTest : public StoreTest {
 protected:
  ChangeTest() {
    Mail mail;
    mail.message_id = "m1";
    mail.arrival = 1700000000;
    mail.attachments = {Part("a.txt", "text/plain", "", false, 3, "2")};
    m1_ = Add(mail);
    mail.message_id = "m2";
    mail.in_reply_to = "m1";
    mail.arrival += 60;
    mail.attachments.clear();
    m2_ = Add(mail);
    mail.message_id = "";
    mail.in_reply_to = "m2";
    mail.mailbox = kDrafts;
    mail.type = 1;
    mail.read = true;
    draft_ = Add(mail);
    Mail other;
    other.subject = "Unrelated";
    other.plain = "zebra";
    u_ = Add(other);
    thread_ = ThreadOf(m1_);
    EXPECT_EQ(ThreadOf(draft_), thread_);
    label_ = CreateLabel("Work");
    EXPECT_TRUE(threads_.AddLabel({thread_, ThreadOf(u_)}, {label_}));
  }

  int MailboxOf(int message) {
    return static_cast<int>(Query("SELECT ifnull((SELECT mailbox_id FROM message WHERE id = " +
                                  std::to_string(message) + "), 0)"));
  }
  Ids Mailboxes(const Ids& messages) {
    Ids out;
    for (int id : messages) out.push_back(MailboxOf(id));
    return out;
  }

  control::ThreadControl threads_{controller()};
  control::MessageControl messages_{controller()};
  int m1_ = 0, m2_ = 0, draft_ = 0, u_ = 0, thread_ = 0, label_ = 0;
};

TEST_F(ChangeTest, DeletingMovesToTrashThenDeletesForGood) {
  clock_.Advance(10);
  ASSERT_TRUE(threads_.DeleteTrash({thread_}));
  EXPECT_EQ(Mailboxes({m1_, m2_, draft_, u_}), (Ids{kTrash, kTrash, kTrash, kInbox}));
  EXPECT_EQ(threads_.List({thread_}).at(0).last_modified, clock_.now());
  EXPECT_EQ(Inconsistencies(), Texts());

  ASSERT_TRUE(threads_.DeleteTrash({thread_}));
  EXPECT_EQ(Mailboxes({m1_, m2_, draft_, u_}), (Ids{0, 0, 0, kInbox}));
  EXPECT_TRUE(threads_.List({thread_}).empty());
  // Only u is left, with its body, source, thread and label.
  for (auto [table, rows] : {std::pair{"message_body", 1},
                             {"message_source", 1},
                             {"attachment", 0},
                             {"message_reference", 0},
                             {"thread_label", 1},
                             {"thread", 1}}) {
    EXPECT_EQ(Query(std::string("SELECT count(*) FROM ") + table), rows) << table;
  }
  EXPECT_EQ(Query("SELECT count(*) FROM message_fts WHERE message_fts MATCH 'hello'"), 0);
  EXPECT_EQ(Inconsistencies(), Texts());
  EXPECT_FALSE(threads_.DeleteTrash({thread_}));
}

TEST_F(ChangeTest, MovingAThreadLeavesItsDrafts) {
  ASSERT_TRUE(threads_.SetMailbox({thread_}, kArchived));
  EXPECT_EQ(Mailboxes({m1_, m2_, draft_, u_}), (Ids{kArchived, kArchived, kDrafts, kInbox}));
  EXPECT_EQ(threads_.GetExistingThread({thread_}, kInbox, {}), Ids{});
  EXPECT_EQ(threads_.GetExistingThread({thread_}, kArchived, {}), Ids{thread_});
  EXPECT_EQ(Inconsistencies(), Texts());
}

TEST_F(ChangeTest, TrashRuleHoldsForMessagesAndPartlyTrashedThreads) {
  ASSERT_TRUE(messages_.SetMailbox({m1_, u_}, kTrash));
  // A thread partly in trash: the rest follows, nothing goes for good yet.
  ASSERT_TRUE(threads_.DeleteTrash({thread_}));
  EXPECT_EQ(Mailboxes({m1_, m2_, draft_, u_}), (Ids{kTrash, kTrash, kTrash, kTrash}));
  // Messages moved to trash from trash go for good.
  ASSERT_TRUE(messages_.SetMailbox({m2_, u_}, kTrash));
  EXPECT_EQ(Mailboxes({m1_, m2_, draft_, u_}), (Ids{kTrash, 0, kTrash, 0}));
  ASSERT_TRUE(messages_.SetMailbox({m1_}, kInbox));
  EXPECT_EQ(MailboxOf(m1_), kInbox);
  EXPECT_EQ(Inconsistencies(), Texts());
}

TEST_F(ChangeTest, FlagsChangeOnlyWhatDiffersAndKeepCountersRight) {
  int64_t start = clock_.now();
  clock_.Advance(10);
  ASSERT_TRUE(messages_.SetReadByID({m1_, draft_}, true));  // the draft was read already
  EXPECT_EQ(Query("SELECT last_modified FROM message WHERE id = " + std::to_string(m1_)),
            clock_.now());
  EXPECT_EQ(Query("SELECT last_modified FROM message WHERE id = " + std::to_string(draft_)), start);
  EXPECT_EQ(control::LabelControl(controller()).Get({label_}, true).at(0).unread_count, 2);
  ASSERT_TRUE(messages_.SetStarByID({m2_, u_}, 3));
  EXPECT_EQ(threads_.List({thread_}).at(0).messages.at(1).star, 3);
  EXPECT_EQ(Inconsistencies(), Texts());
  ASSERT_TRUE(messages_.SetReadByThreadID({thread_, ThreadOf(u_)}, false));
  EXPECT_EQ(Query("SELECT count(*) FROM message WHERE is_read = 0"), 4);  // the draft too
  EXPECT_EQ(Inconsistencies(), Texts());
  ASSERT_TRUE(messages_.SetStarByID({u_}, 0));
  EXPECT_EQ(Inconsistencies(), Texts());
}

TEST_F(ChangeTest, AnUnknownIdOrTargetRefusesTheWholeChange) {
  std::string before = Snapshot();
  EXPECT_FALSE(messages_.SetStarByID({m1_, 999}, 1));
  EXPECT_FALSE(messages_.SetStarByID({m1_}, -1));
  EXPECT_FALSE(messages_.SetReadByID({999, m1_}, true));
  EXPECT_FALSE(messages_.SetReadByThreadID({thread_, 999}, true));
  EXPECT_FALSE(messages_.SetMailbox({m1_, 999}, kArchived));
  EXPECT_FALSE(messages_.SetMailbox({m1_}, kStarred));
  EXPECT_FALSE(messages_.SetMailbox({m1_}, 99));
  EXPECT_FALSE(messages_.DeleteByMailbox(kStarred));
  EXPECT_FALSE(messages_.DeleteByMailbox(99));
  EXPECT_FALSE(threads_.DeleteTrash({thread_, 999}));
  EXPECT_FALSE(threads_.SetMailbox({thread_, 999}, kArchived));
  EXPECT_FALSE(threads_.SetMailbox({thread_}, kStarred));
  EXPECT_FALSE(threads_.SetMailbox({thread_}, 99));
  EXPECT_FALSE(threads_.AddLabel({thread_, 999}, {label_}));
  EXPECT_FALSE(threads_.AddLabel({thread_}, {label_, 999}));
  EXPECT_FALSE(threads_.RemoveLabel({thread_}, {999}));
  EXPECT_FALSE(threads_.RemoveLabel({999}, {label_}));
  EXPECT_EQ(Snapshot(), before);
}

TEST_F(ChangeTest, AStoreFailureHalfwayLeavesNothingChanged) {
  // The second thread's move fails as a full disk would make it fail.
  db().Exec("CREATE TEMP TRIGGER fail BEFORE UPDATE OF mailbox_id ON main.message WHEN old.id = " +
            std::to_string(u_) + " BEGIN SELECT RAISE(ABORT, 'disk full'); END");
  std::string before = Snapshot();
  EXPECT_EQ(CodeOf([&] { threads_.DeleteTrash({thread_, ThreadOf(u_)}); }), kErrorDatabase);
  EXPECT_EQ(CodeOf([&] { messages_.SetMailbox({m1_, u_}, kArchived); }), kErrorDatabase);
  EXPECT_EQ(Snapshot(), before);
  db().Exec("DROP TRIGGER temp.fail");
  EXPECT_TRUE(threads_.DeleteTrash({thread_, ThreadOf(u_)}));
}

TEST_F(ChangeTest, ThreadsAreListedAsAskedWithMessagesOldestFirst) {
  Mail early;
  early.message_id = "m0";
  early.arrival = 1600000000;  // imported late, arrived first
  int m0 = Add(early);
  Mail reply;
  reply.references = {"m0", "m1"};
  reply.arrival = 1700000000 + 120;
  int m3 = Add(reply);
  ASSERT_EQ(ThreadOf(m0), thread_);
  ASSERT_EQ(ThreadOf(m3), thread_);
  std::vector<record::Thread> listed = threads_.List({999, ThreadOf(u_), thread_, thread_});
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0].id, ThreadOf(u_));
  Ids order;
  for (const record::Message& message : listed[1].messages) order.push_back(message.id);
  EXPECT_EQ(order, (Ids{m0, m1_, m2_, draft_, m3}));
  EXPECT_EQ(listed[1].messages[2].type, 0);
  EXPECT_EQ(listed[1].messages[3].type, 1);
  EXPECT_EQ(threads_.GetExistingThread({999, thread_, ThreadOf(u_), thread_}, {}, {}),
            (Ids{thread_, ThreadOf(u_)}));
  EXPECT_EQ(threads_.GetExistingThread({thread_, ThreadOf(u_)}, kDrafts, label_), Ids{thread_});
}

TEST_F(ChangeTest, EmptyingAMailboxTouchesNoOther) {
  ASSERT_TRUE(messages_.SetMailbox({m2_}, kJunk));
  ASSERT_TRUE(messages_.SetStarByID({m2_}, 1));
  ASSERT_TRUE(messages_.DeleteByMailbox(kJunk));
  EXPECT_EQ(Mailboxes({m1_, m2_, draft_, u_}), (Ids{kInbox, 0, kDrafts, kInbox}));
  ASSERT_TRUE(messages_.DeleteByMailbox(kJunk));  // nothing left: still fine
  EXPECT_EQ(Inconsistencies(), Texts());
}

TEST_F(ChangeTest, RecountingFindsTheKeptCountersRight) {
  ASSERT_TRUE(messages_.SetStarByID({m1_}, 1));
  ASSERT_TRUE(threads_.SetMailbox({ThreadOf(u_)}, kJunk));
  ASSERT_TRUE(messages_.SetReadByID({m2_}, true));
  std::string before = Snapshot();
  ASSERT_TRUE(control::UpdateControl(controller()).UpdateAllMailbox(false));
  EXPECT_EQ(Snapshot(), before);

  std::vector<record::Mailbox> listed = control::MailboxControl(controller()).List(true, true);
  ASSERT_GE(listed.size(), 7u);
  // Inbox: m1 unread; Drafts: one draft, shown without unread mail; Starred:
  // m1 (the junk one is not there).
  EXPECT_EQ(std::make_pair(listed[0].unread_count, listed[0].total_count), std::make_pair(1, 2));
  EXPECT_EQ(std::make_pair(listed[1].unread_count, listed[1].total_count), std::make_pair(0, 1));
  EXPECT_EQ(std::make_pair(listed[6].unread_count, listed[6].total_count), std::make_pair(1, 1));
  ASSERT_TRUE(messages_.SetReadByID({draft_}, false));
  EXPECT_EQ(control::MailboxControl(controller()).List(true, false)[1].unread_count, 0);
  EXPECT_EQ(control::MailboxControl(controller()).List(false, false)[1].unread_count, -1);
}

}  // namespace
}  // namespace ornic::larkpost::testing
