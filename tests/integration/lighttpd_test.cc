// The whole stack on loopback: larkpostctl serve, lighttpd, the CGI host and
// the plug-in, driven the way the web client drives it.
#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/integration/integration_util.h"

namespace larkpost::itest {
namespace {

TEST(LighttpdTest, BrowserSessionFromLoginToLogout) {
  // A data root whose path needs quoting in the web server's syntax.
  DataRoot root("data \"root\"");
  root.AddUser("demo", "demo");
  Server server(root);

  HttpAnswer page = Http(server.url("/index.html"), {}, /*post=*/false);
  EXPECT_EQ(page.status, 200);
  EXPECT_NE(page.body.find("Larkpost"), std::string::npos);
  EXPECT_EQ(Http(server.url("/webapi/other.cgi"), {}, false).status, 403);
  EXPECT_EQ(Http(server.url("/etc/lighttpd.conf"), {}, false).status, 404);

  HttpAnswer login = Http(server.url("/webapi/auth.cgi"), {{"account", "demo"}, {"passwd", "demo"}},
                          /*post=*/true);
  ASSERT_TRUE(login.json["success"].asBool()) << login.body;
  const std::string sid = login.json["data"]["sid"].asString();
  const std::string token = login.json["data"]["token"].asString();
  EXPECT_EQ(login.headers["set-cookie"], "id=" + sid + "; HttpOnly; SameSite=Strict; Path=/");

  const std::map<std::string, std::string> getinfo = {
      {"api", "ZEVO.Larkpost.Info"}, {"version", "1"}, {"method", "getinfo"}};
  const std::string cookie = "id=" + sid;

  HttpAnswer info = Http(server.url("/webapi/entry.cgi"), getinfo, /*post=*/true,
                         {{"Cookie", cookie}, {"X-ZEVO-Token", token}});
  EXPECT_EQ(info.status, 200);
  EXPECT_EQ(info.headers["content-type"], "application/json; charset=utf-8");
  EXPECT_EQ(info.headers["x-content-type-options"], "nosniff");
  EXPECT_TRUE(info.json["data"]["database_ready"].asBool()) << info.body;

  HttpAnswer logout = Http(server.url("/webapi/auth.cgi"), {{"method", "logout"}}, true,
                           {{"Cookie", cookie}, {"X-ZEVO-Token", token}});
  EXPECT_TRUE(logout.json["success"].asBool()) << logout.body;
  EXPECT_EQ(Http(server.url("/webapi/entry.cgi"), getinfo, true,
                 {{"Cookie", cookie}, {"X-ZEVO-Token", token}})
                .json["error"]["code"]
                .asInt(),
            119);

  EXPECT_EQ(server.Stop(), 0) << "Ctrl-C stops the server cleanly";
  EXPECT_THROW(Http(server.url("/index.html"), {}, false), std::runtime_error)
      << "nobody listens any more";
}

}  // namespace
}  // namespace larkpost::itest
