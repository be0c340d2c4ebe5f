// Sending drafts for real: the core builds the message, talks SMTP to a sink
// on loopback, and keeps the sent copy. What the sink received is read back
// with GMime, independently of the code that built it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "appliance/mailcore/send/message_builder.h"
#include "appliance/mailcore/send/smtp_client.h"
#include "appliance/system/testing.h"
#include "platform/mailcore/control.h"
#include "tests/fake/syslog_capture.h"
#include "tests/store/store_fixture.h"
#include "tests/support/mail_reader.h"
#include "tests/support/smtp_sink.h"

namespace ornic::larkpost::testing {
namespace {

using namespace std::string_literals;
using ::larkpost::testing::SmtpSession;
using ::larkpost::testing::SmtpSink;

using Received = ::larkpost::testing::ReceivedMessage;
constexpr auto Parse = &::larkpost::testing::ReadMessage;

// The header block of a message, with folded lines joined.
std::string Headers(const std::string& data) {
  std::string block = "\r\n" + data.substr(0, data.find("\r\n\r\n") + 2);
  return std::regex_replace(block, std::regex("\r\n[ \t]+"), " ");
}

const std::string kPdf = "%PDF-1.4\n\x00\x01\x02\xff binary\r\n.\r\nend"s;
const std::string kPng = "\x89PNG\r\n\x1a\n\x00\x00\x00\rIHDR tiny"s;

class SendTest : public StoreTest {
 protected:
  SendTest() { ::larkpost::fake::ResetSystemLog(); }

  int AddAccount(const std::string& mail, uint16_t port, bool is_default = false,
                 const std::string& user = "", const std::string& password = "",
                 int connection_type = 0, const std::string& display_name = "") {
    store::Statement insert(db(),
                            "INSERT INTO smtp_account(display_name, mail, host_name, port, "
                            "user_name, password, connection_type, is_default) "
                            "VALUES (?1, ?2, '127.0.0.1', ?3, ?4, ?5, ?6, ?7)");
    insert.Bind(1, display_name).Bind(2, mail).Bind(3, static_cast<int>(port)).Bind(4, user);
    insert.Bind(5, password).Bind(6, connection_type).Bind(7, is_default);
    insert.Run();
    return static_cast<int>(db().LastInsertRowid());
  }

  void ConfigureRelay(bool smtp_enabled, uint16_t port) {
    root_.Write(
        "etc/larkpost.json",
        std::string("{\"mail_server\": {\"smtp_enabled\": \"") + (smtp_enabled ? "yes" : "no") +
            "\"}, \"relay\": {\"host\": \"127.0.0.1\", \"port\": " + std::to_string(port) + "}}");
    ::larkpost::appliance::detail::ForgetConfig();
  }

  int Draft(const std::vector<std::string>& to, const std::string& html = "<p>Hi</p>",
            const std::vector<int>& uploads = {}, const std::string& from = "ann@example.org") {
    control::MessageConfig config;
    config.from.Set(from);
    config.to.Set(to);
    config.subject.Set("Plans");
    config.body.Set(html);
    if (!uploads.empty()) config.temp_attachment.Set(uploads);
    return messages_.CreateDraft(config);
  }

  int64_t SentCount() { return Query("SELECT count(*) FROM message WHERE mailbox_id = 3"); }

  control::MessageControl messages_{controller()};
};

TEST_F(SendTest, WhatArrivesIsAStandardMessageAndTheSentCopyIsThatMessage) {
  SmtpSink sink;
  AddAccount("Ann@Example.org", sink.port());
  std::string cid;
  const int image = Upload("dot.png", kPng, true, &cid);
  const int pdf = Upload("Bericht für März.pdf", kPdf, false);
  const int notes = Upload("notes.txt", "one\ntwo ünï\n", false);
  control::MessageConfig config;
  config.from.Set("Änne Example <ann@example.org>");
  config.to.Set({"Bob <bob@example.org>", "Zoë <zoe@example.net>"});
  config.cc.Set({"carol@example.org"});
  config.bcc.Set({"Dave Hidden <dave@example.org>", "BOB@example.org"});
  config.subject.Set("Grüße aus Köln");
  config.body.Set("<p>Look: <img src=\"cid:" + cid + "\"></p><p>.leading dot</p>");
  config.temp_attachment.Set({image, pdf, notes});
  const int draft = messages_.CreateDraft(config);
  const int thread = ThreadOf(draft);

  const int sent = messages_.Send(draft);

  ASSERT_EQ(sink.sessions().size(), 1u);
  const SmtpSession session = sink.sessions()[0];
  // How To, Cc and Bcc come out is also checked through the web API; here,
  // the rest of what a reader needs. Bare addresses, each once, Bcc included.
  EXPECT_EQ(session.rcpt_to, (std::vector<std::string>{"bob@example.org", "zoe@example.net",
                                                       "carol@example.org", "dave@example.org"}));
  const std::string headers = Headers(session.data);
  for (const char* pattern :
       {"\r\nDate: Tue, 14 Nov 2023 ",
        "\r\nMessage-Id: <[0-9a-z]+\\.[A-Za-z0-9]{20}@example\\.org>\r\n",
        "\r\nFrom: =\\?UTF-8\\?[bBqQ]\\?[^?]+\\?= Example <ann@example\\.org>\r\n",
        "\r\nSubject: =\\?UTF-8\\?[bBqQ]\\?", "\r\nMIME-Version: 1\\.0\r\n"}) {
    EXPECT_TRUE(std::regex_search(headers, std::regex(pattern))) << pattern << "\n" << headers;
  }
  EXPECT_EQ(session.data.find("dave"), std::string::npos);
  EXPECT_NE(session.data.find("filename*=UTF-8''Bericht%20f%C3%BCr%20M%C3%A4rz.pdf"),
            std::string::npos);
  EXPECT_FALSE(std::regex_search(session.data, std::regex("[^\r]\n")));

  const Received received = Parse(session.data);
  EXPECT_EQ(received.tree,
            "multipart/mixed(multipart/alternative(text/plain,multipart/related(text/html,"
            "image/png)),application/pdf,text/plain)");
  ASSERT_EQ(received.leaves.size(), 5u);
  EXPECT_NE(received.leaves[1].content.find("<img src=\"cid:" + cid + "\">"), std::string::npos);
  EXPECT_EQ(received.leaves[2].content, kPng);
  EXPECT_EQ(received.leaves[2].content_id, cid);
  EXPECT_EQ(received.leaves[2].disposition, "inline");
  EXPECT_EQ(received.leaves[3].content, kPdf);
  EXPECT_EQ(received.leaves[3].filename, "Bericht für März.pdf");
  EXPECT_EQ(received.leaves[3].disposition, "attachment");
  EXPECT_EQ(received.leaves[4].content, "one\ntwo ünï\n");

  // The copy in Sent is the message that went out, in the draft's thread;
  // the draft is gone.
  EXPECT_FALSE(messages_.GetMessage(draft).IsValid());
  const record::FullMessage copy = messages_.GetFullMessage(sent);
  EXPECT_EQ(copy.mailbox_id, kSent);
  EXPECT_EQ(copy.thread_id, thread);
  EXPECT_EQ(copy.type, 0);
  EXPECT_TRUE(copy.read);
  EXPECT_EQ(copy.subject, "Grüße aus Köln");
  EXPECT_EQ(copy.bcc,
            (std::vector<std::string>{"Dave Hidden <dave@example.org>", "BOB@example.org"}));
  EXPECT_EQ(messages_.OriginalContent(sent), session.data);
  control::AttachmentControl attachments(controller());
  std::vector<std::string> listed;
  for (const record::Attachment& attachment : copy.attachments) {
    if (!attachment.is_inline) listed.push_back(attachments.GetContentByRecord(attachment));
  }
  EXPECT_EQ(listed, (std::vector<std::string>{kPdf, "one\ntwo ünï\n"}));
  EXPECT_TRUE(Inconsistencies().empty());
}

TEST_F(SendTest, LargeAttachmentsGoOutAndComeBackFromTheSentCopyByteForByte) {
  SmtpSink sink;
  AddAccount("ann@example.org", sink.port());
  std::string binary(300 * 1024 + 5, '\0');
  std::string text;
  for (size_t i = 0; i < binary.size(); ++i) binary[i] = static_cast<char>(i * 7919 >> 3);
  for (int i = 0; text.size() < 150 * 1024; ++i) {
    text += "Zeile " + std::to_string(i) + " mit Umlauten: äöü =\r\n";
  }
  const int sent =
      messages_.Send(Draft({"bob@example.org"}, "<p>Files</p>",
                           {Upload("data.bin", binary, false), Upload("notes.txt", text, false)}));
  ASSERT_EQ(sink.messages().size(), 1u);
  // The copy is the very bytes that went out, read from the work file.
  EXPECT_TRUE(messages_.OriginalContent(sent) == sink.messages()[0]);
  EXPECT_EQ(Query("SELECT size FROM message WHERE id = " + std::to_string(sent)),
            static_cast<int64_t>(sink.messages()[0].size()));
  const record::Message copy = messages_.GetMessage(sent);
  ASSERT_EQ(copy.attachments.size(), 2u);
  control::AttachmentControl attachments(controller());
  EXPECT_TRUE(attachments.GetContentByRecord(copy.attachments[0]) == binary);
  EXPECT_TRUE(attachments.GetContentByRecord(copy.attachments[1]) == text);
  EXPECT_EQ(copy.attachments[0].size, static_cast<int64_t>(binary.size()));
  // Each is read from where it lies in the copy's source.
  EXPECT_EQ(Query("SELECT count(*) FROM attachment WHERE message_id = " + std::to_string(sent) +
                  " AND content_offset IS NOT NULL"),
            2);

  // Forwarded from the copy and sent again, they arrive unchanged.
  control::MessageConfig forward;
  forward.from.Set("ann@example.org");
  forward.to.Set({"carol@example.org"});
  forward.refer_to.Set(sent);
  forward.draft_type.Set(3);
  forward.attachment.Set({copy.attachments[0].id, copy.attachments[1].id});
  messages_.Send(messages_.CreateDraft(forward));
  const Received received = Parse(sink.messages().at(1));
  ASSERT_EQ(received.leaves.size(), 3u);
  EXPECT_TRUE(received.leaves[1].content == binary);
  EXPECT_TRUE(received.leaves[2].content == text);
  EXPECT_TRUE(Inconsistencies().empty());
}

TEST_F(SendTest, BodyStructureFollowsWhatTheDraftHolds) {
  SmtpSink sink;
  AddAccount("ann@example.org", sink.port());
  struct Case {
    const char* name;
    bool html;
    bool image;
    bool file;
    std::string forwarded;  // the source of an attached message, "" for none
    const char* tree;
  } cases[] = {
      {"text only", false, false, false, "", "text/plain"},
      {"html", true, false, false, "", "multipart/alternative(text/plain,text/html)"},
      {"html and file", true, false, true, "",
       "multipart/mixed(multipart/alternative(text/plain,text/html),application/pdf)"},
      {"html and image", true, true, false, "",
       "multipart/alternative(text/plain,multipart/related(text/html,image/png))"},
      // Without HTML to show it in, an inline image is an attachment.
      {"image without html", false, true, false, "", "multipart/mixed(text/plain,image/png)"},
      // An attached message may not be encoded: one that would need it is data.
      {"attached message", false, false, false, "Subject: old\r\n\r\nbody\r\n",
       "multipart/mixed(text/plain,message/rfc822)"},
      {"attached message with a line too long", false, false, false,
       "Subject: old\r\n\r\n" + std::string(1200, 'x') + "\r\n",
       "multipart/mixed(text/plain,application/octet-stream)"},
  };
  for (const Case& c : cases) {
    std::vector<int> uploads;
    std::string cid;
    if (c.image) uploads.push_back(Upload("dot.png", kPng, true, &cid));
    if (c.file) uploads.push_back(Upload("a.pdf", kPdf, false));
    if (!c.forwarded.empty()) uploads.push_back(Upload("old.eml", c.forwarded, false));
    std::string html = c.html ? "<p>Hi <img src=\"cid:" + cid + "\"></p>" : "";
    messages_.Send(Draft({"bob@example.org"}, html, uploads));
    EXPECT_EQ(Parse(sink.messages().back()).tree, c.tree) << c.name;
  }
}

TEST_F(SendTest, IdentityIsTheMatchingAccountThenTheDefaultThenTheRelay) {
  SmtpSink matching, fallback, relay;
  ConfigureRelay(true, relay.port());
  EXPECT_GT(messages_.Send(Draft({"bob@example.org"}, "<p>Hi</p>", {}, "alice@example.org")), 0);
  EXPECT_EQ(relay.messages().size(), 1u);

  AddAccount("other@example.org", fallback.port(), /*is_default=*/true);
  messages_.Send(Draft({"bob@example.org"}));
  EXPECT_EQ(fallback.messages().size(), 1u);

  // The matching account logs in with its credentials.
  matching.RequireAuth("ann", "s3cret pass");
  AddAccount("ANN@example.ORG", matching.port(), false, "ann", "s3cret pass", 0,
             "Ann From Account");
  messages_.Send(Draft({"bob@example.org"}));
  ASSERT_EQ(matching.messages().size(), 1u);
  // The account names a sender whose From has no name.
  EXPECT_NE(matching.messages()[0].find("\r\nFrom: Ann From Account <ann@example.org>\r\n"),
            std::string::npos);
  EXPECT_EQ(relay.messages().size() + fallback.messages().size(), 2u);

  std::vector<std::string> ids;
  for (const SmtpSink* sink : {&relay, &fallback, &matching}) {
    for (const std::string& data : sink->messages()) {
      std::smatch id;
      ASSERT_TRUE(std::regex_search(data, id, std::regex("Message-Id: (<[^>]+>)")));
      ids.push_back(id[1]);
    }
  }
  std::sort(ids.begin(), ids.end());
  EXPECT_EQ(std::unique(ids.begin(), ids.end()), ids.end()) << "Message-IDs repeat";
}

// The user is alice@example.org; without an account of hers the relay
// carries the message, and only from her own address.
TEST_F(SendTest, ThroughTheRelayOnlyTheUsersOwnAddressIsTheSender) {
  SmtpSink relay;
  ConfigureRelay(true, relay.port());
  const struct {
    const char* from;
    bool sent;
  } cases[] = {
      {"alice@example.org", true},
      {"Alice Example <alice@EXAMPLE.Org>", true},
      // The name is the user's to choose; the address decides.
      {"\"ceo@bank.example\" <alice@example.org>", true},
      {"alice@example.org, ceo@bank.example", true},  // only the first goes out
      {"ceo@bank.example", false},
      {"Alice <ceo@bank.example>", false},
      {"alice@example.org <ceo@bank.example>", false},
      {"ceo@bank.example, alice@example.org", false},
      {"Board: ceo@bank.example;", false},
      {"Alice@example.org", false},  // user names differ by case
      {"alice@example.org.evil.example", false},
      {"alice@sub.example.org", false},
  };
  for (const auto& c : cases) {
    ::larkpost::fake::ResetSystemLog();
    const size_t before = relay.sessions().size();
    const int draft = Draft({"bob@example.org"}, "<p>Hi</p>", {}, c.from);
    const int32_t code = CodeOf([&] { messages_.Send(draft); });
    if (c.sent) {
      EXPECT_EQ(code, 0) << c.from;
      ASSERT_EQ(relay.sessions().size(), before + 1) << c.from;
      EXPECT_EQ(relay.sessions().back().mail_from, send::SenderAddress(c.from)) << c.from;
      continue;
    }
    EXPECT_EQ(code, kErrorSenderNotOwn) << c.from;
    EXPECT_EQ(relay.sessions().size(), before) << c.from << ": no server is asked";
    EXPECT_EQ(messages_.GetFullMessage(draft).from, c.from) << c.from;
    EXPECT_EQ(messages_.GetMessage(draft).mailbox_id, kDrafts) << c.from;
    EXPECT_EQ(::larkpost::fake::LogTexts().size(), 1u) << c.from;
  }
  EXPECT_EQ(SentCount(), 4);

  // An account of the user's own sends as its server allows.
  AddAccount("ceo@bank.example", relay.port());
  EXPECT_GT(messages_.Send(Draft({"bob@example.org"}, "<p>Hi</p>", {}, "ceo@bank.example")), 0);
}

// A draft kept with the download URLs it was shown with (as drafts were
// before they were stored without them) goes out with "cid:" and no session.
TEST_F(SendTest, NoSessionLeavesInMail) {
  SmtpSink sink;
  AddAccount("ann@example.org", sink.port());
  std::string cid;
  const int draft = Draft({"bob@example.org"}, "<p>x</p>", {Upload("dot.png", kPng, true, &cid)});
  const std::string image = std::to_string(messages_.GetMessage(draft).attachments.at(0).id);
  const std::string url =
      "/webapi/entry.cgi?api=ZEVO.Larkpost.Attachment&amp;version=1&amp;"
      "method=download&amp;_sid=S1d&amp;id=";
  // The store takes a message's text only while it is out of the index.
  db().Exec("UPDATE message SET indexed = 0 WHERE id = " + std::to_string(draft));
  store::Statement old(db(), "UPDATE message_body SET html = ?2 WHERE message_id = ?1");
  old.Bind(1, draft).Bind(2, "<p><img src=\"" + url + image + "&amp;_token=T0k\"><a href=\"" + url +
                                 "99&amp;_token=T0k\">all</a></p>");
  old.Run();
  db().Exec("UPDATE message SET indexed = 1 WHERE id = " + std::to_string(draft));

  messages_.Send(draft);

  const std::string data = sink.messages().at(0);
  EXPECT_EQ(data.find("T0k"), std::string::npos) << data;
  EXPECT_EQ(data.find("S1d"), std::string::npos) << data;
  const Received received = Parse(data);
  EXPECT_EQ(received.tree,
            "multipart/alternative(text/plain,multipart/related(text/html,image/png))");
  EXPECT_NE(received.leaves.at(1).content.find("<img src=\"cid:" + cid + "\">"), std::string::npos)
      << received.leaves.at(1).content;
}

TEST(SenderTest, OwnAddressesAreComparedByTheirDomainsCaseOnly) {
  const std::vector<std::string> own = {"alice@example.org", "a.smith@Team.Example"};
  for (const char* yes : {"alice@example.org", "alice@EXAMPLE.ORG", "a.smith@team.example"}) {
    EXPECT_TRUE(send::IsOwnAddress(yes, own)) << yes;
  }
  for (const char* no : {"ALICE@example.org", "alice@example.org.", "xalice@example.org",
                         "alice@example.orgx", "alice", "@example.org", "", "alice@team.example"}) {
    EXPECT_FALSE(send::IsOwnAddress(no, own)) << no;
  }
  EXPECT_FALSE(send::IsOwnAddress("alice@example.org", {}));
}

TEST_F(SendTest, NoAccountAndTheLocalServerOffIsNoSmtpAccount) {
  SmtpSink relay;
  ConfigureRelay(false, relay.port());
  AddAccount("someone@example.org", relay.port());  // neither matching nor default
  const int draft = Draft({"bob@example.org"});
  EXPECT_EQ(CodeOf([&] { messages_.Send(draft); }), kErrorNoSmtpAccount);
  EXPECT_TRUE(relay.sessions().empty());
  EXPECT_EQ(messages_.GetMessage(draft).mailbox_id, kDrafts);
}

TEST_F(SendTest, RefusalsAndUnreachableServersLeaveTheDraftAsItWas) {
  struct Case {
    const char* name;
    void (*setup)(SmtpSink&);
    int connection_type;
    bool login;
    bool close_sink;
    int32_t code;
    const char* logged;  // part of a log line, "" for none expected
  } cases[] = {
      {"recipient refused", [](SmtpSink& s) { s.RefuseRecipient("zoe@example.net"); }, 0, false,
       false, kErrorSmtpRejected, "Recipient address rejected: User unknown"},
      {"message refused", [](SmtpSink& s) { s.RefuseMessage(); }, 0, false, false,
       kErrorSmtpRejected, "Message rejected as spam"},
      {"login refused", [](SmtpSink& s) { s.RefuseAuth(); }, 0, true, false, kErrorSmtpAuth,
       "Authentication credentials invalid"},
      {"login required, none given", [](SmtpSink& s) { s.RequireAuth("ann", "secret"); }, 0, false,
       false, kErrorSmtpAuth, "Authentication required"},
      {"nothing listening", [](SmtpSink&) {}, 0, false, true, kErrorSmtpConnect, ""},
      {"STARTTLS required, not offered", [](SmtpSink&) {}, 2, false, false, kErrorSmtpConnect, ""},
      {"TLS from the start to a plain server", [](SmtpSink&) {}, 1, false, false, kErrorSmtpConnect,
       ""},
  };
  for (const Case& c : cases) {
    auto sink = std::make_unique<SmtpSink>();
    c.setup(*sink);
    db().Exec("DELETE FROM smtp_account");
    AddAccount("ann@example.org", sink->port(), true, c.login ? "ann" : "", c.login ? "wrong" : "",
               c.connection_type);
    if (c.close_sink) sink.reset();
    ::larkpost::fake::ResetSystemLog();
    const int draft = Draft({"bob@example.org", "zoe@example.net"});
    const record::FullMessage before = messages_.GetFullMessage(draft);

    EXPECT_EQ(CodeOf([&] { messages_.Send(draft); }), c.code) << c.name;

    const record::FullMessage after = messages_.GetFullMessage(draft);
    EXPECT_EQ(after.mailbox_id, kDrafts) << c.name;
    EXPECT_EQ(after.type, 1) << c.name;
    EXPECT_EQ(std::tie(after.to, after.subject, after.html_body, after.last_modified),
              std::tie(before.to, before.subject, before.html_body, before.last_modified))
        << c.name;
    EXPECT_EQ(SentCount(), 0) << c.name;
    if (*c.logged != '\0') {
      std::vector<std::string> lines = ::larkpost::fake::LogTexts();
      EXPECT_TRUE(std::any_of(
          lines.begin(), lines.end(),
          [&](const std::string& line) { return line.find(c.logged) != std::string::npos; }))
          << c.name << "\n"
          << ::testing::PrintToString(lines);
    }
    if (sink) {
      EXPECT_TRUE(sink->messages().empty()) << c.name;
    }
  }
}

TEST_F(SendTest, WhatCannotBeSentIsRefusedBeforeAnyServerIsAsked) {
  SmtpSink sink;
  AddAccount("ann@example.org", sink.port());
  const int received = Add(Mail{});
  EXPECT_EQ(CodeOf([&] { messages_.Send(received); }), kErrorNotFound);
  EXPECT_EQ(CodeOf([&] { messages_.Send(999); }), kErrorNotFound);
  const int no_one = Draft({});
  EXPECT_EQ(CodeOf([&] { messages_.Send(no_one); }), kErrorNoRecipient);
  EXPECT_TRUE(messages_.GetMessage(no_one).IsValid());
  EXPECT_TRUE(sink.sessions().empty());
}

TEST_F(SendTest, AReplyCarriesItsChainAndItsCopyJoinsTheConversation) {
  SmtpSink sink;
  AddAccount("ann@example.org", sink.port());
  Mail original;
  original.subject = "Trip";
  original.message_id = "second@example.net";
  original.references = {"first@example.net"};
  const int parent = Add(original);
  control::MessageConfig config;
  config.from.Set("ann@example.org");
  config.to.Set({"bob@example.org"});
  config.subject.Set("Re: Trip");
  config.body.Set("<p>Yes</p>");
  config.refer_to.Set(parent);
  config.draft_type.Set(1);

  const int sent = messages_.Send(messages_.CreateDraft(config));

  const std::string headers = Headers(sink.messages().at(0));
  EXPECT_NE(headers.find("\r\nIn-Reply-To: <second@example.net>\r\n"), std::string::npos);
  EXPECT_NE(headers.find("\r\nReferences: <first@example.net> <second@example.net>\r\n"),
            std::string::npos)
      << headers;
  EXPECT_EQ(ThreadOf(sent), ThreadOf(parent));
  EXPECT_EQ(messages_.GetMessage(sent).mailbox_id, kSent);
}

// A server that takes the connection and then says nothing.
TEST(SmtpClientTest, AServerThatStopsAnsweringTimesOut) {
  SmtpSink sink;
  sink.Stall();
  send::SmtpServer server;
  server.host = "127.0.0.1";
  server.port = sink.port();
  server.security = send::Security::kNone;
  server.reply_timeout = 1;
  server.stall_timeout = 1;
  char path[] = "/tmp/larkpost-send-XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  unlink(path);
  ASSERT_EQ(write(fd, "Subject: x\r\n\r\nx\r\n", 17), 17);
  EXPECT_EQ(send::Transmit(server, {"a@example.org", {"b@example.org"}}, fd, 17),
            kErrorSmtpTimeout);
  close(fd);
}

}  // namespace
}  // namespace ornic::larkpost::testing
