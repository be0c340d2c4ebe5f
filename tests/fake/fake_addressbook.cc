// The recording fake of the address book: what sending asks of it,
//   "addressbook::Controller 1026"
//   "ContactControl::CreateFromLarkpost 'Ann' 'ann@example.org'"
// Keeping contacts is the core's business, tested with the core.
#include <memory>
#include <string>

#include "platform/mailcore/addressbook.h"
#include "platform/mailcore/error.h"
#include "tests/fake/fake_core.h"

using larkpost::fake::Call;
using larkpost::fake::core;

namespace ornic::addressbook::control {

struct Controller::Impl {};

Controller::Controller(unsigned int uid) {
  Call("addressbook::Controller", std::to_string(uid));
  if (core().users.count(uid) == 0) throw ornic::Error(kErrorNoSuchUser);
  impl_ = std::make_unique<Impl>();
}

Controller::~Controller() = default;

ContactControl::ContactControl(Controller& controller) : controller_(controller) {}

int ContactControl::CreateFromLarkpost(const std::string& name, const std::string& email) {
  return Call("ContactControl::CreateFromLarkpost", "'" + name + "' '" + email + "'") ? 1 : 0;
}

}  // namespace ornic::addressbook::control
