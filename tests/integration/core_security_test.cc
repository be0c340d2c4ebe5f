// What a user could do through the web client, tried against the core
// through lighttpd on loopback: send as someone else through the
// appliance's relay, let the session leave in a draft's HTML, empty the
// trash with an id list that has junk in it.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/zevo/webapi.h"
#include "tests/integration/integration_util.h"
#include "tests/support/mail_reader.h"
#include "tests/support/smtp_sink.h"

namespace larkpost::itest {
namespace {

using ::larkpost::testing::SmtpSink;

constexpr int kTrash = 6;
const std::string kPng("\x89PNG\r\n\x1a\n\0\0\0\rIHDR tiny", 21);

// ann@localdomain, logged in as a browser is (cookie and token), with the
// appliance's relay pointing at an SMTP sink.
class CoreSecurityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.WriteConfig(R"({"login_failure_delay_ms": 50, "mail_server": {"smtp_enabled": "yes"},)"
                      R"( "relay": {"host": "127.0.0.1", "port": )" +
                      std::to_string(sink_.port()) + "}}");
    uid_ = root_.AddUser("ann", "secret");
    server_ = std::make_unique<Server>(root_);
    HttpAnswer login = Http(server_->url("/webapi/auth.cgi"),
                            {{"account", "ann"}, {"passwd", "secret"}}, /*post=*/true);
    ASSERT_TRUE(login.json["success"].asBool()) << login.body;
    headers_ = {{"Cookie", "id=" + login.json["data"]["sid"].asString()},
                {"X-ZEVO-Token", login.json["data"]["token"].asString()}};
    token_ = login.json["data"]["token"].asString();
    ASSERT_FALSE(token_.empty());
    ASSERT_TRUE(Data("ZEVO.Larkpost.Info", "getinfo", Json::Value())["database_ready"].asBool());
  }

  HttpAnswer Call(const std::string& api, const std::string& method, const Json::Value& params) {
    std::map<std::string, std::string> form = {{"api", api}, {"version", "1"}, {"method", method}};
    for (const std::string& name : params.getMemberNames()) {
      form[name] = ZEVO::WebAPIUtil::ToString(params[name]);
    }
    return Http(server_->url("/webapi/entry.cgi"), form, /*post=*/true, headers_);
  }
  Json::Value Data(const std::string& api, const std::string& method, const Json::Value& params) {
    HttpAnswer answer = Call(api, method, params);
    EXPECT_TRUE(answer.json["success"].asBool()) << api << " " << method << ": " << answer.body;
    return answer.json["data"];
  }
  int ErrorOf(const std::string& api, const std::string& method, const Json::Value& params) {
    HttpAnswer answer = Call(api, method, params);
    EXPECT_FALSE(answer.json["success"].asBool()) << answer.body;
    return answer.json["error"]["code"].asInt();
  }

  // The first column of `sql` over the user's store.
  std::vector<std::string> Column(const std::string& sql) {
    sqlite3* db = nullptr;
    std::vector<std::string> values;
    const std::string path = root_.path() + "/mail/" + std::to_string(uid_) + "/larkpost.db";
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

  static Json::Value Content(const std::string& from) {
    Json::Value content;
    content["from"] = from;
    content["to"].append("bob@example.org");
    content["subject"] = "Quarterly";
    return content;
  }

  SmtpSink sink_;
  DataRoot root_;
  uint32_t uid_ = 0;
  std::unique_ptr<Server> server_;
  std::map<std::string, std::string> headers_;
  std::string token_;
};

TEST_F(CoreSecurityTest, TheRelaySendsOnlyAsTheUser) {
  for (const char* from :
       {"ceo@bank.example", "Ann <ceo@bank.example>", "ann@localdomain <ceo@bank.example>"}) {
    EXPECT_EQ(ErrorOf("ZEVO.Larkpost.Draft", "send", Content(from)), 513) << from;
  }
  EXPECT_TRUE(sink_.sessions().empty());
  // Each refused message stays a draft, as it was written.
  EXPECT_EQ(Column("SELECT from_text FROM message WHERE type = 1 ORDER BY id"),
            (std::vector<std::string>{"ceo@bank.example", "Ann <ceo@bank.example>",
                                      "ann@localdomain <ceo@bank.example>"}));

  Data("ZEVO.Larkpost.Draft", "send", Content("Ann <ann@LocalDomain>"));
  ASSERT_EQ(sink_.sessions().size(), 1u);
  EXPECT_EQ(sink_.sessions()[0].mail_from, "ann@LocalDomain");
}

TEST_F(CoreSecurityTest, ADraftSavedAsShownKeepsItsImageAndNoSessionLeaves) {
  HttpAnswer upload = HttpUpload(
      server_->url("/webapi/entry.cgi?api=ZEVO.Larkpost.Attachment&version=1&method=upload"),
      {{"is_inline", "true"}}, {{"upload", "dot.png", kPng, "image/png"}}, headers_);
  ASSERT_TRUE(upload.json["success"].asBool()) << upload.body;
  const std::string cid = upload.json["data"]["content_id"].asString();
  Json::Value content = Content("ann@localdomain");
  content["body"] = "<p>Look: <img src=\"cid:" + cid + "\"></p>";
  content["temp_attachment"].append(upload.json["data"]["id"]);
  const int draft = Data("ZEVO.Larkpost.Draft", "create", content)["id"].asInt();

  Json::Value ids;
  ids["id"].append(draft);
  const std::string shown =
      Data("ZEVO.Larkpost.Draft", "get", ids)["draft"][0]["body"]["html"].asString();
  ASSERT_NE(shown.find(token_), std::string::npos) << shown;
  Json::Value save;
  save["id"] = draft;
  save["body"] = shown;
  Data("ZEVO.Larkpost.Draft", "set", save);

  const std::string where = " WHERE message_id = " + std::to_string(draft);
  EXPECT_EQ(Column("SELECT name FROM attachment" + where), std::vector<std::string>{"dot.png"});
  const std::vector<std::string> stored = Column("SELECT html FROM message_body" + where);
  ASSERT_EQ(stored.size(), 1u);
  EXPECT_NE(stored[0].find("\"cid:" + cid + "\""), std::string::npos) << stored[0];
  EXPECT_EQ(stored[0].find(token_), std::string::npos) << stored[0];

  Json::Value send;
  send["id"] = draft;
  Data("ZEVO.Larkpost.Draft", "send", send);
  ASSERT_EQ(sink_.messages().size(), 1u);
  const std::string sent = sink_.messages()[0];
  EXPECT_EQ(sent.find(token_), std::string::npos);
  const auto received = ::larkpost::testing::ReadMessage(sent);
  EXPECT_EQ(received.tree,
            "multipart/alternative(text/plain,multipart/related(text/html,image/png))");
  ASSERT_EQ(received.leaves.size(), 3u);
  EXPECT_EQ(received.leaves[2].content, kPng);
  EXPECT_EQ(received.leaves[2].content_id, cid);
}

TEST_F(CoreSecurityTest, JunkInAnIdListEmptiesNothing) {
  const ProcessResult delivered =
      root_.Ctl({"deliver", "ann"},
                "From: bob@example.org\r\nTo: ann@localdomain\r\nSubject: Old\r\n\r\nbody\r\n");
  ASSERT_EQ(delivered.exit_code, 0) << delivered.err;
  const std::vector<std::string> message = Column("SELECT id FROM message");
  ASSERT_EQ(message.size(), 1u);
  Json::Value move;
  move["id"].append(std::stoi(message[0]));
  move["mailbox_id"] = kTrash;
  Data("ZEVO.Larkpost.Message", "set_mailbox", move);
  const std::string in_trash = "SELECT count(*) FROM message WHERE mailbox_id = 6";
  ASSERT_EQ(Column(in_trash), std::vector<std::string>{"1"});

  for (const char* junk : {R"([6, "x"])", "[6, 6.5]", "[6, true]", "[6, null]", R"([6, "6"])",
                           "[6, 4294967302]", "[6, [6]]"}) {
    Json::Value params;
    params["id"] = ZEVO::WebAPIUtil::ParseJson(junk);
    EXPECT_EQ(ErrorOf("ZEVO.Larkpost.Mailbox", "clear_message", params), 120) << junk;
    EXPECT_EQ(Column(in_trash), std::vector<std::string>{"1"}) << junk;
  }
  Json::Value trash;
  trash["id"].append(kTrash);
  Data("ZEVO.Larkpost.Mailbox", "clear_message", trash);
  EXPECT_EQ(Column(in_trash), std::vector<std::string>{"0"});
}

}  // namespace
}  // namespace larkpost::itest
