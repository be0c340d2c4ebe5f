// Attachment contents as the store gives them back: decoded a piece at a
// time from where they lie in a stored source, copied from stored mail or
// from drafts into drafts, and kept across the schema change that moved
// drafts' contents into a table of their own.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "appliance/mailcore/mime/mime_parser.h"
#include "appliance/mailcore/store_schema.h"
#include "tests/store/store_fixture.h"

namespace ornic::larkpost::testing {
namespace {

// What the store reads at once from a stored content or source.
constexpr size_t kPiece = 64 * 1024;

// Random bytes that never end a line at their end (the line break before a
// delimiter is the delimiter's) and never form one ("-" is left out).
std::string RandomBytes(size_t size, uint32_t seed) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  for (char& c : bytes) {
    c = static_cast<char>(random());
    if (c == '-') c = '+';
  }
  if (!bytes.empty() && (bytes.back() == '\r' || bytes.back() == '\n')) bytes.back() = 'x';
  return bytes;
}

std::string Base64(const std::string& bytes, const std::string& nl, size_t width) {
  static const char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  size_t line = 0;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    uint32_t v = static_cast<unsigned char>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) v |= static_cast<unsigned char>(bytes[i + 1]) << 8;
    if (i + 2 < bytes.size()) v |= static_cast<unsigned char>(bytes[i + 2]);
    const char quartet[4] = {kDigits[v >> 18], kDigits[(v >> 12) & 63],
                             i + 1 < bytes.size() ? kDigits[(v >> 6) & 63] : '=',
                             i + 2 < bytes.size() ? kDigits[v & 63] : '='};
    text.append(quartet, 4);
    if (width > 0 && (line += 4) >= width) {
      text += nl;
      line = 0;
    }
  }
  return text;
}

// Quoted-printable with soft line breaks; every byte that is not printable
// ASCII escaped.
std::string Quoted(const std::string& bytes, const std::string& nl) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string text;
  size_t line = 0;
  for (char c : bytes) {
    auto u = static_cast<unsigned char>(c);
    if (line >= 72) {
      text += "=" + nl;
      line = 0;
    }
    if (u > 32 && u < 127 && u != '=') {
      text += c;
      ++line;
    } else {
      text += {'=', kHex[u >> 4], kHex[u & 15]};
      line += 3;
    }
  }
  return text;
}

// A message with a text body, the part, and another part after it.
std::string MessageWith(const std::string& encoding, const std::string& content,
                        const std::string& nl) {
  return "From: Ann <ann@example.org>" + nl + "Subject: Content" + nl +
         "Content-Type: multipart/mixed; boundary=\"=_b0und\"" + nl + nl + "--=_b0und" + nl +
         "Content-Type: text/plain" + nl + nl + "See the file." + nl + "--=_b0und" + nl +
         "Content-Type: application/octet-stream; name=\"file.bin\"" + nl +
         "Content-Disposition: attachment; filename=\"file.bin\"" + nl +
         "Content-Transfer-Encoding: " + encoding + nl + nl + content + nl + "--=_b0und" + nl +
         "Content-Type: text/plain; name=\"after.txt\"" + nl + nl + "after" + nl + "--=_b0und--" +
         nl;
}

class ContentTest : public StoreTest {
 protected:
  int Deliver(std::string raw) {
    return store::InsertMessage(controller(), mime::ParseMessage(std::move(raw), clock_.now()));
  }

  std::string Content(const record::Attachment& attachment) {
    return attachments_.GetContentByRecord(attachment);
  }

  int64_t Column(const char* column, int attachment_id) {
    return Query(std::string("SELECT ") + column +
                 " FROM attachment WHERE id = " + std::to_string(attachment_id));
  }

  // A forward of message `original` keeping the attachments `ids`.
  int Forward(int original, const std::vector<int>& ids, const std::vector<int>& uploads = {}) {
    control::MessageConfig config;
    config.from.Set("alice@example.org");
    config.subject.Set("Fwd");
    config.refer_to.Set(original);
    config.draft_type.Set(3);
    config.attachment.Set(ids);
    if (!uploads.empty()) config.temp_attachment.Set(uploads);
    return messages_.CreateDraft(config);
  }

  control::MessageControl messages_{controller()};
  control::AttachmentControl attachments_{controller()};
};

TEST_F(ContentTest, PartsReadBackByteForByteAcrossPieceBoundaries) {
  // Decoded sizes whose encoded forms fall on either side of a piece.
  const size_t sizes[] = {
      0,          1,      kPiece * 3 / 4 - 1, kPiece * 3 / 4, kPiece * 3 / 4 + 1,
      kPiece - 1, kPiece, kPiece + 1,         3 * kPiece + 2};
  const char* encodings[] = {"base64", "quoted-printable", "8bit", "binary"};
  uint32_t seed = 0;
  for (const char* encoding : encodings) {
    for (const std::string nl : {"\n", "\r\n"}) {
      for (size_t size : sizes) {
        const std::string what = std::string(encoding) + (nl == "\n" ? " LF " : " CRLF ") +
                                 std::to_string(size) + " bytes";
        SCOPED_TRACE(what);
        const std::string bytes = RandomBytes(size, ++seed);
        std::string encoded = bytes;
        if (encoding == std::string("base64")) {
          // Lines or none; padding and text after the end are not content.
          encoded = Base64(bytes, nl, seed % 2 ? 76 : 0) + nl + "==" + nl + "not base64 at all";
        } else if (encoding == std::string("quoted-printable")) {
          encoded = Quoted(bytes, nl);
        }
        record::Message message = messages_.GetMessage(Deliver(MessageWith(encoding, encoded, nl)));
        ASSERT_EQ(message.attachments.size(), 2u);
        const record::Attachment& file = message.attachments[0];
        EXPECT_EQ(Column("content_offset IS NOT NULL", file.id), 1);
        EXPECT_EQ(file.size, static_cast<int64_t>(size));
        EXPECT_TRUE(Content(file) == bytes);
        EXPECT_EQ(Content(message.attachments[1]), "after");
        // Without its range the part is found again by its path, and reads
        // the same.
        db().Exec("UPDATE attachment SET content_offset = NULL WHERE id = " +
                  std::to_string(file.id));
        EXPECT_TRUE(Content(file) == bytes);
      }
    }
  }
}

TEST_F(ContentTest, WhatCannotBeFoundInItsSourceReadsAsNothing) {
  record::Message message =
      messages_.GetMessage(Deliver(MessageWith("base64", Base64("payload", "\n", 76), "\n")));
  const int id = message.attachments.at(0).id;
  ASSERT_EQ(Content(message.attachments[0]), "payload");
  const std::string where = " WHERE id = " + std::to_string(id);
  const std::string repair =
      "UPDATE attachment SET content_offset = " + std::to_string(Column("content_offset", id)) +
      ", content_length = " + std::to_string(Column("content_length", id)) +
      ", content_encoding = 'base64'" + where;
  for (const char* damage : {"content_offset = 100000", "content_length = 100000",
                             "content_offset = -1", "content_encoding = 'x-unknown'"}) {
    db().Exec(std::string("UPDATE attachment SET ") + damage + where);
    EXPECT_EQ(Content(message.attachments[0]), "") << damage;
    db().Exec(repair);
  }
  EXPECT_EQ(Content(message.attachments[0]), "payload");
  // Without a range, a part that the source lacks; records that are not stored.
  db().Exec("UPDATE attachment SET content_offset = NULL, part_path = '7'" + where);
  EXPECT_EQ(Content(message.attachments[0]), "");
  record::Attachment unknown;
  unknown.id = 9999;
  EXPECT_EQ(Content(unknown), "");
  EXPECT_EQ(Content(record::Attachment()), "");
}

TEST_F(ContentTest, ForwardsCopyContentsFromSourcesAndFromOtherDrafts) {
  const std::string nl = "\r\n";
  const std::string large = RandomBytes(2 * kPiece + 7, 99);
  const std::string inner = "Subject: old news" + nl + nl + "still news" + nl;
  const std::string raw = "Subject: Files" + nl + "Content-Type: multipart/mixed; boundary=b" + nl +
                          nl + "--b" + nl + "Content-Type: text/plain" + nl + nl + "Files." + nl +
                          "--b" + nl + "Content-Type: application/octet-stream; name=large.bin" +
                          nl + "Content-Transfer-Encoding: base64" + nl + nl +
                          Base64(large, nl, 76) + nl + "--b" + nl + "Content-Type: message/rfc822" +
                          nl + nl + inner + "--b" + nl + "Content-Type: text/plain; name=old.txt" +
                          nl + "Content-Transfer-Encoding: base64" + nl + nl + "b2xkIHdheQ==" + nl +
                          "--b--" + nl;
  const int received = Deliver(raw);
  std::vector<int> ids;
  for (const record::Attachment& a : messages_.GetMessage(received).attachments) {
    ids.push_back(a.id);
  }
  ASSERT_EQ(ids.size(), 3u);
  // The last one as stored before ranges were recorded.
  db().Exec("UPDATE attachment SET content_offset = NULL WHERE id = " + std::to_string(ids[2]));
  const Texts want = {"large.bin:" + large, "old news.eml:" + inner.substr(0, inner.size() - 2),
                      "old.txt:old way"};
  EXPECT_EQ(Contents(received), want);

  const int first = Forward(received, ids, {Upload("empty.txt", "")});
  Texts with_upload = want;
  with_upload.push_back("empty.txt:");
  EXPECT_EQ(Contents(first), with_upload);
  // A draft's own contents copied into another draft.
  std::vector<int> own;
  for (const record::Attachment& a : messages_.GetMessage(first).attachments) own.push_back(a.id);
  const int second = Forward(first, own);
  EXPECT_EQ(Contents(second), with_upload);
  EXPECT_EQ(Query("SELECT count(*) FROM attachment_content"), 8);
  // Contents go with their drafts.
  ASSERT_TRUE(messages_.DeleteDraft({first, second}));
  EXPECT_EQ(Query("SELECT count(*) FROM attachment_content"), 0);
  EXPECT_EQ(Inconsistencies(), Texts());
}

TEST_F(ContentTest, SchemaThreeStoresKeepTheirContents) {
  const uint32_t bob = ::larkpost::appliance::UserStore::Add("bob", "pw", false, "example.org");
  const std::string upload = RandomBytes(3 * kPiece, 5);
  const std::string raw =
      "Subject: Old\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n"
      "Content-Type: text/plain\r\n\r\nOld mail.\r\n--b\r\n"
      "Content-Type: application/octet-stream; name=data.bin\r\n"
      "Content-Transfer-Encoding: base64\r\n\r\nAAECA/8=\r\n--b--\r\n";
  {
    std::shared_ptr<store::Database> db = store::Connection(bob, true);
    ASSERT_TRUE(store::MigrateSchema(*db, 3));
    ASSERT_EQ(db->QueryInt("PRAGMA user_version"), 3);
    db->Exec(
        "INSERT INTO mailbox(id, raw_path, builtin) VALUES (1, 'INBOX', 0), (2, 'Drafts', 1);"
        "INSERT INTO thread(id) VALUES (1);"
        "INSERT INTO message(id, mailbox_id, thread_id, type) VALUES (10, 1, 1, 0), (11, 2, 1, 1);"
        "INSERT INTO attachment(id, message_id, name, size, part_path) "
        " VALUES (100, 10, 'data.bin', 5, '2');"
        "INSERT INTO attachment(id, message_id, name, size, content) "
        " VALUES (102, 11, 'empty.txt', 0, X'');");
    store::Statement source(*db, "INSERT INTO message_source(message_id, raw) VALUES (10, ?1)");
    source.BindBlob(1, raw.data(), raw.size());
    source.Run();
    store::Statement own(*db,
                         "INSERT INTO attachment(id, message_id, name, size, content) "
                         "VALUES (101, 11, 'upload.bin', ?1, ?2)");
    own.Bind(1, static_cast<int64_t>(upload.size())).BindBlob(2, upload.data(), upload.size());
    own.Run();
  }
  ASSERT_TRUE(db::DBSetupHandler(bob).SetupDB());
  control::Controller controller(bob);
  store::Database& db = controller.impl().db();
  EXPECT_GE(db.QueryInt("PRAGMA user_version"), 4) << "migrated past the move of contents";
  EXPECT_EQ(db.QueryInt("SELECT count(*) FROM pragma_table_info('attachment') "
                        "WHERE name = 'content'"),
            0);
  EXPECT_EQ(db.QueryInt("SELECT count(*) FROM attachment WHERE content_offset IS NULL"), 3);
  control::AttachmentControl attachments(controller);
  EXPECT_EQ(attachments.GetContentByRecord(attachments.Get(100)), std::string("\0\1\2\3\xff", 5));
  EXPECT_TRUE(attachments.GetContentByRecord(attachments.Get(101)) == upload);
  EXPECT_EQ(attachments.GetContentByRecord(attachments.Get(102)), "");
  EXPECT_TRUE(attachments.Get(102).IsValid());
  ASSERT_TRUE(control::MessageControl(controller).DeleteDraft({11}));
  EXPECT_EQ(db.QueryInt("SELECT count(*) FROM attachment_content"), 0);
  EXPECT_EQ(db.QueryInt("SELECT count(*) FROM attachment"), 1);
}

}  // namespace
}  // namespace ornic::larkpost::testing
