// A user with a fresh store (built-in mailboxes made) below a temporary data
// root, a clock that tests move by hand, and ways to add mail and to check
// that everything the store derives still agrees with the messages.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/message_store.h"
#include "appliance/system/appliance.h"
#include "appliance/system/sqlite.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/controller.h"
#include "platform/mailcore/db_setup.h"
#include "platform/mailcore/error.h"
#include "platform/mailcore/sync.h"
#include "tests/store/attachment_part.h"
#include "tests/system/temp_root.h"

namespace ornic::larkpost::testing {

constexpr int kInbox = 1, kDrafts = 2, kSent = 3, kArchived = 4, kJunk = 5, kTrash = 6,
              kStarred = 7;
constexpr int64_t kDay = 24 * 3600;
using Ids = std::vector<int>;
using Texts = std::vector<std::string>;

template <typename Body>
int32_t CodeOf(Body&& body) {
  try {
    body();
  } catch (const Error& e) {
    return e.ErrorCode();
  }
  return 0;
}

// A message as a test states it; everything not named is plain.
struct Mail {
  std::string subject = "Subject";
  std::string message_id;  // "" : none
  std::string in_reply_to;
  std::vector<std::string> references;
  int mailbox = kInbox;
  int64_t arrival = 0;  // 0: the fake clock's now
  bool read = false;
  int star = 0;
  int type = 0;
  std::string from = "Ann Example <ann@example.org>";
  std::vector<std::string> to = {"Bob <bob@example.org>"};
  std::vector<std::string> cc;
  std::string plain = "Hello there.";
  std::string html;
  std::vector<store::NewAttachment> attachments;
  std::string raw;
};

class StoreTest : public ::testing::Test {
 protected:
  StoreTest() {
    uid_ = ::larkpost::appliance::UserStore::Add("alice", "pw", false, "example.org");
    EXPECT_TRUE(db::DBSetupHandler(uid_).SetupDB());
    controller_ = std::make_unique<control::Controller>(uid_);
    control::MailboxSyncer::CheckDefaultMailbox(*controller_);
  }
  ~StoreTest() override {
    controller_.reset();
    store::CloseConnections();
  }

  control::Controller& controller() { return *controller_; }
  store::Database& db() { return controller_->impl().db(); }
  int64_t Query(const std::string& sql) { return db().QueryInt(sql); }

  static store::NewMessage ToNew(const Mail& mail, int64_t now) {
    store::NewMessage message;
    message.mailbox_id = mail.mailbox;
    message.type = mail.type;
    message.read = mail.read;
    message.star = mail.star;
    message.arrival_time = mail.arrival ? mail.arrival : now;
    message.from = mail.from;
    message.to = mail.to;
    message.cc = mail.cc;
    message.subject = mail.subject;
    message.rfc_message_id = mail.message_id;
    message.in_reply_to = mail.in_reply_to;
    message.references = mail.references;
    message.plain_body = mail.plain;
    message.html_body = mail.html;
    message.attachments = mail.attachments;
    message.raw =
        mail.raw.empty() ? "Subject: " + mail.subject + "\r\n\r\n" + mail.plain : mail.raw;
    return message;
  }

  int Add(const Mail& mail) {
    return store::InsertMessage(controller(), ToNew(mail, clock_.now()));
  }

  int CreateLabel(const std::string& name) {
    control::LabelConfig config;
    config.name.Set(name);
    config.text_color.Set("#000");
    config.background_color.Set("#fff");
    return control::LabelControl(controller()).Create(config);
  }

  // A file below the data root holding `content`, registered as a temporary
  // attachment; its content id in `*content_id`.
  int Upload(const std::string& name, const std::string& content, bool is_inline = false,
             std::string* content_id = nullptr) {
    const std::string relative = "uploads/" + std::to_string(++uploads_);
    root_.Write(relative, content);
    control::AttachmentConfig config;
    config.name.Set(name);
    config.path.Set(root_.path() + "/" + relative);
    config.is_inline.Set(is_inline);
    std::string id_text;
    int id = control::AttachmentControl(controller()).AddAttachmentTemp(config, id_text);
    if (content_id != nullptr) *content_id = id_text;
    return id;
  }

  // Every attachment of the message as "name:content" in stored order, each
  // checked against its recorded size.
  std::vector<std::string> Contents(int message_id) {
    control::AttachmentControl attachments(controller());
    std::vector<std::string> out;
    for (const record::Attachment& attachment :
         control::MessageControl(controller()).GetMessage(message_id).attachments) {
      const std::string content = attachments.GetContentByRecord(attachment);
      EXPECT_EQ(attachment.size, static_cast<int64_t>(content.size())) << attachment.name;
      out.push_back(attachment.name + ":" + content);
    }
    return out;
  }

  int ThreadOf(int message_id) {
    return static_cast<int>(
        Query("SELECT thread_id FROM message WHERE id = " + std::to_string(message_id)));
  }

  // The store as text, to show that a refused change changed nothing.
  std::string Snapshot() {
    std::string text;
    for (const char* sql :
         {"SELECT group_concat(id || ':' || mailbox_id || ':' || thread_id || ':' || is_read ||"
          " ':' || star || ':' || subject || ':' || to_text || ':' || last_modified, ' ')"
          " FROM message",
          "SELECT group_concat(message_id || ':' || html, ' ') FROM message_body",
          "SELECT group_concat(id || ':' || message_id || ':' || name, ' ') FROM attachment",
          "SELECT group_concat(id || ':' || path, ' ') FROM attachment_temp",
          "SELECT group_concat(id || ':' || message_count || ':' || unread_count, ' ') FROM "
          "mailbox",
          "SELECT group_concat(thread_id || ':' || label_id, ' ') FROM thread_label",
          "SELECT group_concat(id || ':' || last_modified, ' ') FROM thread"}) {
      store::Statement statement(db(), sql);
      statement.Step();
      text += statement.Text(0) + "\n";
    }
    return text;
  }

  // Everything the store keeps beside the messages, recomputed from them;
  // each disagreement as a line.
  std::vector<std::string> Inconsistencies() {
    std::vector<std::string> problems;
    auto rows = [&](const std::string& what, const std::string& sql) {
      store::Statement statement(db(), sql.c_str());
      while (statement.Step()) problems.push_back(what + ": " + statement.Text(0));
    };
    rows("mailbox counters",
         "WITH c(id, total, unread, drafts) AS ("
         " SELECT b.id, count(m.id), ifnull(sum(m.is_read = 0), 0), ifnull(sum(m.type = 1), 0)"
         " FROM mailbox b LEFT JOIN message m ON (b.id <> 7 AND m.mailbox_id = b.id)"
         "  OR (b.id = 7 AND m.star <> 0 AND m.mailbox_id NOT IN (5, 6))"
         " GROUP BY b.id)"
         "SELECT b.id || ' ' || b.message_count || '/' || b.unread_count || '/' || b.draft_count"
         " || ' want ' || c.total || '/' || c.unread || '/' || c.drafts FROM mailbox b JOIN c"
         " ON c.id = b.id WHERE (b.message_count, b.unread_count, b.draft_count)"
         " IS NOT (c.total, c.unread, c.drafts)");
    rows("thread counters",
         "SELECT t.id || ' ' || t.message_count || '/' || t.unread_count || '/' || t.last_arrival"
         " FROM thread t WHERE (t.message_count, t.unread_count, t.last_arrival) IS NOT"
         " (SELECT count(*), ifnull(sum(is_read = 0 AND type <> 1), 0),"
         "  ifnull(max(arrival_time), 0) FROM message WHERE thread_id = t.id)"
         " OR t.message_count = 0");
    rows("mailbox_thread",
         "WITH want(mailbox_id, thread_id, latest_arrival) AS ("
         " SELECT mailbox_id, thread_id, max(arrival_time) FROM message"
         " GROUP BY mailbox_id, thread_id UNION ALL"
         " SELECT 7, thread_id, max(arrival_time) FROM message"
         " WHERE star <> 0 AND mailbox_id NOT IN (5, 6) GROUP BY thread_id)"
         "SELECT 'missing ' || mailbox_id || ' ' || thread_id || ' ' || latest_arrival FROM"
         " (SELECT * FROM want EXCEPT SELECT * FROM mailbox_thread) UNION ALL"
         " SELECT 'extra ' || mailbox_id || ' ' || thread_id || ' ' || latest_arrival FROM"
         " (SELECT * FROM mailbox_thread EXCEPT SELECT * FROM want)");
    rows("label unread",
         "SELECT l.id || ' ' || l.unread_count FROM label l WHERE l.unread_count <>"
         " (SELECT count(*) FROM thread_label tl JOIN message m ON m.thread_id = tl.thread_id"
         "  WHERE tl.label_id = l.id AND m.is_read = 0 AND m.type <> 1)");
    rows("thread counts",
         "SELECT 'mailbox ' || b.id || ' ' || b.thread_count FROM mailbox b WHERE b.thread_count <>"
         " (SELECT count(*) FROM mailbox_thread WHERE mailbox_id = b.id) UNION ALL"
         " SELECT 'all ' || value FROM store_count WHERE name = 'thread'"
         " AND value <> (SELECT count(*) FROM thread)");
    rows("index", "SELECT id FROM message WHERE indexed = 0");
    try {
      db().Exec("INSERT INTO message_fts(message_fts) VALUES ('integrity-check')");
    } catch (const std::exception& e) {
      problems.push_back(std::string("full-text index: ") + e.what());
    }
    return problems;
  }

  ::larkpost::testing::TempRoot root_;
  ::larkpost::testing::FakeClock clock_{1700000000};
  uint32_t uid_ = 0;
  std::unique_ptr<control::Controller> controller_;
  int uploads_ = 0;
};

}  // namespace ornic::larkpost::testing
