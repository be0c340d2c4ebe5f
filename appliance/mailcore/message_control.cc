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

// Sets one flag column of messages and of their threads' time stamps.
// `where` selects the messages with ?1 (a JSON id list); only messages
// whose flag differs are touched, so last_modified means a real change.
void SetFlag(Database& db, const char* column, int value, const char* where,
             const std::string& ids) {
  int64_t now = store::Now();
  std::string filter = std::string(where) + " AND " + column + " <> ?2";
  Statement touch(db, ("UPDATE thread SET last_modified = ?3 WHERE id IN "
                       "(SELECT thread_id FROM message WHERE " +
                       filter + ")")
                          .c_str());
  touch.Bind(1, ids).Bind(2, value).Bind(3, now);
  touch.Run();
  Statement set(db, (std::string("UPDATE message SET ") + column +
                     " = ?2, last_modified = ?3 WHERE " + filter)
                        .c_str());
  set.Bind(1, ids).Bind(2, value).Bind(3, now);
  set.Run();
}

constexpr char kByMessage[] = "id IN (SELECT value FROM json_each(?1))";
constexpr char kByThread[] = "thread_id IN (SELECT value FROM json_each(?1))";

}  // namespace

MessageControl::MessageControl(Controller& controller) : controller_(controller) {}

std::vector<record::FullMessage> MessageControl::GetFullMessages(const std::vector<int>& ids) {
  Database& db = controller_.impl().db();
  return store::Guard("reading messages", [&] {
    store::ReadTransaction read(db);
    store::RecordReader reader(db);
    std::vector<record::FullMessage> messages;
    for (int id : store::Distinct(ids)) {
      record::FullMessage message;
      if (reader.FullMessage(id, &message)) messages.push_back(std::move(message));
    }
    return messages;
  });
}

record::FullMessage MessageControl::GetFullMessage(int id) {
  Database& db = controller_.impl().db();
  return store::Guard("reading message " + std::to_string(id), [&] {
    store::ReadTransaction read(db);
    record::FullMessage message;
    if (!store::RecordReader(db).FullMessage(id, &message)) return record::FullMessage();
    return message;
  });
}

record::Message MessageControl::GetMessage(int id) {
  // A message without its recipients and bodies; reading them too costs
  // little next to the attachments, and keeps one reader of messages.
  record::FullMessage full = GetFullMessage(id);
  return record::Message(std::move(full));
}

std::string MessageControl::OriginalContent(int id) {
  Database& db = controller_.impl().db();
  return store::Guard("reading a message source", [&] {
    Statement source(db, "SELECT raw FROM message_source WHERE message_id = ?1");
    source.Bind(1, id);
    return source.Step() ? source.Text(0) : std::string();
  });
}

bool MessageControl::SetStarByID(const std::vector<int>& ids, int star) {
  Database& db = controller_.impl().db();
  return store::Guard("starring messages", [&] {
    store::Transaction transaction(db);
    if (star < 0 || !store::AllExist(db, "message", ids)) return false;
    SetFlag(db, "star", star, kByMessage, store::EncodeIdArray(store::Distinct(ids)));
    transaction.Commit();
    return true;
  });
}

bool MessageControl::SetReadByID(const std::vector<int>& ids, bool read) {
  Database& db = controller_.impl().db();
  return store::Guard("marking messages read", [&] {
    store::Transaction transaction(db);
    if (!store::AllExist(db, "message", ids)) return false;
    SetFlag(db, "is_read", read, kByMessage, store::EncodeIdArray(store::Distinct(ids)));
    transaction.Commit();
    return true;
  });
}

bool MessageControl::SetReadByThreadID(const std::vector<int>& thread_ids, bool read) {
  Database& db = controller_.impl().db();
  return store::Guard("marking threads read", [&] {
    store::Transaction transaction(db);
    if (!store::AllExist(db, "thread", thread_ids)) return false;
    SetFlag(db, "is_read", read, kByThread, store::EncodeIdArray(store::Distinct(thread_ids)));
    transaction.Commit();
    return true;
  });
}

// Moving a message that is already in trash to trash deletes it for good:
// that is how a client deletes a single message, and the rule for threads
// (DeleteTrash) holds for messages too.
bool MessageControl::SetMailbox(const std::vector<int>& ids, int mailbox_id) {
  Database& db = controller_.impl().db();
  return store::Guard("moving messages", [&] {
    store::Transaction transaction(db);
    if (!store::AllExist(db, "message", ids) || !store::IsRealMailbox(db, mailbox_id)) {
      return false;
    }
    std::string list = store::EncodeIdArray(store::Distinct(ids));
    int64_t now = store::Now();
    Statement touch(
        db,
        "UPDATE thread SET last_modified = ?2 WHERE id IN "
        "(SELECT thread_id FROM message WHERE id IN (SELECT value FROM json_each(?1)))");
    touch.Bind(1, list).Bind(2, now);
    touch.Run();
    if (mailbox_id == store::kTrashId) {
      Statement purge(db,
                      "DELETE FROM message WHERE id IN (SELECT value FROM json_each(?1)) "
                      "AND mailbox_id = ?2");
      purge.Bind(1, list).Bind(2, store::kTrashId);
      purge.Run();
    }
    Statement move(db,
                   "UPDATE message SET mailbox_id = ?2, last_modified = ?3 "
                   "WHERE id IN (SELECT value FROM json_each(?1)) AND mailbox_id <> ?2");
    move.Bind(1, list).Bind(2, mailbox_id).Bind(3, now);
    move.Run();
    transaction.Commit();
    return true;
  });
}

bool MessageControl::DeleteByMailbox(int mailbox_id) {
  Database& db = controller_.impl().db();
  return store::Guard("emptying a mailbox", [&] {
    store::Transaction transaction(db);
    if (!store::IsRealMailbox(db, mailbox_id)) return false;
    Statement purge(db, "DELETE FROM message WHERE mailbox_id = ?1");
    purge.Bind(1, mailbox_id);
    purge.Run();
    transaction.Commit();
    return true;
  });
}

}  // namespace ornic::larkpost::control
