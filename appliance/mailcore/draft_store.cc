// Drafts: writing them, changing them in place, and the sent copy that
// replaces one. A draft lives in Drafts as a read message of type 1 that
// keeps the contents of its own attachments; it is stored with its full-text
// entry like any message, so every change takes the entry out first and
// puts it back last (the store refuses to change the text of an indexed
// message).
//
// Which thread a draft joins: a reply (draft_type 1 or 2) joins the thread
// of the message it answers and carries that message's Message-ID chain,
// so that the sent copy and the answers to it thread with the conversation;
// any other draft starts a thread of its own.
//
// Attachments of a draft: "attachment" lists those it keeps, either its own
// or those of the message it refers to (a forward), which are copied in;
// own listed attachments that are not named go. Inline images are not
// listed to the user, so they stay as long as the HTML body shows them
// ("cid:" + content id); an image of the referred message that a new body
// shows is copied in too, so that a quoted picture survives the reply.
// The HTML a composer hands back may show inline images by the download
// URLs that "get" wrote, with the session in them: they become "cid:"
// references again (RestoreInlineImages) for the draft's own images and the
// inline images of the message it refers to, before anything looks for
// "cid:", and no session parameter is stored.
// "temp_attachment" takes uploads over: their files are copied into the
// store and removed, with their records, once the change is committed.
#include "appliance/mailcore/draft_store.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "appliance/mailcore/attachment_content.h"
#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/draft_html.h"
#include "appliance/mailcore/mime/html_text.h"
#include "appliance/mailcore/store_records.h"
#include "appliance/mailcore/store_text.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/error.h"

namespace ornic::larkpost::store {
namespace {

constexpr int kSentId = control::DefaultMailbox::id<constant::kSent>();
constexpr size_t kPreviewLength = 200;
constexpr int kReply = 1, kReplyAll = 2;

// What a draft's message row holds besides its place.
struct DraftRow {
  std::string from;
  std::vector<std::string> to, cc, bcc;
  std::string subject;
  std::string html;
  int draft_type = 0;
  int reply_to = 0;
  std::string in_reply_to;
  std::vector<std::string> references;
};

// The message a draft refers to.
struct Referred {
  int id = 0;
  int thread_id = 0;
  std::string rfc_message_id;
  std::string in_reply_to;
  std::vector<std::string> references;
};

bool LoadReferred(Database& db, int id, Referred* referred) {
  Statement row(db,
                "SELECT thread_id, rfc_message_id, in_reply_to, refs FROM message WHERE id = ?1");
  row.Bind(1, id);
  if (!row.Step()) return false;
  referred->id = id;
  referred->thread_id = row.Int(0);
  referred->rfc_message_id = row.Text(1);
  referred->in_reply_to = row.Text(2);
  referred->references = DecodeStringArray(row.Text(3));
  return true;
}

// The References of an answer: the parent's References (or, lacking them,
// its In-Reply-To), then the parent itself.
std::vector<std::string> AnswerReferences(const Referred& parent) {
  std::vector<std::string> refs = parent.references;
  if (refs.empty() && !parent.in_reply_to.empty()) refs.push_back(parent.in_reply_to);
  if (!parent.rfc_message_id.empty()) {
    refs.erase(std::remove(refs.begin(), refs.end(), parent.rfc_message_id), refs.end());
    refs.push_back(parent.rfc_message_id);
  }
  return refs;
}

// In-Reply-To first, then References newest first; no repetitions, no
// empty ones: the ids that the message_reference table keeps.
std::vector<std::string> ReferenceKeys(const std::string& in_reply_to,
                                       const std::vector<std::string>& references,
                                       const std::string& own_id) {
  std::vector<std::string> keys;
  auto add = [&](const std::string& ref) {
    if (ref.empty() || ref == own_id) return;
    if (std::find(keys.begin(), keys.end(), ref) == keys.end()) keys.push_back(ref);
  };
  add(in_reply_to);
  for (auto it = references.rbegin(); it != references.rend(); ++it) add(*it);
  return keys;
}

void WriteReferences(Database& db, int message_id, const std::vector<std::string>& keys) {
  Statement clear(db, "DELETE FROM message_reference WHERE message_id = ?1");
  clear.Bind(1, message_id);
  clear.Run();
  Statement add(db, "INSERT OR IGNORE INTO message_reference(ref, message_id) VALUES (?1, ?2)");
  for (const std::string& key : keys) {
    add.Bind(1, key).Bind(2, message_id);
    add.Run();
    add.Reset();
  }
}

void SetIndexed(Database& db, int message_id, bool indexed) {
  Statement index(db, "UPDATE message SET indexed = ?2 WHERE id = ?1");
  index.Bind(1, message_id).Bind(2, indexed);
  index.Run();
}

int NewThread(Database& db, const std::string& subject, int64_t now) {
  Statement thread(db, "INSERT INTO thread(subject_key, last_modified) VALUES (?1, ?2)");
  thread.Bind(1, SubjectKey(subject)).Bind(2, now);
  thread.Run();
  return static_cast<int>(db.LastInsertRowid());
}

void TouchThread(Database& db, int thread_id, int64_t now) {
  Statement touch(db, "UPDATE thread SET last_modified = ?2 WHERE id = ?1");
  touch.Bind(1, thread_id).Bind(2, now);
  touch.Run();
}

// The attachment rows of a message, as far as changing a draft needs them.
struct AttachmentRef {
  int id = 0;
  std::string content_id;
  bool is_inline = false;
  int copied_from = 0;
};

std::vector<AttachmentRef> AttachmentsOf(Database& db, int message_id) {
  std::vector<AttachmentRef> rows;
  if (message_id <= 0) return rows;
  Statement select(db,
                   "SELECT id, content_id, is_inline, copied_from FROM attachment "
                   "WHERE message_id = ?1 "
                   "ORDER BY id");
  select.Bind(1, message_id);
  while (select.Step()) {
    rows.push_back({select.Int(0), select.Text(1), select.Int(2) != 0, select.Int(3)});
  }
  return rows;
}

const AttachmentRef* FindAttachment(const std::vector<AttachmentRef>& rows, int id) {
  for (const AttachmentRef& row : rows) {
    if (row.id == id) return &row;
  }
  return nullptr;
}

// The content ids by attachment id of the images that a draft's HTML may
// show by download URL: every attachment of the draft with a content id,
// and the inline images of the message it refers to.
std::map<int, std::string> ShowableImages(Database& db, int draft_id, int reply_to) {
  std::map<int, std::string> images;
  for (const AttachmentRef& row : AttachmentsOf(db, draft_id)) {
    if (!row.content_id.empty()) images.emplace(row.id, row.content_id);
  }
  for (const AttachmentRef& row : AttachmentsOf(db, reply_to)) {
    if (row.is_inline && !row.content_id.empty()) images.emplace(row.id, row.content_id);
  }
  return images;
}

bool ShowsImage(const std::string& html, const std::string& content_id) {
  return !content_id.empty() && html.find("cid:" + content_id) != std::string::npos;
}

void DeleteAttachment(Database& db, int id) {
  Statement remove(db, "DELETE FROM attachment WHERE id = ?1");
  remove.Bind(1, id);
  remove.Run();
}

// Copies attachment `source` (of any message) to draft `draft_id`, content
// included; its size is that of the content copied.
void CopyAttachment(Database& db, int draft_id, int source) {
  Statement copy(db,
                 "INSERT INTO attachment(message_id, name, mimetype, size, content_id, is_inline,"
                 " copied_from) SELECT ?1, name, mimetype, size, content_id, is_inline, id"
                 " FROM attachment WHERE id = ?2");
  copy.Bind(1, draft_id).Bind(2, source);
  copy.Run();
  if (db.Changes() == 0) throw Error(kErrorNotFound);
  const int64_t id = db.LastInsertRowid();
  CopyAttachmentContent(db, source, id);
  Statement size(db,
                 "UPDATE attachment SET size = (SELECT length(content) FROM attachment_content"
                 " WHERE attachment_id = ?1) WHERE id = ?1");
  size.Bind(1, id);
  size.Run();
}

// Takes temporary attachment `temp_id` over as an attachment of draft
// `draft_id`; returns the file to remove once the change is committed.
// Throws ornic::Error(kErrorNotFound) when the record or its file is
// missing, kErrorStorage when the file cannot be read.
std::string TakeTemp(Database& db, int draft_id, int temp_id) {
  Statement temp(db,
                 "SELECT path, name, mimetype, content_id, is_inline FROM attachment_temp "
                 "WHERE id = ?1");
  temp.Bind(1, temp_id);
  if (!temp.Step()) throw Error(kErrorNotFound);
  std::string path = temp.Text(0);
  struct stat info;
  if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    LogError("draft", __LINE__,
             "temporary attachment " + std::to_string(temp_id) + " has no file " + path);
    throw Error(kErrorNotFound);
  }
  int64_t size = static_cast<int64_t>(info.st_size);
  Statement insert(db,
                   "INSERT INTO attachment(message_id, name, mimetype, size, content_id, "
                   "is_inline) VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
  insert.Bind(1, draft_id).Bind(2, SafeAttachmentName(temp.Text(1))).Bind(3, temp.Text(2));
  insert.Bind(4, size).Bind(5, temp.Text(3)).Bind(6, temp.Int(4) != 0);
  insert.Run();
  if (!StoreAttachmentFile(db, db.LastInsertRowid(), path, size)) {
    LogError("draft", __LINE__, "cannot read temporary attachment " + path);
    throw Error(kErrorStorage);
  }
  Statement remove(db, "DELETE FROM attachment_temp WHERE id = ?1");
  remove.Bind(1, temp_id);
  remove.Run();
  return path;
}

// Brings the draft's attachments in line with `config`; the draft's HTML
// is `html` (as it will be stored) and `body_changed` tells whether the
// request gave it. Returns the temporary files to remove after the commit.
std::vector<std::string> ApplyAttachments(Database& db, int draft_id, int reply_to,
                                          const control::MessageConfig& config,
                                          const std::string& html, bool body_changed) {
  std::vector<AttachmentRef> own = AttachmentsOf(db, draft_id);
  std::vector<AttachmentRef> referred = AttachmentsOf(db, reply_to);
  std::set<std::string> own_images;
  if (config.attachment.IsSet()) {
    std::vector<int> listed;
    for (int id : config.attachment.Get()) {
      if (FindAttachment(own, id) == nullptr && FindAttachment(referred, id) == nullptr) {
        throw Error(kErrorNotFound);
      }
      // An original that the draft already holds a copy of names the copy.
      if (FindAttachment(referred, id) != nullptr) {
        for (const AttachmentRef& row : own) {
          if (row.copied_from == id) {
            id = row.id;
            break;
          }
        }
      }
      listed.push_back(id);
    }
    listed = Distinct(listed);
    for (const AttachmentRef& row : own) {
      bool named = std::find(listed.begin(), listed.end(), row.id) != listed.end();
      if (!named && !row.is_inline) DeleteAttachment(db, row.id);
    }
    for (int id : listed) {
      if (FindAttachment(own, id) == nullptr) CopyAttachment(db, draft_id, id);
    }
  }
  if (body_changed) {
    for (const AttachmentRef& row : own) {
      if (row.is_inline && !ShowsImage(html, row.content_id)) DeleteAttachment(db, row.id);
    }
    for (const AttachmentRef& row : AttachmentsOf(db, draft_id)) own_images.insert(row.content_id);
    for (const AttachmentRef& row : referred) {
      if (row.is_inline && ShowsImage(html, row.content_id) && !own_images.count(row.content_id)) {
        CopyAttachment(db, draft_id, row.id);
        own_images.insert(row.content_id);
      }
    }
  }
  std::vector<std::string> used_files;
  if (config.temp_attachment.IsSet()) {
    for (int temp_id : Distinct(config.temp_attachment.Get())) {
      used_files.push_back(TakeTemp(db, draft_id, temp_id));
    }
  }
  return used_files;
}

// Size and attachment flag follow the stored parts.
void UpdateSize(Database& db, int draft_id) {
  Statement update(db,
                   "UPDATE message SET"
                   " size = ifnull((SELECT length(CAST(plain AS BLOB)) + length(CAST(html AS BLOB))"
                   "  FROM message_body WHERE message_id = ?1), 0)"
                   "  + ifnull((SELECT sum(size) FROM attachment WHERE message_id = ?1), 0),"
                   " has_attachment = EXISTS (SELECT 1 FROM attachment WHERE message_id = ?1"
                   "  AND is_inline = 0) WHERE id = ?1");
  update.Bind(1, draft_id);
  update.Run();
}

void WriteBody(Database& db, int draft_id, const std::string& html, const std::string& plain) {
  Statement body(db,
                 "INSERT INTO message_body(message_id, plain, html) VALUES (?1, ?2, ?3) "
                 "ON CONFLICT(message_id) DO UPDATE SET plain = excluded.plain, "
                 "html = excluded.html, search_text = NULL");
  body.Bind(1, draft_id).Bind(2, plain).Bind(3, html);
  body.Run();
}

void RemoveFiles(const std::vector<std::string>& files) {
  for (const std::string& file : files) {
    if (unlink(file.c_str()) != 0) {
      LogError("draft", __LINE__, "cannot remove the used temporary attachment " + file);
    }
  }
}

bool IsDraft(Database& db, int id, int* thread_id) {
  Statement row(db, "SELECT thread_id FROM message WHERE id = ?1 AND type = 1");
  row.Bind(1, id);
  if (!row.Step()) return false;
  if (thread_id != nullptr) *thread_id = row.Int(0);
  return true;
}

// Runs `body` (which returns true) so that kErrorNotFound becomes false: the
// refusals of a change that reports them by its result.
template <typename Body>
bool FalseWhenNotFound(Body&& body) {
  try {
    return body();
  } catch (const Error& e) {
    if (e.ErrorCode() != kErrorNotFound) throw;
    return false;
  }
}

}  // namespace

bool LoadDraft(control::Controller& controller, int id, Draft* draft) {
  Database& db = controller.impl().db();
  return Guard("reading draft " + std::to_string(id), [&] {
    ReadTransaction read(db);
    Statement row(db,
                  "SELECT m.thread_id, m.reply_to, m.from_text, m.to_text, m.cc_text, m.bcc_text,"
                  " m.subject, m.in_reply_to, m.refs, ifnull(b.html, ''), ifnull(b.plain, '')"
                  " FROM message m LEFT JOIN message_body b ON b.message_id = m.id"
                  " WHERE m.id = ?1 AND m.type = 1");
    row.Bind(1, id);
    if (!row.Step()) return false;
    *draft = Draft();
    draft->id = id;
    draft->thread_id = row.Int(0);
    draft->reply_to = row.Int(1);
    draft->from = row.Text(2);
    draft->to = DecodeStringArray(row.Text(3));
    draft->cc = DecodeStringArray(row.Text(4));
    draft->bcc = DecodeStringArray(row.Text(5));
    draft->subject = row.Text(6);
    draft->in_reply_to = row.Text(7);
    draft->references = DecodeStringArray(row.Text(8));
    draft->html_body = row.Text(9);
    draft->plain_body = row.Text(10);
    Statement attachments(db,
                          "SELECT id, name, mimetype, content_id, is_inline, size FROM attachment "
                          "WHERE message_id = ?1 ORDER BY id");
    attachments.Bind(1, id);
    while (attachments.Step()) {
      DraftAttachment attachment;
      attachment.id = attachments.Int(0);
      attachment.name = attachments.Text(1);
      attachment.mimetype = attachments.Text(2);
      attachment.content_id = attachments.Text(3);
      attachment.is_inline = attachments.Int(4) != 0;
      attachment.size = attachments.Int64(5);
      draft->attachments.push_back(std::move(attachment));
    }
    return true;
  });
}

namespace {

void CheckDraftOwns(Database& db, int draft_id, int attachment_id) {
  Statement owner(db,
                  "SELECT 1 FROM attachment a JOIN message m ON m.id = a.message_id "
                  "WHERE a.id = ?1 AND m.id = ?2 AND m.type = 1");
  owner.Bind(1, attachment_id).Bind(2, draft_id);
  if (!owner.Step()) throw Error(kErrorNotFound);
}

}  // namespace

std::string ReadDraftAttachment(control::Controller& controller, int draft_id, int attachment_id) {
  Database& db = controller.impl().db();
  return Guard("reading an attachment of draft " + std::to_string(draft_id), [&] {
    ReadTransaction read(db);
    CheckDraftOwns(db, draft_id, attachment_id);
    return AttachmentContent(db, attachment_id);
  });
}

void WriteDraftAttachment(control::Controller& controller, int draft_id, int attachment_id,
                          int fd) {
  Database& db = controller.impl().db();
  Guard("writing out an attachment of draft " + std::to_string(draft_id), [&] {
    ReadTransaction read(db);
    CheckDraftOwns(db, draft_id, attachment_id);
    WriteAttachmentContent(db, attachment_id, fd);
  });
}

int StoreSentCopy(control::Controller& controller, int draft_id, const NewMessage& sent) {
  Database& db = controller.impl().db();
  return Guard("keeping the sent copy of draft " + std::to_string(draft_id), [&] {
    Transaction transaction(db);
    int thread_id = 0;
    if (!IsDraft(db, draft_id, &thread_id)) throw Error(kErrorNotFound);
    int64_t now = Now();
    int64_t arrival = sent.arrival_time > 0 ? sent.arrival_time : now;

    bool plain_is_text = sent.plain_body.find_first_not_of(" \t\r\n") != std::string::npos;
    std::string search_text;
    if (!plain_is_text && !sent.html_body.empty()) search_text = mime::HtmlToText(sent.html_body);
    const std::string& text = plain_is_text ? sent.plain_body : search_text;
    bool has_attachment = std::any_of(sent.attachments.begin(), sent.attachments.end(),
                                      [](const NewAttachment& a) { return !a.is_inline; });
    int64_t size = SourceSize(sent);

    Statement message(db,
                      "INSERT INTO message(mailbox_id, thread_id, type, is_read, star, size, "
                      "arrival_time, last_modified, subject, from_text, to_text, cc_text, "
                      "bcc_text, rfc_message_id, in_reply_to, refs, body_preview, reply_to, "
                      "has_attachment) SELECT ?1, ?2, 0, 1, 0, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, "
                      "?11, ?12, ?13, ?14, reply_to, ?15 FROM message WHERE id = ?16");
    message.Bind(1, kSentId).Bind(2, thread_id).Bind(3, size).Bind(4, arrival).Bind(5, now);
    message.Bind(6, sent.subject).Bind(7, sent.from).Bind(8, EncodeStringArray(sent.to));
    message.Bind(9, EncodeStringArray(sent.cc)).Bind(10, EncodeStringArray(sent.bcc));
    message.Bind(11, sent.rfc_message_id).Bind(12, sent.in_reply_to);
    message.Bind(13, EncodeStringArray(sent.references));
    message.Bind(14, sent.body_preview.empty() ? Preview(text, kPreviewLength) : sent.body_preview);
    message.Bind(15, has_attachment).Bind(16, draft_id);
    message.Run();
    int id = static_cast<int>(db.LastInsertRowid());

    Statement body(db,
                   "INSERT INTO message_body(message_id, plain, html, search_text) "
                   "VALUES (?1, ?2, ?3, ?4)");
    body.Bind(1, id).Bind(2, sent.plain_body).Bind(3, sent.html_body);
    if (plain_is_text || sent.html_body.empty()) {
      body.BindNull(4);
    } else {
      body.Bind(4, search_text);
    }
    body.Run();
    StoreSource(db, id, sent);
    Statement attachment(db,
                         "INSERT INTO attachment(message_id, name, mimetype, size, content_id, "
                         "is_inline, part_path, content_offset, content_length, content_encoding) "
                         "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10)");
    for (const NewAttachment& part : sent.attachments) {
      attachment.Bind(1, id).Bind(2, SafeAttachmentName(part.name)).Bind(3, part.mimetype);
      attachment.Bind(4, part.size).Bind(5, part.content_id).Bind(6, part.is_inline);
      attachment.Bind(7, part.part_path);
      BindContentRange(attachment, 8, part);
      attachment.Run();
      attachment.Reset();
    }
    WriteReferences(db, id, ReferenceKeys(sent.in_reply_to, sent.references, sent.rfc_message_id));
    SetIndexed(db, id, true);
    // The copy is in the thread before the draft leaves it: a thread whose
    // last message goes is deleted.
    Statement remove(db, "DELETE FROM message WHERE id = ?1");
    remove.Bind(1, draft_id);
    remove.Run();
    TouchThread(db, thread_id, now);
    transaction.Commit();
    return id;
  });
}

}  // namespace ornic::larkpost::store

namespace ornic::larkpost::control {

using store::Database;
using store::Statement;

int MessageControl::CreateDraft(const MessageConfig& config) {
  Database& db = controller_.impl().db();
  std::vector<std::string> used_files;
  int id = store::Guard("creating a draft", [&] {
    store::Transaction transaction(db);
    int64_t now = store::Now();
    store::DraftRow draft;
    if (config.from.IsSet()) draft.from = config.from.Get();
    if (config.to.IsSet()) draft.to = config.to.Get();
    if (config.cc.IsSet()) draft.cc = config.cc.Get();
    if (config.bcc.IsSet()) draft.bcc = config.bcc.Get();
    if (config.subject.IsSet()) draft.subject = config.subject.Get();
    if (config.draft_type.IsSet()) draft.draft_type = config.draft_type.Get();

    store::Referred referred;
    if (config.refer_to.IsSet() && config.refer_to.Get() != 0) {
      if (!store::LoadReferred(db, config.refer_to.Get(), &referred)) {
        throw Error(kErrorNotFound);
      }
      draft.reply_to = referred.id;
    }
    if (config.body.IsSet()) {
      draft.html = store::RestoreInlineImages(config.body.Get(),
                                              store::ShowableImages(db, 0, draft.reply_to));
    }
    bool answers = referred.id != 0 &&
                   (draft.draft_type == store::kReply || draft.draft_type == store::kReplyAll);
    int thread_id = 0;
    if (answers) {
      thread_id = referred.thread_id;
      draft.in_reply_to = referred.rfc_message_id;
      draft.references = store::AnswerReferences(referred);
      store::TouchThread(db, thread_id, now);
    } else {
      thread_id = store::NewThread(db, draft.subject, now);
    }
    std::string plain = mime::HtmlToText(draft.html);

    Statement message(db,
                      "INSERT INTO message(mailbox_id, thread_id, type, is_read, arrival_time, "
                      "last_modified, subject, from_text, to_text, cc_text, bcc_text, "
                      "in_reply_to, refs, body_preview, reply_to, draft_type) VALUES "
                      "(?1, ?2, 1, 1, ?3, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13)");
    message.Bind(1, store::kDraftsId).Bind(2, thread_id).Bind(3, now).Bind(4, draft.subject);
    message.Bind(5, draft.from).Bind(6, store::EncodeStringArray(draft.to));
    message.Bind(7, store::EncodeStringArray(draft.cc));
    message.Bind(8, store::EncodeStringArray(draft.bcc)).Bind(9, draft.in_reply_to);
    message.Bind(10, store::EncodeStringArray(draft.references));
    message.Bind(11, store::Preview(plain, store::kPreviewLength)).Bind(12, draft.reply_to);
    message.Bind(13, draft.draft_type);
    message.Run();
    int draft_id = static_cast<int>(db.LastInsertRowid());
    store::WriteBody(db, draft_id, draft.html, plain);
    used_files = store::ApplyAttachments(db, draft_id, draft.reply_to, config, draft.html,
                                         config.body.IsSet());
    store::UpdateSize(db, draft_id);
    store::WriteReferences(db, draft_id,
                           store::ReferenceKeys(draft.in_reply_to, draft.references, ""));
    store::SetIndexed(db, draft_id, true);
    transaction.Commit();
    return draft_id;
  });
  store::RemoveFiles(used_files);
  return id;
}

bool MessageControl::ModifyDraft(int id, const MessageConfig& config) {
  Database& db = controller_.impl().db();
  std::vector<std::string> used_files;
  bool changed = store::FalseWhenNotFound([&] {
    return store::Guard("changing draft " + std::to_string(id), [&] {
      store::Transaction transaction(db);
      int thread_id = 0;
      if (!store::IsDraft(db, id, &thread_id)) return false;
      int64_t now = store::Now();
      Statement current(db,
                        "SELECT m.reply_to, ifnull(b.html, ''), m.subject FROM message m "
                        "LEFT JOIN message_body b ON b.message_id = m.id WHERE m.id = ?1");
      current.Bind(1, id);
      current.Step();
      int reply_to = current.Int(0);
      std::string html = config.body.IsSet()
                             ? store::RestoreInlineImages(config.body.Get(),
                                                          store::ShowableImages(db, id, reply_to))
                             : current.Text(1);
      std::string old_subject = current.Text(2);

      store::SetIndexed(db, id, false);
      // One statement for every field: a field that is not set keeps its
      // value (?N IS NULL).
      Statement update(db,
                       "UPDATE message SET"
                       " from_text = ifnull(?2, from_text), to_text = ifnull(?3, to_text),"
                       " cc_text = ifnull(?4, cc_text), bcc_text = ifnull(?5, bcc_text),"
                       " subject = ifnull(?6, subject), draft_type = ifnull(?7, draft_type),"
                       " arrival_time = ?8, last_modified = ?8 WHERE id = ?1");
      update.Bind(1, id).Bind(8, now);
      auto bind_text = [&](int index, const ConfigField<std::string>& field) {
        if (field.IsSet()) update.Bind(index, field.Get());
      };
      auto bind_list = [&](int index, const ConfigField<std::vector<std::string>>& field) {
        if (field.IsSet()) update.Bind(index, store::EncodeStringArray(field.Get()));
      };
      bind_text(2, config.from);
      bind_list(3, config.to);
      bind_list(4, config.cc);
      bind_list(5, config.bcc);
      bind_text(6, config.subject);
      if (config.draft_type.IsSet()) update.Bind(7, config.draft_type.Get());
      update.Run();
      if (config.body.IsSet()) {
        std::string plain = mime::HtmlToText(html);
        store::WriteBody(db, id, html, plain);
        Statement preview(db, "UPDATE message SET body_preview = ?2 WHERE id = ?1");
        preview.Bind(1, id).Bind(2, store::Preview(plain, store::kPreviewLength));
        preview.Run();
      }
      used_files = store::ApplyAttachments(db, id, reply_to, config, html, config.body.IsSet());
      store::UpdateSize(db, id);
      // A thread of the draft alone follows its subject.
      if (config.subject.IsSet() && config.subject.Get() != old_subject) {
        Statement key(db, "UPDATE thread SET subject_key = ?2 WHERE id = ?1 AND message_count = 1");
        key.Bind(1, thread_id).Bind(2, store::SubjectKey(config.subject.Get()));
        key.Run();
      }
      store::TouchThread(db, thread_id, now);
      store::SetIndexed(db, id, true);
      transaction.Commit();
      return true;
    });
  });
  if (changed) store::RemoveFiles(used_files);
  return changed;
}

bool MessageControl::DeleteDraft(const std::vector<int>& ids) {
  Database& db = controller_.impl().db();
  return store::Guard("deleting drafts", [&] {
    store::Transaction transaction(db);
    std::vector<int> distinct = store::Distinct(ids);
    for (int id : distinct) {
      if (!store::IsDraft(db, id, nullptr)) return false;
    }
    std::string list = store::EncodeIdArray(distinct);
    Statement touch(
        db,
        "UPDATE thread SET last_modified = ?2 WHERE id IN "
        "(SELECT thread_id FROM message WHERE id IN (SELECT value FROM json_each(?1)))");
    touch.Bind(1, list).Bind(2, store::Now());
    touch.Run();
    Statement remove(db, "DELETE FROM message WHERE id IN (SELECT value FROM json_each(?1))");
    remove.Bind(1, list);
    remove.Run();
    transaction.Commit();
    return true;
  });
}

}  // namespace ornic::larkpost::control
