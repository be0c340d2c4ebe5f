// The background service's fetch schedule, in process: which users' accounts
// it fetches on its own, and a user's accounts at once when asked.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/service/fetch_scheduler.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/db_setup.h"
#include "platform/mailcore/sync.h"
#include "tests/support/pop3_server.h"
#include "tests/system/temp_root.h"

namespace larkpost::service {
namespace {

using namespace std::chrono_literals;
namespace control = ornic::larkpost::control;
namespace store = ornic::larkpost::store;
using ::larkpost::testing::Pop3Server;

std::string Message(const std::string& subject) {
  return "From: carol@example.net\nSubject: " + subject + "\n\nHi.\n";
}

class FetchSchedulerTest : public ::testing::Test {
 protected:
  // A user of `domain` with an account on `server`; its uid.
  uint32_t AddUser(const std::string& name, const std::string& domain, const Pop3Server& server) {
    const uint32_t uid = appliance::UserStore::Add(name, "pw", false, domain);
    EXPECT_TRUE(ornic::larkpost::db::DBSetupHandler(uid).SetupDB());
    control::Controller controller(uid);
    control::MailboxSyncer::CheckDefaultMailbox(controller);
    control::POP3Configure config;
    config.mail.Set(name + "@example.net");
    config.server_provider.Set(0);
    config.host_name.Set("127.0.0.1");
    config.port.Set(server.port());
    config.user_name.Set("user");
    config.password.Set("secret");
    config.enable_ssl.Set(false);
    config.delete_after_fetch.Set(false);
    config.mailbox_path.Set("INBOX");
    config.fetch_pass_days.Set(0);
    EXPECT_GT(control::SettingControl(controller).CreatePOP3(config), 0);
    return uid;
  }

  // How many messages the user has once there are `count` (waits up to 10
  // s), through a connection of the test's own.
  int64_t Messages(uint32_t uid, int64_t count) {
    int64_t found = 0;
    for (auto end = std::chrono::steady_clock::now() + 10s; std::chrono::steady_clock::now() < end;
         std::this_thread::sleep_for(20ms)) {
      found = store::Open(uid, false)->QueryInt("SELECT count(*) FROM message");
      if (found >= count) break;
    }
    return found;
  }

  ::larkpost::testing::TempRoot root_;
  ::larkpost::testing::FakeClock clock_{1700000000};
};

TEST_F(FetchSchedulerTest, FetchesDueAccountsWhereAllowedAndAskedOnesAtOnce) {
  Pop3Server open_server, closed_server;
  open_server.Add("a", Message("a"));
  closed_server.Add("b", Message("b"));
  const uint32_t allowed = AddUser("alice", "open.example", open_server);
  const uint32_t refused = AddUser("bob", "closed.example", closed_server);
  store::CloseConnections();

  FetchScheduler scheduler([](const std::string& domain) {
    return domain == "open.example" ? FetchPolicy{true, 30} : FetchPolicy{false, 30};
  });
  // Never fetched: due at once.
  EXPECT_EQ(Messages(allowed, 1), 1);

  // Within its period the account waits, unless a settings sync asks.
  open_server.Add("c", Message("c"));
  scheduler.FetchNow(allowed);
  EXPECT_EQ(Messages(allowed, 2), 2);
  scheduler.FetchNow(refused);
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(closed_server.sessions(), 0);
  EXPECT_EQ(open_server.sessions(), 2);
}

}  // namespace
}  // namespace larkpost::service
