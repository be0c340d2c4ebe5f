// The recording fake of the address book, over fake::Core's contacts:
//   "addressbook::Controller 1026"
//   "ContactControl::CreateFromLarkpost 'Ann' 'ann@example.org'"
//   "ContactControl::List"
#include <algorithm>
#include <cctype>
#include <memory>
#include <string>
#include <vector>

#include "platform/mailcore/addressbook.h"
#include "platform/mailcore/error.h"
#include "tests/fake/fake_core.h"

using larkpost::fake::Call;
using larkpost::fake::core;

namespace ornic::addressbook::control {

namespace {

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

}  // namespace

struct Controller::Impl {
  unsigned int uid;
};

Controller::Controller(unsigned int uid) {
  Call("addressbook::Controller", std::to_string(uid));
  if (core().users.count(uid) == 0) throw ornic::Error(kErrorNoSuchUser);
  impl_ = std::make_unique<Impl>(Impl{uid});
}

Controller::~Controller() = default;

unsigned int Controller::uid() const { return impl_->uid; }

Controller::Impl& Controller::impl() const { return *impl_; }

ContactControl::ContactControl(Controller& controller) : controller_(controller) {}

int ContactControl::CreateFromLarkpost(const std::string& name, const std::string& email) {
  if (!Call("ContactControl::CreateFromLarkpost", "'" + name + "' '" + email + "'")) return 0;
  if (email.empty()) return 0;
  std::vector<Contact>& contacts = core().contacts;
  for (Contact& contact : contacts) {
    if (Lower(contact.email) != Lower(email)) continue;
    if (contact.name.empty()) contact.name = name;
    return contact.id;
  }
  contacts.push_back(Contact{static_cast<int32_t>(contacts.size()) + 1, name, email});
  return contacts.back().id;
}

std::vector<Contact> ContactControl::List() {
  if (!Call("ContactControl::List")) return {};
  std::vector<Contact> sorted = core().contacts;
  std::sort(sorted.begin(), sorted.end(),
            [](const Contact& a, const Contact& b) { return Lower(a.email) < Lower(b.email); });
  return sorted;
}

}  // namespace ornic::addressbook::control
