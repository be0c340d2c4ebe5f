// The core's stored records, as values. A record that a lookup did not find
// is "not valid" (id 0); counts that were not asked for are negative.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "platform/export.h"
#include "platform/mailcore/constant.h"

namespace ornic::larkpost::record {

struct ZEVO_PLATFORM_API Attachment {
  int32_t id = 0;
  int32_t size = 0;  // bytes of the decoded content
  std::string mimetype;
  std::string name;        // file name, never with a directory part
  std::string content_id;  // MIME Content-ID without angle brackets, "" when none
  bool is_inline = false;  // shown inside the HTML body rather than listed
  // A JPEG preview that the web API made of the attachment
  // (AttachmentControl::SetPreviewPath); "" until one was made. The core
  // only remembers it: the file may have gone since.
  std::string preview_path;

  bool IsValid() const { return id > 0; }
};

// A file uploaded for a draft and not yet part of one. The core owns the
// file at `path` from the moment it is registered: it becomes the content of
// a draft's attachment when a draft lists the id in "temp_attachment", and
// is removed with the record then.
struct ZEVO_PLATFORM_API AttachmentTemp {
  int32_t id = 0;
  std::string path;        // the file on disk (below the user's ".ORNIC/@tmp")
  std::string name;        // the file name shown to the user
  std::string mimetype;    // from the name's extension
  std::string content_id;  // what an HTML body refers to ("cid:" + content_id)
  bool is_inline = false;

  bool IsValid() const { return id > 0; }
};

// One of the stickers that ship with the product.
struct ZEVO_PLATFORM_API Sticker {
  int32_t id = 0;
  std::string name;  // "smile"
  int32_t category = 0;
  int64_t last_modified = 0;  // Unix seconds of the image file
  std::string path;           // the image file on disk

  bool IsValid() const { return id > 0; }
};

// A user's general preferences, as stored (defaults until changed).
struct ZEVO_PLATFORM_API GeneralConfig {
  int32_t conversations_per_page = 25;
  bool display_external_image = false;
  int32_t mark_as_read_time = 0;
  bool enable_signature = true;
  int32_t update_interval_time = 5;
  int32_t split_pane_mode = 0;
  int32_t preview_layout = 0;
  int32_t theme = 0;
  std::string composer_fontname;
  std::string composer_fontsize;
  std::string composer_forecolor;
  std::string codepage;  // "" (follow the interface language), "utf8", or a code page name
};

// A sending identity. The password is the core's alone: it is not here.
struct ZEVO_PLATFORM_API SMTPConfig {
  int32_t id = 0;
  std::string display_name;
  std::string mail;
  std::string host_name;
  uint32_t port = 0;
  std::string user_name;  // "": no login
  // 0 no encryption, 1 TLS from the start (SMTPS), 2 STARTTLS required.
  int32_t connection_type = 0;
  std::string signature;

  bool IsValid() const { return id > 0; }
};

// A POP3 fetch account. The password is the core's alone: it is not here.
struct ZEVO_PLATFORM_API POP3Config {
  int32_t id = 0;
  std::string mail;
  int32_t server_provider = 0;
  std::string host_name;
  uint32_t port = 0;
  std::string user_name;
  bool enable_ssl = false;
  bool delete_after_fetch = false;
  std::string mailbox_path;  // raw path of the mailbox that receives the mail
  int32_t fetch_pass_days = 0;
  // What the last fetch left: its Unix time (0: never fetched) and its
  // error text ("" when it succeeded).
  int64_t last_fetch_time = 0;
  std::string last_error;

  bool IsValid() const { return id > 0; }
};

// The administrator's POP3 policy of a domain, as read.
struct ZEVO_PLATFORM_API GlobalPOP3Config {
  bool enable_pop3 = false;
  uint32_t pop3_fetch_period = 0;  // minutes between fetches
  bool valid = false;              // false: the policy could not be read

  bool IsValid() const { return valid; }
};

// Content-ID -> (attachment name, attachment id) of a message's inline parts.
using InlineImageMap = std::map<std::string, std::pair<std::string, int>>;

class ZEVO_PLATFORM_API Message {
 public:
  bool IsValid() const;  // id > 0
  const InlineImageMap& InlineImageMapping() const;

  int32_t id = 0;
  int32_t type = 0;  // 1: a draft
  bool read = false;
  int32_t star = 0;
  std::string from;  // the From header as text (decoded), e.g. "Ann <ann@example.org>"
  std::string subject;
  std::string body_preview;  // the first characters of the text
  int64_t arrival_time = 0;  // Unix seconds
  int64_t last_modified = 0;
  int32_t reply_to = 0;  // a draft: the id of the message it answers
  int32_t mailbox_id = 0;
  int32_t thread_id = 0;
  std::vector<Attachment> attachments;
  std::string rfc_message_id;  // Message-ID without angle brackets
  InlineImageMap inline_images;
};

// A message with its recipients and bodies.
class ZEVO_PLATFORM_API FullMessage : public Message {
 public:
  std::vector<std::string> to;
  std::vector<std::string> cc;
  std::vector<std::string> bcc;
  std::string plain_body;  // UTF-8
  std::string html_body;   // UTF-8, as received (not normalised)
};

struct ZEVO_PLATFORM_API Label {
  int32_t id = 0;
  std::string name;  // display name
  std::string key;   // stable key text (filters store it); never changes
  std::string text_color;
  std::string background_color;
  int32_t unread_count = -1;  // unread messages in threads with the label
};

class ZEVO_PLATFORM_API Thread {
 public:
  int32_t MaxStar() const;             // highest star among its messages
  int32_t UnreadMessageCount() const;  // its unread messages, drafts included

  int32_t id = 0;
  int64_t last_modified = 0;
  std::vector<Message> messages;  // oldest first, drafts included
  std::vector<Label> labels;
};

class ZEVO_PLATFORM_API Mailbox {
 public:
  bool IsValid() const;  // id > 0
  // The path as UTF-8 ("Work/Été"), decoded from the stored IMAP modified
  // UTF-7 path ("Work/&AMk-t&AOk-"); a path that is not valid modified UTF-7
  // is returned as it is.
  std::string UTF8MailboxPath() const;

  int32_t id = 0;
  int32_t parent_id = 0;  // 0: top level
  std::string path;       // raw path, IMAP modified UTF-7, "/" between levels
  bool subscribed = true;
  int32_t unread_count = -1;  // unread messages, drafts not counted
  int32_t total_count = -1;   // all messages, drafts included
};

struct ZEVO_PLATFORM_API Condition {
  constant::ConditionKey key = constant::kConditionKeyword;
  std::string name;   // the keyword ("from")
  std::string value;  // the operand as text
  bool negate = false;
};

// The serialised forms of ConditionSet and ActionSet are what filters are
// stored as and what the background service is sent: compact JSON, UTF-8
// kept as it is, members in the order of their names:
//   {"condition":[[2,"ann@example.org",false],[7,"1000",false]],"match_any":false}
//   {"action":[[5,"Work"],[2,"true"]]}
// each condition being [key, value, negate] and each action [kind, value].
// Parsing a serialised text and serialising the result gives the same text
// back, byte for byte.
class ZEVO_PLATFORM_API ConditionSet {
 public:
  // Appends a condition; its keyword name follows from `key`.
  void AddCondition(constant::ConditionKey key, const std::string& value, bool negate);
  std::string GetSerializedString() const;
  // Replaces `*out` with the set that `text` describes. False (and `*out`
  // unchanged) when the text is not such a set or names a key outside
  // constant::ConditionKey.
  static bool ParseSerializedString(const std::string& text, ConditionSet* out);

  std::vector<Condition> conditions;
  bool match_any = false;  // false: a message meets every condition; true: any
};

class ZEVO_PLATFORM_API Action {
 public:
  // A kind, and for set_label / remove_label / move_to a non-empty text;
  // redirect needs a text that looks like an address (local part "@"
  // domain); set_read and set_star need "true" or "false". Whether a label
  // key or a mailbox path names one that exists is the store's to check
  // (FilterControl refuses a filter whose action names none).
  bool IsValid() const;

  constant::ActionKind kind = constant::kActionNone;
  std::string name;  // the keyword ("move_to"), filled in by ActionSet::AddAction
  // set_read / set_star: "true" or "false"; set_label / remove_label: the
  // label's key text; move_to: the mailbox's raw path; redirect: the
  // address; empty for the others.
  std::string value;
  // Filled in by FilterControl when it reads a stored filter: the mailbox
  // that a move_to names and the label that a set_label or remove_label
  // names (not valid / id 0 when it no longer exists).
  Mailbox mailbox;
  Label label;
};

class ZEVO_PLATFORM_API ActionSet {
 public:
  // Appends the action, its keyword name set from its kind.
  void AddAction(Action action);
  std::string GetSerializedString() const;
  // As ConditionSet::ParseSerializedString; a kind outside
  // constant::ActionKind, or kActionNone, is refused.
  static bool ParseSerializedString(const std::string& text, ActionSet* out);

  std::vector<Action> actions;
};

// A stored filter rule. Not valid: id 0 (none was found), no action, or an
// action that is not valid.
class ZEVO_PLATFORM_API Filter {
 public:
  virtual ~Filter() = default;
  virtual bool IsValid() const;

  int32_t id = 0;
  ConditionSet condition;
  ActionSet action;
};

}  // namespace ornic::larkpost::record
