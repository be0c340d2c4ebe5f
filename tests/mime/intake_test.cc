// Mail as senders and mail programs really write it, imported with
// larkpostctl and read back through the core: mbox separators without a
// date, addresses that break the syntax, raw 8-bit headers in the charset
// of the text. The address reader's cases are a table of their own.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <map>
#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/mime/header.h"
#include "appliance/system/appliance.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/controller.h"
#include "tests/system/temp_root.h"

namespace ornic::larkpost {
namespace {

const std::string kIntake = LARKPOST_MAIL_FIXTURES "/intake/";

class IntakeTest : public ::testing::Test {
 protected:
  ~IntakeTest() override { store::CloseConnections(); }

  struct Result {
    int status = -1;
    std::string out, err;
  };

  Result Import(const std::string& sources) {
    const std::string command = "'" LARKPOSTCTL_PATH "' --root " + root_.path() + " import ann " +
                                sources + " </dev/null 2>" + root_.path() + "/stderr";
    FILE* pipe = popen(command.c_str(), "r");
    Result result;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) result.out.append(buffer, n);
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.err = root_.Read("stderr");
    return result;
  }

  std::map<std::string, record::FullMessage> BySubject() {
    std::vector<int> ids;
    for (int id = 1; id <= 50; ++id) ids.push_back(id);
    std::map<std::string, record::FullMessage> by_subject;
    for (record::FullMessage& message : control::MessageControl(controller_).GetFullMessages(ids)) {
      by_subject[message.subject] = std::move(message);
    }
    return by_subject;
  }

  ::larkpost::testing::TempRoot root_;
  uint32_t uid_ = ::larkpost::appliance::UserStore::Add("ann", "pw", false, "example.org");
  control::Controller controller_{uid_};
};

TEST_F(IntakeTest, MboxSeparatorsWithoutADateStartMessages) {
  const Result imported = Import(kIntake + "from_lines.mbox");
  ASSERT_EQ(imported.status, 0) << imported.err;
  EXPECT_EQ(imported.out, "5\n");
  std::map<std::string, record::FullMessage> messages = BySubject();
  std::vector<std::string> subjects;
  for (const auto& [subject, message] : messages) subjects.push_back(subject);
  EXPECT_EQ(subjects,
            (std::vector<std::string>{
                "Five: the last", "Four: its length told", "One: a dated separator",
                "Three: a sender and nothing after it", "Two: a separator without a date"}));
  EXPECT_EQ(messages["One: a dated separator"].plain_body,
            "Quoted by the writer:\nFrom the archive\n\n"
            "From here on, a sender forgot to quote: no header follows.\n");
  EXPECT_EQ(messages["Two: a separator without a date"].from, "Bob <bob@example.net>");
  EXPECT_EQ(messages["Four: its length told"].plain_body,
            "Top.\n\nFrom the desk of Dave\nNote: still the body.\n");
}

TEST_F(IntakeTest, RawHeadersInTheCharsetOfTheText) {
  const Result imported =
      Import(kIntake + "gb2312_raw_header.eml " + kIntake + "big5_raw_header.eml");
  ASSERT_EQ(imported.status, 0) << imported.err;
  std::map<std::string, record::FullMessage> messages = BySubject();
  ASSERT_EQ(messages.count("会议通知"), 1u);
  EXPECT_EQ(messages["会议通知"].from, "张伟 <wei@example.cn>");
  EXPECT_EQ(messages["会议通知"].to, std::vector<std::string>{"Big Bug <bb@bug.com>"});
  ASSERT_EQ(messages.count("測試郵件"), 1u);
  EXPECT_EQ(messages["測試郵件"].from, "陳大文 <chan@example.tw>");
}

TEST_F(IntakeTest, AddressesAsSendersWriteThem) {
  const Result imported = Import(kIntake + "addresses.eml");
  ASSERT_EQ(imported.status, 0) << imported.err;
  const record::FullMessage message = BySubject()["Addresses that senders write"];
  EXPECT_EQ(message.from, "tim@a.example, concierge@a.example");
  EXPECT_EQ(message.to,
            (std::vector<std::string>{"Big Bug <bb@bug.com>", "Pete <pete@silly.test>"}));
  EXPECT_EQ(message.cc, std::vector<std::string>{"pete@silly.test"});
}

TEST(AddressListTest, ReadsWhatCarefulReadersRead) {
  using Strings = std::vector<std::string>;
  const std::pair<std::string, Strings> rows[] = {
      // RFC 5322 and its obsolete forms.
      {"\"Joe Q. Public\" <john.q.public@example.com>",
       {"Joe Q. Public <john.q.public@example.com>"}},
      {"Mary Smith <mary@x.test>, jdoe@example.org, Who? <one@y.test>",
       {"Mary Smith <mary@x.test>", "jdoe@example.org", "Who? <one@y.test>"}},
      {"A Group:Ed Jones <c@a.test>,joe@where.test,John <jdoe@one.test>;",
       {"Ed Jones <c@a.test>", "joe@where.test", "John <jdoe@one.test>"}},
      {"Pete(A nice \\) chap) <pete(his account)@silly.test(his host)>",
       {"Pete <pete@silly.test>"}},
      {"Joe Q. Public <john.q.public@example.com>", {"Joe Q. Public <john.q.public@example.com>"}},
      {"<@machine.tld:mary@example.net>, , jdoe@test   . example",
       {"mary@example.net", "jdoe@test.example"}},
      {"\"john doe\"@example.com", {"\"john doe\"@example.com"}},
      {"user@[192.0.2.1]", {"user@[192.0.2.1]"}},
      {"pete @ silly.test", {"pete@silly.test"}},
      {"=?utf-8?q?J=C3=B6rg?= <j@x.test>", {"Jörg <j@x.test>"}},
      // What senders write that is none of it.
      {"tim@a.example concierge@a.example", {"tim@a.example", "concierge@a.example"}},
      {"pete(his account)@silly.test", {"pete@silly.test"}},
      {"Big Bug bb@bug.com", {"Big Bug <bb@bug.com>"}},
      {"bb@bug.com Big Bug", {"Big Bug <bb@bug.com>"}},
      {"ann@example.org (Ann Example)", {"Ann Example <ann@example.org>"}},
      {"Ann <ann@example.org", {"Ann <ann@example.org>"}},
      {"root", {"root"}},
  };
  for (const auto& [raw, list] : rows) EXPECT_EQ(mime::ParseAddressList(raw), list) << raw;
}

}  // namespace
}  // namespace ornic::larkpost
