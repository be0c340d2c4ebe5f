// The message is stored first and the rules' conditions are then asked of
// the stored row, inside the same transaction, so that a rule means at
// delivery exactly what the same conditions mean in a search.
#include "appliance/mailcore/delivery.h"

#include <string>
#include <utility>
#include <vector>

#include "appliance/mailcore/filter_store.h"
#include "appliance/mailcore/store_records.h"
#include "platform/mailcore/constant.h"
#include "platform/mailcore/control.h"

namespace ornic::larkpost::store {
namespace {

constexpr int kArchivedId = control::DefaultMailbox::id<constant::kArchived>();

// What the matching rules make of the message.
struct Outcome {
  int mailbox_id = 0;
  bool read = false;
  int star = 0;
  bool discard = false;
  std::vector<std::pair<int, bool>> labels;  // label id, added (else removed), in order
};

// Whether every action of `filter` can be carried out now.
bool CanCarryOut(const record::Filter& filter) {
  for (const record::Action& action : filter.action.actions) {
    if (action.kind == constant::kActionMoveTo && !action.mailbox.IsValid()) return false;
    if ((action.kind == constant::kActionSetLabel || action.kind == constant::kActionRemoveLabel) &&
        action.label.id <= 0) {
      return false;
    }
  }
  return true;
}

void Apply(const record::Action& action, Outcome* outcome, Delivered* delivered) {
  switch (action.kind) {
    case constant::kActionArchive:
      outcome->mailbox_id = kArchivedId;
      break;
    case constant::kActionTrash:
      outcome->mailbox_id = kTrashId;
      break;
    case constant::kActionMoveTo:
      outcome->mailbox_id = action.mailbox.id;
      break;
    case constant::kActionSetRead:
      outcome->read = action.value == "true";
      break;
    case constant::kActionSetStar:
      outcome->star = action.value == "true" ? 1 : 0;
      break;
    case constant::kActionSetLabel:
    case constant::kActionRemoveLabel:
      outcome->labels.emplace_back(action.label.id, action.kind == constant::kActionSetLabel);
      break;
    case constant::kActionRedirect:
      delivered->redirects.push_back(control::MailAddress(action.value).GetEmail());
      break;
    case constant::kActionDelete:
      outcome->discard = true;
      break;
    case constant::kActionNone:
      break;
  }
}

void Store(Database& db, int id, const Outcome& outcome, const NewMessage& message) {
  if (outcome.discard) {
    Statement remove(db, "DELETE FROM message WHERE id = ?1");
    remove.Bind(1, id).Run();
    return;
  }
  if (outcome.mailbox_id != message.mailbox_id || outcome.read != message.read ||
      outcome.star != message.star) {
    Statement update(db,
                     "UPDATE message SET mailbox_id = ?2, is_read = ?3, star = ?4 WHERE id = ?1");
    update.Bind(1, id).Bind(2, outcome.mailbox_id).Bind(3, outcome.read).Bind(4, outcome.star);
    update.Run();
  }
  if (outcome.labels.empty()) return;
  Statement add(db,
                "INSERT OR IGNORE INTO thread_label(thread_id, label_id) "
                "SELECT thread_id, ?2 FROM message WHERE id = ?1");
  Statement remove(db,
                   "DELETE FROM thread_label WHERE label_id = ?2 "
                   "AND thread_id = (SELECT thread_id FROM message WHERE id = ?1)");
  for (const auto& [label, added] : outcome.labels) {
    Statement& change = added ? add : remove;
    change.Bind(1, id).Bind(2, label);
    change.Run();
    change.Reset();
  }
}

}  // namespace

Delivered DeliverMessage(control::Controller& controller, const NewMessage& message,
                         const std::function<void(Database& db)>& also) {
  Delivered delivered;
  bool discarded = false;
  const int id = InsertMessageThen(controller, message, [&](Database& db, int stored) {
    if (also) also(db);
    const std::vector<record::Filter> filters = LoadFilters(db);
    if (filters.empty()) return;
    std::vector<const record::ConditionSet*> sets;
    for (const record::Filter& filter : filters) sets.push_back(&filter.condition);
    const std::vector<bool> meets = MessageMeets(db, stored, sets);
    Outcome outcome;
    outcome.mailbox_id = message.mailbox_id;
    outcome.read = message.read;
    outcome.star = message.star;
    for (size_t i = 0; i < filters.size(); ++i) {
      if (!meets[i]) continue;
      if (!CanCarryOut(filters[i])) {
        LogError("delivery", __LINE__,
                 "filter " + std::to_string(filters[i].id) +
                     " skipped: a mailbox or label it names no longer exists");
        continue;
      }
      for (const record::Action& action : filters[i].action.actions) {
        Apply(action, &outcome, &delivered);
      }
    }
    Store(db, stored, outcome, message);
    discarded = outcome.discard;
  });
  delivered.id = discarded ? 0 : id;
  return delivered;
}

}  // namespace ornic::larkpost::store
