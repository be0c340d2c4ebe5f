// The core's small pure pieces: mailbox name encoding, address splitting,
// the mailbox path shown, filter actions, validators, JSON and text
// helpers.
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>

#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "appliance/mailcore/base/modified_utf7.h"
#include "platform/mailcore/apivalidator.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/error.h"
#include "platform/mailcore/record.h"
#include "platform/mailcore/util.h"

namespace ornic::larkpost {
namespace {

Json::Value Parse(const char* text) {
  Json::Value value;
  std::istringstream(text) >> value;
  return value;
}

template <typename Body>
int32_t CodeOf(Body&& body) {
  try {
    body();
  } catch (const Error& e) {
    return e.ErrorCode();
  }
  return 0;
}

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
           "&AMk-&AOk-",   // two runs side by side ("&AMkA6Q-" is the one spelling)
       }) {
    EXPECT_EQ(imap::DecodeModifiedUTF7(bad), std::nullopt) << bad;
  }
  for (const char* bad : {"\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF"}) {
    EXPECT_EQ(imap::EncodeModifiedUTF7(bad), std::nullopt);
  }
}

TEST(MailboxRecordTest, ShowsThePathAsUTF8OrAsStoredWhenItIsNotModifiedUTF7) {
  for (const auto& [path, shown] : {std::pair{"Work/&AMk-t&AOk-", "Work/\xC3\x89t\xC3\xA9"},
                                    std::pair{"Broken &AMk", "Broken &AMk"}}) {
    record::Mailbox mailbox;
    mailbox.path = path;
    EXPECT_EQ(mailbox.UTF8MailboxPath(), shown) << path;
  }
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
  };
  for (const auto& c : cases) {
    control::MailAddress address(c.text);
    EXPECT_EQ(address.GetEmail(), c.email) << c.text;
    EXPECT_EQ(address.GetName(), c.name) << c.text;
  }
}

TEST(ActionTest, IsValidWhenTheKindHasWhatItNeeds) {
  const struct {
    constant::ActionKind kind;
    const char* value;
    bool valid;
  } cases[] = {
      {constant::kActionNone, "", false},
      {constant::ActionKind(10), "x", false},
      {constant::kActionArchive, "", true},
      {constant::kActionTrash, "ignored", true},
      {constant::kActionDelete, "", true},
      {constant::kActionSetRead, "true", true},
      {constant::kActionSetRead, "TRUE", false},
      {constant::kActionSetStar, "", false},
      {constant::kActionSetStar, "1", false},
      {constant::kActionSetLabel, "$label3", true},
      {constant::kActionRemoveLabel, "", false},
      {constant::kActionMoveTo, "Work/&AMk-t&AOk-", true},
      {constant::kActionMoveTo, "", false},
      {constant::kActionRedirect, "Ann <ann@mail.example.org>", true},
      {constant::kActionRedirect, "ann.o-k+tag@xn--bcher-kva.example", true},
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
}

TEST(FilterTextTest, SetsRoundTripExactlyAndOddTextsAreRefused) {
  record::ConditionSet conditions;
  conditions.AddCondition(constant::kConditionFrom, "Zo\xc3\xab \"Q\" <z@example.org>\\", true);
  conditions.AddCondition(constant::kConditionLarger, "1000", false);
  conditions.match_any = true;
  record::ActionSet actions;
  for (auto [kind, value] : {std::pair{constant::kActionMoveTo, "Work/&AMk-t&AOk-"},
                             {constant::kActionSetRead, "true"},
                             {constant::kActionDelete, ""}}) {
    record::Action action;
    action.kind = kind;
    action.value = value;
    actions.AddAction(action);
  }
  const std::string condition_text = conditions.GetSerializedString();
  const std::string action_text = actions.GetSerializedString();
  EXPECT_EQ(condition_text,
            "{\"condition\":[[2,\"Zo\xc3\xab \\\"Q\\\" <z@example.org>\\\\\",true],"
            "[7,\"1000\",false]],\"match_any\":true}");
  EXPECT_EQ(action_text, R"({"action":[[5,"Work/&AMk-t&AOk-"],[2,"true"],[8,""]]})");

  record::ConditionSet conditions_read;
  record::ActionSet actions_read;
  ASSERT_TRUE(record::ConditionSet::ParseSerializedString(condition_text, &conditions_read));
  ASSERT_TRUE(record::ActionSet::ParseSerializedString(action_text, &actions_read));
  EXPECT_EQ(conditions_read.GetSerializedString(), condition_text);
  EXPECT_EQ(actions_read.GetSerializedString(), action_text);
  EXPECT_EQ(conditions_read.conditions[0].name, "from");
  EXPECT_TRUE(conditions_read.match_any);
  EXPECT_EQ(actions_read.actions[1].name, "set_read");

  for (const char* text :
       {"", "[]", R"({"condition":[]})", R"({"condition":[[15,"x",false]],"match_any":false})",
        R"({"condition":[[2,"x"]],"match_any":false})",
        R"({"condition":[],"match_any":false,"more":1})"}) {
    EXPECT_FALSE(record::ConditionSet::ParseSerializedString(text, &conditions_read)) << text;
  }
  for (const char* text : {R"({"action":[[0,""]]})", R"({"action":[[10,""]]})",
                           R"({"action":[[1,1]]})", R"({"action":{}})"}) {
    EXPECT_FALSE(record::ActionSet::ParseSerializedString(text, &actions_read)) << text;
  }
  EXPECT_EQ(actions_read.GetSerializedString(), action_text);  // left as it was
}

TEST(ValidatorTest, NumbersAndStrings) {
  EXPECT_TRUE(apivalidator::IntGreaterZero(1) && !apivalidator::IntGreaterZero(0));
  EXPECT_TRUE(apivalidator::IntGreaterEqualZero(0) && !apivalidator::IntGreaterEqualZero(-1));
  EXPECT_TRUE(apivalidator::IntGreaterEqualNegativeOne(-1) &&
              !apivalidator::IntGreaterEqualNegativeOne(-2));
  EXPECT_TRUE(apivalidator::LLongGreaterZero(int64_t{1} << 40) &&
              !apivalidator::LLongGreaterZero(0));
  EXPECT_TRUE(apivalidator::StringNotEmpty(" ") && !apivalidator::StringNotEmpty(""));
  for (const char* color : {"#fff", "#A0b1C2"}) EXPECT_TRUE(apivalidator::StringIsColor(color));
  for (const char* color : {"", "#", "fff", "#ffff", "#fffffff", "#ggg", "#12345g", " #fff"}) {
    EXPECT_FALSE(apivalidator::StringIsColor(color)) << color;
  }
}

TEST(ValidatorTest, IdArraysHoldPositiveInt32sOnly) {
  EXPECT_TRUE(apivalidator::JsonIntArrayGreaterZero(Parse("[2147483647, 1]")));
  EXPECT_TRUE(apivalidator::JsonIntArrayGreaterZero(Parse("[]"))) << "an operation on no ids";
  // 3.0: jsoncpp would call it an integer.
  for (const char* bad :
       {"[3.0]", "[2147483648]", "[1, \"2\"]", "[4, 0]", "[-1]", "{\"a\": 1}", "5"}) {
    EXPECT_FALSE(apivalidator::JsonIntArrayGreaterZero(Parse(bad))) << bad;
  }
}

TEST(JsonArrayTest, AListWithOneElementOfAnotherTypeIsRefusedWhole) {
  EXPECT_EQ(util::JsonArrayToVector<int>(Parse("[6, 2147483647, -2147483648, 0]")),
            (std::vector<int>{6, 2147483647, -2147483648, 0}));
  EXPECT_EQ(util::JsonArrayToVector<int>(Parse("[]")), std::vector<int>{});
  EXPECT_EQ(util::JsonArrayToVector<std::string>(Parse(R"(["a", "", "b"])")),
            (std::vector<std::string>{"a", "", "b"}));
  // 6.0: jsoncpp would call it an integer. 4294967302 is 6 in 32 bits.
  for (const char* bad : {R"([6, "x"])", "[6, 6.5]", "[6, 6.0]", "[6, true]", "[6, null]",
                          R"([6, "6"])", "[6, [5]]", R"([6, {"a": 6}])", "[6, 2147483648]",
                          "[6, 4294967302]", "[6, -2147483649]", R"({"a": 6})", "6", "null"}) {
    EXPECT_EQ(CodeOf([&] { util::JsonArrayToVector<int>(Parse(bad)); }), 120) << bad;
  }
  for (const char* bad : {R"(["a", 1])", R"(["a", null])", R"(["a", ["b"]])", R"("a")"}) {
    EXPECT_EQ(CodeOf([&] { util::JsonArrayToVector<std::string>(Parse(bad)); }), 120) << bad;
  }
  EXPECT_EQ(util::VectorToJsonArray<int>({}), Parse("[]"));
  EXPECT_EQ(util::VectorToJsonArray<int>({3, -1}), Parse("[3, -1]"));
  EXPECT_EQ(util::VectorToJsonArray<std::string>({"x", ""}), Parse(R"(["x", ""])"));
}

TEST(TextTest, TrimAndTheTextAfterTheLastSeparator) {
  for (const auto& [text, want] :
       {std::pair{"  a b  ", "a b"}, std::pair{"\t\r\n\f\va\v", "a"}, std::pair{"   ", ""},
        std::pair{"", ""}, std::pair{"x", "x"}, std::pair{"\xC2\xA0x", "\xC2\xA0x"}}) {
    EXPECT_EQ(util::Trim(text), want) << text;
  }
  for (const auto& [text, want] :
       {std::pair{"/usr/bin/webapi-worker", "webapi-worker"}, std::pair{"plain", "plain"},
        std::pair{"ends/", ""}, std::pair{"", ""}}) {
    EXPECT_EQ(util::GetSubstrAfterLast(text, '/'), want) << text;
  }
}

}  // namespace
}  // namespace ornic::larkpost
