// The typed parameters as a plug-in reads them: the state every reader gives
// every kind of value, and validators. Defaults, the value conditions,
// requests and most of the answer envelope are exercised through the
// plug-in's checkers and the host tests.
#include <gtest/gtest.h>
#include <json/writer.h>  // prints values in failure messages

#include <cstdint>
#include <string>

#include "platform/zevo/webapi.h"

namespace ZEVO {
namespace {

constexpr auto Parse = &WebAPIUtil::ParseJson;

// A parameter's state as three letters: Set, Reset, Invalid, or "-".
template <typename T>
std::string StateOf(const APIParameter<T>& p) {
  return std::string(p.IsSet() ? "S" : "-") + (p.IsReset() ? "R" : "-") +
         (p.IsInvalid() ? "I" : "-");
}

constexpr char kAbsent[] = "---", kReset[] = "-R-", kValid[] = "S--", kWrong[] = "S-I";

// Checks one reader, optional and required: a required parameter that is
// absent or null is invalid too.
template <typename Read>
void ExpectStates(const std::string& optional, Read read) {
  std::string required = optional;
  if (required[0] == '-') required[2] = 'I';
  EXPECT_EQ(StateOf(read(kOptional)), optional);
  EXPECT_EQ(StateOf(read(kRequired)), required);
}

TEST(APIParameterTest, EveryReaderOverEveryKindOfValue) {
  const struct {
    const char* json;  // nullptr: the parameter is absent
    const char *as_int, *as_int64, *as_bool, *as_string, *as_array;
  } cases[] = {
      {"5", kValid, kValid, kWrong, kWrong, kWrong},
      {"5.5", kWrong, kWrong, kWrong, kWrong, kWrong},
      {"5.0", kWrong, kWrong, kWrong, kWrong, kWrong},
      {"\"5\"", kWrong, kWrong, kWrong, kValid, kWrong},
      {"true", kWrong, kWrong, kValid, kWrong, kWrong},
      {"2147483647", kValid, kValid, kWrong, kWrong, kWrong},
      {"2147483648", kWrong, kValid, kWrong, kWrong, kWrong},
      {"-2147483649", kWrong, kValid, kWrong, kWrong, kWrong},
      {"9223372036854775807", kWrong, kValid, kWrong, kWrong, kWrong},
      {"-9223372036854775808", kWrong, kValid, kWrong, kWrong, kWrong},
      {"9223372036854775808", kWrong, kWrong, kWrong, kWrong, kWrong},
      {"[1,\"a\"]", kWrong, kWrong, kWrong, kWrong, kValid},
      {"{}", kWrong, kWrong, kWrong, kWrong, kWrong},
      {"null", kReset, kReset, kReset, kReset, kReset},
      {nullptr, kAbsent, kAbsent, kAbsent, kAbsent, kAbsent},
  };
  for (const auto& c : cases) {
    Json::Value params(Json::objectValue);
    if (c.json != nullptr) params["p"] = Parse(c.json);
    const APIRequest request(params);
    SCOPED_TRACE(c.json != nullptr ? c.json : "(absent)");
    ExpectStates(c.as_int, [&](int n) { return request.GetAndCheckInt("p", n, nullptr); });
    ExpectStates(c.as_int64, [&](int n) { return request.GetAndCheckInt64("p", n, nullptr); });
    ExpectStates(c.as_bool, [&](int n) { return request.GetAndCheckBool("p", n, nullptr); });
    ExpectStates(c.as_string, [&](int n) { return request.GetAndCheckString("p", n, nullptr); });
    ExpectStates(c.as_array, [&](int n) { return request.GetAndCheckArray("p", n, nullptr); });
    ExpectStates(c.as_array, [&](int n) { return request.GetAndCheckUnitArray("p", n, nullptr); });
  }
}

TEST(APIParameterTest, ValuesAndValidators) {
  const APIRequest request(Parse(R"({"i": 7, "big": -9223372036854775808, "s": "x", "a": []})"));
  EXPECT_EQ(request.GetAndCheckInt64("big", kOptional, nullptr).Get(), INT64_MIN);
  // A refused value is a wrong one and never shows through; only a present
  // value of the right type reaches the validator.
  const APIParameter<int> i = request.GetAndCheckInt("i", kOptional, [](int v) { return v > 7; });
  EXPECT_EQ(StateOf(i), kWrong);
  EXPECT_EQ(i.Get(), 0);
  EXPECT_EQ(i.Get(5), 5);
  int calls = 0;
  const auto spy = [&calls](const Json::Value&) { return ++calls > 0; };
  for (const char* name : {"s", "none", "a"}) request.GetAndCheckArray(name, kOptional, spy);
  EXPECT_EQ(calls, 1);
}

TEST(APIResponseTest, FalsyDataIsStillData) {
  APIResponse response;
  response.SetSuccess(Json::Value(false));
  EXPECT_EQ(response.ToEnvelope(), Parse(R"({"success": true, "data": false})"));
}

}  // namespace
}  // namespace ZEVO
