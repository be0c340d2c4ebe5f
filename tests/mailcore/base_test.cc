#include <gtest/gtest.h>
#include <json/reader.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/mailcore/util.h"

namespace ornic {
namespace {

Json::Value Parse(const std::string& text) {
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value value;
  std::string errors;
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << errors;
  return value;
}

TEST(JsonArrayTest, OnlyElementsOfTheAskedTypeAndAlwaysAnArrayBack) {
  const struct {
    const char* json;
    std::vector<int> ints;
    std::vector<std::string> strings;
  } cases[] = {
      {R"([1, "2", 3.0, 4.5, true, null, [5], {"a": 6}, -7])", {1, -7}, {"2"}},
      {"[2147483647, 2147483648, -2147483648, -2147483649]", {2147483647, -2147483648}, {}},
      {R"(["a", "", "b"])", {}, {"a", "", "b"}},
      {R"({"a": 1})", {}, {}},
      {"null", {}, {}},
  };
  for (const auto& c : cases) {
    Json::Value value = Parse(c.json);
    EXPECT_EQ(util::JsonArrayToVector<int>(value), c.ints) << c.json;
    EXPECT_EQ(util::JsonArrayToVector<std::string>(value), c.strings) << c.json;
  }
  EXPECT_EQ(util::VectorToJsonArray<int>({}), Parse("[]"));
  EXPECT_EQ(util::VectorToJsonArray<int>({3, -1}), Parse("[3, -1]"));
  EXPECT_EQ(util::VectorToJsonArray<std::string>({"x", ""}), Parse(R"(["x", ""])"));
}

TEST(GetSubstrAfterLastTest, TakesWhatFollowsTheLastSeparator) {
  for (const auto& [text, want] :
       {std::pair{"/usr/bin/webapi-worker", "webapi-worker"}, std::pair{"plain", "plain"},
        std::pair{"ends/", ""}, std::pair{"", ""}, std::pair{"a/b/c", "c"}}) {
    EXPECT_EQ(util::GetSubstrAfterLast(text, '/'), want) << text;
  }
}

}  // namespace
}  // namespace ornic
