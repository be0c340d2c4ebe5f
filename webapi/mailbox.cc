#include "webapi/mailbox.h"

#include <json/value.h>
#include <strings.h>

#include <algorithm>
#include <vector>

#include "platform/mailcore/apivalidator.h"
#include "platform/mailcore/constant.h"
#include "platform/mailcore/record.h"
#include "platform/mailcore/util.h"
#include "webapi/format/mail_record.h"
#include "webapi/handler_util.h"
#include "webapi/log.h"

namespace ornic::larkpost::webapi {

namespace {

constexpr char kLogUnit[] = "mailbox";

constexpr const char* kReservedNames[] = {"inbox",    "drafts", "junk", "starred",
                                          "archived", "sent",   "trash"};

// The two built-in mailboxes that a user may empty.
constexpr int kJunk = control::DefaultMailbox::id<constant::kJunk>();
constexpr int kTrash = control::DefaultMailbox::id<constant::kTrash>();

// {} when every id went through, else {"failed": [the others, in order]}.
Json::Value FailedAnswer(const Json::Value& failed) {
  Json::Value data(Json::objectValue);
  if (!failed.empty()) data["failed"] = failed;
  return data;
}

}  // namespace

using ZEVO::kOptional;
using ZEVO::kRequired;

bool IsAllowedMailboxName(const std::string& name) {
  const std::string trimmed = util::Trim(name);
  if (trimmed.empty()) return false;
  for (const char* reserved : kReservedNames) {
    if (strcasecmp(trimmed.c_str(), reserved) == 0) return false;
  }
  return trimmed.find_first_of("./") == std::string::npos;
}

MailboxAPI::MailboxAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response)
    : NormalAPI(request, response), mailboxes_(controller_) {}

void MailboxAPI::Get_v1() {
  const auto id = request_->GetAndCheckArray("id", kRequired, nullptr);
  if (id.IsInvalid()) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  ParseAdditional();
  const std::vector<int> ids = Ids(id);

  // The core reads mailboxes as a list; the request picks from it.
  Json::Value mailboxes(Json::arrayValue);
  for (const record::Mailbox& mailbox : mailboxes_.List(
           additional_ & ADDITIONAL_UNREAD_COUNT, additional_ & ADDITIONAL_DRAFT_TOTAL_COUNT)) {
    if (std::find(ids.begin(), ids.end(), mailbox.id) != ids.end()) {
      mailboxes.append(format::MailboxToJson(mailbox));
    }
  }
  Json::Value data(Json::objectValue);
  data["mailbox"] = mailboxes;
  response_->SetSuccess(data);
}

void MailboxAPI::List_v1() {
  const auto subscription = request_->GetAndCheckBool("subscription", kOptional, nullptr);
  ParseAdditional();
  const bool subscribed_only = subscription.Get(true);

  Json::Value mailboxes(Json::arrayValue);
  for (const record::Mailbox& mailbox : mailboxes_.List(
           additional_ & ADDITIONAL_UNREAD_COUNT, additional_ & ADDITIONAL_DRAFT_TOTAL_COUNT)) {
    if (subscribed_only && !mailbox.subscribed) continue;
    mailboxes.append(format::MailboxToJson(mailbox));
  }
  Json::Value data(Json::objectValue);
  data["total"] = Json::UInt(mailboxes.size());
  data["mailbox"] = mailboxes;
  response_->SetSuccess(data);
}

void MailboxAPI::Create_v1() {
  const auto name = request_->GetAndCheckString("name", kRequired, IsAllowedMailboxName);
  const auto parent_id = request_->GetAndCheckInt("parent_id", kOptional, nullptr);
  const auto subscribed = request_->GetAndCheckBool("subscribed", kOptional, nullptr);
  if (name.IsInvalid()) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  const int id = mailboxes_.Create(parent_id.Get(0), util::Trim(name.Get()), subscribed.Get(true));
  if (id == 0) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    WEBAPI_LOG("%s:%d create failed");
    return;
  }
  Json::Value data(Json::objectValue);
  data["id"] = id;
  response_->SetSuccess(data);
}

void MailboxAPI::Set_v1() {
  // "id" is the check table's to vouch for.
  const auto id = request_->GetAndCheckInt("id", kRequired, nullptr);
  const auto parent_id = request_->GetAndCheckInt("parent_id", kOptional, nullptr);
  const auto subscribed = request_->GetAndCheckBool("subscribed", kOptional, nullptr);
  const auto name = request_->GetAndCheckString("name", kOptional, IsAllowedMailboxName);
  if (name.IsInvalid()) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  // Unlike "create", the name is stored as given: the rule trims only to
  // judge it.
  control::MailboxConfig config;
  if (parent_id.IsSet()) config.parent_id.Set(parent_id.Get());
  if (subscribed.IsSet()) config.subscribed.Set(subscribed.Get());
  if (name.IsSet()) config.name.Set(name.Get());
  if (!AnswerChange(response_, mailboxes_.Modify(id.Get(), config))) {
    WEBAPI_LOG("%s:%d set failed");
  }
}

void MailboxAPI::Delete_v1() {
  const auto id = GetIdArray(*request_, "id");
  if (id.IsInvalid()) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  Json::Value failed(Json::arrayValue);
  for (int mailbox : Ids(id)) {
    if (!mailboxes_.Delete(mailbox)) failed.append(mailbox);
  }
  response_->SetSuccess(FailedAnswer(failed));
}

void MailboxAPI::ClearMessage_v1() {
  const auto id = request_->GetAndCheckArray("id", kRequired, nullptr);
  if (id.IsInvalid()) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  // Only junk and trash may be emptied; one other id and nothing is touched.
  const std::vector<int> ids = Ids(id);
  for (int mailbox : ids) {
    if (mailbox != kJunk && mailbox != kTrash) {
      response_->SetError(kErrorBadParameter, Json::Value());
      return;
    }
  }
  control::MessageControl messages(controller_);
  Json::Value failed(Json::arrayValue);
  for (int mailbox : ids) {
    if (!messages.DeleteByMailbox(mailbox)) failed.append(mailbox);
  }
  response_->SetSuccess(FailedAnswer(failed));
}

}  // namespace ornic::larkpost::webapi
