// Creation and upgrade of a user's mail store.
#pragma once

#include <cstdint>

#include "platform/export.h"

namespace ornic::larkpost::db {

class ZEVO_PLATFORM_API DBSetupHandler {
 public:
  explicit DBSetupHandler(uint32_t uid);

  // True when the user's store has been created (whatever its schema).
  bool DoesDBExist() const;

  // Creates the store, or brings an existing one to the newest schema, each
  // step of the upgrade in its own transaction. True when the store is ready;
  // false (and the reason logged) when it cannot be, in which case a schema
  // step that failed has left nothing behind.
  bool SetupDB() const;

 private:
  uint32_t uid_;
};

}  // namespace ornic::larkpost::db
