// Composing end to end through lighttpd on loopback: uploads from the
// browser and stickers, a draft written and changed, sent to an SMTP sink,
// and every way an attachment comes back out (whole, as the original, as a
// preview, all of a message as a zip, an upload before it is sent). What
// arrived and what was packed are read back with GMime and libarchive, apart
// from the code that wrote them.
#include <archive.h>
#include <archive_entry.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "platform/zevo/webapi.h"
#include "tests/integration/integration_util.h"
#include "tests/support/mail_reader.h"
#include "tests/support/smtp_sink.h"

namespace larkpost::itest {
namespace {

namespace fs = std::filesystem;
using ::larkpost::testing::SmtpSession;
using ::larkpost::testing::SmtpSink;

constexpr int kSent = 3;
constexpr int kDrafts = 2;

// Bytes that break naive handling: NUL, bare CR and LF, a line that is a
// lone dot, high bytes.
std::string Binary(size_t size, unsigned seed) {
  std::string bytes = std::string("%PDF-1.4\n\0\r\n.\r\n\xff\xfe", 17);
  for (size_t i = bytes.size(); i < size; ++i) bytes += static_cast<char>((i * 131 + seed) % 256);
  bytes.resize(size);
  return bytes;
}

std::string Base64Lines(const std::string& bytes) {
  gchar* encoded = g_base64_encode(reinterpret_cast<const guchar*>(bytes.data()), bytes.size());
  const std::string text = encoded;
  g_free(encoded);
  std::string lines;
  for (size_t at = 0; at < text.size(); at += 76) lines += text.substr(at, 76) + "\r\n";
  return lines;
}

// A real JPEG of `width` x `height`, made by our own image program from a
// gradient.
std::string MakeJpeg(const std::string& dir, int width, int height) {
  // A 24-bit BMP (rows bottom-up, padded to four bytes), converted as the
  // host runs the image program: from the upload spool, for a user.
  const int row = (width * 3 + 3) / 4 * 4;
  const auto little = [](uint32_t value, int bytes) {
    std::string text;
    for (int i = 0; i < bytes; ++i) text += static_cast<char>(value >> (8 * i) & 0xFF);
    return text;
  };
  std::string bmp = "BM" + little(54 + row * height, 4) + little(0, 4) + little(54, 4) +
                    little(40, 4) + little(width, 4) + little(height, 4) + little(1, 2) +
                    little(24, 2) + little(0, 4) + little(row * height, 4) + little(2835, 4) +
                    little(2835, 4) + little(0, 4) + little(0, 4);
  for (int y = height - 1; y >= 0; --y) {
    for (int x = 0; x < width; ++x) {
      bmp += static_cast<char>(128);
      bmp += static_cast<char>(y * 255 / height);
      bmp += static_cast<char>(x * 255 / width);
    }
    bmp.append(static_cast<size_t>(row - width * 3), '\0');
  }
  const std::string spool = dir + "/tmp/upload";
  fs::create_directories(spool);
  std::ofstream(spool + "/gradient.bmp", std::ios::binary) << bmp;
  ProcessResult made =
      RunProcess({BinDir() + "/convert-thumb", spool + "/gradient.bmp", spool + "/gradient.jpg"},
                 {{"LARKPOST_ROOT", dir}, {"LARKPOST_REQUEST_USER", "0"}});
  if (made.exit_code != 0) throw std::runtime_error("convert-thumb: " + made.err);
  return ReadFile(spool + "/gradient.jpg");
}

// Bytes compared without printing them: the sizes and where they part.
::testing::AssertionResult SameBytes(const std::string& actual, const std::string& expected) {
  if (actual == expected) return ::testing::AssertionSuccess();
  size_t at = 0;
  while (at < actual.size() && at < expected.size() && actual[at] == expected[at]) ++at;
  return ::testing::AssertionFailure() << actual.size() << " bytes where " << expected.size()
                                       << " were expected, different from byte " << at;
}

// A zip archive's entries, name -> bytes.
using Entries = std::map<std::string, std::string>;
Entries Unzip(const std::string& zip) {
  Entries entries;
  std::unique_ptr<archive, int (*)(archive*)> reader(archive_read_new(), archive_read_free);
  archive_read_support_format_zip(reader.get());
  if (archive_read_open_memory(reader.get(), zip.data(), zip.size()) != ARCHIVE_OK) {
    return entries;
  }
  archive_entry* entry;
  while (archive_read_next_header(reader.get(), &entry) == ARCHIVE_OK) {
    std::string& content = entries[archive_entry_pathname(entry)];
    char block[65536];
    la_ssize_t got;
    while ((got = archive_read_data(reader.get(), block, sizeof block)) > 0) {
      content.append(block, static_cast<size_t>(got));
    }
  }
  return entries;
}

using Received = ::larkpost::testing::ReceivedMessage;
constexpr auto Parse = &::larkpost::testing::ReadMessage;

// One user logged in to a lighttpd of their own, with the appliance's relay
// pointing at an SMTP sink.
class ComposeTest : public ::testing::Test {
 protected:
  // `extra` adds members to the configuration ("" for none).
  void Start(const std::string& extra = "") {
    root_.WriteConfig(R"({"login_failure_delay_ms": 50, "mail_server": {"smtp_enabled": "yes"},)"
                      R"( "relay": {"host": "127.0.0.1", "port": )" +
                      std::to_string(sink_.port()) + "}" + extra + "}");
    // ann@example.org: through the relay she sends only as herself.
    const ProcessResult added =
        root_.Ctl({"user", "add", "ann", "--password", "secret", "--domain", "example.org"});
    ASSERT_EQ(added.exit_code, 0) << added.err;
    uid_ = static_cast<uint32_t>(std::stoul(added.out));
    server_ = std::make_unique<Server>(root_);
    HttpAnswer login = Http(server_->url("/webapi/auth.cgi"),
                            {{"account", "ann"}, {"passwd", "secret"}}, /*post=*/true);
    ASSERT_TRUE(login.json["success"].asBool()) << login.body;
    sid_ = login.json["data"]["sid"].asString();
    token_ = login.json["data"]["token"].asString();
    ASSERT_TRUE(Data("ZEVO.Larkpost.Info", "getinfo")["database_ready"].asBool());
  }

  // A request as the web client makes it: every parameter as JSON text;
  // downloads are links, so GET.
  HttpAnswer Call(const std::string& api, const std::string& method,
                  const Json::Value& params = Json::Value(Json::objectValue), bool get = false) {
    std::map<std::string, std::string> form = {
        {"api", api}, {"version", "1"}, {"method", method}, {"_sid", sid_}, {"_token", token_}};
    for (const std::string& name : params.getMemberNames()) {
      form[name] = ZEVO::WebAPIUtil::ToString(params[name]);
    }
    return Http(server_->url("/webapi/entry.cgi"), form, !get);
  }
  HttpAnswer Download(const std::string& method, const Json::Value& params,
                      const std::string& api = "ZEVO.Larkpost.Attachment") {
    return Call(api, method, params, /*get=*/true);
  }

  // The data of a call that must succeed.
  Json::Value Data(const std::string& api, const std::string& method,
                   const Json::Value& params = Json::Value(Json::objectValue)) {
    HttpAnswer answer = Call(api, method, params);
    EXPECT_TRUE(answer.json["success"].asBool())
        << api << " " << method << " " << ZEVO::WebAPIUtil::ToString(params) << ": " << answer.body;
    return answer.json["data"];
  }

  HttpAnswer Upload(const std::string& name, const std::string& content, bool is_inline,
                    const std::string& type = "application/octet-stream") {
    return HttpUpload(server_->url("/webapi/entry.cgi?api=ZEVO.Larkpost.Attachment&version=1&"
                                   "method=upload&_sid=" +
                                   sid_ + "&_token=" + token_),
                      {{"is_inline", is_inline ? "true" : "false"}},
                      {{"upload", name, content, type}});
  }

  // A temporary attachment's {"id", "content_id"}.
  Json::Value Uploaded(const std::string& name, const std::string& content, bool is_inline) {
    HttpAnswer answer = Upload(name, content, is_inline);
    EXPECT_TRUE(answer.json["success"].asBool()) << name << ": " << answer.body;
    return answer.json["data"];
  }

  // The threads of one mailbox.
  Json::Value Threads(int mailbox) {
    Json::Value condition(Json::arrayValue);
    condition[0]["name"] = "mailbox";
    condition[0]["value"] = std::to_string(mailbox);
    Json::Value params;
    params["condition"] = condition;
    return Data("ZEVO.Larkpost.Thread", "list", params);
  }

  // The first column of `sql` over the user's store, as text.
  std::vector<std::string> Column(const std::string& sql) {
    sqlite3* db = nullptr;
    std::vector<std::string> values;
    const std::string path = UserDir() + "/larkpost.db";
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
      sqlite3_busy_timeout(db, 5000);
      sqlite3_stmt* statement = nullptr;
      if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK) {
        while (sqlite3_step(statement) == SQLITE_ROW) {
          const unsigned char* text = sqlite3_column_text(statement, 0);
          values.push_back(text != nullptr ? reinterpret_cast<const char*>(text) : "");
        }
      }
      sqlite3_finalize(statement);
    }
    sqlite3_close(db);
    return values;
  }

  std::string UserDir() const { return root_.path() + "/mail/" + std::to_string(uid_); }
  std::vector<std::string> Files(const std::string& relative) const {
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(UserDir() + "/" + relative, ignored)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  int Deliver(const std::string& message) {
    ProcessResult result = RunProcess(
        {BinDir() + "/larkpostctl", "--root", root_.path(), "deliver", "ann"}, {}, message);
    EXPECT_EQ(result.exit_code, 0) << result.err;
    return Threads(1)["thread"][0]["message"][0]["id"].asInt();
  }

  SmtpSink sink_;
  DataRoot root_;
  uint32_t uid_ = 0;
  std::unique_ptr<Server> server_;
  std::string sid_;
  std::string token_;
};

Json::Value Strings(std::initializer_list<const char*> texts) {
  Json::Value array(Json::arrayValue);
  for (const char* text : texts) array.append(text);
  return array;
}

TEST_F(ComposeTest, DraftWrittenChangedAndSentArrivesWholeAndIsKept) {
  ASSERT_NO_FATAL_FAILURE(Start());
  const std::string pdf = Binary(70000, 1);
  const std::string jpeg = MakeJpeg(root_.path(), 64, 48);
  const Json::Value file = Uploaded("Bericht März.pdf", pdf, false);
  const Json::Value photo = Uploaded("photo.jpg", jpeg, true);
  const Json::Value stickers = Data("ZEVO.Larkpost.Sticker", "list")["sticker"];
  ASSERT_GT(stickers.size(), 0u);
  Json::Value which;
  which["id"] = stickers[0]["id"];
  const Json::Value sticker = Data("ZEVO.Larkpost.Attachment", "upload_sticker", which);
  HttpAnswer sticker_image = Download("get", which, "ZEVO.Larkpost.Sticker");
  EXPECT_EQ(sticker_image.headers["content-type"], "image/png");
  EXPECT_EQ(sticker_image.body.substr(0, 8), "\x89PNG\r\n\x1a\n");
  const std::string photo_cid = photo["content_id"].asString();
  const std::string sticker_cid = sticker["content_id"].asString();
  ASSERT_FALSE(photo_cid.empty());
  ASSERT_NE(photo_cid, sticker_cid);

  Json::Value content;
  content["from"] = "Ann Example <ann@example.org>";
  content["to"] = Strings({"Bob <bob@example.org>"});
  content["cc"] = Strings({"carol@example.org"});
  content["bcc"] = Strings({"dave@example.org"});
  content["subject"] = "Plans";
  content["body"] =
      "<p>Look:</p><img src=\"cid:" + photo_cid + "\"><img src=\"cid:" + sticker_cid + "\">";
  content["temp_attachment"].append(file["id"]);
  content["temp_attachment"].append(photo["id"]);
  content["temp_attachment"].append(sticker["id"]);
  const Json::Value created = Data("ZEVO.Larkpost.Draft", "create", content);
  const int draft = created["id"].asInt();
  // The two inline images belong to the body, not to the list.
  ASSERT_EQ(created["attachment"].size(), 1u) << created;
  EXPECT_EQ(created["attachment"][0]["name"], "Bericht März.pdf");
  EXPECT_EQ(created["attachment"][0]["size"].asUInt(), pdf.size());

  // A change touches only what it names.
  Json::Value change;
  change["id"] = draft;
  change["subject"] = "Grüße aus Köln";
  change["to"] = Strings({"Bob <bob@example.org>", "Zoë <zoe@example.net>"});
  EXPECT_EQ(Data("ZEVO.Larkpost.Draft", "set", change)["attachment"].size(), 1u);
  Json::Value ids;
  ids["id"].append(draft);
  const Json::Value saved = Data("ZEVO.Larkpost.Draft", "get", ids)["draft"][0];
  EXPECT_EQ(saved["to"], change["to"]);
  EXPECT_EQ(saved["bcc"], Strings({"dave@example.org"}));
  EXPECT_EQ(saved["subject"], "Grüße aus Köln");

  Json::Value send;
  send["id"] = draft;
  const int sent = Data("ZEVO.Larkpost.Draft", "send", send)["id"].asInt();
  ASSERT_GT(sent, 0);

  // What went out: Bcc only in the envelope, headers a reader needs, and
  // every part byte for byte.
  ASSERT_EQ(sink_.sessions().size(), 1u);
  const SmtpSession session = sink_.sessions()[0];
  EXPECT_TRUE(session.accepted);
  EXPECT_EQ(session.mail_from, "ann@example.org");
  EXPECT_EQ(session.rcpt_to, (std::vector<std::string>{"bob@example.org", "zoe@example.net",
                                                       "carol@example.org", "dave@example.org"}));
  const std::string headers =
      std::regex_replace("\r\n" + session.data.substr(0, session.data.find("\r\n\r\n") + 2),
                         std::regex("\r\n[ \t]+"), " ");
  for (const char* pattern :
       {"\r\nFrom: Ann Example <ann@example\\.org>",
        "\r\nTo: Bob <bob@example\\.org>, =\\?UTF-8\\?[BbQq]\\?[^?]+\\?= <zoe@example\\.net>\r\n",
        "\r\nCc: carol@example\\.org\r\n"}) {
    EXPECT_TRUE(std::regex_search(headers, std::regex(pattern))) << pattern << "\n" << headers;
  }
  EXPECT_FALSE(std::regex_search(headers, std::regex("\r\nbcc:", std::regex::icase))) << headers;
  EXPECT_EQ(session.data.find("dave"), std::string::npos);

  const Received received = Parse(session.data);
  EXPECT_EQ(received.tree,
            "multipart/mixed(multipart/alternative(text/plain,multipart/related(text/html,"
            "image/jpeg,image/png)),application/pdf)");
  ASSERT_EQ(received.leaves.size(), 5u) << received.tree;
  EXPECT_NE(received.leaves[1].content.find("cid:" + photo_cid), std::string::npos);
  EXPECT_TRUE(SameBytes(received.leaves[2].content, jpeg));
  EXPECT_EQ(received.leaves[2].content_id, photo_cid);
  EXPECT_TRUE(SameBytes(received.leaves[3].content, sticker_image.body));
  EXPECT_EQ(received.leaves[3].content_id, sticker_cid);
  EXPECT_TRUE(SameBytes(received.leaves[4].content, pdf));
  EXPECT_EQ(received.leaves[4].filename, "Bericht März.pdf");

  // The sent copy is in Sent with its recipients, Bcc included, and its
  // attachment downloads as it was uploaded; the draft is gone.
  const Json::Value sent_threads = Threads(kSent);
  ASSERT_EQ(sent_threads["total"].asInt(), 1) << sent_threads;
  EXPECT_EQ(sent_threads["thread"][0]["message"][0]["id"].asInt(), sent);
  EXPECT_EQ(sent_threads["thread"][0]["draft"].size(), 0u);
  EXPECT_EQ(Threads(kDrafts)["total"].asInt(), 0);
  EXPECT_EQ(Data("ZEVO.Larkpost.Draft", "get", ids)["draft"].size(), 0u);
  Json::Value sent_ids;
  sent_ids["id"].append(sent);
  const Json::Value copy = Data("ZEVO.Larkpost.Message", "get", sent_ids)["message"][0];
  EXPECT_EQ(copy["subject"], "Grüße aus Köln");
  EXPECT_EQ(copy["bcc"], Strings({"dave@example.org"}));
  ASSERT_EQ(copy["attachment"].size(), 1u) << copy;
  Json::Value attachment;
  attachment["id"] = copy["attachment"][0]["id"];
  EXPECT_TRUE(SameBytes(Download("download", attachment).body, pdf));

  // Every recipient is in the address book once, by address.
  EXPECT_EQ(Column("SELECT email_key || '|' || name FROM contact ORDER BY email_key"),
            (std::vector<std::string>{"bob@example.org|Bob", "carol@example.org|",
                                      "dave@example.org|", "zoe@example.net|Zoë"}));
}

TEST_F(ComposeTest, AttachmentsComeOutWholeAsOriginalsAsPreviewsAndZipped) {
  ASSERT_NO_FATAL_FAILURE(Start());
  const std::string first = Binary(5000, 1), second = Binary(6000, 2), third = Binary(7, 3);
  const std::string photo = MakeJpeg(root_.path(), 640, 480);
  const auto part = [](const std::string& type, const std::string& name, const std::string& bytes) {
    return "--b1\r\nContent-Type: " + type + "; name=\"" + name +
           "\"\r\nContent-Disposition: attachment; filename=\"" + name +
           "\"\r\nContent-Transfer-Encoding: base64\r\n\r\n" + Base64Lines(bytes);
  };
  const int message = Deliver(
      "From: Carol <carol@example.org>\r\nTo: ann@localdomain\r\nSubject: Files\r\n"
      "Date: Mon, 13 Nov 2023 10:00:00 +0000\r\nMessage-ID: <files@example.org>\r\n"
      "MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"b1\"\r\n\r\n"
      "--b1\r\nContent-Type: text/plain; charset=utf-8\r\n\r\nThree of a name, and a photo.\r\n" +
      part("application/pdf", "a.pdf", first) + part("application/pdf", "a.pdf", second) +
      part("image/jpeg", "photo.jpg", photo) + part("application/pdf", "a.pdf", third) +
      "--b1--\r\n");
  Json::Value ids;
  ids["id"].append(message);
  const Json::Value listed = Data("ZEVO.Larkpost.Message", "get", ids)["message"][0]["attachment"];
  ASSERT_EQ(listed.size(), 4u) << listed;
  Json::Value pdf, jpeg;
  pdf["id"] = listed[0]["id"];
  jpeg["id"] = listed[2]["id"];

  HttpAnswer whole = Download("download", pdf);
  EXPECT_EQ(whole.status, 200);
  EXPECT_TRUE(SameBytes(whole.body, first));
  EXPECT_EQ(whole.headers["content-length"], std::to_string(first.size()));
  EXPECT_EQ(whole.headers["content-type"], "application/pdf");
  EXPECT_EQ(whole.headers["content-disposition"], "attachment");
  pdf["type"] = "original";
  HttpAnswer original = Download("download", pdf);
  EXPECT_TRUE(SameBytes(original.body, first));
  EXPECT_EQ(original.headers.count("content-disposition"), 0u);

  // A preview (its size is the image program's business): a smaller JPEG,
  // made once and kept.
  jpeg["type"] = "thumb";
  HttpAnswer thumb = Download("download", jpeg);
  EXPECT_EQ(thumb.headers["content-type"], "image/jpeg");
  EXPECT_EQ(thumb.body.substr(0, 3), "\xFF\xD8\xFF");
  EXPECT_LT(thumb.body.size(), photo.size());
  const std::vector<std::string> previews = Files(".ORNIC/@image");
  ASSERT_EQ(previews.size(), 1u);
  EXPECT_EQ(Column("SELECT preview_path FROM attachment WHERE id = " + jpeg["id"].asString()),
            std::vector<std::string>{UserDir() + "/.ORNIC/@image/" + previews[0]});
  EXPECT_TRUE(SameBytes(Download("download", jpeg).body, thumb.body));
  EXPECT_EQ(Files(".ORNIC/@image"), previews) << "the second preview is the stored one";

  // All at once: names met again are numbered before the extension.
  Json::Value whole_message;
  whole_message["id"] = message;
  HttpAnswer all = Download("download_all", whole_message);
  EXPECT_EQ(all.headers["content-type"], "application/force-download");
  EXPECT_EQ(all.headers["content-length"], std::to_string(all.body.size()));
  const Entries entries = Unzip(all.body);
  const Entries expected = {
      {"a.pdf", first}, {"a_1.pdf", second}, {"photo.jpg", photo}, {"a_2.pdf", third}};
  EXPECT_EQ(entries.size(), expected.size());
  for (const auto& [name, bytes] : expected) {
    EXPECT_TRUE(SameBytes(entries.count(name) ? entries.at(name) : "", bytes)) << name;
  }

  // An upload reads back before it is sent.
  Json::Value notes;
  notes["id"] = Uploaded("notes.txt", "one\r\ntwo\n", false)["id"];
  HttpAnswer temp = Download("download_temp", notes);
  EXPECT_EQ(temp.body, "one\r\ntwo\n");
  EXPECT_EQ(temp.headers["content-disposition"], "attachment;");

  // The preview's and the archive's work files are gone; the upload's copy
  // stays for its draft.
  const std::vector<std::string> work = Files(".ORNIC/@tmp");
  ASSERT_EQ(work.size(), 1u) << ::testing::PrintToString(work);
  EXPECT_EQ(work[0].rfind("attachment_", 0), 0u) << work[0];
}

TEST_F(ComposeTest, FailuresAnswerCleanlyAndLoseNothing) {
  // lighttpd counts its limit in KiB: a body between the two limits reaches
  // the host, a larger one only lighttpd.
  ASSERT_NO_FATAL_FAILURE(Start(R"(, "max_request_size": 20000)"));
  const auto sized = [](size_t body_size) {
    const size_t overhead = MultipartBody({{"is_inline", "false"}},
                                          {{"upload", "big.bin", "", "application/octet-stream"}})
                                .size();
    return std::string(body_size - overhead, 'x');
  };
  const HttpAnswer by_host = Upload("big.bin", sized(20200), false);
  EXPECT_EQ(by_host.status, 413);
  EXPECT_EQ(by_host.json["error"]["code"].asInt(), 107) << by_host.body;
  EXPECT_EQ(Upload("big.bin", sized(30000), false).status, 413);
  EXPECT_EQ(Column("SELECT count(*) FROM attachment_temp"), std::vector<std::string>{"0"});
  std::error_code ignored;
  EXPECT_TRUE(fs::is_empty(root_.path() + "/tmp/upload", ignored) || ignored)
      << "no refused upload is left on disk";
  EXPECT_TRUE(Upload("small.bin", sized(19000), false).json["success"].asBool());

  Json::Value unknown;
  unknown["id"] = 999;
  for (const auto& [api, method] : std::vector<std::pair<std::string, std::string>>{
           {"ZEVO.Larkpost.Attachment", "download"},
           {"ZEVO.Larkpost.Attachment", "download_all"},
           {"ZEVO.Larkpost.Attachment", "download_temp"},
           {"ZEVO.Larkpost.Sticker", "get"}}) {
    EXPECT_EQ(Download(method, unknown, api).status, 404) << method;
  }

  // A refused message keeps the draft, and nobody joins the address book.
  sink_.RefuseMessage();
  Json::Value content;
  content["from"] = "ann@example.org";
  content["to"] = Strings({"bob@example.org"});
  content["subject"] = "Kept";
  const int draft = Data("ZEVO.Larkpost.Draft", "create", content)["id"].asInt();
  Json::Value send;
  send["id"] = draft;
  EXPECT_EQ(Call("ZEVO.Larkpost.Draft", "send", send).json["error"]["code"].asInt(), 511);
  Json::Value ids;
  ids["id"].append(draft);
  EXPECT_EQ(Data("ZEVO.Larkpost.Draft", "get", ids)["draft"][0]["subject"], "Kept");
  EXPECT_EQ(Threads(kSent)["total"].asInt(), 0);
  EXPECT_EQ(Column("SELECT count(*) FROM contact"), std::vector<std::string>{"0"});
}

}  // namespace
}  // namespace larkpost::itest
