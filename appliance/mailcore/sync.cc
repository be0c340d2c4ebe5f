#include "platform/mailcore/sync.h"

#include <string>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/service_channel.h"
#include "appliance/system/appliance.h"
#include "appliance/system/clock.h"
#include "appliance/system/log_file.h"
#include "platform/mailcore/error.h"
#include "platform/zevo/notify.h"
#include "proto/fetch.pb.h"

namespace ornic::larkpost::control {
namespace {

struct BuiltinRow {
  constant::BuiltinMailbox kind;
  const char* raw_path;
};

constexpr BuiltinRow kBuiltins[] = {
    {constant::kInbox, "INBOX"},       {constant::kDrafts, "Drafts"}, {constant::kSent, "Sent"},
    {constant::kArchived, "Archived"}, {constant::kJunk, "Junk"},     {constant::kTrash, "Trash"},
    {constant::kStarred, "Starred"},
};
static_assert(sizeof kBuiltins / sizeof kBuiltins[0] == constant::kBuiltinMailboxCount,
              "every built-in mailbox has a row");

}  // namespace

Syncer::Syncer(Controller& controller) : controller_(controller) {}

// Every request is recorded in <root>/log/sync.log as "<unix time> <uid>
// <type>". Settings (type 2) may have added or changed a POP3 account: the
// background service is asked to fetch the user's accounts at once (it
// fetches only while the administrator's policy allows it). The other
// types need no background work: filters, labels and forwarding live
// only in the user's store and apply at delivery.
void Syncer::TriggerSync(constant::SyncType type) {
  if (type < constant::kSyncFilter || type > constant::kSyncForwardReply) {
    store::LogError("sync", __LINE__, "unknown sync type " + std::to_string(type));
    throw Error(kErrorInvalidArgument);
  }
  std::string path = ::larkpost::appliance::LogDir() + "/sync.log";
  std::string line = std::to_string(::larkpost::appliance::UnixTime()) + " " +
                     std::to_string(controller_.uid()) + " " + std::to_string(type);
  if (!::larkpost::appliance::AppendLine(path, line)) {
    store::LogError("sync", __LINE__, "cannot append to " + path);
    throw Error(kErrorStorage);
  }
  if (type == constant::kSyncSetting) {
    proto::Request request;
    request.set_uid(controller_.uid());
    request.MutableExtension(proto::FetchNowRequest::fetch_now);
    proto::Response response;
    // Not waited for beyond the service's queueing: without a service the
    // accounts are fetched when it runs again.
    if (!service::Call(request, &response, 500)) {
      store::LogError("sync", __LINE__,
                      "the background service did not take the fetch request of user " +
                          std::to_string(controller_.uid()));
    }
  }
}

void MailboxSyncer::CheckDefaultMailbox(Controller& controller) {
  store::Database& db = controller.impl().db();
  store::Guard("creating the built-in mailboxes", [&] {
    store::Transaction transaction(db);
    store::Statement exists(db, "SELECT 1 FROM mailbox WHERE id = ?1");
    // A plain INSERT: a user mailbox that took a built-in's place would be
    // damage to report, not to paper over.
    store::Statement insert(db,
                            "INSERT INTO mailbox(id, parent_id, raw_path, builtin, subscribed, "
                            "last_modified) VALUES (?1, NULL, ?2, ?3, 1, ?4)");
    int64_t now = ::larkpost::appliance::UnixTime();
    for (const BuiltinRow& row : kBuiltins) {
      int id = row.kind + 1;  // DefaultMailbox::id<kind>()
      exists.Bind(1, id);
      bool present = exists.Step();
      exists.Reset();
      if (present) continue;
      insert.Bind(1, id).Bind(2, row.raw_path).Bind(3, static_cast<int>(row.kind)).Bind(4, now);
      insert.Run();
      insert.Reset();
    }
    transaction.Commit();
  });
}

UpdateControl::UpdateControl(Controller& controller) : controller_(controller) {}

bool UpdateControl::UpdateAllMailbox(bool notify) {
  try {
    store::Database& db = controller_.impl().db();
    store::Guard("recomputing the mailbox counters", [&] {
      store::Transaction transaction(db);
      // The virtual starred mailbox counts the starred messages of every
      // mailbox but junk and trash, which is what a user finds behind it.
      // last_modified moves only for a mailbox whose counters changed.
      store::Statement update(
          db,
          "WITH counts(id, total, unread, drafts) AS ("
          "  SELECT b.id, count(m.id), ifnull(sum(m.is_read = 0), 0), ifnull(sum(m.type = 1), 0)"
          "  FROM mailbox b LEFT JOIN message m ON m.mailbox_id = b.id"
          "  WHERE b.builtin IS NOT ?2 GROUP BY b.id"
          "  UNION ALL"
          "  SELECT b.id, count(m.id), ifnull(sum(m.is_read = 0), 0), ifnull(sum(m.type = 1), 0)"
          "  FROM mailbox b LEFT JOIN message m"
          "    ON m.star <> 0 AND m.mailbox_id NOT IN (?3, ?4)"
          "  WHERE b.builtin = ?2 GROUP BY b.id)"
          "UPDATE mailbox SET message_count = counts.total, unread_count = counts.unread,"
          "  draft_count = counts.drafts, last_modified = ?1 "
          "FROM counts WHERE mailbox.id = counts.id AND"
          "  (mailbox.message_count, mailbox.unread_count, mailbox.draft_count) <>"
          "  (counts.total, counts.unread, counts.drafts)");
      update.Bind(1, ::larkpost::appliance::UnixTime());
      update.Bind(2, static_cast<int>(constant::kStarred));
      update.Bind(3, DefaultMailbox::id<constant::kJunk>());
      update.Bind(4, DefaultMailbox::id<constant::kTrash>());
      update.Run();
      transaction.Commit();
    });
  } catch (const Error&) {
    return false;
  }
  if (notify && ZEVOLarkpostNotifyMailboxUpdate(controller_.uid()) != 0) {
    store::LogError("sync", __LINE__,
                    "cannot notify user " + std::to_string(controller_.uid()) + "'s listeners");
  }
  return true;
}

}  // namespace ornic::larkpost::control
