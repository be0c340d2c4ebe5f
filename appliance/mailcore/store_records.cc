#include "appliance/mailcore/store_records.h"

#include <sqlite3.h>

#include <string>
#include <unordered_set>
#include <vector>

#include "appliance/mailcore/store_text.h"
#include "appliance/system/clock.h"

namespace ornic::larkpost::store {
namespace {

// The columns of a message row that FillMessage reads, in its order.
#define MESSAGE_COLUMNS                                                                       \
  "m.id, m.type, m.is_read, m.star, m.from_text, m.subject, m.body_preview, m.arrival_time, " \
  "m.last_modified, m.reply_to, m.mailbox_id, m.thread_id, m.rfc_message_id, m.has_attachment"
constexpr int kMessageColumnCount = 14;

}  // namespace

int64_t Now() { return ::larkpost::appliance::UnixTime(); }

ReadTransaction::ReadTransaction(Database& db) : db_(db) { db_.Exec("BEGIN DEFERRED"); }

ReadTransaction::~ReadTransaction() {
  sqlite3_exec(db_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

std::vector<int> Distinct(const std::vector<int>& ids) {
  std::vector<int> out;
  std::unordered_set<int> seen;
  for (int id : ids) {
    if (seen.insert(id).second) out.push_back(id);
  }
  return out;
}

bool AllExist(Database& db, const char* table, const std::vector<int>& ids) {
  std::vector<int> distinct = Distinct(ids);
  std::string sql = std::string("SELECT count(*) FROM ") + table +
                    " WHERE id IN (SELECT value FROM json_each(?1))";
  Statement count(db, sql.c_str());
  count.Bind(1, EncodeIdArray(distinct));
  count.Step();
  return count.Int64(0) == static_cast<int64_t>(distinct.size());
}

bool LoadMailbox(Database& db, int id, MailboxRow* row) {
  Statement select(db,
                   "SELECT id, ifnull(parent_id, 0), raw_path, ifnull(builtin, -1), subscribed "
                   "FROM mailbox WHERE id = ?1");
  select.Bind(1, id);
  if (!select.Step()) return false;
  row->id = select.Int(0);
  row->parent_id = select.Int(1);
  row->raw_path = select.Text(2);
  row->builtin = select.Int(3);
  row->subscribed = select.Int(4) != 0;
  return true;
}

bool IsRealMailbox(Database& db, int id) {
  MailboxRow row;
  return LoadMailbox(db, id, &row) && row.builtin != constant::kStarred;
}

RecordReader::RecordReader(Database& db)
    : db_(db),
      thread_messages_(db, "SELECT " MESSAGE_COLUMNS
                           " FROM message m WHERE m.thread_id = ?1 ORDER BY m.arrival_time, m.id"),
      thread_labels_(db,
                     "SELECT l.id, l.name, l.key, l.text_color, l.background_color "
                     "FROM thread_label t JOIN label l ON l.id = t.label_id "
                     "WHERE t.thread_id = ?1 ORDER BY l.name, l.id"),
      full_message_(db, "SELECT " MESSAGE_COLUMNS
                        ", m.to_text, m.cc_text, m.bcc_text, ifnull(b.plain, ''), "
                        "ifnull(b.html, '') FROM message m "
                        "LEFT JOIN message_body b ON b.message_id = m.id WHERE m.id = ?1"),
      attachments_(
          db,
          "SELECT id, size, mimetype, name, content_id, is_inline, preview_path FROM attachment "
          "WHERE message_id = ?1 AND (is_inline = 0 OR NOT ?2) ORDER BY id") {}

void RecordReader::FillMessage(Statement& row, record::Message* message) {
  message->id = row.Int(0);
  message->type = row.Int(1);
  message->read = row.Int(2) != 0;
  message->star = row.Int(3);
  message->from = row.Text(4);
  message->subject = row.Text(5);
  message->body_preview = row.Text(6);
  message->arrival_time = row.Int64(7);
  message->last_modified = row.Int64(8);
  message->reply_to = row.Int(9);
  message->mailbox_id = row.Int(10);
  message->thread_id = row.Int(11);
  message->rfc_message_id = row.Text(12);
}

record::Label ReadLabel(Statement& row, bool unread) {
  record::Label label;
  label.id = row.Int(0);
  label.name = row.Text(1);
  label.key = row.Text(2);
  label.text_color = row.Text(3);
  label.background_color = row.Text(4);
  if (unread) label.unread_count = row.Int(5);
  return label;
}

std::vector<record::Attachment> RecordReader::Attachments(int message_id, bool listed_only) {
  std::vector<record::Attachment> attachments;
  attachments_.Bind(1, message_id).Bind(2, listed_only);
  while (attachments_.Step()) {
    record::Attachment attachment;
    attachment.id = attachments_.Int(0);
    attachment.size = attachments_.Int(1);
    attachment.mimetype = attachments_.Text(2);
    attachment.name = attachments_.Text(3);
    attachment.content_id = attachments_.Text(4);
    attachment.is_inline = attachments_.Int(5) != 0;
    attachment.preview_path = attachments_.Text(6);
    attachments.push_back(std::move(attachment));
  }
  attachments_.Reset();
  return attachments;
}

std::vector<record::Message> RecordReader::ThreadMessages(int thread_id) {
  std::vector<record::Message> messages;
  std::vector<size_t> with_attachments;
  thread_messages_.Bind(1, thread_id);
  while (thread_messages_.Step()) {
    messages.emplace_back();
    FillMessage(thread_messages_, &messages.back());
    if (thread_messages_.Int(kMessageColumnCount - 1) != 0) {
      with_attachments.push_back(messages.size() - 1);
    }
  }
  thread_messages_.Reset();
  for (size_t index : with_attachments) {
    messages[index].attachments = Attachments(messages[index].id, true);
  }
  return messages;
}

std::vector<record::Label> RecordReader::ThreadLabels(int thread_id) {
  std::vector<record::Label> labels;
  thread_labels_.Bind(1, thread_id);
  while (thread_labels_.Step()) labels.push_back(ReadLabel(thread_labels_, false));
  thread_labels_.Reset();
  return labels;
}

bool RecordReader::FullMessage(int id, record::FullMessage* message) {
  full_message_.Bind(1, id);
  if (!full_message_.Step()) {
    full_message_.Reset();
    return false;
  }
  FillMessage(full_message_, message);
  message->to = DecodeStringArray(full_message_.Text(kMessageColumnCount));
  message->cc = DecodeStringArray(full_message_.Text(kMessageColumnCount + 1));
  message->bcc = DecodeStringArray(full_message_.Text(kMessageColumnCount + 2));
  message->plain_body = full_message_.Text(kMessageColumnCount + 3);
  message->html_body = full_message_.Text(kMessageColumnCount + 4);
  full_message_.Reset();
  message->attachments = Attachments(id, false);
  for (const record::Attachment& attachment : message->attachments) {
    if (!attachment.content_id.empty()) {
      message->inline_images.emplace(attachment.content_id,
                                     std::make_pair(attachment.name, attachment.id));
    }
  }
  return true;
}

}  // namespace ornic::larkpost::store
