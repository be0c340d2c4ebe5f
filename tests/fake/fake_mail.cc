// The recording fake of the core's mail operations: threads, messages and
// drafts, mailboxes, labels and search, over the test data in fake::Core.
// Every call is recorded with its arguments in a fixed text form:
//   id lists "[1,2]"; absent optionals and change-record fields "-";
//   strings in change records quoted ('Work'), so blanks show, and string
//   lists as "['a','b']"; search conditions "[key:value,key:value:not]".
#include <algorithm>
#include <string>
#include <vector>

#include "platform/mailcore/control.h"
#include "tests/fake/fake_core.h"

using larkpost::fake::Call;
using larkpost::fake::core;

namespace ornic::larkpost::control {

namespace {

std::string IdList(const std::vector<int>& ids) {
  std::string text = "[";
  for (size_t i = 0; i < ids.size(); ++i) {
    if (i > 0) text += ",";
    text += std::to_string(ids[i]);
  }
  return text + "]";
}

std::string Bool(bool value) { return value ? "true" : "false"; }

std::string Optional(const util::optional<int>& value) {
  return value ? std::to_string(*value) : "-";
}

std::string Field(const ConfigField<std::string>& field) {
  return field.IsSet() ? "'" + field.Get() + "'" : "-";
}
std::string Field(const ConfigField<int32_t>& field) {
  return field.IsSet() ? std::to_string(field.Get()) : "-";
}
std::string Field(const ConfigField<bool>& field) {
  return field.IsSet() ? Bool(field.Get()) : "-";
}
std::string Field(const ConfigField<std::vector<int>>& field) {
  return field.IsSet() ? IdList(field.Get()) : "-";
}
std::string Field(const ConfigField<std::vector<std::string>>& field) {
  if (!field.IsSet()) return "-";
  std::string text = "[";
  for (const std::string& value : field.Get()) {
    if (text.size() > 1) text += ",";
    text += "'" + value + "'";
  }
  return text + "]";
}

// Every field of a draft's change record, in the record's order.
std::string DraftFields(const MessageConfig& config) {
  return "from=" + Field(config.from) + " to=" + Field(config.to) + " cc=" + Field(config.cc) +
         " bcc=" + Field(config.bcc) + " subject=" + Field(config.subject) +
         " body=" + Field(config.body) + " attachment=" + Field(config.attachment) +
         " temp_attachment=" + Field(config.temp_attachment) +
         " refer_to=" + Field(config.refer_to) + " draft_type=" + Field(config.draft_type);
}

// The records of `data` for `ids`, in the order of `ids`, unknown ids left
// out.
template <typename Record>
std::vector<Record> Lookup(const std::map<int, Record>& data, const std::vector<int>& ids) {
  std::vector<Record> found;
  for (int id : ids) {
    auto record = data.find(id);
    if (record != data.end()) found.push_back(record->second);
  }
  return found;
}

}  // namespace

// ------------------------------------------------------------------ ThreadControl

ThreadControl::ThreadControl(Controller& controller) : controller_(controller) {}

std::vector<record::Thread> ThreadControl::List(const std::vector<int>& ids) {
  if (!Call("ThreadControl::List", IdList(ids))) return {};
  return Lookup(core().threads, ids);
}

std::vector<int> ThreadControl::GetExistingThread(const std::vector<int>& ids,
                                                  const util::optional<int>& mailbox,
                                                  util::optional<int> label) {
  if (!Call("ThreadControl::GetExistingThread",
            IdList(ids) + " mailbox=" + Optional(mailbox) + " label=" + Optional(label))) {
    return {};
  }
  // Narrowing by mailbox and label is the core's business: the record of
  // the call shows what was asked for.
  std::vector<int> existing;
  for (const record::Thread& thread : Lookup(core().threads, ids)) existing.push_back(thread.id);
  return existing;
}

bool ThreadControl::DeleteTrash(const std::vector<int>& ids) {
  return Call("ThreadControl::DeleteTrash", IdList(ids));
}

bool ThreadControl::AddLabel(const std::vector<int>& ids, const std::vector<int>& label_ids) {
  return Call("ThreadControl::AddLabel", IdList(ids) + " " + IdList(label_ids));
}

bool ThreadControl::RemoveLabel(const std::vector<int>& ids, const std::vector<int>& label_ids) {
  return Call("ThreadControl::RemoveLabel", IdList(ids) + " " + IdList(label_ids));
}

bool ThreadControl::SetMailbox(const std::vector<int>& ids, int mailbox_id) {
  return Call("ThreadControl::SetMailbox", IdList(ids) + " " + std::to_string(mailbox_id));
}

// ----------------------------------------------------------------- MessageControl

MessageControl::MessageControl(Controller& controller) : controller_(controller) {}

std::vector<record::FullMessage> MessageControl::GetFullMessages(const std::vector<int>& ids) {
  if (!Call("MessageControl::GetFullMessages", IdList(ids))) return {};
  return Lookup(core().messages, ids);
}

std::string MessageControl::OriginalContent(int id) {
  if (!Call("MessageControl::OriginalContent", std::to_string(id))) return "";
  auto original = core().originals.find(id);
  return original == core().originals.end() ? "" : original->second;
}

record::Message MessageControl::GetMessage(int id) {
  if (!Call("MessageControl::GetMessage", std::to_string(id))) return record::Message();
  auto message = core().messages.find(id);
  return message == core().messages.end() ? record::Message() : record::Message(message->second);
}

record::FullMessage MessageControl::GetFullMessage(int id) {
  if (!Call("MessageControl::GetFullMessage", std::to_string(id))) return record::FullMessage();
  auto message = core().messages.find(id);
  return message == core().messages.end() ? record::FullMessage() : message->second;
}

// The draft operations only record what they were asked: the records that
// later lookups find are the test's to set up.
int MessageControl::CreateDraft(const MessageConfig& config) {
  return Call("MessageControl::CreateDraft", DraftFields(config)) ? core().next_id : 0;
}

bool MessageControl::ModifyDraft(int id, const MessageConfig& config) {
  return Call("MessageControl::ModifyDraft", std::to_string(id) + " " + DraftFields(config));
}

int MessageControl::Send(int id) {
  return Call("MessageControl::Send", std::to_string(id)) ? core().sent_id : 0;
}

bool MessageControl::DeleteDraft(const std::vector<int>& ids) {
  return Call("MessageControl::DeleteDraft", IdList(ids));
}

bool MessageControl::SetStarByID(const std::vector<int>& ids, int star) {
  return Call("MessageControl::SetStarByID", IdList(ids) + " " + std::to_string(star));
}

bool MessageControl::SetReadByID(const std::vector<int>& ids, bool read) {
  return Call("MessageControl::SetReadByID", IdList(ids) + " " + Bool(read));
}

bool MessageControl::SetReadByThreadID(const std::vector<int>& thread_ids, bool read) {
  return Call("MessageControl::SetReadByThreadID", IdList(thread_ids) + " " + Bool(read));
}

bool MessageControl::SetMailbox(const std::vector<int>& ids, int mailbox_id) {
  return Call("MessageControl::SetMailbox", IdList(ids) + " " + std::to_string(mailbox_id));
}

bool MessageControl::DeleteByMailbox(int mailbox_id) {
  return Call("MessageControl::DeleteByMailbox", std::to_string(mailbox_id));
}

// ----------------------------------------------------------------- MailboxControl

MailboxControl::MailboxControl(Controller& controller) : controller_(controller) {}

std::vector<record::Mailbox> MailboxControl::List(bool unread, bool total) {
  if (!Call("MailboxControl::List", Bool(unread) + " " + Bool(total))) return {};
  return core().mailboxes;
}

record::Mailbox MailboxControl::Get(int id) {
  if (!Call("MailboxControl::Get", std::to_string(id))) return record::Mailbox();
  for (const record::Mailbox& mailbox : core().mailboxes) {
    if (mailbox.id == id) return mailbox;
  }
  return record::Mailbox();
}

int MailboxControl::Create(int parent_id, const std::string& name, bool subscribed) {
  if (!Call("MailboxControl::Create",
            std::to_string(parent_id) + " '" + name + "' " + Bool(subscribed))) {
    return 0;
  }
  return core().next_id;
}

bool MailboxControl::Modify(int id, const MailboxConfig& config) {
  return Call("MailboxControl::Modify",
              std::to_string(id) + " subscribed=" + Field(config.subscribed) +
                  " parent_id=" + Field(config.parent_id) + " name=" + Field(config.name));
}

bool MailboxControl::Delete(int id) { return Call("MailboxControl::Delete", std::to_string(id)); }

// ------------------------------------------------------------------- LabelControl

LabelControl::LabelControl(Controller& controller) : controller_(controller) {}

namespace {

std::string LabelFields(const LabelConfig& config) {
  return "name=" + Field(config.name) + " text_color=" + Field(config.text_color) +
         " background_color=" + Field(config.background_color);
}

}  // namespace

int LabelControl::Create(const LabelConfig& config) {
  return Call("LabelControl::Create", LabelFields(config)) ? core().next_id : 0;
}

bool LabelControl::Modify(int id, const LabelConfig& config) {
  return Call("LabelControl::Modify", std::to_string(id) + " " + LabelFields(config));
}

bool LabelControl::Delete(const std::vector<int>& ids) {
  return Call("LabelControl::Delete", IdList(ids));
}

std::vector<record::Label> LabelControl::Get(const std::vector<int>& ids, bool unread) {
  if (!Call("LabelControl::Get", IdList(ids) + " " + Bool(unread))) return {};
  std::vector<record::Label> found;
  for (int id : ids) {
    for (const record::Label& label : core().labels) {
      if (label.id == id) found.push_back(label);
    }
  }
  return found;
}

std::vector<record::Label> LabelControl::List(bool unread) {
  if (!Call("LabelControl::List", Bool(unread))) return {};
  return core().labels;
}

// ------------------------------------------------------------------ SearchControl

SearchControl::SearchControl(Controller& controller) : controller_(controller) {}

void SearchControl::SetOffset(int32_t offset) {
  Call("SearchControl::SetOffset", std::to_string(offset));
  offset_ = offset;
}

void SearchControl::SetLimit(int32_t limit) {
  Call("SearchControl::SetLimit", std::to_string(limit));
  limit_ = limit;
}

void SearchControl::SetMaxArrivalBefore(int64_t time) {
  Call("SearchControl::SetMaxArrivalBefore", std::to_string(time));
  max_arrival_before_ = time;
}

void SearchControl::SetConditions(const std::vector<record::Condition>& conditions,
                                  bool match_any) {
  std::string text = "[";
  for (const record::Condition& condition : conditions) {
    if (text.size() > 1) text += ",";
    text +=
        std::to_string(condition.key) + ":" + condition.value + (condition.negate ? ":not" : "");
  }
  Call("SearchControl::SetConditions", text + "] match_any=" + Bool(match_any));
  conditions_ = conditions;
  match_any_ = match_any;
}

uint32_t SearchControl::Search(std::vector<int>& ids) {
  if (!Call("SearchControl::Search")) return 0;
  const std::vector<int>& all = core().search_result;
  const size_t begin = std::min(all.size(), static_cast<size_t>(std::max(offset_, 0)));
  const size_t end =
      limit_ < 0 ? all.size() : std::min(all.size(), begin + static_cast<size_t>(limit_));
  ids.assign(all.begin() + begin, all.begin() + end);
  return static_cast<uint32_t>(all.size());
}

}  // namespace ornic::larkpost::control
