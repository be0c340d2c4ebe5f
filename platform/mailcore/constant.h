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

// Kinds of search and filter conditions. The numbers are stored in filters
// and sent to the filter service: never renumber them.
enum ConditionKey : int {
  kConditionMailbox = 1,         // a mailbox id
  kConditionFrom = 2,            // text in From
  kConditionTo = 3,              // text in To or Cc
  kConditionSubject = 4,         // text in Subject
  kConditionBefore = 5,          // arrived before a Unix time (seconds)
  kConditionAfter = 6,           // arrived after a Unix time
  kConditionLarger = 7,          // larger than a size in bytes
  kConditionSmaller = 8,         // smaller than a size in bytes
  kConditionUnread = 9,          // "true" or "false"
  kConditionKeyword = 10,        // full-text match
  kConditionModifiedAfter = 11,  // changed after a Unix time
  kConditionHasAttachment = 12,  // "true" or "false"
  kConditionStarred = 13,        // "true" or "false"
  kConditionLabel = 14,          // a label id
};

// Kinds of filter actions; fixed numbers, as for ConditionKey.
enum ActionKind : int {
  kActionNone = 0,  // no kind: an action that is not valid
  kActionArchive = 1,
  kActionSetRead = 2,
  kActionSetStar = 3,
  kActionSetLabel = 4,
  kActionMoveTo = 5,
  kActionRedirect = 6,
  kActionTrash = 7,
  kActionDelete = 8,
  kActionRemoveLabel = 9,
};

// How a message's HTML body is prepared: 0 for editing a draft, 1 for
// reading, 2 for reading with the quoted blocks split out.
enum HTMLBodyFormat : int {
  kHTMLBodyEdit = 0,
  kHTMLBodyRead = 1,
  kHTMLBodyReadSplitQuote = 2,
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
