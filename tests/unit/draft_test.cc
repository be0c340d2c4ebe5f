// "ZEVO.Larkpost.Draft": the change record that the content parameters
// make, the address check, what each method calls and answers, and the
// address book after sending.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/handler_test_util.h"
#include "webapi/api_table.h"
#include "webapi/format/full_message.h"
#include "webapi/format/mail_record.h"

namespace larkpost::test {
namespace {

namespace record = ornic::larkpost::record;
namespace format = ornic::larkpost::webapi::format;
using ::testing::IsEmpty;
using Calls = std::vector<std::string>;

constexpr char kSession[] = "Controller 1026 sid-alice";
constexpr char kNotify[] = "ZEVOLarkpostNotifyMailboxDelayUpdate 1026 30";
constexpr char kOnlyFrom[] =
    "from='ann@example.org' to=- cc=- bcc=- subject=- body=- attachment=- temp_attachment=- "
    "refer_to=- draft_type=-";

class DraftTest : public HandlerTest {
 protected:
  // The answer to `params`, with the calls made for it in `calls_`.
  Json::Value Answer(ZEVO::APIHandler handler, const std::string& params) {
    fake::core().calls.clear();
    const Json::Value answer = Run(handler, J(params));
    calls_ = fake::core().calls;
    return answer;
  }

  // A stored message with attachments 1 (listed), 2 (inline), 3 (listed).
  record::FullMessage& Store(int id, int type) {
    record::FullMessage& message = fake::core().messages[id];
    message.id = id;
    message.type = type;
    message.attachments.clear();
    for (int i : {1, 2, 3}) {
      message.attachments.push_back({i, 10 * i, "image/png", "a" + std::to_string(i) + ".png",
                                     "cid-" + std::to_string(i), i == 2, ""});
    }
    return message;
  }

  Calls calls_;
};

TEST_F(DraftTest, ContentParametersSetExactlyTheFieldsGiven) {
  const std::string nothing =
      "MessageControl::ModifyDraft 5 from=- to=- cc=- bcc=- subject=- "
      "body=- attachment=- temp_attachment=- refer_to=- draft_type=-";
  struct Case {
    ZEVO::APIHandler handler;
    const char* params;
    std::string change;  // the call after opening the session
  } cases[] = {
      {DraftCreate_v1,
       R"({"from": "Ann <ann@example.org>", "to": ["bob@example.org", "Cy <cy@example.org>"],
           "cc": [], "subject": "Hi", "body": "<p>x</p>", "attachment": [3, 4],
           "temp_attachment": [9], "refer_to": 21, "draft_type": 1})",
       "MessageControl::CreateDraft from='Ann <ann@example.org>' "
       "to=['bob@example.org','Cy <cy@example.org>'] cc=[] bcc=- subject='Hi' body='<p>x</p>' "
       "attachment=[3,4] temp_attachment=[9] refer_to=21 draft_type=1"},
      // An empty text is a value, null is none.
      {DraftCreate_v1, R"({"from": "ann@example.org", "subject": "", "to": null})",
       "MessageControl::CreateDraft from='ann@example.org' to=- cc=- bcc=- subject='' body=- "
       "attachment=- temp_attachment=- refer_to=- draft_type=-"},
      // An existing draft keeps the message it refers to.
      {DraftSet_v1, R"({"id": 5, "to": [], "bcc": ["d@example.org"], "refer_to": 21,
                       "draft_type": 3})",
       "MessageControl::ModifyDraft 5 from=- to=[] cc=- bcc=['d@example.org'] subject=- body=- "
       "attachment=- temp_attachment=- refer_to=- draft_type=3"},
      {DraftSet_v1, R"({"id": 5})", nothing},
      // Unchecked parameters of the wrong type change nothing.
      {DraftSet_v1, R"({"id": 5, "subject": 7, "body": ["x"], "attachment": "3",
                       "temp_attachment": {}, "draft_type": "1", "refer_to": 2})",
       nothing},
      {DraftSend_v1, R"({"from": "ann@example.org", "refer_to": 8})",
       "MessageControl::CreateDraft from='ann@example.org' to=- cc=- bcc=- subject=- body=- "
       "attachment=- temp_attachment=- refer_to=8 draft_type=-"},
  };
  for (const Case& c : cases) {
    EXPECT_TRUE(Answer(c.handler, c.params)["success"].asBool()) << c.params;
    ASSERT_GE(calls_.size(), 2u);
    EXPECT_EQ(calls_[1], c.change);
  }
}

TEST_F(DraftTest, EachMethodCallsAndAnswersItsOwnWay) {
  Store(100, 1);
  const record::FullMessage& draft = Store(5, 1);
  fake::core().messages[200].id = 200;  // the sent copy, without recipients
  const std::string create = std::string("MessageControl::CreateDraft ") + kOnlyFrom;
  Json::Value listed(Json::arrayValue);  // 1 and 3, with content ids: drafts' own
  for (int i : {0, 2}) listed.append(format::AttachmentToJson(draft.attachments[i], true));

  Json::Value created(Json::objectValue);
  created["id"] = 100;
  created["attachment"] = listed;
  EXPECT_EQ(Data(Answer(DraftCreate_v1, R"({"from": "ann@example.org"})")), created);
  EXPECT_EQ(calls_, (Calls{kSession, create, kNotify, "MessageControl::GetMessage 100"}));

  Json::Value changed(Json::objectValue);
  changed["attachment"] = listed;
  EXPECT_EQ(Data(Answer(DraftSet_v1, R"({"id": 5})")), changed);
  EXPECT_EQ(calls_.size(), 4u);
  EXPECT_EQ(calls_[2], kNotify);
  EXPECT_EQ(calls_[3], "MessageControl::GetMessage 5");

  // A stored draft goes as stored: the request's content is not even read.
  const Json::Value sent = J(R"({"success": true, "data": {"id": 200}})");
  EXPECT_EQ(Answer(DraftSend_v1, R"({"id": 5, "from": "not an address", "subject": "x"})"), sent);
  EXPECT_EQ(calls_, (Calls{kSession, "MessageControl::Send 5", "MessageControl::GetFullMessage 200",
                           "addressbook::Controller 1026", kNotify}));
  EXPECT_EQ(Answer(DraftSend_v1, R"({"from": "ann@example.org"})"), sent);
  EXPECT_EQ(calls_,
            (Calls{kSession, create, "MessageControl::Send 100",
                   "MessageControl::GetFullMessage 200", "addressbook::Controller 1026", kNotify}));
  // An id of the wrong type still names a draft (none), never a new message.
  Answer(DraftSend_v1, R"({"id": "5", "from": "ann@example.org"})");
  EXPECT_EQ(calls_[1], "MessageControl::Send 0");

  // Deleting tells no one; an empty list is the core's to answer.
  EXPECT_EQ(Answer(DraftDelete_v1, R"({"id": [3, 4]})"), J(R"({"success": true})"));
  EXPECT_EQ(calls_, (Calls{kSession, "MessageControl::DeleteDraft [3,4]"}));
  EXPECT_EQ(Answer(DraftDelete_v1, R"({"id": []})"), J(R"({"success": true})"));
  EXPECT_EQ(calls_, (Calls{kSession, "MessageControl::DeleteDraft []"}));
  EXPECT_THAT(fake::system_log().lines, IsEmpty());
}

TEST_F(DraftTest, AttachmentListsLeaveInlinePartsOut) {
  // A message that is not a draft shows no content ids.
  const record::FullMessage& message = Store(5, 0);
  Json::Value expected(Json::arrayValue);
  for (int i : {0, 2}) expected.append(format::AttachmentToJson(message.attachments[i], false));
  EXPECT_EQ(Data(Answer(DraftSet_v1, R"({"id": 5})"))["attachment"], expected);
  // One that cannot be read back lists nothing.
  EXPECT_EQ(AsSent(Data(Answer(DraftCreate_v1, R"({"from": "ann@example.org"})"))),
            J(R"({"id": 100, "attachment": []})"));
}

TEST_F(DraftTest, GetRendersTheFoundDraftsForEditingInTheCoresOrder) {
  for (int id : {7, 5}) {
    Store(id, 1).body_preview = "Hi Bob";
    // Rendered otherwise for reading, so a wrong format shows.
    fake::core().messages[id].html_body = "<p>Hi <a href=\"https://example.org/\">Bob</a></p>";
  }
  for (bool body_preview : {false, true}) {
    Json::Value params = J(R"({"id": [7, 99, 5]})");
    if (body_preview) params["additional"] = J(R"(["body_preview"])");
    Json::Value expected(Json::objectValue);
    expected["draft"] = Json::arrayValue;
    for (int id : {7, 5}) {
      expected["draft"].append(format::FullMessageToJson(fake::core().messages[id],
                                                         ornic::larkpost::constant::kHTMLBodyEdit,
                                                         body_preview, false));
    }
    EXPECT_EQ(Data(Run(DraftGet_v1, params)), expected) << body_preview;
  }
  EXPECT_EQ(fake::core().calls.back(), "MessageControl::GetFullMessages [7,99,5]");
}

TEST_F(DraftTest, AddressesAreWholeBareOrNamedAddresses) {
  const std::string a63(63, 'a'), a64(64, 'a');
  const std::vector<std::string> good = {"ann@example.org",
                                         "Ann Example <ann@example.org>",
                                         "<ann@example.org>",
                                         "\"Example, Ann\" <ann@example.org>",
                                         "Ann<ann@example.org>",
                                         "Zo\u00eb <zoe@example.org>",
                                         "a.b+c!#$%&'*/=?^_`{|}~-@sub.example-1.org",
                                         "ann@localhost",
                                         "ann@" + a63 + ".org"};
  const std::vector<std::string> bad = {"ann@" + a64 + ".org",
                                        " ann@example.org",
                                        "ann@example.org ",
                                        "Ann ann@example.org",
                                        "Ann <ann@example.org> ",
                                        "Ann <ann@example.org",
                                        "ann@-example.org",
                                        "ann@example-.org",
                                        "ann@example..org",
                                        "ann@exam_ple.org",
                                        "ann@",
                                        "@example.org",
                                        "ann",
                                        "",
                                        "Ann\xff <ann@example.org>"};  // not UTF-8
  for (const auto& [addresses, code] : {std::pair{good, 0}, std::pair{bad, 120}}) {
    for (const std::string& address : addresses) {
      Json::Value as_sender(Json::objectValue);
      as_sender["from"] = address;
      EXPECT_EQ(ErrorCode(Run(DraftCreate_v1, as_sender)), code) << address;
      Json::Value as_recipient = J(R"({"from": "ann@example.org", "cc": ["bob@example.org"]})");
      as_recipient["cc"].append(address);
      EXPECT_EQ(ErrorCode(Run(DraftCreate_v1, as_recipient)), code) << address;
    }
  }
}

TEST_F(DraftTest, BadParametersReachNothing) {
  ExpectRefused(DraftCreate_v1, 120,
                {R"({})", R"({"from": null, "to": ["bob@example.org"]})", R"({"from": 5})",
                 R"({"from": "ann@example.org", "to": ["bob"]})",
                 R"({"from": "ann@example.org", "to": "bob@example.org"})",
                 R"({"from": "ann@example.org", "cc": ["bob@example.org", 5]})",
                 R"({"from": "ann@example.org", "bcc": ["bob@example.org", null]})"});
  ExpectRefused(DraftSet_v1, 120,
                {R"({"id": 5, "from": ""})", R"({"id": 5, "to": [["bob@example.org"]]})",
                 R"({"id": 5, "cc": ["bob"]})", R"({"id": 5, "bcc": {"a": "bob@example.org"}})"});
  // Without a draft to send, the content must make one.
  ExpectRefused(DraftSend_v1, 120,
                {R"({})", R"({"to": ["bob@example.org"]})",
                 R"({"from": "ann@example.org", "bcc": ["bob"]})"});
  ExpectRefused(DraftDelete_v1, 120,
                {R"({})", R"({"id": null})", R"({"id": [0]})", R"({"id": [-1]})",
                 R"({"id": [3, "4"]})", R"({"id": 3})"});
}

TEST_F(DraftTest, CoreFailuresBecomeTheAnswerAndStopTheRest) {
  Store(200, 0).to = {"bob@example.org"};
  struct Case {
    ZEVO::APIHandler handler;
    const char* params;
    const char* failing;
    int32_t failure;  // as fake::Core::failures takes it
    int code;
    size_t calls;  // up to the failing one, which is the last
  } cases[] = {
      {DraftSet_v1, R"({"id": 5})", "MessageControl::ModifyDraft", 0, 117, 2},
      {DraftDelete_v1, R"({"id": [5]})", "MessageControl::DeleteDraft", 0, 117, 2},
      {DraftCreate_v1, R"({"from": "ann@example.org"})", "MessageControl::CreateDraft", 506, 506,
       2},
      {DraftSend_v1, R"({"from": "ann@example.org"})", "MessageControl::CreateDraft", 505, 505, 2},
      {DraftSend_v1, R"({"from": "ann@example.org"})", "MessageControl::Send", 511, 511, 3},
      {DraftSend_v1, R"({"id": 5})", "MessageControl::Send", 507, 507, 2},
      {DraftSend_v1, R"({"id": 5})", "addressbook::Controller", 501, 501, 4},
      {DraftSend_v1, R"({"id": 5})", "ContactControl::CreateFromLarkpost", 502, 502, 5},
      {DraftGet_v1, R"({"id": [5]})", "MessageControl::GetFullMessages", 502, 502, 2},
      {DraftSet_v1, R"({"id": 5})", "MessageControl::ModifyDraft", 505, 505, 2},
  };
  for (const Case& c : cases) {
    fake::core().failures = {{c.failing, c.failure}};
    EXPECT_EQ(Answer(c.handler, c.params), ErrorAnswer(c.code)) << c.failing;
    EXPECT_EQ(calls_.size(), c.calls) << c.failing;
    EXPECT_EQ(calls_.back().rfind(c.failing, 0), 0u) << c.failing;
  }
}

TEST_F(DraftTest, SendingPutsEveryRecipientIntoTheAddressBook) {
  record::FullMessage& sent = Store(200, 0);
  sent.to = {"Ann Example <ann@example.org>", "bob@example.org"};
  sent.cc = {"\"Example, Cy\" <cy@example.org>"};
  sent.bcc = {"dee@example.org", "BOB@example.org"};
  EXPECT_TRUE(Answer(DraftSend_v1, R"({"id": 5})")["success"].asBool());
  EXPECT_EQ(fake::CallsStartingWith("ContactControl::"),
            (Calls{"ContactControl::CreateFromLarkpost 'Ann Example' 'ann@example.org'",
                   "ContactControl::CreateFromLarkpost '' 'bob@example.org'",
                   "ContactControl::CreateFromLarkpost 'Example, Cy' 'cy@example.org'",
                   "ContactControl::CreateFromLarkpost '' 'dee@example.org'",
                   "ContactControl::CreateFromLarkpost '' 'BOB@example.org'"}));
  EXPECT_EQ(calls_.back(), kNotify);

  // No sent copy to read: the address book is not opened.
  fake::core().messages.erase(200);
  EXPECT_TRUE(Answer(DraftSend_v1, R"({"id": 5})")["success"].asBool());
  EXPECT_EQ(calls_, (Calls{kSession, "MessageControl::Send 5", "MessageControl::GetFullMessage 200",
                           kNotify}));
}

}  // namespace
}  // namespace larkpost::test
