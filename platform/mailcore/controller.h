// A user's session with the mail core. Every control object of the core is
// built on one and reaches the user's store through it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/export.h"
#include "platform/mailcore/zevo_user.h"

namespace ornic::larkpost::control {

class ZEVO_PLATFORM_API Controller {
 public:
  // Opens a session of user `uid`. Throws ornic::Error(kErrorNoSuchUser) when
  // `uid` is not a user (4294967295, the unknown uid, never is). The user's
  // store is opened on first use, not here: a session can exist before the
  // store does.
  Controller(uint32_t uid, std::string session_id);
  explicit Controller(uint32_t uid);
  ~Controller();
  Controller(const Controller&) = delete;
  Controller& operator=(const Controller&) = delete;

  uint32_t uid() const;
  const std::string& session_id() const;
  const sdk::ZevoUser& zevo_user() const;

  // Lets go of the store connection, so that slow work that follows (an
  // external program) holds no database handle. The next operation opens
  // the store again.
  void CloseDatabaseConnection();

  // The implementation's own state (the store connection); only the core's
  // control objects use it.
  struct Impl;
  Impl& impl() const;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace ornic::larkpost::control
