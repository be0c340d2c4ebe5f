// The core's small pure pieces: mailbox name encoding, address splitting,
// the records' computed members, filter records, validators.
#include <gtest/gtest.h>
#include <json/value.h>

#include <optional>
#include <string>

#include "appliance/mailcore/base/modified_utf7.h"
#include "platform/mailcore/apivalidator.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/record.h"
#include "platform/mailcore/util.h"

namespace ornic::larkpost {
namespace {

TEST(ModifiedUTF7Test, EncodesAndDecodesBothWays) {
  const struct {
    const char* utf8;
    const char* mutf7;
  } cases[] = {
      {"INBOX.Work-2024 (old)~", "INBOX.Work-2024 (old)~"},
      {"Work/\xC3\x89t\xC3\xA9", "Work/&AMk-t&AOk-"},
      {"~peter/mail/\xE5\x8F\xB0\xE5\x8C\x97/\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E",
       "~peter/mail/&U,BTFw-/&ZeVnLIqe-"},
      {"Tom & Jerry", "Tom &- Jerry"},
      {"&&", "&-&-"},
      {"\xF0\x9F\x98\x80", "&2D3eAA-"},  // outside the BMP: a surrogate pair
      {"a\tb", "a&AAk-b"},               // controls are not written as themselves
      {"", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(imap::EncodeModifiedUTF7(c.utf8), std::optional<std::string>(c.mutf7)) << c.utf8;
    EXPECT_EQ(imap::DecodeModifiedUTF7(c.mutf7), std::optional<std::string>(c.utf8)) << c.mutf7;
  }
}

TEST(ModifiedUTF7Test, RefusesWhatAnEncoderNeverWrites) {
  for (const char* bad : {
           "caf\xC3\xA9",  // raw UTF-8
           "a\tb",         // a raw control character
           "&AMk",         // run never closed
           "&AM-",         // more than padding left over
           "&AMl-",        // padding bits not zero
           "&AM!k-",       // outside the alphabet
           "&AGE-",        // printable ASCII ("a") encoded
           "&2D0-",        // high surrogate alone
           "&3gA-",        // low surrogate alone
       }) {
    EXPECT_EQ(imap::DecodeModifiedUTF7(bad), std::nullopt) << bad;
  }
  for (const char* bad : {"\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF"}) {
    EXPECT_EQ(imap::EncodeModifiedUTF7(bad), std::nullopt);
  }
}

TEST(MailboxRecordTest, ShowsThePathAsUTF8OrAsStoredWhenItIsNotModifiedUTF7) {
  record::Mailbox mailbox;
  EXPECT_FALSE(mailbox.IsValid());
  mailbox.id = 9;
  EXPECT_TRUE(mailbox.IsValid());
  mailbox.path = "Work/&AMk-t&AOk-";
  EXPECT_EQ(mailbox.UTF8MailboxPath(), "Work/\xC3\x89t\xC3\xA9");
  mailbox.path = "Work/\xC3\x89t\xC3\xA9";
  EXPECT_EQ(mailbox.UTF8MailboxPath(), "Work/\xC3\x89t\xC3\xA9");
  mailbox.path = "Broken &AMk";
  EXPECT_EQ(mailbox.UTF8MailboxPath(), "Broken &AMk");
}

TEST(MailAddressTest, SplitsNameAndAddress) {
  const struct {
    const char* text;
    const char* email;
    const char* name;
  } cases[] = {
      {"Ann Example <ann@example.org>", "ann@example.org", "Ann Example"},
      {"\"Example, Ann\" <ann@example.org>", "ann@example.org", "Example, Ann"},
      {"\"Ann \\\"the\\\" Ex\" <ann@example.org>", "ann@example.org", "Ann \"the\" Ex"},
      {"\"ann@example.org\" <real@example.net>", "real@example.net", "ann@example.org"},
      {"Doe, John <john@example.org>", "john@example.org", "Doe, John"},
      {"  Zo\xC3\xAB\t \xC3\x9Cn  <z@example.org>", "z@example.org", "Zo\xC3\xAB \xC3\x9Cn"},
      {"ann@example.org", "ann@example.org", ""},
      {" ann@example.org (Ann (the) Example)", "ann@example.org", "Ann (the) Example"},
      {"<ann@example.org>", "ann@example.org", ""},
      {"<ann@example.org> (Ann)", "ann@example.org", "Ann"},
      {"Ann <ann@example.org", "ann@example.org", "Ann"},
      {"ann@example.org, Bob <bob@example.org>", "ann@example.org", ""},
      {"MAILER-DAEMON", "", "MAILER-DAEMON"},
      {"undisclosed-recipients:;", "", "undisclosed-recipients:;"},
      {"", "", ""},
  };
  for (const auto& c : cases) {
    control::MailAddress address(c.text);
    EXPECT_EQ(address.GetEmail(), c.email) << c.text;
    EXPECT_EQ(address.GetName(), c.name) << c.text;
  }
}

TEST(ThreadRecordTest, StarAndUnreadCountOverAllMessagesDraftsIncluded) {
  record::Thread thread;
  EXPECT_EQ(thread.MaxStar(), 0);
  EXPECT_EQ(thread.UnreadMessageCount(), 0);
  record::Message message;
  message.star = 2;
  thread.messages.push_back(message);  // unread
  message.star = 5;
  message.read = true;
  thread.messages.push_back(message);
  message.star = 0;
  message.read = false;
  message.type = 1;  // a draft
  thread.messages.push_back(message);
  EXPECT_EQ(thread.MaxStar(), 5);
  EXPECT_EQ(thread.UnreadMessageCount(), 2);
}

TEST(ConditionSetTest, NamesEachKind) {
  const struct {
    constant::ConditionKey key;
    const char* name;
  } kinds[] = {
      {constant::kConditionMailbox, "mailbox"},
      {constant::kConditionFrom, "from"},
      {constant::kConditionTo, "to"},
      {constant::kConditionSubject, "subject"},
      {constant::kConditionBefore, "before"},
      {constant::kConditionAfter, "after"},
      {constant::kConditionLarger, "larger"},
      {constant::kConditionSmaller, "smaller"},
      {constant::kConditionUnread, "unread"},
      {constant::kConditionKeyword, "keyword"},
      {constant::kConditionModifiedAfter, "modified_after"},
      {constant::kConditionHasAttachment, "has_attachment"},
      {constant::kConditionStarred, "starred"},
      {constant::kConditionLabel, "label"},
  };
  record::ConditionSet set;
  for (const auto& kind : kinds) set.AddCondition(kind.key, kind.name + std::string("!"), true);
  set.AddCondition(constant::ConditionKey(99), "x", false);
  ASSERT_EQ(set.conditions.size(), std::size(kinds) + 1);
  for (size_t i = 0; i < std::size(kinds); ++i) {
    EXPECT_EQ(set.conditions[i].key, kinds[i].key);
    EXPECT_EQ(set.conditions[i].name, kinds[i].name);
    EXPECT_EQ(set.conditions[i].value, kinds[i].name + std::string("!"));
    EXPECT_TRUE(set.conditions[i].negate);
  }
  EXPECT_EQ(set.conditions.back().name, "");
}

TEST(ActionTest, IsValidWhenTheKindHasWhatItNeeds) {
  const struct {
    constant::ActionKind kind;
    const char* value;
    bool valid;
  } cases[] = {
      {constant::kActionNone, "", false},
      {constant::kActionNone, "x", false},
      {constant::ActionKind(10), "x", false},
      {constant::kActionArchive, "", true},
      {constant::kActionTrash, "ignored", true},
      {constant::kActionDelete, "", true},
      {constant::kActionSetRead, "true", true},
      {constant::kActionSetRead, "false", true},
      {constant::kActionSetRead, "TRUE", false},
      {constant::kActionSetStar, "", false},
      {constant::kActionSetStar, "1", false},
      {constant::kActionSetLabel, "$label3", true},
      {constant::kActionSetLabel, "", false},
      {constant::kActionRemoveLabel, "", false},
      {constant::kActionMoveTo, "Work/&AMk-t&AOk-", true},
      {constant::kActionMoveTo, "", false},
      {constant::kActionRedirect, "ann@example.org", true},
      {constant::kActionRedirect, "Ann <ann@mail.example.org>", true},
      {constant::kActionRedirect, "ann.o-k+tag@xn--bcher-kva.example", true},
      {constant::kActionRedirect, "", false},
      {constant::kActionRedirect, "ann", false},
      {constant::kActionRedirect, "ann@", false},
      {constant::kActionRedirect, "@example.org", false},
      {constant::kActionRedirect, "ann@example..org", false},
      {constant::kActionRedirect, ".ann@example.org", false},
      {constant::kActionRedirect, "an,n@example.org", false},
      {constant::kActionRedirect, "ann@exa_mple.org", false},
  };
  for (const auto& c : cases) {
    record::Action action;
    action.kind = c.kind;
    action.value = c.value;
    EXPECT_EQ(action.IsValid(), c.valid) << c.kind << " " << c.value;
  }
  record::ActionSet set;
  record::Action action;
  action.kind = constant::kActionSetRead;
  action.value = "true";
  set.AddAction(action);
  set.AddAction(action);
  EXPECT_EQ(set.actions.size(), 2u);
}

TEST(ValidatorTest, Numbers) {
  EXPECT_FALSE(apivalidator::IntGreaterZero(0));
  EXPECT_TRUE(apivalidator::IntGreaterZero(1));
  EXPECT_FALSE(apivalidator::IntGreaterEqualZero(-1));
  EXPECT_TRUE(apivalidator::IntGreaterEqualZero(0));
  EXPECT_FALSE(apivalidator::IntGreaterEqualNegativeOne(-2));
  EXPECT_TRUE(apivalidator::IntGreaterEqualNegativeOne(-1));
  EXPECT_FALSE(apivalidator::LLongGreaterZero(0));
  EXPECT_TRUE(apivalidator::LLongGreaterZero(int64_t{1} << 40));
}

TEST(ValidatorTest, IdArrays) {
  Json::Value fraction(Json::arrayValue);
  fraction.append(3.0);
  Json::Value big(Json::arrayValue);
  big.append(Json::Value(Json::UInt64{2147483648u}));
  Json::Value largest(Json::arrayValue);
  largest.append(Json::Value(Json::UInt{2147483647u}));
  largest.append(1);
  Json::Value mixed(Json::arrayValue);
  mixed.append(1);
  mixed.append("2");
  Json::Value zero(Json::arrayValue);
  zero.append(4);
  zero.append(0);
  Json::Value object(Json::objectValue);
  object["a"] = 1;
  EXPECT_TRUE(apivalidator::JsonIntArrayGreaterZero(largest));
  for (const Json::Value& bad :
       {Json::Value(Json::arrayValue), fraction, big, mixed, zero, object, Json::Value(5)}) {
    EXPECT_FALSE(apivalidator::JsonIntArrayGreaterZero(bad)) << bad.toStyledString();
  }
}

TEST(ValidatorTest, Strings) {
  EXPECT_FALSE(apivalidator::StringNotEmpty(""));
  EXPECT_TRUE(apivalidator::StringNotEmpty(" "));
  for (const char* color : {"#fff", "#A0b1C2", "#000000"}) {
    EXPECT_TRUE(apivalidator::StringIsColor(color)) << color;
  }
  for (const char* color :
       {"", "#", "fff", "#ffff", "#fffffff", "#ggg", "#12345g", " #fff", "red", "#ff f"}) {
    EXPECT_FALSE(apivalidator::StringIsColor(color)) << color;
  }
}

TEST(TrimTest, TakesBlanksOffBothEnds) {
  for (const auto& [text, want] :
       {std::pair{"  a b  ", "a b"}, std::pair{"\t\r\n\f\va\v", "a"}, std::pair{"   ", ""},
        std::pair{"", ""}, std::pair{"x", "x"}, std::pair{"\xC2\xA0x", "\xC2\xA0x"}}) {
    EXPECT_EQ(util::Trim(text), want) << text;
  }
}

}  // namespace
}  // namespace ornic::larkpost
