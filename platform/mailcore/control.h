// The core's operations on a user's mail, each built on the user's
// Controller. Every change happens in one transaction of the user's store:
// an operation that fails changes nothing. Operations report a failure by
// their result (false, an id of 0, an empty list) as each one says; an
// ornic::Error leaves them only when the store itself fails (502).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/export.h"
#include "platform/mailcore/controller.h"
#include "platform/mailcore/record.h"
#include "platform/mailcore/util.h"

namespace ornic::larkpost::control {

// One member of a change record: a value and whether the request gave it.
template <typename T>
class ConfigField {
 public:
  void Set(T value) {
    value_ = std::move(value);
    set_ = true;
  }
  bool IsSet() const { return set_; }
  const T& Get() const { return value_; }

 private:
  T value_{};
  bool set_ = false;
};

// The changes to a mailbox; a default record changes nothing.
struct MailboxConfig {
  ConfigField<bool> subscribed;
  ConfigField<int32_t> parent_id;  // 0: top level
  ConfigField<std::string> name;   // the last level of the path, UTF-8
};

// A label's fields to create or change.
struct LabelConfig {
  ConfigField<std::string> name;
  ConfigField<std::string> text_color;
  ConfigField<std::string> background_color;
};

// An address as written in a header: "Ann Example <ann@example.org>",
// "ann@example.org", "\"Example, Ann\" <ann@example.org>", "ann@example.org
// (Ann)" (the comment is the name). Of a list, the first address is read.
class ZEVO_PLATFORM_API MailAddress {
 public:
  explicit MailAddress(const std::string& text);
  // The bare address ("ann@example.org"); "" when the text holds none.
  const std::string& GetEmail() const;
  // The display name without quotes; "" when there is none.
  const std::string& GetName() const;

 private:
  std::string email_;
  std::string name_;
};

class ZEVO_PLATFORM_API ThreadControl {
 public:
  explicit ThreadControl(Controller& controller);

  // The threads of `ids` that exist, in the order of `ids`, each with its
  // messages (oldest first; each with its listed attachments, not the inline
  // ones) and labels.
  std::vector<record::Thread> List(const std::vector<int>& ids);
  // Those of `ids` that exist and, when given, have a message in `mailbox`
  // and carry `label`; in the order of `ids`.
  std::vector<int> GetExistingThread(const std::vector<int>& ids,
                                     const util::optional<int>& mailbox, util::optional<int> label);
  // Threads outside trash move to trash (their drafts too); threads in trash
  // are deleted for good with their messages. False when an id is unknown.
  bool DeleteTrash(const std::vector<int>& ids);
  // False when a thread or a label is unknown.
  bool AddLabel(const std::vector<int>& ids, const std::vector<int>& label_ids);
  bool RemoveLabel(const std::vector<int>& ids, const std::vector<int>& label_ids);
  // Moves every message of the threads but drafts to `mailbox_id`. False
  // when a thread or the mailbox is unknown, or the mailbox is virtual.
  bool SetMailbox(const std::vector<int>& ids, int mailbox_id);

 private:
  Controller& controller_;
};

class ZEVO_PLATFORM_API MessageControl {
 public:
  explicit MessageControl(Controller& controller);

  // The messages of `ids` that exist, in the order of `ids`.
  std::vector<record::FullMessage> GetFullMessages(const std::vector<int>& ids);
  // The message as it arrived, byte for byte; "" when unknown.
  std::string OriginalContent(int id);
  // False when an id is unknown (then nothing changes).
  bool SetStarByID(const std::vector<int>& ids, int star);
  bool SetReadByID(const std::vector<int>& ids, bool read);
  bool SetReadByThreadID(const std::vector<int>& thread_ids, bool read);
  // False when an id or the mailbox is unknown, or the mailbox is virtual.
  // Drafts move too. Moving a message that is in trash to trash deletes it
  // for good: the one way to delete a single message.
  bool SetMailbox(const std::vector<int>& ids, int mailbox_id);
  // Deletes every message of the mailbox for good. False when the mailbox
  // is unknown.
  bool DeleteByMailbox(int mailbox_id);

 private:
  Controller& controller_;
};

class ZEVO_PLATFORM_API MailboxControl {
 public:
  explicit MailboxControl(Controller& controller);

  // Every mailbox, built-in ones first (by id), then the user's by path;
  // counts loaded as asked (else -1).
  std::vector<record::Mailbox> List(bool unread, bool total);
  // Invalid when unknown.
  record::Mailbox Get(int id);
  // The new mailbox's id; 0 when the parent is unknown or virtual, or a
  // sibling has the name.
  int Create(int parent_id, const std::string& name, bool subscribed);
  // False when unknown, a built-in mailbox would be renamed or moved, the
  // new parent is the mailbox or below it, or a sibling has the name.
  bool Modify(int id, const MailboxConfig& config);
  // Deletes a user's mailbox, the mailboxes below it and their messages.
  // False for a built-in or unknown mailbox.
  bool Delete(int id);

 private:
  Controller& controller_;
};

class ZEVO_PLATFORM_API LabelControl {
 public:
  explicit LabelControl(Controller& controller);

  // The new label's id; 0 when a field is missing or a colour is not one.
  int Create(const LabelConfig& config);
  // False when unknown or a given colour is not one.
  bool Modify(int id, const LabelConfig& config);
  // False when an id is unknown (then none is deleted).
  bool Delete(const std::vector<int>& ids);
  // The labels of `ids` that exist, in the order of `ids`.
  std::vector<record::Label> Get(const std::vector<int>& ids, bool unread);
  // Every label, by name.
  std::vector<record::Label> List(bool unread);

 private:
  Controller& controller_;
};

// Finds threads. A thread matches when one of its messages meets every
// condition (any, with match_any). Threads come newest first by their latest
// matching arrival, the thread id breaking ties.
class ZEVO_PLATFORM_API SearchControl {
 public:
  explicit SearchControl(Controller& controller);

  void SetOffset(int32_t offset);
  void SetLimit(int32_t limit);  // -1: no limit
  // Only messages that arrived strictly before `time` count.
  void SetMaxArrivalBefore(int64_t time);
  void SetConditions(const std::vector<record::Condition>& conditions, bool match_any);

  // Fills `ids` with the threads of the page; returns how many threads
  // match in all.
  uint32_t Search(std::vector<int>& ids);

 private:
  Controller& controller_;
  int32_t offset_ = 0;
  int32_t limit_ = -1;
  util::optional<int64_t> max_arrival_before_;
  std::vector<record::Condition> conditions_;
  bool match_any_ = false;
};

}  // namespace ornic::larkpost::control
