#include <gtest/gtest.h>
#include <json/reader.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/mailcore/error.h"
#include "platform/mailcore/util.h"

namespace ornic {
namespace {

Json::Value Parse(const std::string& text) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << errors;
  return value;
}

TEST(ErrorTest, CarriesItsCodeThroughACatchByReference) {
  try {
    throw Error(kErrorNoSuchUser);
  } catch (const Error& e) {
    EXPECT_EQ(e.ErrorCode(), 501);
    EXPECT_NE(std::string(e.what()).find("501"), std::string::npos);
  }
}

TEST(JsonArrayToVectorTest, KeepsOnlyElementsOfTheAskedType) {
  struct Case {
    const char* json;
    std::vector<int> ints;
    std::vector<std::string> strings;
  };
  const Case cases[] = {
      {"[1, 2, 3]", {1, 2, 3}, {}},
      {R"([1, "2", 3.0, 4.5, true, null, [5], {"a": 6}, -7])", {1, -7}, {"2"}},
      {"[2147483647, 2147483648, -2147483648, -2147483649]", {2147483647, -2147483648}, {}},
      {R"(["a", "", "b"])", {}, {"a", "", "b"}},
      {"[]", {}, {}},
      {R"({"a": 1})", {}, {}},
      {"5", {}, {}},
      {R"("x")", {}, {}},
      {"null", {}, {}},
  };
  for (const Case& c : cases) {
    Json::Value value = Parse(c.json);
    EXPECT_EQ(util::JsonArrayToVector<int>(value), c.ints) << c.json;
    EXPECT_EQ(util::JsonArrayToVector<std::string>(value), c.strings) << c.json;
  }
}

TEST(VectorToJsonArrayTest, AlwaysGivesAnArray) {
  Json::Value empty = util::VectorToJsonArray<int>({});
  EXPECT_TRUE(empty.isArray());
  EXPECT_EQ(empty.size(), 0u);
  Json::Value ints = util::VectorToJsonArray<int>({3, -1});
  ASSERT_EQ(ints.size(), 2u);
  EXPECT_TRUE(ints[0].isInt());
  EXPECT_EQ(ints[1].asInt(), -1);
  Json::Value strings = util::VectorToJsonArray<std::string>({"x", ""});
  EXPECT_EQ(strings, Parse(R"(["x", ""])"));
}

TEST(GetSubstrAfterLastTest, TakesWhatFollowsTheLastSeparator) {
  EXPECT_EQ(util::GetSubstrAfterLast("/usr/bin/webapi-worker", '/'), "webapi-worker");
  EXPECT_EQ(util::GetSubstrAfterLast("plain", '/'), "plain");
  EXPECT_EQ(util::GetSubstrAfterLast("ends/", '/'), "");
  EXPECT_EQ(util::GetSubstrAfterLast("", '/'), "");
  EXPECT_EQ(util::GetSubstrAfterLast("a.tar.gz", '.'), "gz");
}

}  // namespace
}  // namespace ornic
