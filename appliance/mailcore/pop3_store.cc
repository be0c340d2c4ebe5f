#include "appliance/mailcore/pop3_store.h"

#include <strings.h>

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "appliance/mailcore/secret_box.h"
#include "platform/mailcore/constant.h"
#include "platform/mailcore/control.h"

namespace ornic::larkpost::store {
namespace {

constexpr char kSelect[] =
    "SELECT id, mail, server_provider, host_name, port, user_name, password, enable_ssl,"
    " delete_after_fetch, mailbox_path, fetch_pass_days, first_fetch_done, last_fetch_time,"
    " last_error FROM pop3_account";

Pop3Account Read(const Statement& row) {
  Pop3Account account;
  account.id = row.Int(0);
  account.mail = row.Text(1);
  account.server_provider = row.Int(2);
  account.host_name = row.Text(3);
  account.port = row.Int(4);
  account.user_name = row.Text(5);
  account.password = OpenSecret(row.Text(6));
  account.enable_ssl = row.Int(7) != 0;
  account.delete_after_fetch = row.Int(8) != 0;
  account.mailbox_path = row.Text(9);
  account.fetch_pass_days = row.Int(10);
  account.first_fetch_done = row.Int(11) != 0;
  account.last_fetch_time = row.Int64(12);
  account.last_error = row.Text(13);
  return account;
}

}  // namespace

int FetchMailboxId(control::Controller& controller, const std::string& path) {
  constexpr int kInbox = control::DefaultMailbox::id<constant::kInbox>();
  constexpr int kStarred = control::DefaultMailbox::id<constant::kStarred>();
  if (path.empty() || strcasecmp(path.c_str(), "INBOX") == 0) return kInbox;
  const std::vector<record::Mailbox> mailboxes =
      control::MailboxControl(controller).List(false, false);
  for (const bool raw : {true, false}) {
    for (const record::Mailbox& mailbox : mailboxes) {
      if ((raw ? mailbox.path : mailbox.UTF8MailboxPath()) != path) continue;
      return mailbox.id == kStarred ? 0 : mailbox.id;
    }
  }
  return 0;
}

std::vector<Pop3Account> LoadPop3Accounts(Database& db) {
  return Guard("listing the POP3 accounts", [&] {
    Statement select(db, (std::string(kSelect) + " ORDER BY id").c_str());
    std::vector<Pop3Account> accounts;
    while (select.Step()) accounts.push_back(Read(select));
    return accounts;
  });
}

std::optional<Pop3Account> LoadPop3Account(Database& db, int id) {
  return Guard("reading a POP3 account", [&]() -> std::optional<Pop3Account> {
    Statement select(db, (std::string(kSelect) + " WHERE id = ?1").c_str());
    select.Bind(1, id);
    if (!select.Step()) return std::nullopt;
    return Read(select);
  });
}

std::set<std::string> RememberedUidls(Database& db, int account_id) {
  return Guard("reading the remembered UIDLs", [&] {
    Statement select(db, "SELECT uidl FROM pop3_uidl WHERE account_id = ?1");
    select.Bind(1, account_id);
    std::set<std::string> uidls;
    while (select.Step()) uidls.insert(select.Text(0));
    return uidls;
  });
}

void RememberUidl(Database& db, int account_id, const std::string& uidl) {
  Statement insert(db, "INSERT OR IGNORE INTO pop3_uidl(account_id, uidl) VALUES (?1, ?2)");
  insert.Bind(1, account_id).Bind(2, uidl).Run();
}

void ForgetUidlsExcept(Database& db, int account_id, const std::set<std::string>& listed) {
  Guard("forgetting UIDLs", [&] {
    Transaction transaction(db);
    Statement remove(db, "DELETE FROM pop3_uidl WHERE account_id = ?1 AND uidl = ?2");
    for (const std::string& uidl : RememberedUidls(db, account_id)) {
      if (listed.count(uidl) != 0) continue;
      remove.Bind(1, account_id).Bind(2, uidl).Run();
      remove.Reset();
    }
    transaction.Commit();
  });
}

void RecordFetch(Database& db, int account_id, int64_t when, const std::string& error,
                 bool first_done) {
  Guard("keeping a fetch's outcome", [&] {
    Transaction transaction(db);
    Statement update(db,
                     "UPDATE pop3_account SET last_fetch_time = ?2, last_error = ?3,"
                     " first_fetch_done = first_fetch_done OR ?4 WHERE id = ?1");
    update.Bind(1, account_id).Bind(2, when).Bind(3, error).Bind(4, first_done).Run();
    transaction.Commit();
  });
}

}  // namespace ornic::larkpost::store
