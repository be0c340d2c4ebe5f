// The user's filter rules as the core reads them, and the test of a stored
// message against condition sets. Private to the core: delivery and
// FilterControl share them.
#pragma once

#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "platform/mailcore/record.h"

namespace ornic::larkpost::store {

// The filters (all of them, or those of `ids`), in evaluation order, with
// each action's mailbox (by raw path) and label (by key) filled in: not
// valid, id 0, when it no longer exists. A row whose text does not parse
// is logged and left out.
std::vector<record::Filter> LoadFilters(Database& db, const std::vector<int>* ids = nullptr);

// Whether message `id` meets each of `sets` (every condition, or any with
// match_any; an empty set is met), with the meanings of the thread search,
// in one statement. Sees the caller's open transaction.
std::vector<bool> MessageMeets(Database& db, int id,
                               const std::vector<const record::ConditionSet*>& sets);

}  // namespace ornic::larkpost::store
