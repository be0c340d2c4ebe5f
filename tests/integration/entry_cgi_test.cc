// The plug-in through the real host: entry.cgi and auth.cgi run as CGI
// programs over a fresh data root, the store and logs checked on disk.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <sstream>

#include "platform/zevo/webapi.h"
#include "tests/integration/integration_util.h"

namespace larkpost::itest {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;

const char kGetInfo[] = "api=ZEVO.Larkpost.Info&version=1&method=getinfo";

bool IsLowerHex(const std::string& text, size_t size) {
  return text.size() == size && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(ZEVO::WebAPIUtil::FromString(text, value)) << text;
  return value;
}

class EntryCgiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    uid_ = root_.AddUser("alice", "correct horse");
    session_ = root_.Login("alice", "correct horse");
    ASSERT_TRUE(session_.isObject());
  }

  CgiAnswer WithSid(const std::string& query) const {
    CgiRequest request;
    request.query = query + "&_sid=" + session_["sid"].asString();
    return root_.Cgi("entry.cgi", request);
  }

  // The sync types recorded for the user, in order.
  std::vector<std::string> SyncTypes() const {
    std::vector<std::string> types;
    for (const std::string& line : root_.Lines("log/sync.log")) {
      std::istringstream fields(line);
      int64_t time = 0;
      uint32_t uid = 0;
      std::string type;
      EXPECT_TRUE(fields >> time >> uid >> type) << line;
      EXPECT_EQ(uid, uid_) << line;
      types.push_back(type);
    }
    return types;
  }

  std::vector<int> MailboxIds() const {
    std::string path = root_.path() + "/mail/" + std::to_string(uid_) + "/larkpost.db";
    sqlite3* db = nullptr;
    std::vector<int> ids;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
      sqlite3_stmt* statement = nullptr;
      sqlite3_prepare_v2(db, "SELECT id FROM mailbox ORDER BY id", -1, &statement, nullptr);
      while (statement != nullptr && sqlite3_step(statement) == SQLITE_ROW) {
        ids.push_back(sqlite3_column_int(statement, 0));
      }
      sqlite3_finalize(statement);
    }
    sqlite3_close(db);
    return ids;
  }

  DataRoot root_;
  uint32_t uid_ = 0;
  Json::Value session_;
};

TEST_F(EntryCgiTest, LoginAnswersTheSessionAndSetsTheCookie) {
  EXPECT_TRUE(IsLowerHex(session_["sid"].asString(), 64));
  EXPECT_TRUE(IsLowerHex(session_["token"].asString(), 32));
  EXPECT_EQ(session_["is_admin"], Json::Value(false));

  root_.AddUser("root", "secret", /*admin=*/true);
  CgiRequest request;
  request.method = "POST";
  request.body = "account=root&passwd=secret";
  CgiAnswer answer = root_.Cgi("auth.cgi", request);
  EXPECT_TRUE(answer.json["data"]["is_admin"].asBool());
  EXPECT_EQ(answer.headers["set-cookie"],
            "id=" + answer.json["data"]["sid"].asString() + "; HttpOnly; SameSite=Strict; Path=/");
}

TEST_F(EntryCgiTest, WrongPasswordAndUnknownAccountLookTheSame) {
  CgiRequest request;
  request.method = "POST";
  request.body = "account=alice&passwd=wrong";
  CgiAnswer wrong = root_.Cgi("auth.cgi", request);
  request.body = "account=nobody&passwd=wrong";
  CgiAnswer unknown = root_.Cgi("auth.cgi", request);
  EXPECT_EQ(wrong.json, Parse(R"({"success": false, "error": {"code": 400}})"));
  EXPECT_EQ(wrong.body, unknown.body);
  EXPECT_EQ(wrong.headers.count("set-cookie"), 0u);
}

TEST_F(EntryCgiTest, FirstGetInfoCreatesTheStoreLaterCallsOnlyCheckIt) {
  CgiAnswer first = WithSid(kGetInfo);
  EXPECT_EQ(first.json, Parse(R"({"success": true, "data": {"max_upload_size": 10485760,
      "database_ready": true, "smtp_hostname": "", "fts_enabled": true}})"));
  EXPECT_EQ(first.headers["content-type"], "application/json; charset=utf-8");
  EXPECT_EQ(first.headers["x-content-type-options"], "nosniff");
  EXPECT_EQ(first.headers["cache-control"], "no-store");
  EXPECT_THAT(MailboxIds(), ElementsAre(1, 2, 3, 4, 5, 6, 7));
  EXPECT_THAT(root_.Lines("log/notify.log"), SizeIs(1));
  EXPECT_THAT(SyncTypes(), ElementsAre("0", "1", "2"));

  CgiAnswer later = WithSid(kGetInfo);
  EXPECT_TRUE(later.json["data"]["database_ready"].asBool());
  EXPECT_THAT(root_.Lines("log/notify.log"), SizeIs(1)) << "no second notification";
  EXPECT_THAT(SyncTypes(), ElementsAre("0", "1", "2", "0", "1", "2"));
}

TEST_F(EntryCgiTest, GetInfoReportsTheMailServerConfiguration) {
  root_.WriteConfig(R"({"login_failure_delay_ms": 50, "mail_server":
      {"smtp_enabled": "yes", "smtp_hostname": "mail.example.org", "fts_enabled": "no"}})");
  Json::Value data = WithSid(kGetInfo).json["data"];
  EXPECT_EQ(data["smtp_hostname"], "mail.example.org");
  EXPECT_EQ(data["fts_enabled"], Json::Value(false));
}

TEST_F(EntryCgiTest, SessionAndTokenRules) {
  const std::string sid = session_["sid"].asString();
  const std::string token = session_["token"].asString();
  struct Case {
    const char* what;
    std::string query;
    std::string cookie;
    std::map<std::string, std::string> headers;
    int code;  // 0: success
  } cases[] = {
      {"no session", kGetInfo, "", {}, 119},
      {"unknown _sid", std::string(kGetInfo) + "&_sid=" + std::string(64, 'a'), "", {}, 119},
      {"cookie without token", kGetInfo, "id=" + sid, {}, 119},
      {"cookie with a wrong token",
       kGetInfo,
       "id=" + sid,
       {{"HTTP_X_ZEVO_TOKEN", "x" + token}},
       119},
      {"cookie with the token header",
       kGetInfo,
       "lang=en; id=" + sid,
       {{"HTTP_X_ZEVO_TOKEN", token}},
       0},
      {"cookie with the token field",
       std::string(kGetInfo) + "&_token=" + token,
       "id=" + sid,
       {},
       0},
      {"_sid needs no token", std::string(kGetInfo) + "&_sid=" + sid, "", {}, 0},
  };
  for (const Case& c : cases) {
    CgiRequest request;
    request.query = c.query;
    request.cookie = c.cookie;
    request.extra_headers = c.headers;
    Json::Value answer = root_.Cgi("entry.cgi", request).json;
    if (c.code == 0) {
      EXPECT_TRUE(answer["success"].asBool()) << c.what << ": " << answer;
    } else {
      EXPECT_EQ(answer["error"]["code"].asInt(), c.code) << c.what << ": " << answer;
    }
  }
}

TEST_F(EntryCgiTest, HostRefusesWhatThePlugInDoesNotServe) {
  struct Case {
    const char* query;
    int code;
  } cases[] = {
      {"api=ZEVO.Larkpost.Info&version=1", 101},
      {"api=ZEVO.Larkpost.Nothing&version=1&method=getinfo", 102},
      {"api=ZEVO.Larkpost.Info&version=1&method=list", 103},
      {"api=ZEVO.Larkpost.Info&version=2&method=getinfo", 104},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(WithSid(c.query).json["error"]["code"].asInt(), c.code) << c.query;
  }
}

TEST_F(EntryCgiTest, LogoutEndsTheSession) {
  CgiRequest logout;
  logout.method = "POST";
  logout.body = "method=logout&_sid=" + session_["sid"].asString();
  CgiAnswer answer = root_.Cgi("auth.cgi", logout);
  EXPECT_EQ(answer.json, Parse(R"({"success": true})"));
  EXPECT_EQ(WithSid(kGetInfo).json["error"]["code"].asInt(), 119);
}

}  // namespace
}  // namespace larkpost::itest
