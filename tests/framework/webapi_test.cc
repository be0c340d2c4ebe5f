// The framework classes as a plug-in sees them: parameter states for every
// reader, the value conditions, the answer envelope and JSON text handling.
#include <gtest/gtest.h>
#include <json/writer.h>  // prints values in failure messages

#include <cstdint>
#include <limits>
#include <string>

#include "platform/zevo/webapi.h"

namespace ZEVO {
namespace {

Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(WebAPIUtil::FromString(text, value)) << text;
  return value;
}

// The state of one parameter, compact enough to compare in a table.
struct State {
  bool set;
  bool reset;
  bool invalid;
};

template <typename T>
State StateOf(const APIParameter<T>& p) {
  return {p.IsSet(), p.IsReset(), p.IsInvalid()};
}

bool operator==(const State& a, const State& b) {
  return a.set == b.set && a.reset == b.reset && a.invalid == b.invalid;
}

std::ostream& operator<<(std::ostream& out, const State& s) {
  return out << "{set=" << s.set << " reset=" << s.reset << " invalid=" << s.invalid << "}";
}

constexpr State kAbsent{false, false, false};
constexpr State kMissing{false, false, true};  // required and absent
constexpr State kReset{false, true, false};
constexpr State kResetRequired{false, true, true};
constexpr State kValid{true, false, false};
constexpr State kWrongType{true, false, true};

// One JSON text read by every reader, with the state each one must give.
struct ReaderCase {
  const char* json;  // nullptr: the parameter is absent
  State as_int, as_int64, as_bool, as_string, as_array;
};

const ReaderCase kReaderCases[] = {
    {"5", kValid, kValid, kWrongType, kWrongType, kWrongType},
    {"-7", kValid, kValid, kWrongType, kWrongType, kWrongType},
    {"5.5", kWrongType, kWrongType, kWrongType, kWrongType, kWrongType},
    {"5.0", kWrongType, kWrongType, kWrongType, kWrongType, kWrongType},
    {"\"5\"", kWrongType, kWrongType, kWrongType, kValid, kWrongType},
    {"true", kWrongType, kWrongType, kValid, kWrongType, kWrongType},
    {"2147483647", kValid, kValid, kWrongType, kWrongType, kWrongType},
    {"2147483648", kWrongType, kValid, kWrongType, kWrongType, kWrongType},
    {"-2147483649", kWrongType, kValid, kWrongType, kWrongType, kWrongType},
    {"9223372036854775807", kWrongType, kValid, kWrongType, kWrongType, kWrongType},
    {"-9223372036854775808", kWrongType, kValid, kWrongType, kWrongType, kWrongType},
    {"9223372036854775808", kWrongType, kWrongType, kWrongType, kWrongType, kWrongType},
    {"[1,\"a\"]", kWrongType, kWrongType, kWrongType, kWrongType, kValid},
    {"[]", kWrongType, kWrongType, kWrongType, kWrongType, kValid},
    {"{}", kWrongType, kWrongType, kWrongType, kWrongType, kWrongType},
    {"null", kReset, kReset, kReset, kReset, kReset},
    {nullptr, kAbsent, kAbsent, kAbsent, kAbsent, kAbsent},
};

TEST(APIParameterTest, OptionalReadersOverJsonValues) {
  for (const ReaderCase& c : kReaderCases) {
    Json::Value params(Json::objectValue);
    if (c.json != nullptr) params["p"] = Parse(c.json);
    APIRequest request(params);
    SCOPED_TRACE(c.json != nullptr ? c.json : "(absent)");
    EXPECT_EQ(StateOf(request.GetAndCheckInt("p", kOptional, nullptr)), c.as_int);
    EXPECT_EQ(StateOf(request.GetAndCheckInt64("p", kOptional, nullptr)), c.as_int64);
    EXPECT_EQ(StateOf(request.GetAndCheckBool("p", kOptional, nullptr)), c.as_bool);
    EXPECT_EQ(StateOf(request.GetAndCheckString("p", kOptional, nullptr)), c.as_string);
    EXPECT_EQ(StateOf(request.GetAndCheckArray("p", kOptional, nullptr)), c.as_array);
    EXPECT_EQ(StateOf(request.GetAndCheckUnitArray("p", kOptional, nullptr)), c.as_array);
  }
}

TEST(APIParameterTest, RequiredMakesAbsentAndNullInvalid) {
  APIRequest request(Parse(R"({"n": null, "v": 3})"));
  EXPECT_EQ(StateOf(request.GetAndCheckInt("gone", kRequired, nullptr)), kMissing);
  EXPECT_EQ(StateOf(request.GetAndCheckInt("n", kRequired, nullptr)), kResetRequired);
  EXPECT_EQ(StateOf(request.GetAndCheckString("n", kRequired, nullptr)), kResetRequired);
  EXPECT_EQ(StateOf(request.GetAndCheckInt("v", kRequired, nullptr)), kValid);
}

TEST(APIParameterTest, ValuesAndDefaults) {
  APIRequest request(Parse(R"({"i": 7, "big": -9223372036854775808, "s": "héllo",
                               "b": false, "a": [1, 2], "wrong": "x"})"));
  EXPECT_EQ(request.GetAndCheckInt("i", kOptional, nullptr).Get(), 7);
  EXPECT_EQ(request.GetAndCheckInt64("big", kOptional, nullptr).Get(),
            std::numeric_limits<int64_t>::min());
  EXPECT_EQ(request.GetAndCheckString("s", kOptional, nullptr).Get(), "héllo");
  EXPECT_FALSE(request.GetAndCheckBool("b", kOptional, nullptr).Get(true));
  EXPECT_EQ(request.GetAndCheckArray("a", kOptional, nullptr).Get(), Parse("[1,2]"));

  // Absent: the default, which SetDefault replaces; the state stays "not set".
  APIParameter<int> absent = request.GetAndCheckInt("none", kOptional, nullptr);
  EXPECT_EQ(absent.Get(), 0);
  EXPECT_EQ(absent.Get(9), 9);
  absent.SetDefault(-1);
  EXPECT_EQ(absent.Get(), -1);
  EXPECT_EQ(StateOf(absent), kAbsent);

  // Wrong type: the value never shows through.
  APIParameter<int> wrong = request.GetAndCheckInt("wrong", kOptional, nullptr);
  wrong.SetDefault(4);
  EXPECT_EQ(wrong.Get(), 4);
  EXPECT_EQ(wrong.Get(5), 5);

  // A default never hides a valid value.
  APIParameter<int> given = request.GetAndCheckInt("i", kOptional, nullptr);
  given.SetDefault(100);
  EXPECT_EQ(given.Get(), 7);
}

TEST(APIParameterTest, ValidatorRefusalIsInvalidAndSet) {
  APIRequest request(Parse(R"({"n": 5, "a": [1], "s": "x"})"));
  const auto positive_even = [](const int& v) { return v > 0 && v % 2 == 0; };
  APIParameter<int> odd = request.GetAndCheckInt("n", kOptional, positive_even);
  EXPECT_EQ(StateOf(odd), kWrongType);
  EXPECT_EQ(odd.Get(), 0) << "a refused value is not handed out";
  EXPECT_EQ(StateOf(request.GetAndCheckInt("n", kOptional, [](const int& v) { return v == 5; })),
            kValid);
  // The validator only sees values of the right type.
  bool called = false;
  const auto spy = [&called](const Json::Value&) { return called = true; };
  EXPECT_EQ(StateOf(request.GetAndCheckArray("s", kOptional, spy)), kWrongType);
  EXPECT_FALSE(called);
  EXPECT_EQ(StateOf(request.GetAndCheckArray("a", kOptional, spy)), kValid);
  EXPECT_TRUE(called);
  // An absent parameter is not validated.
  EXPECT_EQ(StateOf(request.GetAndCheckString("gone", kOptional,
                                              [](const std::string&) { return false; })),
            kAbsent);
}

TEST(APIParameterTest, FactoryReadsMembersOfObjectsOnly) {
  const Json::Value object = Parse(R"({"name": "from", "not_operator": "yes"})");
  EXPECT_EQ(
      APIParameterFactoryBasicImpl<std::string>::FromJson(object, "name", kOptional, nullptr).Get(),
      "from");
  EXPECT_EQ(StateOf(APIParameterFactoryBasicImpl<bool>::FromJson(object, "not_operator", kOptional,
                                                                 nullptr)),
            kWrongType);
  EXPECT_EQ(StateOf(APIParameterFactoryBasicImpl<std::string>::FromJson(object, "value", kRequired,
                                                                        nullptr)),
            kMissing);
  for (const char* not_object : {"[1]", "\"name\"", "null", "3"}) {
    EXPECT_EQ(StateOf(APIParameterFactoryBasicImpl<std::string>::FromJson(Parse(not_object), "name",
                                                                          kOptional, nullptr)),
              kAbsent)
        << not_object;
  }
}

TEST(APIValidatorTest, IntegerConditions) {
  APIRequest request(Parse(R"({"zero": 0, "two": 2})"));
  const APIParameter<int> zero = request.GetAndCheckInt("zero", kOptional, nullptr);
  const APIParameter<int> two = request.GetAndCheckInt("two", kOptional, nullptr);
  EXPECT_FALSE(APIValidator::IsGreater(zero, 0));
  EXPECT_TRUE(APIValidator::IsGreater(two, 1));
  EXPECT_TRUE(APIValidator::IsBetween(zero, 0, 2));
  EXPECT_TRUE(APIValidator::IsBetween(two, 0, 2));
  EXPECT_FALSE(APIValidator::IsBetween(two, 0, 1));
  EXPECT_TRUE(APIValidator::IsEqual<int>(zero, 0));
  EXPECT_FALSE(APIValidator::IsEqual<int>(two, 0));
  // An absent parameter is judged by its default.
  APIParameter<int> absent = request.GetAndCheckInt("none", kOptional, nullptr);
  absent.SetDefault(-1);
  EXPECT_FALSE(APIValidator::IsBetween(absent, 0, 2));
}

TEST(APIValidatorTest, IsBelong) {
  const Json::Value allowed = WebAPIUtil::ParseJson(R"(["unread_count", "draft_total_count", 3])");
  struct Case {
    const char* params;
    bool belongs;
  } cases[] = {
      {R"({"a": ["unread_count"]})", true},
      {R"({"a": ["draft_total_count", "unread_count", "unread_count"]})", true},
      {R"({"a": []})", true},
      {R"({})", true},
      {R"({"a": null})", true},
      {R"({"a": [3]})", true},
      {R"({"a": [3.5]})", false},
      {R"({"a": ["unread_count", "body_preview"]})", false},
      {R"({"a": ["Unread_count"]})", false},
      {R"({"a": "unread_count"})", false},
      {R"({"a": [["unread_count"]]})", false},
  };
  for (const Case& c : cases) {
    APIRequest request(Parse(c.params));
    EXPECT_EQ(APIValidator::IsBelong(request.GetAndCheckArray("a", kOptional, nullptr), allowed),
              c.belongs)
        << c.params;
  }
  // A value compared with an unsigned member of the allowed list.
  Json::Value unsigned_three(Json::arrayValue);
  unsigned_three.append(Json::UInt(3));
  APIRequest request(Parse(R"({"a": [3]})"));
  EXPECT_TRUE(
      APIValidator::IsBelong(request.GetAndCheckArray("a", kOptional, nullptr), unsigned_three));
}

TEST(WebAPIUtilTest, FromStringAcceptsAnyValueAndNothingElse) {
  struct Case {
    const char* text;
    bool json;
  } cases[] = {
      {"5", true},           {" 5 ", true},   {"\"x\"", true},     {"true", true},
      {"null", true},        {"[1,2]", true}, {"{\"a\":1}", true}, {"-0.5e3", true},
      {"5abc", false},       {"Work", false}, {"", false},         {"[1,]", false},
      {"{\"a\":1}x", false}, {"'x'", false},  {"// c\n1", false},  {"1 2", false},
      {"[", false},          {"NaN", false},
  };
  for (const Case& c : cases) {
    Json::Value out("untouched");
    EXPECT_EQ(WebAPIUtil::FromString(c.text, out), c.json) << c.text;
    if (!c.json) {
      EXPECT_EQ(out, Json::Value("untouched")) << c.text;
    }
  }
  // Nesting deeper than the reader's stack limit is an answer, not a crash.
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  Json::Value out;
  EXPECT_FALSE(WebAPIUtil::FromString(deep, out));
  EXPECT_TRUE(WebAPIUtil::ParseJson("5abc").isNull());
  EXPECT_EQ(WebAPIUtil::ParseJson(R"(["plain", "html"])"), Parse(R"(["plain","html"])"));
}

TEST(WebAPIUtilTest, ToStringIsCompactUtf8) {
  Json::Value value(Json::objectValue);
  value["name"] = "Über ✓";
  value["list"] = Parse("[1, true, null]");
  EXPECT_EQ(WebAPIUtil::ToString(value), R"({"list":[1,true,null],"name":"Über ✓"})");
  EXPECT_EQ(WebAPIUtil::ToString(Json::Value("a\"b")), R"("a\"b")");
}

TEST(APIResponseTest, Envelope) {
  APIResponse response;
  EXPECT_EQ(response.ToEnvelope(), Parse(R"({"success": true})"));
  EXPECT_TRUE(response.IsOutputEnabled());

  response.SetSuccess(Parse(R"({"id": 3})"));
  EXPECT_EQ(response.ToEnvelope(), Parse(R"({"success": true, "data": {"id": 3}})"));
  // Falsy data is still data.
  response.SetSuccess(Json::Value(0));
  EXPECT_EQ(response.ToEnvelope(), Parse(R"({"success": true, "data": 0})"));

  response.SetError(117);
  EXPECT_EQ(response.ToEnvelope(), Parse(R"({"success": false, "error": {"code": 117}})"));
  EXPECT_EQ(response.GetErrorCode(), 117);
  EXPECT_TRUE(response.GetData().isNull()) << "an error drops the success data";

  response.SetError(120, Parse(R"({"name": "id", "reason": "type"})"));
  EXPECT_EQ(response.ToEnvelope(), Parse(R"({"success": false, "error": {"code": 120,
      "errors": {"name": "id", "reason": "type"}}})"));

  response.SetSuccess();
  EXPECT_EQ(response.ToEnvelope(), Parse(R"({"success": true})"));
  EXPECT_EQ(response.GetErrorCode(), 0);
  EXPECT_TRUE(response.GetErrorData().isNull());
}

TEST(APIRequestTest, ParametersAndInitParam) {
  APIRequest empty;
  EXPECT_EQ(empty.GetParamRef("", Json::Value()), Json::Value(Json::objectValue));
  EXPECT_EQ(empty.GetUILanguage(), "enu");
  EXPECT_EQ(empty.GetLoginUID(), kUnknownUID);
  EXPECT_THROW(APIRequest(Json::Value(3)), std::invalid_argument);

  APIRequest request(Parse(R"({"id": "7", "file": "a.txt"})"));
  const Json::Value fallback("none");
  EXPECT_EQ(request.GetParamRef("id", fallback), Json::Value("7"));
  EXPECT_EQ(&request.GetParamRef("other", fallback), &fallback);
  EXPECT_TRUE(request.HasParam("file"));

  // An upload decoded by the plug-in comes back wrapped in "postParam".
  request.InitParam(Parse(R"({"postParam": {"id": 7, "file": "a.txt"}})"), true);
  EXPECT_EQ(request.GetParamRef("", Json::Value()), Parse(R"({"id": 7, "file": "a.txt"})"));
  EXPECT_EQ(request.GetAndCheckInt("id", kRequired, nullptr).Get(), 7);
  request.InitParam(Parse(R"({"x": 1})"), false);
  EXPECT_EQ(request.GetParamRef("", Json::Value()), Parse(R"({"x": 1})"));
  EXPECT_FALSE(request.HasParam("id"));
  // A wrapper without "postParam" leaves no parameters; a bad set changes nothing.
  request.InitParam(Parse(R"({"other": 1})"), true);
  EXPECT_EQ(request.GetParamRef("", Json::Value()), Json::Value(Json::objectValue));
  request.InitParam(Parse(R"({"x": 1})"), false);
  EXPECT_THROW(request.InitParam(Parse("[1]"), false), std::invalid_argument);
  EXPECT_EQ(request.GetParamRef("", Json::Value()), Parse(R"({"x": 1})"));
}

}  // namespace
}  // namespace ZEVO
