// "ZEVO.Larkpost.Label": change records as the request gives them, a label
// synchronisation after every change that succeeded (and only then), and the
// "parameter invalid" line for every refused request.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/handler_test_util.h"
#include "webapi/api_table.h"

namespace larkpost::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using LabelTest = HandlerTest;

TEST_F(LabelTest, ChangesStoreTheFieldsAsGivenThenSync) {
  const char* create = R"({"name": " Work ", "text_color": "#FFF", "background_color": "#336699"})";
  EXPECT_EQ(AsSent(Run(LabelCreate_v1, J(create))), J(R"({"success": true, "data": {"id": 100}})"));
  EXPECT_THAT(fake::core().calls,
              ElementsAre("Controller 1026 sid-alice",
                          "LabelControl::Create name=' Work ' text_color='#FFF' "
                          "background_color='#336699'",
                          "Syncer::TriggerSync 1"));
  for (int failed_id : {0, -1}) {
    fake::ResetSystemLog();
    fake::core().calls.clear();
    fake::core().next_id = failed_id;
    EXPECT_EQ(Run(LabelCreate_v1, J(create)), ErrorAnswer(117)) << failed_id;
    EXPECT_THAT(Logged("label"), ElementsAre("create label failed"));
    EXPECT_THAT(fake::CallsStartingWith("Syncer::"), IsEmpty());
  }

  const std::vector<std::string> sync = {"Syncer::TriggerSync 1"};
  ExpectChange(LabelSet_v1, R"({"id": 3, "text_color": "#abc"})",
               "LabelControl::Modify 3 name=- text_color='#abc' background_color=-", "label",
               "modify label failed", sync);
  ExpectChange(LabelSet_v1, R"({"id": 9, "name": "Job", "background_color": "#ABC"})",
               "LabelControl::Modify 9 name='Job' text_color=- background_color='#ABC'", "label",
               "modify label failed", sync);
  ExpectChange(LabelDelete_v1, R"({"id": [3, 9]})", "LabelControl::Delete [3,9]", "label",
               "delete failed", sync);
}

TEST_F(LabelTest, RefusedParametersAreLoggedAndChangeNothing) {
  struct Case {
    ZEVO::APIHandler handler;
    const char* params;
  } cases[] = {
      {LabelCreate_v1, R"({"name": "", "text_color": "#fff", "background_color": "#000"})"},
      {LabelCreate_v1, R"({"name": "W", "text_color": "red", "background_color": "#000"})"},
      {LabelCreate_v1, R"({"name": "W", "text_color": "#fff", "background_color": "#00"})"},
      {LabelCreate_v1, R"({"name": "W", "text_color": "#fff"})"},
      {LabelSet_v1, R"({"id": 3, "name": ""})"},
      {LabelSet_v1, R"({"id": 3, "name": null})"},
      {LabelSet_v1, R"({"id": 3, "text_color": "#ggg"})"},
      {LabelSet_v1, R"({"id": 3, "background_color": null})"},
      {LabelDelete_v1, R"({"id": null})"},
      {LabelDelete_v1, R"({"id": [0]})"},
      {LabelGet_v1, R"({"id": [2, -1]})"},
      {LabelGet_v1, R"({"id": null})"},
  };
  for (const Case& c : cases) {
    fake::core().calls.clear();
    fake::ResetSystemLog();
    EXPECT_EQ(Run(c.handler, J(c.params)), ErrorAnswer(120)) << c.params;
    EXPECT_THAT(Logged("label"), ElementsAre("parameter invalid")) << c.params;
    EXPECT_THAT(fake::core().calls, ElementsAre("Controller 1026 sid-alice")) << c.params;
  }
}

TEST_F(LabelTest, GetAndListAskForUnreadCountsOnlyWhenAsked) {
  for (int id : {3, 9}) {
    fake::core().labels.emplace_back();
    fake::core().labels.back().id = id;
    fake::core().labels.back().name = "L" + std::to_string(id);
  }
  const std::string l3 = R"({"id": 3, "name": "L3", "text_color": "", "background_color": ""})";
  const std::string l9 = R"({"id": 9, "name": "L9", "text_color": "", "background_color": ""})";
  EXPECT_EQ(Data(Run(LabelGet_v1, J(R"({"id": [9, 99, 3]})"))),
            J(R"({"label": [)" + l9 + ", " + l3 + "]}"));
  EXPECT_EQ(Data(Run(LabelGet_v1, J(R"({"id": [99]})"))), J(R"({"label": []})"));
  Run(LabelGet_v1, J(R"({"id": [3], "additional": ["unread_count"]})"));

  const Json::Value list = Data(Run(LabelList_v1));
  EXPECT_EQ(AsSent(list), J(R"({"total": 2, "label": [)" + l3 + ", " + l9 + "]}"));
  EXPECT_EQ(list["total"].type(), Json::uintValue);
  Run(LabelList_v1, J(R"({"additional": ["unread_count"]})"));

  EXPECT_THAT(fake::CallsStartingWith("LabelControl::"),
              ElementsAre("LabelControl::Get [9,99,3] false", "LabelControl::Get [99] false",
                          "LabelControl::Get [3] true", "LabelControl::List false",
                          "LabelControl::List true"));
  EXPECT_THAT(fake::CallsStartingWith("Syncer::"), IsEmpty());
}

}  // namespace
}  // namespace larkpost::test
