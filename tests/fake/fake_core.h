// The recording fake of the mail core and the platform services: the same
// platform headers, implemented over in-memory test data. A unit test sets
// the data up, runs an entry function or a handler, and reads back the calls
// the plug-in made, in order ("Syncer::TriggerSync 2"). Any operation can be
// made to fail, by its result or by throwing ornic::Error.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/mailcore/control.h"
#include "platform/mailcore/record.h"

namespace larkpost::fake {

struct Core {
  // ------------------------------------------------------------- test data
  std::map<uint32_t, std::string> users;           // uid -> name
  std::map<std::string, std::string> mail_server;  // GetMailServerKey
  std::set<uint32_t> databases;                    // users whose store exists
  std::map<std::string, std::string> sessions;     // session id -> user name
  int vex_timeout = 1800;
  std::string app_root;  // PrepareUserLarkpostDir makes folders below it

  // The user's mail, drafts included. Lookups by id answer in the order of
  // the ids asked for and leave unknown ids out; lists answer the whole
  // vector as it is. MessageControl::GetMessage answers the message part of
  // these records.
  std::map<int, ornic::larkpost::record::Thread> threads;
  std::map<int, ornic::larkpost::record::FullMessage> messages;
  std::map<int, std::string> originals;  // MessageControl::OriginalContent
  std::vector<ornic::larkpost::record::Mailbox> mailboxes;
  std::vector<ornic::larkpost::record::Label> labels;
  // The user's filters in evaluation order; FilterControl::Get answers
  // those asked for in this order.
  std::vector<ornic::larkpost::record::Filter> filters;
  // What rpc::ExecuteBatchTask returns, and rpc::GetTaskStatus (the
  // serialised status answer).
  std::string task_key = "task-key-1";
  std::string task_status;
  // Every thread that a search matches, in order; Search pages them.
  std::vector<int> search_result;
  // What MailboxControl::Create, LabelControl::Create,
  // FilterControl::Create and MessageControl::CreateDraft return.
  int next_id = 100;
  // What MessageControl::Send returns: the id of the sent copy.
  int sent_id = 200;
  // The user's settings (the general ones are platform().general). Creating
  // an SMTP or POP3 account answers next_id and stores nothing; the lists
  // answer these vectors as they are.
  std::vector<ornic::larkpost::record::SMTPConfig> smtp;
  int smtp_default_id = 0;
  bool enable_pop3 = false;  // SettingControl::IsEnablePOP3
  std::vector<ornic::larkpost::record::POP3Config> pop3;
  ornic::larkpost::control::ForwardConfig forward;  // GetForwardReply
  ornic::larkpost::control::ReplyConfig reply;
  // ZevoUser::domain() by uid; "localdomain" for a user not listed.
  std::map<uint32_t, std::string> domains;
  // The administrator's POP3 policy, whatever the domain (the calls record
  // which one was asked for); SetPOP3Config changes it.
  ornic::larkpost::record::GlobalPOP3Config pop3_policy{false, 5, true};

  // ------------------------------------------------------ failure injection
  // Operation name (as recorded, without arguments) -> how it fails: a code
  // above zero is thrown as ornic::Error(code); 0 makes the operation report
  // failure by its result (false, an invalid record, 0 for a new id, an
  // empty list or text). A key with the arguments too ("MailboxControl::Delete
  // 6") fails only that call, and comes before the bare name.
  std::map<std::string, int32_t> failures;

  // --------------------------------------------------------------- records
  std::vector<std::string> calls;
};

// The test process's fake core; Reset() before each test.
Core& core();
void Reset();

// Records "op args" (or "op" when args is empty). Throws ornic::Error when
// the operation is set to throw; returns false when it is set to fail by its
// result, true otherwise.
bool Call(const std::string& op, const std::string& args = "");

// The calls recorded so far whose text starts with `prefix`.
std::vector<std::string> CallsStartingWith(const std::string& prefix);

}  // namespace larkpost::fake
