// What a user can make the appliance read, through the real host: share
// paths that leave their share or pass through a link are refused for users
// and administrators alike, and an "image" that is really a drawing naming
// other files gets no preview and leaves no copy behind.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "tests/integration/integration_util.h"

namespace larkpost::itest {
namespace {

namespace fs = std::filesystem;

class ShareSecurityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "homes are handed over to their users by a root host";
    root_.WriteConfig(R"({"login_failure_delay_ms": 50, "shares": {"public": ")" + Path("public") +
                      R"("}})");
    ann_ = root_.AddUser("ann", "secret");
    root_.AddUser("boss", "secret", /*admin=*/true);
    Write("public/readme", "for everyone", 0, 0644);
    chmod(Path("public").c_str(), 0755);
    Write("homes/ann/doc.txt", "ann's", ann_, 0600);
    Write("homes/ann/dir/note.txt", "ann's note", ann_, 0600);
    chown(Path("homes/ann/dir").c_str(), ann_, 0);
    fs::create_directory_symlink("dir", Path("homes/ann/to-dir"));
    Write("homes/boss/secret", "the boss's", 0, 0600);
    server_ = std::make_unique<Server>(root_);
  }

  std::string Path(const std::string& relative) const { return root_.path() + "/" + relative; }
  void Write(const std::string& relative, const std::string& text, uid_t owner, mode_t mode) {
    fs::create_directories(fs::path(Path(relative)).parent_path());
    std::ofstream(Path(relative)) << text;
    ASSERT_EQ(chown(Path(relative).c_str(), owner, 0), 0);
    ASSERT_EQ(chmod(Path(relative).c_str(), mode), 0);
  }

  std::string Login(const std::string& account) {
    HttpAnswer login =
        Http(server_->url("/webapi/auth.cgi"), {{"account", account}, {"passwd", "secret"}}, true);
    EXPECT_TRUE(login.json["success"].asBool()) << login.body;
    const std::string sid = login.json["data"]["sid"].asString();
    tokens_[sid] = login.json["data"]["token"].asString();
    // The first call of a session makes the user's store.
    EXPECT_TRUE(Call(sid, "ZEVO.Larkpost.Info", "getinfo", {}).json["success"].asBool());
    return sid;
  }
  HttpAnswer Call(const std::string& sid, const std::string& api, const std::string& method,
                  std::map<std::string, std::string> form, bool post = true) {
    form.insert({{"api", api}, {"version", "1"}, {"method", method}, {"_sid", sid}});
    form.insert({"_token", tokens_[sid]});
    return Http(server_->url("/webapi/entry.cgi"), form, post);
  }

  // The upload folder of ann's application folder.
  std::vector<std::string> Uploads() const {
    std::vector<std::string> names;
    std::error_code ignored;
    const std::string dir = root_.path() + "/mail/" + std::to_string(ann_) + "/.ORNIC/@tmp";
    for (const auto& entry : fs::directory_iterator(dir, ignored)) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

  DataRoot root_;
  uint32_t ann_ = 0;
  std::unique_ptr<Server> server_;
  std::map<std::string, std::string> tokens_;  // session id -> its token
};

TEST_F(ShareSecurityTest, UploadVexReadsOnlyBeneathTheShareAndNeverThroughALink) {
  const std::string ann = Login("ann"), boss = Login("boss");
  const struct {
    std::string sid, source;
    bool accepted;
  } cases[] = {
      {ann, "/home/doc.txt", true},
      {ann, "/home/dir/note.txt", true},
      {ann, "/public/readme", true},
      {boss, "/public/readme", true},
      {ann, "/home/../../etc/passwd", false},
      {boss, "/home/../../etc/passwd", false},
      {boss, "/home/../../etc/users.db", false},
      {boss, "/home/../boss/secret", false},
      {boss, "/public/../../../proc/self/environ", false},
      {boss, "/public/../homes/boss/secret", false},
      {ann, "/home/to-dir/note.txt", false},
  };
  for (const auto& c : cases) {
    const std::string who = (c.sid == ann ? "ann " : "boss ") + c.source;
    HttpAnswer answer =
        Call(c.sid, "ZEVO.Larkpost.Attachment", "upload_vex", {{"source", c.source}});
    EXPECT_EQ(answer.json["success"].asBool(), c.accepted) << who << ": " << answer.body;
    if (!c.accepted) {
      EXPECT_FALSE(answer.json.isMember("data")) << who;
    }
  }
}

TEST_F(ShareSecurityTest, ADrawingCalledPngGetsNoPreviewAndLeavesNoCopy) {
  const std::string svg =
      "<svg xmlns='http://www.w3.org/2000/svg' xmlns:xlink='http://www.w3.org/1999/xlink' "
      "width='64' height='64'><image xlink:href='" +
      Path("homes/boss/secret") + "' width='64' height='64'/></svg>";
  ProcessResult delivered =
      root_.Ctl({"deliver", "ann"},
                "From: Mallory <m@example.org>\r\nTo: ann@localdomain\r\nSubject: A picture\r\n"
                "Message-ID: <picture@example.org>\r\nMIME-Version: 1.0\r\n"
                "Content-Type: multipart/mixed; boundary=\"b1\"\r\n\r\n"
                "--b1\r\nContent-Type: text/plain\r\n\r\nLook.\r\n"
                "--b1\r\nContent-Type: image/png; name=\"photo.png\"\r\n"
                "Content-Disposition: attachment; filename=\"photo.png\"\r\n\r\n" +
                    svg + "\r\n--b1--\r\n");
  ASSERT_EQ(delivered.exit_code, 0) << delivered.err;
  const std::string sid = Login("ann");
  HttpAnswer threads = Call(sid, "ZEVO.Larkpost.Thread", "list",
                            {{"condition", R"([{"name": "mailbox", "value": "1"}])"}});
  const int message = threads.json["data"]["thread"][0]["message"][0]["id"].asInt();
  HttpAnswer got =
      Call(sid, "ZEVO.Larkpost.Message", "get", {{"id", "[" + std::to_string(message) + "]"}});
  const Json::Value attachment = got.json["data"]["message"][0]["attachment"][0];
  ASSERT_EQ(attachment["name"].asString(), "photo.png") << got.body;

  HttpAnswer thumb = Call(sid, "ZEVO.Larkpost.Attachment", "download",
                          {{"id", attachment["id"].asString()}, {"type", "thumb"}}, false);
  EXPECT_EQ(thumb.status, 404);
  EXPECT_EQ(thumb.body.find("the boss's"), std::string::npos);

  // The failed conversion's content stays until the sweep of the user's next
  // upload, once nobody has touched it for a while.
  std::vector<std::string> left = Uploads();
  ASSERT_EQ(left.size(), 1u);
  const std::string stray =
      root_.path() + "/mail/" + std::to_string(ann_) + "/.ORNIC/@tmp/" + left[0];
  const auto upload = [&](const std::string& name) {
    const HttpAnswer answer = HttpUpload(
        server_->url(
            "/webapi/entry.cgi?api=ZEVO.Larkpost.Attachment&version=1&method=upload&_sid=" + sid +
            "&_token=" + tokens_[sid]),
        {}, {{"upload", name, "text"}});
    EXPECT_TRUE(answer.json["success"].asBool()) << answer.body;
  };
  upload("a.txt");
  EXPECT_TRUE(fs::exists(stray)) << "a file in flight is never swept";
  const struct timeval hour_ago[2] = {{time(nullptr) - 3600, 0}, {time(nullptr) - 3600, 0}};
  ASSERT_EQ(utimes(stray.c_str(), hour_ago), 0);
  upload("b.txt");
  EXPECT_FALSE(fs::exists(stray));
  EXPECT_EQ(Uploads().size(), 2u) << "the two uploads stay";
}

}  // namespace
}  // namespace larkpost::itest
