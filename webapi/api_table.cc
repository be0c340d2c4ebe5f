#include "webapi/api_table.h"

#include "webapi/admin_setting.h"
#include "webapi/attachment.h"
#include "webapi/draft.h"
#include "webapi/entry.h"
#include "webapi/filter.h"
#include "webapi/info.h"
#include "webapi/label.h"
#include "webapi/mailbox.h"
#include "webapi/message.h"
#include "webapi/setting.h"
#include "webapi/sticker.h"
#include "webapi/thread.h"

using ornic::larkpost::webapi::AdminSettingAPI;
using ornic::larkpost::webapi::AttachmentAPI;
using ornic::larkpost::webapi::DraftAPI;
using ornic::larkpost::webapi::FilterAPI;
using ornic::larkpost::webapi::InfoAPI;
using ornic::larkpost::webapi::LabelAPI;
using ornic::larkpost::webapi::MailboxAPI;
using ornic::larkpost::webapi::MessageAPI;
using ornic::larkpost::webapi::RunEntry;
using ornic::larkpost::webapi::SettingAPI;
using ornic::larkpost::webapi::StickerAPI;
using ornic::larkpost::webapi::ThreadAPI;

// Each entry function serves one method of one handler class.
#define LARKPOST_ENTRY(name, api, method)                             \
  void name(ZEVO::APIRequest* request, ZEVO::APIResponse* response) { \
    RunEntry<api, &api::method>(request, response);                   \
  }

LARKPOST_ENTRY(InfoGetInfo_v1, InfoAPI, GetInfo_v1)

LARKPOST_ENTRY(ThreadList_v1, ThreadAPI, List_v1)
LARKPOST_ENTRY(ThreadGet_v1, ThreadAPI, Get_v1)
LARKPOST_ENTRY(ThreadCheckExist_v1, ThreadAPI, CheckExist_v1)
LARKPOST_ENTRY(ThreadDelete_v1, ThreadAPI, Delete_v1)
LARKPOST_ENTRY(ThreadAddLabel_v1, ThreadAPI, AddLabel_v1)
LARKPOST_ENTRY(ThreadRemoveLabel_v1, ThreadAPI, RemoveLabel_v1)
LARKPOST_ENTRY(ThreadSetMailbox_v1, ThreadAPI, SetMailbox_v1)
LARKPOST_ENTRY(ThreadSetRead_v1, ThreadAPI, SetRead_v1)

LARKPOST_ENTRY(MailboxGet_v1, MailboxAPI, Get_v1)
LARKPOST_ENTRY(MailboxList_v1, MailboxAPI, List_v1)
LARKPOST_ENTRY(MailboxCreate_v1, MailboxAPI, Create_v1)
LARKPOST_ENTRY(MailboxSet_v1, MailboxAPI, Set_v1)
LARKPOST_ENTRY(MailboxDelete_v1, MailboxAPI, Delete_v1)
LARKPOST_ENTRY(MailboxClearMessage_v1, MailboxAPI, ClearMessage_v1)

LARKPOST_ENTRY(MessageGet_v1, MessageAPI, Get_v1)
LARKPOST_ENTRY(MessageGetOriginal_v1, MessageAPI, GetOriginal_v1)
LARKPOST_ENTRY(MessageSetStar_v1, MessageAPI, SetStar_v1)
LARKPOST_ENTRY(MessageSetRead_v1, MessageAPI, SetRead_v1)
LARKPOST_ENTRY(MessageSetMailbox_v1, MessageAPI, SetMailbox_v1)

LARKPOST_ENTRY(DraftGet_v1, DraftAPI, Get_v1)
LARKPOST_ENTRY(DraftCreate_v1, DraftAPI, Create_v1)
LARKPOST_ENTRY(DraftSet_v1, DraftAPI, Set_v1)
LARKPOST_ENTRY(DraftSend_v1, DraftAPI, Send_v1)
LARKPOST_ENTRY(DraftDelete_v1, DraftAPI, Delete_v1)

LARKPOST_ENTRY(LabelCreate_v1, LabelAPI, Create_v1)
LARKPOST_ENTRY(LabelGet_v1, LabelAPI, Get_v1)
LARKPOST_ENTRY(LabelSet_v1, LabelAPI, Set_v1)
LARKPOST_ENTRY(LabelList_v1, LabelAPI, List_v1)
LARKPOST_ENTRY(LabelDelete_v1, LabelAPI, Delete_v1)

LARKPOST_ENTRY(AttachmentUpload_v1, AttachmentAPI, Upload_v1)
LARKPOST_ENTRY(AttachmentUploadVex_v1, AttachmentAPI, UploadVex_v1)
LARKPOST_ENTRY(AttachmentUploadSticker_v1, AttachmentAPI, UploadSticker_v1)
LARKPOST_ENTRY(AttachmentDownload_v1, AttachmentAPI, Download_v1)
LARKPOST_ENTRY(AttachmentDownloadTemp_v1, AttachmentAPI, DownloadTemp_v1)
LARKPOST_ENTRY(AttachmentDownloadAll_v1, AttachmentAPI, DownloadAll_v1)
LARKPOST_ENTRY(AttachmentDelete_v1, AttachmentAPI, Delete_v1)
LARKPOST_ENTRY(AttachmentSaveVX_v1, AttachmentAPI, SaveVX_v1)

LARKPOST_ENTRY(StickerList_v1, StickerAPI, List_v1)
LARKPOST_ENTRY(StickerGet_v1, StickerAPI, Get_v1)
LARKPOST_ENTRY(StickerAdd_v1, StickerAPI, Add_v1)
LARKPOST_ENTRY(StickerDelete_v1, StickerAPI, Delete_v1)

LARKPOST_ENTRY(FilterList_v1, FilterAPI, List_v1)
LARKPOST_ENTRY(FilterGet_v1, FilterAPI, Get_v1)
LARKPOST_ENTRY(FilterSet_v1, FilterAPI, Set_v1)
LARKPOST_ENTRY(FilterCreate_v1, FilterAPI, Create_v1)
LARKPOST_ENTRY(FilterDelete_v1, FilterAPI, Delete_v1)
LARKPOST_ENTRY(FilterSetOrder_v1, FilterAPI, SetOrder_v1)
LARKPOST_ENTRY(FilterAddTask_v1, FilterAPI, AddTask_v1)
LARKPOST_ENTRY(FilterGetTaskStatus_v1, FilterAPI, GetTaskStatus_v1)
LARKPOST_ENTRY(FilterCancelTask_v1, FilterAPI, CancelTask_v1)

LARKPOST_ENTRY(SettingGeneralGet_v1, SettingAPI, GeneralGet_v1)
LARKPOST_ENTRY(SettingGeneralSet_v1, SettingAPI, GeneralSet_v1)
LARKPOST_ENTRY(SettingSMTPList_v1, SettingAPI, SMTPList_v1)
LARKPOST_ENTRY(SettingSMTPCreate_v1, SettingAPI, SMTPCreate_v1)
LARKPOST_ENTRY(SettingSMTPSet_v1, SettingAPI, SMTPSet_v1)
LARKPOST_ENTRY(SettingSMTPDelete_v1, SettingAPI, SMTPDelete_v1)
LARKPOST_ENTRY(SettingSMTPSetDefault_v1, SettingAPI, SMTPSetDefault_v1)
LARKPOST_ENTRY(SettingPOP3GetInfo_v1, SettingAPI, POP3GetInfo_v1)
LARKPOST_ENTRY(SettingPOP3List_v1, SettingAPI, POP3List_v1)
LARKPOST_ENTRY(SettingPOP3Create_v1, SettingAPI, POP3Create_v1)
LARKPOST_ENTRY(SettingPOP3Set_v1, SettingAPI, POP3Set_v1)
LARKPOST_ENTRY(SettingPOP3Delete_v1, SettingAPI, POP3Delete_v1)
LARKPOST_ENTRY(SettingForwardReplyGet_v1, SettingAPI, ForwardReplyGet_v1)
LARKPOST_ENTRY(SettingForwardReplySet_v1, SettingAPI, ForwardReplySet_v1)

// Stand-alone: no user mail session, no log identity.
LARKPOST_ENTRY(AdminSettingPOP3Get_v1, AdminSettingAPI, POP3Get_v1)
LARKPOST_ENTRY(AdminSettingPOP3Set_v1, AdminSettingAPI, POP3Set_v1)

#undef LARKPOST_ENTRY

const ZEVO::APITableEntry gTable[kAPITableSize] = {
    {"ZEVO.Larkpost.Info", 1, "getinfo", InfoGetInfo_v1},

    {"ZEVO.Larkpost.Thread", 1, "list", ThreadList_v1},
    {"ZEVO.Larkpost.Thread", 1, "get", ThreadGet_v1},
    {"ZEVO.Larkpost.Thread", 1, "check_exist", ThreadCheckExist_v1},
    {"ZEVO.Larkpost.Thread", 1, "delete", ThreadDelete_v1},
    {"ZEVO.Larkpost.Thread", 1, "add_label", ThreadAddLabel_v1},
    {"ZEVO.Larkpost.Thread", 1, "remove_label", ThreadRemoveLabel_v1},
    {"ZEVO.Larkpost.Thread", 1, "set_mailbox", ThreadSetMailbox_v1},
    {"ZEVO.Larkpost.Thread", 1, "set_read", ThreadSetRead_v1},

    {"ZEVO.Larkpost.Mailbox", 1, "get", MailboxGet_v1},
    {"ZEVO.Larkpost.Mailbox", 1, "list", MailboxList_v1},
    {"ZEVO.Larkpost.Mailbox", 1, "create", MailboxCreate_v1},
    {"ZEVO.Larkpost.Mailbox", 1, "set", MailboxSet_v1},
    {"ZEVO.Larkpost.Mailbox", 1, "delete", MailboxDelete_v1},
    {"ZEVO.Larkpost.Mailbox", 1, "clear_message", MailboxClearMessage_v1},

    {"ZEVO.Larkpost.Message", 1, "get", MessageGet_v1},
    {"ZEVO.Larkpost.Message", 1, "get_original", MessageGetOriginal_v1},
    {"ZEVO.Larkpost.Message", 1, "set_star", MessageSetStar_v1},
    {"ZEVO.Larkpost.Message", 1, "set_read", MessageSetRead_v1},
    {"ZEVO.Larkpost.Message", 1, "set_mailbox", MessageSetMailbox_v1},

    {"ZEVO.Larkpost.Draft", 1, "get", DraftGet_v1},
    {"ZEVO.Larkpost.Draft", 1, "create", DraftCreate_v1},
    {"ZEVO.Larkpost.Draft", 1, "set", DraftSet_v1},
    {"ZEVO.Larkpost.Draft", 1, "send", DraftSend_v1},
    {"ZEVO.Larkpost.Draft", 1, "delete", DraftDelete_v1},

    {"ZEVO.Larkpost.Label", 1, "create", LabelCreate_v1},
    {"ZEVO.Larkpost.Label", 1, "get", LabelGet_v1},
    {"ZEVO.Larkpost.Label", 1, "set", LabelSet_v1},
    {"ZEVO.Larkpost.Label", 1, "list", LabelList_v1},
    {"ZEVO.Larkpost.Label", 1, "delete", LabelDelete_v1},

    {"ZEVO.Larkpost.Attachment", 1, "upload", AttachmentUpload_v1},
    {"ZEVO.Larkpost.Attachment", 1, "upload_vex", AttachmentUploadVex_v1},
    {"ZEVO.Larkpost.Attachment", 1, "upload_sticker", AttachmentUploadSticker_v1},
    {"ZEVO.Larkpost.Attachment", 1, "download", AttachmentDownload_v1},
    {"ZEVO.Larkpost.Attachment", 1, "download_temp", AttachmentDownloadTemp_v1},
    {"ZEVO.Larkpost.Attachment", 1, "download_all", AttachmentDownloadAll_v1},
    {"ZEVO.Larkpost.Attachment", 1, "delete", AttachmentDelete_v1},
    {"ZEVO.Larkpost.Attachment", 1, "savevx", AttachmentSaveVX_v1},

    {"ZEVO.Larkpost.Sticker", 1, "list", StickerList_v1},
    {"ZEVO.Larkpost.Sticker", 1, "get", StickerGet_v1},
    {"ZEVO.Larkpost.Sticker", 1, "add", StickerAdd_v1},
    {"ZEVO.Larkpost.Sticker", 1, "delete", StickerDelete_v1},

    {"ZEVO.Larkpost.Filter", 1, "list", FilterList_v1},
    {"ZEVO.Larkpost.Filter", 1, "get", FilterGet_v1},
    {"ZEVO.Larkpost.Filter", 1, "set", FilterSet_v1},
    {"ZEVO.Larkpost.Filter", 1, "create", FilterCreate_v1},
    {"ZEVO.Larkpost.Filter", 1, "delete", FilterDelete_v1},
    {"ZEVO.Larkpost.Filter", 1, "setorder", FilterSetOrder_v1},
    {"ZEVO.Larkpost.Filter", 1, "add_task", FilterAddTask_v1},
    {"ZEVO.Larkpost.Filter", 1, "get_task_status", FilterGetTaskStatus_v1},
    {"ZEVO.Larkpost.Filter", 1, "cancel_task", FilterCancelTask_v1},

    {"ZEVO.Larkpost.Setting.General", 1, "get", SettingGeneralGet_v1},
    {"ZEVO.Larkpost.Setting.General", 1, "set", SettingGeneralSet_v1},
    {"ZEVO.Larkpost.Setting.SMTP", 1, "list", SettingSMTPList_v1},
    {"ZEVO.Larkpost.Setting.SMTP", 1, "create", SettingSMTPCreate_v1},
    {"ZEVO.Larkpost.Setting.SMTP", 1, "set", SettingSMTPSet_v1},
    {"ZEVO.Larkpost.Setting.SMTP", 1, "delete", SettingSMTPDelete_v1},
    {"ZEVO.Larkpost.Setting.SMTP", 1, "set_default", SettingSMTPSetDefault_v1},
    {"ZEVO.Larkpost.Setting.POP3", 1, "getinfo", SettingPOP3GetInfo_v1},
    {"ZEVO.Larkpost.Setting.POP3", 1, "list", SettingPOP3List_v1},
    {"ZEVO.Larkpost.Setting.POP3", 1, "create", SettingPOP3Create_v1},
    {"ZEVO.Larkpost.Setting.POP3", 1, "set", SettingPOP3Set_v1},
    {"ZEVO.Larkpost.Setting.POP3", 1, "delete", SettingPOP3Delete_v1},
    {"ZEVO.Larkpost.Setting.ForwardReply", 1, "get", SettingForwardReplyGet_v1},
    {"ZEVO.Larkpost.Setting.ForwardReply", 1, "set", SettingForwardReplySet_v1},

    {"ZEVO.Larkpost.AdminSetting.POP3", 1, "get", AdminSettingPOP3Get_v1},
    {"ZEVO.Larkpost.AdminSetting.POP3", 1, "set", AdminSettingPOP3Set_v1},
};

const ZEVO::APITableEntry* GetAPITable() { return gTable; }
