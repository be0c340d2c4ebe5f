// The settings APIs: change records marked set exactly as the request gave
// them, the sync type of each change, the refusals (with their log lines or
// without), the administrator's policy, and converters that never show a
// password or "fetch_pass_days".
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/fake/fake_platform.h"
#include "tests/unit/handler_test_util.h"
#include "webapi/api_table.h"
#include "webapi/format/setting.h"

namespace larkpost::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace format = ornic::larkpost::webapi::format;
namespace record = ornic::larkpost::record;

using SettingTest = HandlerTest;

const char kSession[] = "Controller 1026 sid-alice";
const char kOk[] = R"({"success": true})";
const char kBad[] = R"({"success": false, "error": {"code": 120}})";
const char kFailed[] = R"({"success": false, "error": {"code": 117}})";
const char kSync2[] = "Syncer::TriggerSync 2";
const char kNoGeneral[] =
    "conversations_per_page=- display_external_image=- mark_as_read_time=- enable_signature=- "
    "update_interval_time=- split_pane_mode=- preview_layout=- theme=- composer_fontname=- "
    "composer_fontsize=- composer_forecolor=- codepage=-";
const char kNoSMTP[] =
    "display_name=- mail=- host_name=- port=- user_name=- password=- connection_type=- "
    "signature=-";

// A request, the envelope the client reads, the core calls after opening
// the session and the lines that unit "setting" logged.
struct Case {
  ZEVO::APIHandler handler;
  std::string params;
  const char* answer;
  std::vector<std::string> calls;
  std::vector<std::string> logged;
};

class SettingCases : public SettingTest {
 protected:
  void Check(const std::vector<Case>& cases) {
    for (const Case& c : cases) {
      SCOPED_TRACE(c.params);
      fake::core().calls.clear();
      fake::ResetSystemLog();
      EXPECT_EQ(AsSent(Run(c.handler, J(c.params))), J(c.answer));
      std::vector<std::string> calls = {kSession};
      calls.insert(calls.end(), c.calls.begin(), c.calls.end());
      EXPECT_EQ(fake::core().calls, calls);
      EXPECT_EQ(Logged("setting"), c.logged);
    }
  }
};

TEST_F(SettingCases, GeneralSetMarksWhatWasSentAndRefusesAnyBadValue) {
  const std::string set = "SettingControl::SetGeneralSetting ";
  Check({{SettingGeneralSet_v1, "{}", kOk, {set + kNoGeneral, kSync2}, {}},
         {SettingGeneralSet_v1,
          R"({"conversations_per_page": 50, "mark_as_read_time": 10, "composer_fontsize": "12pt",
              "composer_forecolor": "", "codepage": "utf8", "theme": 3, "enable_signature": false})",
          kOk,
          {set + "conversations_per_page=50 display_external_image=- mark_as_read_time=10 "
                 "enable_signature=false update_interval_time=- split_pane_mode=- "
                 "preview_layout=- theme=3 composer_fontname=- composer_fontsize='12pt' "
                 "composer_forecolor='' codepage='utf8'",
           kSync2},
          {}}});
  for (const char* good : {R"({"conversations_per_page": 25})", R"({"mark_as_read_time": 0})",
                           R"({"mark_as_read_time": 1})", R"({"mark_as_read_time": 3})",
                           R"({"composer_fontsize": ""})", R"({"composer_forecolor": "#A0b"})"}) {
    EXPECT_EQ(Run(SettingGeneralSet_v1, J(good)), J(kOk)) << good;
  }
  ExpectRefused(SettingGeneralSet_v1, 120,
                {R"({"conversations_per_page": 30})", R"({"mark_as_read_time": 2})",
                 R"({"mark_as_read_time": -1})", R"({"composer_fontsize": "012pt"})",
                 R"({"composer_fontsize": "12"})", R"({"composer_fontsize": "12 pt"})",
                 R"({"composer_fontsize": "12ptx"})", R"({"composer_forecolor": "red"})",
                 R"({"codepage": null})", R"({"display_external_image": "true"})",
                 R"({"theme": 1, "conversations_per_page": 30, "codepage": "big5"})"});
  fake::core().failures["SettingControl::SetGeneralSetting"] = 0;
  Check({{SettingGeneralSet_v1, "{}", kFailed, {set + kNoGeneral}, {}}});
}

TEST_F(SettingCases, SMTPCreateAndSetKeepTheirAsymmetries) {
  const std::string minimal =
      R"({"display_name": "Ann", "mail": "ann@example.org", "host_name": "h", "port": 25,
          "connection_type": 0})";
  const std::string create_minimal =
      "SettingControl::CreateSMTP display_name='Ann' mail='ann@example.org' host_name='h' "
      "port=25 user_name=- password=- connection_type=0 signature=-";
  Check({{SettingSMTPCreate_v1,
          R"({"display_name": "Ann", "mail": "ann@example.org", "host_name": "smtp.example.org",
              "port": 465, "user_name": "ann", "password": "s3cret", "connection_type": 1,
              "signature": "-- Ann"})",
          R"({"success": true, "data": {"id": 100}})",
          {"SettingControl::CreateSMTP display_name='Ann' mail='ann@example.org' "
           "host_name='smtp.example.org' port=465 user_name='ann' password='s3cret' "
           "connection_type=1 signature='-- Ann'",
           kSync2},
          {}},
         {SettingSMTPCreate_v1,
          minimal,
          R"({"success": true, "data": {"id": 100}})",
          {create_minimal, kSync2},
          {}},
         // "set" clears a signature or a login name with an empty text.
         {SettingSMTPSet_v1,
          R"({"id": 7})",
          kOk,
          {"SettingControl::ModifySMTP 7 " + std::string(kNoSMTP), kSync2},
          {}},
         {SettingSMTPSet_v1,
          R"({"id": 7, "signature": "", "user_name": "", "port": 587})",
          kOk,
          {"SettingControl::ModifySMTP 7 display_name=- mail=- host_name=- port=587 "
           "user_name='' password=- connection_type=- signature=''",
           kSync2},
          {}}});
  ExpectRefused(SettingSMTPCreate_v1, 120,
                {R"({"display_name": "A", "mail": "a@b", "host_name": "h", "connection_type": 0})",
                 R"({"display_name": "A", "mail": "a@b", "host_name": "h", "port": 25})",
                 R"({"display_name": "A", "mail": "a@b", "host_name": "h", "port": 25,
                     "connection_type": 0, "signature": ""})",
                 R"({"display_name": "A", "mail": "a@b", "host_name": "h", "port": 25,
                     "connection_type": 0, "user_name": ""})"});
  ExpectRefused(SettingSMTPSet_v1, 120,
                {R"({"id": -1})", R"({"signature": "x"})", R"({"id": 7, "mail": ""})"});
  fake::core().next_id = 0;
  fake::core().failures["SettingControl::ModifySMTP"] = 0;
  Check({{SettingSMTPCreate_v1, minimal, kFailed, {create_minimal}, {}},
         {SettingSMTPSet_v1,
          R"({"id": 7})",
          kFailed,
          {"SettingControl::ModifySMTP 7 " + std::string(kNoSMTP)},
          {"set failed"}}});
}

TEST_F(SettingTest, DeletesAndSetDefaultLogTheirRefusals) {
  const std::vector<std::string> sync = {kSync2};
  ExpectChange(SettingSMTPDelete_v1, R"({"id": [3, 4]})", "SettingControl::DeleteSMTP [3,4]",
               "setting", "delete failed", sync);
  ExpectChange(SettingSMTPSetDefault_v1, R"({"id": 0})", "SettingControl::SetDefaultSMTP 0",
               "setting", "SetDefaultSMTP failed", sync);
  fake::core().enable_pop3 = true;
  for (auto [handler, params] : std::vector<std::pair<ZEVO::APIHandler, const char*>>{
           {SettingSMTPDelete_v1, R"({"id": null})"},
           {SettingSMTPDelete_v1, R"({"id": [0]})"},
           {SettingSMTPSetDefault_v1, R"({"id": -1})"},
           {SettingSMTPSetDefault_v1, R"({"id": "3"})"},
           {SettingPOP3Delete_v1, R"({"id": [1, "2"]})"}}) {
    fake::ResetSystemLog();
    EXPECT_EQ(Run(handler, J(params)), ErrorAnswer(120)) << params;
    EXPECT_THAT(Logged("setting"), ElementsAre("parameter invalid")) << params;
  }
  EXPECT_THAT(fake::CallsStartingWith("Syncer::"), IsEmpty());
}

TEST_F(SettingCases, POP3RefusesEverythingButGetInfoWhilePolicyIsOff) {
  const char asked[] = "SettingControl::IsEnablePOP3";
  // getinfo and create through the host: pop3_fetch_test.
  Check({{SettingPOP3List_v1, "{}", kBad, {asked}, {}},
         {SettingPOP3Set_v1, R"({"id": 2})", kBad, {asked}, {}},
         {SettingPOP3Delete_v1, R"({"id": [2]})", kBad, {asked}, {}}});
}

TEST_F(SettingCases, POP3TakesFetchPassDaysOnlyOnCreate) {
  fake::core().enable_pop3 = true;
  const char asked[] = "SettingControl::IsEnablePOP3";
  const std::string account =
      R"({"mail": "ann@example.net", "server_provider": 2, "host_name": "pop.example.net",
          "port": 995, "user_name": "ann", "enable_ssl": true, "delete_after_fetch": false,
          "mailbox_path": "INBOX/Net", "password": "")";
  const std::string create =
      "SettingControl::CreatePOP3 mail='ann@example.net' server_provider=2 "
      "host_name='pop.example.net' port=995 user_name='ann' password='' enable_ssl=true "
      "delete_after_fetch=false mailbox_path='INBOX/Net' fetch_pass_days=30";
  const std::string modify =
      "SettingControl::ModifyPOP3 4 mail=- server_provider=- host_name=- port=- user_name=- "
      "password=- enable_ssl=- delete_after_fetch=- mailbox_path=- fetch_pass_days=-";
  Check(
      {{SettingPOP3GetInfo_v1,
        "{}",
        R"({"success": true, "data": {"enable_pop3": true}})",
        {asked},
        {}},
       {SettingPOP3Create_v1,
        account + R"(, "fetch_pass_days": 30})",
        R"({"success": true, "data": {"id": 100}})",
        {asked, create, kSync2},
        {}},
       {SettingPOP3Create_v1, account + "}", kBad, {asked}, {}},
       {SettingPOP3Create_v1,
        account + R"(, "fetch_pass_days": 30, "user_name": ""})",
        kBad,
        {asked},
        {}},
       {SettingPOP3Set_v1, R"({"id": 4, "fetch_pass_days": 7})", kOk, {asked, modify, kSync2}, {}},
       {SettingPOP3Delete_v1,
        R"({"id": [4]})",
        kOk,
        {asked, "SettingControl::DeletePOP3 [4]", kSync2},
        {}}});
  fake::core().next_id = -1;
  fake::core().failures["SettingControl::ModifyPOP3"] = 0;
  fake::core().failures["SettingControl::DeletePOP3"] = 0;
  Check({{SettingPOP3Create_v1,
          account + R"(, "fetch_pass_days": 30})",
          kFailed,
          {asked, create},
          {}},
         {SettingPOP3Set_v1, R"({"id": 4})", kFailed, {asked, modify}, {"set failed"}},
         {SettingPOP3Delete_v1,
          R"({"id": [4]})",
          kFailed,
          {asked, "SettingControl::DeletePOP3 [4]"},
          {"delete failed"}}});
}

TEST_F(SettingCases, ForwardReplyUsesSyncTypeThree) {
  const char get[] = "SettingControl::GetForwardReply";
  const char fwd_valid[] = "ForwardConfig::IsValid";
  const char reply_valid[] = "ReplyConfig::IsValid";
  const char both[] = R"({"forward_enable": false, "reply_enable": false})";
  const std::string store_both =
      "SettingControl::SetForwardReply forward_enable=false forward_addr=- keep_copy=- "
      "reply_enable=false reply_begin_time=- reply_end_time=- subject=- message=-";
  fake::core().forward.forward_addr.Set("me@example.net");
  fake::core().reply.reply_end_time.Set(4102531200);
  Check({{SettingForwardReplyGet_v1,
          "{}",
          R"({"success": true, "data": {"forward_enable": false, "forward_addr": "me@example.net",
              "keep_copy": false, "reply_enable": false, "reply_begin_time": 0,
              "reply_end_time": 4102531200, "subject": "", "message": ""}})",
          {get, fwd_valid, reply_valid},
          {}},
         {SettingForwardReplySet_v1,
          R"({"forward_enable": true, "forward_addr": "me@example.net", "keep_copy": true,
              "reply_enable": true, "reply_begin_time": 4102444800, "reply_end_time": 4102531200,
              "subject": "Away", "message": "Back soon"})",
          kOk,
          {fwd_valid, reply_valid,
           "SettingControl::SetForwardReply forward_enable=true forward_addr='me@example.net' "
           "keep_copy=true reply_enable=true reply_begin_time=4102444800 "
           "reply_end_time=4102531200 subject='Away' message='Back soon'",
           "Syncer::TriggerSync 3"},
          {}},
         {SettingForwardReplySet_v1,
          both,
          kOk,
          {fwd_valid, reply_valid, store_both, "Syncer::TriggerSync 3"},
          {}}});
  for (const char* refused :
       {R"({"forward_enable": false})", R"({"reply_enable": false})",
        R"({"forward_enable": false, "reply_enable": true, "subject": ""})",
        R"({"forward_enable": true, "reply_enable": false, "forward_addr": ""})",
        R"({"forward_enable": false, "reply_enable": true, "reply_begin_time": "5"})"}) {
    Check({{SettingForwardReplySet_v1, refused, kBad, {}, {"parameter invalid"}}});
  }
  fake::core().failures["SettingControl::SetForwardReply"] = 0;
  Check({{SettingForwardReplySet_v1, both, kFailed, {fwd_valid, reply_valid, store_both}, {}}});
  fake::core().failures = {{reply_valid, 0}};
  Check({{SettingForwardReplySet_v1, both, kBad, {fwd_valid, reply_valid}, {"parameter invalid"}},
         {SettingForwardReplyGet_v1, "{}", kFailed, {get, fwd_valid, reply_valid}, {}}});
  fake::core().failures = {{fwd_valid, 0}};
  Check({{SettingForwardReplySet_v1, both, kBad, {fwd_valid}, {"parameter invalid"}},
         {SettingForwardReplyGet_v1, "{}", kFailed, {get, fwd_valid}, {}}});
  fake::core().failures = {{get, 0}};
  Check({{SettingForwardReplyGet_v1, "{}", kFailed, {get}, {}}});
}

TEST_F(SettingTest, ListsConvertEveryAccountWithoutSecrets) {
  record::SMTPConfig smtp;
  smtp.id = 3;
  smtp.display_name = "Ann";
  smtp.mail = "ann@example.org";
  smtp.host_name = "smtp.example.org";
  smtp.port = 465;
  smtp.connection_type = 1;
  fake::core().smtp = {smtp};
  fake::core().smtp_default_id = 3;
  const Json::Value smtp_list = Run(SettingSMTPList_v1);
  EXPECT_EQ(AsSent(smtp_list), J(R"({"success": true, "data": {"smtp_default_id": 3, "smtp": [
      {"id": 3, "display_name": "Ann", "mail": "ann@example.org", "host_name": "smtp.example.org",
       "port": 465, "user_name": "", "connection_type": 1, "signature": ""}]}})"));
  EXPECT_EQ(Data(smtp_list)["smtp"][0]["port"].type(), Json::uintValue);

  record::POP3Config pop3;
  pop3.id = 4;
  pop3.mail = "ann@example.net";
  pop3.server_provider = -1;
  pop3.port = 995;
  pop3.enable_ssl = true;
  pop3.mailbox_path = "INBOX";
  pop3.fetch_pass_days = 30;
  fake::core().pop3 = {pop3};
  fake::core().enable_pop3 = true;
  const Json::Value pop3_list = Run(SettingPOP3List_v1);
  EXPECT_EQ(AsSent(pop3_list), J(R"({"success": true, "data": {"pop3": [
      {"id": 4, "mail": "ann@example.net", "server_provider": -1, "host_name": "", "port": 995,
       "user_name": "", "enable_ssl": true, "delete_after_fetch": false,
       "mailbox_path": "INBOX"}]}})"));
  EXPECT_EQ(Data(pop3_list)["pop3"][0]["port"].type(), Json::uintValue);

  fake::platform().general.composer_fontsize = "12pt";
  fake::platform().general.composer_forecolor = "#000";
  fake::platform().general.codepage = "950";
  EXPECT_EQ(AsSent(Run(SettingGeneralGet_v1)), J(R"({"success": true, "data": {
      "conversations_per_page": 25, "display_external_image": false, "mark_as_read_time": 0,
      "enable_signature": true, "update_interval_time": 5, "split_pane_mode": 0,
      "preview_layout": 0, "theme": 0, "composer_fontname": "", "composer_fontsize": "12pt",
      "composer_forecolor": "#000", "codepage": "950"}})"));
}

// The administrator's policy: no user session, no log identity, the domain
// of the calling user.
TEST_F(SettingTest, AdminPolicyOfTheCallersDomain) {
  fake::core().domains[kAlice] = "example.org";
  const std::vector<std::string> opened = {"global_control::SettingControl example.org"};
  auto calls_after = [&](const std::string& call) {
    std::vector<std::string> all = opened;
    all.push_back(call);
    return all;
  };
  const std::string set = "global_control::SetPOP3Config example.org ";
  EXPECT_EQ(Run(AdminSettingPOP3Set_v1, J(R"({"enable_pop3": false})")), J(kOk));
  EXPECT_EQ(fake::core().calls, calls_after(set + "enable_pop3=false pop3_fetch_period=-"));
  fake::core().calls.clear();
  EXPECT_EQ(Run(AdminSettingPOP3Set_v1, J(R"({"enable_pop3": true, "pop3_fetch_period": 30})")),
            J(kOk));
  EXPECT_EQ(fake::core().calls, calls_after(set + "enable_pop3=true pop3_fetch_period=30"));
  fake::core().calls.clear();
  const Json::Value got = Run(AdminSettingPOP3Get_v1);
  EXPECT_EQ(AsSent(got), J(R"({"success": true, "data": {"enable_pop3": true,
                                                         "pop3_fetch_period": 30}})"));
  EXPECT_EQ(Data(got)["pop3_fetch_period"].type(), Json::uintValue);
  EXPECT_EQ(fake::core().calls, calls_after("global_control::GetPOP3Config example.org"));

  for (const char* refused : {R"({"enable_pop3": true, "pop3_fetch_period": 0})",
                              R"({"enable_pop3": true, "pop3_fetch_period": -5})",
                              R"({"enable_pop3": true, "pop3_fetch_period": "30"})",
                              R"({"enable_pop3": "true"})", R"({"pop3_fetch_period": 30})"}) {
    fake::core().calls.clear();
    EXPECT_EQ(Run(AdminSettingPOP3Set_v1, J(refused)), ErrorAnswer(120)) << refused;
    EXPECT_EQ(fake::core().calls, opened) << refused;
  }
  fake::core().failures["global_control::SetPOP3Config"] = 0;
  fake::core().failures["global_control::GetPOP3Config"] = 0;
  EXPECT_EQ(Run(AdminSettingPOP3Set_v1, J(R"({"enable_pop3": true})")), ErrorAnswer(117));
  EXPECT_EQ(Run(AdminSettingPOP3Get_v1), ErrorAnswer(117));
  fake::core().failures["global_control::SettingControl"] = 502;
  EXPECT_EQ(Run(AdminSettingPOP3Get_v1), ErrorAnswer(502));
  EXPECT_THAT(fake::system_log().lines, IsEmpty());
  EXPECT_THAT(fake::system_log().idents, IsEmpty());
}

}  // namespace
}  // namespace larkpost::test
