#include "tests/unit/handler_test_util.h"

#include <syslog.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace larkpost::test {

void HandlerTest::SetUp() {
  fake::Reset();
  fake::ResetSystemLog();
  char pattern[] = "/tmp/larkpost-unit-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  temp_root_ = pattern;
  fake::core().app_root = temp_root_;
  fake::AddUser(kAlice, "alice");
}

void HandlerTest::TearDown() { std::filesystem::remove_all(temp_root_); }

Json::Value HandlerTest::Run(ZEVO::APIHandler handler, const Json::Value& params, uint32_t uid,
                             const std::string& session) {
  ZEVO::APIRequest request(params);
  auto user = fake::core().users.find(uid);
  request.SetLoginUser(uid, user == fake::core().users.end() ? "" : user->second.name,
                       user != fake::core().users.end() && user->second.is_admin);
  request.SetSessionID(session);
  ZEVO::APIResponse response;
  handler(&request, &response);
  return response.ToEnvelope();
}

Json::Value J(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(ZEVO::WebAPIUtil::FromString(text, value)) << text;
  return value;
}

Json::Value ErrorAnswer(int code) {
  Json::Value envelope = J(R"({"success": false, "error": {}})");
  envelope["error"]["code"] = code;
  return envelope;
}

Json::Value AsSent(const Json::Value& value) { return J(ZEVO::WebAPIUtil::ToString(value)); }

std::vector<std::string> Logged(const std::string& unit) {
  std::vector<std::string> messages;
  for (const fake::SystemLog::Line& line : fake::system_log().lines) {
    EXPECT_EQ(line.priority, LOG_LOCAL1 | LOG_ERR) << line.text;
    const std::string prefix = unit + ":";
    size_t digits = prefix.size();
    while (digits < line.text.size() &&
           std::isdigit(static_cast<unsigned char>(line.text[digits]))) {
      ++digits;
    }
    bool well_formed = line.text.compare(0, prefix.size(), prefix) == 0 && digits > prefix.size() &&
                       digits < line.text.size() && line.text[digits] == ' ';
    EXPECT_TRUE(well_formed) << "not a line of " << unit << ": " << line.text;
    messages.push_back(well_formed ? line.text.substr(digits + 1) : line.text);
  }
  return messages;
}

std::string CaptureStdout(const std::function<void()>& run) {
  std::FILE* capture = std::tmpfile();
  EXPECT_NE(capture, nullptr);
  if (capture == nullptr) return "";
  std::fflush(stdout);
  int saved = dup(fileno(stdout));
  dup2(fileno(capture), fileno(stdout));
  auto restore = [&] {
    std::fflush(stdout);
    dup2(saved, fileno(stdout));
    close(saved);
  };
  try {
    run();
  } catch (...) {
    restore();
    std::fclose(capture);
    throw;
  }
  restore();

  std::string text;
  std::rewind(capture);
  char buffer[4096];
  size_t size;
  while ((size = std::fread(buffer, 1, sizeof(buffer), capture)) > 0) text.append(buffer, size);
  std::fclose(capture);
  return text;
}

}  // namespace larkpost::test
