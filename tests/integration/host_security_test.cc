// What the host guarantees against an attacker, through lighttpd and the
// real plug-in: its headers on every answer (mail content never runs as
// the webmail), attachment transfers only with the session's token, text
// checked at the door, and failed logins throttled.
#include <gtest/gtest.h>

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/zevo/webapi.h"
#include "tests/integration/integration_util.h"

namespace larkpost::itest {
namespace {

constexpr char kPolicy[] =
    "sandbox; default-src 'none'; style-src 'unsafe-inline'; img-src data:; "
    "frame-ancestors 'self'";
constexpr char kPage[] = "<html><script>fetch('/webapi/entry.cgi')</script></html>";

void ExpectHostHeaders(const HttpAnswer& answer, const std::string& what) {
  const std::map<std::string, std::string> expected = {
      {"x-content-type-options", "nosniff"},
      {"cache-control", "no-store"},
      {"content-security-policy", kPolicy},
      {"referrer-policy", "no-referrer"},
  };
  for (const auto& [name, value] : expected) {
    const auto found = answer.headers.find(name);
    EXPECT_TRUE(found != answer.headers.end() && found->second == value)
        << what << ": " << name << " is \""
        << (found == answer.headers.end() ? "(none)" : found->second) << "\"";
  }
}

// Ann, logged in to a lighttpd of her own, with one mail that carries an
// HTML page as an attachment.
class HostSecurityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.AddUser("ann", "secret");
    server_ = std::make_unique<Server>(root_);
    login_ = Http(Url("auth.cgi"), {{"account", "ann"}, {"passwd", "secret"}}, true);
    ASSERT_TRUE(login_.json["success"].asBool()) << login_.body;
    sid_ = login_.json["data"]["sid"].asString();
    token_ = login_.json["data"]["token"].asString();
    // Her store is made on the first call.
    ASSERT_TRUE(Call("ZEVO.Larkpost.Info", "getinfo", {{"_sid", sid_}})
                    .json["data"]["database_ready"]
                    .asBool());
  }

  std::string Url(const std::string& program) const { return server_->url("/webapi/" + program); }

  // A call of `method` with the fields of `form`; downloads are links, so GET.
  HttpAnswer Call(const std::string& api, const std::string& method,
                  std::map<std::string, std::string> form = {},
                  const std::map<std::string, std::string>& headers = {}, bool post = false) {
    form.insert({{"api", api}, {"version", "1"}, {"method", method}});
    return Http(Url("entry.cgi"), form, post, headers);
  }

  // Delivers the mail and answers the ids of the message and its attachment.
  std::pair<int, int> DeliverPage() {
    const ProcessResult delivered =
        root_.Ctl({"deliver", "ann"},
                  "From: Mallory <mallory@example.org>\r\nTo: ann@localdomain\r\nSubject: Look\r\n"
                  "Message-ID: <look@example.org>\r\nMIME-Version: 1.0\r\n"
                  "Content-Type: multipart/mixed; boundary=\"b\"\r\n\r\n"
                  "--b\r\nContent-Type: text/plain\r\n\r\nSee the page.\r\n"
                  "--b\r\nContent-Type: text/html; name=\"page.html\"\r\n"
                  "Content-Disposition: attachment; filename=\"page.html\"\r\n\r\n" +
                      std::string(kPage) + "\r\n--b--\r\n");
    EXPECT_EQ(delivered.exit_code, 0) << delivered.err;
    const HttpAnswer threads =
        Call("ZEVO.Larkpost.Thread", "list",
             {{"_sid", sid_}, {"condition", R"([{"name": "mailbox", "value": "1"}])"}});
    const int message = threads.json["data"]["thread"][0]["message"][0]["id"].asInt();
    const HttpAnswer got = Call("ZEVO.Larkpost.Message", "get",
                                {{"_sid", sid_}, {"id", "[" + std::to_string(message) + "]"}});
    const Json::Value& attachments = got.json["data"]["message"][0]["attachment"];
    EXPECT_EQ(attachments.size(), 1u) << got.body;
    return {message, attachments[0]["id"].asInt()};
  }

  DataRoot root_;
  std::unique_ptr<Server> server_;
  HttpAnswer login_;
  std::string sid_, token_;
};

TEST_F(HostSecurityTest, EveryAnswerCarriesTheHostsHeaders) {
  ExpectHostHeaders(login_, "login");
  const auto [message, attachment] = DeliverPage();
  const std::map<std::string, std::string> with_token = {{"_sid", sid_}, {"_token", token_}};

  ExpectHostHeaders(Call("ZEVO.Larkpost.Info", "getinfo", {{"_sid", sid_}}), "a JSON answer");
  ExpectHostHeaders(Call("ZEVO.Larkpost.Info", "getinfo"), "a host error");

  // The mailed page, as the original: served inline, but sandboxed.
  std::map<std::string, std::string> original = with_token;
  original.insert({{"id", std::to_string(attachment)}, {"type", "\"original\""}});
  const HttpAnswer page = Call("ZEVO.Larkpost.Attachment", "download", original);
  EXPECT_EQ(page.status, 200);
  EXPECT_EQ(page.body, kPage);
  EXPECT_EQ(page.headers.at("content-type"), "text/html");
  EXPECT_EQ(page.headers.count("content-disposition"), 0u);
  ExpectHostHeaders(page, "an attachment");

  std::map<std::string, std::string> missing = with_token;
  missing["id"] = "999999";
  const HttpAnswer not_found = Call("ZEVO.Larkpost.Attachment", "download", missing);
  EXPECT_EQ(not_found.status, 404);
  ExpectHostHeaders(not_found, "the 404 page");

  const HttpAnswer source = Call("ZEVO.Larkpost.Message", "get_original",
                                 {{"_sid", sid_}, {"id", std::to_string(message)}});
  EXPECT_NE(source.body.find("Subject: Look"), std::string::npos) << source.body;
  ExpectHostHeaders(source, "a raw source");
}

TEST_F(HostSecurityTest, AttachmentsNeedTheSessionsToken) {
  const int attachment = DeliverPage().second;
  const std::map<std::string, std::string> download = {{"id", std::to_string(attachment)},
                                                       {"type", "\"original\""}};
  const std::string cookie = "id=" + sid_;
  const struct {
    const char* name;
    std::map<std::string, std::string> fields;
    std::map<std::string, std::string> headers;
    bool served;
  } cases[] = {
      {"_sid alone (a link with another's session)", {{"_sid", sid_}}, {}, false},
      {"_sid with a wrong token", {{"_sid", sid_}, {"_token", std::string(32, '0')}}, {}, false},
      {"the cookie alone (a link in a mail)", {}, {{"Cookie", cookie}}, false},
      {"_sid with its token", {{"_sid", sid_}, {"_token", token_}}, {}, true},
      {"the cookie with the token header",
       {},
       {{"Cookie", cookie}, {"X-ZEVO-Token", token_}},
       true},
  };
  for (const auto& c : cases) {
    std::map<std::string, std::string> fields = download;
    fields.insert(c.fields.begin(), c.fields.end());
    const HttpAnswer answer = Call("ZEVO.Larkpost.Attachment", "download", fields, c.headers);
    if (c.served) {
      EXPECT_EQ(answer.body, kPage) << c.name;
    } else {
      EXPECT_EQ(answer.json["error"]["code"], 105) << c.name << ": " << answer.body;
    }
  }
  // An upload forged by a page the user visits: the cookie comes, the token
  // does not.
  const HttpAnswer upload = HttpUpload(
      Url("entry.cgi?api=ZEVO.Larkpost.Attachment&version=1&method=upload"),
      {{"is_inline", "false"}}, {{"upload", "x.txt", "x", "text/plain"}}, {{"Cookie", cookie}});
  EXPECT_EQ(upload.json["error"]["code"], 105) << upload.body;
}

TEST_F(HostSecurityTest, TextThatIsNotUtf8OrHoldsNulIsRefusedAtTheDoor) {
  const struct {
    const char* api;
    const char* method;
    std::map<std::string, std::string> fields;
    const char* name;
  } cases[] = {
      {"ZEVO.Larkpost.Label", "create", {{"name", "\xFF\xFEWork"}}, "name"},
      {"ZEVO.Larkpost.Label", "create", {{"name", "\"Work\\u0000\""}}, "name"},
      {"ZEVO.Larkpost.Label", "create", {{"name", std::string("Wo\0rk", 5)}}, "name"},
      {"ZEVO.Larkpost.Thread",
       "list",
       {{"condition", R"([{"name": "keyword", "value": "a\u0000b"}])"}},
       "condition"},
  };
  for (const auto& c : cases) {
    std::map<std::string, std::string> fields = c.fields;
    fields["_sid"] = sid_;
    // In the body: the web server itself refuses such bytes in a URL.
    const HttpAnswer answer = Call(c.api, c.method, fields, {}, /*post=*/true);
    EXPECT_EQ(answer.json, ZEVO::WebAPIUtil::ParseJson(
                               R"({"success": false, "error": {"code": 120, "errors": {"name": ")" +
                               std::string(c.name) + R"(", "reason": "type"}}})"))
        << c.method << ": " << answer.body;
  }
  const HttpAnswer labels = Call("ZEVO.Larkpost.Label", "list", {{"_sid", sid_}});
  ASSERT_TRUE(labels.json["success"].asBool()) << labels.body;
  EXPECT_EQ(labels.json["data"]["label"].size(), 0u) << labels.body;
}

TEST_F(HostSecurityTest, WrongPasswordsAreThrottledWithoutLockingTheOwnerOut) {
  root_.AddUser("bob", "right");
  // Bob logged in from home before.
  CgiRequest home;
  home.method = "POST";
  home.body = "account=bob&passwd=right";
  home.extra_headers["REMOTE_ADDR"] = "192.0.2.10";
  ASSERT_TRUE(root_.Cgi("auth.cgi", home).json["success"].asBool());

  // Twelve guesses at once: only the first few are checked at all.
  std::vector<std::future<HttpAnswer>> guesses;
  for (int i = 0; i < 12; ++i) {
    guesses.push_back(std::async(std::launch::async, [this, i] {
      return Http(Url("auth.cgi"), {{"account", "bob"}, {"passwd", "guess" + std::to_string(i)}},
                  true);
    }));
  }
  int checked = 0, refused = 0;
  for (auto& guess : guesses) {
    const HttpAnswer answer = guess.get();
    const int code = answer.json["error"]["code"].asInt();
    if (code == 400) ++checked;
    if (code == 407) {
      ++refused;
      EXPECT_GE(std::stoi(answer.headers.at("retry-after")), 1) << answer.body;
      ExpectHostHeaders(answer, "a refused login");
    }
  }
  EXPECT_EQ(checked + refused, 12);
  EXPECT_LE(checked, 6);

  // The right password from elsewhere waits a few seconds at most; from
  // home it goes through at once.
  const HttpAnswer elsewhere =
      Http(Url("auth.cgi"), {{"account", "bob"}, {"passwd", "right"}}, true);
  if (!elsewhere.json["success"].asBool()) {
    EXPECT_EQ(elsewhere.json["error"]["code"], 407) << elsewhere.body;
    EXPECT_LE(std::stoi(elsewhere.headers.at("retry-after")), 5);
  }
  EXPECT_TRUE(root_.Cgi("auth.cgi", home).json["success"].asBool());
}

// Names that mail chose to fool a reader: one that hides ".svg" behind a NUL
// is served as the text it is, and one far longer than a file name still
// reaches the archive of all attachments.
TEST_F(HostSecurityTest, HostileAttachmentNamesAreServedAsTheirParts) {
  const std::string fixture =
      ReadFile(std::string(LARKPOST_SOURCE_DIR) + "/tests/fixtures/mail/real/names.eml");
  ASSERT_FALSE(fixture.empty());
  const ProcessResult delivered = root_.Ctl({"deliver", "ann"}, fixture);
  ASSERT_EQ(delivered.exit_code, 0) << delivered.err;
  const std::string message = std::to_string(std::stoi(delivered.out));
  const Json::Value attachments =
      Call("ZEVO.Larkpost.Message", "get", {{"_sid", sid_}, {"id", "[" + message + "]"}})
          .json["data"]["message"][0]["attachment"];
  ASSERT_EQ(attachments.size(), 2u);
  EXPECT_EQ(attachments[0]["name"], "x.txt");
  const std::string long_name = attachments[1]["name"].asString();
  EXPECT_LE(long_name.size(), 240u);
  EXPECT_EQ(long_name.substr(long_name.size() - 4), ".pdf");

  const std::map<std::string, std::string> with_token = {{"_sid", sid_}, {"_token", token_}};
  std::map<std::string, std::string> text = with_token;
  text.insert({{"id", attachments[0]["id"].asString()}, {"type", "original"}});
  EXPECT_EQ(Call("ZEVO.Larkpost.Attachment", "download", text).headers["content-type"],
            "text/plain");

  std::map<std::string, std::string> all = with_token;
  all["id"] = message;
  const std::string zip = Call("ZEVO.Larkpost.Attachment", "download_all", all).body;
  std::unique_ptr<archive, int (*)(archive*)> reader(archive_read_new(), archive_read_free);
  archive_read_support_format_zip(reader.get());
  ASSERT_EQ(archive_read_open_memory(reader.get(), zip.data(), zip.size()), ARCHIVE_OK);
  std::vector<std::string> names;
  archive_entry* entry;
  while (archive_read_next_header(reader.get(), &entry) == ARCHIVE_OK) {
    names.push_back(archive_entry_pathname_utf8(entry) ? archive_entry_pathname_utf8(entry)
                                                       : archive_entry_pathname(entry));
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{long_name, "x.txt"}));
}

}  // namespace
}  // namespace larkpost::itest
