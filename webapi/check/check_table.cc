#include "webapi/check/check_table.h"

#include "upload/upload_params.h"
#include "webapi/check/param_check.h"

// Each checker reads its parameters in the order of its row, then checks the
// row's value conditions in their order. The handlers read the parameters
// again themselves; a checker only turns a malformed request away early and
// names the offending parameter.
namespace ornic::larkpost::webapi::check {
namespace {

using ZEVO::APIRequest;
using ZEVO::APIResponse;
using ZEVO::APIValidator;
using ZEVO::kOptional;
using ZEVO::kRequired;
using ZEVO::WebAPIUtil;

// The lists of accepted "additional" words, and the default body types. Kept
// as JSON text and parsed when a checker runs.
constexpr char kLabelAdditional[] = "[\"unread_count\"]";
constexpr char kMailboxAdditional[] = "[\"unread_count\", \"draft_total_count\"]";
constexpr char kDraftAdditional[] = "[\"body_preview\"]";
constexpr char kMessageAdditional[] =
    "[\"blockquote\", \"body_preview\", \"block_external_image\"]";
constexpr char kDefaultBodyTypes[] = "[\"plain\", \"html\"]";

// Nested checkers, run on each element of "condition" and "action": every
// member is optional, and a member of the wrong type fails the element.
bool FilterConditionHolds(const Json::Value& element) {
  using Factory = ZEVO::APIParameterFactoryBasicImpl<std::string>;
  return !Factory::FromJson(element, "name", kOptional, nullptr).IsInvalid() &&
         !Factory::FromJson(element, "value", kOptional, nullptr).IsInvalid() &&
         !ZEVO::APIParameterFactoryBasicImpl<bool>::FromJson(element, "not_operator", kOptional,
                                                             nullptr)
              .IsInvalid();
}

bool FilterActionHolds(const Json::Value& element) {
  using Factory = ZEVO::APIParameterFactoryBasicImpl<std::string>;
  return !Factory::FromJson(element, "name", kOptional, nullptr).IsInvalid() &&
         !Factory::FromJson(element, "value", kOptional, nullptr).IsInvalid();
}

// Methods whose handler reads nothing that needs checking first.
bool AcceptAll(APIRequest*, APIResponse*) { return true; }

// Shapes that several rows share; each row still has a checker of its own.
bool IdListHolds(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.IntArray("id", kRequired);
  return params.Holds(response);
}

bool SingleIdHolds(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.Int("id", kRequired);
  return params.Holds(response);
}

bool SetReadHolds(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.IntArray("id", kRequired);
  params.Bool("read", kRequired);
  return params.Holds(response);
}

bool SetMailboxHolds(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.IntArray("id", kRequired);
  const auto mailbox_id = params.Int("mailbox_id", kRequired);
  return params.Holds(response) &&
         Condition(response, "mailbox_id", !APIValidator::IsEqual<int>(mailbox_id, 0));
}

bool LabelIdsHolds(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.IntArray("id", kRequired);
  params.IntArray("label_id", kRequired);
  return params.Holds(response);
}

bool ThreadGet(APIRequest* request, APIResponse* response) {
  return IdListHolds(request, response);
}

bool ThreadSetRead(APIRequest* request, APIResponse* response) {
  return SetReadHolds(request, response);
}

bool ThreadList(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.ObjectArray("condition", kRequired, FilterConditionHolds);
  params.String("sort_direction", kOptional, "DESC");
  params.Int("offset", kOptional, 0);
  params.Int("limit", kOptional, -1);  // no limit
  return params.Holds(response);
}

bool ThreadCheckExist(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.IntArray("id", kRequired);
  params.Int("mailbox_id", kOptional);
  params.Int("label_id", kOptional);
  return params.Holds(response);
}

bool ThreadRemoveLabel(APIRequest* request, APIResponse* response) {
  return LabelIdsHolds(request, response);
}

bool ThreadSetMailbox(APIRequest* request, APIResponse* response) {
  return SetMailboxHolds(request, response);
}

bool ThreadAddLabel(APIRequest* request, APIResponse* response) {
  return LabelIdsHolds(request, response);
}

bool ThreadDelete(APIRequest* request, APIResponse* response) {
  return IdListHolds(request, response);
}

bool SMTPSetDefault(APIRequest* request, APIResponse* response) {
  return SingleIdHolds(request, response);
}

bool SMTPCreate(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.String("display_name", kRequired);
  params.String("mail", kRequired);
  params.String("host_name", kRequired);
  params.Int("port", kRequired);
  params.String("user_name", kOptional);
  params.String("password", kOptional);
  const auto connection_type = params.Int("connection_type", kRequired);
  params.String("signature", kOptional);
  return params.Holds(response) &&
         Condition(response, "connection_type", APIValidator::IsBetween(connection_type, 0, 2));
}

bool SMTPSet(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.Int("id", kRequired);
  params.String("display_name", kOptional);
  params.String("mail", kOptional);
  params.String("host_name", kOptional);
  params.Int("port", kOptional);
  params.String("user_name", kOptional);
  params.String("password", kOptional);
  const auto connection_type = params.Int("connection_type", kOptional);
  params.String("signature", kOptional);
  return params.Holds(response) &&
         Condition(response, "connection_type",
                   !connection_type.IsSet() || APIValidator::IsBetween(connection_type, 0, 2));
}

bool SMTPDelete(APIRequest* request, APIResponse* response) {
  return IdListHolds(request, response);
}

bool LabelDelete(APIRequest* request, APIResponse* response) {
  return IdListHolds(request, response);
}

bool LabelCreate(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.String("name", kRequired);
  params.String("text_color", kRequired);
  params.String("background_color", kRequired);
  return params.Holds(response);
}

bool LabelSet(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.Int("id", kRequired);
  params.String("name", kOptional);
  params.String("text_color", kOptional);
  params.String("background_color", kOptional);
  return params.Holds(response);
}

bool LabelList(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  const auto additional = params.StringArray("additional", kOptional);
  return params.Holds(response) &&
         Condition(response, "additional",
                   APIValidator::IsBelong(additional, WebAPIUtil::ParseJson(kLabelAdditional)));
}

bool LabelGet(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.IntArray("id", kRequired);
  const auto additional = params.StringArray("additional", kOptional);
  return params.Holds(response) &&
         Condition(response, "additional",
                   APIValidator::IsBelong(additional, WebAPIUtil::ParseJson(kLabelAdditional)));
}

bool FilterSet(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.Int("id", kRequired);
  params.ObjectArray("condition", kOptional, FilterConditionHolds);
  params.ObjectArray("action", kOptional, FilterActionHolds);
  return params.Holds(response);
}

bool FilterGet(APIRequest* request, APIResponse* response) {
  return IdListHolds(request, response);
}

bool FilterCreate(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.ObjectArray("condition", kRequired, FilterConditionHolds);
  params.ObjectArray("action", kRequired, FilterActionHolds);
  return params.Holds(response);
}

bool FilterSetOrder(APIRequest* request, APIResponse* response) {
  return IdListHolds(request, response);
}

bool FilterDelete(APIRequest* request, APIResponse* response) {
  return IdListHolds(request, response);
}

// Unlike every other "delete", a draft delete may name no ids.
bool DraftDelete(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.IntArray("id", kOptional);
  return params.Holds(response);
}

// The draft's content, common to "create", "set" and "send".
void ReadDraftContent(ParamCheck* params) {
  params->StringArray("to", kOptional);
  params->StringArray("cc", kOptional);
  params->StringArray("bcc", kOptional);
  params->String("subject", kOptional);
  params->String("body", kOptional);
  params->IntArray("attachment", kOptional);
  params->IntArray("temp_attachment", kOptional);
}

// "draft_type" is left unbounded here, unlike in "set" and "send".
bool DraftCreate(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  ReadDraftContent(&params);
  params.String("from", kRequired);
  const auto refer_to = params.Int("refer_to", kOptional);
  params.Int("draft_type", kOptional, 0);
  return params.Holds(response) &&
         Condition(response, "refer_to", !refer_to.IsSet() || APIValidator::IsGreater(refer_to, 0));
}

bool DraftSet(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  ReadDraftContent(&params);
  const auto id = params.Int("id", kRequired);
  params.String("from", kOptional);
  const auto draft_type = params.Int("draft_type", kOptional);
  return params.Holds(response) && Condition(response, "id", APIValidator::IsGreater(id, 0)) &&
         Condition(response, "draft_type",
                   !draft_type.IsSet() || APIValidator::IsBetween(draft_type, 0, 2));
}

bool DraftSend(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  ReadDraftContent(&params);
  params.Int("id", kOptional);
  params.String("from", kOptional);
  const auto refer_to = params.Int("refer_to", kOptional);
  const auto draft_type = params.Int("draft_type", kOptional, 0);
  return params.Holds(response) &&
         Condition(response, "draft_type", APIValidator::IsBetween(draft_type, 0, 2)) &&
         Condition(response, "refer_to", !refer_to.IsSet() || APIValidator::IsGreater(refer_to, 0));
}

bool DraftGet(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.IntArray("id", kRequired);
  const auto additional = params.StringArray("additional", kOptional);
  return params.Holds(response) &&
         Condition(response, "additional",
                   APIValidator::IsBelong(additional, WebAPIUtil::ParseJson(kDraftAdditional)));
}

// The form fields of an upload arrive as text: decode them before reading.
bool AttachmentUpload(APIRequest* request, APIResponse* response) {
  ZEVO::DecodeUploadParams(request);
  ParamCheck params(*request);
  params.String("file", kRequired);
  params.Bool("is_inline", kOptional, false);
  return params.Holds(response);
}

bool AttachmentUploadSticker(APIRequest* request, APIResponse* response) {
  return SingleIdHolds(request, response);
}

bool AttachmentUploadVex(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.String("source", kRequired);
  params.Bool("is_inline", kOptional, false);
  return params.Holds(response);
}

bool StickerAdd(APIRequest* request, APIResponse* response) {
  ZEVO::DecodeUploadParams(request);
  ParamCheck params(*request);
  params.String("file", kRequired);
  return params.Holds(response);
}

bool StickerDelete(APIRequest* request, APIResponse* response) {
  return IdListHolds(request, response);
}

bool StickerList(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.Int("category", kOptional, 1);
  return params.Holds(response);
}

bool StickerGet(APIRequest* request, APIResponse* response) {
  return SingleIdHolds(request, response);
}

bool ForwardReplySet(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.Bool("forward_enable", kRequired);
  params.String("forward_addr", kOptional);
  params.Bool("keep_copy", kOptional);
  params.Bool("reply_enable", kRequired);
  const auto reply_begin_time = params.Int("reply_begin_time", kOptional);
  const auto reply_end_time = params.Int("reply_end_time", kOptional);
  params.String("subject", kOptional);
  params.String("message", kOptional);
  return params.Holds(response) &&
         Condition(response, "reply_begin_time",
                   !reply_begin_time.IsSet() || APIValidator::IsGreater(reply_begin_time, 0)) &&
         Condition(response, "reply_end_time",
                   !reply_end_time.IsSet() || APIValidator::IsGreater(reply_end_time, 0));
}

bool MailboxDelete(APIRequest* request, APIResponse* response) {
  return IdListHolds(request, response);
}

bool MailboxCreate(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.String("name", kRequired);
  params.Int("parent_id", kOptional, 0);
  params.Bool("subscribed", kOptional, true);
  return params.Holds(response);
}

bool MailboxSet(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  const auto id = params.Int("id", kRequired);
  params.String("name", kOptional);
  params.Int("parent_id", kOptional);
  params.Bool("subscribed", kOptional);
  return params.Holds(response) && Condition(response, "id", APIValidator::IsGreater(id, 0));
}

bool MailboxList(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.Bool("subscription", kOptional, true);
  const auto additional = params.StringArray("additional", kOptional);
  return params.Holds(response) &&
         Condition(response, "additional",
                   APIValidator::IsBelong(additional, WebAPIUtil::ParseJson(kMailboxAdditional)));
}

bool MailboxGet(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.IntArray("id", kRequired);
  const auto additional = params.StringArray("additional", kOptional);
  return params.Holds(response) &&
         Condition(response, "additional",
                   APIValidator::IsBelong(additional, WebAPIUtil::ParseJson(kMailboxAdditional)));
}

bool GeneralSet(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.Int("conversations_per_page", kOptional, 100);
  params.Int("mark_as_read_time", kOptional, 1);
  params.Bool("display_external_image", kOptional, true);
  return params.Holds(response);
}

bool MessageSetRead(APIRequest* request, APIResponse* response) {
  return SetReadHolds(request, response);
}

bool MessageSetMailbox(APIRequest* request, APIResponse* response) {
  return SetMailboxHolds(request, response);
}

// "star" is a number here, not a bool.
bool MessageSetStar(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.IntArray("id", kRequired);
  params.Int("star", kRequired);
  return params.Holds(response);
}

bool MessageGet(APIRequest* request, APIResponse* response) {
  ParamCheck params(*request);
  params.IntArray("id", kRequired);
  params.StringArray("body_type", kOptional, kDefaultBodyTypes);
  const auto additional = params.StringArray("additional", kOptional);
  return params.Holds(response) &&
         Condition(response, "additional",
                   APIValidator::IsBelong(additional, WebAPIUtil::ParseJson(kMessageAdditional)));
}

}  // namespace
}  // namespace ornic::larkpost::webapi::check

namespace check = ornic::larkpost::webapi::check;

const ZEVO::APICheckEntry gCheckTable[] = {
    {"ZEVO.Larkpost.Info", 1, "getinfo", check::AcceptAll, nullptr, nullptr},
    {"ZEVO.Larkpost.Thread", 1, "get", check::ThreadGet, nullptr, nullptr},
    {"ZEVO.Larkpost.Thread", 1, "set_read", check::ThreadSetRead, nullptr, nullptr},
    {"ZEVO.Larkpost.Thread", 1, "list", check::ThreadList, nullptr, nullptr},
    {"ZEVO.Larkpost.Thread", 1, "check_exist", check::ThreadCheckExist, nullptr, nullptr},
    {"ZEVO.Larkpost.Thread", 1, "remove_label", check::ThreadRemoveLabel, nullptr, nullptr},
    {"ZEVO.Larkpost.Thread", 1, "set_mailbox", check::ThreadSetMailbox, nullptr, nullptr},
    {"ZEVO.Larkpost.Thread", 1, "add_label", check::ThreadAddLabel, nullptr, nullptr},
    {"ZEVO.Larkpost.Thread", 1, "delete", check::ThreadDelete, nullptr, nullptr},
    {"ZEVO.Larkpost.Setting.SMTP", 1, "set_default", check::SMTPSetDefault, nullptr, nullptr},
    {"ZEVO.Larkpost.Setting.SMTP", 1, "create", check::SMTPCreate, nullptr, nullptr},
    {"ZEVO.Larkpost.Setting.SMTP", 1, "set", check::SMTPSet, nullptr, nullptr},
    {"ZEVO.Larkpost.Setting.SMTP", 1, "list", check::AcceptAll, nullptr, nullptr},
    {"ZEVO.Larkpost.Setting.SMTP", 1, "delete", check::SMTPDelete, nullptr, nullptr},
    {"ZEVO.Larkpost.Label", 1, "delete", check::LabelDelete, nullptr, nullptr},
    {"ZEVO.Larkpost.Label", 1, "create", check::LabelCreate, nullptr, nullptr},
    {"ZEVO.Larkpost.Label", 1, "set", check::LabelSet, nullptr, nullptr},
    {"ZEVO.Larkpost.Label", 1, "list", check::LabelList, nullptr, nullptr},
    {"ZEVO.Larkpost.Label", 1, "get", check::LabelGet, nullptr, nullptr},
    {"ZEVO.Larkpost.Filter", 1, "set", check::FilterSet, nullptr, nullptr},
    {"ZEVO.Larkpost.Filter", 1, "get", check::FilterGet, nullptr, nullptr},
    {"ZEVO.Larkpost.Filter", 1, "create", check::FilterCreate, nullptr, nullptr},
    {"ZEVO.Larkpost.Filter", 1, "list", check::AcceptAll, nullptr, nullptr},
    {"ZEVO.Larkpost.Filter", 1, "setorder", check::FilterSetOrder, nullptr, nullptr},
    {"ZEVO.Larkpost.Filter", 1, "delete", check::FilterDelete, nullptr, nullptr},
    {"ZEVO.Larkpost.Draft", 1, "delete", check::DraftDelete, nullptr, nullptr},
    {"ZEVO.Larkpost.Draft", 1, "create", check::DraftCreate, nullptr, nullptr},
    {"ZEVO.Larkpost.Draft", 1, "set", check::DraftSet, nullptr, nullptr},
    {"ZEVO.Larkpost.Draft", 1, "send", check::DraftSend, nullptr, nullptr},
    {"ZEVO.Larkpost.Draft", 1, "get", check::DraftGet, nullptr, nullptr},
    {"ZEVO.Larkpost.Attachment", 1, "upload", check::AttachmentUpload, nullptr, nullptr},
    {"ZEVO.Larkpost.Attachment", 1, "upload_sticker", check::AttachmentUploadSticker, nullptr,
     nullptr},
    {"ZEVO.Larkpost.Attachment", 1, "upload_vex", check::AttachmentUploadVex, nullptr, nullptr},
    {"ZEVO.Larkpost.Sticker", 1, "add", check::StickerAdd, nullptr, nullptr},
    {"ZEVO.Larkpost.Sticker", 1, "delete", check::StickerDelete, nullptr, nullptr},
    {"ZEVO.Larkpost.Sticker", 1, "list", check::StickerList, nullptr, nullptr},
    {"ZEVO.Larkpost.Sticker", 1, "get", check::StickerGet, nullptr, nullptr},
    {"ZEVO.Larkpost.Setting.ForwardReply", 1, "set", check::ForwardReplySet, nullptr, nullptr},
    {"ZEVO.Larkpost.Setting.ForwardReply", 1, "get", check::AcceptAll, nullptr, nullptr},
    {"ZEVO.Larkpost.Mailbox", 1, "delete", check::MailboxDelete, nullptr, nullptr},
    {"ZEVO.Larkpost.Mailbox", 1, "create", check::MailboxCreate, nullptr, nullptr},
    {"ZEVO.Larkpost.Mailbox", 1, "set", check::MailboxSet, nullptr, nullptr},
    {"ZEVO.Larkpost.Mailbox", 1, "list", check::MailboxList, nullptr, nullptr},
    {"ZEVO.Larkpost.Mailbox", 1, "get", check::MailboxGet, nullptr, nullptr},
    {"ZEVO.Larkpost.Setting.General", 1, "set", check::GeneralSet, nullptr, nullptr},
    {"ZEVO.Larkpost.Setting.General", 1, "get", check::AcceptAll, nullptr, nullptr},
    {"ZEVO.Larkpost.Message", 1, "set_read", check::MessageSetRead, nullptr, nullptr},
    {"ZEVO.Larkpost.Message", 1, "set_mailbox", check::MessageSetMailbox, nullptr, nullptr},
    {"ZEVO.Larkpost.Message", 1, "set_star", check::MessageSetStar, nullptr, nullptr},
    {"ZEVO.Larkpost.Message", 1, "get", check::MessageGet, nullptr, nullptr},
    {nullptr, 0, nullptr, nullptr, nullptr, nullptr},
};

const ZEVO::APICheckEntry* GetAPICheckTable() { return gCheckTable; }
