#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/store_records.h"
#include "appliance/mailcore/store_text.h"
#include "platform/mailcore/control.h"

namespace ornic::larkpost::control {
namespace {

using store::Database;
using store::Statement;

// Threads of the JSON id list ?1, for statements on message.
constexpr char kInThreads[] = "thread_id IN (SELECT value FROM json_each(?1))";

void TouchThreads(Database& db, const std::string& ids, int64_t now) {
  Statement touch(db,
                  "UPDATE thread SET last_modified = ?2 "
                  "WHERE id IN (SELECT value FROM json_each(?1))");
  touch.Bind(1, ids).Bind(2, now);
  touch.Run();
}

}  // namespace

ThreadControl::ThreadControl(Controller& controller) : controller_(controller) {}

std::vector<record::Thread> ThreadControl::List(const std::vector<int>& ids) {
  Database& db = controller_.impl().db();
  return store::Guard("listing threads", [&] {
    store::ReadTransaction read(db);
    Statement thread(db, "SELECT last_modified FROM thread WHERE id = ?1");
    store::RecordReader reader(db);
    std::vector<record::Thread> threads;
    for (int id : store::Distinct(ids)) {
      thread.Bind(1, id);
      bool found = thread.Step();
      record::Thread record;
      if (found) record.last_modified = thread.Int64(0);
      thread.Reset();
      if (!found) continue;
      record.id = id;
      record.messages = reader.ThreadMessages(id);
      record.labels = reader.ThreadLabels(id);
      threads.push_back(std::move(record));
    }
    return threads;
  });
}

std::vector<int> ThreadControl::GetExistingThread(const std::vector<int>& ids,
                                                  const util::optional<int>& mailbox,
                                                  util::optional<int> label) {
  Database& db = controller_.impl().db();
  return store::Guard("looking threads up", [&] {
    store::ReadTransaction read(db);
    // mailbox_thread places a thread in the virtual starred mailbox too.
    Statement exists(db,
                     "SELECT 1 FROM thread t WHERE t.id = ?1 AND (?2 IS NULL OR EXISTS "
                     "(SELECT 1 FROM mailbox_thread WHERE mailbox_id = ?2 AND thread_id = t.id)) "
                     "AND (?3 IS NULL OR EXISTS "
                     "(SELECT 1 FROM thread_label WHERE thread_id = t.id AND label_id = ?3))");
    if (mailbox) exists.Bind(2, *mailbox);
    if (label) exists.Bind(3, *label);
    std::vector<int> found;
    for (int id : store::Distinct(ids)) {
      exists.Bind(1, id);
      if (exists.Step()) found.push_back(id);
      exists.Reset();
    }
    return found;
  });
}

bool ThreadControl::DeleteTrash(const std::vector<int>& ids) {
  Database& db = controller_.impl().db();
  return store::Guard("deleting threads", [&] {
    store::Transaction transaction(db);
    if (!store::AllExist(db, "thread", ids)) return false;
    std::string list = store::EncodeIdArray(store::Distinct(ids));
    int64_t now = store::Now();
    // Threads wholly in trash go for good (their contents by cascade);
    // the others move to trash, drafts and all. In this order, so that a
    // thread that has just moved is not taken for one that was in trash.
    Statement purge(db, (std::string("DELETE FROM message WHERE ") + kInThreads +
                         " AND NOT EXISTS (SELECT 1 FROM message o WHERE o.thread_id = "
                         "message.thread_id AND o.mailbox_id <> ?2)")
                            .c_str());
    purge.Bind(1, list).Bind(2, store::kTrashId);
    purge.Run();
    Statement move(db, (std::string("UPDATE message SET mailbox_id = ?2, last_modified = ?3 "
                                    "WHERE ") +
                        kInThreads + " AND mailbox_id <> ?2")
                           .c_str());
    move.Bind(1, list).Bind(2, store::kTrashId).Bind(3, now);
    move.Run();
    TouchThreads(db, list, now);
    transaction.Commit();
    return true;
  });
}

bool ThreadControl::AddLabel(const std::vector<int>& ids, const std::vector<int>& label_ids) {
  Database& db = controller_.impl().db();
  return store::Guard("labelling threads", [&] {
    store::Transaction transaction(db);
    if (!store::AllExist(db, "thread", ids) || !store::AllExist(db, "label", label_ids)) {
      return false;
    }
    std::string list = store::EncodeIdArray(store::Distinct(ids));
    Statement add(db,
                  "INSERT OR IGNORE INTO thread_label(thread_id, label_id) "
                  "SELECT t.value, l.value FROM json_each(?1) t, json_each(?2) l");
    add.Bind(1, list).Bind(2, store::EncodeIdArray(store::Distinct(label_ids)));
    add.Run();
    TouchThreads(db, list, store::Now());
    transaction.Commit();
    return true;
  });
}

bool ThreadControl::RemoveLabel(const std::vector<int>& ids, const std::vector<int>& label_ids) {
  Database& db = controller_.impl().db();
  return store::Guard("unlabelling threads", [&] {
    store::Transaction transaction(db);
    if (!store::AllExist(db, "thread", ids) || !store::AllExist(db, "label", label_ids)) {
      return false;
    }
    std::string list = store::EncodeIdArray(store::Distinct(ids));
    Statement remove(db, (std::string("DELETE FROM thread_label WHERE ") + kInThreads +
                          " AND label_id IN (SELECT value FROM json_each(?2))")
                             .c_str());
    remove.Bind(1, list).Bind(2, store::EncodeIdArray(store::Distinct(label_ids)));
    remove.Run();
    TouchThreads(db, list, store::Now());
    transaction.Commit();
    return true;
  });
}

bool ThreadControl::SetMailbox(const std::vector<int>& ids, int mailbox_id) {
  Database& db = controller_.impl().db();
  return store::Guard("moving threads", [&] {
    store::Transaction transaction(db);
    if (!store::AllExist(db, "thread", ids) || !store::IsRealMailbox(db, mailbox_id)) {
      return false;
    }
    std::string list = store::EncodeIdArray(store::Distinct(ids));
    int64_t now = store::Now();
    // Drafts stay with the drafts: a thread moves, its unsent replies do not.
    Statement move(db, (std::string("UPDATE message SET mailbox_id = ?2, last_modified = ?3 "
                                    "WHERE ") +
                        kInThreads + " AND type <> 1 AND mailbox_id <> ?2")
                           .c_str());
    move.Bind(1, list).Bind(2, mailbox_id).Bind(3, now);
    move.Run();
    TouchThreads(db, list, now);
    transaction.Commit();
    return true;
  });
}

}  // namespace ornic::larkpost::control
