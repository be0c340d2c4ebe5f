// Stored filters as the filter methods show them: the same shape that the
// browser sends, so that a filter read back can be edited and sent again;
// only "set_label" and "move_to" carry the id of their label or mailbox
// instead of the stored text.
#pragma once

#include <json/value.h>

#include "platform/mailcore/record.h"

namespace ornic::larkpost::webapi::format {

// {"name", "value", "not_operator"}; the flag is written for every kind.
Json::Value ConditionToJson(const record::Condition& condition);

// {"name", "value"}: the stored text, except the label id (integer) of a
// "set_label" and the mailbox id of a "move_to". "remove_label" keeps the
// label's key text.
Json::Value ActionToJson(const record::Action& action);

// {"id", "condition": [...], "action": [...]}, both arrays always present,
// in stored order.
Json::Value FilterToJson(const record::Filter& filter);

}  // namespace ornic::larkpost::webapi::format
