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

// A draft's fields to create or change; only the fields that are set
// change. Addresses are header texts ("Ann <ann@example.org>" or a bare
// address); "body" is the HTML the composer wrote (the plain text part is
// made from it).
struct MessageConfig {
  ConfigField<std::string> from;
  ConfigField<std::vector<std::string>> to;  // set and empty: no To any more
  ConfigField<std::vector<std::string>> cc;
  ConfigField<std::vector<std::string>> bcc;
  ConfigField<std::string> subject;
  ConfigField<std::string> body;
  // Ids of stored attachments that the draft keeps: its own, or those of the
  // message it refers to (a forward). Its own that are not listed go.
  ConfigField<std::vector<int>> attachment;
  // Ids of temporary attachments (AttachmentControl::AddAttachmentTemp) that
  // become the draft's own; each is used up by it.
  ConfigField<std::vector<int>> temp_attachment;
  // The message the draft answers or forwards (creation only).
  ConfigField<int32_t> refer_to;
  ConfigField<int32_t> draft_type;  // 0 new, 1 reply, 2 reply to all, 3 forward
};

// A filter rule to create or change: the sets that are set replace the
// stored ones.
struct FilterConfig {
  ConfigField<record::ConditionSet> condition;
  ConfigField<record::ActionSet> action;
};

// A temporary attachment to register.
struct AttachmentConfig {
  ConfigField<std::string> name;  // the file name shown to the user
  ConfigField<std::string> path;  // the file, which the core owns from now on
  ConfigField<bool> is_inline;
};

// Changes to the general preferences; only the fields that are set change.
struct GeneralConfig {
  ConfigField<int32_t> conversations_per_page;
  ConfigField<bool> display_external_image;
  ConfigField<int32_t> mark_as_read_time;
  ConfigField<bool> enable_signature;
  ConfigField<int32_t> update_interval_time;
  ConfigField<int32_t> split_pane_mode;
  ConfigField<int32_t> preview_layout;
  ConfigField<int32_t> theme;
  ConfigField<std::string> composer_fontname;
  ConfigField<std::string> composer_fontsize;
  ConfigField<std::string> composer_forecolor;
  ConfigField<std::string> codepage;
};

// A sending identity to create or change; only the fields that are set
// change. The password is written only when it is set, and never read back.
struct SMTPConfigure {
  ConfigField<std::string> display_name;
  ConfigField<std::string> mail;
  ConfigField<std::string> host_name;
  ConfigField<int32_t> port;
  ConfigField<std::string> user_name;  // "" (or unset): no login
  ConfigField<std::string> password;
  // 0 no encryption, 1 TLS from the start (SMTPS), 2 STARTTLS required.
  ConfigField<int32_t> connection_type;
  ConfigField<std::string> signature;
};

// A POP3 fetch account to create or change; only the fields that are set
// change.
struct POP3Configure {
  ConfigField<std::string> mail;
  ConfigField<int32_t> server_provider;
  ConfigField<std::string> host_name;
  ConfigField<int32_t> port;
  ConfigField<std::string> user_name;
  ConfigField<std::string> password;
  ConfigField<bool> enable_ssl;           // POP3S; else STLS when the server offers it
  ConfigField<bool> delete_after_fetch;   // DELE each message once it is stored
  ConfigField<std::string> mailbox_path;  // raw path of the mailbox that receives the mail
  // On the account's first fetch only the messages of the last N days are
  // taken; 0: all.
  ConfigField<int32_t> fetch_pass_days;
};

// Forwarding of incoming mail, as stored and as changed (the whole rule is
// replaced; members that are not set are stored unset).
class ZEVO_PLATFORM_API ForwardConfig {
 public:
  // False when forwarding is on without an address to forward to.
  bool IsValid() const;

  bool forward_enable = false;
  ConfigField<std::string> forward_addr;
  ConfigField<bool> keep_copy;  // also store the message
};

// The vacation reply, as stored and as changed (the whole rule is replaced).
class ZEVO_PLATFORM_API ReplyConfig {
 public:
  // False when both times are set and the begin is not before the end.
  bool IsValid() const;

  bool reply_enable = false;
  ConfigField<int64_t> reply_begin_time;  // Unix seconds; unset: from now on
  ConfigField<int64_t> reply_end_time;    // Unix seconds; unset: open-ended
  ConfigField<std::string> subject;       // unset: "Auto: " and the original's
  ConfigField<std::string> message;       // the reply's text
};

// `prefix` followed by `length` characters drawn from [A-Za-z0-9] by a
// cryptographic random source.
ZEVO_PLATFORM_API std::string RandomString(const std::string& prefix, int length);

// The MIME type that the extension of `file_name` stands for, in lower case
// ("image/jpeg" for "IMG.JPG"); "application/octet-stream" when unknown.
ZEVO_PLATFORM_API std::string GetMimeType(const std::string& file_name);

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
  // Invalid (id 0) when unknown. Attachments: every one, inline ones too,
  // in stored order.
  record::Message GetMessage(int id);
  record::FullMessage GetFullMessage(int id);

  // A new draft in Drafts; returns its id. A reply (refer_to with
  // draft_type 1 or 2) joins the thread of the message it answers and
  // carries its In-Reply-To and References. Throws
  // ornic::Error(kErrorNotFound) when refer_to, an attachment or a temporary
  // attachment does not exist (nothing is created then).
  int CreateDraft(const MessageConfig& config);
  // Changes the fields that are set. False when `id` is not a draft or a
  // listed attachment does not exist (nothing changes then).
  bool ModifyDraft(int id, const MessageConfig& config);
  // Sends the draft as stored to every To, Cc and Bcc address and keeps the
  // sent copy in Sent, in the draft's thread; the draft is removed. Returns
  // the sent message's id. Throws ornic::Error with one of the send codes
  // (kErrorNoRecipient ... kErrorSmtpTimeout), kErrorNotFound when `id` is
  // not a draft, kErrorInvalidArgument when its From holds no address, or
  // kErrorStorage / kErrorConfiguration / kErrorDatabase when the appliance
  // itself fails; the draft is then left as it was.
  int Send(int id);
  // Deletes drafts for good. False when an id is not a draft (then none is
  // deleted); an empty list is true.
  bool DeleteDraft(const std::vector<int>& ids);
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

// The user's filter rules, in the order in which delivery applies them.
// A filter is refused (0 or false, nothing changed) when it would have no
// action, an action that is not valid, a move_to path that names no mailbox
// (or the virtual starred one) or a label key that names no label. An empty
// condition set is a rule for every message.
class ZEVO_PLATFORM_API FilterControl {
 public:
  explicit FilterControl(Controller& controller);

  // Every filter, in evaluation order; actions with their mailbox and label
  // filled in.
  std::vector<record::Filter> List();
  // The filters of `ids` that exist, in evaluation order.
  std::vector<record::Filter> Get(const std::vector<int>& ids);
  // The new filter's id, last in the order; 0 when refused. Both sets must
  // be set.
  int Create(const FilterConfig& config);
  // Replaces the sets that are set. False when `id` is unknown or refused.
  bool Modify(int id, const FilterConfig& config);
  // False when an id is unknown (then none is deleted).
  bool Delete(const std::vector<int>& ids);
  // `ids` become the evaluation order. False, and the order unchanged, when
  // they are not exactly the user's filter ids, each once.
  bool SetOrder(const std::vector<int>& ids);

 private:
  Controller& controller_;
};

// Attachments: temporary ones (uploads for a draft) and stored ones (parts
// of a message).
class ZEVO_PLATFORM_API AttachmentControl {
 public:
  explicit AttachmentControl(Controller& controller);

  // Registers the file at config.path (which need not exist yet) under
  // config.name. Returns the new id, and in `content_id` a fresh content id
  // by which an HTML body can show it inline. 0 when the name or the path
  // is missing or empty.
  int AddAttachmentTemp(const AttachmentConfig& config, std::string& content_id);
  // Invalid when unknown.
  record::AttachmentTemp GetTemp(int id);
  record::Attachment Get(int id);
  // The attachment's decoded content, byte for byte; "" when it cannot be
  // read.
  std::string GetContentByRecord(const record::Attachment& attachment);
  // Remembers a preview image of the attachment. False when unknown.
  bool SetPreviewPath(int id, const std::string& path);

 private:
  Controller& controller_;
};

// The stickers that ship with the product.
class ZEVO_PLATFORM_API StickerControl {
 public:
  explicit StickerControl(Controller& controller);

  // The stickers of `category` by id; empty for an unknown category.
  std::vector<record::Sticker> List(int category);
  // Invalid when unknown.
  record::Sticker Get(int id);

 private:
  Controller& controller_;
};

// The user's settings.
class ZEVO_PLATFORM_API SettingControl {
 public:
  explicit SettingControl(Controller& controller);

  record::GeneralConfig GetGeneralSetting();
  // Changes the fields that are set. False when a value is out of range.
  bool SetGeneralSetting(const GeneralConfig& config);

  // Sending identities. Passwords stay in the core: no record carries one.
  // Every identity, by id.
  std::vector<record::SMTPConfig> ListSMTP() const;
  // The default identity's id; 0 when the user has none.
  int DefaultIDSMTP() const;
  // The new identity's id; 0 when display_name, mail, host_name, port or
  // connection_type is not set or a value is out of range.
  int CreateSMTP(const SMTPConfigure& config);
  // Changes the fields that are set (the password only when it is set).
  // False when `id` is not one of the user's identities or a value is out of
  // range.
  bool ModifySMTP(int id, const SMTPConfigure& config);
  // False when an id is unknown (then none is deleted). Deleting the default
  // identity leaves the user without one.
  bool DeleteSMTP(const std::vector<int>& ids);
  // False when `id` is not one of the user's identities.
  bool SetDefaultSMTP(int id);

  // POP3 fetching. Whether the administrator's policy for the user's domain
  // allows it (global_control::SettingControl).
  bool IsEnablePOP3() const;
  // Every fetch account, by id.
  std::vector<record::POP3Config> ListPOP3() const;
  // The new account's id; 0 when a field is not set, a value is out of
  // range or mailbox_path names no mailbox that can hold mail.
  int CreatePOP3(const POP3Configure& config);
  // Changes the fields that are set (fetch_pass_days only matters before the
  // first fetch). False when `id` is unknown or a value is out of range.
  bool ModifyPOP3(int id, const POP3Configure& config);
  // False when an id is unknown (then none is deleted).
  bool DeletePOP3(const std::vector<int>& ids);

  // Forwarding and the vacation reply. Fills both records; false when they
  // cannot be read.
  bool GetForwardReply(ForwardConfig& forward, ReplyConfig& reply) const;
  // Replaces both rules. False when either record is not valid. Forgets to
  // whom the vacation reply was sent.
  bool SetForwardReply(const ForwardConfig& forward, const ReplyConfig& reply);

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
