// A filter run over a user's stored mail: the work of a filter task in the
// core's background service. Every stored message but drafts is examined
// (only those of one mailbox when every condition must hold and one is a
// "mailbox" condition), in batches, each batch one transaction that tests
// the conditions and carries out the actions on the messages that meet
// them. A run stopped between batches (cancelled, or the process killed)
// leaves each message either untouched or changed by every action.
//
// The actions, in their order, on the messages that match: "set_read" and
// "set_star" set the flag; "set_label" and "remove_label" label or unlabel
// the message's thread; "move_to", "archive" and "trash" name the mailbox
// the message ends in (the last one named wins); "delete" deletes it as a
// thread delete does (to trash, or for good when it is in trash already),
// whatever a move named. "redirect" is never carried out over stored mail:
// forwarding old mail in bulk is never what a user means. An action whose
// label or mailbox no longer exists is skipped; the others still apply.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "platform/mailcore/record.h"

namespace ornic::larkpost::store {

class FilterRun {
 public:
  // Messages per batch: a batch holds the store's write lock for a few
  // milliseconds, and a cancel waits for at most one.
  static constexpr size_t kBatchSize = 500;

  // A run of the serialised sets (record::ConditionSet and ActionSet text
  // forms); null when either text cannot be read.
  static std::unique_ptr<FilterRun> FromText(const std::string& conditions,
                                             const std::string& actions);
  FilterRun(record::ConditionSet conditions, record::ActionSet actions);

  // Opens the store of `uid` and lists the messages to examine; returns how
  // many there are. Throws (the store cannot be opened or read).
  uint32_t Prepare(uint32_t uid);
  // Examines the next batch of at most `batch_size` messages in one
  // transaction; returns how many it examined, 0 when none is left. Throws
  // when the store fails (the batch is then rolled back).
  uint32_t NextBatch(size_t batch_size = kBatchSize);
  // "examined N of M, matched K, changed C, skipped actions: S" for the
  // log.
  std::string Summary() const;

 private:
  void Apply(Database& db, const std::string& matched);

  record::ConditionSet conditions_;
  record::ActionSet actions_;
  std::unique_ptr<Database> db_;
  std::vector<int> ids_;
  size_t next_ = 0;
  uint64_t matched_ = 0;
  uint64_t changed_ = 0;
  std::vector<bool> skipped_;  // per action: skipped in some batch
};

// The messages among `ids` (a JSON array of message ids), drafts left out,
// that meet every condition (any, with `match_any`; no condition: every
// one), each condition read as the thread search reads it. Defined beside
// the search.
std::vector<int> MatchingMessages(Database& db, const std::vector<record::Condition>& conditions,
                                  bool match_any, const std::string& ids);

}  // namespace ornic::larkpost::store
