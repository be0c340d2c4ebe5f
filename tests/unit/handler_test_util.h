// What the handler tests share: a fresh fake core with one user, and a way
// to run an entry function as the framework would and read its answer.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>  // prints values in failure messages

#include <initializer_list>
#include <string>
#include <vector>

#include "platform/zevo/webapi.h"
#include "tests/fake/fake_core.h"
#include "tests/fake/syslog_capture.h"

namespace larkpost::test {

inline constexpr uint32_t kAlice = 1026;

class HandlerTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Runs `handler` for a request of user `uid` with `params` and returns the
  // envelope the host would send.
  Json::Value Run(ZEVO::APIHandler handler, const Json::Value& params = Json::objectValue,
                  uint32_t uid = kAlice, const std::string& session = "sid-alice");

  // Runs a handler that writes its own answer, as alice.
  struct Streamed {
    std::string output;  // what it wrote to standard output
    bool json_enabled;   // whether the framework would still send its envelope
  };
  Streamed RunStreaming(ZEVO::APIHandler handler, const Json::Value& params);

  // A change that answers success without data after the core call `call`
  // and then the calls `then`; when `call` fails, error 117, `failure`
  // logged by source unit `unit`, and nothing called after it.
  void ExpectChange(ZEVO::APIHandler handler, const std::string& params, const std::string& call,
                    const std::string& unit, const std::string& failure,
                    const std::vector<std::string>& then = {});

  // Each of `params` is answered with error `code`, logs nothing and does
  // not reach the core beyond opening the session.
  void ExpectRefused(ZEVO::APIHandler handler, int code, std::initializer_list<const char*> params);

  std::string temp_root_;
};

// The answer's "data" ({"success":true} has none: null).
inline const Json::Value& Data(const Json::Value& envelope) { return envelope["data"]; }
inline int ErrorCode(const Json::Value& envelope) {
  return envelope["success"].asBool() ? 0 : envelope["error"]["code"].asInt();
}

// Parses a JSON text written in a test; fails the test when it is not JSON.
Json::Value J(const std::string& text);

// The envelope of error `code` without data.
Json::Value ErrorAnswer(int code);

// A value as the client reads it (compact text parsed again): integer
// widths and signedness do not survive, so it compares with J(...).
Json::Value AsSent(const Json::Value& value);

// The messages logged so far by source unit `unit` (such as "thread"), each
// without its "unit:line " prefix. A line of another unit, of a priority
// other than local1.error, or without a line number fails the test.
std::vector<std::string> Logged(const std::string& unit);

}  // namespace larkpost::test
