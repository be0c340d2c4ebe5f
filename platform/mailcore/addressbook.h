// The address book: the user's contacts, which sending fills.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/export.h"

namespace ornic::addressbook {

struct ZEVO_PLATFORM_API Contact {
  int32_t id = 0;
  std::string name;   // display name, "" when none is known
  std::string email;  // bare address
};

namespace control {

// A user's session with the address book. Throws ornic::Error(501) when
// `uid` is not a user.
class ZEVO_PLATFORM_API Controller {
 public:
  explicit Controller(unsigned int uid);
  ~Controller();
  Controller(const Controller&) = delete;
  Controller& operator=(const Controller&) = delete;

  unsigned int uid() const;

  struct Impl;
  Impl& impl() const;

 private:
  std::unique_ptr<Impl> impl_;
};

class ZEVO_PLATFORM_API ContactControl {
 public:
  explicit ContactControl(Controller& controller);

  // Keeps one contact per address (compared without regard to case): a new
  // address becomes a contact; a known one gets `name` when it had none.
  // Returns the contact's id; 0 when `email` is empty.
  int CreateFromLarkpost(const std::string& name, const std::string& email);
  // Every contact, by address.
  std::vector<Contact> List();

 private:
  Controller& controller_;
};

}  // namespace control
}  // namespace ornic::addressbook
