// The address book lives in the user's mail store (table contact), so that
// a contact made by sending is committed with nothing else to open.
#include "platform/mailcore/addressbook.h"

#include <memory>
#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "platform/mailcore/error.h"
#include "platform/mailcore/util.h"
#include "platform/mailcore/zevo_user.h"

namespace ornic::addressbook::control {

namespace store = ::ornic::larkpost::store;

struct Controller::Impl {
  explicit Impl(unsigned int uid) : uid(uid) {}

  // The user's store, taken on first use. Throws ornic::Error(502) when it
  // cannot be opened.
  store::Database& db() {
    if (!connection) {
      connection = store::Guard("opening the store of user " + std::to_string(uid),
                                [&] { return store::Connection(uid, false); });
    }
    return *connection;
  }

  unsigned int uid;
  std::shared_ptr<store::Database> connection;
};

Controller::Controller(unsigned int uid) {
  if (!ornic::sdk::ZevoUser(uid).IsValid()) throw Error(kErrorNoSuchUser);
  impl_ = std::make_unique<Impl>(uid);
}

Controller::~Controller() = default;

unsigned int Controller::uid() const { return impl_->uid; }

Controller::Impl& Controller::impl() const { return *impl_; }

ContactControl::ContactControl(Controller& controller) : controller_(controller) {}

namespace {

// Addresses are compared without regard to case, all of them: the local
// part is the receiving server's business, and no user keeps two contacts
// that differ only in case.
std::string EmailKey(const std::string& email) {
  std::string key = email;
  for (char& c : key) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return key;
}

}  // namespace

int ContactControl::CreateFromLarkpost(const std::string& name, const std::string& email) {
  std::string address = ornic::util::Trim(email);
  if (address.empty()) return 0;
  std::string display = ornic::util::Trim(name);
  store::Database& db = controller_.impl().db();
  return store::Guard("adding a contact", [&] {
    store::Transaction transaction(db);
    store::Statement upsert(db,
                            "INSERT INTO contact(name, email, email_key) VALUES (?1, ?2, ?3) "
                            "ON CONFLICT(email_key) DO UPDATE SET name = excluded.name "
                            "WHERE contact.name = '' AND excluded.name <> ''");
    upsert.Bind(1, display).Bind(2, address).Bind(3, EmailKey(address));
    upsert.Run();
    store::Statement id(db, "SELECT id FROM contact WHERE email_key = ?1");
    id.Bind(1, EmailKey(address));
    id.Step();
    int contact = id.Int(0);
    transaction.Commit();
    return contact;
  });
}

std::vector<Contact> ContactControl::List() {
  store::Database& db = controller_.impl().db();
  return store::Guard("listing contacts", [&] {
    store::Statement rows(db, "SELECT id, name, email FROM contact ORDER BY email_key, id");
    std::vector<Contact> contacts;
    while (rows.Step()) {
      Contact contact;
      contact.id = rows.Int(0);
      contact.name = rows.Text(1);
      contact.email = rows.Text(2);
      contacts.push_back(std::move(contact));
    }
    return contacts;
  });
}

}  // namespace ornic::addressbook::control
