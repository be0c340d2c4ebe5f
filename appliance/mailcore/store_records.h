// What the store's operations share: the built-in mailbox ids, the clock,
// read snapshots, id lists as statement parameters, and the readers that
// turn rows into records. Private to the core.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "platform/mailcore/constant.h"
#include "platform/mailcore/record.h"

namespace ornic::larkpost::store {

constexpr int kInboxId = control::DefaultMailbox::id<constant::kInbox>();
constexpr int kDraftsId = control::DefaultMailbox::id<constant::kDrafts>();
constexpr int kJunkId = control::DefaultMailbox::id<constant::kJunk>();
constexpr int kTrashId = control::DefaultMailbox::id<constant::kTrash>();
constexpr int kStarredId = control::DefaultMailbox::id<constant::kStarred>();

// A message is in the virtual starred mailbox when this holds (for the
// message table under the name "m").
constexpr const char kStarredSql[] = "(m.star <> 0 AND m.mailbox_id NOT IN (5, 6))";
static_assert(kJunkId == 5 && kTrashId == 6, "kStarredSql names junk and trash by their ids");

// The appliance's clock, in Unix seconds.
int64_t Now();

// The user's application folders (below appliance::UserDir) where the
// webmail copies uploads before it registers them (attachment_temp.path)
// and keeps the previews it made (attachment.preview_path).
constexpr char kUploadFolder[] = "/.ORNIC/@tmp";
constexpr char kPreviewFolder[] = "/.ORNIC/@image";
// A file there is registered moments after it was written; one that nothing
// refers to after this long was left behind (a failed preview conversion
// leaves its content there, a refused registration its copy).
constexpr int64_t kStrayCopyGrace = 15 * 60;

// A read transaction (BEGIN DEFERRED): the statements of one read see one
// state of the store, and take no write lock. Ended on destruction.
class ReadTransaction {
 public:
  explicit ReadTransaction(Database& db);
  ~ReadTransaction();
  ReadTransaction(const ReadTransaction&) = delete;
  ReadTransaction& operator=(const ReadTransaction&) = delete;

 private:
  Database& db_;
};

// `ids` without repetitions, first occurrences in order.
std::vector<int> Distinct(const std::vector<int>& ids);

// True when every id of `ids` is a row of `table` ("thread", "label",
// "message"). `table` is one of the store's names, never user text.
bool AllExist(Database& db, const char* table, const std::vector<int>& ids);

// What the store knows of a mailbox.
struct MailboxRow {
  int id = 0;
  int parent_id = 0;
  std::string raw_path;
  int builtin = -1;  // constant::BuiltinMailbox, -1 for the user's own
  bool subscribed = true;
};

// False when there is no mailbox `id`.
bool LoadMailbox(Database& db, int id, MailboxRow* row);

// True when messages can be put in mailbox `id`: it exists and is not the
// virtual starred mailbox.
bool IsRealMailbox(Database& db, int id);

// A label from a row whose columns are id, name, key, text_color,
// background_color and, when `unread`, unread_count.
record::Label ReadLabel(Statement& row, bool unread);

// Reads messages and labels with statements prepared once per reader.
class RecordReader {
 public:
  explicit RecordReader(Database& db);

  // The messages of a thread, oldest first. Attachments: the listed ones
  // (not inline), as a thread list shows them.
  std::vector<record::Message> ThreadMessages(int thread_id);
  // The labels of a thread, by name; counts not loaded.
  std::vector<record::Label> ThreadLabels(int thread_id);
  // A whole message with every attachment and the inline image mapping;
  // false when there is none.
  bool FullMessage(int id, record::FullMessage* message);

 private:
  void FillMessage(Statement& row, record::Message* message);
  std::vector<record::Attachment> Attachments(int message_id, bool listed_only);

  Database& db_;
  Statement thread_messages_;
  Statement thread_labels_;
  Statement full_message_;
  Statement attachments_;
};

}  // namespace ornic::larkpost::store
