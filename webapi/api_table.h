// The method table that tells the framework what the plug-in serves, and the
// entry functions it names. Only these (and the check table) are exported.
#pragma once

#include <cstddef>

#include "platform/zevo/webapi.h"
#include "webapi/export.h"

// The rows in their fixed order; the table has no terminating row (the
// framework takes its length from the symbol's size).
inline constexpr size_t kAPITableSize = 67;
LARKPOST_EXPORT extern const ZEVO::APITableEntry gTable[kAPITableSize];
LARKPOST_EXPORT const ZEVO::APITableEntry* GetAPITable();

#define LARKPOST_ENTRY(name) \
  LARKPOST_EXPORT void name(ZEVO::APIRequest* request, ZEVO::APIResponse* response)

LARKPOST_ENTRY(InfoGetInfo_v1);

LARKPOST_ENTRY(ThreadList_v1);
LARKPOST_ENTRY(ThreadGet_v1);
LARKPOST_ENTRY(ThreadCheckExist_v1);
LARKPOST_ENTRY(ThreadDelete_v1);
LARKPOST_ENTRY(ThreadAddLabel_v1);
LARKPOST_ENTRY(ThreadRemoveLabel_v1);
LARKPOST_ENTRY(ThreadSetMailbox_v1);
LARKPOST_ENTRY(ThreadSetRead_v1);

LARKPOST_ENTRY(MailboxGet_v1);
LARKPOST_ENTRY(MailboxList_v1);
LARKPOST_ENTRY(MailboxCreate_v1);
LARKPOST_ENTRY(MailboxSet_v1);
LARKPOST_ENTRY(MailboxDelete_v1);
LARKPOST_ENTRY(MailboxClearMessage_v1);

LARKPOST_ENTRY(MessageGet_v1);
LARKPOST_ENTRY(MessageGetOriginal_v1);
LARKPOST_ENTRY(MessageSetStar_v1);
LARKPOST_ENTRY(MessageSetRead_v1);
LARKPOST_ENTRY(MessageSetMailbox_v1);

LARKPOST_ENTRY(DraftGet_v1);
LARKPOST_ENTRY(DraftCreate_v1);
LARKPOST_ENTRY(DraftSet_v1);
LARKPOST_ENTRY(DraftSend_v1);
LARKPOST_ENTRY(DraftDelete_v1);

LARKPOST_ENTRY(LabelCreate_v1);
LARKPOST_ENTRY(LabelGet_v1);
LARKPOST_ENTRY(LabelSet_v1);
LARKPOST_ENTRY(LabelList_v1);
LARKPOST_ENTRY(LabelDelete_v1);

LARKPOST_ENTRY(AttachmentUpload_v1);
LARKPOST_ENTRY(AttachmentUploadVex_v1);
LARKPOST_ENTRY(AttachmentUploadSticker_v1);
LARKPOST_ENTRY(AttachmentDownload_v1);
LARKPOST_ENTRY(AttachmentDownloadTemp_v1);
LARKPOST_ENTRY(AttachmentDownloadAll_v1);
LARKPOST_ENTRY(AttachmentDelete_v1);
LARKPOST_ENTRY(AttachmentSaveVX_v1);

LARKPOST_ENTRY(StickerList_v1);
LARKPOST_ENTRY(StickerGet_v1);
LARKPOST_ENTRY(StickerAdd_v1);
LARKPOST_ENTRY(StickerDelete_v1);

LARKPOST_ENTRY(FilterList_v1);
LARKPOST_ENTRY(FilterGet_v1);
LARKPOST_ENTRY(FilterSet_v1);
LARKPOST_ENTRY(FilterCreate_v1);
LARKPOST_ENTRY(FilterDelete_v1);
LARKPOST_ENTRY(FilterSetOrder_v1);
LARKPOST_ENTRY(FilterAddTask_v1);
LARKPOST_ENTRY(FilterGetTaskStatus_v1);
LARKPOST_ENTRY(FilterCancelTask_v1);

LARKPOST_ENTRY(SettingGeneralGet_v1);
LARKPOST_ENTRY(SettingGeneralSet_v1);
LARKPOST_ENTRY(SettingSMTPList_v1);
LARKPOST_ENTRY(SettingSMTPCreate_v1);
LARKPOST_ENTRY(SettingSMTPSet_v1);
LARKPOST_ENTRY(SettingSMTPDelete_v1);
LARKPOST_ENTRY(SettingSMTPSetDefault_v1);
LARKPOST_ENTRY(SettingPOP3GetInfo_v1);
LARKPOST_ENTRY(SettingPOP3List_v1);
LARKPOST_ENTRY(SettingPOP3Create_v1);
LARKPOST_ENTRY(SettingPOP3Set_v1);
LARKPOST_ENTRY(SettingPOP3Delete_v1);
LARKPOST_ENTRY(SettingForwardReplyGet_v1);
LARKPOST_ENTRY(SettingForwardReplySet_v1);

LARKPOST_ENTRY(AdminSettingPOP3Get_v1);
LARKPOST_ENTRY(AdminSettingPOP3Set_v1);

#undef LARKPOST_ENTRY
