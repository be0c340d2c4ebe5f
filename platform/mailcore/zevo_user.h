// A user of the appliance, as the core sees it.
#pragma once

#include <cstdint>
#include <string>

#include "platform/export.h"

namespace ornic::sdk {

// A snapshot of one user's account. Looking a user up never throws: an
// unknown uid or name gives a record with IsValid() false and uid()
// 4294967295.
class ZEVO_PLATFORM_API ZevoUser {
 public:
  explicit ZevoUser(uint32_t uid);
  explicit ZevoUser(const std::string& name);

  bool IsValid() const;
  uint32_t uid() const;
  const std::string& name() const;
  const std::string& domain() const;  // "localdomain" unless the account names one
  bool is_admin() const;
  // The user's own folder (the "home" share).
  std::string home() const;

  // Creates `name` (a relative path such as ".ORNIC/@tmp") below the user's
  // application directory, with every missing parent, and returns its
  // absolute path. Throws ornic::Error(kErrorNoSuchUser) for an invalid user
  // and ornic::Error(kErrorStorage) when the folder cannot be made.
  std::string PrepareUserLarkpostDir(const std::string& name) const;

 private:
  uint32_t uid_;
  std::string name_;
  std::string domain_;
  bool is_admin_ = false;
  bool valid_ = false;
};

}  // namespace ornic::sdk
