// Synchronisation and upkeep of a user's mailboxes.
#pragma once

#include "platform/export.h"
#include "platform/mailcore/constant.h"
#include "platform/mailcore/controller.h"

namespace ornic::larkpost::control {

// Hands a synchronisation of one kind to the core's background work and
// returns at once; the request is recorded with its time whatever the
// background work makes of it. Throws ornic::Error when the request cannot
// be recorded.
class ZEVO_PLATFORM_API Syncer {
 public:
  explicit Syncer(Controller& controller);
  void TriggerSync(constant::SyncType type);

 private:
  Controller& controller_;
};

class ZEVO_PLATFORM_API MailboxSyncer {
 public:
  // Creates every built-in mailbox that the user's store lacks, with its
  // fixed id, in one transaction. Throws ornic::Error(kErrorDatabase) when
  // the store cannot be changed.
  static void CheckDefaultMailbox(Controller& controller);
};

class ZEVO_PLATFORM_API UpdateControl {
 public:
  explicit UpdateControl(Controller& controller);

  // Recomputes the stored counters (messages, unread messages) of every
  // mailbox from the messages themselves, in one transaction; with `notify`
  // the user's listeners are told afterwards. False when the store cannot be
  // changed (nothing is then changed).
  bool UpdateAllMailbox(bool notify);

 private:
  Controller& controller_;
};

}  // namespace ornic::larkpost::control
