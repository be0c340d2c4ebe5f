// Filter rules. Each rule is one row: its two sets in their serialised text
// form and its place in the user's order. The order is kept as positions
// 1..n; a new rule goes last.
#include <algorithm>
#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/filter_store.h"
#include "appliance/mailcore/store_records.h"
#include "appliance/mailcore/store_text.h"
#include "platform/mailcore/control.h"

namespace ornic::larkpost::store {
namespace {

bool FindMailboxByPath(Database& db, const std::string& path, record::Mailbox* mailbox,
                       int* builtin) {
  Statement select(db,
                   "SELECT id, ifnull(parent_id, 0), raw_path, subscribed, ifnull(builtin, -1) "
                   "FROM mailbox WHERE raw_path = ?1");
  select.Bind(1, path);
  if (!select.Step()) return false;
  mailbox->id = select.Int(0);
  mailbox->parent_id = select.Int(1);
  mailbox->path = select.Text(2);
  mailbox->subscribed = select.Int(3) != 0;
  *builtin = select.Int(4);
  return true;
}

bool FindLabelByKey(Database& db, const std::string& key, record::Label* label) {
  Statement select(db,
                   "SELECT id, name, key, text_color, background_color FROM label WHERE key = ?1");
  select.Bind(1, key);
  if (!select.Step()) return false;
  *label = ReadLabel(select, false);
  return true;
}

// Fills in what the action names; false when that does not exist (or is
// the virtual starred mailbox, where nothing can be put).
bool Resolve(Database& db, record::Action* action) {
  switch (action->kind) {
    case constant::kActionMoveTo: {
      int builtin = -1;
      return FindMailboxByPath(db, action->value, &action->mailbox, &builtin) &&
             builtin != constant::kStarred;
    }
    case constant::kActionSetLabel:
    case constant::kActionRemoveLabel:
      return FindLabelByKey(db, action->value, &action->label);
    default:
      return true;
  }
}

// What Create and Modify store: a rule with at least one action, every one
// valid and naming what exists.
bool Acceptable(Database& db, record::ActionSet actions) {
  if (actions.actions.empty()) return false;
  for (record::Action& action : actions.actions) {
    if (!action.IsValid() || !Resolve(db, &action)) return false;
  }
  return true;
}

}  // namespace

std::vector<record::Filter> LoadFilters(Database& db, const std::vector<int>* ids) {
  std::string sql = "SELECT id, condition_set, action_set FROM mail_filter ";
  if (ids) sql += "WHERE id IN (SELECT value FROM json_each(?1)) ";
  sql += "ORDER BY position, id";
  Statement select(db, sql.c_str());
  if (ids) select.Bind(1, EncodeIdArray(*ids));
  std::vector<record::Filter> filters;
  while (select.Step()) {
    record::Filter filter;
    filter.id = select.Int(0);
    if (!record::ConditionSet::ParseSerializedString(select.Text(1), &filter.condition) ||
        !record::ActionSet::ParseSerializedString(select.Text(2), &filter.action)) {
      LogError("filter_control", __LINE__,
               "filter " + std::to_string(filter.id) + " is not readable; left out");
      continue;
    }
    for (record::Action& action : filter.action.actions) Resolve(db, &action);
    filters.push_back(std::move(filter));
  }
  return filters;
}

}  // namespace ornic::larkpost::store

namespace ornic::larkpost::control {

using store::Database;
using store::Statement;

FilterControl::FilterControl(Controller& controller) : controller_(controller) {}

std::vector<record::Filter> FilterControl::List() {
  Database& db = controller_.impl().db();
  return store::Guard("listing filters", [&] {
    store::ReadTransaction read(db);
    return store::LoadFilters(db);
  });
}

std::vector<record::Filter> FilterControl::Get(const std::vector<int>& ids) {
  Database& db = controller_.impl().db();
  return store::Guard("reading filters", [&] {
    store::ReadTransaction read(db);
    return store::LoadFilters(db, &ids);
  });
}

int FilterControl::Create(const FilterConfig& config) {
  if (!config.condition.IsSet() || !config.action.IsSet()) return 0;
  Database& db = controller_.impl().db();
  return store::Guard("creating a filter", [&] {
    store::Transaction transaction(db);
    if (!store::Acceptable(db, config.action.Get())) return 0;
    Statement insert(db,
                     "INSERT INTO mail_filter(position, condition_set, action_set) VALUES "
                     "((SELECT ifnull(max(position), 0) + 1 FROM mail_filter), ?1, ?2)");
    insert.Bind(1, config.condition.Get().GetSerializedString());
    insert.Bind(2, config.action.Get().GetSerializedString());
    insert.Run();
    const int id = static_cast<int>(db.LastInsertRowid());
    transaction.Commit();
    return id;
  });
}

bool FilterControl::Modify(int id, const FilterConfig& config) {
  Database& db = controller_.impl().db();
  return store::Guard("changing a filter", [&] {
    store::Transaction transaction(db);
    const std::vector<int> ids = {id};
    std::vector<record::Filter> found = store::LoadFilters(db, &ids);
    if (found.empty()) return false;
    record::Filter& filter = found.front();
    if (config.condition.IsSet()) filter.condition = config.condition.Get();
    if (config.action.IsSet()) filter.action = config.action.Get();
    if (!store::Acceptable(db, filter.action)) return false;
    Statement update(db,
                     "UPDATE mail_filter SET condition_set = ?2, action_set = ?3 WHERE id = ?1");
    update.Bind(1, id).Bind(2, filter.condition.GetSerializedString());
    update.Bind(3, filter.action.GetSerializedString());
    update.Run();
    transaction.Commit();
    return true;
  });
}

bool FilterControl::Delete(const std::vector<int>& ids) {
  Database& db = controller_.impl().db();
  return store::Guard("deleting filters", [&] {
    store::Transaction transaction(db);
    if (!store::AllExist(db, "mail_filter", ids)) return false;
    Statement remove(db, "DELETE FROM mail_filter WHERE id IN (SELECT value FROM json_each(?1))");
    remove.Bind(1, store::EncodeIdArray(ids));
    remove.Run();
    transaction.Commit();
    return true;
  });
}

bool FilterControl::SetOrder(const std::vector<int>& ids) {
  Database& db = controller_.impl().db();
  return store::Guard("ordering filters", [&] {
    store::Transaction transaction(db);
    std::vector<int> stored;
    Statement all(db, "SELECT id FROM mail_filter ORDER BY id");
    while (all.Step()) stored.push_back(all.Int(0));
    std::vector<int> given = ids;
    std::sort(given.begin(), given.end());
    if (given != stored) return false;
    Statement place(db, "UPDATE mail_filter SET position = ?2 WHERE id = ?1");
    for (size_t i = 0; i < ids.size(); ++i) {
      place.Bind(1, ids[i]).Bind(2, static_cast<int64_t>(i + 1));
      place.Run();
      place.Reset();
    }
    transaction.Commit();
    return true;
  });
}

}  // namespace ornic::larkpost::control
