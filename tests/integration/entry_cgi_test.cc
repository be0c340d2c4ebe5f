// The plug-in through the real host: entry.cgi and auth.cgi run as CGI
// programs over a fresh data root, the logs checked on disk.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "platform/zevo/webapi.h"
#include "tests/integration/integration_util.h"

namespace larkpost::itest {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;

const char kGetInfo[] = "api=ZEVO.Larkpost.Info&version=1&method=getinfo";

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

  DataRoot root_;
  uint32_t uid_ = 0;
  Json::Value session_;
};

TEST_F(EntryCgiTest, LoginTellsAdminsAndAnswersWrongPasswordsAndUnknownAccountsAlike) {
  EXPECT_EQ(session_["is_admin"], Json::Value(false));
  root_.AddUser("root", "secret", /*admin=*/true);
  EXPECT_EQ(root_.Login("root", "secret")["is_admin"], Json::Value(true));

  CgiRequest request;
  request.method = "POST";
  request.body = "account=alice&passwd=wrong";
  CgiAnswer wrong = root_.Cgi("auth.cgi", request);
  request.body = "account=nobody&passwd=wrong";
  CgiAnswer unknown = root_.Cgi("auth.cgi", request);
  EXPECT_EQ(wrong.body, R"({"error":{"code":400},"success":false})");
  EXPECT_EQ(wrong.body, unknown.body);
  EXPECT_EQ(wrong.headers.count("set-cookie"), 0u);
}

TEST_F(EntryCgiTest, FirstGetInfoCreatesTheStoreLaterCallsOnlyCheckIt) {
  Json::Value expected;
  ASSERT_TRUE(ZEVO::WebAPIUtil::FromString(R"({"success": true, "data": {"max_upload_size":
      10485760, "database_ready": true, "smtp_hostname": "", "fts_enabled": true}})",
                                           expected));
  EXPECT_EQ(WithSid(kGetInfo).json, expected);
  EXPECT_THAT(root_.Lines("log/notify.log"), SizeIs(1));
  EXPECT_THAT(SyncTypes(), ElementsAre("0", "1", "2"));

  EXPECT_EQ(WithSid(kGetInfo).json, expected);
  EXPECT_THAT(root_.Lines("log/notify.log"), SizeIs(1)) << "no second notification";
  EXPECT_THAT(SyncTypes(), ElementsAre("0", "1", "2", "0", "1", "2"));
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

}  // namespace
}  // namespace larkpost::itest
