// The method table: its accessor, its rows in order, and its agreement with
// the API declaration that the host reads.
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <tuple>

#include "tests/unit/handler_test_util.h"
#include "webapi/api_table.h"

namespace larkpost::test {
namespace {

// The rows in the table's fixed order.
const std::tuple<const char*, const char*, ZEVO::APIHandler> kRows[] = {
    {"ZEVO.Larkpost.Info", "getinfo", InfoGetInfo_v1},
    {"ZEVO.Larkpost.Thread", "list", ThreadList_v1},
    {"ZEVO.Larkpost.Thread", "get", ThreadGet_v1},
    {"ZEVO.Larkpost.Thread", "check_exist", ThreadCheckExist_v1},
    {"ZEVO.Larkpost.Thread", "delete", ThreadDelete_v1},
    {"ZEVO.Larkpost.Thread", "add_label", ThreadAddLabel_v1},
    {"ZEVO.Larkpost.Thread", "remove_label", ThreadRemoveLabel_v1},
    {"ZEVO.Larkpost.Thread", "set_mailbox", ThreadSetMailbox_v1},
    {"ZEVO.Larkpost.Thread", "set_read", ThreadSetRead_v1},
    {"ZEVO.Larkpost.Mailbox", "get", MailboxGet_v1},
    {"ZEVO.Larkpost.Mailbox", "list", MailboxList_v1},
    {"ZEVO.Larkpost.Mailbox", "create", MailboxCreate_v1},
    {"ZEVO.Larkpost.Mailbox", "set", MailboxSet_v1},
    {"ZEVO.Larkpost.Mailbox", "delete", MailboxDelete_v1},
    {"ZEVO.Larkpost.Mailbox", "clear_message", MailboxClearMessage_v1},
    {"ZEVO.Larkpost.Message", "get", MessageGet_v1},
    {"ZEVO.Larkpost.Message", "get_original", MessageGetOriginal_v1},
    {"ZEVO.Larkpost.Message", "set_star", MessageSetStar_v1},
    {"ZEVO.Larkpost.Message", "set_read", MessageSetRead_v1},
    {"ZEVO.Larkpost.Message", "set_mailbox", MessageSetMailbox_v1},
    {"ZEVO.Larkpost.Draft", "get", DraftGet_v1},
    {"ZEVO.Larkpost.Draft", "create", DraftCreate_v1},
    {"ZEVO.Larkpost.Draft", "set", DraftSet_v1},
    {"ZEVO.Larkpost.Draft", "send", DraftSend_v1},
    {"ZEVO.Larkpost.Draft", "delete", DraftDelete_v1},
    {"ZEVO.Larkpost.Label", "create", LabelCreate_v1},
    {"ZEVO.Larkpost.Label", "get", LabelGet_v1},
    {"ZEVO.Larkpost.Label", "set", LabelSet_v1},
    {"ZEVO.Larkpost.Label", "list", LabelList_v1},
    {"ZEVO.Larkpost.Label", "delete", LabelDelete_v1},
    {"ZEVO.Larkpost.Attachment", "upload", AttachmentUpload_v1},
    {"ZEVO.Larkpost.Attachment", "upload_vex", AttachmentUploadVex_v1},
    {"ZEVO.Larkpost.Attachment", "upload_sticker", AttachmentUploadSticker_v1},
    {"ZEVO.Larkpost.Attachment", "download", AttachmentDownload_v1},
    {"ZEVO.Larkpost.Attachment", "download_temp", AttachmentDownloadTemp_v1},
    {"ZEVO.Larkpost.Attachment", "download_all", AttachmentDownloadAll_v1},
    {"ZEVO.Larkpost.Attachment", "delete", AttachmentDelete_v1},
    {"ZEVO.Larkpost.Attachment", "savevx", AttachmentSaveVX_v1},
    {"ZEVO.Larkpost.Sticker", "list", StickerList_v1},
    {"ZEVO.Larkpost.Sticker", "get", StickerGet_v1},
    {"ZEVO.Larkpost.Sticker", "add", StickerAdd_v1},
    {"ZEVO.Larkpost.Sticker", "delete", StickerDelete_v1},
    {"ZEVO.Larkpost.Filter", "list", FilterList_v1},
    {"ZEVO.Larkpost.Filter", "get", FilterGet_v1},
    {"ZEVO.Larkpost.Filter", "set", FilterSet_v1},
    {"ZEVO.Larkpost.Filter", "create", FilterCreate_v1},
    {"ZEVO.Larkpost.Filter", "delete", FilterDelete_v1},
    {"ZEVO.Larkpost.Filter", "setorder", FilterSetOrder_v1},
    {"ZEVO.Larkpost.Filter", "add_task", FilterAddTask_v1},
    {"ZEVO.Larkpost.Filter", "get_task_status", FilterGetTaskStatus_v1},
    {"ZEVO.Larkpost.Filter", "cancel_task", FilterCancelTask_v1},
    {"ZEVO.Larkpost.Setting.General", "get", SettingGeneralGet_v1},
    {"ZEVO.Larkpost.Setting.General", "set", SettingGeneralSet_v1},
    {"ZEVO.Larkpost.Setting.SMTP", "list", SettingSMTPList_v1},
    {"ZEVO.Larkpost.Setting.SMTP", "create", SettingSMTPCreate_v1},
    {"ZEVO.Larkpost.Setting.SMTP", "set", SettingSMTPSet_v1},
    {"ZEVO.Larkpost.Setting.SMTP", "delete", SettingSMTPDelete_v1},
    {"ZEVO.Larkpost.Setting.SMTP", "set_default", SettingSMTPSetDefault_v1},
    {"ZEVO.Larkpost.Setting.POP3", "getinfo", SettingPOP3GetInfo_v1},
    {"ZEVO.Larkpost.Setting.POP3", "list", SettingPOP3List_v1},
    {"ZEVO.Larkpost.Setting.POP3", "create", SettingPOP3Create_v1},
    {"ZEVO.Larkpost.Setting.POP3", "set", SettingPOP3Set_v1},
    {"ZEVO.Larkpost.Setting.POP3", "delete", SettingPOP3Delete_v1},
    {"ZEVO.Larkpost.Setting.ForwardReply", "get", SettingForwardReplyGet_v1},
    {"ZEVO.Larkpost.Setting.ForwardReply", "set", SettingForwardReplySet_v1},
    {"ZEVO.Larkpost.AdminSetting.POP3", "get", AdminSettingPOP3Get_v1},
    {"ZEVO.Larkpost.AdminSetting.POP3", "set", AdminSettingPOP3Set_v1},
};
static_assert(sizeof(kRows) / sizeof(kRows[0]) == 67, "the table holds every method");
constexpr size_t kRowCount = sizeof(kRows) / sizeof(kRows[0]);

TEST(ApiTableTest, RowsAreInTheirFixedOrder) {
  EXPECT_EQ(GetAPITable(), gTable);
  EXPECT_EQ(sizeof(gTable) / sizeof(gTable[0]), kRowCount) << "no terminating row";
  for (size_t i = 0; i < kRowCount; ++i) {
    EXPECT_STREQ(gTable[i].api, std::get<0>(kRows[i])) << i;
    EXPECT_EQ(gTable[i].version, 1) << i;
    EXPECT_STREQ(gTable[i].method, std::get<1>(kRows[i])) << i;
    EXPECT_EQ(gTable[i].handler, std::get<2>(kRows[i])) << i;
  }
}

TEST(ApiTableTest, DeclarationListsExactlyTheTable) {
  std::ifstream file(LARKPOST_API_DECLARATION);
  ASSERT_TRUE(file) << LARKPOST_API_DECLARATION;
  std::stringstream text;
  text << file.rdbuf();
  Json::Value declaration = J(text.str());

  std::set<std::string> declared;
  for (const std::string& api : declaration.getMemberNames()) {
    const std::string auth = declaration[api]["auth"].asString();
    EXPECT_TRUE(auth == "user" || auth == "admin" || auth == "custom") << api;
    EXPECT_EQ(auth == "custom", api == "ZEVO.Larkpost.Attachment") << api;
    EXPECT_EQ(auth == "admin", api == "ZEVO.Larkpost.AdminSetting.POP3") << api;
    for (const Json::Value& method : declaration[api]["methods"]["1"]) {
      EXPECT_TRUE(declared.insert(api + " " + method.asString()).second) << "twice: " << api;
    }
  }
  std::set<std::string> table;
  for (const ZEVO::APITableEntry& row : gTable) {
    EXPECT_TRUE(table.insert(std::string(row.api) + " " + row.method).second)
        << "twice: " << row.api << " " << row.method;
  }
  EXPECT_EQ(declared, table);
}

}  // namespace
}  // namespace larkpost::test
