#include "webapi/check/check_table.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <cstring>
#include <memory>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

Json::Value Parse(const std::string& text) {
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
    ADD_FAILURE() << "bad JSON in test: " << text << ": " << errors;
  }
  return value;
}

std::string Compact(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

// The rows as the framework must see them, in order, with each row's
// parameters: name:kind, kind one of i s b i[] s[] o[], "!" when required;
// "*" for a row that accepts every request.
struct Row {
  const char* api;
  const char* method;
  const char* params;
};

const Row kRows[] = {
    {"Info", "getinfo", "*"},
    {"Thread", "get", "id:i[]!"},
    {"Thread", "set_read", "id:i[]! read:b!"},
    {"Thread", "list", "condition:o[]! sort_direction:s offset:i limit:i"},
    {"Thread", "check_exist", "id:i[]! mailbox_id:i label_id:i"},
    {"Thread", "remove_label", "id:i[]! label_id:i[]!"},
    {"Thread", "set_mailbox", "id:i[]! mailbox_id:i!"},
    {"Thread", "add_label", "id:i[]! label_id:i[]!"},
    {"Thread", "delete", "id:i[]!"},
    {"Setting.SMTP", "set_default", "id:i!"},
    {"Setting.SMTP", "create",
     "display_name:s! mail:s! host_name:s! port:i! user_name:s password:s connection_type:i! "
     "signature:s"},
    {"Setting.SMTP", "set",
     "id:i! display_name:s mail:s host_name:s port:i user_name:s password:s connection_type:i "
     "signature:s"},
    {"Setting.SMTP", "list", "*"},
    {"Setting.SMTP", "delete", "id:i[]!"},
    {"Label", "delete", "id:i[]!"},
    {"Label", "create", "name:s! text_color:s! background_color:s!"},
    {"Label", "set", "id:i! name:s text_color:s background_color:s"},
    {"Label", "list", "additional:s[]"},
    {"Label", "get", "id:i[]! additional:s[]"},
    {"Filter", "set", "id:i! condition:o[] action:o[]"},
    {"Filter", "get", "id:i[]!"},
    {"Filter", "create", "condition:o[]! action:o[]!"},
    {"Filter", "list", "*"},
    {"Filter", "setorder", "id:i[]!"},
    {"Filter", "delete", "id:i[]!"},
    {"Draft", "delete", "id:i[]"},
    {"Draft", "create",
     "to:s[] cc:s[] bcc:s[] subject:s body:s attachment:i[] temp_attachment:i[] from:s! "
     "refer_to:i draft_type:i"},
    {"Draft", "set",
     "to:s[] cc:s[] bcc:s[] subject:s body:s attachment:i[] temp_attachment:i[] id:i! from:s "
     "draft_type:i"},
    {"Draft", "send",
     "to:s[] cc:s[] bcc:s[] subject:s body:s attachment:i[] temp_attachment:i[] id:i from:s "
     "refer_to:i draft_type:i"},
    {"Draft", "get", "id:i[]! additional:s[]"},
    {"Attachment", "upload", "file:s! is_inline:b"},
    {"Attachment", "upload_sticker", "id:i!"},
    {"Attachment", "upload_vex", "source:s! is_inline:b"},
    {"Sticker", "add", "file:s!"},
    {"Sticker", "delete", "id:i[]!"},
    {"Sticker", "list", "category:i"},
    {"Sticker", "get", "id:i!"},
    {"Setting.ForwardReply", "set",
     "forward_enable:b! forward_addr:s keep_copy:b reply_enable:b! reply_begin_time:i "
     "reply_end_time:i subject:s message:s"},
    {"Setting.ForwardReply", "get", "*"},
    {"Mailbox", "delete", "id:i[]!"},
    {"Mailbox", "create", "name:s! parent_id:i subscribed:b"},
    {"Mailbox", "set", "id:i! name:s parent_id:i subscribed:b"},
    {"Mailbox", "list", "subscription:b additional:s[]"},
    {"Mailbox", "get", "id:i[]! additional:s[]"},
    {"Setting.General", "set",
     "conversations_per_page:i mark_as_read_time:i display_external_image:b"},
    {"Setting.General", "get", "*"},
    {"Message", "set_read", "id:i[]! read:b!"},
    {"Message", "set_mailbox", "id:i[]! mailbox_id:i!"},
    {"Message", "set_star", "id:i[]! star:i!"},
    {"Message", "get", "id:i[]! body_type:s[] additional:s[]"},
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.api << " " << row.method; }

std::string FullName(const char* api) { return std::string("ZEVO.Larkpost.") + api; }

const ZEVO::APICheckEntry* FindRow(const char* api, const char* method) {
  for (const ZEVO::APICheckEntry* row = GetAPICheckTable(); row->api != nullptr; ++row) {
    if (FullName(api) == row->api && std::strcmp(method, row->method) == 0) {
      return row;
    }
  }
  return nullptr;
}

// What a row's checker made of one request: "pass" when it let the request
// through and left the response a plain success, "error <code> <data>" when it
// stopped it, and a description of anything else.
std::string Judge(const char* api, const char* method, const Json::Value& params,
                  bool upload = false) {
  const ZEVO::APICheckEntry* row = FindRow(api, method);
  if (row == nullptr) {
    return "no row";
  }
  ZEVO::APIRequest request(params);
  request.SetUploadRequest(upload);
  ZEVO::APIResponse response;
  const bool passed = row->checker(&request, &response);
  if (passed != response.IsSuccess()) {
    return std::string("answered ") + (passed ? "true" : "false") + " with response code " +
           std::to_string(response.GetErrorCode());
  }
  if (passed) {
    return response.GetData().isNull() && response.GetErrorData().isNull() &&
                   response.IsOutputEnabled()
               ? "pass"
               : "pass, but the response holds data";
  }
  return "error " + std::to_string(response.GetErrorCode()) + " " +
         Compact(response.GetErrorData());
}

std::string Failure(const std::string& name, const std::string& reason) {
  Json::Value data;
  data["name"] = name;
  data["reason"] = reason;
  return "error 120 " + Compact(data);
}

TEST(CheckTable, RowsInOrderThenOneZeroRow) {
  const ZEVO::APICheckEntry* table = GetAPICheckTable();
  EXPECT_EQ(table, gCheckTable);
  constexpr size_t kRowCount = sizeof(kRows) / sizeof(kRows[0]);
  ASSERT_EQ(kRowCount, 50u);
  for (size_t i = 0; i < kRowCount; ++i) {
    SCOPED_TRACE("row " + std::to_string(i + 1));
    ASSERT_NE(table[i].api, nullptr);
    EXPECT_EQ(FullName(kRows[i].api), table[i].api);
    EXPECT_EQ(table[i].version, 1);
    ASSERT_NE(table[i].method, nullptr);
    EXPECT_STREQ(table[i].method, kRows[i].method);
    EXPECT_NE(table[i].checker, nullptr);
    EXPECT_EQ(table[i].reserved1, nullptr);
    EXPECT_EQ(table[i].reserved2, nullptr);
  }
  const ZEVO::APICheckEntry& end = table[kRowCount];
  EXPECT_EQ(end.api, nullptr);
  EXPECT_EQ(end.version, 0);
  EXPECT_EQ(end.method, nullptr);
  EXPECT_EQ(end.checker, nullptr);
  EXPECT_EQ(end.reserved1, nullptr);
  EXPECT_EQ(end.reserved2, nullptr);
}

TEST(CheckTable, OnlyTheAcceptingRowsShareAChecker) {
  std::set<ZEVO::APIChecker> own;
  std::set<ZEVO::APIChecker> accepting;
  for (const Row& row : kRows) {
    const ZEVO::APICheckEntry* entry = FindRow(row.api, row.method);
    ASSERT_NE(entry, nullptr) << row.api << " " << row.method;
    if (std::strcmp(row.params, "*") == 0) {
      accepting.insert(entry->checker);
    } else {
      EXPECT_TRUE(own.insert(entry->checker).second) << row.api << " " << row.method;
    }
  }
  ASSERT_EQ(accepting.size(), 1u);
  EXPECT_EQ(own.count(*accepting.begin()), 0u);
}

// One parameter of a row, read from its description in kRows.
struct Param {
  std::string name;
  std::string kind;
  bool required;
};

std::vector<Param> ParamsOf(const Row& row) {
  std::vector<Param> params;
  std::istringstream words(row.params);
  std::string word;
  while (words >> word) {
    const size_t colon = word.find(':');
    Param param{word.substr(0, colon), word.substr(colon + 1), false};
    if (param.kind.back() == '!') {
      param.kind.pop_back();
      param.required = true;
    }
    params.push_back(param);
  }
  return params;
}

// A value of the kind that also meets every value condition of the table.
Json::Value Good(const std::string& kind) {
  if (kind == "i") return 1;
  if (kind == "s") return "x";
  if (kind == "b") return true;
  if (kind == "i[]") return Parse("[1, 2]");
  if (kind == "s[]") return Json::Value(Json::arrayValue);
  return Parse("[{}]");
}

// A value of the wrong JSON type.
Json::Value WrongType(const std::string& kind) {
  if (kind == "i") return "1";
  if (kind == "s") return 1;
  if (kind == "b") return "true";
  if (kind == "s[]") return "x";
  return Json::Value(Json::objectValue);
}

// An array of the right type holding an element of the wrong kind.
Json::Value WrongElement(const std::string& kind) {
  if (kind == "i[]") return Parse("[1, \"2\"]");
  if (kind == "s[]") return Parse("[\"x\", 1]");
  return Parse("[{}, 1]");
}

// Derives, for every row, the requests that its parameter list decides:
// each parameter missing, null, of the wrong type and with a bad element.
class CheckRowTest : public testing::TestWithParam<Row> {};

TEST_P(CheckRowTest, TypesAndPresenceFollowTheRow) {
  const Row& row = GetParam();
  if (std::strcmp(row.params, "*") == 0) {
    EXPECT_EQ(Judge(row.api, row.method, Json::Value(Json::objectValue)), "pass");
    EXPECT_EQ(Judge(row.api, row.method, Parse(R"({"id": "x", "additional": 5, "f": [null]})")),
              "pass");
    return;
  }
  const std::vector<Param> params = ParamsOf(row);
  Json::Value full(Json::objectValue);
  Json::Value minimal(Json::objectValue);
  for (const Param& param : params) {
    full[param.name] = Good(param.kind);
    if (param.required) minimal[param.name] = Good(param.kind);
  }
  EXPECT_EQ(Judge(row.api, row.method, full), "pass");
  EXPECT_EQ(Judge(row.api, row.method, minimal), "pass");

  for (const Param& param : params) {
    SCOPED_TRACE(param.name);
    const std::string absent = param.required ? Failure(param.name, "required") : "pass";
    Json::Value request = full;
    request.removeMember(param.name);
    EXPECT_EQ(Judge(row.api, row.method, request), absent);
    request[param.name] = Json::Value();
    EXPECT_EQ(Judge(row.api, row.method, request), absent);
    request[param.name] = WrongType(param.kind);
    EXPECT_EQ(Judge(row.api, row.method, request), Failure(param.name, "type"));
    if (param.kind.back() == ']') {
      request[param.name] = WrongElement(param.kind);
      EXPECT_EQ(Judge(row.api, row.method, request), Failure(param.name, "type"));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(AllRows, CheckRowTest, testing::ValuesIn(kRows),
                         [](const testing::TestParamInfo<Row>& info) {
                           return "Row" + std::to_string(info.index + 1);
                         });

// Requests whose outcome depends on more than one parameter's type: pass
// order, element kinds, nested objects, value conditions and defaults. A
// checker that wrote more than one error would leave a later one in place, so
// every case with several faults also shows that only the first is written.
struct Case {
  const char* api;
  const char* method;
  const char* params;
  const char* name;  // nullptr: the request passes
  const char* reason;
  bool upload = false;  // a multipart upload
};

const Case kCases[] = {
    // Pass order: presence and type of all parameters, then elements, then
    // conditions; within a pass the first parameter of the row.
    {"Thread", "set_mailbox", R"({"id": [1], "mailbox_id": 0})", "mailbox_id", "condition"},
    {"Thread", "set_mailbox", R"({"id": [1], "mailbox_id": "5"})", "mailbox_id", "type"},
    {"Thread", "set_mailbox", R"({"id": [1]})", "mailbox_id", "required"},
    {"Thread", "set_mailbox", R"({"id": [1], "mailbox_id": -3})", nullptr, nullptr},
    {"Thread", "set_mailbox", R"({"mailbox_id": "5"})", "id", "required"},
    {"Thread", "set_mailbox", R"({"id": "1"})", "id", "type"},
    {"Thread", "set_mailbox", R"({"id": [1, "x"], "mailbox_id": "5"})", "mailbox_id", "type"},
    {"Thread", "set_mailbox", R"({"id": [1, "x"], "mailbox_id": 0})", "id", "type"},
    {"Message", "set_mailbox", R"({"id": [1], "mailbox_id": 0})", "mailbox_id", "condition"},
    {"Thread", "add_label", R"({"id": [1, "x"], "label_id": [true]})", "id", "type"},
    {"Thread", "remove_label", R"({"id": [1], "label_id": [true]})", "label_id", "type"},
    // Integer elements are JSON integers of 32 bits.
    {"Thread", "get", R"({"id": [1, "x"]})", "id", "type"},
    {"Thread", "get", R"({"id": [1.5]})", "id", "type"},
    {"Thread", "get", R"({"id": [5.0]})", "id", "type"},
    {"Thread", "get", R"({"id": [true]})", "id", "type"},
    {"Thread", "get", R"({"id": [null]})", "id", "type"},
    {"Thread", "get", R"({"id": [2147483648]})", "id", "type"},
    {"Thread", "get", R"({"id": [-2147483649]})", "id", "type"},
    {"Thread", "get", R"({"id": [2147483647, -2147483648, 0]})", nullptr, nullptr},
    {"Thread", "get", R"({"id": []})", nullptr, nullptr},
    {"Thread", "delete", R"({"id": null})", "id", "required"},
    {"Thread", "list", R"({"condition": [], "limit": 1.5})", "limit", "type"},
    {"Thread", "list", R"({"condition": [{"name": "from"}], "limit": -1})", nullptr, nullptr},
    // Nested condition and action objects: all members optional, each typed.
    {"Filter", "create", R"({"condition": [{}], "action": [{}]})", nullptr, nullptr},
    {"Filter", "create",
     R"({"condition": [{"name": "from", "value": "a@b", "not_operator": true}],
         "action": [{"name": "move", "value": "3"}]})",
     nullptr, nullptr},
    {"Filter", "create", R"({"condition": ["from"], "action": []})", "condition", "type"},
    {"Filter", "create", R"({"condition": [{"not_operator": "yes"}], "action": []})", "condition",
     "type"},
    {"Filter", "create", R"({"condition": [{"name": 1}], "action": []})", "condition", "type"},
    {"Filter", "create", R"({"condition": [{"value": ["a"]}], "action": []})", "condition", "type"},
    {"Filter", "create", R"({"condition": [{"name": null}], "action": []})", nullptr, nullptr},
    {"Filter", "create", R"({"condition": [], "action": [{"value": true}]})", "action", "type"},
    {"Filter", "create", R"({"condition": [], "action": [[]]})", "action", "type"},
    // An action has no "not_operator", so its type does not matter there.
    {"Filter", "create", R"({"condition": [], "action": [{"not_operator": "x"}]})", nullptr,
     nullptr},
    {"Filter", "create", R"({"condition": [1]})", "action", "required"},
    {"Filter", "set", R"({"id": 1, "condition": [{}, {"not_operator": 1}]})", "condition", "type"},
    {"Thread", "list", R"({"condition": [{"not_operator": 0}]})", "condition", "type"},
    // Allowed "additional" words.
    {"Mailbox", "get", R"({"id": [1], "additional": ["unread_count", "body_preview"]})",
     "additional", "condition"},
    {"Mailbox", "get", R"({"id": [1], "additional": ["unread_count", "draft_total_count"]})",
     nullptr, nullptr},
    {"Mailbox", "get", R"({"id": [1], "additional": ["x", 1]})", "additional", "type"},
    {"Mailbox", "list", R"({"additional": ["draft_total_count"]})", nullptr, nullptr},
    {"Mailbox", "list", R"({"additional": ["blockquote"]})", "additional", "condition"},
    {"Label", "list", R"({"additional": ["unread_count"]})", nullptr, nullptr},
    {"Label", "list", R"({"additional": ["draft_total_count"]})", "additional", "condition"},
    {"Label", "get", R"({"id": [1], "additional": ["body_preview"]})", "additional", "condition"},
    {"Draft", "get", R"({"id": [1], "additional": ["body_preview"]})", nullptr, nullptr},
    {"Draft", "get", R"({"id": [1], "additional": ["unread_count"]})", "additional", "condition"},
    {"Message", "get", R"({"id": [1], "additional": ["blockquote"]})", nullptr, nullptr},
    {"Message", "get",
     R"({"id": [1], "additional": ["blockquote", "body_preview", "block_external_image"]})",
     nullptr, nullptr},
    {"Message", "get", R"({"id": [1], "additional": ["unread_count"]})", "additional", "condition"},
    {"Message", "get", R"({"id": [1], "additional": ["Blockquote"]})", "additional", "condition"},
    {"Message", "get", R"({"id": [1], "body_type": ["plain"], "additional": ["x"]})", "additional",
     "condition"},
    {"Message", "get", R"({"id": [1], "body_type": "html"})", "body_type", "type"},
    // Value conditions, "when given" ones skipped when absent or null.
    {"Draft", "set", R"({"id": 0})", "id", "condition"},
    {"Draft", "set", R"({"id": -1})", "id", "condition"},
    {"Draft", "set", R"({"id": 1, "draft_type": 3})", "draft_type", "condition"},
    {"Draft", "set", R"({"id": 1, "draft_type": -1})", "draft_type", "condition"},
    {"Draft", "set", R"({"id": 0, "draft_type": 3})", "id", "condition"},
    {"Draft", "set", R"({"id": 1, "draft_type": 2})", nullptr, nullptr},
    {"Draft", "set", R"({"id": 1, "draft_type": null})", nullptr, nullptr},
    {"Draft", "send", R"({})", nullptr, nullptr},  // "draft_type" defaults to 0
    {"Draft", "send", R"({"draft_type": 3})", "draft_type", "condition"},
    {"Draft", "send", R"({"draft_type": 0, "refer_to": 0})", "refer_to", "condition"},
    {"Draft", "send", R"({"draft_type": 3, "refer_to": 0})", "draft_type", "condition"},
    {"Draft", "send", R"({"refer_to": null, "id": 0})", nullptr, nullptr},
    {"Draft", "create", R"({"from": "a@b", "draft_type": 7})", nullptr, nullptr},
    {"Draft", "create", R"({"from": "a@b", "refer_to": 0})", "refer_to", "condition"},
    {"Draft", "create", R"({"from": "a@b", "refer_to": -5, "to": [1]})", "to", "type"},
    {"Draft", "create", R"({"to": ["x"], "refer_to": "1"})", "from", "required"},
    {"Draft", "delete", R"({})", nullptr, nullptr},
    {"Setting.SMTP", "create",
     R"({"display_name": "a", "mail": "a@b", "host_name": "h", "port": 25,
         "connection_type": 3})",
     "connection_type", "condition"},
    {"Setting.SMTP", "create",
     R"({"display_name": "a", "mail": "a@b", "host_name": "h", "port": 25,
         "connection_type": -1})",
     "connection_type", "condition"},
    {"Setting.SMTP", "create",
     R"({"display_name": "a", "mail": "a@b", "host_name": "h", "port": 25,
         "connection_type": 0})",
     nullptr, nullptr},
    {"Setting.SMTP", "create",
     R"({"display_name": "a", "mail": "a@b", "host_name": "h", "port": 25,
         "connection_type": 2})",
     nullptr, nullptr},
    {"Setting.SMTP", "create", R"({"port": "25", "connection_type": 9})", "display_name",
     "required"},
    {"Setting.SMTP", "set", R"({"id": 1, "connection_type": 3})", "connection_type", "condition"},
    {"Setting.SMTP", "set", R"({"id": 1, "connection_type": 0})", nullptr, nullptr},
    {"Setting.ForwardReply", "set",
     R"({"forward_enable": false, "reply_enable": true, "reply_begin_time": 0})",
     "reply_begin_time", "condition"},
    {"Setting.ForwardReply", "set",
     R"({"forward_enable": false, "reply_enable": true, "reply_end_time": -1})", "reply_end_time",
     "condition"},
    {"Setting.ForwardReply", "set",
     R"({"forward_enable": false, "reply_enable": true, "reply_begin_time": 0,
         "reply_end_time": 0})",
     "reply_begin_time", "condition"},
    {"Setting.ForwardReply", "set",
     R"({"forward_enable": false, "reply_enable": true, "reply_begin_time": 1700000000,
         "reply_end_time": 1700086400})",
     nullptr, nullptr},
    {"Mailbox", "set", R"({"id": 0})", "id", "condition"},
    {"Mailbox", "set", R"({"id": 1, "parent_id": 0})", nullptr, nullptr},
    {"Message", "set_star", R"({"id": [1], "star": true})", "star", "type"},
    {"Message", "set_star", R"({"id": [1], "star": 0})", nullptr, nullptr},
    {"Info", "getinfo", R"({"anything": [1, {"at": "all"}]})", nullptr, nullptr},
    // Uploads decode their form fields first; other requests are read as sent.
    {"Attachment", "upload", R"({"file": "a.txt", "file_tmp": "/tmp/u1", "is_inline": "true"})",
     nullptr, nullptr, true},
    {"Attachment", "upload", R"({"file": "a.txt", "is_inline": "yes"})", nullptr, nullptr, true},
    {"Attachment", "upload", R"({"file": "a.txt", "is_inline": "\"true\""})", "is_inline", "type",
     true},
    {"Attachment", "upload", R"({"is_inline": "true", "file_tmp": "/tmp/u1"})", "file", "required",
     true},
    {"Attachment", "upload", R"({"file": "a.txt", "is_inline": "true"})", "is_inline", "type"},
    {"Attachment", "upload", R"({"file": 5})", "file", "type", true},
    {"Sticker", "add", R"({"file": "5"})", nullptr, nullptr, true},
    {"Sticker", "add", R"({"file_tmp": "/tmp/u2"})", "file", "required", true},
};

void PrintTo(const Case& c, std::ostream* out) {
  *out << c.api << " " << c.method << (c.upload ? " upload " : " ") << c.params;
}

class CheckCaseTest : public testing::TestWithParam<Case> {};

TEST_P(CheckCaseTest, FirstFailureInPassOrder) {
  const Case& c = GetParam();
  EXPECT_EQ(Judge(c.api, c.method, Parse(c.params), c.upload),
            c.name == nullptr ? "pass" : Failure(c.name, c.reason));
}

INSTANTIATE_TEST_SUITE_P(Cases, CheckCaseTest, testing::ValuesIn(kCases));

}  // namespace
