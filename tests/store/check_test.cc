#include "appliance/mailcore/store_check.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>
#include <vector>

#include "appliance/mailcore/store_records.h"
#include "appliance/mailcore/store_schema.h"
#include "tests/store/store_fixture.h"

namespace ornic::larkpost::testing {
namespace {

// A received message whose attachment (bytes 00 01 02 03 ff) lies base64 in
// its source.
const char kReceived[] =
    "From: Ann <ann@example.org>\r\nSubject: Re: Report\r\nMIME-Version: 1.0\r\n"
    "Content-Type: multipart/mixed; boundary=\"b\"\r\n\r\n"
    "--b\r\nContent-Type: text/plain\r\n\r\nSee attached.\r\n"
    "--b\r\nContent-Type: application/octet-stream; name=\"data.bin\"\r\n"
    "Content-Transfer-Encoding: base64\r\n\r\nAAECA/8=\r\n--b--\r\n";

// A store with something of everything the check looks at: message 1
// (unread, starred) and its reply 2 (with a ranged attachment, 1, and a
// preview) in thread 1 with label 1; draft 3 in thread 2 with its own
// content (attachment 2); a filter; upload 2 waiting in the upload folder.
class CheckTest : public StoreTest {
 protected:
  CheckTest() {
    Mail first;
    first.subject = "Report";
    first.message_id = "r1@example.org";
    first.star = 1;
    Add(first);
    Mail reply;
    reply.message_id = "r2@example.org";
    reply.in_reply_to = "r1@example.org";
    reply.read = true;
    reply.raw = kReceived;
    reply.attachments = {Part("data.bin", "application/octet-stream", "", false, 5, "2")};
    reply.attachments[0].content_offset = static_cast<int64_t>(Raw().find("AAECA/8="));
    reply.attachments[0].content_length = 8;
    reply.attachments[0].content_encoding = "base64";
    Add(reply);
    db().Exec("INSERT INTO thread_label VALUES (1, " + std::to_string(CreateLabel("Work")) + ")");

    control::MessageConfig draft;
    draft.to.Set({"bob@example.org"});
    draft.subject.Set("Plans");
    draft.body.Set("<p>Hello</p>");
    draft.temp_attachment.Set({Upload("a.txt", "alpha")});
    control::MessageControl(controller()).CreateDraft(draft);

    record::ActionSet actions;
    record::Action drop;
    drop.kind = constant::kActionDelete;
    actions.AddAction(drop);
    control::FilterConfig filter;
    filter.condition.Set(record::ConditionSet());
    filter.action.Set(actions);
    control::FilterControl(controller()).Create(filter);

    Write(kUploadDir + "/attachment_waiting", 10);
    control::AttachmentConfig upload;
    upload.name.Set("waiting.txt");
    upload.path.Set(AppDir() + kUploadDir + "/attachment_waiting");
    std::string content_id;
    control::AttachmentControl(controller()).AddAttachmentTemp(upload, content_id);

    Write(kPreviewDir + "/kept.jpg", 3600);
    control::AttachmentControl(controller())
        .SetPreviewPath(1, AppDir() + kPreviewDir + "/kept.jpg");
  }

  static std::string Raw() { return kReceived; }
  std::string AppDir() { return ::larkpost::appliance::UserDir(uid_); }

  // A file below the user's folder, last changed `age` seconds before the
  // store's clock.
  void Write(const std::string& relative, int64_t age) {
    const std::string path = AppDir() + relative;
    ::larkpost::appliance::MakeDirs(path.substr(0, path.rfind('/')));
    std::ofstream(path) << "x";
    const timespec times[2] = {{clock_.now() - age, 0}, {clock_.now() - age, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
  }

  // The findings with `damage` applied, which is then undone.
  Texts Damaged(const std::string& damage) {
    db().Exec("BEGIN");
    db().Exec(damage);
    Texts findings = store::CheckStore(db(), uid_);
    db().Exec("ROLLBACK");
    return findings;
  }

  const std::string kUploadDir = "/.ORNIC/@tmp", kPreviewDir = "/.ORNIC/@image";
};

TEST_F(CheckTest, ASoundStoreHasNoFindings) {
  EXPECT_EQ(store::CheckStore(db(), uid_), Texts());
  EXPECT_EQ(store::CheckStore(uid_), Texts());
}

TEST_F(CheckTest, EachDamageIsNamed) {
  const std::string range = std::to_string(Raw().find("AAECA/8="));
  const std::string source = std::to_string(Raw().size());
  const struct {
    const char* damage;
    Texts findings;
  } cases[] = {
      {"PRAGMA user_version = 3",
       {"schema: version 3, expected " + std::to_string(store::NewestSchemaVersion())}},
      // Counters and totals.
      {"UPDATE mailbox SET message_count = 9 WHERE id = 1",
       {"mailbox 1: message_count is 9, recomputed 2"}},
      {"UPDATE mailbox SET unread_count = 0, thread_count = 0 WHERE id = 7",
       {"mailbox 7: unread_count is 0, recomputed 1",
        "mailbox 7: thread_count is 0, recomputed 1"}},
      // The label's count follows the thread's by trigger: both are wrong.
      {"UPDATE thread SET unread_count = 0 WHERE id = 1",
       {"thread 1: unread_count is 0, recomputed 1", "label 1: unread_count is 0, recomputed 1"}},
      {"UPDATE thread SET last_arrival = 5 WHERE id = 1",
       {"thread 1: last_arrival is 5, recomputed 1700000000"}},
      {"UPDATE store_count SET value = 7", {"store: thread total is 7, recomputed 2"}},
      // Thread lists.
      {"DELETE FROM mailbox_thread WHERE mailbox_id = 1",
       {"mailbox 1: thread 1 is missing from its thread list"}},
      {"INSERT INTO mailbox_thread VALUES (4, 1, 0)",
       {"mailbox 4: thread 1 is listed without a message there"}},
      {"UPDATE mailbox_thread SET latest_arrival = 1 WHERE mailbox_id = 7",
       {"mailbox 7: thread 1 latest_arrival is 1, recomputed 1700000000"}},
      // Messages.
      {"UPDATE message SET mailbox_id = 7 WHERE id = 2",
       {"message 2 is in the virtual starred mailbox"}},
      {"DROP TRIGGER message_body_indexed_delete; DELETE FROM message_body WHERE message_id = 1",
       {"message 1 has no body", "message 1: its full-text entry differs from its text"}},
      {"DELETE FROM message_source WHERE message_id = 1; UPDATE message SET size = 12 WHERE id = 1",
       {"message 1 has no source"}},
      {"UPDATE message SET size = 1 WHERE id = 1", {"message 1: size is 1, recomputed 31"}},
      {"UPDATE message SET has_attachment = 0 WHERE id = 2",
       {"message 2: has_attachment is 0, recomputed 1"}},
      {"PRAGMA defer_foreign_keys = ON; UPDATE message SET thread_id = 9 WHERE id = 3",
       {"foreign key: message row 3 names a missing thread"}},
      // The full-text index.
      {"UPDATE message SET indexed = 0 WHERE id = 1", {"message 1 is not in the full-text index"}},
      {"DROP TRIGGER message_indexed_text; UPDATE message SET subject = 'Changed' WHERE id = 1",
       {"message 1: its full-text entry differs from its text"}},
      {"DROP TRIGGER message_delete_unindex; DELETE FROM message WHERE id = 1",
       {"full-text index: entry 1 belongs to no indexed message"}},
      // Threads, labels, mailboxes.
      {"INSERT INTO thread(id) VALUES (50)", {"thread 50 has no message"}},
      {"UPDATE label SET key = '$label9'", {"label 1: key is '$label9', expected '$label1'"}},
      {"UPDATE mailbox SET parent_id = 4 WHERE id = 4",
       {"mailbox 4 does not lead up to the top level"}},
      {"PRAGMA defer_foreign_keys = ON; INSERT INTO thread_label VALUES (1, 9)",
       {"foreign key: thread_label names a missing label"}},
      // Attachments, drafts' contents, uploads, filters.
      {"DELETE FROM attachment_content", {"attachment 2 of draft 3 has no content"}},
      {"UPDATE attachment_content SET content = x'00'",
       {"attachment 2: size is 5, content holds 1"}},
      {"PRAGMA defer_foreign_keys = ON; INSERT INTO attachment_content VALUES (9, x'00')",
       {"foreign key: attachment_content row 9 names a missing attachment"}},
      {"UPDATE attachment SET content_length = 1000 WHERE id = 1",
       {"attachment 1: content range " + range + "+1000 lies outside the source of message 2 (" +
        source + " bytes)"}},
      {"UPDATE attachment SET content_encoding = 'rot13' WHERE id = 1",
       {"attachment 1: content_encoding 'rot13' is unknown"}},
      {"UPDATE attachment SET content_offset = NULL, part_path = '' WHERE id = 1",
       {"attachment 1 has neither content nor a source part"}},
      {"UPDATE attachment_temp SET path = path || '.gone'",
       {"temporary attachment 2: its file is missing"}},
      {"INSERT INTO mail_filter(position, condition_set, action_set) VALUES (5, '{', 'x')",
       {"filter 2: condition_set does not parse", "filter 2: action_set does not parse"}},
  };
  for (const auto& c : cases) EXPECT_EQ(Damaged(c.damage), c.findings) << c.damage;
}

TEST_F(CheckTest, FilesNoRecordRefersToCountOnceTheUploadGraceIsOver) {
  Write(kUploadDir + "/attachment_left", 3600);
  Write(kUploadDir + "/20240101-1", 3600);  // a download's work folder, left behind
  Write(kUploadDir + "/attachment_fresh", 60);
  Write(kPreviewDir + "/old.jpg", store::kStrayCopyGrace + 1);
  Write(kPreviewDir + "/new.jpg", store::kStrayCopyGrace - 60);
  EXPECT_EQ(store::CheckStore(db(), uid_),
            (Texts{".ORNIC/@tmp/20240101-1: no record refers to it",
                   ".ORNIC/@tmp/attachment_left: no record refers to it",
                   ".ORNIC/@image/old.jpg: no record refers to it"}));
}

}  // namespace
}  // namespace ornic::larkpost::testing
