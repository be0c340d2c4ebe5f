#include "appliance/mailcore/filter_run.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/store/store_fixture.h"

namespace ornic::larkpost::testing {
namespace {

// Mail from Bob in the inbox and in trash, mail from Carol, and Bob's draft.
class FilterRunTest : public StoreTest {
 protected:
  FilterRunTest() {
    Mail bob;
    bob.from = "Bob <bob@example.org>";
    bob.subject = "one";
    bob_inbox_ = Add(bob);
    bob.subject = "two";
    bob.mailbox = kTrash;
    bob_trash_ = Add(bob);
    bob.subject = "draft";
    bob.mailbox = kDrafts;
    bob.type = 1;
    bob_draft_ = Add(bob);
    Mail carol;
    carol.from = "Carol <carol@example.org>";
    carol.subject = "three";
    carol_ = Add(carol);
    CreateLabel("Work");
    label_key_ = control::LabelControl(controller()).List(false).at(0).key;
  }

  // Runs the sets to the end in batches of `batch`; returns the total.
  uint32_t Run(const std::vector<record::Condition>& conditions,
               const std::vector<std::pair<constant::ActionKind, std::string>>& actions,
               size_t batch = 1) {
    record::ConditionSet condition_set;
    for (const record::Condition& c : conditions) {
      condition_set.AddCondition(c.key, c.value, c.negate);
    }
    record::ActionSet action_set;
    for (const auto& [kind, value] : actions) {
      record::Action action;
      action.kind = kind;
      action.value = value;
      action_set.AddAction(action);
    }
    auto run = store::FilterRun::FromText(condition_set.GetSerializedString(),
                                          action_set.GetSerializedString());
    EXPECT_TRUE(run);
    uint32_t total = run->Prepare(uid_);
    uint32_t examined = 0;
    while (uint32_t step = run->NextBatch(batch)) examined += step;
    EXPECT_EQ(examined, total);
    summary_ = run->Summary();
    return total;
  }
  int64_t MailboxOf(int id) {
    return Query("SELECT ifnull((SELECT mailbox_id FROM message WHERE id = " + std::to_string(id) +
                 "), 0)");
  }
  std::string Flags(int id) {
    return std::to_string(Query("SELECT is_read FROM message WHERE id = " + std::to_string(id))) +
           std::to_string(Query("SELECT star FROM message WHERE id = " + std::to_string(id)));
  }

  int bob_inbox_ = 0, bob_trash_ = 0, bob_draft_ = 0, carol_ = 0;
  std::string label_key_;
  std::string summary_;
};

record::Condition From(const std::string& text) {
  return {constant::kConditionFrom, "from", text, false};
}

TEST_F(FilterRunTest, ActionsApplyToMatchingMessagesButNeverToDrafts) {
  int work = control::MailboxControl(controller()).Create(0, "Work", true);
  EXPECT_EQ(Run({From("bob")}, {{constant::kActionSetRead, "true"},
                                {constant::kActionSetStar, "true"},
                                {constant::kActionSetLabel, label_key_},
                                {constant::kActionRedirect, "eve@example.org"},
                                {constant::kActionArchive, ""},
                                {constant::kActionMoveTo, "Work"}}),
            3u);  // every message but the draft
  // The last mailbox named wins; the draft and Carol's mail stay as they were.
  EXPECT_EQ(Flags(bob_inbox_) + Flags(bob_draft_) + Flags(carol_), "110000");
  EXPECT_EQ(
      (std::vector<int64_t>{MailboxOf(bob_inbox_), MailboxOf(bob_trash_), MailboxOf(bob_draft_)}),
      (std::vector<int64_t>{work, work, kDrafts}));
  EXPECT_EQ(Query("SELECT count(*) FROM thread_label"), 2);
  // The redirect (action 4) is not carried out over stored mail.
  EXPECT_EQ(summary_, "examined 3 of 3, matched 2, changed 8, skipped actions: 4");
  EXPECT_EQ(Inconsistencies(), std::vector<std::string>());
}

TEST_F(FilterRunTest, DeleteMovesToTrashAndDeletesForGoodInTrash) {
  Run({From("bob")}, {{constant::kActionMoveTo, "INBOX"}, {constant::kActionDelete, ""}});
  EXPECT_EQ((std::vector<int64_t>{MailboxOf(bob_inbox_), MailboxOf(bob_trash_), MailboxOf(carol_)}),
            (std::vector<int64_t>{kTrash, 0, kInbox}));
  EXPECT_EQ(Inconsistencies(), std::vector<std::string>());
}

TEST_F(FilterRunTest, AMailboxConditionNarrowsTheRunAndNegationHolds) {
  record::Condition in_trash{constant::kConditionMailbox, "mailbox", std::to_string(kTrash), false};
  EXPECT_EQ(Run({in_trash}, {{constant::kActionSetRead, "true"}}), 1u);
  EXPECT_EQ(Flags(bob_trash_) + Flags(bob_inbox_), "1000");

  record::Condition not_bob = From("bob");
  not_bob.negate = true;
  Run({not_bob}, {{constant::kActionSetStar, "true"}});
  EXPECT_EQ(Flags(carol_) + Flags(bob_inbox_), "0100");
}

TEST_F(FilterRunTest, AnActionWhoseLabelOrMailboxIsGoneIsSkippedAndTheOthersApply) {
  control::LabelControl(controller())
      .Delete({control::LabelControl(controller()).List(false)[0].id});
  Run({From("carol")}, {{constant::kActionSetLabel, label_key_},
                        {constant::kActionMoveTo, "Gone"},
                        {constant::kActionSetRead, "true"}});
  EXPECT_EQ(Flags(carol_), "10");
  EXPECT_EQ(MailboxOf(carol_), kInbox);
  EXPECT_EQ(summary_, "examined 3 of 3, matched 1, changed 1, skipped actions: 1,2");
}

TEST_F(FilterRunTest, UnreadableTextsMakeNoRun) {
  EXPECT_FALSE(store::FilterRun::FromText("not json", "{\"action\":[]}"));
  EXPECT_FALSE(store::FilterRun::FromText("{\"condition\":[],\"match_any\":false}", "[1"));
}

}  // namespace
}  // namespace ornic::larkpost::testing
