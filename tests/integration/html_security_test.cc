// A hostile message read through lighttpd, the way the web client reads it:
// nothing in what "get" returns may make the reader's browser call our own
// API or cover the page, while the message's own inline image still shows;
// and read with its quotes apart, the quotes leave the body.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "tests/integration/integration_util.h"

namespace larkpost::itest {
namespace {

// A 1x1 PNG.
constexpr char kPngBase64[] =
    "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mNk+"
    "M9QDwADhgGAWjR9awAAAABJRU5ErkJggg==";

constexpr char kQuote[] =
    "<blockquote data-larkpost-quote=\"0\">Earlier: send the figures.</blockquote>";

std::string HostileMessage(const std::string& own_server) {
  return "From: Mallory <mallory@example.net>\r\n"
         "To: ann@localdomain\r\n"
         "Subject: Figures\r\n"
         "Message-ID: <figures@example.net>\r\n"
         "MIME-Version: 1.0\r\n"
         "Content-Type: multipart/related; boundary=\"b1\"\r\n"
         "\r\n"
         "--b1\r\n"
         "Content-Type: text/html; charset=utf-8\r\n"
         "\r\n"
         "<p>Figures below.</p>\r\n"
         // Fifteen of these made as many thumbnail conversions per view.
         "<img src=\"/webapi/entry.cgi?api=ZEVO.Larkpost.Attachment&amp;version=1&amp;"
         "method=upload_vex&amp;path=%2Fhome%2Fbig.iso\">\r\n"
         "<img src=\"entry.cgi?api=ZEVO.Larkpost.Info&amp;version=1&amp;method=getinfo\">\r\n"
         "<img src=\"" +
         own_server +
         "/webapi/entry.cgi?api=ZEVO.Larkpost.Info&amp;version=1&amp;method=getinfo\">\r\n"
         "<img src=\"/webapi/entry.cgi?api=ZEVO.Larkpost.Attachment&amp;version=1&amp;"
         "method=download&amp;id=1&amp;_token=forged\">\r\n"
         "<a href=\"../webapi/entry.cgi?api=ZEVO.Larkpost.Mailbox&amp;version=1&amp;"
         "method=clear_message\">click</a>\r\n"
         "<div style=\"position:fixed; top:0; left:0; z-index:2147483647; transform:scale(3);"
         " background:url(/webapi/entry.cgi?x=1)\">Session expired: log in again</div>\r\n"
         "<p style=\"margin-top:-300px; color: red\">up</p>\r\n"
         "<img src=\"cid:chart@example.net\" alt=\"chart\">\r\n" +
         kQuote +
         "\r\n"
         "<p>Bye</p>\r\n"
         "--b1\r\n"
         "Content-Type: image/png; name=\"chart.png\"\r\n"
         "Content-Disposition: inline; filename=\"chart.png\"\r\n"
         "Content-ID: <chart@example.net>\r\n"
         "Content-Transfer-Encoding: base64\r\n"
         "\r\n" +
         kPngBase64 +
         "\r\n"
         "--b1--\r\n";
}

TEST(HtmlSecurityTest, HostileMessageReadsWithoutCallingTheApiOrCoveringThePage) {
  DataRoot root;
  root.WriteConfig(R"({"login_failure_delay_ms": 50})");
  root.AddUser("ann", "secret");
  Server server(root);
  const std::string own_server = server.url("");
  ProcessResult delivered = root.Ctl({"deliver", "ann"}, HostileMessage(own_server));
  ASSERT_EQ(delivered.exit_code, 0) << delivered.err;

  HttpAnswer login =
      Http(server.url("/webapi/auth.cgi"), {{"account", "ann"}, {"passwd", "secret"}}, true);
  ASSERT_TRUE(login.json["success"].asBool()) << login.body;
  const std::string token = login.json["data"]["token"].asString();
  const std::map<std::string, std::string> browser = {
      {"Cookie", "id=" + login.json["data"]["sid"].asString()}, {"X-ZEVO-Token", token}};
  const auto call = [&](const std::map<std::string, std::string>& form) {
    HttpAnswer answer = Http(server.url("/webapi/entry.cgi"), form, true, browser);
    EXPECT_TRUE(answer.json["success"].asBool()) << answer.body;
    return answer.json["data"];
  };
  const Json::Value threads = call({{"api", "ZEVO.Larkpost.Thread"},
                                    {"version", "1"},
                                    {"method", "list"},
                                    {"condition", R"([{"name": "mailbox", "value": "1"}])"}});
  const std::string id = threads["thread"][0]["message"][0]["id"].asString();
  ASSERT_FALSE(id.empty()) << threads;
  const auto get = [&](const std::string& additional) {
    return call({{"api", "ZEVO.Larkpost.Message"},
                 {"version", "1"},
                 {"method", "get"},
                 {"id", "[" + id + "]"},
                 {"additional", additional}})["message"][0]["body"];
  };

  const std::regex own_image(
      "<img src=\"(/webapi/entry\\.cgi\\?api=ZEVO\\.Larkpost\\.Attachment&amp;version=1&amp;"
      "method=download&amp;id=[0-9]+&amp;_token=" +
      token + ")\" alt=\"chart\" />");
  for (const char* additional : {"[]", R"(["block_external_image"])", R"(["blockquote"])"}) {
    const Json::Value body = get(additional);
    std::string html = body["html"].asString();
    std::smatch image;
    ASSERT_TRUE(std::regex_search(html, image, own_image)) << additional << ": " << html;
    // The message's own image is shown by the address the normaliser wrote.
    std::string url = image[1].str();
    url = std::regex_replace(url, std::regex("&amp;"), "&");
    HttpAnswer shown = Http(server.url(url), {}, false, browser);
    EXPECT_EQ(shown.status, 200) << url;
    EXPECT_EQ(shown.body.substr(0, 8), "\x89PNG\r\n\x1a\n") << url;

    html.erase(image.position(0), image.length(0));
    for (const char* gone : {"webapi", "entry.cgi", "href", "position", "top", "left", "z-index",
                             "transform", "margin", "url("}) {
      EXPECT_EQ(html.find(gone), std::string::npos) << additional << ": " << gone << " in " << html;
    }
    EXPECT_NE(html.find("<p style=\"color: red\">up</p>"), std::string::npos) << html;
    EXPECT_NE(html.find("<div>Session expired: log in again</div>"), std::string::npos) << html;

    // Read with the quotes apart, the quote leaves the body; an empty quote
    // with its index stands where it was. Otherwise the body keeps it.
    if (std::string(additional) == R"(["blockquote"])") {
      EXPECT_EQ(body["blockquote"].size(), 1u) << body;
      EXPECT_EQ(body["blockquote"][0], kQuote);
      EXPECT_NE(html.find("<blockquote data-larkpost-quote=\"0\"></blockquote>\n<p>Bye</p>"),
                std::string::npos)
          << html;
      EXPECT_EQ(html.find("Earlier"), std::string::npos) << html;
    } else {
      EXPECT_FALSE(body.isMember("blockquote")) << body;
      EXPECT_NE(html.find(std::string(kQuote) + "\n<p>Bye</p>"), std::string::npos) << html;
    }
  }
}

}  // namespace
}  // namespace larkpost::itest
