#include "appliance/mailcore/filter_run.h"

#include <string>
#include <utility>
#include <vector>

#include "appliance/mailcore/store_records.h"
#include "appliance/mailcore/store_text.h"

namespace ornic::larkpost::store {
namespace {

constexpr int kArchivedId = control::DefaultMailbox::id<constant::kArchived>();
constexpr char kMatched[] = "id IN (SELECT value FROM json_each(?1))";

// The threads of the matched messages ?1 change at ?2.
void TouchThreads(Database& db, const std::string& matched, int64_t now) {
  Statement touch(db, (std::string("UPDATE thread SET last_modified = ?2 WHERE id IN "
                                   "(SELECT thread_id FROM message WHERE ") +
                       kMatched + ")")
                          .c_str());
  touch.Bind(1, matched).Bind(2, now);
  touch.Run();
}

}  // namespace

std::unique_ptr<FilterRun> FilterRun::FromText(const std::string& conditions,
                                               const std::string& actions) {
  record::ConditionSet condition_set;
  record::ActionSet action_set;
  if (!record::ConditionSet::ParseSerializedString(conditions, &condition_set) ||
      !record::ActionSet::ParseSerializedString(actions, &action_set)) {
    return nullptr;
  }
  return std::make_unique<FilterRun>(std::move(condition_set), std::move(action_set));
}

FilterRun::FilterRun(record::ConditionSet conditions, record::ActionSet actions)
    : conditions_(std::move(conditions)),
      actions_(std::move(actions)),
      skipped_(actions_.actions.size(), false) {}

uint32_t FilterRun::Prepare(uint32_t uid) {
  db_ = Open(uid, false);
  // A "mailbox" condition that must hold narrows the run to that mailbox
  // (the virtual starred one holds the starred messages outside junk and
  // trash); the conditions are still tested on every message.
  std::string where = "m.type <> 1";
  int64_t mailbox = 0;
  for (const record::Condition& condition : conditions_.conditions) {
    if (conditions_.match_any || condition.key != constant::kConditionMailbox || condition.negate ||
        !ParseInt64(condition.value, &mailbox)) {
      continue;
    }
    where += mailbox == kStarredId ? std::string(" AND ") + kStarredSql
                                   : " AND m.mailbox_id = " + std::to_string(mailbox);
  }
  ReadTransaction read(*db_);
  Statement list(*db_, ("SELECT m.id FROM message m WHERE " + where + " ORDER BY m.id").c_str());
  ids_.clear();
  while (list.Step()) ids_.push_back(list.Int(0));
  next_ = 0;
  return static_cast<uint32_t>(ids_.size());
}

uint32_t FilterRun::NextBatch(size_t batch_size) {
  if (!db_ || next_ >= ids_.size()) return 0;
  const size_t end = std::min(ids_.size(), next_ + batch_size);
  std::vector<int> batch(ids_.begin() + static_cast<long>(next_),
                         ids_.begin() + static_cast<long>(end));
  Transaction transaction(*db_);
  // Drafts written since the list was made are not examined either.
  std::vector<int> matched =
      MatchingMessages(*db_, conditions_.conditions, conditions_.match_any, EncodeIdArray(batch));
  if (!matched.empty()) Apply(*db_, EncodeIdArray(matched));
  transaction.Commit();
  matched_ += matched.size();
  next_ = end;
  return static_cast<uint32_t>(batch.size());
}

void FilterRun::Apply(Database& db, const std::string& matched) {
  const int64_t now = Now();
  int destination = 0;
  bool remove = false;
  for (size_t index = 0; index < actions_.actions.size(); ++index) {
    const record::Action& action = actions_.actions[index];
    switch (action.kind) {
      case constant::kActionSetRead:
      case constant::kActionSetStar: {
        const char* column = action.kind == constant::kActionSetRead ? "is_read" : "star";
        const int value = action.value == "true";
        std::string changed = std::string(kMatched) + " AND " + column + " <> ?2";
        Statement touch(db, ("UPDATE thread SET last_modified = ?3 WHERE id IN "
                             "(SELECT thread_id FROM message WHERE " +
                             changed + ")")
                                .c_str());
        touch.Bind(1, matched).Bind(2, value).Bind(3, now);
        touch.Run();
        Statement set(db, (std::string("UPDATE message SET ") + column +
                           " = ?2, last_modified = ?3 WHERE " + changed)
                              .c_str());
        set.Bind(1, matched).Bind(2, value).Bind(3, now);
        set.Run();
        changed_ += static_cast<uint64_t>(db.Changes());
        break;
      }
      case constant::kActionSetLabel:
      case constant::kActionRemoveLabel: {
        Statement label(db, "SELECT id FROM label WHERE key = ?1");
        label.Bind(1, action.value);
        if (!label.Step()) {
          skipped_[index] = true;
          break;
        }
        const int label_id = label.Int(0);
        Statement change(db, action.kind == constant::kActionSetLabel
                                 ? "INSERT OR IGNORE INTO thread_label(thread_id, label_id) "
                                   "SELECT DISTINCT thread_id, ?2 FROM message "
                                   "WHERE id IN (SELECT value FROM json_each(?1))"
                                 : "DELETE FROM thread_label WHERE label_id = ?2 AND thread_id IN "
                                   "(SELECT thread_id FROM message "
                                   "WHERE id IN (SELECT value FROM json_each(?1)))");
        change.Bind(1, matched).Bind(2, label_id);
        change.Run();
        if (db.Changes() > 0) {
          changed_ += static_cast<uint64_t>(db.Changes());
          TouchThreads(db, matched, now);
        }
        break;
      }
      case constant::kActionMoveTo: {
        Statement mailbox(db, "SELECT id FROM mailbox WHERE raw_path = ?1 AND id <> ?2");
        mailbox.Bind(1, action.value).Bind(2, kStarredId);
        if (mailbox.Step()) {
          destination = mailbox.Int(0);
        } else {
          skipped_[index] = true;
        }
        break;
      }
      case constant::kActionArchive:
        destination = kArchivedId;
        break;
      case constant::kActionTrash:
        destination = kTrashId;
        break;
      case constant::kActionDelete:
        remove = true;
        break;
      default:  // redirect, and kinds this core does not know
        skipped_[index] = true;
        break;
    }
  }
  if (remove) {
    TouchThreads(db, matched, now);
    Statement purge(
        db,
        (std::string("DELETE FROM message WHERE ") + kMatched + " AND mailbox_id = ?2").c_str());
    purge.Bind(1, matched).Bind(2, kTrashId);
    purge.Run();
    changed_ += static_cast<uint64_t>(db.Changes());
    destination = kTrashId;
  }
  if (destination != 0) {
    TouchThreads(db, matched, now);
    Statement move(db, (std::string("UPDATE message SET mailbox_id = ?2, last_modified = ?3 "
                                    "WHERE ") +
                        kMatched + " AND mailbox_id <> ?2")
                           .c_str());
    move.Bind(1, matched).Bind(2, destination).Bind(3, now);
    move.Run();
    changed_ += static_cast<uint64_t>(db.Changes());
  }
}

std::string FilterRun::Summary() const {
  std::string skipped;
  for (size_t index = 0; index < skipped_.size(); ++index) {
    if (skipped_[index]) skipped += (skipped.empty() ? " " : ",") + std::to_string(index + 1);
  }
  return "examined " + std::to_string(next_) + " of " + std::to_string(ids_.size()) + ", matched " +
         std::to_string(matched_) + ", changed " + std::to_string(changed_) +
         ", skipped actions:" + (skipped.empty() ? std::string(" none") : skipped);
}

}  // namespace ornic::larkpost::store
