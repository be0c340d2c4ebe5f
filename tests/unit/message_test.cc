// "ZEVO.Larkpost.Message": full messages with the "additional" options,
// the original source as a raw CGI answer, and the per-message changes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/unit/handler_test_util.h"
#include "webapi/api_table.h"
#include "webapi/format/full_message.h"

namespace larkpost::test {
namespace {

namespace constant = ornic::larkpost::constant;
namespace format = ornic::larkpost::webapi::format;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class MessageTest : public HandlerTest {
 protected:
  void SetUp() override {
    HandlerTest::SetUp();
    for (int id : {21, 22}) {
      auto& message = fake::core().messages[id];
      message.id = id;
      message.body_preview = "Hi Bob";
      // Changed by each option of the normaliser, and quoting.
      message.html_body =
          "<p>Hi <a href=\"https://example.org/\">Bob</a></p>"
          "<img src=\"https://images.example.org/x.png\"><blockquote>old</blockquote>";
    }
  }
};

TEST_F(MessageTest, GetRendersEachMessageWithTheAskedOptions) {
  struct Case {
    const char* additional;
    constant::HTMLBodyFormat format;
    bool body_preview;
    bool block_external_image;
  } cases[] = {
      {"[]", constant::kHTMLBodyRead, false, false},
      {R"(["blockquote", "body_preview"])", constant::kHTMLBodyReadSplitQuote, true, false},
      {R"(["block_external_image", "unread_count"])", constant::kHTMLBodyRead, false, true},
  };
  for (const Case& c : cases) {
    Json::Value params = J(R"({"id": [22, 99, 21]})");
    params["additional"] = J(c.additional);
    Json::Value expected(Json::arrayValue);
    for (int id : {22, 21}) {
      expected.append(format::FullMessageToJson(fake::core().messages[id], c.format, c.body_preview,
                                                c.block_external_image));
    }
    EXPECT_EQ(Data(Run(MessageGet_v1, params))["message"], expected) << c.additional;
  }
  EXPECT_EQ(fake::CallsStartingWith("MessageControl::").back(),
            "MessageControl::GetFullMessages [22,99,21]");

  ExpectRefused(MessageGet_v1, 120, {R"({})", R"({"id": null})", R"({"id": [0]})"});
}

TEST_F(MessageTest, GetOriginalWritesTheSourceByteForByte) {
  using namespace std::string_literals;
  const std::string source = "From: ann@example.org\r\nSubject: x\r\n\r\nbody\0\xff\r\n"s;
  fake::core().originals[21] = source;
  Streamed streamed = RunStreaming(MessageGetOriginal_v1, J(R"({"id": 21})"));
  EXPECT_EQ(streamed.output, "Content-Type: text/plain\r\n\r\n" + source);
  EXPECT_FALSE(streamed.json_enabled);
  EXPECT_THAT(Logged("message"), IsEmpty());
}

TEST_F(MessageTest, GetOriginalAnswers404WhenItHasNothingToSend) {
  struct Case {
    const char* params;
    const char* logged;
    bool asks_core;
  } cases[] = {
      {R"({"id": 0})", "input parameter is not valid", false},
      {R"({"id": "21"})", "input parameter is not valid", false},
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
    EXPECT_EQ(streamed.output, "Status: 404 Not Found\r\n\r\n") << c.params;
    EXPECT_FALSE(streamed.json_enabled) << c.params;
    EXPECT_THAT(Logged("message"), ElementsAre(c.logged)) << c.params;
    EXPECT_EQ(fake::CallsStartingWith("MessageControl::OriginalContent").size(),
              c.asks_core ? 1u : 0u)
        << c.params;
  }
}

TEST_F(MessageTest, ChangesAnswerByTheCoresVerdict) {
  // The words "set message star" are the read change's too.
  ExpectChange(MessageSetStar_v1, R"({"id": [3, 4], "star": 2})",
               "MessageControl::SetStarByID [3,4] 2", "message",
               "set message star faild (id: [\n\t3,\n\t4\n]\n, star:2)");
  ExpectChange(MessageSetStar_v1, R"({"id": [3], "star": 0})", "MessageControl::SetStarByID [3] 0",
               "message", "set message star faild (id: [\n\t3\n]\n, star:0)");
  ExpectChange(MessageSetRead_v1, R"({"id": [3, 4], "read": true})",
               "MessageControl::SetReadByID [3,4] true", "message",
               "set message star faild (id: [\n\t3,\n\t4\n]\n, read:read)");
  ExpectChange(MessageSetRead_v1, R"({"id": [3], "read": false})",
               "MessageControl::SetReadByID [3] false", "message",
               "set message star faild (id: [\n\t3\n]\n, read:unread)");
  ExpectChange(MessageSetMailbox_v1, R"({"id": [3, 4], "mailbox_id": 6})",
               "MessageControl::SetMailbox [3,4] 6", "message",
               "set mailbox faild (id: [\n\t3,\n\t4\n]\n, mailbox_id:6)");

  ExpectRefused(MessageSetStar_v1, 120,
                {R"({"id": [3]})", R"({"id": [3], "star": -1})", R"({"id": [-4], "star": 1})"});
  ExpectRefused(MessageSetRead_v1, 120, {R"({"read": true})", R"({"id": [0], "read": true})"});
  ExpectRefused(MessageSetMailbox_v1, 120,
                {R"({"mailbox_id": 6})", R"({"id": [-1], "mailbox_id": 6})"});
}

}  // namespace
}  // namespace larkpost::test
