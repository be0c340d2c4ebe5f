// The check table: its rows in order, a pass over every row generated from
// the row's parameter list, and the cases that such a list cannot express.
#include "webapi/check/check_table.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <array>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr auto Parse = &ZEVO::WebAPIUtil::ParseJson;

// One row a line, in table order: the API (after "ZEVO.Larkpost."), the method
// and its parameters as name:kind, kind one of i s b i[] s[] o[], with "!" when
// required. A row without parameters accepts every request.
constexpr char kRows[] = R"(
Info getinfo
Thread get id:i[]!
Thread set_read id:i[]! read:b!
Thread list condition:o[]! sort_direction:s offset:i limit:i
Thread check_exist id:i[]! mailbox_id:i label_id:i
Thread remove_label id:i[]! label_id:i[]!
Thread set_mailbox id:i[]! mailbox_id:i!
Thread add_label id:i[]! label_id:i[]!
Thread delete id:i[]!
Setting.SMTP set_default id:i!
Setting.SMTP create display_name:s! mail:s! host_name:s! port:i! user_name:s password:s
  connection_type:i! signature:s
Setting.SMTP set id:i! display_name:s mail:s host_name:s port:i user_name:s password:s
  connection_type:i signature:s
Setting.SMTP list
Setting.SMTP delete id:i[]!
Label delete id:i[]!
Label create name:s! text_color:s! background_color:s!
Label set id:i! name:s text_color:s background_color:s
Label list additional:s[]
Label get id:i[]! additional:s[]
Filter set id:i! condition:o[] action:o[]
Filter get id:i[]!
Filter create condition:o[]! action:o[]!
Filter list
Filter setorder id:i[]!
Filter delete id:i[]!
Draft delete id:i[]
Draft create to:s[] cc:s[] bcc:s[] subject:s body:s attachment:i[] temp_attachment:i[]
  from:s! refer_to:i draft_type:i
Draft set to:s[] cc:s[] bcc:s[] subject:s body:s attachment:i[] temp_attachment:i[]
  id:i! from:s draft_type:i
Draft send to:s[] cc:s[] bcc:s[] subject:s body:s attachment:i[] temp_attachment:i[]
  id:i from:s refer_to:i draft_type:i
Draft get id:i[]! additional:s[]
Attachment upload file:s! is_inline:b
Attachment upload_sticker id:i!
Attachment upload_vex source:s! is_inline:b
Sticker add file:s!
Sticker delete id:i[]!
Sticker list category:i
Sticker get id:i!
Setting.ForwardReply set forward_enable:b! forward_addr:s keep_copy:b reply_enable:b!
  reply_begin_time:i reply_end_time:i subject:s message:s
Setting.ForwardReply get
Mailbox delete id:i[]!
Mailbox create name:s! parent_id:i subscribed:b
Mailbox set id:i! name:s parent_id:i subscribed:b
Mailbox list subscription:b additional:s[]
Mailbox get id:i[]! additional:s[]
Setting.General set conversations_per_page:i mark_as_read_time:i display_external_image:b
Setting.General get
Message set_read id:i[]! read:b!
Message set_mailbox id:i[]! mailbox_id:i!
Message set_star id:i[]! star:i!
Message get id:i[]! body_type:s[] additional:s[]
)";

// Requests whose outcome the parameter lists cannot tell, one a line:
// [multipart] API method {parameters} => outcome, the outcome "pass" or the
// name and reason of error 120. "multipart" marks an upload. A checker that
// wrote more than one error would leave a later one in place, so a case with
// several faults also shows that only the first is written.
constexpr char kCases[] = R"(
# Presence and type of every parameter, then elements, then value conditions;
# within a pass, the row's order.
Thread set_mailbox {"mailbox_id": "5"} => id required
Thread set_mailbox {"id": [1, "x"], "mailbox_id": "5"} => mailbox_id type
Thread set_mailbox {"id": [1, "x"], "mailbox_id": 0} => id type
Draft set {"id": 0, "draft_type": 3} => id condition
Draft send {"draft_type": 3, "refer_to": 0} => draft_type condition
Setting.ForwardReply set {"forward_enable": false, "reply_enable": true, "reply_begin_time": 0,
  "reply_end_time": 0} => reply_begin_time condition
# Integer elements are JSON integers of 32 bits.
Thread get {"id": [5.0]} => id type
Thread get {"id": [2147483648]} => id type
Thread get {"id": [2147483647, -2147483648, 0]} => pass
# Nested condition and action objects: every member optional, each typed.
Filter create {"condition": [{"name": "from", "value": "a@b", "not_operator": true},
  {"name": null}], "action": [{"name": "move", "value": "3", "not_operator": "x"}]} => pass
Filter create {"condition": [{"name": 1}], "action": []} => condition type
Filter create {"condition": [{"value": ["a"]}], "action": []} => condition type
Filter create {"condition": [{"not_operator": "yes"}], "action": []} => condition type
Filter create {"condition": [], "action": [{"value": true}]} => action type
Filter set {"id": 1, "condition": [{}, {"not_operator": 1}]} => condition type
Filter set {"id": 1, "action": [{"name": 2}]} => action type
Thread list {"condition": [{"not_operator": 0}]} => condition type
# Each row's list of allowed "additional" words, and a word of another list.
Label list {"additional": ["unread_count"]} => pass
Label list {"additional": ["draft_total_count"]} => additional condition
Label get {"id": [1], "additional": ["unread_count"]} => pass
Label get {"id": [1], "additional": ["draft_total_count"]} => additional condition
Mailbox list {"additional": ["unread_count", "draft_total_count"]} => pass
Mailbox list {"additional": ["blockquote"]} => additional condition
Mailbox get {"id": [1], "additional": ["draft_total_count", "unread_count"]} => pass
Mailbox get {"id": [1], "additional": ["unread_count", "body_preview"]} => additional condition
Draft get {"id": [1], "additional": ["body_preview"]} => pass
Draft get {"id": [1], "additional": ["blockquote"]} => additional condition
Message get {"id": [1], "additional": ["blockquote", "body_preview", "block_external_image"]}
  => pass
Message get {"id": [1], "additional": ["draft_total_count"]} => additional condition
# Value conditions; one that applies "when given" holds when the parameter is
# absent or null, as the generated pass shows.
Thread set_mailbox {"id": [1], "mailbox_id": 0} => mailbox_id condition
Thread set_mailbox {"id": [1], "mailbox_id": -3} => pass
Message set_mailbox {"id": [1], "mailbox_id": 0} => mailbox_id condition
Setting.SMTP create {"display_name": "a", "mail": "a@b", "host_name": "h", "port": 25,
  "connection_type": 0} => pass
Setting.SMTP create {"display_name": "a", "mail": "a@b", "host_name": "h", "port": 25,
  "connection_type": 3} => connection_type condition
Setting.SMTP set {"id": 1, "connection_type": -1} => connection_type condition
Draft set {"id": 1, "draft_type": 2} => pass
Draft set {"id": 1, "draft_type": 3} => draft_type condition
Draft send {"refer_to": 0, "id": 0} => refer_to condition
Draft create {"from": "a@b", "refer_to": 0} => refer_to condition
Draft create {"from": "a@b", "draft_type": 7} => pass
Setting.ForwardReply set {"forward_enable": false, "reply_enable": true, "reply_end_time": -1}
  => reply_end_time condition
Mailbox set {"id": 0, "parent_id": 0} => id condition
Message set_star {"id": [1], "star": true} => star type
# Uploads decode their form fields first; other requests are read as sent.
multipart Attachment upload {"file": "a.txt", "file_tmp": "/t", "is_inline": "true"} => pass
Attachment upload {"file": "a.txt", "is_inline": "true"} => is_inline type
multipart Attachment upload {"file": "a.txt", "is_inline": "yes"} => pass
multipart Attachment upload {"file": "a.txt", "is_inline": "\"true\""} => is_inline type
multipart Attachment upload {"is_inline": "true"} => file required
multipart Sticker add {"file": "5"} => pass
)";

// The logical lines of a text block: an indented line continues the one
// before; blank lines and "#" comments are skipped.
std::vector<std::string> Lines(const char* text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    if (line[0] == ' ') {
      lines.back() += line;
    } else {
      lines.push_back(line);
    }
  }
  return lines;
}

// What a checker made of one request: "pass" when it let the request through
// and left the response alone, "<name> <reason>" for error 120 with that data,
// and the whole answer for anything else.
std::string Judge(ZEVO::APIChecker checker, ZEVO::APIRequest& request) {
  ZEVO::APIResponse response;
  const bool passed = checker(&request, &response);
  const Json::Value envelope = response.ToEnvelope();
  const Json::Value& data = envelope["error"]["errors"];
  if (passed && envelope == Parse(R"({"success": true})") && response.IsOutputEnabled()) {
    return "pass";
  }
  if (!passed && envelope["error"]["code"] == 120 && data.size() == 2u) {
    return data["name"].asString() + " " + data["reason"].asString();
  }
  return (passed ? "true with " : "false with ") + ZEVO::WebAPIUtil::ToString(envelope);
}

std::string Judge(ZEVO::APIChecker checker, const Json::Value& params) {
  ZEVO::APIRequest request(params);
  return Judge(checker, request);
}

// For each kind: a value that meets every condition of the table, one of the
// wrong JSON type, and for arrays one holding an element of the wrong kind.
const std::map<std::string, std::array<const char*, 3>> kSamples = {
    {"i", {"1", "\"1\"", nullptr}},         {"s", {"\"x\"", "1", nullptr}},
    {"b", {"true", "\"true\"", nullptr}},   {"i[]", {"[1, 2]", "{}", "[1, \"2\"]"}},
    {"s[]", {"[]", "\"x\"", "[\"x\", 1]"}}, {"o[]", {"[{}]", "{}", "[{}, 1]"}}};

// Each row in its place, then the row of zeros; and what each row's checker
// makes of every parameter missing, null, of the wrong type and holding an
// element of the wrong kind.
TEST(CheckTable, EveryRowInOrder) {
  const ZEVO::APICheckEntry* row = GetAPICheckTable();
  ASSERT_EQ(row, gCheckTable);
  std::set<ZEVO::APIChecker> accepting;
  for (const std::string& line : Lines(kRows)) {
    std::istringstream words(line);
    std::string api, method;
    words >> api >> method;
    SCOPED_TRACE(api + " " + method);
    ASSERT_TRUE(row->api != nullptr && row->method != nullptr && row->checker != nullptr);
    EXPECT_EQ("ZEVO.Larkpost." + api, row->api);
    EXPECT_EQ(method, row->method);
    EXPECT_TRUE(row->version == 1 && row->reserved1 == nullptr && row->reserved2 == nullptr);

    Json::Value full(Json::objectValue), minimal(Json::objectValue);
    std::vector<std::pair<std::string, std::string>> params;  // name, kind
    for (std::string word; words >> word;) {
      const size_t colon = word.find(':');
      std::string name = word.substr(0, colon), kind = word.substr(colon + 1);
      const bool required = kind.back() == '!';
      if (required) kind.pop_back();
      full[name] = Parse(kSamples.at(kind)[0]);
      if (required) minimal[name] = full[name];
      params.emplace_back(name, kind);
    }
    EXPECT_EQ(Judge(row->checker, full), "pass");
    EXPECT_EQ(Judge(row->checker, minimal), "pass");
    if (params.empty()) {
      accepting.insert(row->checker);
      EXPECT_EQ(Judge(row->checker, Parse(R"({"id": "x", "additional": [5]})")), "pass");
    }
    for (const auto& [name, kind] : params) {
      SCOPED_TRACE(name);
      Json::Value request = full;
      request.removeMember(name);
      const std::string absent = minimal.isMember(name) ? name + " required" : "pass";
      EXPECT_EQ(Judge(row->checker, request), absent);
      request[name] = Json::Value();
      EXPECT_EQ(Judge(row->checker, request), absent);
      for (const char* wrong : {kSamples.at(kind)[1], kSamples.at(kind)[2]}) {
        if (wrong == nullptr) continue;
        request[name] = Parse(wrong);
        EXPECT_EQ(Judge(row->checker, request), name + " type") << wrong;
      }
    }
    ++row;
  }
  EXPECT_EQ(row - gCheckTable, 50);
  EXPECT_EQ(accepting.size(), 1u) << "the rows that accept everything share one checker";
  EXPECT_TRUE(row->api == nullptr && row->version == 0 && row->method == nullptr &&
              row->checker == nullptr && row->reserved1 == nullptr && row->reserved2 == nullptr);
}

TEST(CheckTable, CasesTheRowsCannotTell) {
  for (const std::string& line : Lines(kCases)) {
    const size_t open = line.find('{'), arrow = line.rfind(" => ");
    std::istringstream words(line.substr(0, open));
    std::string api, method;
    words >> api;
    const bool upload = api == "multipart";
    if (upload) words >> api;
    words >> method;
    const ZEVO::APICheckEntry* row = GetAPICheckTable();
    while (row->api != nullptr && ("ZEVO.Larkpost." + api != row->api || method != row->method)) {
      ++row;
    }
    Json::Value params = Parse(line.substr(open, arrow - open));
    ASSERT_TRUE(row->checker != nullptr && params.isObject()) << line;
    params["note"] = "not JSON";
    ZEVO::APIRequest request(params);
    request.SetUploadRequest(upload);
    EXPECT_EQ(Judge(row->checker, request), line.substr(arrow + 4)) << line;
    // An upload's checker leaves the fields decoded for the handler.
    EXPECT_EQ(request.HasParam("note"), !upload) << line;
  }
}

}  // namespace
