#include "webapi/draft.h"

#include <json/value.h>
#include <pcre.h>
#include <pcrecpp.h>

#include <string>

#include "platform/mailcore/addressbook.h"
#include "platform/mailcore/apivalidator.h"
#include "platform/mailcore/constant.h"
#include "platform/mailcore/error.h"
#include "platform/mailcore/record.h"
#include "platform/mailcore/util.h"
#include "platform/zevo/notify.h"
#include "webapi/format/full_message.h"
#include "webapi/format/mail_record.h"
#include "webapi/handler_util.h"

namespace ornic::larkpost::webapi {

namespace {

using ZEVO::kOptional;
using ZEVO::kRequired;

// Seconds after which the clients refresh their mailboxes once a draft
// changed; changes in between fold into one refresh.
constexpr int kDraftNotifyDelay = 30;

// A bare address: the local part's allowed characters, then a domain of
// labels of 1 to 63 letters, digits and inner hyphens.
constexpr char kBareAddress[] =
    R"([a-zA-Z0-9.!#$%&'*+/=?^_`{|}~-]+@[a-zA-Z0-9](?:[a-zA-Z0-9-]{0,61}[a-zA-Z0-9])?)"
    R"((?:\.[a-zA-Z0-9](?:[a-zA-Z0-9-]{0,61}[a-zA-Z0-9])?)*)";
// Anything (the display name, possibly nothing) before the same address in
// angle brackets.
constexpr char kNamedAddress[] =
    R"(.*?\s*<[a-zA-Z0-9.!#$%&'*+/=?^_`{|}~-]+@[a-zA-Z0-9](?:[a-zA-Z0-9-]{0,61}[a-zA-Z0-9])?)"
    R"((?:\.[a-zA-Z0-9](?:[a-zA-Z0-9-]{0,61}[a-zA-Z0-9])?)*>)";

// Compiled on first use and kept for the life of the process. As UTF-8
// patterns they also refuse a text that is not UTF-8.
const pcrecpp::RE& BareAddressPattern() {
  static const pcrecpp::RE pattern(kBareAddress, pcrecpp::RE_Options(PCRE_UTF8));
  return pattern;
}

const pcrecpp::RE& NamedAddressPattern() {
  static const pcrecpp::RE pattern(kNamedAddress, pcrecpp::RE_Options(PCRE_UTF8));
  return pattern;
}

// The whole text is one address, bare or with a display name.
bool IsDraftAddress(const std::string& text) {
  return BareAddressPattern().FullMatch(text) || NamedAddressPattern().FullMatch(text);
}

// Every element is a string holding one address; an empty list is a list.
bool AreDraftAddresses(const Json::Value& addresses) {
  for (const Json::Value& address : addresses) {
    if (!address.isString() || !IsDraftAddress(address.asString())) return false;
  }
  return true;
}

// Given with a value of the right type. A content parameter without a
// validator that has the wrong type changes nothing rather than clearing its
// field.
template <typename T>
bool IsGiven(const ZEVO::APIParameter<T>& param) {
  return param.IsSet() && !param.IsInvalid();
}

}  // namespace

DraftAPI::DraftAPI(ZEVO::APIRequest* request, ZEVO::APIResponse* response)
    : NormalAPI(request, response), message_control_(controller_) {}

void DraftAPI::GetDraftConfig(bool is_create, control::MessageConfig& config) {
  // Every parameter is read, "refer_to" also when it will not be used.
  const auto refer_to = request_->GetAndCheckInt("refer_to", kOptional, nullptr);
  const auto draft_type = request_->GetAndCheckInt("draft_type", kOptional, nullptr);
  const auto from =
      request_->GetAndCheckString("from", is_create ? kRequired : kOptional, IsDraftAddress);
  const auto to = request_->GetAndCheckArray("to", kOptional, AreDraftAddresses);
  const auto cc = request_->GetAndCheckArray("cc", kOptional, AreDraftAddresses);
  const auto bcc = request_->GetAndCheckArray("bcc", kOptional, AreDraftAddresses);
  const auto subject = request_->GetAndCheckString("subject", kOptional, nullptr);
  const auto body = request_->GetAndCheckString("body", kOptional, nullptr);
  const auto attachment = request_->GetAndCheckArray("attachment", kOptional, nullptr);
  const auto temp_attachment = request_->GetAndCheckArray("temp_attachment", kOptional, nullptr);

  if (from.IsInvalid() || to.IsInvalid() || cc.IsInvalid() || bcc.IsInvalid()) {
    throw ornic::Error(kErrorBadParameter);
  }

  // An existing draft keeps the message it answers or forwards.
  if (is_create && IsGiven(refer_to)) config.refer_to.Set(refer_to.Get());
  if (IsGiven(draft_type)) config.draft_type.Set(draft_type.Get());
  if (from.IsSet()) config.from.Set(from.Get());
  // A list that is given but empty is set: it removes every recipient.
  if (to.IsSet()) config.to.Set(util::JsonArrayToVector<std::string>(to.Get()));
  if (cc.IsSet()) config.cc.Set(util::JsonArrayToVector<std::string>(cc.Get()));
  if (bcc.IsSet()) config.bcc.Set(util::JsonArrayToVector<std::string>(bcc.Get()));
  if (IsGiven(subject)) config.subject.Set(subject.Get());
  if (IsGiven(body)) config.body.Set(body.Get());
  if (IsGiven(attachment)) config.attachment.Set(util::JsonArrayToVector<int>(attachment.Get()));
  if (IsGiven(temp_attachment)) {
    config.temp_attachment.Set(util::JsonArrayToVector<int>(temp_attachment.Get()));
  }
}

int DraftAPI::CreateDraft() {
  control::MessageConfig config;
  GetDraftConfig(true, config);
  return message_control_.CreateDraft(config);
}

void DraftAPI::AddRecipient(int message_id) {
  const record::FullMessage message = message_control_.GetFullMessage(message_id);
  if (!message.IsValid()) return;

  addressbook::control::Controller address_book(uid_);
  addressbook::control::ContactControl contacts(address_book);
  const auto add = [&contacts](const std::string& recipient) {
    const control::MailAddress address(recipient);
    contacts.CreateFromLarkpost(address.GetName(), address.GetEmail());
  };
  for (const std::string& recipient : message.to) add(recipient);
  for (const std::string& recipient : message.cc) add(recipient);
  for (const std::string& recipient : message.bcc) add(recipient);
}

Json::Value DraftAPI::GetAttachmentJson(int message_id) {
  Json::Value attachments(Json::arrayValue);
  const record::Message message = message_control_.GetMessage(message_id);
  // Inline parts belong to the body; only a draft's own show their content
  // ids, by which its body refers to them.
  const bool with_content_id = message.type == format::kMessageTypeDraft;
  for (const record::Attachment& attachment : message.attachments) {
    if (attachment.is_inline) continue;
    attachments.append(format::AttachmentToJson(attachment, with_content_id));
  }
  return attachments;
}

void DraftAPI::NotifyDraftChange() {
  // The refresh is a courtesy to the clients; a lost notice costs nothing
  // that their next poll does not bring.
  ZEVOLarkpostNotifyMailboxDelayUpdate(uid_, kDraftNotifyDelay);
}

void DraftAPI::Create_v1() {
  const int id = CreateDraft();
  NotifyDraftChange();
  Json::Value data(Json::objectValue);
  data["attachment"] = GetAttachmentJson(id);
  data["id"] = id;
  response_->SetSuccess(data);
}

void DraftAPI::Get_v1() {
  // "id" is the check table's to vouch for.
  const auto id = request_->GetAndCheckArray("id", kRequired, nullptr);
  ParseAdditional();
  const bool body_preview = additional_ & ADDITIONAL_BODY_PREVIEW;

  Json::Value drafts(Json::arrayValue);
  for (const record::FullMessage& draft : message_control_.GetFullMessages(Ids(id))) {
    drafts.append(format::FullMessageToJson(draft, constant::kHTMLBodyEdit, body_preview, false));
  }
  Json::Value data(Json::objectValue);
  data["draft"] = drafts;
  response_->SetSuccess(data);
}

void DraftAPI::Set_v1() {
  // "id" is the check table's to vouch for.
  const auto id = request_->GetAndCheckInt("id", kRequired, nullptr);
  control::MessageConfig config;
  GetDraftConfig(false, config);
  if (!message_control_.ModifyDraft(id.Get(), config)) {
    response_->SetError(kErrorOperationFailed, Json::Value());
    return;
  }
  NotifyDraftChange();
  Json::Value data(Json::objectValue);
  data["attachment"] = GetAttachmentJson(id.Get());
  response_->SetSuccess(data);
}

void DraftAPI::Send_v1() {
  // An "id" of the wrong type still names a draft (none: the core refuses
  // to send it); it never turns the request into a new message.
  const auto id = request_->GetAndCheckInt("id", kOptional, nullptr);
  // A stored draft goes as it is stored: the request's content is not
  // applied to it.
  const int draft_id = id.IsSet() ? id.Get() : CreateDraft();
  const int sent_id = message_control_.Send(draft_id);
  AddRecipient(sent_id);
  NotifyDraftChange();
  Json::Value data(Json::objectValue);
  data["id"] = sent_id;
  response_->SetSuccess(data);
}

void DraftAPI::Delete_v1() {
  const auto id =
      request_->GetAndCheckArray("id", kRequired, apivalidator::JsonIntArrayGreaterZero);
  if (IsResetOrInvalid(id)) {
    response_->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  AnswerChange(response_, message_control_.DeleteDraft(Ids(id)));
}

}  // namespace ornic::larkpost::webapi
