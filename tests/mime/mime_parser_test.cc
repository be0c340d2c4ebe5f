#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "appliance/mailcore/mime/charset.h"
#include "appliance/mailcore/mime/header.h"
#include "appliance/mailcore/mime/html_text.h"
#include "appliance/mailcore/mime/mime_parser.h"
#include "tests/store/attachment_part.h"

namespace ornic::larkpost::mime {
namespace {

using namespace std::string_literals;

constexpr int64_t kNoDate = 1234567;  // the time a message without a Date gets

std::string Fixture(const std::string& name) {
  std::ifstream in(std::string(LARKPOST_MAIL_FIXTURES) + "/" + name, std::ios::binary);
  EXPECT_TRUE(in) << name;
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

using Strings = std::vector<std::string>;

using ::ornic::larkpost::testing::Part;

auto Fields(const store::NewAttachment& a) {
  return std::tie(a.name, a.mimetype, a.content_id, a.is_inline, a.size, a.part_path);
}

// `raw` parsed from a file rather than from memory.
store::NewMessage ParseFromFile(const std::string& raw) {
  char path[] = "/tmp/larkpost-parse-XXXXXX";
  int fd = mkstemp(path);
  EXPECT_GE(fd, 0);
  unlink(path);
  EXPECT_EQ(write(fd, raw.data(), raw.size()), static_cast<ssize_t>(raw.size()));
  store::NewMessage message = ParseMessageFile(fd, static_cast<int64_t>(raw.size()), kNoDate);
  EXPECT_EQ(message.raw_fd, fd);
  EXPECT_EQ(message.raw_size, static_cast<int64_t>(raw.size()));
  EXPECT_EQ(message.raw, "");
  close(fd);
  return message;
}

// Everything a parse yields but the source itself.
std::string Summary(const store::NewMessage& m) {
  std::string text = m.subject + "|" + m.from + "|" + ::testing::PrintToString(m.to) + "|" +
                     ::testing::PrintToString(m.cc) + "|" + m.rfc_message_id + "|" + m.in_reply_to +
                     "|" + ::testing::PrintToString(m.references) + "|" +
                     std::to_string(m.arrival_time) + "|" + m.plain_body + "|" + m.html_body + "|" +
                     m.body_preview;
  for (const store::NewAttachment& a : m.attachments) {
    text += "\n" + a.name + "|" + a.mimetype + "|" + a.content_id + "|" +
            std::to_string(a.is_inline) + "|" + std::to_string(a.size) + "|" + a.part_path + "|" +
            std::to_string(a.content_offset) + "|" + std::to_string(a.content_length) + "|" +
            a.content_encoding;
  }
  return text;
}

// The corpus: what a reader of each message must see.
struct Case {
  const char* file;
  std::string subject, from;
  std::string to;  // the addresses joined by " | "
  int64_t arrival_time;
  std::string plain_start;  // the plain body starts with it
  std::string html_part;    // the HTML body holds it; "" when there is none
};
const Case kCorpus[] = {
    {"alternative.eml", "Lunch on Friday?", "Ann Example <ann@example.org>",
     "Bob Builder <bob@example.net> | carol@example.net", 1704186000,
     "Hi Bob,\n\nShall we try the new café on Friday? It opens at noon and the menu looks good—",
     "<p>Shall we try the new café on Friday?"},
    {"latin1.eml", "Résumé de la réunion", "Françoise Müller <francoise@example.fr>",
     "equipe@example.fr", 1704901500,
     "Bonjour à tous,\n\nVoici le résumé de la réunion de mardi. Coût total", ""},
    {"undeclared_8bit.eml", "Café menü", "Zoë Adams <zoe@example.com>", "orders@example.com",
     1704978900, "The price is € 20 for the “special” menu – café included.\n", ""},
    {"iso2022jp.eml", "会議の資料について", "山田太郎 <taro@example.jp>", "hanako@example.jp",
     1705019400, "お疲れ様です。\n会議の資料を添付します。", ""},
    // Labelled GB2312, with a character that only GBK has: HTML only, so
    // the plain body is the HTML's text.
    {"gb2312_html.eml", "会议通知", "李明 <liming@example.cn>", "wang@example.cn", 1705125600,
     "你好，世界！\n\n欢迎朱镕基先生参加会议。", "<p>欢迎朱镕基先生参加会议。</p>"},
    {"koi8r.eml", "Встреча в пятницу", "Иван Петров <ivan@example.ru>", "team@example.ru",
     1705245600, "Привет, команда!\nВстреча в пятницу в 15:00.", ""},
    {"encoded_words.eml", "Hello world — café ☕", "\"Example, Ann\" <ann@example.org>",
     "Jörg <joerg@example.de> | \"Lee, Bo\" <bo@example.com> | Dev Patel <dev@example.com> | "
     "plain@example.net",
     1705316400, "Encoded words everywhere.", ""},
    {"html_only.eml", "Your order", "Shop <shop@example.com>", "ann@example.org", 1706101200,
     "Hello there & welcome\n\nOne\n\nTwo €5 <each>", "<p>Hello&nbsp;there &amp; welcome</p>"},
    {"rfc2231_names.eml", "Files for you", "Bob <bob@example.net>", "ann@example.org", 1705403471,
     "Four files attached.", ""},
    {"related_inline.eml", "Our new logo", "Newsletter <news@example.com>", "ann@example.org",
     1705474800, "Our new logo is attached.", "<img src=\"cid:logo@example.com\""},
    {"hostile_names.eml", "Invoices", "Mallory <mallory@example.com>", "ann@example.org",
     1705548813, "Please open all of these.", ""},
    {"forwarded.eml", "Fwd: Budget 2024", "Carol <carol@example.net>", "ann@example.org",
     1706194800, "See below.", ""},
    // Garbage header lines, a Date that is none, base64 that is partly
    // not, no closing boundary: everything readable is kept.
    {"broken_mime.eml", "Broken but readable", "Broken Sender <broken@example.com>",
     "you@example.net", kNoDate, "The first part is fine.", "<p>never closed"},
};

// The corpus's attachments, in order; a message not named has none.
const std::pair<const char*, store::NewAttachment> kCorpusAttachments[] = {
    {"rfc2231_names.eml", Part("Prüfbericht 2024.pdf", "application/pdf", "", false, 77, "2")},
    {"rfc2231_names.eml", Part("Résumé final.txt", "text/plain", "", false, 5, "3")},
    {"rfc2231_names.eml", Part("photo 1.jpg", "image/jpeg", "", false, 22, "4")},
    {"rfc2231_names.eml", Part("attachment.bin", "application/octet-stream", "", false, 10, "5")},
    // Inline: shown by the HTML body (in multipart/related, not its root).
    // An inline image that the HTML does not show is listed, with a
    // Content-ID or without.
    {"related_inline.eml", Part("logo.png", "image/png", "logo@example.com", true, 66, "1.2.2")},
    {"related_inline.eml", Part("report.pdf", "application/pdf", "", false, 77, "2")},
    {"related_inline.eml", Part("badge.png", "image/png", "badge@example.com", false, 66, "3")},
    {"related_inline.eml", Part("photo.png", "image/png", "", false, 66, "4")},
    {"hostile_names.eml", Part("passwd", "text/plain", "", false, 10, "2")},
    {"hostile_names.eml", Part("evil.bat", "application/x-msdownload", "", false, 9, "3")},
    // A NUL ends a name.
    {"hostile_names.eml", Part("invoice.pdf", "application/pdf", "", false, 2, "4")},  // %00
    {"hostile_names.eml",
     Part("attachment.bin", "application/octet-stream", "", false, 4, "5")},              // ..
    {"hostile_names.eml", Part("attachment.png", "image/png", "", false, 66, "6")},       // "/"
    {"hostile_names.eml", Part("invoicefdp.exe", "application/pdf", "", false, 2, "7")},  // U+202E
    {"hostile_names.eml", Part("nul", "text/plain", "", false, 3, "8")},  // a NUL byte
    // The attached message is one attachment, named by its subject; its
    // own parts are not the outer message's.
    {"forwarded.eml", Part("Budget 2024.eml", "message/rfc822", "", false, 414, "2")},
    {"broken_mime.eml", Part("data.bin", "application/octet-stream", "", false, 12, "2")},
};

TEST(MimeParserTest, CorpusMessagesReadAsTheirReadersSeeThem) {
  for (const Case& c : kCorpus) {
    SCOPED_TRACE(c.file);
    std::string raw = Fixture(c.file);
    store::NewMessage message = ParseMessage(raw, kNoDate);
    std::string to;
    for (const std::string& address : message.to) to += (to.empty() ? "" : " | ") + address;
    EXPECT_EQ(std::tie(message.subject, message.from, to, message.arrival_time),
              std::tie(c.subject, c.from, c.to, c.arrival_time));
    EXPECT_EQ(message.plain_body.substr(0, c.plain_start.size()), c.plain_start);
    if (c.html_part.empty()) {
      EXPECT_EQ(message.html_body, "");
    } else {
      EXPECT_NE(message.html_body.find(c.html_part), std::string::npos) << message.html_body;
    }
    EXPECT_EQ(message.raw, raw);
    EXPECT_TRUE(IsValidUtf8(message.subject + message.from + message.plain_body +
                            message.html_body + message.body_preview));
    size_t k = 0;
    for (const auto& [file, want] : kCorpusAttachments) {
      if (file != std::string(c.file)) continue;
      ASSERT_LT(k, message.attachments.size());
      const store::NewAttachment& got = message.attachments[k++];
      EXPECT_EQ(Fields(got), Fields(want));
      // The part path leads back to the same content.
      std::optional<std::string> content = ExtractPart(raw, got.part_path);
      ASSERT_TRUE(content.has_value());
      EXPECT_EQ(static_cast<int64_t>(content->size()), got.size);
      EXPECT_GE(got.content_offset, 0) << got.name;
    }
    EXPECT_EQ(message.attachments.size(), k);
    // Read from a file a window at a time, the message is the same.
    EXPECT_EQ(Summary(ParseFromFile(raw)), Summary(message));
  }
}

TEST(MimeParserTest, FoldedRepeatedAndOddlyWrittenHeaderFields) {
  store::NewMessage message = ParseMessage(
      "From: a@example.org, B <b@example.org>\n"
      "To: one@example.org\n"
      "Cc: Carol <carol@example.net>\n"
      "In-Reply-To: <budget-2@example.net> (a comment after the id)\n"
      "References: <budget-1@example.org>\n <budget-2@example.net>\n"
      "Subject : folded\n over\r\n\tthree lines\n"
      "garbage line\n"
      " continued garbage\n"
      "To: two@example.org\n"
      "Message-ID: no-brackets@example.org\n"
      "Date: Mon, 01 Jan 2024 09:00:00\n"
      "\n"
      "body\n",
      kNoDate);
  EXPECT_EQ(message.from, "a@example.org, B <b@example.org>");
  EXPECT_EQ(message.to, (Strings{"one@example.org", "two@example.org"}));
  EXPECT_EQ(message.subject, "folded over three lines");
  EXPECT_EQ(message.rfc_message_id, "no-brackets@example.org");
  EXPECT_EQ(message.cc, Strings{"Carol <carol@example.net>"});
  EXPECT_EQ(message.in_reply_to, "budget-2@example.net");
  EXPECT_EQ(message.references, (Strings{"budget-1@example.org", "budget-2@example.net"}));
  EXPECT_EQ(message.arrival_time, 1704099600);  // no zone: UTC
}

TEST(MimeParserTest, TheBodyAndThePartsOfAMessageCanBeExtractedAgain) {
  std::string raw = Fixture("related_inline.eml");
  EXPECT_EQ(ExtractPart(raw, "2")->substr(0, 8), "%PDF-1.4");
  EXPECT_EQ(ExtractPart(raw, "1.1"), "Our new logo is attached. See you soon!");
  for (const char* missing : {"", "9", "1.9", "1.2.2.1", "x"}) {
    EXPECT_FALSE(ExtractPart(raw, missing).has_value()) << missing;
  }
  // A message that is one attachment and nothing else.
  std::string single =
      "Subject: scan\nContent-Type: application/pdf; name=scan.pdf\n"
      "Content-Disposition: attachment\nContent-Transfer-Encoding: base64\n\nJVBERi0=\n";
  store::NewMessage message = ParseMessage(single, kNoDate);
  EXPECT_EQ(message.plain_body, "");
  ASSERT_EQ(message.attachments.size(), 1u);
  EXPECT_EQ(message.attachments[0].name, "scan.pdf");
  EXPECT_EQ(ExtractPart(single, message.attachments[0].part_path), "%PDF-");

  // A message that is one attached message: a forward as a whole, not a
  // body of its own.
  const std::string inner = "Subject: inner\nFrom: a@example.org\n\nhello inner\n";
  const std::string forward = "Subject: fwd\nContent-Type: message/rfc822\n\n" + inner;
  store::NewMessage forwarded = ParseMessage(forward, kNoDate);
  EXPECT_EQ(forwarded.plain_body, "");
  ASSERT_EQ(forwarded.attachments.size(), 1u);
  EXPECT_EQ(forwarded.attachments[0].name, "inner.eml");
  EXPECT_EQ(forwarded.attachments[0].mimetype, "message/rfc822");
  EXPECT_EQ(forward.substr(forwarded.attachments[0].content_offset,
                           forwarded.attachments[0].content_length),
            inner);
  EXPECT_EQ(ExtractPart(forward, forwarded.attachments[0].part_path), inner);
}

TEST(MimeParserTest, ContentRangesOfNestedPartsAndAttachedMessages) {
  for (const std::string nl : {"\n", "\r\n"}) {
    SCOPED_TRACE(nl == "\n" ? "LF" : "CRLF");
    // Written with "\n"; the line ends of this round.
    auto lines = [&](std::string text) {
      for (size_t at = 0; (at = text.find('\n', at)) != std::string::npos; at += nl.size()) {
        text.replace(at, 1, nl);
      }
      return text;
    };
    // Inner boundaries that start with the outer one do not end it.
    const std::string first = lines(
                                  "Subject: first\nContent-Type: multipart/mixed; boundary=bb\n\n"
                                  "--bb\nContent-Type: text/plain\n\ninner text\n--bb\n"
                                  "Content-Type: text/plain; name=n.txt\n\nnote\n--bb--\n") +
                              "inner epilogue";
    const std::string last = lines("Subject: last\n\none line\n") + "--not a delimiter";
    const std::string raw =
        lines(
            "Subject: nested\nContent-Type: multipart/mixed; boundary=b\n\n--b\n"
            "Content-Type: multipart/alternative; boundary=b2\n\n--b2\nContent-Type: text/plain\n\n"
            "plain\n--b2\nContent-Type: multipart/related; boundary=b3\n\n--b3\n"
            "Content-Type: text/html\n\n<img src=\"cid:i@x\">\n--b3\nContent-Type: image/png\n"
            "Content-ID: <i@x>\nContent-Transfer-Encoding: base64\n\niVBORw0KGgo=\n--b3--\n"
            "--b2--\n--b\nContent-Type: message/rfc822\n\n") +
        first + nl +
        lines(
            "--b\nContent-Type: application/octet-stream; name=x.bin\n"
            "Content-Transfer-Encoding: quoted-printable\n\na=3Db=\nc\n--b\n"
            "Content-Type: message/rfc822; name=last.eml\nContent-Transfer-Encoding: 8bit\n\n") +
        last + nl + "--b-- " + nl + "epilogue" + nl;
    const struct {
      std::string path, encoded, encoding, decoded;
    } want[] = {
        {"1.2.2", "iVBORw0KGgo=", "base64", "\x89PNG\r\n\x1a\n"},
        {"2", first, "7bit", first},
        {"3", "a=3Db=" + nl + "c", "quoted-printable", "a=bc"},
        {"4", last, "8bit", last},
    };
    store::NewMessage message = ParseMessage(raw, kNoDate);
    ASSERT_EQ(message.attachments.size(), std::size(want));
    for (size_t k = 0; k < std::size(want); ++k) {
      const store::NewAttachment& got = message.attachments[k];
      SCOPED_TRACE(want[k].path);
      EXPECT_EQ(got.part_path, want[k].path);
      ASSERT_GE(got.content_offset, 0);
      EXPECT_EQ(raw.substr(got.content_offset, got.content_length), want[k].encoded);
      EXPECT_EQ(got.content_encoding, want[k].encoding);
      EXPECT_EQ(got.size, static_cast<int64_t>(want[k].decoded.size()));
      EXPECT_EQ(ExtractPart(raw, got.part_path), want[k].decoded);
    }
    EXPECT_EQ(Summary(ParseFromFile(raw)), Summary(message));
  }

  // Uuencoded content has its range too; the core decodes it.
  const std::string uu =
      "Subject: uu\nContent-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/plain\n\n"
      "body\n--b\nContent-Type: application/octet-stream; name=u.bin\n"
      "Content-Transfer-Encoding: x-uuencode\n\nbegin 644 u.bin\n#86)C\n`\nend\n--b--\n";
  store::NewMessage message = ParseMessage(uu, kNoDate);
  ASSERT_EQ(message.attachments.size(), 1u);
  EXPECT_EQ(uu.substr(message.attachments[0].content_offset, message.attachments[0].content_length),
            "begin 644 u.bin\n#86)C\n`\nend");
  EXPECT_EQ(message.attachments[0].content_encoding, "x-uuencode");
  EXPECT_EQ(message.attachments[0].size, 3);
  EXPECT_EQ(ExtractPart(uu, message.attachments[0].part_path), "abc");
}

TEST(MimeParserTest, ReadingAFileByWindowsCoversWhatCrossesThem) {
  // A header block, a header field and a line of an attached message, each
  // longer than what is read at once, and a large attachment.
  std::string to = "To: a0@example.org";
  for (int i = 1; i < 8000; ++i) to += ",\n a" + std::to_string(i) + "@example.org";
  const std::string long_name(150 * 1024, 'n');
  std::string base64;
  for (int i = 0; i < 4000; ++i)
    base64 += "QUJDREVGR0hJSktMTU5PUFFSU1RVVldYWVphYmNkZWZnaGlqa2xtbm9wcXJz\n";
  const std::string inner = "Subject: inner\n\n" + std::string(100 * 1024, 'x') + "\nend";
  const std::string raw =
      "From someone@example.org Mon Jan  1 00:00:00 2024\nSubject: big\n" + to +
      "\nContent-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/plain\n\nbody\n"
      "--b\nContent-Type: application/octet-stream\nContent-Disposition: attachment;\n"
      " filename=\"" +
      long_name + ".bin\"\nContent-Transfer-Encoding: base64\n\n" + base64 +
      "--b\nContent-Type: message/rfc822\n\n" + inner + "\n--b--\n";
  store::NewMessage message = ParseMessage(raw, kNoDate);
  ASSERT_EQ(message.to.size(), 8000u);
  ASSERT_EQ(message.attachments.size(), 2u);
  // The name was read whole (its extension is at the end), then cut short.
  EXPECT_EQ(message.attachments[0].name.size(), 240u);
  EXPECT_EQ(message.attachments[0].name.substr(236), ".bin");
  EXPECT_EQ(message.attachments[0].size, 4000 * 45);
  EXPECT_EQ(
      raw.substr(message.attachments[1].content_offset, message.attachments[1].content_length),
      inner);
  EXPECT_EQ(Summary(ParseFromFile(raw)), Summary(message));
}

// A message whose header runs into its body, with no MIME at all (parts
// that do are in real/, delivered in larkpostctl_mail_test).
TEST(MimeParserTest, AHeaderWithoutItsBlankLineRunsIntoTheBody) {
  store::NewMessage open = ParseMessage("From: a@example.org\nSubject: x\nHello, world\n", kNoDate);
  EXPECT_EQ(std::tie(open.subject, open.plain_body), std::make_tuple("x", "Hello, world\n"));
}

TEST(MimeParserTest, WhatGMimeCannotReadIsStillKept) {
  std::string raw = Fixture("no_header.eml");
  store::NewMessage message = ParseMessage(raw, kNoDate);
  EXPECT_EQ(message.raw, raw);
  EXPECT_EQ(message.subject, "");
  EXPECT_EQ(message.plain_body, raw);
  EXPECT_EQ(message.arrival_time, kNoDate);
  EXPECT_EQ(message.body_preview, "Just some text, no header at all. A second line.");

  // Binary junk: every byte is still in raw, the text is valid UTF-8.
  std::string junk = "\x00\xff\xfe\x01garbage\x00\r\n\r\n\x80"s;
  store::NewMessage kept = ParseMessage(junk, kNoDate);
  EXPECT_EQ(kept.raw, junk);
  EXPECT_TRUE(IsValidUtf8(kept.plain_body));
}

TEST(MimeParserTest, ChoosingTheBodies) {
  struct Row {
    const char* what;
    std::string source;
    std::string plain, html;
    size_t attachments;
  };
  const std::string kMixed = "Content-Type: multipart/mixed; boundary=b\n\n";
  const Row rows[] = {
      {"a leading mbox From line is not a header",
       "From ann@example.org Mon Jan  1 09:00:00 2024\nSubject: s\n\nbody\n", "body\n", "", 0},
      {"CRLF line ends become LF in the plain body", "Subject: s\r\n\r\nline 1\r\nline 2\r\n",
       "line 1\nline 2\n", "", 0},
      {"an only part is the body even with a name",
       "Content-Type: text/plain; name=\"note.txt\"\n\nnote\n", "note\n", "", 0},
      {"text marked as attachment is no body",
       kMixed + "--b\nContent-Type: text/plain\nContent-Disposition: attachment\n\nfile\n--b--\n",
       "", "", 1},
      {"a named text part after the body is an attachment",
       kMixed + "--b\nContent-Type: text/plain\n\nbody\n--b\nContent-Type: text/plain; "
                "name=a.txt\n\nfile\n--b--\n",
       "body", "", 1},
      {"a second plain part is an attachment",
       kMixed +
           "--b\nContent-Type: text/plain\n\none\n--b\nContent-Type: text/plain\n\ntwo\n--b--\n",
       "one", "", 1},
      {"an HTML charset from <meta>",
       "Content-Type: text/html\n\n<meta charset=\"koi8-r\"><p>\xf0\xd2\xc9\xd7\xc5\xd4</p>\n",
       "Привет", "<meta charset=\"koi8-r\"><p>Привет</p>\n", 0},
      {"a byte order mark and NUL characters go",
       "Content-Type: text/plain; charset=utf-8\n\n\xEF\xBB\xBFhi\x00!\n"s, "hi!\n", "", 0},
      {"an unknown charset is read as undeclared text",
       "Content-Type: text/plain; charset=x-no-such\n\ncaf\xe9\n", "café\n", "", 0},
  };
  for (const Row& row : rows) {
    store::NewMessage message = ParseMessage(row.source, kNoDate);
    EXPECT_EQ(message.plain_body, row.plain) << row.what;
    EXPECT_EQ(message.html_body, row.html) << row.what;
    EXPECT_EQ(message.attachments.size(), row.attachments) << row.what;
  }
}

TEST(MimeParserTest, BodyPreviewIsTwoHundredCharactersOfCollapsedText) {
  EXPECT_EQ(BodyPreview("  Hello,\n\n\tworld \xC2\xA0 again  "), "Hello, world again");
  EXPECT_EQ(BodyPreview(""), "");
  std::string long_text, first_200;
  for (int i = 0; i < 100; ++i) long_text += "éb\n";  // 300 characters
  for (int i = 0; i < 66; ++i) first_200 += "éb ";
  EXPECT_EQ(BodyPreview(long_text), first_200 + "éb");
  // No blank at the end when the cut falls on one.
  EXPECT_EQ(BodyPreview(std::string(199, 'x') + "\n\ny"), std::string(199, 'x'));
}

TEST(HeaderTest, DecodeHeaderText) {
  // Padded base64 words in a row and characters split between words are in
  // the corpus (encoded_words.eml).
  const std::pair<std::string, std::string> rows[] = {
      // Text between words stays; blanks between words go.
      {"=?utf-8?q?a?= b =?utf-8?q?c?=", "a b c"},
      {"=?iso-8859-1?q?caf=E9?=  =?utf-8?q?_=C3=A9?=", "café é"},
      {"=?ISO-2022-JP?B?GyRCJEgbKEI=?= =?ISO-2022-JP?B?GyRCJEgbKEI=?=", "とと"},
      {"=?utf-8*en?q?language?=", "language"},
      {"=?x-unknown?q?caf=E9?=", "café"},
      // Not encoded words: left as they are.
      {"=?utf-8?q?unfinished", "=?utf-8?q?unfinished"},
      {"=?utf-8?x?abc?=", "=?utf-8?x?abc?="},
      {"a =?utf-8?b?not base64?= b", "a =?utf-8?b?not base64?= b"},
      // NUL goes, controls become blanks, raw 8-bit is read.
      {"=?utf-8?b?YQBi?=", "ab"},
      {"tab\there\x01", "tab here"},
      {"caf\xe9", "café"},
      {"  folded\r\n   text  ", "folded   text"},
  };
  for (const auto& [raw, decoded] : rows) EXPECT_EQ(DecodeHeaderText(raw), decoded) << raw;
}

TEST(HeaderTest, ParseAddressList) {
  const std::pair<std::string, Strings> rows[] = {
      {"\"Quote \\\"Q\\\"\" <q@example.org>", {"\"Quote \\\"Q\\\"\" <q@example.org>"}},
      {"bob@example.net (Bob (the builder))", {"\"Bob (the builder)\" <bob@example.net>"}},
      {"<@relay.example:ann@example.org>", {"ann@example.org"}},
      {"undisclosed-recipients:;", {}},
      {"<>, , Ann <>", {"Ann"}},
      {"Ann \"<ann@x;", {"\"Ann <ann@x;\""}},                       // a name alone, quoted as one
      {"Ann <ann@exam\x01ple.org\x1e", {"Ann <ann@example.org>"}},  // controls are noise
      {"", {}},
  };
  for (const auto& [raw, list] : rows) EXPECT_EQ(ParseAddressList(raw), list) << raw;
}

TEST(HeaderTest, ParseMessageIds) {
  const std::pair<std::string, Strings> rows[] = {
      {"<a@x>\r\n <b@x>\t<c@x>", {"a@x", "b@x", "c@x"}},
      {"< spaced@x >", {"spaced@x"}},
      {"<a@x> (Ann's message of Monday)", {"a@x"}},
      {"bare@example.org", {"bare@example.org"}},
      {"", {}},
  };
  for (const auto& [raw, ids] : rows) EXPECT_EQ(ParseMessageIds(raw), ids) << raw;
}

TEST(HeaderTest, ParameterValues) {
  const struct {
    std::string raw, value, param, decoded;
  } rows[] = {
      {" Attachment; filename=\"a;b.txt\"", "attachment", "filename", "a;b.txt"},
      {"inline; FILENAME=plain.txt ", "inline", "filename", "plain.txt"},
      {"attachment; filename*=''%41%42", "attachment", "filename", "AB"},
      // RFC 2231 wins over a plain value, whatever the order.
      {"attachment; filename*=utf-8''new.txt; filename=old.txt", "attachment", "filename",
       "new.txt"},
      // Pieces in any order; a missing piece ends the value.
      {"attachment; name*1=\"b\"; name*0=\"a\"; name*3=\"d\"", "attachment", "name", "ab"},
      {"text/plain; charset=\"UTF-8\"", "text/plain", "charset", "UTF-8"},
      // A NUL ends a value, however it is written.
      {"attachment; filename*=x.txt%00.svg", "attachment", "filename", "x.txt"},
      {"attachment; filename*=utf-8''x.txt%00.svg", "attachment", "filename", "x.txt"},
      {"attachment; filename=\"=?utf-8?q?caf=C3=A9.txt=00.svg?=\"", "attachment", "filename",
       "café.txt"},
      {"attachment; filename=\"a=?utf-8?q?b?= =?utf-8?q?c=00d?=.svg\"", "attachment", "filename",
       "abc"},
      {std::string("attachment; filename=\"x.txt\0.svg\"", 33), "attachment", "filename", "x.txt"},
  };
  for (const auto& row : rows) {
    ParameterizedValue parsed = ParseParameterizedValue(row.raw);
    EXPECT_EQ(parsed.value, row.value) << row.raw;
    EXPECT_EQ(parsed.params[row.param], row.decoded) << row.raw;
  }
}

TEST(HeaderTest, MediaType) {
  const std::pair<std::string, std::string> rows[] = {
      {"Text/HTML; charset=utf-8", "text/html"},
      {"text plain", "text/plain"},
      {"text/", "text/plain"},
      {" TEXT ; charset=iso-8859-1", "text/plain"},
      {"\"text/plain\"", "text/plain"},
      {"image", ""},
      {"", ""},
  };
  for (const auto& [raw, type] : rows) EXPECT_EQ(MediaType(raw), type) << raw;
}

TEST(HeaderTest, SafeFileName) {
  // Directories, "..", "/" and NUL bytes: hostile_names.eml in the corpus.
  const std::string long_stem(300, 'x');
  const struct {
    std::string name, mimetype, safe;
  } rows[] = {
      {std::string("a\x7f\x1b.txt", 7), "", "a.txt"},
      {std::string("x.txt\0.svg", 10), "text/plain", "x.txt"},
      {"  spaced name.pdf ", "", "spaced name.pdf"},
      {".", "image/png", "attachment.png"},
      {"..", "application/x-unknown", "attachment"},
      {"\xff.txt", "", "\xEF\xBF\xBD.txt"},
      {long_stem + ".pdf", "", std::string(236, 'x') + ".pdf"},
      // The name claims a type that runs script; the part is another.
      {"x.txt.svg", "text/plain", "x.txt.svg.txt"},
      {"page.HTML", "application/x-unknown", "page.HTML.bin"},
      {"page.html", "application/octet-stream", "page.html"},
      {"logo.svg", "image/svg+xml", "logo.svg"},
      {"feed.xml", "text/xml", "feed.xml"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(SafeFileName(row.name, row.mimetype), row.safe) << row.name;
  // Cut short on a character boundary.
  std::string cut = SafeFileName(std::string(200, 'a') + std::string(100, 'e') + "\xC3\xA9", "");
  EXPECT_LE(cut.size(), 240u);
  EXPECT_TRUE(IsValidUtf8(cut));
}

TEST(CharsetTest, ToUtf8) {
  const struct {
    std::string bytes, charset, text;
  } rows[] = {
      {"caf\xe9", "", "café"},
      {"caf\xc3\xa9", "", "café"},  // undeclared, but UTF-8
      {"\x80 \x93q\x94", "iso-8859-1", "€ “q”"},
      {"\x81", "windows-1252", "\xC2\x81"},
      {"abc\xff\xc3", "UTF-8", "abc\xEF\xBF\xBD\xEF\xBF\xBD"},
      // Invalid bytes are replaced, not dropped, and decoding goes on.
      {"\xa4\xa2\xff\xa4\xa4", "euc-jp", "あ\xEF\xBF\xBDい"},
      {"\x1b$B$H", "iso-2022-jp", "と"},  // never returns to ASCII
      {"\x1b$B$", "iso-2022-jp", "\xEF\xBF\xBD"},
      {"plain", "x-unknown-charset", "plain"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ToUtf8(row.bytes, row.charset), row.text) << row.charset << " " << row.bytes;
  }
}

TEST(HtmlTextTest, TextOfAnHtmlBody) {
  const std::pair<std::string, std::string> rows[] = {
      {"<p>One</p><p>Two</p>", "One\n\nTwo"},
      {"a<br>b<br/><br><br>c", "a\nb\n\nc"},
      {"<table><tr><td>x</td><td>y</td></tr></table>", "x y"},
      {"<STYLE>p{}</STYLE><SCRIPT>var a = '</p>';</SCRIPT>text", "text"},
      {"<script>never closed", ""},
      {"1 < 2 &amp;&amp; 3 &gt; 2 &bogus; &#x41;&#0;", "1 < 2 && 3 > 2 &bogus; A\xEF\xBF\xBD"},
      {"<a href=\"x>y\">link</a>", "link"},
  };
  for (const auto& [html, text] : rows) EXPECT_EQ(HtmlToText(html), text) << html;
}

}  // namespace
}  // namespace ornic::larkpost::mime
