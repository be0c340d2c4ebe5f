// Forwarding and the vacation reply as the user's settings see them; the
// rules act at delivery (delivery.cc, auto_answer.cc). A time of 0 means
// "not set" as much as an unset member does: it is what the settings page
// shows for one.
#include <string>

#include "appliance/mailcore/controller_impl.h"
#include "platform/mailcore/control.h"

namespace ornic::larkpost::control {
namespace {

using store::Database;
using store::Statement;

bool IsSetTime(const ConfigField<int64_t>& field) { return field.IsSet() && field.Get() != 0; }

}  // namespace

bool ForwardConfig::IsValid() const {
  if (!forward_enable) return true;
  return forward_addr.IsSet() &&
         MailAddress(forward_addr.Get()).GetEmail().find('@') != std::string::npos;
}

bool ReplyConfig::IsValid() const {
  return !IsSetTime(reply_begin_time) || !IsSetTime(reply_end_time) ||
         reply_begin_time.Get() < reply_end_time.Get();
}

bool SettingControl::GetForwardReply(ForwardConfig& forward, ReplyConfig& reply) const {
  Database& db = controller_.impl().db();
  return store::Guard("reading the forwarding and vacation rules", [&] {
    Statement row(db,
                  "SELECT forward_enable, forward_addr, keep_copy, reply_enable,"
                  " reply_begin_time, reply_end_time, subject, message FROM forward_reply");
    if (!row.Step()) return false;
    forward = ForwardConfig();
    reply = ReplyConfig();
    forward.forward_enable = row.Int(0) != 0;
    if (!row.IsNull(1)) forward.forward_addr.Set(row.Text(1));
    if (!row.IsNull(2)) forward.keep_copy.Set(row.Int(2) != 0);
    reply.reply_enable = row.Int(3) != 0;
    if (!row.IsNull(4)) reply.reply_begin_time.Set(row.Int64(4));
    if (!row.IsNull(5)) reply.reply_end_time.Set(row.Int64(5));
    if (!row.IsNull(6)) reply.subject.Set(row.Text(6));
    if (!row.IsNull(7)) reply.message.Set(row.Text(7));
    return true;
  });
}

bool SettingControl::SetForwardReply(const ForwardConfig& forward, const ReplyConfig& reply) {
  if (!forward.IsValid() || !reply.IsValid()) return false;
  Database& db = controller_.impl().db();
  return store::Guard("changing the forwarding and vacation rules", [&] {
    store::Transaction transaction(db);
    Statement update(db,
                     "UPDATE forward_reply SET forward_enable = ?1, forward_addr = ?2,"
                     " keep_copy = ?3, reply_enable = ?4, reply_begin_time = ?5,"
                     " reply_end_time = ?6, subject = ?7, message = ?8");
    update.Bind(1, forward.forward_enable).Bind(4, reply.reply_enable);
    if (forward.forward_addr.IsSet()) {
      update.Bind(2, MailAddress(forward.forward_addr.Get()).GetEmail());
    }
    if (forward.keep_copy.IsSet()) update.Bind(3, forward.keep_copy.Get());
    if (IsSetTime(reply.reply_begin_time)) update.Bind(5, reply.reply_begin_time.Get());
    if (IsSetTime(reply.reply_end_time)) update.Bind(6, reply.reply_end_time.Get());
    if (reply.subject.IsSet()) update.Bind(7, reply.subject.Get());
    if (reply.message.IsSet()) update.Bind(8, reply.message.Get());
    update.Run();
    // New rules answer everyone anew.
    db.Exec("DELETE FROM vacation_reply");
    transaction.Commit();
    return true;
  });
}

}  // namespace ornic::larkpost::control
