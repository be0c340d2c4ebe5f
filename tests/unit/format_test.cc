// The record converters: optional keys, arrays that are always there,
// 64-bit fields, and what the full message adds (recipients, the normalised
// body and its quotes, attachments as objects).
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "platform/mailcore/html_parser.h"
#include "tests/unit/handler_test_util.h"
#include "webapi/format/full_message.h"
#include "webapi/format/mail_record.h"

namespace larkpost::test {
namespace {

namespace format = ornic::larkpost::webapi::format;
namespace record = ornic::larkpost::record;
namespace constant = ornic::larkpost::constant;

// A listed attachment, an inline image and a listed one with a Content-ID.
const std::vector<record::Attachment> kAttachments = {
    {1, 1001, "application/pdf", "report.pdf", "", false, ""},
    {2, 1002, "image/png", "logo.png", "part2@example.org", true, ""},
    {3, 1003, "text/plain", "notes.txt", "notes@example.org", false, ""}};

record::Message MakeMessage(int id, int type = 0) {
  record::Message message;
  message.id = id;
  message.type = type;
  message.read = id % 2 == 0;
  message.star = id % 3;
  message.from = "Ann Example <ann@example.org>";
  message.subject = "Subject";
  message.body_preview = "Preview";
  // Beyond 32 bits, so that a narrowing on the way shows.
  message.arrival_time = 4102444800;
  message.last_modified = 4102444861;
  message.reply_to = 33;
  message.mailbox_id = 1;
  message.thread_id = 40;
  message.rfc_message_id = "m@example.org";
  return message;
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
    const record::Mailbox mailbox{12, 3, "Work/&AMk-t&AOk-", false, c.unread, c.total};
    Json::Value expected =
        J(R"({"id": 12, "path": "Work/\u00c9t\u00e9", "subscribed": false})");  // UTF-8 path
    if (c.additional != nullptr) expected["additional"] = J(c.additional);
    EXPECT_EQ(format::MailboxToJson(mailbox), expected) << c.unread << " " << c.total;
  }
}

TEST(MailRecordJsonTest, MessageCarriesItsSummaryAndOnlyDraftsTheirReplyTo) {
  record::Message message = MakeMessage(7);
  message.attachments = kAttachments;
  const Json::Value summary = J(R"({
      "id": 7, "type": 0, "mailbox_id": 1, "thread_id": 40,
      "from": "Ann Example <ann@example.org>", "email": "ann@example.org",
      "subject": "Subject", "body_preview": "Preview",
      "arrival_time": 4102444800, "last_modified": 4102444861,
      "star": 1, "read": false, "rfc_message_id": "m@example.org",
      "attachment": ["report.pdf", "logo.png", "notes.txt"]})");
  EXPECT_EQ(AsSent(format::MessageToJson(message)), summary);

  for (int type : {1, 2}) {
    message.type = type;
    Json::Value expected = summary;
    expected["type"] = type;
    if (type == format::kMessageTypeDraft) expected["reply_to"] = 33;
    EXPECT_EQ(AsSent(format::MessageToJson(message)), expected) << type;
  }
}

TEST(MailRecordJsonTest, ThreadSplitsMessagesFromDraftsAndSumsUp) {
  record::Thread thread;
  thread.id = 40;
  thread.last_modified = 4102444861;
  thread.messages = {MakeMessage(1), MakeMessage(2), MakeMessage(3, 1), MakeMessage(5)};
  thread.messages[3].star = 4;
  // The key is the filters' business, never shown; the count only when loaded.
  thread.labels = {{8, "Work", "key-8", "#fff", "#336699", -1}, {9, "Home", "key-9", "", "", 0}};

  Json::Value json = format::ThreadToJson(thread);
  // "unread" counts the unread ones, drafts included.
  Json::Value expected =
      J(R"({"id": 40, "last_modified": 4102444861, "star": 4, "unread": 3, "message": [],
            "draft": [], "label": [
            {"id": 8, "name": "Work", "text_color": "#fff", "background_color": "#336699"},
            {"id": 9, "name": "Home", "text_color": "", "background_color": "",
             "additional": {"unread_count": 0}}]})");
  for (int i : {0, 1, 3}) expected["message"].append(format::MessageToJson(thread.messages[i]));
  expected["draft"].append(format::MessageToJson(thread.messages[2]));
  EXPECT_EQ(AsSent(json), AsSent(expected));

  thread.messages = {};
  thread.labels.clear();
  json = format::ThreadToJson(thread);
  for (const char* key : {"message", "draft", "label"}) {
    EXPECT_EQ(json[key], Json::Value(Json::arrayValue)) << key;
  }
  EXPECT_EQ(json["star"], 0);
  EXPECT_EQ(json["unread"], 0);
}

// -------------------------------------------------------------- full message

constexpr char kTokenVariable[] = "HTTP_X_ZEVO_TOKEN";

record::FullMessage MakeFullMessage() {
  record::FullMessage message;
  static_cast<record::Message&>(message) = MakeMessage(21);
  message.to = {"Bob <bob@example.org>", "carol@example.org"};
  message.cc = {"dave@example.org"};
  message.plain_body = "Hi there\n> earlier words\n";
  // Each of the normaliser's inputs changes this body: a link (new window
  // or not), an external image (blocked or not), an inline image (its link
  // carries the token) and a quote.
  message.html_body =
      "<p>Hi <a href=\"https://example.org/\">there</a></p>"
      "<img src=\"https://images.example.org/a.png\">"
      "<img src=\"cid:part2@example.org\">"
      "<blockquote>earlier words</blockquote>";
  message.attachments = kAttachments;
  message.inline_images = {{"part2@example.org", {"logo.png", 2}}};
  return message;
}

// The body object that the normaliser makes of `message` with these inputs.
Json::Value NormalisedBody(const record::FullMessage& message, const std::string& token,
                           bool new_window, bool block, bool quotes) {
  ornic::larkpost::html::HTMLParser parser;
  parser.open_links_in_new_window = new_window;
  parser.block_external_image = block;
  parser.split_quotes = quotes;
  parser.Normalize(message.html_body, token, message.InlineImageMapping());
  Json::Value body(Json::objectValue);
  body["plain"] = message.plain_body;
  body["html"] = parser.GetBody();
  if (quotes) {
    body["blockquote"] = Json::Value(Json::arrayValue);
    for (const std::string& quote : parser.OriginBlockquote()) body["blockquote"].append(quote);
  }
  return body;
}

class FullMessageJsonTest : public ::testing::Test {
 protected:
  void SetUp() override { unsetenv(kTokenVariable); }
  void TearDown() override { unsetenv(kTokenVariable); }
};

TEST_F(FullMessageJsonTest, AddsRecipientsBodiesAndAttachmentObjects) {
  record::FullMessage message = MakeFullMessage();
  Json::Value expected = format::MessageToJson(message);
  expected.removeMember("body_preview");
  expected["to"] = J(R"(["Bob <bob@example.org>", "carol@example.org"])");
  expected["cc"] = J(R"(["dave@example.org"])");
  expected["bcc"] = Json::Value(Json::arrayValue);
  expected["body"] = NormalisedBody(message, "", true, false, false);
  // The inline image is left out, and a received message has no content ids.
  expected["attachment"] =
      J(R"([{"id": 1, "name": "report.pdf", "size": 1001, "mimetype": "application/pdf"},
            {"id": 3, "name": "notes.txt", "size": 1003, "mimetype": "text/plain"}])");
  EXPECT_EQ(format::FullMessageToJson(message, constant::kHTMLBodyRead, false, false), expected);

  message.type = format::kMessageTypeDraft;
  const Json::Value draft =
      format::FullMessageToJson(message, constant::kHTMLBodyEdit, true, false);
  EXPECT_EQ(draft["attachment"][0]["content_id"], "");
  EXPECT_EQ(draft["attachment"][1]["content_id"], "notes@example.org");
  EXPECT_EQ(draft["body_preview"], "Preview");
}

TEST_F(FullMessageJsonTest, NormaliserGetsTheRightOptionsTokenAndQuotes) {
  // The expected bodies differ pairwise, so the comparisons below can tell
  // every option and the token apart.
  const record::FullMessage message = MakeFullMessage();
  const Json::Value plain = NormalisedBody(message, "tok", true, false, true);
  ASSERT_NE(plain, NormalisedBody(message, "", true, false, true));
  ASSERT_NE(plain, NormalisedBody(message, "tok", false, false, true));
  ASSERT_NE(plain, NormalisedBody(message, "tok", true, true, true));
  ASSERT_EQ(plain["blockquote"].size(), 1u);
  // Split out, the quote is no longer in the body that formats 0 and 1 get.
  ASSERT_NE(plain["html"], NormalisedBody(message, "tok", true, false, false)["html"]);

  struct Case {
    const char* token;  // nullptr: not in the environment
    constant::HTMLBodyFormat format;
    bool block;
    bool new_window;
    bool quotes;
  } cases[] = {
      {"tok", constant::kHTMLBodyRead, false, true, false},
      {"tok", constant::kHTMLBodyReadSplitQuote, true, true, true},
      {"tok", constant::kHTMLBodyEdit, false, false, false},
      {nullptr, constant::kHTMLBodyReadSplitQuote, false, true, true},
  };
  for (const Case& c : cases) {
    if (c.token != nullptr) setenv(kTokenVariable, c.token, 1);
    if (c.token == nullptr) unsetenv(kTokenVariable);
    EXPECT_EQ(format::FullMessageToJson(message, c.format, false, c.block)["body"],
              NormalisedBody(message, c.token ? c.token : "", c.new_window, c.block, c.quotes))
        << c.format << (c.block ? " blocked" : "") << (c.token ? "" : " no token");
  }

  // Without an HTML body there is nothing to normalise, nor to quote; the
  // quotes of one without any are an empty list.
  record::FullMessage other = message;
  other.html_body = "";
  for (auto format : {constant::kHTMLBodyEdit, constant::kHTMLBodyReadSplitQuote}) {
    EXPECT_EQ(format::FullMessageToJson(other, format, false, false)["body"],
              J(R"({"plain": "Hi there\n> earlier words\n", "html": ""})"));
  }
  other.html_body = "<p>no quote</p>";
  EXPECT_EQ(format::FullMessageToJson(other, constant::kHTMLBodyReadSplitQuote, false,
                                      false)["body"]["blockquote"],
            Json::Value(Json::arrayValue));
}

}  // namespace
}  // namespace larkpost::test
