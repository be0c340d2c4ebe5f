// Filter rules through lighttpd: kept and reordered as the web client does
// it, and sorting the mail that larkpostctl delivers, redirects leaving
// through the relay.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "platform/zevo/webapi.h"
#include "tests/integration/integration_util.h"
#include "tests/support/smtp_sink.h"

namespace larkpost::itest {
namespace {

class FilterIntegrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_.WriteConfig(R"({"relay": {"host": "127.0.0.1", "port": )" + std::to_string(sink_.port()) +
                      "}}");
    root_.AddUser("ann", "secret");
    server_ = std::make_unique<Server>(root_);
    sid_ = root_.Login("ann", "secret")["sid"].asString();
    ASSERT_TRUE(Call("ZEVO.Larkpost.Info", "getinfo")["success"].asBool());
  }

  // The envelope of a call; every parameter sent as its JSON text.
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
  Json::Value Filter(const std::string& method, const std::string& params = "{}") {
    return Call("ZEVO.Larkpost.Filter", method, params);
  }

  // The mailbox that the newest delivered message is in.
  int Deliver(const std::string& subject) {
    ProcessResult result =
        RunProcess({BinDir() + "/larkpostctl", "--root", root_.path(), "deliver", "ann"}, {},
                   "From: Zoe <zoe@example.org>\nTo: ann@example.org\nSubject: " + subject +
                       "\n\nBody text.\n");
    EXPECT_EQ(result.exit_code, 0) << result.err;
    return std::stoi(result.out);
  }
  int MailboxOf(int message) {
    const Json::Value got =
        Call("ZEVO.Larkpost.Message", "get", "{\"id\": [" + std::to_string(message) + "]}");
    return got["data"]["message"][0]["mailbox_id"].asInt();
  }

  ::larkpost::testing::SmtpSink sink_;
  DataRoot root_;
  std::unique_ptr<Server> server_;
  std::string sid_;
};

TEST_F(FilterIntegrationTest, RulesCreatedListedAndReorderedSortIncomingMail) {
  const Json::Value work =
      Call("ZEVO.Larkpost.Mailbox", "create", R"({"name": "Work", "parent_id": 0})");
  ASSERT_TRUE(work["success"].asBool()) << work;
  const std::string work_id = std::to_string(work["data"]["id"].asInt());
  // The browser sends ids as numeric text.
  const Json::Value to_work =
      Filter("create", R"({"condition": [{"name": "subject", "value": "report"}],
      "action": [{"name": "move_to", "value": ")" +
                           work_id + R"("}]})");
  ASSERT_TRUE(to_work["success"].asBool()) << to_work;
  const Json::Value to_trash = Filter("create", R"({"condition": [{"name": "from", "value": "zoe"}],
      "action": [{"name": "trash", "value": ""}, {"name": "set_read", "value": "true"}]})");
  const int a = to_work["data"]["id"].asInt(), b = to_trash["data"]["id"].asInt();

  Json::Value list = Filter("list");
  EXPECT_EQ(list["data"]["total"].asInt(), 2);
  EXPECT_EQ(list["data"]["filter"][0],
            ZEVO::WebAPIUtil::ParseJson(R"({"id": )" + std::to_string(a) +
                                        R"(, "condition": [{"name": "subject", "value": "report",
          "not_operator": false}], "action": [{"name": "move_to", "value": )" +
                                        work_id + "}]}"));
  EXPECT_EQ(Filter("setorder", "{\"id\": [" + std::to_string(a) + "]}")["error"]["code"].asInt(),
            117);

  // Both match; the later one names the last mailbox.
  EXPECT_EQ(MailboxOf(Deliver("Monthly report")), 6);
  EXPECT_EQ(MailboxOf(Deliver("Hello")), 6);
  ASSERT_TRUE(Filter("setorder",
                     "{\"id\": [" + std::to_string(b) + ", " + std::to_string(a) + "]}")["success"]
                  .asBool());
  EXPECT_EQ(Filter("list")["data"]["filter"][0]["id"].asInt(), b);
  EXPECT_EQ(MailboxOf(Deliver("Monthly report")), work["data"]["id"].asInt());

  ASSERT_TRUE(Filter("delete",
                     "{\"id\": [" + std::to_string(a) + ", " + std::to_string(b) + "]}")["success"]
                  .asBool());
  EXPECT_EQ(MailboxOf(Deliver("Monthly report")), 1);
}

TEST_F(FilterIntegrationTest, ARedirectLeavesUnchangedThroughTheRelayAndTheMessageStays) {
  ASSERT_TRUE(Filter("create", R"({"condition": [{"name": "subject", "value": "invoice"}],
      "action": [{"name": "redirect", "value": "Bob <bob@example.net>"}]})")["success"]
                  .asBool());
  const int id = Deliver("Invoice 42");
  EXPECT_EQ(MailboxOf(id), 1);
  ASSERT_EQ(sink_.sessions().size(), 1u);
  const auto session = sink_.sessions()[0];
  EXPECT_EQ(session.mail_from, "zoe@example.org");
  EXPECT_EQ(session.rcpt_to, std::vector<std::string>{"bob@example.net"});
  EXPECT_EQ(session.data,
            "From: Zoe <zoe@example.org>\r\nTo: ann@example.org\r\nSubject: Invoice 42\r\n\r\n"
            "Body text.\r\n");
  Deliver("Other mail");
  EXPECT_EQ(sink_.sessions().size(), 1u);
}

}  // namespace
}  // namespace larkpost::itest
