// The plug-in's filter parser (condition and action elements as a client
// sends them, against the recording fake core with one label and one
// mailbox) and the core's serialised filter text: a set the parser makes
// serialises to a text that parses back to the same text, and any text the
// core reads back serialises to a text that reads back unchanged. Input:
// JSON (the condition and action arrays alike), or any text as serialised
// sets.
#include <json/json.h>

#include "fuzz/fuzz_util.h"
#include "platform/mailcore/controller.h"
#include "platform/mailcore/record.h"
#include "tests/fake/fake_core.h"
#include "webapi/filter.h"

namespace record = ornic::larkpost::record;
using larkpost::fuzz::Broken;

namespace {

template <typename Set>
void RoundTrip(const std::string& text) {
  Set set;
  if (!Set::ParseSerializedString(text, &set)) return;
  const std::string once = set.GetSerializedString();
  Set again;
  if (!Set::ParseSerializedString(once, &again) || again.GetSerializedString() != once) {
    Broken("a serialised set does not read back as itself: " + once);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  RoundTrip<record::ConditionSet>(text);
  RoundTrip<record::ActionSet>(text);

  Json::Value elements;
  if (!ZEVO::WebAPIUtil::FromString(text, elements)) return 0;
  larkpost::fake::Reset();
  auto& core = larkpost::fake::core();
  core.users[1026] = "alice";
  core.labels.emplace_back();
  core.labels.back().id = 7;
  core.labels.back().key = "work-7f3a";
  core.mailboxes.emplace_back();
  core.mailboxes.back().id = 5;
  core.mailboxes.back().path = "Projects/&AMk-t&AOk-";
  ornic::larkpost::control::Controller controller(1026, "sid");
  const ornic::larkpost::webapi::FilterParser parser(controller);
  record::ConditionSet conditions;
  record::ActionSet actions;
  try {
    parser.ParseCondition(elements, conditions);
    parser.ParseAction(elements, actions);
  } catch (const Json::Exception&) {
    // A value that the platform's JSON library cannot convert ("abc" as a
    // mailbox id) raises its error by design; the framework answers it.
    return 0;
  }
  RoundTrip<record::ConditionSet>(conditions.GetSerializedString());
  RoundTrip<record::ActionSet>(actions.GetSerializedString());
  for (const record::Action& action : actions.actions) {
    if (!action.IsValid()) Broken("the parser made an action that is not valid");
  }
  return 0;
}
