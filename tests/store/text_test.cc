#include <gtest/gtest.h>

#include <string>

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
      {"Regarding: Lunch", "regarding: lunch"},
      {"Re:", ""},
      {"Fwd: ÉTÉ", "été"},
  };
  for (const Case& c : cases) EXPECT_EQ(SubjectKey(c.subject), c.key) << c.subject;
}

}  // namespace
}  // namespace ornic::larkpost::store
