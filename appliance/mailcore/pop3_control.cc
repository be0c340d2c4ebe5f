// The user's POP3 fetch accounts (SettingControl): kept in the user's store
// with their passwords sealed; the fetcher (fetch/) reads them back through
// pop3_store.h.
#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/pop3_store.h"
#include "appliance/mailcore/secret_box.h"
#include "platform/mailcore/control.h"

namespace ornic::larkpost::control {
namespace {

using store::Database;
using store::Statement;

// Whether every value that is set means something: addresses and names
// not empty, a port, no negative choices, a mailbox that holds mail.
bool InRange(Controller& controller, const POP3Configure& config) {
  auto empty = [](const ConfigField<std::string>& field) {
    return field.IsSet() && field.Get().empty();
  };
  auto negative = [](const ConfigField<int32_t>& field) {
    return field.IsSet() && field.Get() < 0;
  };
  if (empty(config.mail) || empty(config.host_name) || empty(config.user_name) ||
      negative(config.server_provider) || negative(config.fetch_pass_days)) {
    return false;
  }
  if (config.port.IsSet() && (config.port.Get() < 1 || config.port.Get() > 65535)) return false;
  return !config.mailbox_path.IsSet() ||
         store::FetchMailboxId(controller, config.mailbox_path.Get()) > 0;
}

}  // namespace

std::vector<record::POP3Config> SettingControl::ListPOP3() const {
  std::vector<record::POP3Config> list;
  for (const store::Pop3Account& account : store::LoadPop3Accounts(controller_.impl().db())) {
    record::POP3Config config;
    config.id = account.id;
    config.mail = account.mail;
    config.server_provider = account.server_provider;
    config.host_name = account.host_name;
    config.port = static_cast<uint32_t>(account.port);
    config.user_name = account.user_name;
    config.enable_ssl = account.enable_ssl;
    config.delete_after_fetch = account.delete_after_fetch;
    config.mailbox_path = account.mailbox_path;
    config.fetch_pass_days = account.fetch_pass_days;
    config.last_fetch_time = account.last_fetch_time;
    config.last_error = account.last_error;
    list.push_back(std::move(config));
  }
  return list;
}

int SettingControl::CreatePOP3(const POP3Configure& config) {
  if (!config.mail.IsSet() || !config.server_provider.IsSet() || !config.host_name.IsSet() ||
      !config.port.IsSet() || !config.user_name.IsSet() || !config.password.IsSet() ||
      !config.enable_ssl.IsSet() || !config.delete_after_fetch.IsSet() ||
      !config.mailbox_path.IsSet() || !config.fetch_pass_days.IsSet() ||
      !InRange(controller_, config)) {
    return 0;
  }
  const std::string sealed = store::SealSecret(config.password.Get());
  Database& db = controller_.impl().db();
  return store::Guard("creating a POP3 account", [&] {
    store::Transaction transaction(db);
    Statement insert(db,
                     "INSERT INTO pop3_account(mail, server_provider, host_name, port, user_name,"
                     " password, enable_ssl, delete_after_fetch, mailbox_path, fetch_pass_days)"
                     " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10)");
    insert.Bind(1, config.mail.Get()).Bind(2, config.server_provider.Get());
    insert.Bind(3, config.host_name.Get()).Bind(4, config.port.Get());
    insert.Bind(5, config.user_name.Get()).Bind(6, sealed);
    insert.Bind(7, config.enable_ssl.Get()).Bind(8, config.delete_after_fetch.Get());
    insert.Bind(9, config.mailbox_path.Get()).Bind(10, config.fetch_pass_days.Get());
    insert.Run();
    const int id = static_cast<int>(db.LastInsertRowid());
    transaction.Commit();
    return id;
  });
}

// Another server or login is another maildrop: what the account remembers
// of the old one no longer applies, and its next fetch is a first one.
bool SettingControl::ModifyPOP3(int id, const POP3Configure& config) {
  if (!InRange(controller_, config)) return false;
  const std::string sealed =
      config.password.IsSet() ? store::SealSecret(config.password.Get()) : "";
  Database& db = controller_.impl().db();
  return store::Guard("changing a POP3 account", [&] {
    store::Transaction transaction(db);
    Statement old(db, "SELECT host_name, port, user_name FROM pop3_account WHERE id = ?1");
    old.Bind(1, id);
    if (!old.Step()) return false;
    const bool new_maildrop = (config.host_name.IsSet() && config.host_name.Get() != old.Text(0)) ||
                              (config.port.IsSet() && config.port.Get() != old.Int(1)) ||
                              (config.user_name.IsSet() && config.user_name.Get() != old.Text(2));
    // A value that is not set stays (?N IS NULL keeps the column).
    Statement update(db,
                     "UPDATE pop3_account SET"
                     " mail = ifnull(?2, mail),"
                     " server_provider = ifnull(?3, server_provider),"
                     " host_name = ifnull(?4, host_name),"
                     " port = ifnull(?5, port),"
                     " user_name = ifnull(?6, user_name),"
                     " password = ifnull(?7, password),"
                     " enable_ssl = ifnull(?8, enable_ssl),"
                     " delete_after_fetch = ifnull(?9, delete_after_fetch),"
                     " mailbox_path = ifnull(?10, mailbox_path),"
                     " fetch_pass_days = ifnull(?11, fetch_pass_days),"
                     " first_fetch_done = first_fetch_done AND NOT ?12"
                     " WHERE id = ?1");
    auto bind = [&](int index, const auto& field) {
      if (field.IsSet()) update.Bind(index, field.Get());
    };
    update.Bind(1, id);
    bind(2, config.mail);
    bind(3, config.server_provider);
    bind(4, config.host_name);
    bind(5, config.port);
    bind(6, config.user_name);
    if (config.password.IsSet()) update.Bind(7, sealed);
    bind(8, config.enable_ssl);
    bind(9, config.delete_after_fetch);
    bind(10, config.mailbox_path);
    bind(11, config.fetch_pass_days);
    update.Bind(12, new_maildrop);
    update.Run();
    if (new_maildrop) {
      Statement forget(db, "DELETE FROM pop3_uidl WHERE account_id = ?1");
      forget.Bind(1, id).Run();
    }
    transaction.Commit();
    return true;
  });
}

bool SettingControl::DeletePOP3(const std::vector<int>& ids) {
  Database& db = controller_.impl().db();
  return store::Guard("deleting POP3 accounts", [&] {
    store::Transaction transaction(db);
    // The remembered UIDLs go with their account (ON DELETE CASCADE).
    Statement remove(db, "DELETE FROM pop3_account WHERE id = ?1");
    for (int id : ids) {
      remove.Bind(1, id).Run();
      if (db.Changes() == 0) return false;  // rolled back: none is deleted
      remove.Reset();
    }
    transaction.Commit();
    return true;
  });
}

}  // namespace ornic::larkpost::control
