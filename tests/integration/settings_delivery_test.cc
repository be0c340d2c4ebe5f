// Settings through lighttpd that act on mail: a sending identity set up as
// the web client does it sends with its own login, its password sealed on
// disk; forwarding and the vacation reply set up the same way act on mail
// that larkpostctl delivers, through the relay.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/zevo/webapi.h"
#include "tests/integration/integration_util.h"
#include "tests/support/smtp_sink.h"

namespace larkpost::itest {
namespace {

class SettingsDeliveryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.WriteConfig(R"({"relay": {"host": "127.0.0.1", "port": )" +
                      std::to_string(relay_.port()) + "}}");
    root_.AddUser("ann", "secret");
    server_ = std::make_unique<Server>(root_);
    HttpAnswer login = Http(server_->url("/webapi/auth.cgi"),
                            {{"account", "ann"}, {"passwd", "secret"}}, /*post=*/true);
    ASSERT_TRUE(login.json["success"].asBool()) << login.body;
    sid_ = login.json["data"]["sid"].asString();
    ASSERT_TRUE(Call("ZEVO.Larkpost.Info", "getinfo")["success"].asBool());
  }

  Json::Value Call(const std::string& api, const std::string& method,
                   const std::string& params = "{}") {
    std::map<std::string, std::string> form = {
        {"api", api}, {"version", "1"}, {"method", method}, {"_sid", sid_}};
    const Json::Value values = ZEVO::WebAPIUtil::ParseJson(params);
    for (const std::string& name : values.getMemberNames()) {
      form[name] = ZEVO::WebAPIUtil::ToString(values[name]);
    }
    return Http(server_->url("/webapi/entry.cgi"), form, true).json;
  }

  // The id larkpostctl printed: 0 when the message was not stored.
  int Deliver(const std::string& from) {
    ProcessResult result =
        RunProcess({BinDir() + "/larkpostctl", "--root", root_.path(), "deliver", "ann"}, {},
                   "From: " + from + "\nTo: Ann <ann@localdomain>\nSubject: Lunch\n" +
                       "Message-ID: <lunch@example.net>\n\nAre you in?\n");
    EXPECT_EQ(result.exit_code, 0) << result.err;
    return std::stoi(result.out);
  }

  ::larkpost::testing::SmtpSink relay_;
  DataRoot root_;
  std::unique_ptr<Server> server_;
  std::string sid_;
};

TEST_F(SettingsDeliveryTest, AnIdentitySendsWithItsOwnLoginAndItsPasswordIsSealedOnDisk) {
  ::larkpost::testing::SmtpSink work;
  work.RequireAuth("ann.work", "s3cret-Pass");
  const Json::Value created =
      Call("ZEVO.Larkpost.Setting.SMTP", "create",
           R"({"display_name": "Ann at Work", "mail": "ann@work.example", "host_name": "127.0.0.1",
               "port": )" +
               std::to_string(work.port()) +
               R"(, "user_name": "ann.work", "password": "s3cret-Pass", "connection_type": 0})");
  ASSERT_TRUE(created["success"].asBool()) << created;
  const Json::Value list = Call("ZEVO.Larkpost.Setting.SMTP", "list");
  ASSERT_EQ(list["data"]["smtp"].size(), 1u) << list;
  EXPECT_FALSE(list["data"]["smtp"][0].isMember("password"));

  const Json::Value draft = Call("ZEVO.Larkpost.Draft", "create",
                                 R"({"from": "ann@work.example", "to": ["bob@example.org"],
                                     "subject": "Plans"})");
  ASSERT_TRUE(draft["success"].asBool()) << draft;
  const Json::Value sent = Call("ZEVO.Larkpost.Draft", "send",
                                "{\"id\": " + std::to_string(draft["data"]["id"].asInt()) + "}");
  EXPECT_TRUE(sent["success"].asBool()) << sent;
  ASSERT_EQ(work.sessions().size(), 1u);
  EXPECT_TRUE(work.sessions()[0].authenticated);
  EXPECT_NE(work.messages()[0].find("From: Ann at Work <ann@work.example>"), std::string::npos);
  EXPECT_TRUE(relay_.sessions().empty());

  const std::string store = root_.path() + "/mail/" + std::to_string(1026) + "/larkpost.db";
  EXPECT_EQ((ReadFile(store) + ReadFile(store + "-wal")).find("s3cret-Pass"), std::string::npos);
  struct stat key;
  ASSERT_EQ(stat((root_.path() + "/etc/secret.key").c_str(), &key), 0);
  EXPECT_EQ(key.st_mode & 0777, 0600u);
}

TEST_F(SettingsDeliveryTest, ForwardingAndTheVacationReplyActOnDeliveredMail) {
  const Json::Value set = Call("ZEVO.Larkpost.Setting.ForwardReply", "set",
                               R"({"forward_enable": true, "forward_addr": "ann@home.example",
                                   "keep_copy": false, "reply_enable": true,
                                   "subject": "Away", "message": "Back on Monday."})");
  ASSERT_TRUE(set["success"].asBool()) << set;

  EXPECT_EQ(Deliver("Zoe <zoe@example.net>"), 0);  // forwarded, not kept
  ASSERT_EQ(relay_.sessions().size(), 2u);
  const auto forward = relay_.sessions()[0];
  EXPECT_EQ(forward.mail_from, "zoe@example.net");
  EXPECT_EQ(forward.rcpt_to, std::vector<std::string>{"ann@home.example"});
  EXPECT_EQ(forward.data.rfind("X-Larkpost-Forwarded: <ann@localdomain>\r\nFrom: Zoe", 0), 0u);
  const auto reply = relay_.sessions()[1];
  EXPECT_EQ(reply.mail_from, "");
  EXPECT_EQ(reply.rcpt_to, std::vector<std::string>{"zoe@example.net"});
  EXPECT_NE(reply.data.find("Subject: Away\r\n"), std::string::npos);
  EXPECT_NE(reply.data.find("In-Reply-To: <lunch@example.net>\r\n"), std::string::npos);

  // Zoe has had her answer this week; the forward still goes.
  EXPECT_EQ(Deliver("Zoe <zoe@example.net>"), 0);
  EXPECT_EQ(relay_.sessions().size(), 3u);

  // Forwarding off keeps the mail; new rules answer Zoe again.
  ASSERT_TRUE(
      Call("ZEVO.Larkpost.Setting.ForwardReply", "set",
           R"({"forward_enable": false, "reply_enable": true, "message": "Back soon."})")["success"]
          .asBool());
  EXPECT_GT(Deliver("Zoe <zoe@example.net>"), 0);
  ASSERT_EQ(relay_.sessions().size(), 4u);
  EXPECT_EQ(relay_.sessions()[3].rcpt_to, std::vector<std::string>{"zoe@example.net"});
}

}  // namespace
}  // namespace larkpost::itest
