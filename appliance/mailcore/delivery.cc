// The message is stored first and the rules' conditions are then asked of
// the stored row, inside the same transaction, so that a rule means at
// delivery exactly what the same conditions mean in a search.
#include "appliance/mailcore/delivery.h"

#include <errno.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "appliance/mailcore/filter_store.h"
#include "appliance/mailcore/lazy_library.h"
#include "appliance/mailcore/send/send_library.h"
#include "appliance/mailcore/store_records.h"
#include "appliance/mailcore/store_text.h"
#include "appliance/system/clock.h"
#include "platform/mailcore/constant.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/error.h"
#include "platform/mailcore/zevo_user.h"

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
                         const std::function<bool(bool deleted)>& keep) {
  Delivered delivered;
  bool discarded = false;
  // Thrown through the store's transaction so that it rolls back.
  struct NotKept {};
  auto decide = [&] {
    if (keep && !keep(discarded)) throw NotKept{};
  };
  int id = 0;
  try {
    id = InsertMessageThen(controller, message, [&](Database& db, int stored) {
      const std::vector<record::Filter> filters = LoadFilters(db);
      if (filters.empty()) return decide();
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
      decide();
    });
  } catch (const NotKept&) {
    return delivered;
  }
  delivered.id = discarded ? 0 : id;
  return delivered;
}

AnswerRules LoadAnswerRules(Database& db) {
  return Guard("reading the forwarding and vacation rules", [&] {
    Statement row(db,
                  "SELECT forward_enable, ifnull(forward_addr, ''), ifnull(keep_copy, 0),"
                  " reply_enable, ifnull(reply_begin_time, 0), ifnull(reply_end_time, 0),"
                  " ifnull(subject, ''), ifnull(message, '') FROM forward_reply");
    AnswerRules rules;
    if (!row.Step()) return rules;
    rules.forward_enable = row.Int(0) != 0;
    rules.forward_addr = control::MailAddress(row.Text(1)).GetEmail();
    rules.keep_copy = row.Int(2) != 0;
    rules.reply_enable = row.Int(3) != 0;
    rules.reply_begin_time = row.Int64(4);
    rules.reply_end_time = row.Int64(5);
    rules.subject = row.Text(6);
    rules.message = row.Text(7);
    return rules;
  });
}

std::vector<std::string> UserAddresses(control::Controller& controller) {
  const sdk::ZevoUser& user = controller.impl().user;
  std::vector<std::string> addresses{user.name() + "@" + user.domain()};
  Database& db = controller.impl().db();
  Guard("reading the sending identities", [&] {
    Statement rows(db, "SELECT mail FROM smtp_account ORDER BY id");
    while (rows.Step()) {
      std::string address = control::MailAddress(rows.Text(0)).GetEmail();
      if (!address.empty()) addresses.push_back(std::move(address));
    }
  });
  return addresses;
}

int32_t SendThroughRelay(const std::string& sender, const std::vector<std::string>& recipients,
                         const std::string& message) {
  try {
    auto* relay = LazyFunction<send::RelayEntry>(send::kLibraryName, send::kRelayEntryName);
    send::RelayJob job{sender, recipients, &message};
    return relay(&job);
  } catch (const Error& e) {
    return e.ErrorCode();
  }
}

namespace {

std::string WholeSource(const NewMessage& message) {
  if (!message.raw.empty() || message.raw_fd < 0) return message.raw;
  std::string source(static_cast<size_t>(message.raw_size), '\0');
  size_t done = 0;
  while (done < source.size()) {
    const ssize_t got =
        pread(message.raw_fd, source.data() + done, source.size() - done, static_cast<off_t>(done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    done += static_cast<size_t>(got);
  }
  source.resize(done);
  return source;
}

bool Forward(const NewMessage& message, const Arrival& arrival, const AnswerRules& rules,
             const std::string& user_address) {
  const int32_t error = SendThroughRelay(ForwardSender(message, arrival), {rules.forward_addr},
                                         ForwardedSource(WholeSource(message), user_address));
  if (error != 0) {
    LogError("delivery", __LINE__,
             "forwarding to " + rules.forward_addr + " failed (" + std::to_string(error) +
                 (rules.keep_copy ? ")" : "); the message is kept"));
  }
  return error == 0;
}

// Sends the vacation reply when the rules and the memory allow it.
bool Reply(control::Controller& controller, const NewMessage& message, const Arrival& arrival,
           const AnswerRules& rules) {
  const std::vector<std::string> own = UserAddresses(controller);
  const int64_t now = ::larkpost::appliance::UnixTime();
  std::string why;
  const std::string recipient = VacationRecipient(rules, message, arrival, own, now, &why);
  if (recipient.empty()) return false;
  const std::string key = FoldCase(recipient);
  Database& db = controller.impl().db();
  const bool recent = Guard("reading the vacation replies", [&] {
    Statement row(db, "SELECT replied_at FROM vacation_reply WHERE sender = ?1");
    row.Bind(1, key);
    return row.Step() && now - row.Int64(0) < kVacationInterval && now >= row.Int64(0);
  });
  if (recent) return false;
  const int32_t error =
      SendThroughRelay("", {recipient}, VacationReply(rules, message, recipient, own[0], now));
  if (error != 0) {
    LogError("delivery", __LINE__,
             "the vacation reply to " + recipient + " failed (" + std::to_string(error) + ")");
    return false;
  }
  Guard("remembering a vacation reply", [&] {
    Transaction transaction(db);
    Statement remember(db,
                       "INSERT OR REPLACE INTO vacation_reply(sender, replied_at) VALUES (?1, ?2)");
    remember.Bind(1, key).Bind(2, now);
    remember.Run();
    transaction.Commit();
  });
  return true;
}

// Redirects leave from the address of the message's From, unchanged.
void SendRedirects(const NewMessage& message, const std::vector<std::string>& addresses) {
  if (addresses.empty()) return;
  const int32_t error = SendThroughRelay(control::MailAddress(message.from).GetEmail(), addresses,
                                         WithCrlf(WholeSource(message)));
  if (error != 0) {
    LogError("delivery", __LINE__,
             "a redirect was not sent (" + std::to_string(error) + "); the message is stored");
  }
}

}  // namespace

Delivered Deliver(control::Controller& controller, const NewMessage& message,
                  const std::function<void()>& with_message) {
  // Kept: the caller's record goes into the same transaction.
  const auto kept = [&] {
    if (with_message) with_message();
    return true;
  };
  Database& db = controller.impl().db();
  const AnswerRules rules = LoadAnswerRules(db);
  if (!rules.forward_enable && !rules.reply_enable) {
    Delivered delivered = DeliverMessage(controller, message, [&](bool) { return kept(); });
    SendRedirects(message, delivered.redirects);
    return delivered;
  }
  const Arrival arrival = ReadArrival(message);
  const sdk::ZevoUser& user = controller.impl().user;
  const std::string user_address = user.name() + "@" + user.domain();
  const bool forward = ShouldForward(rules, arrival, user_address);

  Delivered delivered;
  bool deleted = false;
  if (forward && !rules.keep_copy) {
    // The rules decide first; the message is stored only if the forward
    // fails, so the first attempt keeps nothing unless a rule deleted it.
    delivered = DeliverMessage(controller, message, [&](bool rule_deleted) {
      deleted = rule_deleted;
      return rule_deleted && kept();
    });
    if (!deleted) {
      delivered.forwarded = Forward(message, arrival, rules, user_address);
      if (!delivered.forwarded) {
        delivered = DeliverMessage(controller, message, [&](bool) { return kept(); });
      }
    }
  } else {
    delivered = DeliverMessage(controller, message, [&](bool rule_deleted) {
      deleted = rule_deleted;
      return kept();
    });
    if (forward && !deleted) delivered.forwarded = Forward(message, arrival, rules, user_address);
  }
  if (!deleted && rules.reply_enable)
    delivered.replied = Reply(controller, message, arrival, rules);
  SendRedirects(message, delivered.redirects);
  return delivered;
}

}  // namespace ornic::larkpost::store
