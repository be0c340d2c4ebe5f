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

namespace record = ornic::larkpost::record;
using ornic::larkpost::control::Controller;
using ornic::larkpost::webapi::FilterParser;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class FilterParserTest : public HandlerTest {
 protected:
  void SetUp() override {
    HandlerTest::SetUp();
    fake::core().labels.emplace_back();
    fake::core().labels.back().id = 7;
    fake::core().labels.back().key = "work-7f3a";
    fake::core().mailboxes.emplace_back();
    fake::core().mailboxes.back().id = 5;
    fake::core().mailboxes.back().path = "Projects/&AMk-t&AOk-";
  }

  // Each condition as "key:text:" or "key:text:not".
  std::vector<std::string> Conditions(const Json::Value& json) {
    Controller controller(kAlice, "sid");
    record::ConditionSet set;
    FilterParser(controller).ParseCondition(json, set);
    std::vector<std::string> conditions;
    for (const record::Condition& condition : set.conditions) {
      conditions.push_back(std::to_string(condition.key) + ":" + condition.value + ":" +
                           (condition.negate ? "not" : ""));
    }
    return conditions;
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
  Json::Value all(Json::arrayValue);
  for (const char* name :
       {"mailbox", "from", "to", "subject", "before", "after", "larger", "smaller", "unread",
        "keyword", "modified_after", "has_attachment", "starred", "label"}) {
    Json::Value element = J(R"({"value": "v 1", "not_operator": true})");
    element["name"] = name;
    all.append(element);
  }
  EXPECT_THAT(Conditions(all),
              ElementsAre("1:v 1:", "2:v 1:not", "3:v 1:not", "4:v 1:not",
                          "5:v 1:", "6:v 1:", "7:v 1:", "8:v 1:", "9:v 1:", "10:v 1:not",
                          "11:v 1:", "12:v 1:", "13:v 1:", "14:v 1:"));
}

TEST_F(FilterParserTest, ConditionsKeepArrayOrderAndSkipWhatTheyCannotUse) {
  EXPECT_THAT(Conditions(J(R"([
      {"name": "from", "value": "ann"},
      {"name": "subject"},
      {"value": "orphan"},
      "from",
      null,
      [{"name": "from", "value": "nested"}],
      {"name": "cc", "value": "unknown keyword"},
      {"name": "FROM", "value": "case matters"},
      {"name": "larger", "value": 2048},
      {"name": "unread", "value": true},
      {"name": "to", "value": "bob", "not_operator": false}])")),
              ElementsAre("2:ann:", "7:2048:", "9:true:", "3:bob:"));
  EXPECT_THAT(Conditions(J(R"({"name": "from", "value": "not in an array"})")), IsEmpty());
}

TEST_F(FilterParserTest, ActionsStoreTheTextTheirKindNeeds) {
  struct Case {
    const char* element;
    const char* stored;  // "kind:text", or "" when the element is dropped
  } cases[] = {
      {R"({"name": "archive", "value": "ignored"})", "1:"},
      {R"({"name": "archive"})", ""},  // "value" must be there, even unused
      {R"({"name": "trash", "value": 0})", "7:"},
      {R"({"name": "delete", "value": ""})", "8:"},
      {R"({"name": "set_read", "value": "true"})", "2:true"},
      {R"({"name": "set_read", "value": true})", "2:true"},
      {R"({"name": "set_read", "value": "TRUE"})", "2:false"},
      {R"({"name": "set_star", "value": "1"})", "3:false"},
      {R"({"name": "set_label", "value": 8})", ""},
      {R"({"name": "remove_label", "value": 7})", "9:work-7f3a"},
      {R"({"name": "move_to", "value": 6})", ""},
      {R"({"name": "redirect", "value": "Bob <bob@example.org>"})", "6:Bob <bob@example.org>"},
      {R"({"name": "forward", "value": "bob@example.org"})", ""},
      {R"("archive")", ""},
  };
  for (const Case& c : cases) {
    std::vector<std::string> actions = Actions(std::string("[") + c.element + "]");
    if (*c.stored == '\0') {
      EXPECT_THAT(actions, IsEmpty()) << c.element;
    } else {
      EXPECT_THAT(actions, ElementsAre(c.stored)) << c.element;
    }
  }
}

TEST_F(FilterParserTest, ActionsLookLabelsAndMailboxesUpByTheirIds) {
  const char* rule = R"([{"name": "set_label", "value": 7}, {"name": "move_to", "value": 5},
                         {"name": "trash", "value": ""}])";
  EXPECT_THAT(Actions(rule), ElementsAre("4:work-7f3a", "5:Projects/&AMk-t&AOk-", "7:"));
  EXPECT_THAT(fake::CallsStartingWith("LabelControl::"),
              ElementsAre("LabelControl::Get [7] false"));
  EXPECT_THAT(fake::CallsStartingWith("MailboxControl::"), ElementsAre("MailboxControl::Get 5"));

  // A lookup that finds nothing drops the action, and only that one.
  fake::core().failures = {{"LabelControl::Get", 0}, {"MailboxControl::Get", 0}};
  EXPECT_THAT(Actions(rule), ElementsAre("7:"));
}

TEST_F(FilterParserTest, IdsInNumericTextAreReadAsTheBrowserSendsThem) {
  EXPECT_THAT(Actions(R"([{"name": "set_label", "value": "7"}, {"name": "move_to", "value": "5"},
                          {"name": "remove_label", "value": "-7"}])"),
              ElementsAre("4:work-7f3a", "5:Projects/&AMk-t&AOk-"));
  EXPECT_THAT(fake::CallsStartingWith("LabelControl::Get"),
              ElementsAre("LabelControl::Get [7] false", "LabelControl::Get [-7] false"));
}

TEST_F(FilterParserTest, ValuesOfAnUnusableTypeRaiseTheJsonError) {
  for (const char* text : {"seven", "", "5.0", " 5", "+5", "5x", "2147483648"}) {
    Json::Value rule = J(R"([{"name": "set_label"}])");
    rule[0]["value"] = text;
    EXPECT_THROW(Actions(ZEVO::WebAPIUtil::ToString(rule)), Json::Exception) << text;
  }
  EXPECT_THROW(Actions(R"([{"name": "move_to", "value": {"id": 5}}])"), Json::Exception);
  EXPECT_THROW(Conditions(J(R"([{"name": "from", "value": {"text": "ann"}}])")), Json::Exception);
}

}  // namespace
}  // namespace larkpost::test
