// Filter rules in the store, and what they make of a message at delivery.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "appliance/mailcore/delivery.h"
#include "tests/store/store_fixture.h"

namespace ornic::larkpost::testing {
namespace {

class FilterTest : public StoreTest {
 protected:
  FilterTest() : filters_(controller()) {
    work_ = control::MailboxControl(controller()).Create(0, "Work", true);
    label_ = CreateLabel("Important");
    label_key_ = "$label" + std::to_string(label_);
  }

  static record::Action Action(constant::ActionKind kind, const std::string& value = "") {
    record::Action action;
    action.kind = kind;
    action.value = value;
    return action;
  }

  int Create(const std::vector<record::Condition>& conditions,
             const std::vector<record::Action>& actions) {
    control::FilterConfig config;
    record::ConditionSet condition_set;
    for (const record::Condition& c : conditions)
      condition_set.AddCondition(c.key, c.value, c.negate);
    record::ActionSet action_set;
    for (const record::Action& action : actions) action_set.AddAction(action);
    config.condition.Set(condition_set);
    config.action.Set(action_set);
    return filters_.Create(config);
  }

  std::vector<int> Order() {
    std::vector<int> ids;
    for (const record::Filter& filter : filters_.List()) ids.push_back(filter.id);
    return ids;
  }

  store::Delivered Deliver(const Mail& mail) {
    return store::DeliverMessage(controller(), ToNew(mail, clock_.now()));
  }

  // "mailbox read star labels" of a stored message.
  std::string State(int id) {
    const std::string where = " WHERE id = " + std::to_string(id);
    return std::to_string(Query("SELECT mailbox_id FROM message" + where)) + " " +
           std::to_string(Query("SELECT is_read FROM message" + where)) + " " +
           std::to_string(Query("SELECT star FROM message" + where)) + " " +
           std::to_string(Query("SELECT count(*) FROM thread_label WHERE thread_id = "
                                "(SELECT thread_id FROM message" +
                                where + ")"));
  }

  control::FilterControl filters_;
  int work_ = 0;
  int label_ = 0;
  std::string label_key_;
};

TEST_F(FilterTest, RulesAreKeptInTheUsersOrderAndRefusedWhenTheyCannotWork) {
  const record::Condition from{constant::kConditionFrom, "from", "ann", false};
  const int a = Create({from}, {Action(constant::kActionMoveTo, "Work")});
  const int b = Create({}, {Action(constant::kActionSetLabel, label_key_)});
  const int c = Create({from}, {Action(constant::kActionDelete)});
  ASSERT_GT(a, 0);
  EXPECT_EQ(Order(), (Ids{a, b, c}));
  const std::vector<record::Filter> listed = filters_.List();
  EXPECT_EQ(listed[0].action.actions[0].mailbox.id, work_);
  EXPECT_EQ(listed[1].action.actions[0].label.id, label_);
  EXPECT_TRUE(listed[1].condition.conditions.empty());

  for (const auto& refused : {std::vector<record::Action>{},
                              {Action(constant::kActionMoveTo, "Nowhere")},
                              {Action(constant::kActionMoveTo, "Starred")},
                              {Action(constant::kActionSetLabel, "$label99")},
                              {Action(constant::kActionRedirect, "not an address")}}) {
    EXPECT_EQ(Create({from}, refused), 0);
  }
  control::FilterConfig unset;
  EXPECT_EQ(filters_.Create(unset), 0);

  // SetOrder takes exactly a permutation of the ids.
  for (const Ids& wrong : {Ids{c, a, b, b}, Ids{c, a, a}, Ids{c, a, b, 99}, Ids{}}) {
    EXPECT_FALSE(filters_.SetOrder(wrong));
  }
  EXPECT_EQ(Order(), (Ids{a, b, c}));
  EXPECT_TRUE(filters_.SetOrder({c, a, b}));
  EXPECT_EQ(Order(), (Ids{c, a, b}));
  EXPECT_EQ(filters_.Get({b, 99, c}).size(), 2u);

  // Modify replaces the sets that are set; delete is all or none.
  control::FilterConfig archive;
  record::ActionSet archive_set;
  archive_set.AddAction(Action(constant::kActionArchive));
  archive.action.Set(archive_set);
  EXPECT_TRUE(filters_.Modify(a, archive));
  EXPECT_EQ(filters_.Get({a})[0].action.GetSerializedString(), R"({"action":[[1,""]]})");
  EXPECT_EQ(filters_.Get({a})[0].condition.conditions[0].value, "ann");
  EXPECT_FALSE(filters_.Modify(99, archive));
  EXPECT_FALSE(filters_.Delete({a, 99}));
  EXPECT_TRUE(filters_.Delete({a, c}));
  EXPECT_EQ(Order(), (Ids{b}));
}

TEST_F(FilterTest, EachConditionMeansAtDeliveryWhatItMeansInASearch) {
  // An earlier message of the thread carries the label.
  Mail first;
  first.message_id = "first@example.org";
  const int earlier = Add(first);
  ASSERT_TRUE(control::ThreadControl(controller()).AddLabel({ThreadOf(earlier)}, {label_}));
  Mail mail;
  mail.subject = "Quarterly report";
  mail.in_reply_to = "first@example.org";
  mail.plain = "The budget numbers are inside.";
  clock_.Advance(60);
  const std::string now = std::to_string(clock_.now());
  const struct {
    constant::ConditionKey key;
    std::string value;
    bool negate;
    bool meets;
  } cases[] = {
      {constant::kConditionMailbox, "1", false, true},
      {constant::kConditionMailbox, "3", false, false},
      {constant::kConditionFrom, "ANN@example", false, true},
      {constant::kConditionFrom, "zed", false, false},
      {constant::kConditionFrom, "ann", true, false},
      {constant::kConditionTo, "bob", false, true},
      {constant::kConditionSubject, "quarterly", false, true},
      {constant::kConditionBefore, now, false, false},
      {constant::kConditionBefore, std::to_string(clock_.now() + 1), false, true},
      {constant::kConditionBefore, "soon", false, false},
      {constant::kConditionAfter, std::to_string(clock_.now() - 1), false, true},
      {constant::kConditionAfter, now, false, false},
      {constant::kConditionLarger, "10", false, true},
      {constant::kConditionSmaller, "10", false, false},
      {constant::kConditionUnread, "true", false, true},
      {constant::kConditionUnread, "false", false, false},
      {constant::kConditionKeyword, "budget", false, true},
      {constant::kConditionKeyword, "budg NUMBERS", false, true},
      {constant::kConditionKeyword, "missing", false, false},
      {constant::kConditionKeyword, "missing", true, true},
      {constant::kConditionModifiedAfter, std::to_string(clock_.now() - 1), false, true},
      {constant::kConditionHasAttachment, "false", false, true},
      {constant::kConditionHasAttachment, "true", false, false},
      {constant::kConditionStarred, "false", false, true},
      {constant::kConditionStarred, "yes", false, false},
      {constant::kConditionLabel, std::to_string(label_), false, true},
      {constant::kConditionLabel, std::to_string(label_ + 1), false, false},
  };
  for (const auto& c : cases) {
    const std::string what = std::to_string(c.key) + " " + c.value + (c.negate ? " not" : "");
    for (const record::Filter& filter : filters_.List()) ASSERT_TRUE(filters_.Delete({filter.id}));
    ASSERT_GT(Create({{c.key, "", c.value, c.negate}}, {Action(constant::kActionArchive)}), 0);
    const store::Delivered delivered = Deliver(mail);
    EXPECT_EQ(Query("SELECT mailbox_id FROM message WHERE id = " + std::to_string(delivered.id)),
              c.meets ? kArchived : kInbox)
        << what;
  }
  EXPECT_TRUE(Inconsistencies().empty());
}

TEST_F(FilterTest, EveryMatchingRuleAppliesAndTheLastMailboxNamedWins) {
  const record::Condition from{constant::kConditionFrom, "", "ann", false};
  const record::Condition subject{constant::kConditionSubject, "", "report", false};
  const int to_work = Create(
      {from}, {Action(constant::kActionMoveTo, "Work"), Action(constant::kActionSetRead, "true"),
               Action(constant::kActionSetLabel, label_key_)});
  const int to_archive = Create({from, subject}, {Action(constant::kActionArchive),
                                                  Action(constant::kActionSetStar, "true")});
  const int not_matching =
      Create({{constant::kConditionFrom, "", "zed", false}}, {Action(constant::kActionTrash)});
  Mail mail;
  mail.subject = "Weekly report";
  EXPECT_EQ(State(Deliver(mail).id), std::to_string(kArchived) + " 1 1 1");
  ASSERT_TRUE(filters_.SetOrder({to_archive, not_matching, to_work}));
  mail.subject = "Another report";
  EXPECT_EQ(State(Deliver(mail).id), std::to_string(work_) + " 1 1 1");

  // Labels accumulate in order: the later remove wins.
  Create({from}, {Action(constant::kActionRemoveLabel, label_key_)});
  mail.subject = "Third report";
  EXPECT_EQ(State(Deliver(mail).id), std::to_string(work_) + " 1 1 0");
  EXPECT_TRUE(Inconsistencies().empty());
}

TEST_F(FilterTest, DeleteDiscardsTheMessageAndRedirectsAreHandedBack) {
  Add(Mail());
  const std::string before = Snapshot();
  Create({{constant::kConditionSubject, "", "spam", false}},
         {Action(constant::kActionRedirect, "Bob <bob@example.net>"),
          Action(constant::kActionDelete)});
  Mail spam;
  spam.subject = "Cheap spam";
  const store::Delivered discarded = Deliver(spam);
  EXPECT_EQ(discarded.id, 0);
  EXPECT_EQ(discarded.redirects, (Texts{"bob@example.net"}));
  EXPECT_EQ(Snapshot(), before);
  EXPECT_EQ(Query("SELECT count(*) FROM message_fts WHERE message_fts MATCH 'spam'"), 0);
  EXPECT_TRUE(Inconsistencies().empty());
}

TEST_F(FilterTest, ARuleWhoseMailboxOrLabelWasDeletedIsSkippedWhole) {
  const record::Condition from{constant::kConditionFrom, "", "ann", false};
  const int move = Create(
      {from}, {Action(constant::kActionSetRead, "true"), Action(constant::kActionMoveTo, "Work")});
  Create({from},
         {Action(constant::kActionSetStar, "true"), Action(constant::kActionSetLabel, label_key_)});
  ASSERT_TRUE(control::MailboxControl(controller()).Delete(work_));
  ASSERT_TRUE(control::LabelControl(controller()).Delete({label_}));
  EXPECT_EQ(State(Deliver(Mail()).id), std::to_string(kInbox) + " 0 0 0");
  // The rule stays, showing that its mailbox is gone.
  EXPECT_FALSE(filters_.Get({move})[0].action.actions[1].mailbox.IsValid());
}

}  // namespace
}  // namespace ornic::larkpost::testing
