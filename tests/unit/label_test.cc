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

namespace record = ornic::larkpost::record;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LabelTest : public HandlerTest {
 protected:
  void SetUp() override {
    HandlerTest::SetUp();
    for (int id : {3, 9}) {
      record::Label label;
      label.id = id;
      label.name = id == 3 ? "Family" : "Work";
      label.key = "key-" + std::to_string(id);
      label.text_color = "#fff";
      label.background_color = "#336699";
      label.unread_count = id;
      fake::core().labels.push_back(label);
    }
  }

  // The calls to the label operations and the syncer, in order.
  static std::vector<std::string> ChangeCalls() {
    std::vector<std::string> calls;
    for (const std::string& call : fake::core().calls) {
      if (call.rfind("LabelControl::", 0) == 0 || call.rfind("Syncer::", 0) == 0) {
        calls.push_back(call);
      }
    }
    return calls;
  }

  void Clear() {
    fake::core().calls.clear();
    fake::core().failures.clear();
    fake::ResetSystemLog();
  }
};

TEST_F(LabelTest, CreateStoresTheFieldsAsGivenThenSyncs) {
  EXPECT_EQ(AsSent(Run(LabelCreate_v1, J(R"({"name": " Work ", "text_color": "#FFF",
                                              "background_color": "#336699"})"))),
            J(R"({"success": true, "data": {"id": 100}})"));
  EXPECT_THAT(ChangeCalls(), ElementsAre("LabelControl::Create name=' Work ' text_color='#FFF' "
                                         "background_color='#336699'",
                                         "Syncer::TriggerSync 1"));

  for (int failed_id : {0, -1}) {
    Clear();
    fake::core().next_id = failed_id;
    EXPECT_EQ(Run(LabelCreate_v1, J(R"({"name": "Work", "text_color": "#fff",
                                        "background_color": "#000"})")),
              ErrorAnswer(117))
        << failed_id;
    EXPECT_THAT(Logged("label"), ElementsAre("create label failed"));
    EXPECT_THAT(fake::CallsStartingWith("Syncer::"), IsEmpty());
  }
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
      {LabelCreate_v1, R"({"name": null, "text_color": "#fff", "background_color": "#000"})"},
      {LabelCreate_v1, R"({"name": 7, "text_color": "#fff", "background_color": "#000"})"},
      {LabelSet_v1, R"({"id": 3, "name": ""})"},
      {LabelSet_v1, R"({"id": 3, "name": null})"},
      {LabelSet_v1, R"({"id": 3, "text_color": "#ggg"})"},
      {LabelSet_v1, R"({"id": 3, "background_color": null})"},
      {LabelSet_v1, R"({"id": 3, "background_color": 255})"},
      {LabelDelete_v1, R"({})"},
      {LabelDelete_v1, R"({"id": null})"},
      {LabelDelete_v1, R"({"id": [0]})"},
      {LabelDelete_v1, R"({"id": 3})"},
      {LabelGet_v1, R"({"id": []})"},
      {LabelGet_v1, R"({"id": null})"},
      {LabelGet_v1, R"({"id": ["3"]})"},
  };
  for (const Case& c : cases) {
    Clear();
    EXPECT_EQ(Run(c.handler, J(c.params)), ErrorAnswer(120)) << c.params;
    EXPECT_THAT(Logged("label"), ElementsAre("parameter invalid")) << c.params;
    EXPECT_THAT(ChangeCalls(), IsEmpty()) << c.params;
  }
}

TEST_F(LabelTest, SetChangesOnlyTheGivenFieldsThenSyncs) {
  struct Case {
    const char* params;
    const char* call;
  } cases[] = {
      {R"({"id": 3, "text_color": "#abc"})",
       "LabelControl::Modify 3 name=- text_color='#abc' background_color=-"},
      {R"({"id": 3})", "LabelControl::Modify 3 name=- text_color=- background_color=-"},
      {R"({"id": 9, "name": "Job", "text_color": "#aabbcc", "background_color": "#ABC"})",
       "LabelControl::Modify 9 name='Job' text_color='#aabbcc' background_color='#ABC'"},
  };
  for (const Case& c : cases) {
    Clear();
    EXPECT_EQ(Run(LabelSet_v1, J(c.params)), J(R"({"success": true})")) << c.params;
    EXPECT_THAT(ChangeCalls(), ElementsAre(c.call, "Syncer::TriggerSync 1"));
  }

  Clear();
  fake::core().failures["LabelControl::Modify"] = 0;
  EXPECT_EQ(Run(LabelSet_v1, J(R"({"id": 3, "name": "Job"})")), ErrorAnswer(117));
  EXPECT_THAT(Logged("label"), ElementsAre("modify label failed"));
  EXPECT_THAT(fake::CallsStartingWith("Syncer::"), IsEmpty());
}

TEST_F(LabelTest, DeleteIsAllOrNothing) {
  EXPECT_EQ(Run(LabelDelete_v1, J(R"({"id": [3, 9]})")), J(R"({"success": true})"));
  EXPECT_THAT(ChangeCalls(), ElementsAre("LabelControl::Delete [3,9]", "Syncer::TriggerSync 1"));

  Clear();
  fake::core().failures["LabelControl::Delete"] = 0;
  EXPECT_EQ(Run(LabelDelete_v1, J(R"({"id": [3, 9]})")), ErrorAnswer(117));
  EXPECT_THAT(Logged("label"), ElementsAre("delete failed"));
  EXPECT_THAT(fake::CallsStartingWith("Syncer::"), IsEmpty());
}

TEST_F(LabelTest, GetAndListShowUnreadCountsOnlyWhenAsked) {
  const char* family = R"({"id": 3, "name": "Family", "text_color": "#fff",
                           "background_color": "#336699"})";
  Json::Value answer = Run(LabelGet_v1, J(R"({"id": [9, 99, 3]})"));
  EXPECT_EQ(Data(answer)["label"].size(), 2u);
  EXPECT_EQ(Data(answer)["label"][1], J(family));
  EXPECT_FALSE(Data(answer).isMember("total"));

  answer = Run(LabelGet_v1, J(R"({"id": [3], "additional": ["unread_count"]})"));
  Json::Value counted = J(family);
  counted["additional"]["unread_count"] = 3;
  EXPECT_EQ(Data(answer)["label"][0], counted);
  EXPECT_EQ(Data(Run(LabelGet_v1, J(R"({"id": [99]})"))), J(R"({"label": []})"));

  answer = Run(LabelList_v1, J(R"({"additional": ["unread_count"]})"));
  EXPECT_EQ(Data(answer)["label"][0], counted);
  EXPECT_EQ(Data(answer)["total"].type(), Json::uintValue);
  EXPECT_EQ(Data(answer)["total"].asUInt(), 2u);
  answer = Run(LabelList_v1);
  EXPECT_EQ(Data(answer)["label"][0], J(family));

  EXPECT_THAT(fake::CallsStartingWith("LabelControl::"),
              ElementsAre("LabelControl::Get [9,99,3] false", "LabelControl::Get [3] true",
                          "LabelControl::Get [99] false", "LabelControl::List true",
                          "LabelControl::List false"));
  EXPECT_THAT(fake::CallsStartingWith("Syncer::"), IsEmpty());
}

}  // namespace
}  // namespace larkpost::test
