// Thread search. The two common lists are read from kept data: every thread
// (thread.last_arrival) and one mailbox's threads (mailbox_thread), each an
// index range in the list's order, so a page costs its length (plus the
// offset) whatever the mailbox's size. Every other search is one query over
// the messages that groups the matching ones by thread.
//
// How each condition reads its value: mailbox and label are ids; from, to
// (To or Cc) and subject are case-insensitive substrings; keyword is a
// full-text match of every word (as a word prefix) in subject, addresses,
// body text or attachment names; before, after and modified_after are Unix
// seconds (strictly before or after); larger and smaller are bytes of the
// message source (strictly); unread, starred and has_attachment take "true"
// or "false". A value that makes no sense for its key (a date that is not a
// number, "yes" for a flag) matches no message, negated or not.
#include <sqlite3.h>

#include <algorithm>
#include <string>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/filter_run.h"
#include "appliance/mailcore/filter_store.h"
#include "appliance/mailcore/store_records.h"
#include "appliance/mailcore/store_text.h"
#include "platform/mailcore/control.h"

namespace ornic::larkpost::control {
namespace {

using store::Database;
using store::Statement;

// larkpost_contains(text, needle): whether `text`, case folded, holds
// `needle`, which the caller has folded already.
void Contains(sqlite3_context* context, int, sqlite3_value** args) {
  const unsigned char* text = sqlite3_value_text(args[0]);
  const unsigned char* needle = sqlite3_value_text(args[1]);
  if (!text || !needle) {
    sqlite3_result_int(context, 0);
    return;
  }
  std::string folded = store::FoldCase(std::string(
      reinterpret_cast<const char*>(text), static_cast<size_t>(sqlite3_value_bytes(args[0]))));
  std::string wanted(reinterpret_cast<const char*>(needle),
                     static_cast<size_t>(sqlite3_value_bytes(args[1])));
  sqlite3_result_int(context, folded.find(wanted) != std::string::npos);
}

void RegisterContains(Database& db) {
  int rc = sqlite3_create_function_v2(db.handle(), "larkpost_contains", 2,
                                      SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS,
                                      nullptr, Contains, nullptr, nullptr, nullptr);
  if (rc != SQLITE_OK) throw db.LastError("registering larkpost_contains");
}

// A statement's text and the values of its numbered parameters.
class Query {
 public:
  // The name of a new parameter holding `value` ("?3").
  std::string Param(std::variant<int64_t, std::string> value) {
    params_.push_back(std::move(value));
    return "?" + std::to_string(params_.size());
  }
  void BindAll(Statement& statement) const {
    for (size_t i = 0; i < params_.size(); ++i) {
      int index = static_cast<int>(i + 1);
      if (const int64_t* number = std::get_if<int64_t>(&params_[i])) {
        statement.Bind(index, *number);
      } else {
        statement.Bind(index, std::get<std::string>(params_[i]));
      }
    }
  }

 private:
  std::vector<std::variant<int64_t, std::string>> params_;
};

// "true" / "false" -> 1 / 0; -1 for anything else.
int Flag(const std::string& value) {
  if (value == "true") return 1;
  if (value == "false") return 0;
  return -1;
}

// The SQL test of one condition on message "m"; "0" when the value makes
// no sense for the key. Sets `*text` when the test needs larkpost_contains.
// With `one_message`, a full-text test looks at m's own entry only rather
// than collecting every message that matches.
std::string ConditionSql(const record::Condition& condition, Query* query, bool* text,
                         bool one_message = false) {
  int64_t number = 0;
  bool is_number = store::ParseInt64(condition.value, &number);
  int flag = Flag(condition.value);
  std::string test;
  switch (condition.key) {
    case constant::kConditionMailbox:
      if (!is_number) return "0";
      test = number == store::kStarredId ? store::kStarredSql
                                         : "m.mailbox_id = " + query->Param(number);
      break;
    case constant::kConditionLabel:
      if (!is_number) return "0";
      test = "m.thread_id IN (SELECT thread_id FROM thread_label WHERE label_id = " +
             query->Param(number) + ")";
      break;
    case constant::kConditionFrom:
      *text = true;
      test =
          "larkpost_contains(m.from_text, " + query->Param(store::FoldCase(condition.value)) + ")";
      break;
    case constant::kConditionSubject:
      *text = true;
      test = "larkpost_contains(m.subject, " + query->Param(store::FoldCase(condition.value)) + ")";
      break;
    case constant::kConditionTo: {
      *text = true;
      std::string needle = query->Param(store::FoldCase(condition.value));
      test = "(EXISTS (SELECT 1 FROM json_each(m.to_text) WHERE larkpost_contains(value, " +
             needle + ")) OR EXISTS (SELECT 1 FROM json_each(m.cc_text) " +
             "WHERE larkpost_contains(value, " + needle + ")))";
      break;
    }
    case constant::kConditionKeyword: {
      std::string match = store::FullTextQuery(condition.value);
      // No word to look for: like an empty substring, it is in every message.
      if (match.empty()) {
        test = "1";
      } else if (one_message) {
        test = "EXISTS (SELECT 1 FROM message_fts WHERE message_fts MATCH " + query->Param(match) +
               " AND message_fts.rowid = m.id)";
      } else {
        test = "m.id IN (SELECT rowid FROM message_fts WHERE message_fts MATCH " +
               query->Param(match) + ")";
      }
      break;
    }
    case constant::kConditionBefore:
      if (!is_number) return "0";
      test = "m.arrival_time < " + query->Param(number);
      break;
    case constant::kConditionAfter:
      if (!is_number) return "0";
      test = "m.arrival_time > " + query->Param(number);
      break;
    case constant::kConditionModifiedAfter:
      if (!is_number) return "0";
      test = "m.last_modified > " + query->Param(number);
      break;
    case constant::kConditionLarger:
      if (!is_number) return "0";
      test = "m.size > " + query->Param(number);
      break;
    case constant::kConditionSmaller:
      if (!is_number) return "0";
      test = "m.size < " + query->Param(number);
      break;
    case constant::kConditionUnread:
      if (flag < 0) return "0";
      test = flag ? "m.is_read = 0" : "m.is_read <> 0";
      break;
    case constant::kConditionStarred:
      if (flag < 0) return "0";
      test = flag ? "m.star <> 0" : "m.star = 0";
      break;
    case constant::kConditionHasAttachment:
      if (flag < 0) return "0";
      test = flag ? "m.has_attachment <> 0" : "m.has_attachment = 0";
      break;
    default:
      return "0";
  }
  return condition.negate ? "NOT (" + test + ")" : "(" + test + ")";
}

// One thread of a result and the arrival that orders it.
struct Hit {
  int thread_id;
  int64_t arrival;
};

bool Before(const Hit& a, const Hit& b) {
  return a.arrival != b.arrival ? a.arrival > b.arrival : a.thread_id > b.thread_id;
}

std::vector<Hit> ReadHits(Statement& statement) {
  std::vector<Hit> hits;
  while (statement.Step()) hits.push_back({statement.Int(0), statement.Int64(1)});
  return hits;
}

// The page [offset, offset + limit) of `hits` (limit < 0: to the end).
std::vector<int> Page(const std::vector<Hit>& hits, int64_t offset, int64_t limit) {
  std::vector<int> ids;
  int64_t end = static_cast<int64_t>(hits.size());
  if (limit >= 0) end = std::min(end, offset + limit);
  for (int64_t i = offset; i < end; ++i) ids.push_back(hits[i].thread_id);
  return ids;
}

// A list kept in the store: every thread, or the threads of one mailbox.
// Its rows are "s"; each has a thread and the latest arrival that orders it.
struct KeptList {
  std::string count;   // how many rows there are, with ?1 as in source
  std::string source;  // the rows, with ?1 the mailbox where there is one
  std::string filter;  // "" or " AND <mailbox test>" on message "m"
  std::string order;   // ORDER BY of the list, newest first
  std::string arrival;
  std::string thread;
  util::optional<int64_t> mailbox;
};

}  // namespace

}  // namespace ornic::larkpost::control

namespace ornic::larkpost::store {

std::vector<bool> MessageMeets(Database& db, int id,
                               const std::vector<const record::ConditionSet*>& sets) {
  std::vector<bool> meets;
  if (sets.empty()) return meets;
  control::Query query;
  bool text = false;
  std::string columns;
  for (const record::ConditionSet* set : sets) {
    std::string test;
    for (const record::Condition& condition : set->conditions) {
      if (!test.empty()) test += set->match_any ? " OR " : " AND ";
      test += control::ConditionSql(condition, &query, &text, true);
    }
    columns += (columns.empty() ? "" : ", ") + (test.empty() ? std::string("1") : "(" + test + ")");
  }
  if (text) control::RegisterContains(db);
  Statement select(
      db,
      ("SELECT " + columns + " FROM message m WHERE m.id = " + query.Param(int64_t{id})).c_str());
  query.BindAll(select);
  const bool found = select.Step();
  for (size_t i = 0; i < sets.size(); ++i) {
    meets.push_back(found && select.Int64(static_cast<int>(i)) != 0);
  }
  return meets;
}

}  // namespace ornic::larkpost::store

namespace ornic::larkpost::control {

SearchControl::SearchControl(Controller& controller) : controller_(controller) {}

void SearchControl::SetOffset(int32_t offset) { offset_ = offset; }

void SearchControl::SetLimit(int32_t limit) { limit_ = limit; }

void SearchControl::SetMaxArrivalBefore(int64_t time) { max_arrival_before_ = time; }

void SearchControl::SetConditions(const std::vector<record::Condition>& conditions,
                                  bool match_any) {
  conditions_ = conditions;
  match_any_ = match_any;
}

uint32_t SearchControl::Search(std::vector<int>& ids) {
  Database& db = controller_.impl().db();
  int64_t offset = std::max<int64_t>(offset_, 0);
  int64_t limit = limit_ < 0 ? -1 : limit_;
  return store::Guard("searching threads", [&]() -> uint32_t {
    ids.clear();
    store::ReadTransaction read(db);

    // The kept lists: no condition, or one mailbox.
    util::optional<KeptList> kept;
    int64_t mailbox = 0;
    if (conditions_.empty()) {
      kept = KeptList{"SELECT value FROM store_count WHERE name = 'thread'",
                      "thread s",
                      "",
                      "s.last_arrival DESC, s.id DESC",
                      "s.last_arrival",
                      "s.id",
                      {}};
    } else if (conditions_.size() == 1 && conditions_[0].key == constant::kConditionMailbox &&
               !conditions_[0].negate && store::ParseInt64(conditions_[0].value, &mailbox)) {
      std::string filter = mailbox == store::kStarredId ? std::string(" AND ") + store::kStarredSql
                                                        : " AND m.mailbox_id = ?1";
      kept = KeptList{"SELECT ifnull((SELECT thread_count FROM mailbox WHERE id = ?1), 0)",
                      "mailbox_thread s WHERE s.mailbox_id = ?1",
                      filter,
                      "s.latest_arrival DESC, s.thread_id DESC",
                      "s.latest_arrival",
                      "s.thread_id",
                      mailbox};
    }
    if (kept) {
      auto bind_mailbox = [&](Statement& statement) {
        if (kept->mailbox) statement.Bind(1, *kept->mailbox);
      };
      std::string where = kept->mailbox ? " AND " : " WHERE ";
      Statement count(db, kept->count.c_str());
      bind_mailbox(count);
      count.Step();
      int64_t rows = count.Int64(0);
      if (!max_arrival_before_) {
        Statement page(db, ("SELECT " + kept->thread + " FROM " + kept->source + " ORDER BY " +
                            kept->order + " LIMIT ?2 OFFSET ?3")
                               .c_str());
        bind_mailbox(page);
        page.Bind(2, limit).Bind(3, offset);
        while (page.Step()) ids.push_back(page.Int(0));
        return static_cast<uint32_t>(rows);
      }
      // Only messages before the time count. Threads whose latest arrival
      // is before it keep their place; the few with mail since then (a list
      // read a while ago) are placed by their latest arrival before it, or
      // drop out when they have none.
      int64_t before = *max_arrival_before_;
      Statement newer(db, ("SELECT " + kept->thread +
                           ", (SELECT max(m.arrival_time) FROM message m WHERE m.thread_id = " +
                           kept->thread + kept->filter + " AND m.arrival_time < ?2) FROM " +
                           kept->source + where + kept->arrival + " >= ?2")
                              .c_str());
      bind_mailbox(newer);
      newer.Bind(2, before);
      std::vector<Hit> moved;
      int64_t newer_rows = 0;
      while (newer.Step()) {
        ++newer_rows;
        if (!newer.IsNull(1)) moved.push_back({newer.Int(0), newer.Int64(1)});
      }
      std::sort(moved.begin(), moved.end(), Before);
      int64_t total = rows - newer_rows + static_cast<int64_t>(moved.size());
      // The page can hold no more than offset + limit of the older ones.
      Statement older(
          db, ("SELECT " + kept->thread + ", " + kept->arrival + " FROM " + kept->source + where +
               kept->arrival + " < ?2 ORDER BY " + kept->order + " LIMIT ?3")
                  .c_str());
      bind_mailbox(older);
      older.Bind(2, before).Bind(3, limit < 0 ? int64_t{-1} : offset + limit);
      std::vector<Hit> hits = ReadHits(older);
      std::vector<Hit> merged(hits.size() + moved.size());
      std::merge(hits.begin(), hits.end(), moved.begin(), moved.end(), merged.begin(), Before);
      ids = Page(merged, offset, limit);
      return static_cast<uint32_t>(total);
    }

    // When every condition must hold, the words to look for drive the
    // query: the full-text index yields the few messages that hold them, in
    // rowid order, and only those are read. Otherwise every message is
    // tested.
    Query query;
    bool text = false;
    std::string match;
    std::string where;
    for (const record::Condition& condition : conditions_) {
      if (!match_any_ && condition.key == constant::kConditionKeyword && !condition.negate) {
        std::string words = store::FullTextQuery(condition.value);
        if (!words.empty()) {
          match += (match.empty() ? "" : " ") + words;
          continue;
        }
      }
      if (!where.empty()) where += match_any_ ? " OR " : " AND ";
      where += ConditionSql(condition, &query, &text);
    }
    std::string sql = "SELECT m.thread_id, m.arrival_time FROM ";
    if (match.empty()) {
      sql += "message m WHERE (" + (where.empty() ? std::string("1") : where) + ")";
    } else {
      // CROSS JOIN keeps the index outside: probed per message, a prefix
      // match would be evaluated again for every message of a mailbox.
      // With nothing else to test, message_place has all that is read.
      sql += std::string("message_fts CROSS JOIN message m ") +
             (where.empty() ? "INDEXED BY message_place " : "") +
             "ON m.id = message_fts.rowid WHERE message_fts MATCH " + query.Param(match) +
             (where.empty() ? "" : " AND " + where);
    }
    if (max_arrival_before_) sql += " AND m.arrival_time < " + query.Param(*max_arrival_before_);
    if (text) RegisterContains(db);
    Statement search(db, sql.c_str());
    query.BindAll(search);
    // Each thread's latest matching arrival, gathered here: cheaper than a
    // GROUP BY's temporary tree when most messages match.
    std::unordered_map<int, int64_t> latest;
    while (search.Step()) {
      auto [entry, added] = latest.emplace(search.Int(0), search.Int64(1));
      if (!added && entry->second < search.Int64(1)) entry->second = search.Int64(1);
    }
    std::vector<Hit> hits;
    hits.reserve(latest.size());
    for (const auto& [thread, arrival] : latest) hits.push_back({thread, arrival});
    std::sort(hits.begin(), hits.end(), Before);
    ids = Page(hits, offset, limit);
    return static_cast<uint32_t>(hits.size());
  });
}

}  // namespace ornic::larkpost::control

namespace ornic::larkpost::store {

std::vector<int> MatchingMessages(Database& db, const std::vector<record::Condition>& conditions,
                                  bool match_any, const std::string& ids) {
  control::Query query;
  bool text = false;
  std::string where;
  for (const record::Condition& condition : conditions) {
    if (!where.empty()) where += match_any ? " OR " : " AND ";
    where += control::ConditionSql(condition, &query, &text);
  }
  std::string sql = "SELECT m.id FROM message m WHERE m.id IN (SELECT value FROM json_each(" +
                    query.Param(ids) + ")) AND m.type <> 1";
  if (!where.empty()) sql += " AND (" + where + ")";
  if (text) control::RegisterContains(db);
  Statement select(db, sql.c_str());
  query.BindAll(select);
  std::vector<int> matched;
  while (select.Step()) matched.push_back(select.Int(0));
  return matched;
}

}  // namespace ornic::larkpost::store
