// Labels. A label's key, "$label" and its id, is made at creation and never
// changes; label ids are never used twice, so neither are keys, and a filter
// that names a deleted label's key names no other label.
#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/store_records.h"
#include "appliance/mailcore/store_text.h"
#include "platform/mailcore/apivalidator.h"
#include "platform/mailcore/control.h"

namespace ornic::larkpost::control {
namespace {

using store::Database;
using store::Statement;

constexpr char kLabelColumns[] =
    "SELECT id, name, key, text_color, background_color, unread_count FROM label ";

// Whether the given fields of `config` can be stored: a name is not empty,
// colours are colours.
bool Acceptable(const LabelConfig& config) {
  if (config.name.IsSet() && config.name.Get().empty()) return false;
  if (config.text_color.IsSet() && !apivalidator::StringIsColor(config.text_color.Get()))
    return false;
  return !config.background_color.IsSet() ||
         apivalidator::StringIsColor(config.background_color.Get());
}

}  // namespace

LabelControl::LabelControl(Controller& controller) : controller_(controller) {}

int LabelControl::Create(const LabelConfig& config) {
  if (!config.name.IsSet() || !config.text_color.IsSet() || !config.background_color.IsSet() ||
      !Acceptable(config)) {
    return 0;
  }
  Database& db = controller_.impl().db();
  return store::Guard("creating a label", [&] {
    store::Transaction transaction(db);
    // The key needs the id: a unique stand-in first, within the transaction.
    Statement insert(db,
                     "INSERT INTO label(name, key, text_color, background_color, last_modified) "
                     "VALUES (?1, '$new', ?2, ?3, ?4)");
    insert.Bind(1, config.name.Get()).Bind(2, config.text_color.Get());
    insert.Bind(3, config.background_color.Get()).Bind(4, store::Now());
    insert.Run();
    int id = static_cast<int>(db.LastInsertRowid());
    Statement key(db, "UPDATE label SET key = '$label' || id WHERE id = ?1");
    key.Bind(1, id);
    key.Run();
    transaction.Commit();
    return id;
  });
}

bool LabelControl::Modify(int id, const LabelConfig& config) {
  if (!Acceptable(config)) return false;
  Database& db = controller_.impl().db();
  return store::Guard("changing a label", [&] {
    store::Transaction transaction(db);
    if (!store::AllExist(db, "label", {id})) return false;
    // A field that was not given keeps its value (NULL binds leave it).
    Statement update(db,
                     "UPDATE label SET name = ifnull(?2, name), "
                     "text_color = ifnull(?3, text_color), "
                     "background_color = ifnull(?4, background_color), last_modified = ?5 "
                     "WHERE id = ?1");
    update.Bind(1, id).Bind(5, store::Now());
    if (config.name.IsSet()) update.Bind(2, config.name.Get());
    if (config.text_color.IsSet()) update.Bind(3, config.text_color.Get());
    if (config.background_color.IsSet()) update.Bind(4, config.background_color.Get());
    update.Run();
    transaction.Commit();
    return true;
  });
}

bool LabelControl::Delete(const std::vector<int>& ids) {
  Database& db = controller_.impl().db();
  return store::Guard("deleting labels", [&] {
    store::Transaction transaction(db);
    if (!store::AllExist(db, "label", ids)) return false;
    // The threads that carried a label have changed.
    Statement touch(db,
                    "UPDATE thread SET last_modified = ?2 WHERE id IN (SELECT thread_id FROM "
                    "thread_label WHERE label_id IN (SELECT value FROM json_each(?1)))");
    std::string list = store::EncodeIdArray(store::Distinct(ids));
    touch.Bind(1, list).Bind(2, store::Now());
    touch.Run();
    Statement remove(db, "DELETE FROM label WHERE id IN (SELECT value FROM json_each(?1))");
    remove.Bind(1, list);
    remove.Run();
    transaction.Commit();
    return true;
  });
}

std::vector<record::Label> LabelControl::Get(const std::vector<int>& ids, bool unread) {
  Database& db = controller_.impl().db();
  return store::Guard("reading labels", [&] {
    store::ReadTransaction read(db);
    Statement select(db, (std::string(kLabelColumns) + "WHERE id = ?1").c_str());
    std::vector<record::Label> labels;
    for (int id : store::Distinct(ids)) {
      select.Bind(1, id);
      if (select.Step()) labels.push_back(store::ReadLabel(select, unread));
      select.Reset();
    }
    return labels;
  });
}

std::vector<record::Label> LabelControl::List(bool unread) {
  Database& db = controller_.impl().db();
  return store::Guard("listing labels", [&] {
    Statement select(db, (std::string(kLabelColumns) + "ORDER BY name, id").c_str());
    std::vector<record::Label> labels;
    while (select.Step()) labels.push_back(store::ReadLabel(select, unread));
    return labels;
  });
}

}  // namespace ornic::larkpost::control
