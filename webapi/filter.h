// Filter rules as the browser sends them: arrays of conditions and of
// actions, turned into the core's condition and action sets. The thread
// list's search speaks the same condition language.
#pragma once

#include <json/value.h>

#include "platform/mailcore/controller.h"
#include "platform/mailcore/record.h"

namespace ornic::larkpost::webapi {

// Never reports an error: an element it cannot use is left out, and the
// caller decides what an empty or shortened set means. A "value" whose JSON
// type cannot be read as the text or the integer that its keyword needs
// raises the JSON library's error, which is not caught here.
class FilterParser {
 public:
  explicit FilterParser(control::Controller& controller) : controller_(controller) {}

  // Appends, in array order, one condition per element that is an object
  // with "name" and "value": the keyword's condition kind, "value" as text,
  // and "not_operator" (default false) for "from", "to", "subject" and
  // "keyword" only. Unknown keywords are skipped.
  void ParseCondition(const Json::Value& conditions, record::ConditionSet& out) const;

  // Appends, in array order, one action per element that is an object with
  // "name" and "value" and that makes a valid action: "archive", "trash" and
  // "delete" ignore the value; "set_read" and "set_star" store "true" for
  // the text "true" and "false" for anything else; "set_label" and
  // "remove_label" store the key text of the label whose id is the value;
  // "move_to" the raw path of the mailbox whose id is the value; "redirect"
  // the value as it is. Unknown keywords, labels and mailboxes are skipped.
  void ParseAction(const Json::Value& actions, record::ActionSet& out) const;

 private:
  control::Controller& controller_;
};

}  // namespace ornic::larkpost::webapi
