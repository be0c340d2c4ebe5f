// Drives the browsing entry functions in process, over a user's store that
// mailgen and `larkpostctl import` filled, and prints the median and 95th
// percentile of each call.
//
//   browse_bench DATA_ROOT USER [ITERATIONS]
// (DATA_ROOT is taken from the argument, not from the environment.)
#include <json/value.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "platform/mailcore/control.h"
#include "platform/mailcore/zevo_user.h"
#include "platform/zevo/webapi.h"
#include "webapi/api_table.h"

namespace {

using ornic::larkpost::control::Controller;

Json::Value Call(ZEVO::APIHandler handler, uint32_t uid, const std::string& name,
                 const Json::Value& params) {
  ZEVO::APIRequest request(params);
  request.SetLoginUser(uid, name, false);
  ZEVO::APIResponse response;
  handler(&request, &response);
  if (!response.IsSuccess()) {
    std::fprintf(stderr, "call failed: %s\n", ZEVO::WebAPIUtil::ToString(response.ToEnvelope()).c_str());
    std::exit(1);
  }
  return response.GetData();
}

void Measure(const char* what, int iterations, const std::function<void()>& body) {
  std::vector<double> ms;
  body();  // warm the caches once, as a running server would be
  for (int i = 0; i < iterations; ++i) {
    auto start = std::chrono::steady_clock::now();
    body();
    ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                     .count());
  }
  std::sort(ms.begin(), ms.end());
  std::printf("%-34s median %8.2f ms   p95 %8.2f ms\n", what, ms[ms.size() / 2],
              ms[std::min(ms.size() - 1, ms.size() * 95 / 100)]);
}

Json::Value Parse(const std::string& text) {
  Json::Value value;
  ZEVO::WebAPIUtil::FromString(text, value);
  return value;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: browse_bench DATA_ROOT USER [ITERATIONS]\n");
    return 2;
  }
  setenv("LARKPOST_ROOT", argv[1], 1);
  const std::string name = argv[2];
  const int iterations = argc > 3 ? std::atoi(argv[3]) : 50;
  const uint32_t uid = ornic::sdk::ZevoUser(name).uid();

  // Spread the imported mail as a user would have it: some threads filed in
  // a few folders, some labelled, some read and starred.
  Call(InfoGetInfo_v1, uid, name, Json::objectValue);
  Json::Value page =
      Call(ThreadList_v1, uid, name, Parse(R"({"condition": [], "limit": 2000})"))["thread"];
  std::vector<int> labels;
  for (const char* label : {"Work", "Family", "Travel"}) {
    labels.push_back(Call(LabelCreate_v1, uid, name,
                          Parse(std::string(R"({"name": ")") + label +
                                R"(", "text_color": "#fff", "background_color": "#336699"})"))["id"]
                         .asInt());
  }
  std::vector<int> folders;
  for (const char* folder : {"Projects", "Receipts", "Lists"}) {
    folders.push_back(
        Call(MailboxCreate_v1, uid, name, Parse(std::string(R"({"name": ")") + folder + "\"}"))["id"]
            .asInt());
  }
  for (Json::ArrayIndex i = 0; i < page.size(); ++i) {
    Json::Value ids(Json::arrayValue);
    ids.append(page[i]["id"]);
    Json::Value params(Json::objectValue);
    params["id"] = ids;
    if (i % 5 == 1) {
      params["mailbox_id"] = folders[i % 3];
      Call(ThreadSetMailbox_v1, uid, name, params);
    } else if (i % 4 == 0) {
      params["label_id"] = Json::Value(Json::arrayValue);
      params["label_id"].append(labels[i % 3]);
      Call(ThreadAddLabel_v1, uid, name, params);
    }
    if (i % 3 == 0) {
      Json::Value read = params;
      read.removeMember("mailbox_id");
      read.removeMember("label_id");
      read["read"] = true;
      Call(ThreadSetRead_v1, uid, name, read);
    }
  }

  const Json::Value inbox_page = Parse(R"({"condition": [], "offset": 0, "limit": 50})");
  Measure("thread list, 50, no condition", iterations,
          [&] { Call(ThreadList_v1, uid, name, inbox_page); });
  Measure("thread list, 50, inbox", iterations, [&] {
    Call(ThreadList_v1, uid, name,
         Parse(R"({"condition": [{"name": "mailbox", "value": "1"}], "limit": 50})"));
  });
  Measure("thread list, 50, keyword", iterations, [&] {
    Call(ThreadList_v1, uid, name,
         Parse(R"({"condition": [{"name": "keyword", "value": "budget museum"}], "limit": 50})"));
  });
  Measure("mailbox list, both counts", iterations, [&] {
    Call(MailboxList_v1, uid, name,
         Parse(R"({"additional": ["unread_count", "draft_total_count"]})"));
  });
  Measure("label list, counts", iterations,
          [&] { Call(LabelList_v1, uid, name, Parse(R"({"additional": ["unread_count"]})")); });

  // One HTML message: the first of the newest thread that has one.
  int html_id = 0;
  Json::Value newest = Call(ThreadList_v1, uid, name, Parse(R"({"condition": [], "limit": 50})"));
  for (const Json::Value& thread : newest["thread"]) {
    for (const Json::Value& message : thread["message"]) {
      Json::Value ids(Json::arrayValue);
      ids.append(message["id"]);
      Json::Value params(Json::objectValue);
      params["id"] = ids;
      Json::Value full = Call(MessageGet_v1, uid, name, params)["message"][0];
      if (!full["body"]["html"].asString().empty()) html_id = message["id"].asInt();
      if (html_id) break;
    }
    if (html_id) break;
  }
  Json::Value get(Json::objectValue);
  get["id"] = Json::Value(Json::arrayValue);
  get["id"].append(html_id);
  get["additional"] = Parse(R"(["blockquote", "body_preview"])");
  Measure("message get, one HTML message", iterations,
          [&] { Call(MessageGet_v1, uid, name, get); });
  return 0;
}
