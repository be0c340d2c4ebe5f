// The core's enumerations and fixed ids.
#pragma once

namespace ornic::larkpost::constant {

// What a background synchronisation brings up to date.
enum SyncType : int {
  kSyncFilter = 0,        // server-side filters (and mail the filters act on)
  kSyncLabel = 1,         // labels
  kSyncSetting = 2,       // general, SMTP and POP3 settings
  kSyncForwardReply = 3,  // forwarding and auto-reply
};

// The built-in mailboxes, in the core's numbering. kStarred is virtual: it
// has an id but holds no message of its own.
enum BuiltinMailbox : int {
  kInbox = 0,
  kDrafts = 1,
  kSent = 2,
  kArchived = 3,
  kJunk = 4,
  kTrash = 5,
  kStarred = 6,
  kBuiltinMailboxCount = 7,
};

}  // namespace ornic::larkpost::constant

namespace ornic::larkpost::control {

// Fixed mailbox ids of the built-in mailboxes: id<N>() is the id of
// BuiltinMailbox N. Mailboxes that users create get ids above these.
struct DefaultMailbox {
  template <int N>
  static constexpr int id() {
    static_assert(N >= 0 && N < constant::kBuiltinMailboxCount, "not a built-in mailbox");
    return N + 1;
  }
};

}  // namespace ornic::larkpost::control
