// "ZEVO.Larkpost.Message": full messages with the "additional" options,
// the original source as a raw CGI answer, and the per-message changes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "tests/unit/handler_test_util.h"
#include "webapi/api_table.h"
#include "webapi/format/full_message.h"

namespace larkpost::test {
namespace {

namespace constant = ornic::larkpost::constant;
namespace format = ornic::larkpost::webapi::format;
namespace record = ornic::larkpost::record;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kNotFound[] = "Status: 404 Not Found\r\n\r\n";

class MessageTest : public HandlerTest {
 protected:
  void SetUp() override {
    HandlerTest::SetUp();
    setenv("HTTP_X_ZEVO_TOKEN", "tok-9", 1);
    for (int id : {21, 22}) {
      record::FullMessage message;
      message.id = id;
      message.from = "Ann <ann@example.org>";
      message.subject = "Hello";
      message.body_preview = "Hi Bob";
      message.to = {"bob@example.org"};
      message.plain_body = "Hi Bob";
      message.html_body =
          "<p>Hi <a href=\"https://example.org/\">Bob</a></p>"
          "<img src=\"https://images.example.org/x.png\"><blockquote>old</blockquote>";
      fake::core().messages[id] = message;
    }
  }
  void TearDown() override {
    unsetenv("HTTP_X_ZEVO_TOKEN");
    HandlerTest::TearDown();
  }

  struct Streamed {
    std::string output;
    bool json_enabled;
  };

  // Runs a streaming method and returns what it wrote itself.
  Streamed RunStreaming(ZEVO::APIHandler handler, const Json::Value& params) {
    ZEVO::APIRequest request(params);
    request.SetLoginUser(kAlice, "alice", false);
    ZEVO::APIResponse response;
    std::string output = CaptureStdout([&] { handler(&request, &response); });
    return {output, response.IsOutputEnabled()};
  }
};

TEST_F(MessageTest, GetRendersEachMessageWithTheAskedOptions) {
  struct Case {
    const char* additional;
    constant::HTMLBodyFormat format;
    bool body_preview;
    bool block_external_image;
  } cases[] = {
      {nullptr, constant::kHTMLBodyRead, false, false},
      {"[]", constant::kHTMLBodyRead, false, false},
      {R"(["blockquote", "body_preview"])", constant::kHTMLBodyReadSplitQuote, true, false},
      {R"(["block_external_image"])", constant::kHTMLBodyRead, false, true},
      {R"(["body_preview", "unread_count"])", constant::kHTMLBodyRead, true, false},
  };
  for (const Case& c : cases) {
    Json::Value params = J(R"({"id": [22, 99, 21]})");
    if (c.additional != nullptr) params["additional"] = J(c.additional);
    Json::Value answer = Run(MessageGet_v1, params);
    Json::Value expected(Json::arrayValue);
    for (int id : {22, 21}) {
      expected.append(format::FullMessageToJson(fake::core().messages[id], c.format, c.body_preview,
                                                c.block_external_image));
    }
    EXPECT_EQ(answer["success"], true);
    EXPECT_EQ(Data(answer)["message"], expected) << (c.additional ? c.additional : "none");
  }
  EXPECT_EQ(fake::CallsStartingWith("MessageControl::").back(),
            "MessageControl::GetFullMessages [22,99,21]");
}

TEST_F(MessageTest, GetOfNothingThatExistsIsAnEmptyListAndBadIdsAre120) {
  EXPECT_EQ(Run(MessageGet_v1, J(R"({"id": [98, 99]})")),
            J(R"({"success": true, "data": {"message": []}})"));
  for (const char* params : {R"({})", R"({"id": null})", R"({"id": []})", R"({"id": [0]})",
                             R"({"id": ["21"]})", R"({"id": 21})"}) {
    fake::core().calls.clear();
    EXPECT_EQ(Run(MessageGet_v1, J(params)), ErrorAnswer(120)) << params;
    EXPECT_THAT(fake::CallsStartingWith("MessageControl::"), IsEmpty()) << params;
  }
}

TEST_F(MessageTest, GetOriginalWritesTheSourceByteForByte) {
  using namespace std::string_literals;
  const std::string source = "From: ann@example.org\r\nSubject: x\r\n\r\nbody\0\xff\r\n"s;
  fake::core().originals[21] = source;
  Streamed streamed = RunStreaming(MessageGetOriginal_v1, J(R"({"id": 21})"));
  EXPECT_EQ(streamed.output, "Content-Type: text/plain\r\n\r\n" + source);
  EXPECT_FALSE(streamed.json_enabled);
  EXPECT_THAT(fake::CallsStartingWith("MessageControl::"),
              ElementsAre("MessageControl::OriginalContent 21"));
  EXPECT_THAT(Logged("message"), IsEmpty());
}

TEST_F(MessageTest, GetOriginalAnswers404WhenItHasNothingToSend) {
  struct Case {
    const char* params;
    const char* logged;
    bool asks_core;
  } cases[] = {
      {R"({"id": 0})", "input parameter is not valid", false},
      {R"({"id": -4})", "input parameter is not valid", false},
      {R"({"id": "21"})", "input parameter is not valid", false},
      {R"({"id": [21]})", "input parameter is not valid", false},
      {R"({"id": null})", "input parameter is not valid", false},
      {R"({})", "input parameter is not valid", false},
      {R"({"id": 77})", "content of message[77] not available", true},
      {R"({"id": 22})", "content of message[22] not available", true},  // an empty source
  };
  fake::core().originals[22] = "";
  for (const Case& c : cases) {
    fake::core().calls.clear();
    fake::ResetSystemLog();
    Streamed streamed = RunStreaming(MessageGetOriginal_v1, J(c.params));
    EXPECT_EQ(streamed.output, kNotFound) << c.params;
    EXPECT_FALSE(streamed.json_enabled) << c.params;
    EXPECT_THAT(Logged("message"), ElementsAre(c.logged)) << c.params;
    EXPECT_EQ(fake::CallsStartingWith("MessageControl::OriginalContent").size(),
              c.asks_core ? 1u : 0u)
        << c.params;
  }
}

struct Change {
  const char* name;
  ZEVO::APIHandler handler;
  const char* params;
  const char* call;
  const char* failure;
  std::vector<const char*> bad_params;  // each answers 120 and calls nothing
};

const Change kChanges[] = {
    {"set_star",
     MessageSetStar_v1,
     R"({"id": [3, 4], "star": 2})",
     "MessageControl::SetStarByID [3,4] 2",
     "set message star faild (id: [\n\t3,\n\t4\n]\n, star:2)",
     {R"({"id": [3]})", R"({"id": [3], "star": -1})", R"({"id": [3], "star": true})",
      R"({"id": [3], "star": "1"})", R"({"id": [], "star": 1})", R"({"star": 1})"}},
    {"set_star 0",
     MessageSetStar_v1,
     R"({"id": [3], "star": 0})",
     "MessageControl::SetStarByID [3] 0",
     "set message star faild (id: [\n\t3\n]\n, star:0)",
     {}},
    {"set_read",
     MessageSetRead_v1,
     R"({"id": [3, 4], "read": true})",
     "MessageControl::SetReadByID [3,4] true",
     "set message star faild (id: [\n\t3,\n\t4\n]\n, read:read)",
     {R"({"read": true})", R"({"id": [0], "read": true})", R"({"id": "3", "read": true})"}},
    {"set_unread",
     MessageSetRead_v1,
     R"({"id": [3], "read": false})",
     "MessageControl::SetReadByID [3] false",
     "set message star faild (id: [\n\t3\n]\n, read:unread)",
     {}},
    {"set_mailbox",
     MessageSetMailbox_v1,
     R"({"id": [3, 4], "mailbox_id": 6})",
     "MessageControl::SetMailbox [3,4] 6",
     "set mailbox faild (id: [\n\t3,\n\t4\n]\n, mailbox_id:6)",
     {R"({"mailbox_id": 6})", R"({"id": [-1], "mailbox_id": 6})"}},
};

TEST_F(MessageTest, ChangesAnswerByTheCoresVerdict) {
  for (const Change& change : kChanges) {
    SCOPED_TRACE(change.name);
    fake::core().calls.clear();
    fake::core().failures.clear();
    fake::ResetSystemLog();
    EXPECT_EQ(Run(change.handler, J(change.params)), J(R"({"success": true})"));
    EXPECT_EQ(fake::core().calls.back(), change.call);
    EXPECT_THAT(Logged("message"), IsEmpty());

    const std::string op = std::string(change.call).substr(0, std::string(change.call).find(' '));
    fake::core().failures[op] = 0;
    EXPECT_EQ(Run(change.handler, J(change.params)), ErrorAnswer(117));
    EXPECT_THAT(Logged("message"), ElementsAre(change.failure));

    for (const char* params : change.bad_params) {
      fake::core().calls.clear();
      EXPECT_EQ(Run(change.handler, J(params)), ErrorAnswer(120)) << params;
      EXPECT_THAT(fake::CallsStartingWith("MessageControl::"), IsEmpty()) << params;
    }
  }
}

}  // namespace
}  // namespace larkpost::test
