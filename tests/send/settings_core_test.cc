// The settings as the core acts on them: sending identities that send with
// their own server and login, sealed passwords, the administrator's POP3
// policy, and forwarding and the vacation reply at delivery, through a relay
// that is an SMTP sink on loopback.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "appliance/mailcore/delivery.h"
#include "appliance/mailcore/mime/mime_parser.h"
#include "appliance/mailcore/secret_box.h"
#include "appliance/system/testing.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/global_setting.h"
#include "tests/fake/syslog_capture.h"
#include "tests/store/store_fixture.h"
#include "tests/support/smtp_sink.h"

namespace ornic::larkpost::testing {
namespace {

using ::larkpost::testing::SmtpSink;

bool Logged(const std::string& part) {
  for (const std::string& text : ::larkpost::fake::LogTexts()) {
    if (text.find(part) != std::string::npos) return true;
  }
  return false;
}

// The user of StoreTest is alice@example.org.
constexpr char kAlice[] = "alice@example.org";

class SettingsCoreTest : public StoreTest {
 protected:
  SettingsCoreTest() {
    ::larkpost::fake::ResetSystemLog();
    UseRelay(relay_.port());
  }

  void UseRelay(uint16_t port) {
    root_.Write("etc/larkpost.json",
                "{\"mail_server\": {\"smtp_enabled\": \"yes\"}, \"relay\": {\"host\": "
                "\"127.0.0.1\", \"port\": " +
                    std::to_string(port) + "}}");
    ::larkpost::appliance::detail::ForgetConfig();
  }
  // A port where nothing listens.
  static uint16_t DeadPort() { return SmtpSink().port(); }

  control::SMTPConfigure Identity(const std::string& mail, uint16_t port) {
    control::SMTPConfigure config;
    config.display_name.Set("Work Alice");
    config.mail.Set(mail);
    config.host_name.Set("127.0.0.1");
    config.port.Set(port);
    config.connection_type.Set(0);
    return config;
  }

  void Rules(bool forward, bool keep_copy, bool reply, int64_t begin = 0, int64_t end = 0,
             const std::string& subject = "") {
    control::ForwardConfig f;
    f.forward_enable = forward;
    f.forward_addr.Set("Bob <bob@elsewhere.net>");
    f.keep_copy.Set(keep_copy);
    control::ReplyConfig r;
    r.reply_enable = reply;
    if (begin != 0) r.reply_begin_time.Set(begin);
    if (end != 0) r.reply_end_time.Set(end);
    if (!subject.empty()) r.subject.Set(subject);
    r.message.Set("Away until Monday.\nAlice");
    ASSERT_TRUE(settings_.SetForwardReply(f, r));
  }

  store::Delivered Deliver(const std::string& headers, const std::string& body = "Hi.\n") {
    return store::Deliver(controller(), mime::ParseMessage(headers + "\n" + body, clock_.now()));
  }
  // The error code of sending a draft from `from` (0: sent).
  int32_t Send(const std::string& from) {
    control::MessageControl messages(controller());
    control::MessageConfig draft;
    draft.from.Set(from);
    draft.to.Set({"bob@example.org"});
    draft.body.Set("<p>Hi</p>");
    return CodeOf([&] { messages.Send(messages.CreateDraft(draft)); });
  }
  std::string Text(const std::string& sql) {
    store::Statement row(db(), sql.c_str());
    return row.Step() ? row.Text(0) : "";
  }
  int64_t Inbox() { return Query("SELECT count(*) FROM message WHERE mailbox_id = 1"); }

  SmtpSink relay_;
  control::SettingControl settings_{controller()};
};

const std::string kFromZoe =
    "From: Zoe <zoe@example.net>\nTo: Alice <alice@example.org>\nSubject: Lunch?\n"
    "Message-ID: <m1@example.net>\nReferences: <m0@example.net>\n";

TEST_F(SettingsCoreTest, IdentitiesKeepSealedPasswordsAndSendWithTheirServerAndLogin) {
  SmtpSink work, home;
  control::SMTPConfigure incomplete = Identity("alice@work.example", work.port());
  incomplete.connection_type = {};
  EXPECT_EQ(settings_.CreateSMTP(incomplete), 0);
  control::SMTPConfigure bad_port = Identity("alice@work.example", work.port());
  bad_port.port.Set(70000);
  EXPECT_EQ(settings_.CreateSMTP(bad_port), 0);

  control::SMTPConfigure config = Identity("Alice <alice@work.example>", work.port());
  config.user_name.Set("alice.w");
  config.password.Set("first pass");
  const int work_id = settings_.CreateSMTP(config);
  ASSERT_GT(work_id, 0);
  const int home_id = settings_.CreateSMTP(Identity("alice@home.example", home.port()));
  EXPECT_EQ(settings_.DefaultIDSMTP(), 0);
  EXPECT_FALSE(settings_.SetDefaultSMTP(home_id + 10));
  EXPECT_TRUE(settings_.SetDefaultSMTP(home_id));
  EXPECT_EQ(settings_.DefaultIDSMTP(), home_id);

  EXPECT_EQ(settings_.ListSMTP().at(0).mail, "alice@work.example");

  // Only what is set changes; the password only when it is sent.
  control::SMTPConfigure rename;
  rename.display_name.Set("Alice at Work");
  EXPECT_TRUE(settings_.ModifySMTP(work_id, rename));
  EXPECT_FALSE(settings_.ModifySMTP(home_id + 10, rename));
  work.RequireAuth("alice.w", "first pass");
  EXPECT_EQ(Send("alice@work.example"), 0);
  control::SMTPConfigure repass;
  repass.password.Set("second pass");
  EXPECT_TRUE(settings_.ModifySMTP(work_id, repass));
  EXPECT_EQ(Send("alice@work.example"), kErrorSmtpAuth);
  work.RequireAuth("alice.w", "second pass");
  EXPECT_EQ(Send("alice@work.example"), 0);
  // Any other From leaves through the default identity, without a login.
  EXPECT_EQ(Send(kAlice), 0);
  ASSERT_EQ(home.sessions().size(), 1u);
  EXPECT_FALSE(home.sessions()[0].authenticated);

  EXPECT_FALSE(settings_.DeleteSMTP({work_id, home_id + 10}));
  EXPECT_EQ(settings_.ListSMTP().size(), 2u);
  EXPECT_TRUE(settings_.DeleteSMTP({home_id}));
  EXPECT_EQ(settings_.DefaultIDSMTP(), 0);
}

TEST_F(SettingsCoreTest, APasswordKeptInPlainTextIsSealedOnFirstUseAndStillLogsIn) {
  SmtpSink server;
  server.RequireAuth("alice", "old plain");
  db().Exec(
      "INSERT INTO smtp_account(mail, host_name, port, user_name, password, is_default)"
      " VALUES ('alice@old.example', '127.0.0.1', " +
      std::to_string(server.port()) + ", 'alice', 'old plain', 1)");
  EXPECT_EQ(settings_.ListSMTP().size(), 1u);
  EXPECT_TRUE(store::IsSealed(Text("SELECT password FROM smtp_account")));
  EXPECT_EQ(Send("alice@old.example"), 0);
  EXPECT_TRUE(server.sessions().at(0).authenticated);
}

TEST_F(SettingsCoreTest, ThePop3PolicyIsKeptPerDomainAndReplacedWhole) {
  global_control::SettingControl example("example.org"), other("other.org");
  record::GlobalPOP3Config policy = example.GetPOP3Config();
  EXPECT_TRUE(policy.IsValid());
  EXPECT_FALSE(policy.enable_pop3);
  EXPECT_EQ(policy.pop3_fetch_period, 30u);
  EXPECT_FALSE(settings_.IsEnablePOP3());

  global_control::POP3Config change;
  change.enable_pop3 = true;
  change.pop3_fetch_period = 15;
  EXPECT_TRUE(example.SetPOP3Config(change));
  EXPECT_TRUE(settings_.IsEnablePOP3());
  change.enable_pop3 = false;
  change.pop3_fetch_period.reset();  // the period stays
  EXPECT_TRUE(example.SetPOP3Config(change));
  policy = example.GetPOP3Config();
  EXPECT_FALSE(policy.enable_pop3);
  EXPECT_EQ(policy.pop3_fetch_period, 15u);
  change.pop3_fetch_period = 0;
  EXPECT_FALSE(example.SetPOP3Config(change));
  EXPECT_EQ(example.GetPOP3Config().pop3_fetch_period, 15u);
  EXPECT_EQ(other.GetPOP3Config().pop3_fetch_period, 30u);

  root_.Write("etc/pop3/example.org.json", "{\"enable_pop3\": tru");
  EXPECT_FALSE(example.GetPOP3Config().IsValid());
  EXPECT_FALSE(settings_.IsEnablePOP3());
  EXPECT_FALSE(global_control::SettingControl("../etc").GetPOP3Config().IsValid());
  EXPECT_FALSE(global_control::SettingControl("../etc").SetPOP3Config(change));
}

TEST_F(SettingsCoreTest, TheRulesAreStoredWholeAndCheckedForSense) {
  control::ForwardConfig forward;
  control::ReplyConfig reply;
  ASSERT_TRUE(settings_.GetForwardReply(forward, reply));
  EXPECT_FALSE(forward.forward_enable || forward.forward_addr.IsSet() || reply.reply_enable ||
               reply.reply_end_time.IsSet() || reply.subject.IsSet());

  forward.forward_enable = true;
  EXPECT_FALSE(forward.IsValid());
  forward.forward_addr.Set("not an address");
  EXPECT_FALSE(forward.IsValid());
  forward.forward_addr.Set("bob@elsewhere.net");
  EXPECT_TRUE(forward.IsValid());
  reply.reply_begin_time.Set(200);
  reply.reply_end_time.Set(100);
  EXPECT_FALSE(reply.IsValid());
  EXPECT_FALSE(settings_.SetForwardReply(forward, reply));
  reply.reply_end_time.Set(0);  // what the settings page shows for no end
  EXPECT_TRUE(reply.IsValid());
  reply.reply_end_time.Set(300);
  reply.reply_enable = true;
  reply.message.Set("Away");
  ASSERT_TRUE(settings_.SetForwardReply(forward, reply));

  control::ForwardConfig f;
  control::ReplyConfig r;
  ASSERT_TRUE(settings_.GetForwardReply(f, r));
  EXPECT_EQ(f.forward_addr.Get() + " " + std::to_string(r.reply_end_time.Get()),
            "bob@elsewhere.net 300");
  EXPECT_FALSE(f.keep_copy.IsSet() || r.subject.IsSet());
}

TEST_F(SettingsCoreTest, TheVacationReplyAnswersPeopleWhoWroteToTheUserAndNoMachine) {
  settings_.CreateSMTP(Identity("alice@work.example", relay_.port()));
  Rules(false, false, true, clock_.now() - 60, clock_.now() + 3600);
  struct Case {
    const char* what;
    std::string headers;
    bool answered;
  };
  auto from = [](const std::string& sender, const std::string& extra = "",
                 const std::string& to = "To: alice@example.org\n") {
    return "From: <" + sender + ">\n" + to + "Subject: Hello\n" + extra;
  };
  const std::vector<Case> cases = {
      {"a person", from("p1@example.net"), true},
      {"Auto-Submitted no", from("p2@example.net", "Auto-Submitted: no\n"), true},
      {"the identity in Cc",
       from("p3@example.net", "", "To: x@example.net\nCc: alice@work.example\n"), true},
      {"Return-Path chooses", from("p4@example.net", "Return-Path: <p5@example.net>\n"), true},
      {"null sender", from("n1@example.net", "Return-Path: <>\n"), false},
      {"auto-replied", from("n2@example.net", "Auto-Submitted: auto-replied\n"), false},
      {"auto-generated", from("n3@example.net", "Auto-Submitted: auto-generated (bounce)\n"),
       false},
      {"List-Id", from("n4@example.net", "List-Id: <news.example.net>\n"), false},
      {"List-Unsubscribe", from("n5@example.net", "List-Unsubscribe: <mailto:u@x.net>\n"), false},
      {"Precedence bulk", from("n6@example.net", "Precedence: bulk\n"), false},
      {"Precedence list", from("n7@example.net", "Precedence: List\n"), false},
      {"Precedence junk", from("n8@example.net", "Precedence: junk\n"), false},
      {"MAILER-DAEMON", from("MAILER-DAEMON@example.net"), false},
      {"owner-", from("owner-news@example.net"), false},
      {"-request", from("news-request@example.net"), false},
      {"the user herself", from("Alice@Example.org"), false},
      {"her identity", from("alice@work.example"), false},
      {"not named (Bcc)", from("n9@example.net", "", "To: team@example.net\n"), false},
  };
  size_t replies = 0;
  for (const Case& c : cases) {
    const store::Delivered delivered = Deliver(c.headers);
    EXPECT_GT(delivered.id, 0) << c.what;
    EXPECT_EQ(delivered.replied, c.answered) << c.what;
    replies += c.answered;
    EXPECT_EQ(relay_.messages().size(), replies) << c.what;
  }
  EXPECT_EQ(relay_.sessions().back().rcpt_to, std::vector<std::string>{"p5@example.net"});

  // Outside the window nobody is answered.
  clock_.Advance(3601);
  EXPECT_FALSE(Deliver(from("late@example.net")).replied);
  Rules(false, false, true, clock_.now() + 60);
  EXPECT_FALSE(Deliver(from("early@example.net")).replied);
  EXPECT_EQ(relay_.messages().size(), replies);
}

// The envelope and In-Reply-To through the host: settings_delivery_test.
TEST_F(SettingsCoreTest, OneAutomaticReplyPerSenderAWeekAndOnlyOnceSent) {
  Rules(false, false, true);
  ASSERT_TRUE(Deliver(kFromZoe).replied);
  for (const char* line :
       {"From: <alice@example.org>\r\n", "To: <zoe@example.net>\r\n", "Subject: Auto: Lunch?\r\n",
        "References: <m0@example.net> <m1@example.net>\r\n", "Auto-Submitted: auto-replied\r\n",
        "\r\n\r\nQXdheSB1bnRpbCBNb25kYXkuDQpBbGljZQ0K\r\n"}) {
    EXPECT_NE(relay_.messages().at(0).find(line), std::string::npos) << line;
  }
  clock_.Advance(6 * kDay);
  EXPECT_FALSE(Deliver(kFromZoe).replied);
  EXPECT_TRUE(Deliver("From: other@example.net\nTo: alice@example.org\n").replied);
  clock_.Advance(kDay);
  EXPECT_TRUE(Deliver(kFromZoe).replied);
  EXPECT_EQ(relay_.messages().size(), 3u);

  // New rules forget who was answered; the user's own subject is encoded.
  Rules(false, false, true, 0, 0, "Über den Berg");
  ASSERT_TRUE(Deliver(kFromZoe).replied);
  EXPECT_NE(relay_.messages()[3].find("Subject: =?UTF-8?B?w5xiZXIgZGVuIEJlcmc=?=\r\n"),
            std::string::npos);

  // A reply the relay did not take is not remembered.
  Rules(false, false, true);
  UseRelay(DeadPort());
  const store::Delivered lost = Deliver(kFromZoe);
  EXPECT_GT(lost.id, 0);
  EXPECT_FALSE(lost.replied);
  UseRelay(relay_.port());
  EXPECT_TRUE(Deliver(kFromZoe).replied);
}

TEST_F(SettingsCoreTest, AForwardGoesOnUnchangedWithOurMarkAndAFailedOneIsKept) {
  const std::string original = kFromZoe + "Return-Path: <bounce@example.net>\n";
  Rules(true, /*keep_copy=*/false, false);
  store::Delivered delivered = Deliver(original, "Body.\n");
  EXPECT_TRUE(delivered.forwarded);
  EXPECT_EQ(delivered.id, 0);
  EXPECT_EQ(Inbox(), 0);
  EXPECT_TRUE(Inconsistencies().empty());
  ASSERT_EQ(relay_.sessions().size(), 1u);
  EXPECT_EQ(relay_.sessions()[0].mail_from, "bounce@example.net");
  EXPECT_EQ(relay_.sessions()[0].rcpt_to, std::vector<std::string>{"bob@elsewhere.net"});
  std::string crlf = original + "\nBody.\n";
  for (size_t at = 0; (at = crlf.find('\n', at)) != std::string::npos; at += 2)
    crlf.insert(at, "\r");
  EXPECT_EQ(relay_.messages()[0], "X-Larkpost-Forwarded: <alice@example.org>\r\n" + crlf);

  // Back again (a forward that loops): kept here, not sent on.
  delivered = Deliver("X-Larkpost-Forwarded: <ALICE@example.org>\n" + kFromZoe);
  EXPECT_FALSE(delivered.forwarded);
  EXPECT_GT(delivered.id, 0);
  // Another user's mark is no loop of ours.
  EXPECT_TRUE(Deliver("X-Larkpost-Forwarded: <carl@example.org>\n" + kFromZoe).forwarded);

  Rules(true, /*keep_copy=*/true, false);
  delivered = Deliver(kFromZoe);
  EXPECT_TRUE(delivered.forwarded);
  EXPECT_GT(delivered.id, 0);
  EXPECT_EQ(relay_.messages().size(), 3u);

  // The relay is down: the message is stored, with or without a copy asked.
  UseRelay(DeadPort());
  for (bool keep_copy : {false, true}) {
    Rules(true, keep_copy, false);
    const int64_t before = Inbox();
    delivered = Deliver(kFromZoe);
    EXPECT_FALSE(delivered.forwarded);
    EXPECT_GT(delivered.id, 0);
    EXPECT_EQ(Inbox(), before + 1);
  }
  EXPECT_NE(Logged("forwarding to bob@elsewhere.net failed"), std::string::npos);
  EXPECT_TRUE(Inconsistencies().empty());
}

TEST_F(SettingsCoreTest, AMessageThatAFilterDeletesIsNeitherForwardedNorAnswered) {
  control::FilterConfig config;
  record::ConditionSet condition;
  condition.AddCondition(constant::kConditionSubject, "Lunch", false);
  record::ActionSet action;
  record::Action remove;
  remove.kind = constant::kActionDelete;
  action.AddAction(remove);
  config.condition.Set(condition);
  config.action.Set(action);
  ASSERT_GT(control::FilterControl(controller()).Create(config), 0);
  for (bool keep_copy : {false, true}) {
    Rules(true, keep_copy, true);
    const store::Delivered delivered = Deliver(kFromZoe);
    EXPECT_EQ(delivered.id, 0);
    EXPECT_FALSE(delivered.forwarded || delivered.replied);
  }
  EXPECT_TRUE(relay_.sessions().empty());
  EXPECT_EQ(Inbox(), 0);
}

}  // namespace
}  // namespace ornic::larkpost::testing
