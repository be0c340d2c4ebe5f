// Mailboxes. A mailbox's raw_path is its whole path in IMAP modified UTF-7,
// levels joined by "/"; a name therefore never holds "/". Built-in mailboxes
// keep their names and places; only their subscription changes. At the top
// level no user mailbox may take a built-in's name in any case ("inbox").
#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "appliance/mailcore/base/modified_utf7.h"
#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/store_records.h"
#include "appliance/mailcore/store_text.h"
#include "platform/mailcore/control.h"

namespace ornic::larkpost::control {
namespace {

using store::Database;
using store::MailboxRow;
using store::Statement;

// The mailbox ?1 and every mailbox below it.
constexpr char kSubtree[] =
    "WITH RECURSIVE subtree(id) AS (SELECT ?1 UNION ALL "
    "SELECT m.id FROM mailbox m JOIN subtree s ON m.parent_id = s.id) ";

// The stored form of a new name, or false when it cannot be one: empty,
// holding "/" or a control character, or not UTF-8.
bool EncodeName(const std::string& name, std::string* encoded) {
  if (name.empty() || name.find('/') != std::string::npos) return false;
  for (char c : name) {
    unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7F) return false;
  }
  std::optional<std::string> raw = imap::EncodeModifiedUTF7(name);
  if (!raw) return false;
  *encoded = std::move(*raw);
  return true;
}

std::string AsciiLower(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

// Whether a mailbox `path` under `parent_id` would clash with another
// mailbox than `self`: the same path, or at the top level a built-in's
// name in another case.
bool PathTaken(Database& db, int parent_id, const std::string& path, int self) {
  Statement same(db,
                 "SELECT 1 FROM mailbox WHERE ifnull(parent_id, 0) = ?1 AND raw_path = ?2 "
                 "AND id <> ?3");
  same.Bind(1, parent_id).Bind(2, path).Bind(3, self);
  if (same.Step()) return true;
  if (parent_id != 0) return false;
  Statement builtin(db, "SELECT raw_path FROM mailbox WHERE builtin IS NOT NULL AND id <> ?1");
  builtin.Bind(1, self);
  std::string lower = AsciiLower(path);
  while (builtin.Step()) {
    if (AsciiLower(builtin.Text(0)) == lower) return true;
  }
  return false;
}

// The last level of a raw path.
std::string LastLevel(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The user's mailboxes sort by their levels as shown, case folded, so that a
// mailbox comes right before the mailboxes below it.
std::vector<std::string> SortKey(const std::string& raw_path) {
  std::string shown = imap::DecodeModifiedUTF7(raw_path).value_or(raw_path);
  std::vector<std::string> levels;
  size_t start = 0;
  for (;;) {
    size_t slash = shown.find('/', start);
    levels.push_back(store::FoldCase(shown.substr(start, slash - start)));
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  return levels;
}

record::Mailbox ToRecord(const MailboxRow& row) {
  record::Mailbox mailbox;
  mailbox.id = row.id;
  mailbox.parent_id = row.parent_id;
  mailbox.path = row.raw_path;
  mailbox.subscribed = row.subscribed;
  return mailbox;
}

}  // namespace

MailboxControl::MailboxControl(Controller& controller) : controller_(controller) {}

std::vector<record::Mailbox> MailboxControl::List(bool unread, bool total) {
  Database& db = controller_.impl().db();
  return store::Guard("listing mailboxes", [&] {
    store::ReadTransaction read(db);
    // The stored unread counter counts unread drafts too (as UpdateAllMailbox
    // does); a mailbox shows unread mail only. Unread drafts are few: a seek
    // per mailbox finds them, a partial index those behind Starred.
    int starred_unread_drafts = 0;
    if (unread) {
      Statement starred(db, (std::string("SELECT count(*) FROM message m WHERE is_read = 0 AND "
                                         "type = 1 AND ") +
                             store::kStarredSql)
                                .c_str());
      starred.Step();
      starred_unread_drafts = starred.Int(0);
    }
    Statement all(db,
                  "SELECT id, ifnull(parent_id, 0), raw_path, ifnull(builtin, -1), subscribed, "
                  "message_count, unread_count, CASE WHEN ?1 THEN (SELECT count(*) FROM message m "
                  "WHERE m.mailbox_id = mailbox.id AND m.is_read = 0 AND m.type = 1) END "
                  "FROM mailbox");
    all.Bind(1, unread);
    std::vector<std::pair<std::vector<std::string>, record::Mailbox>> user;
    std::vector<record::Mailbox> builtin;
    while (all.Step()) {
      MailboxRow row;
      row.id = all.Int(0);
      row.parent_id = all.Int(1);
      row.raw_path = all.Text(2);
      row.builtin = all.Int(3);
      row.subscribed = all.Int(4) != 0;
      record::Mailbox mailbox = ToRecord(row);
      if (total) mailbox.total_count = all.Int(5);
      if (unread) {
        mailbox.unread_count =
            all.Int(6) - (row.id == store::kStarredId ? starred_unread_drafts : all.Int(7));
      }
      if (row.builtin >= 0) {
        builtin.push_back(std::move(mailbox));
      } else {
        user.emplace_back(SortKey(row.raw_path), std::move(mailbox));
      }
    }
    std::sort(builtin.begin(), builtin.end(),
              [](const record::Mailbox& a, const record::Mailbox& b) { return a.id < b.id; });
    std::sort(user.begin(), user.end(), [](const auto& a, const auto& b) {
      if (a.first != b.first) return a.first < b.first;
      return a.second.path < b.second.path;
    });
    for (auto& entry : user) builtin.push_back(std::move(entry.second));
    return builtin;
  });
}

record::Mailbox MailboxControl::Get(int id) {
  Database& db = controller_.impl().db();
  return store::Guard("reading a mailbox", [&] {
    MailboxRow row;
    return store::LoadMailbox(db, id, &row) ? ToRecord(row) : record::Mailbox();
  });
}

int MailboxControl::Create(int parent_id, const std::string& name, bool subscribed) {
  Database& db = controller_.impl().db();
  return store::Guard("creating a mailbox", [&] {
    store::Transaction transaction(db);
    std::string encoded;
    if (!EncodeName(name, &encoded)) return 0;
    std::string path = encoded;
    if (parent_id != 0) {
      MailboxRow parent;
      if (!store::LoadMailbox(db, parent_id, &parent) || parent.builtin == constant::kStarred) {
        return 0;
      }
      path = parent.raw_path + "/" + encoded;
    }
    if (PathTaken(db, parent_id, path, 0)) return 0;
    Statement insert(db,
                     "INSERT INTO mailbox(parent_id, raw_path, subscribed, last_modified) "
                     "VALUES (nullif(?1, 0), ?2, ?3, ?4)");
    insert.Bind(1, parent_id).Bind(2, path).Bind(3, subscribed).Bind(4, store::Now());
    insert.Run();
    int id = static_cast<int>(db.LastInsertRowid());
    transaction.Commit();
    return id;
  });
}

bool MailboxControl::Modify(int id, const MailboxConfig& config) {
  Database& db = controller_.impl().db();
  return store::Guard("changing a mailbox", [&] {
    store::Transaction transaction(db);
    MailboxRow row;
    if (!store::LoadMailbox(db, id, &row)) return false;

    std::string name = LastLevel(row.raw_path);
    if (config.name.IsSet() && !EncodeName(config.name.Get(), &name)) return false;
    int parent_id = config.parent_id.IsSet() ? config.parent_id.Get() : row.parent_id;
    std::string parent_path;
    if (parent_id != row.parent_id && parent_id != 0) {
      MailboxRow parent;
      if (!store::LoadMailbox(db, parent_id, &parent) || parent.builtin == constant::kStarred) {
        return false;
      }
      Statement below(db, (std::string(kSubtree) + "SELECT 1 FROM subtree WHERE id = ?2").c_str());
      below.Bind(1, id).Bind(2, parent_id);
      if (below.Step()) return false;
    }
    if (parent_id != 0) {
      MailboxRow parent;
      if (!store::LoadMailbox(db, parent_id, &parent)) return false;
      parent_path = parent.raw_path + "/";
    }
    std::string path = parent_path + name;
    if (path != row.raw_path || parent_id != row.parent_id) {
      if (row.builtin >= 0 || PathTaken(db, parent_id, path, id)) return false;
      // The mailboxes below first: their paths cannot clash with anything,
      // since nothing is at the new path yet.
      Statement children(
          db, (std::string(kSubtree) + "UPDATE mailbox SET raw_path = ?2 || substr(raw_path, ?3) "
                                       "WHERE id IN (SELECT id FROM subtree) AND id <> ?1")
                  .c_str());
      children.Bind(1, id).Bind(2, path).Bind(3, static_cast<int64_t>(row.raw_path.size()) + 1);
      children.Run();
      Statement move(db,
                     "UPDATE mailbox SET parent_id = nullif(?2, 0), raw_path = ?3, "
                     "last_modified = ?4 WHERE id = ?1");
      move.Bind(1, id).Bind(2, parent_id).Bind(3, path).Bind(4, store::Now());
      move.Run();
    }
    if (config.subscribed.IsSet() && config.subscribed.Get() != row.subscribed) {
      Statement subscribe(db,
                          "UPDATE mailbox SET subscribed = ?2, last_modified = ?3 WHERE id = ?1");
      subscribe.Bind(1, id).Bind(2, config.subscribed.Get()).Bind(3, store::Now());
      subscribe.Run();
    }
    transaction.Commit();
    return true;
  });
}

bool MailboxControl::Delete(int id) {
  Database& db = controller_.impl().db();
  return store::Guard("deleting a mailbox", [&] {
    store::Transaction transaction(db);
    MailboxRow row;
    if (!store::LoadMailbox(db, id, &row) || row.builtin >= 0) return false;
    Statement messages(db, (std::string(kSubtree) +
                            "DELETE FROM message WHERE mailbox_id IN (SELECT id FROM subtree)")
                               .c_str());
    messages.Bind(1, id);
    messages.Run();
    Statement mailboxes(
        db, (std::string(kSubtree) + "DELETE FROM mailbox WHERE id IN (SELECT id FROM subtree)")
                .c_str());
    mailboxes.Bind(1, id);
    mailboxes.Run();
    transaction.Commit();
    return true;
  });
}

}  // namespace ornic::larkpost::control
