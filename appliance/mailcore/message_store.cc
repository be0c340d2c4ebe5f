// Storing new messages. A message joins a thread by its headers: the thread
// of another copy of it (same Message-ID), of the messages it answers
// (In-Reply-To, References) and of the messages that answer it (a parent
// that arrives after its replies). When these lead to several threads, the
// threads become one. A message that none of them places joins the newest
// thread with the same subject key that had mail within a month of it, and
// otherwise starts a thread.
#include "appliance/mailcore/message_store.h"

#include <algorithm>
#include <string>
#include <vector>

#include "appliance/mailcore/attachment_content.h"
#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/mime/html_text.h"
#include "appliance/mailcore/store_records.h"
#include "appliance/mailcore/store_text.h"
#include "platform/mailcore/error.h"

namespace ornic::larkpost::store {
namespace {

constexpr int64_t kSubjectWindow = 30 * 24 * 3600;
constexpr size_t kPreviewLength = 200;

// The statements of one batch, prepared once.
class Inserter {
 public:
  explicit Inserter(Database& db)
      : db_(db),
        mailbox_(db, "SELECT builtin FROM mailbox WHERE id = ?1"),
        // The "<> ''" terms let the partial indexes serve the lookups.
        thread_of_id_(db,
                      "SELECT DISTINCT thread_id FROM message "
                      "WHERE rfc_message_id = ?1 AND rfc_message_id <> ''"),
        thread_of_children_(db,
                            "SELECT DISTINCT m.thread_id FROM message_reference r "
                            "JOIN message m ON m.id = r.message_id WHERE r.ref = ?1"),
        thread_of_subject_(db,
                           "SELECT id FROM thread WHERE subject_key = ?1 AND subject_key <> '' "
                           "AND last_arrival BETWEEN ?2 AND ?3 "
                           "ORDER BY last_arrival DESC, id DESC LIMIT 1"),
        new_thread_(db, "INSERT INTO thread(subject_key, last_modified) VALUES (?1, ?2)"),
        touch_thread_(db, "UPDATE thread SET last_modified = ?2 WHERE id = ?1"),
        merge_labels_(db,
                      "INSERT OR IGNORE INTO thread_label(thread_id, label_id) "
                      "SELECT ?1, label_id FROM thread_label WHERE thread_id = ?2"),
        merge_messages_(db, "UPDATE message SET thread_id = ?1 WHERE thread_id = ?2"),
        message_(db,
                 "INSERT INTO message(mailbox_id, thread_id, type, is_read, star, size, "
                 "arrival_time, last_modified, subject, from_text, to_text, cc_text, bcc_text, "
                 "rfc_message_id, in_reply_to, refs, body_preview, has_attachment) VALUES "
                 "(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15, ?16, ?17, "
                 "?18)"),
        body_(db,
              "INSERT INTO message_body(message_id, plain, html, search_text) "
              "VALUES (?1, ?2, ?3, ?4)"),
        attachment_(db,
                    "INSERT INTO attachment(message_id, name, mimetype, size, content_id, "
                    "is_inline, part_path, content_offset, content_length, content_encoding) "
                    "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10)"),
        reference_(db, "INSERT OR IGNORE INTO message_reference(ref, message_id) VALUES (?1, ?2)"),
        index_(db, "UPDATE message SET indexed = 1 WHERE id = ?1") {}

  int Insert(const NewMessage& message) {
    mailbox_.Bind(1, message.mailbox_id);
    bool known = mailbox_.Step();
    bool is_virtual = known && !mailbox_.IsNull(0) && mailbox_.Int(0) == constant::kStarred;
    mailbox_.Reset();
    if (!known || is_virtual) {
      LogError("message_store", __LINE__,
               "no mailbox for new messages with id " + std::to_string(message.mailbox_id));
      throw Error(kErrorInvalidArgument);
    }

    int64_t now = Now();
    int64_t arrival = message.arrival_time > 0 ? message.arrival_time : now;
    std::vector<std::string> refs = References(message);
    int thread_id = PlaceInThread(message, refs, arrival, now);

    std::string search_text;
    bool plain_is_text = message.plain_body.find_first_not_of(" \t\r\n") != std::string::npos;
    if (!plain_is_text && !message.html_body.empty())
      search_text = mime::HtmlToText(message.html_body);
    const std::string& text = plain_is_text ? message.plain_body : search_text;

    bool has_attachment = false;
    const bool has_source = SourceSize(message) > 0;
    int64_t size = SourceSize(message);
    if (!has_source) size = message.plain_body.size() + message.html_body.size();
    for (const NewAttachment& attachment : message.attachments) {
      has_attachment = has_attachment || !attachment.is_inline;
      if (!has_source) size += attachment.size;
    }

    message_.Bind(1, message.mailbox_id).Bind(2, thread_id).Bind(3, message.type);
    message_.Bind(4, message.read).Bind(5, message.star).Bind(6, size);
    message_.Bind(7, arrival).Bind(8, now).Bind(9, message.subject).Bind(10, message.from);
    message_.Bind(11, EncodeStringArray(message.to)).Bind(12, EncodeStringArray(message.cc));
    message_.Bind(13, EncodeStringArray(message.bcc)).Bind(14, message.rfc_message_id);
    message_.Bind(15, message.in_reply_to).Bind(16, EncodeStringArray(message.references));
    message_.Bind(
        17, message.body_preview.empty() ? Preview(text, kPreviewLength) : message.body_preview);
    message_.Bind(18, has_attachment);
    message_.Run();
    message_.Reset();
    int id = static_cast<int>(db_.LastInsertRowid());

    body_.Bind(1, id).Bind(2, message.plain_body).Bind(3, message.html_body);
    if (plain_is_text || message.html_body.empty()) {
      body_.BindNull(4);
    } else {
      body_.Bind(4, search_text);
    }
    body_.Run();
    body_.Reset();
    if (has_source) StoreSource(db_, id, message);
    for (const NewAttachment& attachment : message.attachments) {
      attachment_.Bind(1, id).Bind(2, attachment.name).Bind(3, attachment.mimetype);
      attachment_.Bind(4, attachment.size).Bind(5, attachment.content_id);
      attachment_.Bind(6, attachment.is_inline).Bind(7, attachment.part_path);
      BindContentRange(attachment_, 8, attachment);
      attachment_.Run();
      attachment_.Reset();
    }
    for (const std::string& ref : refs) {
      reference_.Bind(1, ref).Bind(2, id);
      reference_.Run();
      reference_.Reset();
    }
    index_.Bind(1, id);
    index_.Run();
    index_.Reset();
    return id;
  }

 private:
  // In-Reply-To first, then References newest first; no repetitions, no
  // empty ones, never the message's own id.
  static std::vector<std::string> References(const NewMessage& message) {
    std::vector<std::string> refs;
    auto add = [&](const std::string& ref) {
      if (ref.empty() || ref == message.rfc_message_id) return;
      if (std::find(refs.begin(), refs.end(), ref) == refs.end()) refs.push_back(ref);
    };
    add(message.in_reply_to);
    for (auto it = message.references.rbegin(); it != message.references.rend(); ++it) add(*it);
    return refs;
  }

  static void Collect(Statement& statement, std::vector<int>* threads) {
    while (statement.Step()) {
      int thread = statement.Int(0);
      if (std::find(threads->begin(), threads->end(), thread) == threads->end()) {
        threads->push_back(thread);
      }
    }
    statement.Reset();
  }

  int PlaceInThread(const NewMessage& message, const std::vector<std::string>& refs,
                    int64_t arrival, int64_t now) {
    std::vector<int> threads;  // in order of preference
    if (!message.rfc_message_id.empty()) {
      thread_of_id_.Bind(1, message.rfc_message_id);
      Collect(thread_of_id_, &threads);
    }
    for (const std::string& ref : refs) {
      thread_of_id_.Bind(1, ref);
      Collect(thread_of_id_, &threads);
    }
    if (!message.rfc_message_id.empty()) {
      thread_of_children_.Bind(1, message.rfc_message_id);
      Collect(thread_of_children_, &threads);
    }
    std::string key = SubjectKey(message.subject);
    if (threads.empty() && !key.empty()) {
      thread_of_subject_.Bind(1, key).Bind(2, arrival - kSubjectWindow);
      thread_of_subject_.Bind(3, arrival + kSubjectWindow);
      Collect(thread_of_subject_, &threads);
    }
    if (threads.empty()) {
      new_thread_.Bind(1, key).Bind(2, now);
      new_thread_.Run();
      new_thread_.Reset();
      return static_cast<int>(db_.LastInsertRowid());
    }
    int target = threads[0];
    for (size_t k = 1; k < threads.size(); ++k) {
      // Labels first: the emptied thread goes, and its labels with it.
      merge_labels_.Bind(1, target).Bind(2, threads[k]);
      merge_labels_.Run();
      merge_labels_.Reset();
      merge_messages_.Bind(1, target).Bind(2, threads[k]);
      merge_messages_.Run();
      merge_messages_.Reset();
    }
    touch_thread_.Bind(1, target).Bind(2, now);
    touch_thread_.Run();
    touch_thread_.Reset();
    return target;
  }

  Database& db_;
  Statement mailbox_;
  Statement thread_of_id_;
  Statement thread_of_children_;
  Statement thread_of_subject_;
  Statement new_thread_;
  Statement touch_thread_;
  Statement merge_labels_;
  Statement merge_messages_;
  Statement message_;
  Statement body_;
  Statement attachment_;
  Statement reference_;
  Statement index_;
};

}  // namespace

namespace {

// Stores `count` messages, the i-th being `message(i)`, in one transaction.
template <typename MessageAt>
std::vector<int> InsertAll(control::Controller& controller, size_t count, MessageAt&& message) {
  Database& db = controller.impl().db();
  return Guard("storing " + std::to_string(count) + " new messages", [&] {
    Transaction transaction(db);
    Inserter inserter(db);
    std::vector<int> ids;
    ids.reserve(count);
    for (size_t i = 0; i < count; ++i) ids.push_back(inserter.Insert(message(i)));
    transaction.Commit();
    return ids;
  });
}

}  // namespace

int InsertMessageThen(control::Controller& controller, const NewMessage& message,
                      const std::function<void(Database& db, int id)>& then) {
  Database& db = controller.impl().db();
  return Guard("storing a new message", [&] {
    Transaction transaction(db);
    const int id = Inserter(db).Insert(message);
    then(db, id);
    transaction.Commit();
    return id;
  });
}

int InsertMessage(control::Controller& controller, const NewMessage& message) {
  return InsertAll(controller, 1, [&](size_t) -> const NewMessage& { return message; }).at(0);
}

std::vector<int> InsertMessages(control::Controller& controller,
                                const std::vector<NewMessage>& messages) {
  return InsertAll(controller, messages.size(),
                   [&](size_t i) -> const NewMessage& { return messages[i]; });
}

}  // namespace ornic::larkpost::store
