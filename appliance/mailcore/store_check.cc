// Each invariant is a query that yields the text of every finding; the
// counters are recomputed from the messages the way the triggers of the
// schema keep them, so that a trigger that drifts shows here too.
#include "appliance/mailcore/store_check.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/mime/transfer_decoder.h"
#include "appliance/mailcore/store_records.h"
#include "appliance/mailcore/store_schema.h"
#include "appliance/system/appliance.h"
#include "platform/mailcore/record.h"

namespace ornic::larkpost::store {
namespace {

using Findings = std::vector<std::string>;

// Where a message lies, the virtual starred mailbox included, with what the
// mailbox counters count.
#define LARKPOST_HELD                                                           \
  "held(mailbox_id, thread_id, is_read, type, arrival_time) AS ("               \
  " SELECT mailbox_id, thread_id, is_read, type, arrival_time FROM message"     \
  " UNION ALL SELECT 7, thread_id, is_read, type, arrival_time FROM message m " \
  " WHERE (m.star <> 0 AND m.mailbox_id NOT IN (5, 6)))"

constexpr const char* kInvariants[] = {
    // Counters and totals.
    "WITH " LARKPOST_HELD
    ", counted(id, total, unread, drafts) AS (SELECT mailbox_id, count(*), sum(is_read = 0),"
    " sum(type = 1) FROM held GROUP BY mailbox_id)"
    " SELECT 'mailbox ' || id || ': ' || counter || ' is ' || stored || ', recomputed ' || want"
    " FROM (SELECT b.id, 'message_count' AS counter, b.message_count AS stored,"
    "  ifnull(c.total, 0) AS want FROM mailbox b LEFT JOIN counted c ON c.id = b.id"
    " UNION ALL SELECT b.id, 'unread_count', b.unread_count, ifnull(c.unread, 0)"
    "  FROM mailbox b LEFT JOIN counted c ON c.id = b.id"
    " UNION ALL SELECT b.id, 'draft_count', b.draft_count, ifnull(c.drafts, 0)"
    "  FROM mailbox b LEFT JOIN counted c ON c.id = b.id"
    " UNION ALL SELECT b.id, 'thread_count', b.thread_count,"
    "  (SELECT count(*) FROM mailbox_thread t WHERE t.mailbox_id = b.id) FROM mailbox b)"
    " WHERE stored IS NOT want",

    "WITH counted(id, total, unread, latest) AS (SELECT thread_id, count(*),"
    " sum(is_read = 0 AND type <> 1), max(arrival_time) FROM message GROUP BY thread_id)"
    " SELECT 'thread ' || id || ': ' || counter || ' is ' || stored || ', recomputed ' || want"
    " FROM (SELECT t.id, 'message_count' AS counter, t.message_count AS stored,"
    "  ifnull(c.total, 0) AS want FROM thread t LEFT JOIN counted c ON c.id = t.id"
    " UNION ALL SELECT t.id, 'unread_count', t.unread_count, ifnull(c.unread, 0)"
    "  FROM thread t LEFT JOIN counted c ON c.id = t.id"
    " UNION ALL SELECT t.id, 'last_arrival', t.last_arrival, ifnull(c.latest, 0)"
    "  FROM thread t LEFT JOIN counted c ON c.id = t.id)"
    " WHERE stored IS NOT want",

    "SELECT 'label ' || id || ': unread_count is ' || unread_count || ', recomputed ' || want"
    " FROM (SELECT l.id, l.unread_count, (SELECT count(*) FROM thread_label tl"
    "  JOIN message m ON m.thread_id = tl.thread_id WHERE tl.label_id = l.id"
    "  AND m.is_read = 0 AND m.type <> 1) AS want FROM label l)"
    " WHERE unread_count IS NOT want",

    "SELECT 'store: thread total is ' || ifnull(stored, 'missing') || ', recomputed ' || want"
    " FROM (SELECT (SELECT value FROM store_count WHERE name = 'thread') AS stored,"
    "  (SELECT count(*) FROM thread) AS want) WHERE stored IS NOT want",

    // The thread list of each mailbox: one row per mailbox and thread with a
    // message there, holding the newest arrival among them.
    "WITH " LARKPOST_HELD
    ", want(mailbox_id, thread_id, latest) AS (SELECT mailbox_id, thread_id, max(arrival_time)"
    " FROM held GROUP BY mailbox_id, thread_id)"
    " SELECT 'mailbox ' || w.mailbox_id || ': thread ' || w.thread_id"
    "  || ' is missing from its thread list' FROM want w WHERE NOT EXISTS (SELECT 1 FROM"
    "  mailbox_thread t WHERE t.mailbox_id = w.mailbox_id AND t.thread_id = w.thread_id)"
    " UNION ALL SELECT 'mailbox ' || t.mailbox_id || ': thread ' || t.thread_id"
    "  || ' is listed without a message there' FROM mailbox_thread t WHERE NOT EXISTS"
    "  (SELECT 1 FROM want w WHERE w.mailbox_id = t.mailbox_id AND w.thread_id = t.thread_id)"
    " UNION ALL SELECT 'mailbox ' || w.mailbox_id || ': thread ' || w.thread_id"
    "  || ' latest_arrival is ' || t.latest_arrival || ', recomputed ' || w.latest"
    "  FROM want w JOIN mailbox_thread t ON t.mailbox_id = w.mailbox_id"
    "  AND t.thread_id = w.thread_id WHERE t.latest_arrival IS NOT w.latest",

    // Every message in one real mailbox and one thread (that both exist is
    // the foreign key check's), whole, and described by its own parts.
    "SELECT 'message ' || id || ' is in the virtual starred mailbox' FROM message"
    " WHERE mailbox_id = 7",
    "SELECT 'message ' || id || ' has no body' FROM message m"
    " WHERE NOT EXISTS (SELECT 1 FROM message_body b WHERE b.message_id = m.id)",
    // Drafts are written from their parts; everything else arrived whole.
    "SELECT 'message ' || id || ' has no source' FROM message m WHERE type <> 1"
    " AND NOT EXISTS (SELECT 1 FROM message_source s WHERE s.message_id = m.id)",
    "SELECT 'message ' || id || ': size is ' || size || ', recomputed ' || want"
    " FROM (SELECT m.id, m.size, ifnull((SELECT length(raw) FROM message_source s"
    "  WHERE s.message_id = m.id), ifnull((SELECT length(CAST(plain AS BLOB))"
    "  + length(CAST(html AS BLOB)) FROM message_body b WHERE b.message_id = m.id), 0)"
    "  + ifnull((SELECT sum(size) FROM attachment a WHERE a.message_id = m.id), 0)) AS want"
    " FROM message m) WHERE size IS NOT want",
    "SELECT 'message ' || id || ': has_attachment is ' || has_attachment || ', recomputed ' || want"
    " FROM (SELECT m.id, m.has_attachment, EXISTS (SELECT 1 FROM attachment a"
    "  WHERE a.message_id = m.id AND a.is_inline = 0) AS want FROM message m)"
    " WHERE has_attachment IS NOT want",
    "SELECT 'message ' || id || ' is not in the full-text index' FROM message WHERE NOT indexed",

    // Threads, labels and mailboxes.
    "SELECT 'thread ' || id || ' has no message' FROM thread t"
    " WHERE NOT EXISTS (SELECT 1 FROM message m WHERE m.thread_id = t.id)",
    "SELECT 'label ' || id || ': key is ' || quote(key) || ', expected ''$label' || id || ''''"
    " FROM label WHERE key IS NOT '$label' || id",
    "WITH RECURSIVE reached(id) AS (SELECT id FROM mailbox WHERE parent_id IS NULL"
    " UNION SELECT b.id FROM mailbox b JOIN reached r ON b.parent_id = r.id)"
    " SELECT 'mailbox ' || id || ' does not lead up to the top level' FROM mailbox"
    " WHERE id NOT IN (SELECT id FROM reached)",

    // Attachments: a draft's own content, of the size recorded; stored
    // mail's a range of its source, or a part of it found by its path.
    "SELECT 'attachment ' || a.id || ' of draft ' || a.message_id || ' has no content'"
    " FROM attachment a JOIN message m ON m.id = a.message_id WHERE m.type = 1"
    " AND NOT EXISTS (SELECT 1 FROM attachment_content c WHERE c.attachment_id = a.id)",
    "SELECT 'attachment ' || a.id || ': size is ' || a.size || ', content holds '"
    " || length(c.content) FROM attachment a JOIN attachment_content c ON c.attachment_id = a.id"
    " WHERE a.size IS NOT length(c.content)",
    "SELECT 'attachment ' || a.id || ': content range ' || a.content_offset || '+'"
    " || a.content_length || CASE WHEN s.message_id IS NULL THEN ' has no source'"
    " ELSE ' lies outside the source of message ' || a.message_id || ' (' || length(s.raw)"
    " || ' bytes)' END FROM attachment a LEFT JOIN message_source s ON s.message_id = a.message_id"
    " WHERE a.content_offset IS NOT NULL AND (s.message_id IS NULL OR a.content_offset < 0"
    " OR a.content_length < 0 OR a.content_offset + a.content_length > length(s.raw))",
    "SELECT 'attachment ' || a.id || ' has neither content nor a source part' FROM attachment a"
    " WHERE a.content_offset IS NULL"
    " AND (SELECT type FROM message m WHERE m.id = a.message_id) IS NOT 1"
    " AND NOT EXISTS (SELECT 1 FROM attachment_content c WHERE c.attachment_id = a.id)"
    " AND (a.part_path = '' OR NOT EXISTS (SELECT 1 FROM message_source s"
    "  WHERE s.message_id = a.message_id))",
};

#undef LARKPOST_HELD

// A second index, built here from the messages' text with the tokenizer of
// message_fts (keep the two alike), compared term by term and place by place
// with what message_fts holds: SQLite's own check of an index over external
// content does not look at the content.
constexpr char kRebuildIndex[] =
    "CREATE VIRTUAL TABLE temp.check_text USING fts5(subject, addresses, body, attachments,"
    " tokenize='unicode61 remove_diacritics 2');"
    "INSERT INTO temp.check_text(rowid, subject, addresses, body, attachments)"
    " SELECT id, subject, addresses, body, attachments FROM message_search"
    " WHERE id IN (SELECT id FROM message WHERE indexed);"
    "CREATE VIRTUAL TABLE temp.check_text_terms USING fts5vocab(temp, check_text, 'instance');"
    "CREATE VIRTUAL TABLE temp.check_index_terms USING fts5vocab(main, message_fts, 'instance');";

constexpr char kCompareIndex[] =
    "WITH have AS (SELECT * FROM temp.check_index_terms),"
    " want AS (SELECT * FROM temp.check_text_terms),"
    " differing(doc) AS (SELECT doc FROM (SELECT * FROM have EXCEPT SELECT * FROM want)"
    "  UNION SELECT doc FROM (SELECT * FROM want EXCEPT SELECT * FROM have))"
    " SELECT 'message ' || doc || ': its full-text entry differs from its text' FROM differing"
    " WHERE doc IN (SELECT id FROM message WHERE indexed)"
    " UNION ALL SELECT 'full-text index: entry ' || doc || ' belongs to no indexed message'"
    " FROM (SELECT DISTINCT doc FROM have) WHERE doc NOT IN (SELECT id FROM message WHERE indexed)";

void Collect(Database& db, const char* sql, Findings& findings) {
  Statement rows(db, sql);
  while (rows.Step()) findings.push_back(rows.Text(0));
}

void CheckEncodings(Database& db, Findings& findings) {
  Statement rows(db,
                 "SELECT id, content_encoding FROM attachment WHERE content_offset IS NOT NULL");
  while (rows.Step()) {
    mime::TransferEncoding encoding;
    if (!mime::TransferEncodingNamed(rows.Text(1), &encoding)) {
      findings.push_back("attachment " + rows.Text(0) + ": content_encoding '" + rows.Text(1) +
                         "' is unknown");
    }
  }
}

void CheckFilters(Database& db, Findings& findings) {
  Statement rows(db, "SELECT id, condition_set, action_set FROM mail_filter ORDER BY id");
  while (rows.Step()) {
    record::ConditionSet condition;
    record::ActionSet action;
    if (!record::ConditionSet::ParseSerializedString(rows.Text(1), &condition)) {
      findings.push_back("filter " + rows.Text(0) + ": condition_set does not parse");
    }
    if (!record::ActionSet::ParseSerializedString(rows.Text(2), &action)) {
      findings.push_back("filter " + rows.Text(0) + ": action_set does not parse");
    }
  }
}

void CheckUploads(Database& db, Findings& findings) {
  Statement rows(db, "SELECT id, path FROM attachment_temp ORDER BY id");
  while (rows.Step()) {
    struct stat info;
    if (stat(rows.Text(1).c_str(), &info) != 0) {
      findings.push_back("temporary attachment " + rows.Text(0) + ": its file is missing");
    }
  }
}

std::string BaseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// The entries of one of the user's application folders that no path of
// `referring_sql` names (in full or, as the upload sweep reads them, by
// name), untouched for the grace period.
void CheckFolder(Database& db, uint32_t uid, const char* folder, const char* referring_sql,
                 Findings& findings) {
  std::set<std::string> referred;
  Statement rows(db, referring_sql);
  while (rows.Step()) {
    referred.insert(rows.Text(0));
    referred.insert(BaseName(rows.Text(0)));
  }
  const std::string path = ::larkpost::appliance::UserDir(uid) + folder;
  DIR* listing = opendir(path.c_str());
  if (listing == nullptr) return;
  const int64_t touched_before = Now() - kStrayCopyGrace;
  std::vector<std::string> strays;
  while (const dirent* entry = readdir(listing)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    struct stat info;
    if (fstatat(dirfd(listing), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0 ||
        info.st_mtime >= touched_before || referred.count(name) ||
        referred.count(path + "/" + name)) {
      continue;
    }
    strays.push_back(std::string(folder + 1) + "/" + name + ": no record refers to it");
  }
  closedir(listing);
  std::sort(strays.begin(), strays.end());
  findings.insert(findings.end(), strays.begin(), strays.end());
}

Findings CheckSnapshot(Database& db, uint32_t uid) {
  Findings findings;
  const int64_t version = db.QueryInt("PRAGMA user_version");
  if (version != NewestSchemaVersion()) {
    findings.push_back("schema: version " + std::to_string(version) + ", expected " +
                       std::to_string(NewestSchemaVersion()));
    return findings;
  }
  // What follows reads a damaged file as if it were sound. A file damaged
  // badly enough fails the check itself: that is its finding too.
  try {
    Statement rows(db, "SELECT integrity_check FROM pragma_integrity_check");
    while (rows.Step()) {
      // One finding a line; the heading that names the database goes.
      std::istringstream text(rows.Text(0));
      for (std::string line; std::getline(text, line);) {
        if (line != "ok" && line.compare(0, 4, "*** ") != 0) findings.push_back("sqlite: " + line);
      }
    }
  } catch (const ::larkpost::appliance::sqlite::Error& e) {
    findings.push_back(std::string("sqlite: ") + sqlite3_errstr(e.code()));
  }
  if (!findings.empty()) return findings;
  Collect(db,
          "SELECT 'foreign key: ' || \"table\" || ifnull(' row ' || rowid, '')"
          " || ' names a missing ' || parent FROM pragma_foreign_key_check",
          findings);
  for (const char* sql : kInvariants) Collect(db, sql, findings);
  CheckEncodings(db, findings);
  db.Exec(kRebuildIndex);
  Collect(db, kCompareIndex, findings);
  CheckFilters(db, findings);
  CheckUploads(db, findings);
  CheckFolder(db, uid, kUploadFolder, "SELECT path FROM attachment_temp", findings);
  CheckFolder(db, uid, kPreviewFolder,
              "SELECT preview_path FROM attachment WHERE preview_path <> ''", findings);
  return findings;
}

}  // namespace

Findings CheckStore(Database& db, uint32_t uid) {
  // A savepoint rather than a transaction, so that the check also runs
  // inside one (tests damage a store and look within a transaction); the
  // tables it builds go with it. Undoing a read cannot lose anything, and a
  // damaged file may refuse even that: it is not an error of the check.
  db.Exec("SAVEPOINT store_check");
  struct Undo {
    Database& db;
    ~Undo() {
      sqlite3_exec(db.handle(), "ROLLBACK TO store_check; RELEASE store_check", nullptr, nullptr,
                   nullptr);
    }
  } undo{db};
  return CheckSnapshot(db, uid);
}

Findings CheckStore(uint32_t uid) {
  std::unique_ptr<Database> db = Open(uid, false);
  return CheckStore(*db, uid);
}

}  // namespace ornic::larkpost::store
