// The user's store is built by numbered migrations, applied in order; PRAGMA
// user_version holds the number of the newest one applied. To change the
// schema, append a migration: never edit one that has shipped, since stores
// that already ran it will not run it again.
#include "platform/mailcore/db_setup.h"

#include <sys/stat.h>

#include <exception>
#include <memory>
#include <string>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/store_schema.h"
#include "platform/mailcore/constant.h"
#include "platform/mailcore/zevo_user.h"

namespace ornic::larkpost::db {
namespace {

struct Migration {
  int version;
  const char* sql;
};

constexpr Migration kMigrations[] = {
    {1,
     // Mailboxes. raw_path is the name in IMAP modified UTF-7, unique among
     // the children of one parent (NULL parent: the top level). builtin is
     // the constant::BuiltinMailbox of a built-in mailbox, NULL for the
     // user's own. The counters are kept up to date by the core so that
     // listing mailboxes does not count messages.
     "CREATE TABLE mailbox("
     " id INTEGER PRIMARY KEY AUTOINCREMENT,"
     " parent_id INTEGER REFERENCES mailbox(id),"
     " raw_path TEXT NOT NULL CHECK (raw_path <> ''),"
     " builtin INTEGER CHECK (builtin BETWEEN 0 AND 6),"
     " subscribed INTEGER NOT NULL DEFAULT 1,"
     " message_count INTEGER NOT NULL DEFAULT 0,"
     " unread_count INTEGER NOT NULL DEFAULT 0,"
     " draft_count INTEGER NOT NULL DEFAULT 0,"
     " last_modified INTEGER NOT NULL DEFAULT 0);"
     "CREATE UNIQUE INDEX mailbox_sibling_path ON mailbox(ifnull(parent_id, 0), raw_path);"
     "CREATE UNIQUE INDEX mailbox_builtin ON mailbox(builtin) WHERE builtin IS NOT NULL;"
     // The built-in mailboxes have the fixed ids 1 to 7; the ones users
     // create are numbered after them, and an id is never used twice.
     "INSERT INTO sqlite_sequence(name, seq) VALUES ('mailbox', 7);"
     // Messages, as far as mailbox counters need them. type 1 is a draft.
     "CREATE TABLE message("
     " id INTEGER PRIMARY KEY,"
     " mailbox_id INTEGER NOT NULL REFERENCES mailbox(id),"
     " thread_id INTEGER,"
     " type INTEGER NOT NULL DEFAULT 0,"
     " is_read INTEGER NOT NULL DEFAULT 0,"
     " star INTEGER NOT NULL DEFAULT 0,"
     " size INTEGER NOT NULL DEFAULT 0,"
     " arrival_time INTEGER NOT NULL DEFAULT 0,"
     " last_modified INTEGER NOT NULL DEFAULT 0);"
     "CREATE INDEX message_mailbox ON message(mailbox_id, is_read, type);"
     "CREATE INDEX message_starred ON message(mailbox_id) WHERE star <> 0;"
     "CREATE INDEX message_thread ON message(thread_id);"},
    {2,
     // The full store. What list queries read stays in message; bodies,
     // sources and attachments live apart, so that a page of a list reads
     // small rows. Derived data (counters, the thread-in-mailbox table, the
     // full-text index) is kept by the triggers below, so that every writer
     // of the store keeps it right, not only the operations of this core.
     // Ids 5, 6 and 7 are the built-in junk, trash and starred mailboxes
     // (static_assert below): the virtual starred mailbox "holds" every
     // starred message outside junk and trash.
     //
     // Threads. subject_key: the normalised subject that a message without
     // a known parent may join by; last_arrival: the newest arrival of its
     // messages (the order of the unfiltered thread list); unread_count
     // counts unread messages that are not drafts. A thread whose last
     // message goes is deleted with it.
     "CREATE TABLE thread("
     " id INTEGER PRIMARY KEY AUTOINCREMENT,"
     " subject_key TEXT NOT NULL DEFAULT '',"
     " message_count INTEGER NOT NULL DEFAULT 0,"
     " unread_count INTEGER NOT NULL DEFAULT 0,"
     " last_arrival INTEGER NOT NULL DEFAULT 0,"
     " last_modified INTEGER NOT NULL DEFAULT 0);"
     "CREATE INDEX thread_order ON thread(last_arrival DESC, id DESC);"
     "CREATE INDEX thread_subject ON thread(subject_key, last_arrival) WHERE subject_key <> '';"
     // Messages of the first schema keep their thread ids; one without a
     // thread gets a thread of its own.
     "INSERT INTO thread(id) SELECT DISTINCT thread_id FROM message WHERE thread_id > 0;"
     "UPDATE message SET thread_id = (SELECT ifnull(max(id), 0) FROM thread) + id"
     " WHERE thread_id IS NULL OR thread_id <= 0;"
     "INSERT INTO thread(id) SELECT DISTINCT thread_id FROM message"
     " WHERE thread_id NOT IN (SELECT id FROM thread);"
     // to_text, cc_text, bcc_text, refs: JSON arrays of strings. indexed:
     // whether the message has its full-text entry (see message_fts).
     "CREATE TABLE message_v2("
     " id INTEGER PRIMARY KEY AUTOINCREMENT,"
     " mailbox_id INTEGER NOT NULL REFERENCES mailbox(id),"
     " thread_id INTEGER NOT NULL REFERENCES thread(id),"
     " type INTEGER NOT NULL DEFAULT 0,"
     " is_read INTEGER NOT NULL DEFAULT 0,"
     " star INTEGER NOT NULL DEFAULT 0,"
     " size INTEGER NOT NULL DEFAULT 0,"
     " arrival_time INTEGER NOT NULL DEFAULT 0,"
     " last_modified INTEGER NOT NULL DEFAULT 0,"
     " subject TEXT NOT NULL DEFAULT '',"
     " from_text TEXT NOT NULL DEFAULT '',"
     " to_text TEXT NOT NULL DEFAULT '[]',"
     " cc_text TEXT NOT NULL DEFAULT '[]',"
     " bcc_text TEXT NOT NULL DEFAULT '[]',"
     " rfc_message_id TEXT NOT NULL DEFAULT '',"
     " in_reply_to TEXT NOT NULL DEFAULT '',"
     " refs TEXT NOT NULL DEFAULT '[]',"
     " body_preview TEXT NOT NULL DEFAULT '',"
     " reply_to INTEGER NOT NULL DEFAULT 0,"
     " has_attachment INTEGER NOT NULL DEFAULT 0,"
     " indexed INTEGER NOT NULL DEFAULT 0);"
     "INSERT INTO message_v2(id, mailbox_id, thread_id, type, is_read, star, size, arrival_time,"
     " last_modified) SELECT id, mailbox_id, thread_id, type, is_read, star, size, arrival_time,"
     " last_modified FROM message;"
     "DROP TABLE message;"
     "ALTER TABLE message_v2 RENAME TO message;"
     "CREATE INDEX message_mailbox ON message(mailbox_id, is_read, type);"
     "CREATE INDEX message_unread_draft ON message(mailbox_id) WHERE is_read = 0 AND type = 1;"
     "CREATE INDEX message_thread ON message(thread_id, mailbox_id, arrival_time);"
     "CREATE INDEX message_rfc_id ON message(rfc_message_id) WHERE rfc_message_id <> '';"
     // A narrow copy of what a search groups by, read for every message that
     // a full-text match yields: a twentieth of the pages of the rows.
     "CREATE INDEX message_place ON message(id, thread_id, arrival_time);"
     // Bodies; search_text is the text indexed for an HTML-only message
     // (NULL: the plain body is).
     "CREATE TABLE message_body("
     " message_id INTEGER PRIMARY KEY REFERENCES message(id) ON DELETE CASCADE,"
     " plain TEXT NOT NULL DEFAULT '',"
     " html TEXT NOT NULL DEFAULT '',"
     " search_text TEXT);"
     // The message as it arrived, byte for byte.
     "CREATE TABLE message_source("
     " message_id INTEGER PRIMARY KEY REFERENCES message(id) ON DELETE CASCADE,"
     " raw BLOB NOT NULL);"
     // content is NULL for received mail: the part is decoded from the
     // source (part_path) when it is asked for.
     "CREATE TABLE attachment("
     " id INTEGER PRIMARY KEY AUTOINCREMENT,"
     " message_id INTEGER NOT NULL REFERENCES message(id) ON DELETE CASCADE,"
     " name TEXT NOT NULL,"
     " mimetype TEXT NOT NULL DEFAULT 'application/octet-stream',"
     " size INTEGER NOT NULL DEFAULT 0,"
     " content_id TEXT NOT NULL DEFAULT '',"
     " is_inline INTEGER NOT NULL DEFAULT 0,"
     " part_path TEXT NOT NULL DEFAULT '',"
     " content BLOB);"
     "CREATE INDEX attachment_message ON attachment(message_id);"
     // Every Message-ID that a message names in In-Reply-To or References,
     // so that a parent arriving after its replies finds them.
     "CREATE TABLE message_reference("
     " ref TEXT NOT NULL,"
     " message_id INTEGER NOT NULL REFERENCES message(id) ON DELETE CASCADE,"
     " PRIMARY KEY (ref, message_id)) WITHOUT ROWID;"
     "CREATE INDEX message_reference_message ON message_reference(message_id);"
     // Labels. key ("$label" and the id) is made at creation and never
     // changes: filters store it. Ids are never used again, nor keys.
     // unread_count: unread messages (not drafts) of the threads with the
     // label.
     "CREATE TABLE label("
     " id INTEGER PRIMARY KEY AUTOINCREMENT,"
     " name TEXT NOT NULL CHECK (name <> ''),"
     " key TEXT NOT NULL UNIQUE,"
     " text_color TEXT NOT NULL,"
     " background_color TEXT NOT NULL,"
     " unread_count INTEGER NOT NULL DEFAULT 0,"
     " last_modified INTEGER NOT NULL DEFAULT 0);"
     "CREATE INDEX label_name ON label(name, id);"
     "CREATE TABLE thread_label("
     " thread_id INTEGER NOT NULL REFERENCES thread(id) ON DELETE CASCADE,"
     " label_id INTEGER NOT NULL REFERENCES label(id) ON DELETE CASCADE,"
     " PRIMARY KEY (thread_id, label_id)) WITHOUT ROWID;"
     "CREATE INDEX thread_label_label ON thread_label(label_id, thread_id);"
     // The threads that have a message in a mailbox, with the newest arrival
     // among those messages: a page of a mailbox's thread list is a range of
     // mailbox_thread_order.
     "CREATE TABLE mailbox_thread("
     " mailbox_id INTEGER NOT NULL,"
     " thread_id INTEGER NOT NULL,"
     " latest_arrival INTEGER NOT NULL,"
     " PRIMARY KEY (mailbox_id, thread_id)) WITHOUT ROWID;"
     "CREATE INDEX mailbox_thread_order"
     " ON mailbox_thread(mailbox_id, latest_arrival DESC, thread_id DESC);"
     // Derived data for the messages of the first schema.
     "UPDATE thread SET"
     " message_count = (SELECT count(*) FROM message m WHERE m.thread_id = thread.id),"
     " unread_count = (SELECT count(*) FROM message m WHERE m.thread_id = thread.id"
     "   AND m.is_read = 0 AND m.type <> 1),"
     " last_arrival = (SELECT ifnull(max(arrival_time), 0) FROM message m"
     "   WHERE m.thread_id = thread.id);"
     "INSERT INTO mailbox_thread SELECT mailbox_id, thread_id, max(arrival_time) FROM message"
     " GROUP BY mailbox_id, thread_id;"
     "INSERT INTO mailbox_thread SELECT 7, thread_id, max(arrival_time) FROM message"
     " WHERE star <> 0 AND mailbox_id NOT IN (5, 6) GROUP BY thread_id;"
     // How many threads there are, in all and per mailbox: the total of a
     // thread list without counting it.
     "CREATE TABLE store_count(name TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;"
     "INSERT INTO store_count VALUES ('thread', (SELECT count(*) FROM thread));"
     "ALTER TABLE mailbox ADD COLUMN thread_count INTEGER NOT NULL DEFAULT 0;"
     "UPDATE mailbox SET thread_count ="
     " (SELECT count(*) FROM mailbox_thread WHERE mailbox_id = mailbox.id);"
     "CREATE TRIGGER thread_insert AFTER INSERT ON thread BEGIN"
     " UPDATE store_count SET value = value + 1 WHERE name = 'thread';"
     " END;"
     "CREATE TRIGGER thread_delete AFTER DELETE ON thread BEGIN"
     " UPDATE store_count SET value = value - 1 WHERE name = 'thread';"
     " END;"
     "CREATE TRIGGER mailbox_thread_insert AFTER INSERT ON mailbox_thread BEGIN"
     " UPDATE mailbox SET thread_count = thread_count + 1 WHERE id = new.mailbox_id;"
     " END;"
     "CREATE TRIGGER mailbox_thread_delete AFTER DELETE ON mailbox_thread BEGIN"
     " UPDATE mailbox SET thread_count = thread_count - 1 WHERE id = old.mailbox_id;"
     " END;"
     // Full-text search over subject, addresses (From, To, Cc), body text
     // and attachment names; rowid = message id. The index keeps no copy of
     // the text: its content is the view message_search, and an entry is
     // added or taken out by setting message.indexed. The text of an
     // indexed message must not change (the entry could not be taken out
     // again): unindex, change, index again. The guards below refuse it.
     "CREATE VIEW message_search(id, subject, addresses, body, attachments) AS"
     " SELECT m.id, m.subject,"
     "  m.from_text"
     "  || ifnull((SELECT char(10) || group_concat(value, char(10)) FROM json_each(m.to_text)), '')"
     "  || ifnull((SELECT char(10) || group_concat(value, char(10)) FROM json_each(m.cc_text)), "
     "''),"
     "  ifnull((SELECT ifnull(b.search_text, b.plain) FROM message_body b"
     "   WHERE b.message_id = m.id), ''),"
     "  ifnull((SELECT group_concat(a.name, char(10)) FROM attachment a"
     "   WHERE a.message_id = m.id), '')"
     " FROM message m;"
     "CREATE VIRTUAL TABLE message_fts USING fts5(subject, addresses, body, attachments,"
     " content='message_search', content_rowid='id', tokenize='unicode61 remove_diacritics 2');"
     "CREATE TRIGGER message_index AFTER UPDATE OF indexed ON message"
     " WHEN new.indexed AND NOT old.indexed BEGIN"
     " INSERT INTO message_fts(rowid, subject, addresses, body, attachments)"
     "  SELECT id, subject, addresses, body, attachments FROM message_search WHERE id = new.id;"
     " END;"
     "CREATE TRIGGER message_unindex BEFORE UPDATE OF indexed ON message"
     " WHEN old.indexed AND NOT new.indexed BEGIN"
     " INSERT INTO message_fts(message_fts, rowid, subject, addresses, body, attachments)"
     "  SELECT 'delete', id, subject, addresses, body, attachments FROM message_search"
     "  WHERE id = old.id;"
     " END;"
     "CREATE TRIGGER message_delete_unindex BEFORE DELETE ON message WHEN old.indexed BEGIN"
     " INSERT INTO message_fts(message_fts, rowid, subject, addresses, body, attachments)"
     "  SELECT 'delete', id, subject, addresses, body, attachments FROM message_search"
     "  WHERE id = old.id;"
     " END;"
     "CREATE TRIGGER message_indexed_text BEFORE UPDATE OF subject, from_text, to_text, cc_text"
     " ON message WHEN old.indexed AND new.indexed"
     " AND (old.subject, old.from_text, old.to_text, old.cc_text)"
     " IS NOT (new.subject, new.from_text, new.to_text, new.cc_text) BEGIN"
     " SELECT RAISE(ABORT, 'the text of an indexed message changed');"
     " END;"
     "CREATE TRIGGER message_body_indexed_update BEFORE UPDATE ON message_body"
     " WHEN (SELECT indexed FROM message WHERE id = old.message_id) BEGIN"
     " SELECT RAISE(ABORT, 'the text of an indexed message changed');"
     " END;"
     "CREATE TRIGGER message_body_indexed_delete BEFORE DELETE ON message_body"
     " WHEN (SELECT indexed FROM message WHERE id = old.message_id) BEGIN"
     " SELECT RAISE(ABORT, 'the text of an indexed message changed');"
     " END;"
     "CREATE TRIGGER message_body_indexed_insert BEFORE INSERT ON message_body"
     " WHEN (SELECT indexed FROM message WHERE id = new.message_id) BEGIN"
     " SELECT RAISE(ABORT, 'the text of an indexed message changed');"
     " END;"
     "CREATE TRIGGER attachment_indexed_insert BEFORE INSERT ON attachment"
     " WHEN (SELECT indexed FROM message WHERE id = new.message_id) BEGIN"
     " SELECT RAISE(ABORT, 'the text of an indexed message changed');"
     " END;"
     "CREATE TRIGGER attachment_indexed_delete BEFORE DELETE ON attachment"
     " WHEN (SELECT indexed FROM message WHERE id = old.message_id) BEGIN"
     " SELECT RAISE(ABORT, 'the text of an indexed message changed');"
     " END;"
     "CREATE TRIGGER attachment_indexed_update BEFORE UPDATE OF name, message_id ON attachment"
     " WHEN (SELECT indexed FROM message WHERE id = old.message_id)"
     " OR (SELECT indexed FROM message WHERE id = new.message_id) BEGIN"
     " SELECT RAISE(ABORT, 'the text of an indexed message changed');"
     " END;"
     // Counters and placement. Mailbox counters follow UpdateAllMailbox:
     // message_count all messages, unread_count unread ones (drafts
     // included), draft_count drafts.
     "CREATE TRIGGER message_insert AFTER INSERT ON message BEGIN"
     " UPDATE mailbox SET message_count = message_count + 1,"
     "  unread_count = unread_count + (new.is_read = 0), draft_count = draft_count + (new.type = 1)"
     "  WHERE id = new.mailbox_id OR (id = 7 AND new.star <> 0 AND new.mailbox_id NOT IN (5, 6));"
     " UPDATE thread SET message_count = message_count + 1,"
     "  unread_count = unread_count + (new.is_read = 0 AND new.type <> 1),"
     "  last_arrival = max(last_arrival, new.arrival_time) WHERE id = new.thread_id;"
     " INSERT INTO mailbox_thread VALUES (new.mailbox_id, new.thread_id, new.arrival_time)"
     "  ON CONFLICT DO UPDATE SET latest_arrival = max(latest_arrival, excluded.latest_arrival);"
     " INSERT INTO mailbox_thread SELECT 7, new.thread_id, new.arrival_time"
     "  WHERE new.star <> 0 AND new.mailbox_id NOT IN (5, 6)"
     "  ON CONFLICT DO UPDATE SET latest_arrival = max(latest_arrival, excluded.latest_arrival);"
     " END;"
     "CREATE TRIGGER message_delete AFTER DELETE ON message BEGIN"
     " UPDATE mailbox SET message_count = message_count - 1,"
     "  unread_count = unread_count - (old.is_read = 0), draft_count = draft_count - (old.type = 1)"
     "  WHERE id = old.mailbox_id OR (id = 7 AND old.star <> 0 AND old.mailbox_id NOT IN (5, 6));"
     " DELETE FROM mailbox_thread WHERE mailbox_id = old.mailbox_id AND thread_id = old.thread_id;"
     " INSERT INTO mailbox_thread SELECT mailbox_id, thread_id, max(arrival_time) FROM message"
     "  WHERE thread_id = old.thread_id AND mailbox_id = old.mailbox_id GROUP BY thread_id;"
     " DELETE FROM mailbox_thread WHERE mailbox_id = 7 AND thread_id = old.thread_id"
     "  AND old.star <> 0 AND old.mailbox_id NOT IN (5, 6);"
     " INSERT INTO mailbox_thread SELECT 7, thread_id, max(arrival_time) FROM message"
     "  WHERE thread_id = old.thread_id AND star <> 0 AND mailbox_id NOT IN (5, 6)"
     "  AND old.star <> 0 AND old.mailbox_id NOT IN (5, 6) GROUP BY thread_id;"
     " UPDATE thread SET message_count = message_count - 1,"
     "  unread_count = unread_count - (old.is_read = 0 AND old.type <> 1),"
     "  last_arrival = ifnull((SELECT max(arrival_time) FROM message"
     "   WHERE thread_id = old.thread_id), 0)"
     "  WHERE id = old.thread_id;"
     " DELETE FROM thread WHERE id = old.thread_id AND message_count = 0;"
     " END;"
     "CREATE TRIGGER message_update_counts"
     " AFTER UPDATE OF mailbox_id, thread_id, is_read, type, star ON message"
     " WHEN (old.mailbox_id, old.thread_id, old.is_read, old.type, old.star <> 0)"
     " IS NOT (new.mailbox_id, new.thread_id, new.is_read, new.type, new.star <> 0) BEGIN"
     " UPDATE mailbox SET message_count = message_count - 1,"
     "  unread_count = unread_count - (old.is_read = 0), draft_count = draft_count - (old.type = 1)"
     "  WHERE id = old.mailbox_id OR (id = 7 AND old.star <> 0 AND old.mailbox_id NOT IN (5, 6));"
     " UPDATE mailbox SET message_count = message_count + 1,"
     "  unread_count = unread_count + (new.is_read = 0), draft_count = draft_count + (new.type = 1)"
     "  WHERE id = new.mailbox_id OR (id = 7 AND new.star <> 0 AND new.mailbox_id NOT IN (5, 6));"
     " UPDATE thread SET message_count = message_count - 1,"
     "  unread_count = unread_count - (old.is_read = 0 AND old.type <> 1) WHERE id = old.thread_id;"
     " UPDATE thread SET message_count = message_count + 1,"
     "  unread_count = unread_count + (new.is_read = 0 AND new.type <> 1) WHERE id = new.thread_id;"
     " DELETE FROM thread WHERE id = old.thread_id AND message_count = 0;"
     " END;"
     "CREATE TRIGGER message_update_place"
     " AFTER UPDATE OF mailbox_id, thread_id, arrival_time, star ON message"
     " WHEN (old.mailbox_id, old.thread_id, old.arrival_time, old.star <> 0)"
     " IS NOT (new.mailbox_id, new.thread_id, new.arrival_time, new.star <> 0) BEGIN"
     " DELETE FROM mailbox_thread WHERE mailbox_id = old.mailbox_id AND thread_id = old.thread_id;"
     " INSERT INTO mailbox_thread SELECT mailbox_id, thread_id, max(arrival_time) FROM message"
     "  WHERE thread_id = old.thread_id AND mailbox_id = old.mailbox_id GROUP BY thread_id;"
     " INSERT INTO mailbox_thread VALUES (new.mailbox_id, new.thread_id, new.arrival_time)"
     "  ON CONFLICT DO UPDATE SET latest_arrival = max(latest_arrival, excluded.latest_arrival);"
     " DELETE FROM mailbox_thread WHERE mailbox_id = 7 AND thread_id = old.thread_id;"
     " INSERT INTO mailbox_thread SELECT 7, thread_id, max(arrival_time) FROM message"
     "  WHERE thread_id = old.thread_id AND star <> 0 AND mailbox_id NOT IN (5, 6)"
     "  GROUP BY thread_id;"
     " INSERT INTO mailbox_thread SELECT 7, new.thread_id, new.arrival_time"
     "  WHERE new.star <> 0 AND new.mailbox_id NOT IN (5, 6)"
     "  ON CONFLICT DO UPDATE SET latest_arrival = max(latest_arrival, excluded.latest_arrival);"
     " UPDATE thread SET last_arrival = ifnull((SELECT max(arrival_time) FROM message"
     "  WHERE thread_id = thread.id), 0) WHERE id IN (old.thread_id, new.thread_id);"
     " END;"
     "CREATE TRIGGER thread_unread AFTER UPDATE OF unread_count ON thread"
     " WHEN new.unread_count <> old.unread_count BEGIN"
     " UPDATE label SET unread_count = unread_count + new.unread_count - old.unread_count"
     "  WHERE id IN (SELECT label_id FROM thread_label WHERE thread_id = new.id);"
     " END;"
     "CREATE TRIGGER thread_label_insert AFTER INSERT ON thread_label BEGIN"
     " UPDATE label SET unread_count = unread_count"
     "  + ifnull((SELECT unread_count FROM thread WHERE id = new.thread_id), 0)"
     "  WHERE id = new.label_id;"
     " END;"
     "CREATE TRIGGER thread_label_delete AFTER DELETE ON thread_label BEGIN"
     " UPDATE label SET unread_count = unread_count"
     "  - ifnull((SELECT unread_count FROM thread WHERE id = old.thread_id), 0)"
     "  WHERE id = old.label_id;"
     " END;"},
    {3,
     // Composing. A draft keeps the contents of its own attachments in
     // attachment.content (uploads, and what a forward took over from the
     // message it forwards); received mail keeps decoding them from its
     // source. draft_type: 0 new, 1 reply, 2 reply to all, 3 forward.
     // preview_path: a preview image that the web API made and asked the
     // core to remember.
     "ALTER TABLE message ADD COLUMN draft_type INTEGER NOT NULL DEFAULT 0;"
     "ALTER TABLE attachment ADD COLUMN preview_path TEXT NOT NULL DEFAULT '';"
     // copied_from: the attachment of the referred message that a draft's
     // attachment was copied from (0: none), so that a client that names
     // the original again keeps the copy rather than getting a second one.
     "ALTER TABLE attachment ADD COLUMN copied_from INTEGER NOT NULL DEFAULT 0;"
     // A new upload's content id is drawn until no attachment has it.
     "CREATE INDEX attachment_content_id ON attachment(content_id) WHERE content_id <> '';"
     // Uploads for a draft that no draft has taken yet. The core owns the
     // file at path; a draft that takes one copies its content and removes
     // both. content_id: what an HTML body names the upload by ("cid:").
     "CREATE TABLE attachment_temp("
     " id INTEGER PRIMARY KEY AUTOINCREMENT,"
     " path TEXT NOT NULL CHECK (path <> ''),"
     " name TEXT NOT NULL CHECK (name <> ''),"
     " mimetype TEXT NOT NULL DEFAULT 'application/octet-stream',"
     " content_id TEXT NOT NULL UNIQUE,"
     " is_inline INTEGER NOT NULL DEFAULT 0,"
     " created INTEGER NOT NULL DEFAULT 0);"
     // The user's general preferences: one row, made here with the defaults.
     "CREATE TABLE general_setting("
     " id INTEGER PRIMARY KEY CHECK (id = 1),"
     " conversations_per_page INTEGER NOT NULL DEFAULT 25,"
     " display_external_image INTEGER NOT NULL DEFAULT 0,"
     " mark_as_read_time INTEGER NOT NULL DEFAULT 0,"
     " enable_signature INTEGER NOT NULL DEFAULT 1,"
     " update_interval_time INTEGER NOT NULL DEFAULT 5,"
     " split_pane_mode INTEGER NOT NULL DEFAULT 0,"
     " preview_layout INTEGER NOT NULL DEFAULT 0,"
     " theme INTEGER NOT NULL DEFAULT 0,"
     " composer_fontname TEXT NOT NULL DEFAULT '',"
     " composer_fontsize TEXT NOT NULL DEFAULT '',"
     " composer_forecolor TEXT NOT NULL DEFAULT '',"
     " codepage TEXT NOT NULL DEFAULT '');"
     "INSERT INTO general_setting(id) VALUES (1);"
     // The address book: one contact per address, email_key being the
     // address in lower case.
     "CREATE TABLE contact("
     " id INTEGER PRIMARY KEY,"
     " name TEXT NOT NULL DEFAULT '',"
     " email TEXT NOT NULL,"
     " email_key TEXT NOT NULL UNIQUE);"
     // Sending identities, chosen by the From address (mail, without
     // regard to case) or else the default one. connection_type: 0 plain
     // (STARTTLS when the server offers it), 1 SSL/TLS, 2 STARTTLS required.
     "CREATE TABLE smtp_account("
     " id INTEGER PRIMARY KEY AUTOINCREMENT,"
     " display_name TEXT NOT NULL DEFAULT '',"
     " mail TEXT NOT NULL,"
     " host_name TEXT NOT NULL,"
     " port INTEGER NOT NULL,"
     " user_name TEXT NOT NULL DEFAULT '',"
     " password TEXT NOT NULL DEFAULT '',"
     " connection_type INTEGER NOT NULL DEFAULT 0,"
     " signature TEXT NOT NULL DEFAULT '',"
     " is_default INTEGER NOT NULL DEFAULT 0);"
     "CREATE INDEX smtp_account_mail ON smtp_account(mail COLLATE NOCASE);"
     "CREATE INDEX smtp_account_default ON smtp_account(is_default) WHERE is_default <> 0;"},
    {4,
     // Attachments without copies of the whole message. An attachment of
     // stored mail knows where its content lies in message_source.raw,
     // still encoded (content_offset, content_length bytes, in
     // content_encoding: "base64", "quoted-printable", "7bit", "8bit",
     // "binary"), so that it is decoded straight from the stored source
     // without parsing the message again; content_offset is NULL for parts
     // stored before, found again by part_path.
     "ALTER TABLE attachment ADD COLUMN content_offset INTEGER;"
     "ALTER TABLE attachment ADD COLUMN content_length INTEGER NOT NULL DEFAULT 0;"
     "ALTER TABLE attachment ADD COLUMN content_encoding TEXT NOT NULL DEFAULT '';"
     // The contents a draft keeps move to a table of their own where the
     // blob is the last column of its row: only there does SQLite keep a
     // zeroblob as a length, written into afterwards a piece at a time,
     // instead of a buffer of zeros as large as the content.
     "CREATE TABLE attachment_content("
     " attachment_id INTEGER PRIMARY KEY REFERENCES attachment(id) ON DELETE CASCADE,"
     " content BLOB NOT NULL);"
     "INSERT INTO attachment_content(attachment_id, content)"
     " SELECT id, content FROM attachment WHERE content IS NOT NULL;"
     "ALTER TABLE attachment DROP COLUMN content;"},
    {5,
     // Uploads that no draft took are dropped after a while (by age).
     "CREATE INDEX attachment_temp_created ON attachment_temp(created);"},
    {6,
     // Filter rules, applied at delivery in the order of position (the
     // user's order). The sets are kept in their serialised text form
     // (record::ConditionSet / ActionSet::GetSerializedString), the text the
     // background service is sent too. A move_to names its mailbox by raw
     // path and a label action its label by key, as the rule was written:
     // a rule whose mailbox or label goes is kept, and skipped.
     "CREATE TABLE mail_filter("
     " id INTEGER PRIMARY KEY AUTOINCREMENT,"
     " position INTEGER NOT NULL,"
     " condition_set TEXT NOT NULL,"
     " action_set TEXT NOT NULL);"
     "CREATE INDEX mail_filter_position ON mail_filter(position, id);"},
    {7,
     // Forwarding and the vacation reply: one row. A NULL member was never
     // set; a time of NULL is no beginning, or no end (Unix seconds).
     "CREATE TABLE forward_reply("
     " id INTEGER PRIMARY KEY CHECK (id = 1),"
     " forward_enable INTEGER NOT NULL DEFAULT 0,"
     " forward_addr TEXT,"
     " keep_copy INTEGER,"
     " reply_enable INTEGER NOT NULL DEFAULT 0,"
     " reply_begin_time INTEGER,"
     " reply_end_time INTEGER,"
     " subject TEXT,"
     " message TEXT);"
     "INSERT INTO forward_reply(id) VALUES (1);"
     // Who got a vacation reply, and when: one reply per sender a week.
     // sender is the bare address in lower case. Emptied whenever the rules
     // change.
     "CREATE TABLE vacation_reply("
     " sender TEXT PRIMARY KEY,"
     " replied_at INTEGER NOT NULL) WITHOUT ROWID;"},
    {8,
     // POP3 fetch accounts. The password is kept sealed (secret box). What
     // the last fetch did is kept for a client: last_fetch_time (Unix
     // seconds of the last attempt, 0: never), last_error ("" after a fetch
     // that went through). fetch_pass_days limits the first fetch only;
     // first_fetch_done says whether it happened.
     "CREATE TABLE pop3_account("
     " id INTEGER PRIMARY KEY AUTOINCREMENT,"
     " mail TEXT NOT NULL,"
     " server_provider INTEGER NOT NULL DEFAULT 0,"
     " host_name TEXT NOT NULL,"
     " port INTEGER NOT NULL,"
     " user_name TEXT NOT NULL DEFAULT '',"
     " password TEXT NOT NULL DEFAULT '',"
     " enable_ssl INTEGER NOT NULL DEFAULT 0,"
     " delete_after_fetch INTEGER NOT NULL DEFAULT 0,"
     " mailbox_path TEXT NOT NULL DEFAULT '',"
     " fetch_pass_days INTEGER NOT NULL DEFAULT 0,"
     " first_fetch_done INTEGER NOT NULL DEFAULT 0,"
     " last_fetch_time INTEGER NOT NULL DEFAULT 0,"
     " last_error TEXT NOT NULL DEFAULT '');"
     // The UIDLs of the messages an account took from its server (stored,
     // forwarded, or passed over by the first fetch): never fetched again.
     "CREATE TABLE pop3_uidl("
     " account_id INTEGER NOT NULL REFERENCES pop3_account(id) ON DELETE CASCADE,"
     " uidl TEXT NOT NULL,"
     " PRIMARY KEY (account_id, uidl)) WITHOUT ROWID;"},
};

// The triggers of migration 2 name the built-in mailboxes by number.
static_assert(control::DefaultMailbox::id<constant::kJunk>() == 5 &&
                  control::DefaultMailbox::id<constant::kTrash>() == 6 &&
                  control::DefaultMailbox::id<constant::kStarred>() == 7,
              "migration 2 names junk, trash and starred by their ids");

constexpr int kNewestVersion = kMigrations[sizeof kMigrations / sizeof kMigrations[0] - 1].version;

void Log(int line, const std::string& text) { store::LogError("db_setup", line, text); }

bool TooNew(const std::string& path, int64_t version) {
  Log(__LINE__, path + " has schema " + std::to_string(version) + ", newer than this program's " +
                    std::to_string(kNewestVersion));
  return false;
}

}  // namespace
}  // namespace ornic::larkpost::db

namespace ornic::larkpost::store {

bool MigrateSchema(Database& db, int version) {
  for (const db::Migration& migration : db::kMigrations) {
    if (version > 0 && migration.version > version) break;
    Transaction transaction(db);
    // Read again inside the transaction: another process may have run
    // this step while we waited for the lock.
    int64_t current = db.QueryInt("PRAGMA user_version");
    if (current > db::kNewestVersion) return db::TooNew(db.path(), current);
    if (current >= migration.version) continue;
    db.Exec(migration.sql);
    db.Exec("PRAGMA user_version = " + std::to_string(migration.version));
    transaction.Commit();
  }
  return true;
}

int NewestSchemaVersion() { return db::kNewestVersion; }

}  // namespace ornic::larkpost::store

namespace ornic::larkpost::db {

DBSetupHandler::DBSetupHandler(uint32_t uid) : uid_(uid) {}

bool DBSetupHandler::DoesDBExist() const {
  // A user without a store (every user before the first request) costs one
  // stat, not a failed open.
  struct stat info;
  if (stat(store::StorePath(uid_).c_str(), &info) != 0) return false;
  try {
    return store::Connection(uid_, false)->QueryInt("PRAGMA user_version") > 0;
  } catch (const std::exception& e) {
    Log(__LINE__, e.what());
    return false;
  }
}

bool DBSetupHandler::SetupDB() const {
  try {
    if (!sdk::ZevoUser(uid_).IsValid()) {
      Log(__LINE__, "no user " + std::to_string(uid_));
      return false;
    }
    std::shared_ptr<store::Database> db = store::Connection(uid_, true);
    // The store of nearly every request is up to date: one read, no lock.
    int64_t version = db->QueryInt("PRAGMA user_version");
    if (version == kNewestVersion) return true;
    if (version > kNewestVersion) return TooNew(db->path(), version);
    return store::MigrateSchema(*db);
  } catch (const std::exception& e) {
    Log(__LINE__, "setting up the store of user " + std::to_string(uid_) + " failed: " + e.what());
    return false;
  }
}

}  // namespace ornic::larkpost::db
