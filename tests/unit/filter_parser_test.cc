// The filter rule parser: which elements become conditions and actions,
// with which kind, negation and stored text.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>

#include <string>
#include <vector>

#include "platform/mailcore/controller.h"
#include "tests/unit/handler_test_util.h"
#include "webapi/filter.h"

namespace larkpost::test {
namespace {

namespace constant = ornic::larkpost::constant;
namespace record = ornic::larkpost::record;
using ornic::larkpost::control::Controller;
using ornic::larkpost::webapi::FilterParser;
using ::testing::ElementsAre;

class FilterParserTest : public HandlerTest {
 protected:
  void SetUp() override {
    HandlerTest::SetUp();
    record::Label label;
    label.id = 7;
    label.name = "Work";
    label.key = "work-7f3a";
    fake::core().labels = {label};
    record::Mailbox mailbox;
    mailbox.id = 5;
    mailbox.path = "Projects/&AMk-t&AOk-";
    fake::core().mailboxes = {mailbox};
  }

  std::vector<record::Condition> Conditions(const std::string& json) {
    Controller controller(kAlice, "sid");
    record::ConditionSet set;
    FilterParser(controller).ParseCondition(J(json), set);
    return set.conditions;
  }

  // Each action as "kind:text".
  std::vector<std::string> Actions(const std::string& json) {
    Controller controller(kAlice, "sid");
    record::ActionSet set;
    FilterParser(controller).ParseAction(J(json), set);
    std::vector<std::string> actions;
    for (const record::Action& action : set.actions) {
      actions.push_back(std::to_string(action.kind) + ":" + action.value);
    }
    return actions;
  }
};

TEST_F(FilterParserTest, EveryConditionKeywordHasItsKindAndOnlyTextOnesNegate) {
  struct Case {
    const char* name;
    constant::ConditionKey key;
    bool negatable;
  } cases[] = {
      {"mailbox", constant::kConditionMailbox, false},
      {"from", constant::kConditionFrom, true},
      {"to", constant::kConditionTo, true},
      {"subject", constant::kConditionSubject, true},
      {"before", constant::kConditionBefore, false},
      {"after", constant::kConditionAfter, false},
      {"larger", constant::kConditionLarger, false},
      {"smaller", constant::kConditionSmaller, false},
      {"unread", constant::kConditionUnread, false},
      {"keyword", constant::kConditionKeyword, true},
      {"modified_after", constant::kConditionModifiedAfter, false},
      {"has_attachment", constant::kConditionHasAttachment, false},
      {"starred", constant::kConditionStarred, false},
      {"label", constant::kConditionLabel, false},
  };
  for (const Case& c : cases) {
    for (const char* negation : {"", R"(, "not_operator": false)", R"(, "not_operator": true)"}) {
      std::vector<record::Condition> conditions = Conditions(
          std::string(R"([{"name": ")") + c.name + R"(", "value": "v 1")" + negation + "}]");
      ASSERT_EQ(conditions.size(), 1u) << c.name;
      EXPECT_EQ(conditions[0].key, c.key) << c.name;
      EXPECT_EQ(conditions[0].value, "v 1") << c.name;
      bool asked = std::string(negation).find("true") != std::string::npos;
      EXPECT_EQ(conditions[0].negate, c.negatable && asked) << c.name << negation;
    }
  }
}

TEST_F(FilterParserTest, ConditionsKeepArrayOrderAndSkipWhatTheyCannotUse) {
  std::vector<record::Condition> conditions = Conditions(R"([
      {"name": "from", "value": "ann"},
      {"name": "subject"},
      {"value": "orphan"},
      "from",
      17,
      null,
      [{"name": "from", "value": "nested"}],
      {"name": "cc", "value": "unknown keyword"},
      {"name": "FROM", "value": "case matters"},
      {"name": "larger", "value": 2048},
      {"name": "unread", "value": true},
      {"name": "from", "value": "bob", "not_operator": true}])");
  std::vector<std::string> seen;
  for (const record::Condition& condition : conditions) {
    seen.push_back(std::to_string(condition.key) + ":" + condition.value + ":" +
                   (condition.negate ? "not" : ""));
  }
  EXPECT_THAT(seen, ElementsAre("2:ann:", "7:2048:", "9:true:", "2:bob:not"));

  EXPECT_TRUE(Conditions("[]").empty());
  EXPECT_TRUE(Conditions(R"({"name": "from", "value": "not in an array"})").empty());
}

TEST_F(FilterParserTest, ActionsStoreTheTextTheirKindNeeds) {
  struct Case {
    const char* element;
    const char* stored;  // "kind:text", or "" when the element is dropped
  } cases[] = {
      {R"({"name": "archive", "value": ""})", "1:"},
      {R"({"name": "archive", "value": "ignored"})", "1:"},
      {R"({"name": "archive"})", ""},  // "value" must be there, even unused
      {R"({"name": "trash", "value": 0})", "7:"},
      {R"({"name": "delete", "value": ""})", "8:"},
      {R"({"name": "set_read", "value": "true"})", "2:true"},
      {R"({"name": "set_read", "value": true})", "2:true"},
      {R"({"name": "set_read", "value": "TRUE"})", "2:false"},
      {R"({"name": "set_read", "value": "yes"})", "2:false"},
      {R"({"name": "set_star", "value": "1"})", "3:false"},
      {R"({"name": "set_star", "value": ""})", "3:false"},
      {R"({"name": "set_label", "value": 7})", "4:work-7f3a"},
      {R"({"name": "set_label", "value": 8})", ""},
      {R"({"name": "remove_label", "value": 7})", "9:work-7f3a"},
      {R"({"name": "move_to", "value": 5})", "5:Projects/&AMk-t&AOk-"},
      {R"({"name": "move_to", "value": 6})", ""},
      {R"({"name": "redirect", "value": "Bob <bob@example.org>"})", "6:Bob <bob@example.org>"},
      {R"({"name": "forward", "value": "bob@example.org"})", ""},
      {R"("archive")", ""},
  };
  for (const Case& c : cases) {
    std::vector<std::string> actions = Actions(std::string("[") + c.element + "]");
    if (*c.stored == '\0') {
      EXPECT_TRUE(actions.empty()) << c.element;
    } else {
      EXPECT_THAT(actions, ElementsAre(c.stored)) << c.element;
    }
  }
}

TEST_F(FilterParserTest, ActionsLookLabelsAndMailboxesUpByTheirIds) {
  EXPECT_THAT(Actions(R"([{"name": "set_label", "value": 7}, {"name": "move_to", "value": 5},
                          {"name": "archive", "value": ""}, {"name": "set_label", "value": 7}])"),
              ElementsAre("4:work-7f3a", "5:Projects/&AMk-t&AOk-", "1:", "4:work-7f3a"));
  EXPECT_THAT(fake::CallsStartingWith("LabelControl::"),
              ElementsAre("LabelControl::Get [7] false", "LabelControl::Get [7] false"));
  EXPECT_THAT(fake::CallsStartingWith("MailboxControl::"), ElementsAre("MailboxControl::Get 5"));

  // A lookup that finds nothing drops the action, and only that one.
  fake::core().failures["LabelControl::Get"] = 0;
  fake::core().failures["MailboxControl::Get"] = 0;
  EXPECT_THAT(Actions(R"([{"name": "set_label", "value": 7}, {"name": "move_to", "value": 5},
                          {"name": "trash", "value": ""}])"),
              ElementsAre("7:"));
}

TEST_F(FilterParserTest, ValuesOfAnUnusableTypeRaiseTheJsonError) {
  EXPECT_THROW(Actions(R"([{"name": "set_label", "value": "seven"}])"), Json::Exception);
  EXPECT_THROW(Actions(R"([{"name": "move_to", "value": {"id": 5}}])"), Json::Exception);
  EXPECT_THROW(Conditions(R"([{"name": "from", "value": {"text": "ann"}}])"), Json::Exception);
}

}  // namespace
}  // namespace larkpost::test
