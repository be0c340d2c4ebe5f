#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "appliance/mailcore/store_text.h"

namespace ornic::larkpost::store {
namespace {

TEST(TextTest, FoldCaseCoversCommonScriptsAndPassesTheRest) {
  EXPECT_EQ(FoldCase("ÉTÉ Über ŁÓDŹ ΣΟΦΙΑ ПРИВЕТ Ёж ĲŸ"), "été über łódź σοφια привет ёж ĳÿ");
  EXPECT_EQ(FoldCase("ı İ 日本 \xFF"), "ı İ 日本 \xFF");  // no folding to guess, no damage
}

TEST(TextTest, SubjectKeyDropsReplyAndForwardPrefixes) {
  struct Case {
    const char* subject;
    const char* key;
  } cases[] = {
      {"Lunch", "lunch"},
      {"Re: Lunch", "lunch"},
      {"RE: Fwd: re:  Lunch  plans ", "lunch plans"},
      {"AW: SV: Fw: Lunch", "lunch"},
      {"Re[2]: Re (3): Lunch", "re (3): lunch"},  // "(3)" needs no blank before it
      {"Re(3): Lunch", "lunch"},
      {"Re : Lunch", "lunch"},
      {"Regarding: Lunch", "regarding: lunch"},
      {"Re:", ""},
      {"  ", ""},
      {"Fwd: ÉTÉ", "été"},
  };
  for (const Case& c : cases) EXPECT_EQ(SubjectKey(c.subject), c.key) << c.subject;
}

TEST(TextTest, PreviewCutsWholeCharacters) {
  EXPECT_EQ(Preview("  été\n\n à   la  plage ", 6), "été à ");
  EXPECT_EQ(Preview("short", 200), "short");
}

TEST(TextTest, StringArraysSurviveTheirEncoding) {
  std::vector<std::vector<std::string>> cases = {
      {}, {""}, {"\"Example, Ann\" <ann@example.org>", "back\\slash", "tab\tnew\nline", "é😀"}};
  for (const auto& values : cases) EXPECT_EQ(DecodeStringArray(EncodeStringArray(values)), values);
  EXPECT_EQ(DecodeStringArray(R"([ "a" , "\u00e9\ud83d\ude00" ])"),
            (std::vector<std::string>{"a", "é😀"}));
  for (const char* bad : {"", "[", "[\"a\"", "[\"a\",]", "{}", "[1]"}) {
    EXPECT_TRUE(DecodeStringArray(bad).empty()) << bad;
  }
}

TEST(TextTest, FullTextQueryQuotesEveryWord) {
  EXPECT_EQ(FullTextQuery("  invoice  March "), "\"invoice\"* \"March\"*");
  EXPECT_EQ(FullTextQuery("say \"hi\" NEAR(a b) OR -x *"),
            "\"say\"* \"\"\"hi\"\"\"* \"NEAR(a\"* \"b)\"* \"OR\"* \"-x\"*");
  EXPECT_EQ(FullTextQuery("été"), "\"été\"*");
  EXPECT_EQ(FullTextQuery(" - ... * "), "");
}

TEST(TextTest, ParseInt64TakesWholeNumbersOnly) {
  int64_t value = 0;
  EXPECT_TRUE(ParseInt64("1700000000", &value));
  EXPECT_EQ(value, 1700000000);
  EXPECT_TRUE(ParseInt64("-5", &value));
  EXPECT_EQ(value, -5);
  for (const char* bad : {"", "-", " 5", "5 ", "5.0", "1e3", "abc", "99999999999999999999"}) {
    EXPECT_FALSE(ParseInt64(bad, &value)) << bad;
  }
}

}  // namespace
}  // namespace ornic::larkpost::store
