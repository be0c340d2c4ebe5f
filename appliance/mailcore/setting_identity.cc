// Sending identities (smtp_account) and the POP3 policy as the user's
// settings see it. Passwords are stored sealed (secret_box.h) and opened
// only by the send code, for their own server.
#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/pop3_policy.h"
#include "appliance/mailcore/secret_box.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/global_setting.h"

namespace ornic::larkpost::control {
namespace {

using store::Database;
using store::Statement;

bool IsAddress(const std::string& text) {
  const std::string address = MailAddress(text).GetEmail();
  return address.find('@') != std::string::npos;
}

// Whether every member that is set holds a value the sending code can use.
bool InRange(const SMTPConfigure& config) {
  auto empty = [](const ConfigField<std::string>& field) {
    return field.IsSet() && field.Get().empty();
  };
  return !empty(config.display_name) && !empty(config.host_name) &&
         (!config.mail.IsSet() || IsAddress(config.mail.Get())) &&
         (!config.port.IsSet() || (config.port.Get() > 0 && config.port.Get() <= 65535)) &&
         (!config.connection_type.IsSet() ||
          (config.connection_type.Get() >= 0 && config.connection_type.Get() <= 2));
}

bool Exists(Database& db, int id) {
  Statement row(db, "SELECT 1 FROM smtp_account WHERE id = ?1");
  row.Bind(1, id);
  return row.Step();
}

// The statement's parameter `index` gets the member's value when it is set
// (else NULL: the column keeps its value).
template <typename T>
void BindSet(Statement& statement, int index, const ConfigField<T>& field) {
  if (field.IsSet()) statement.Bind(index, field.Get());
}

}  // namespace

std::vector<record::SMTPConfig> SettingControl::ListSMTP() const {
  Database& db = controller_.impl().db();
  return store::Guard("listing the sending identities", [&] {
    store::SealPlainSecrets(db, "smtp_account", "password");
    Statement rows(db,
                   "SELECT id, display_name, mail, host_name, port, user_name, connection_type,"
                   " signature FROM smtp_account ORDER BY id");
    std::vector<record::SMTPConfig> list;
    while (rows.Step()) {
      record::SMTPConfig config;
      config.id = rows.Int(0);
      config.display_name = rows.Text(1);
      config.mail = rows.Text(2);
      config.host_name = rows.Text(3);
      config.port = static_cast<uint32_t>(rows.Int(4));
      config.user_name = rows.Text(5);
      config.connection_type = rows.Int(6);
      config.signature = rows.Text(7);
      list.push_back(std::move(config));
    }
    return list;
  });
}

int SettingControl::DefaultIDSMTP() const {
  Database& db = controller_.impl().db();
  return store::Guard("reading the default identity", [&] {
    Statement row(db, "SELECT id FROM smtp_account WHERE is_default <> 0 ORDER BY id LIMIT 1");
    return row.Step() ? row.Int(0) : 0;
  });
}

int SettingControl::CreateSMTP(const SMTPConfigure& config) {
  if (!config.display_name.IsSet() || !config.mail.IsSet() || !config.host_name.IsSet() ||
      !config.port.IsSet() || !config.connection_type.IsSet() || !InRange(config)) {
    return 0;
  }
  const std::string password = store::SealSecret(config.password.Get());
  Database& db = controller_.impl().db();
  return store::Guard("creating a sending identity", [&] {
    store::Transaction transaction(db);
    Statement insert(
        db,
        "INSERT INTO smtp_account(display_name, mail, host_name, port, user_name,"
        " password, connection_type, signature) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)");
    insert.Bind(1, config.display_name.Get()).Bind(2, MailAddress(config.mail.Get()).GetEmail());
    insert.Bind(3, config.host_name.Get()).Bind(4, config.port.Get());
    insert.Bind(5, config.user_name.Get()).Bind(6, password);
    insert.Bind(7, config.connection_type.Get()).Bind(8, config.signature.Get());
    insert.Run();
    const int id = static_cast<int>(db.LastInsertRowid());
    transaction.Commit();
    return id;
  });
}

bool SettingControl::ModifySMTP(int id, const SMTPConfigure& config) {
  if (!InRange(config)) return false;
  // Sealed before the transaction: the key may have to be made first.
  const std::string password =
      config.password.IsSet() ? store::SealSecret(config.password.Get()) : "";
  Database& db = controller_.impl().db();
  return store::Guard("changing a sending identity", [&] {
    store::Transaction transaction(db);
    if (!Exists(db, id)) return false;
    Statement update(db,
                     "UPDATE smtp_account SET"
                     " display_name = ifnull(?2, display_name), mail = ifnull(?3, mail),"
                     " host_name = ifnull(?4, host_name), port = ifnull(?5, port),"
                     " user_name = ifnull(?6, user_name), password = ifnull(?7, password),"
                     " connection_type = ifnull(?8, connection_type),"
                     " signature = ifnull(?9, signature) WHERE id = ?1");
    update.Bind(1, id);
    BindSet(update, 2, config.display_name);
    if (config.mail.IsSet()) update.Bind(3, MailAddress(config.mail.Get()).GetEmail());
    BindSet(update, 4, config.host_name);
    BindSet(update, 5, config.port);
    BindSet(update, 6, config.user_name);
    if (config.password.IsSet()) update.Bind(7, password);
    BindSet(update, 8, config.connection_type);
    BindSet(update, 9, config.signature);
    update.Run();
    transaction.Commit();
    return true;
  });
}

bool SettingControl::DeleteSMTP(const std::vector<int>& ids) {
  Database& db = controller_.impl().db();
  return store::Guard("deleting sending identities", [&] {
    store::Transaction transaction(db);
    Statement remove(db, "DELETE FROM smtp_account WHERE id = ?1");
    for (int id : ids) {
      remove.Bind(1, id);
      remove.Run();
      if (db.Changes() == 0) return false;  // rolled back: none is deleted
      remove.Reset();
    }
    transaction.Commit();
    return true;
  });
}

bool SettingControl::SetDefaultSMTP(int id) {
  Database& db = controller_.impl().db();
  return store::Guard("choosing the default identity", [&] {
    store::Transaction transaction(db);
    if (!Exists(db, id)) return false;
    Statement update(db, "UPDATE smtp_account SET is_default = (id = ?1)");
    update.Bind(1, id).Run();
    transaction.Commit();
    return true;
  });
}

bool SettingControl::IsEnablePOP3() const {
  const record::GlobalPOP3Config policy =
      global_control::SettingControl(controller_.zevo_user().domain()).GetPOP3Config();
  return policy.IsValid() && policy.enable_pop3;
}

}  // namespace ornic::larkpost::control

namespace ornic::larkpost::global_control {

SettingControl::SettingControl(const std::string& domain) : domain_(domain) {}

record::GlobalPOP3Config SettingControl::GetPOP3Config() const {
  record::GlobalPOP3Config config;
  if (std::optional<store::Pop3Policy> policy = store::ReadPop3Policy(domain_)) {
    config.enable_pop3 = policy->enable;
    config.pop3_fetch_period = policy->period;
    config.valid = true;
  }
  return config;
}

bool SettingControl::SetPOP3Config(const POP3Config& config) const {
  std::optional<uint32_t> period;
  if (config.pop3_fetch_period) {
    if (*config.pop3_fetch_period <= 0) return false;
    period = static_cast<uint32_t>(*config.pop3_fetch_period);
  }
  return store::WritePop3Policy(domain_, config.enable_pop3, period);
}

}  // namespace ornic::larkpost::global_control
