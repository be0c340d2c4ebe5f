// The record converters: optional keys, arrays that are always there,
// 64-bit fields, and what the full message adds (recipients, the normalised
// body and its quotes, attachments as objects).
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <string>

#include "platform/mailcore/html_parser.h"
#include "tests/unit/handler_test_util.h"
#include "webapi/format/full_message.h"
#include "webapi/format/mail_record.h"

namespace larkpost::test {
namespace {

namespace format = ornic::larkpost::webapi::format;
namespace record = ornic::larkpost::record;
namespace constant = ornic::larkpost::constant;

// Beyond 32 bits, so that a narrowing on the way shows.
constexpr int64_t kLateTime = 4102444800;  // 2100-01-01
constexpr int64_t kLaterTime = 4102444861;

record::Attachment MakeAttachment(int id, const std::string& name, bool is_inline = false) {
  record::Attachment attachment;
  attachment.id = id;
  attachment.size = 1000 + id;
  attachment.mimetype = "application/pdf";
  attachment.name = name;
  attachment.content_id = is_inline ? "part" + std::to_string(id) + "@example.org" : "";
  attachment.is_inline = is_inline;
  return attachment;
}

record::Message MakeMessage(int id, int type = 0) {
  record::Message message;
  message.id = id;
  message.type = type;
  message.read = id % 2 == 0;
  message.star = id % 3;
  message.from = "Ann Example <ann@example.org>";
  message.subject = "Subject " + std::to_string(id);
  message.body_preview = "Preview " + std::to_string(id);
  message.arrival_time = kLateTime;
  message.last_modified = kLaterTime;
  message.reply_to = 0;
  message.mailbox_id = 1;
  message.thread_id = 40;
  message.rfc_message_id = "m" + std::to_string(id) + "@example.org";
  return message;
}

record::Label MakeLabel(int id, int unread_count = -1) {
  record::Label label;
  label.id = id;
  label.name = "Label " + std::to_string(id);
  label.key = "key-" + std::to_string(id);
  label.text_color = "#fff";
  label.background_color = "#336699";
  label.unread_count = unread_count;
  return label;
}

TEST(MailRecordJsonTest, MailboxCountsAreNestedOnlyWhenLoaded) {
  struct Case {
    int unread;
    int total;
    const char* additional;  // nullptr: no "additional" key
  } cases[] = {
      {-1, -1, nullptr},
      {-1, 7, R"({"total_count": 7})"},
      {0, -1, R"({"unread_count": 0})"},
      {3, 0, R"({"unread_count": 3, "total_count": 0})"},
  };
  for (const Case& c : cases) {
    record::Mailbox mailbox;
    mailbox.id = 12;
    mailbox.path = "Work";
    mailbox.subscribed = false;
    mailbox.unread_count = c.unread;
    mailbox.total_count = c.total;
    Json::Value expected = J(R"({"id": 12, "path": "Work", "subscribed": false})");
    if (c.additional != nullptr) expected["additional"] = J(c.additional);
    EXPECT_EQ(format::MailboxToJson(mailbox), expected) << c.unread << " " << c.total;
  }
}

TEST(MailRecordJsonTest, MailboxPathIsShownAsUtf8) {
  record::Mailbox mailbox;
  mailbox.id = 9;
  mailbox.path = "Work/&AMk-t&AOk-";
  EXPECT_EQ(format::MailboxToJson(mailbox)["path"].asString(), "Work/\xC3\x89t\xC3\xA9");
}

TEST(MailRecordJsonTest, MessageCarriesItsSummaryAndAttachmentNames) {
  record::Message message = MakeMessage(7);
  message.attachments = {MakeAttachment(1, "report.pdf"), MakeAttachment(2, "logo.png", true)};
  Json::Value json = format::MessageToJson(message);
  EXPECT_EQ(AsSent(json), J(R"({
      "id": 7, "type": 0, "mailbox_id": 1, "thread_id": 40,
      "from": "Ann Example <ann@example.org>", "email": "ann@example.org",
      "subject": "Subject 7", "body_preview": "Preview 7",
      "arrival_time": 4102444800, "last_modified": 4102444861,
      "star": 1, "read": false, "rfc_message_id": "m7@example.org",
      "attachment": ["report.pdf", "logo.png"]})"));
  EXPECT_EQ(json["arrival_time"].asInt64(), kLateTime);
  EXPECT_EQ(json["last_modified"].asInt64(), kLaterTime);

  message.attachments.clear();
  json = format::MessageToJson(message);
  EXPECT_TRUE(json["attachment"].isArray());
  EXPECT_EQ(json["attachment"].size(), 0u);
}

TEST(MailRecordJsonTest, OnlyDraftsSayWhatTheyAnswer) {
  struct Case {
    int type;
    int reply_to;
    bool has_reply_to;
  } cases[] = {{1, 0, true}, {1, 33, true}, {0, 33, false}, {2, 33, false}};
  for (const Case& c : cases) {
    record::Message message = MakeMessage(8, c.type);
    message.reply_to = c.reply_to;
    Json::Value json = format::MessageToJson(message);
    EXPECT_EQ(json.isMember("reply_to"), c.has_reply_to) << c.type;
    if (c.has_reply_to) {
      EXPECT_EQ(json["reply_to"], c.reply_to);
    }
  }
}

TEST(MailRecordJsonTest, LabelUnreadCountOnlyWhenLoaded) {
  EXPECT_EQ(format::LabelToJson(MakeLabel(5)),
            J(R"({"id": 5, "name": "Label 5", "text_color": "#fff",
                  "background_color": "#336699"})"));
  EXPECT_EQ(format::LabelToJson(MakeLabel(5, 0))["additional"], J(R"({"unread_count": 0})"));
  EXPECT_FALSE(format::LabelToJson(MakeLabel(5, 0)).isMember("key")) << "filters' business";
}

TEST(MailRecordJsonTest, ThreadSplitsMessagesFromDraftsAndSumsUp) {
  record::Thread thread;
  thread.id = 40;
  thread.last_modified = kLaterTime;
  thread.messages = {MakeMessage(1), MakeMessage(2), MakeMessage(3, 1), MakeMessage(5)};
  thread.messages[3].star = 4;
  thread.labels = {MakeLabel(8), MakeLabel(9)};

  Json::Value json = format::ThreadToJson(thread);
  EXPECT_EQ(json["id"], 40);
  EXPECT_EQ(json["last_modified"].asInt64(), kLaterTime);
  EXPECT_EQ(json["star"], 4);
  EXPECT_EQ(json["unread"], 3) << "a count of the unread ones, drafts included";
  ASSERT_EQ(json["message"].size(), 3u);
  EXPECT_EQ(json["message"][0], format::MessageToJson(thread.messages[0]));
  EXPECT_EQ(json["message"][2]["id"], 5);
  ASSERT_EQ(json["draft"].size(), 1u);
  EXPECT_EQ(json["draft"][0], format::MessageToJson(thread.messages[2]));
  EXPECT_EQ(json["label"], J(R"([
      {"id": 8, "name": "Label 8", "text_color": "#fff", "background_color": "#336699"},
      {"id": 9, "name": "Label 9", "text_color": "#fff", "background_color": "#336699"}])"));

  thread.messages = {MakeMessage(3, 1)};
  thread.labels.clear();
  json = format::ThreadToJson(thread);
  EXPECT_EQ(json["message"], Json::Value(Json::arrayValue));
  EXPECT_EQ(json["draft"].size(), 1u);
  EXPECT_EQ(json["label"], Json::Value(Json::arrayValue));
}

// -------------------------------------------------------------- full message

constexpr char kTokenVariable[] = "HTTP_X_ZEVO_TOKEN";

// An HTML body that each of the normaliser's inputs changes: a link (new
// window or not), an external image (blocked or not), an inline image (its
// link carries the token) and a quote.
constexpr char kHtml[] =
    "<p>Hi <a href=\"https://example.org/\">there</a></p>"
    "<img src=\"https://images.example.org/a.png\">"
    "<img src=\"cid:part2@example.org\">"
    "<blockquote>earlier words</blockquote>";

record::FullMessage MakeFullMessage(int type) {
  record::FullMessage message;
  static_cast<record::Message&>(message) = MakeMessage(21, type);
  message.to = {"Bob <bob@example.org>", "carol@example.org"};
  message.cc = {"dave@example.org"};
  message.plain_body = "Hi there\n> earlier words\n";
  message.html_body = kHtml;
  message.attachments = {MakeAttachment(1, "report.pdf"), MakeAttachment(2, "logo.png", true),
                         MakeAttachment(3, "notes.txt")};
  message.attachments[2].content_id = "notes@example.org";
  message.inline_images = {{"part2@example.org", {"logo.png", 2}}};
  return message;
}

struct Normalised {
  std::string body;
  std::vector<std::string> quotes;
};

Normalised Normalise(const record::FullMessage& message, const std::string& token, bool new_window,
                     bool block) {
  ornic::larkpost::html::HTMLParser parser;
  parser.open_links_in_new_window = new_window;
  parser.block_external_image = block;
  parser.Normalize(message.html_body, token, message.InlineImageMapping());
  return {parser.GetBody(), parser.OriginBlockquote()};
}

class FullMessageJsonTest : public ::testing::Test {
 protected:
  void SetUp() override { unsetenv(kTokenVariable); }
  void TearDown() override { unsetenv(kTokenVariable); }
};

TEST_F(FullMessageJsonTest, AddsRecipientsBodiesAndAttachmentObjects) {
  setenv(kTokenVariable, "tok-123", 1);
  record::FullMessage message = MakeFullMessage(0);
  Json::Value json = format::FullMessageToJson(message, constant::kHTMLBodyRead, false, false);

  Json::Value base = format::MessageToJson(message);
  for (const std::string& key : base.getMemberNames()) {
    if (key == "attachment" || key == "body_preview") continue;
    EXPECT_EQ(json[key], base[key]) << key;
  }
  EXPECT_FALSE(json.isMember("body_preview")) << "removed, not emptied";
  EXPECT_EQ(json["to"], J(R"(["Bob <bob@example.org>", "carol@example.org"])"));
  EXPECT_EQ(json["cc"], J(R"(["dave@example.org"])"));
  EXPECT_EQ(json["bcc"], Json::Value(Json::arrayValue));
  EXPECT_EQ(json["body"]["plain"], message.plain_body);
  EXPECT_EQ(json["body"]["html"], Normalise(message, "tok-123", true, false).body);
  EXPECT_FALSE(json["body"].isMember("blockquote"));
  EXPECT_EQ(json["attachment"],
            J(R"([{"id": 1, "name": "report.pdf", "size": 1001, "mimetype": "application/pdf"},
                  {"id": 3, "name": "notes.txt", "size": 1003, "mimetype": "application/pdf"}])"))
      << "the inline image is left out, and a received message has no content ids";
}

TEST_F(FullMessageJsonTest, NormaliserGetsTheRightOptionsTokenAndQuotes) {
  // The expected bodies differ pairwise, so the comparisons below can tell
  // every option and the token apart.
  const record::FullMessage message = MakeFullMessage(0);
  ASSERT_NE(Normalise(message, "tok", true, false).body, Normalise(message, "", true, false).body);
  ASSERT_NE(Normalise(message, "tok", true, false).body,
            Normalise(message, "tok", false, false).body);
  ASSERT_NE(Normalise(message, "tok", true, false).body,
            Normalise(message, "tok", true, true).body);
  ASSERT_EQ(Normalise(message, "tok", true, false).quotes.size(), 1u);

  struct Case {
    const char* token;  // nullptr: not in the environment
    constant::HTMLBodyFormat format;
    bool block;
    bool new_window;
    bool has_quotes;
  } cases[] = {
      {"tok", constant::kHTMLBodyRead, false, true, false},
      {"tok", constant::kHTMLBodyReadSplitQuote, false, true, true},
      {"tok", constant::kHTMLBodyReadSplitQuote, true, true, true},
      {"tok", constant::kHTMLBodyEdit, false, false, false},
      {"tok", constant::kHTMLBodyEdit, true, false, false},
      {nullptr, constant::kHTMLBodyRead, false, true, false},
  };
  for (const Case& c : cases) {
    if (c.token != nullptr) {
      setenv(kTokenVariable, c.token, 1);
    } else {
      unsetenv(kTokenVariable);
    }
    Json::Value body = format::FullMessageToJson(message, c.format, false, c.block)["body"];
    Normalised expected = Normalise(message, c.token ? c.token : "", c.new_window, c.block);
    SCOPED_TRACE(std::to_string(c.format) + (c.block ? " blocked" : "") +
                 (c.token ? "" : " no token"));
    EXPECT_EQ(body["html"].asString(), expected.body);
    EXPECT_EQ(body.isMember("blockquote"), c.has_quotes);
    if (c.has_quotes) {
      Json::Value quotes(Json::arrayValue);
      for (const std::string& quote : expected.quotes) quotes.append(quote);
      EXPECT_EQ(body["blockquote"], quotes);
    }
  }
}

TEST_F(FullMessageJsonTest, QuotesOnlyForFormat2WithAnHtmlBody) {
  struct Case {
    const char* html;
    constant::HTMLBodyFormat format;
    const char* body;  // without "html" when the message has one
  } cases[] = {
      {"", constant::kHTMLBodyEdit, R"({"plain": "Hi", "html": ""})"},
      {"", constant::kHTMLBodyRead, R"({"plain": "Hi", "html": ""})"},
      {"", constant::kHTMLBodyReadSplitQuote, R"({"plain": "Hi", "html": ""})"},
      {"<p>no quote</p>", constant::kHTMLBodyReadSplitQuote,
       R"({"plain": "Hi", "blockquote": []})"},
      {"<p>no quote</p>", constant::kHTMLBodyRead, R"({"plain": "Hi"})"},
  };
  for (const Case& c : cases) {
    record::FullMessage message = MakeFullMessage(0);
    message.plain_body = "Hi";
    message.html_body = c.html;
    Json::Value json = format::FullMessageToJson(message, c.format, true, true);
    if (*c.html != '\0') json["body"].removeMember("html");
    EXPECT_EQ(json["body"], J(c.body)) << c.html << " " << c.format;
    EXPECT_EQ(json["body_preview"], "Preview 21");
  }
}

TEST_F(FullMessageJsonTest, DraftAttachmentsCarryTheirContentId) {
  record::FullMessage draft = MakeFullMessage(1);
  Json::Value json = format::FullMessageToJson(draft, constant::kHTMLBodyEdit, false, false);
  EXPECT_EQ(json["attachment"],
            J(R"([{"id": 1, "name": "report.pdf", "size": 1001, "mimetype": "application/pdf",
                   "content_id": ""},
                  {"id": 3, "name": "notes.txt", "size": 1003, "mimetype": "application/pdf",
                   "content_id": "notes@example.org"}])"));
  EXPECT_EQ(json["reply_to"], 0);

  draft.attachments = {MakeAttachment(2, "logo.png", true)};
  json = format::FullMessageToJson(draft, constant::kHTMLBodyEdit, false, false);
  EXPECT_EQ(json["attachment"], Json::Value(Json::arrayValue));
}

}  // namespace
}  // namespace larkpost::test
