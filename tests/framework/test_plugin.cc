// A plug-in for the host tests: handlers that answer, throw and write their
// own CGI answer, and a checker that refuses, so that every path through
// entry.cgi that needs a plug-in can be driven from a test.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>

#include <unistd.h>

#include "platform/mailcore/error.h"
#include "platform/zevo/webapi.h"

#define TEST_EXPORT __attribute__((visibility("default")))

namespace {

// Everything the host told the plug-in about the request.
void Echo(ZEVO::APIRequest* request, ZEVO::APIResponse* response) {
  Json::Value data(Json::objectValue);
  data["uid"] = request->GetLoginUID();
  data["user"] = request->GetLoginUserName();
  data["admin"] = request->IsAdmin();
  data["sid"] = request->GetSessionID();
  data["language"] = request->GetUILanguage();
  data["upload"] = request->IsUploadRequest();
  data["params"] = request->GetParamRef("", Json::Value());
  // The program the log lines are named after.
  std::ifstream cmdline("/proc/self/cmdline", std::ios::binary);
  std::string program;
  std::getline(cmdline, program, '\0');
  data["program"] = program.substr(program.rfind('/') + 1);
  data["parent"] = static_cast<Json::Int>(getppid());
  // An upload's stored file, read while the request is still running.
  const Json::Value& stored = request->GetParamRef("file_tmp", Json::Value());
  if (stored.isString()) {
    std::ifstream file(stored.asString(), std::ios::binary);
    data["file_content"] =
        std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  }
  response->SetSuccess(data);
}

// Both throw after they began an answer; ornic::Error is no std::exception.
void ThrowCore(ZEVO::APIRequest*, ZEVO::APIResponse* response) {
  response->SetSuccess(Json::Value("half done"));
  throw ornic::Error(503);
}

void ThrowStd(ZEVO::APIRequest*, ZEVO::APIResponse* response) {
  response->SetError(42, Json::Value("half done"));
  throw std::runtime_error("boom");
}

void Raw(ZEVO::APIRequest*, ZEVO::APIResponse* response) {
  response->SetEnableOutput(false);
  std::fputs("Status: 404 Not Found\r\n\r\n", stdout);
}

// Output off, then an exception: only the log can tell.
void RawThenThrow(ZEVO::APIRequest* request, ZEVO::APIResponse* response) {
  Raw(request, response);
  throw std::runtime_error("after the answer");
}

// Output off, nothing written, then an exception.
void SilentThrow(ZEVO::APIRequest*, ZEVO::APIResponse* response) {
  response->SetEnableOutput(false);
  throw std::runtime_error("before any answer");
}

// Leaves a mark that it runs (started-PID in the data root), sleeps "ms"
// milliseconds and answers: the slow request of the host's bounds.
void Slow(ZEVO::APIRequest* request, ZEVO::APIResponse* response) {
  if (const char* root = std::getenv("LARKPOST_ROOT")) {
    std::ofstream(std::string(root) + "/started-" + std::to_string(getpid()));
  }
  std::this_thread::sleep_for(
      std::chrono::milliseconds(request->GetParamRef("ms", Json::Value(0)).asInt()));
  response->SetSuccess(Json::Value("slept"));
}

// Lets the request through only when "ok" is true.
bool CheckOk(ZEVO::APIRequest* request, ZEVO::APIResponse* response) {
  if (request->GetAndCheckBool("ok", ZEVO::kRequired, nullptr).Get()) return true;
  Json::Value data(Json::objectValue);
  data["name"] = "ok";
  data["reason"] = "condition";
  response->SetError(120, data);
  return false;
}

}  // namespace

TEST_EXPORT extern const ZEVO::APITableEntry gTable[];
TEST_EXPORT extern const ZEVO::APICheckEntry gCheckTable[];

const ZEVO::APITableEntry gTable[] = {
    {"ZEVO.Test.Echo", 1, "echo", Echo},
    {"ZEVO.Test.Echo", 1, "throw_core", ThrowCore},
    {"ZEVO.Test.Echo", 1, "throw_std", ThrowStd},
    {"ZEVO.Test.Echo", 1, "raw", Raw},
    {"ZEVO.Test.Echo", 1, "raw_then_throw", RawThenThrow},
    {"ZEVO.Test.Echo", 1, "silent_throw", SilentThrow},
    {"ZEVO.Test.Echo", 1, "checked", Echo},
    {"ZEVO.Test.Echo", 1, "slow", Slow},
    {"ZEVO.Test.Admin", 1, "echo", Echo},
    // The last row: the host must see it although nothing marks the end.
    {"ZEVO.Test.Custom", 1, "echo", Echo},
};

const ZEVO::APICheckEntry gCheckTable[] = {
    {"ZEVO.Test.Echo", 1, "checked", CheckOk, nullptr, nullptr},
    {nullptr, 0, nullptr, nullptr, nullptr, nullptr},
};
