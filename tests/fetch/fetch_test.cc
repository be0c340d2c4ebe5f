// Fetching POP3 accounts for real: libcurl's POP3 client against the test
// server on loopback, into a fresh store through the delivery path.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <string>
#include <vector>

#include "appliance/mailcore/fetch/fetcher.h"
#include "appliance/mailcore/pop3_store.h"
#include "tests/fake/syslog_capture.h"
#include "tests/store/store_fixture.h"
#include "tests/support/pop3_server.h"

namespace ornic::larkpost::testing {
namespace {

using ::larkpost::testing::Pop3Server;
const std::string kCert = std::string(LARKPOST_TLS_FIXTURES) + "/cert.pem";
const std::string kKey = std::string(LARKPOST_TLS_FIXTURES) + "/key.pem";

// A message dated `date` (Unix seconds) with a body of `size` bytes.
std::string Message(const std::string& subject, int64_t date, size_t size = 40) {
  char when[64];
  time_t t = static_cast<time_t>(date);
  strftime(when, sizeof when, "%a, %d %b %Y %H:%M:%S +0000", gmtime(&t));
  std::string body;
  while (body.size() < size) body += "line of text\n.leading dot\n";
  return "From: Carol <carol@example.net>\nTo: alice@example.org\nSubject: " + subject +
         "\nDate: " + when + "\nMessage-ID: <" + subject + "@example.net>\n\n" + body;
}

struct Account {
  bool enable_ssl = false;
  bool delete_after_fetch = false;
  std::string mailbox_path;
  int fetch_pass_days = 0;
  std::string password = "secret";
};

class FetchTest : public StoreTest {
 protected:
  FetchTest() { ::larkpost::fake::ResetSystemLog(); }

  static control::POP3Configure Configure(uint16_t port, const Account& account = {}) {
    control::POP3Configure config;
    config.mail.Set("alice@example.net");
    config.server_provider.Set(0);
    config.host_name.Set("127.0.0.1");
    config.port.Set(port);
    config.user_name.Set("user");
    config.password.Set(account.password);
    config.enable_ssl.Set(account.enable_ssl);
    config.delete_after_fetch.Set(account.delete_after_fetch);
    config.mailbox_path.Set(account.mailbox_path);
    config.fetch_pass_days.Set(account.fetch_pass_days);
    return config;
  }

  int AddAccount(uint16_t port, const Account& account = {}) {
    const int id = settings_.CreatePOP3(Configure(port, account));
    EXPECT_GT(id, 0);
    return id;
  }

  fetch::FetchOutcome Fetch(int account, const std::string& ca_file = kCert) {
    return fetch::FetchAccount(controller(), account, fetch::FetchOptions{ca_file});
  }

  // Subjects of the stored messages of `mailbox`, in id order.
  Texts Subjects(int mailbox = kInbox) {
    Texts subjects;
    store::Statement select(db(), "SELECT subject FROM message WHERE mailbox_id = ?1 ORDER BY id");
    select.Bind(1, mailbox);
    while (select.Step()) subjects.push_back(select.Text(0));
    return subjects;
  }

  store::Pop3Account Stored(int account) { return store::LoadPop3Account(db(), account).value(); }

  control::SettingControl settings_{controller()};
};

TEST_F(FetchTest, NoMessageIsFetchedTwice) {
  Pop3Server server;
  server.Add("u1", Message("one", clock_.now()));
  server.Add("u2", Message("two", clock_.now()));
  const int account = AddAccount(server.port());

  fetch::FetchOutcome first = Fetch(account);
  EXPECT_EQ(first.error, "");
  EXPECT_EQ(first.stored, 2);
  server.Add("u3", Message("three", clock_.now()));
  EXPECT_EQ(Fetch(account).stored, 1);
  EXPECT_EQ(Fetch(account).stored, 0);

  EXPECT_EQ(Subjects(), (Texts{"one", "two", "three"}));
  EXPECT_EQ(server.uidls(), (Texts{"u1", "u2", "u3"}));  // kept without delete_after_fetch
  // Stored as they came: dot-stuffing undone, arrival now, indexed.
  EXPECT_EQ(
      Query("SELECT count(*) FROM message WHERE arrival_time = " + std::to_string(clock_.now())),
      3);
  EXPECT_NE(Query("SELECT instr(plain, '\n.leading dot') FROM message_body LIMIT 1"), 0)
      << "dot-stuffing not undone";
  EXPECT_EQ(Inconsistencies(), Texts{});
  EXPECT_EQ(Stored(account).last_error, "");
  EXPECT_EQ(Stored(account).last_fetch_time, clock_.now());

  // Another login is another maildrop: nothing of the old one is remembered.
  control::POP3Configure relogin;
  relogin.host_name.Set("localhost");
  ASSERT_TRUE(settings_.ModifyPOP3(account, relogin));
  EXPECT_EQ(Fetch(account).stored, 3);
}

// A message and the UIDL that says it was taken commit together: when the
// UIDL cannot be written (a full disk, a killed process), the message is not
// kept either, and the next fetch stores it once.
TEST_F(FetchTest, AMessageAndItsUidlCommitTogether) {
  Pop3Server server;
  server.Add("u1", Message("one", clock_.now()));
  const int account = AddAccount(server.port());
  db().Exec(
      "CREATE TRIGGER no_uidl BEFORE INSERT ON pop3_uidl BEGIN SELECT RAISE(ABORT, 'full'); END");
  EXPECT_NE(Fetch(account).error, "");
  EXPECT_EQ(Subjects(), Texts{});
  db().Exec("DROP TRIGGER no_uidl");
  EXPECT_EQ(Fetch(account).stored, 1);
  EXPECT_EQ(Fetch(account).stored, 0);
  EXPECT_EQ(Subjects(), Texts{"one"});
}

TEST_F(FetchTest, DeletesOnTheServerOnlyWhatIsStored) {
  Pop3Server server;
  for (const char* uidl : {"a", "b", "c"}) server.Add(uidl, Message(uidl, clock_.now()));
  const int keep = AddAccount(server.port());
  EXPECT_EQ(Fetch(keep).stored, 3);
  EXPECT_EQ(server.uidls().size(), 3u);

  // The server goes away in the middle of the second message.
  const int remove = AddAccount(server.port(), {false, true, "", 0});
  server.DropAfter(1);
  fetch::FetchOutcome cut = Fetch(remove);
  EXPECT_EQ(cut.stored, 1);
  EXPECT_NE(cut.error, "");
  EXPECT_EQ(Stored(remove).last_error, cut.error);
  // The session ended without QUIT: the deletion did not count.
  EXPECT_EQ(server.uidls(), (Texts{"a", "b", "c"}));

  server.DropAfter(-1);
  fetch::FetchOutcome rest = Fetch(remove);
  EXPECT_EQ(rest.error, "");
  EXPECT_EQ(rest.stored, 2);
  EXPECT_EQ(server.uidls(), Texts{});
  EXPECT_EQ(Subjects(), (Texts{"a", "b", "c", "a", "b", "c"}));
  EXPECT_EQ(Stored(remove).last_error, "");
}

TEST_F(FetchTest, FetchedMailGoesThroughTheUsersFilters) {
  db().Exec(
      "INSERT INTO mail_filter(position, condition_set, action_set) VALUES"
      " (1, '{\"condition\":[[4,\"offer\",false]],\"match_any\":false}',"
      "  '{\"action\":[[8,\"\"]]}'),"
      " (2, '{\"condition\":[[4,\"report\",false]],\"match_any\":false}',"
      "  '{\"action\":[[1,\"\"]]}')");
  Pop3Server server;
  server.Add("offer", Message("offer", clock_.now()));
  server.Add("report", Message("report", clock_.now()));
  server.Add("hello", Message("hello", clock_.now()));
  Account account;
  account.delete_after_fetch = true;
  fetch::FetchOutcome outcome = Fetch(AddAccount(server.port(), account));
  EXPECT_EQ(outcome.error, "");
  EXPECT_EQ(outcome.stored, 2);  // a rule deleted the offer
  EXPECT_EQ(Subjects(kInbox), Texts{"hello"});
  EXPECT_EQ(Subjects(kArchived), Texts{"report"});
  EXPECT_EQ(server.uidls(), Texts{});  // all three were taken
}

TEST_F(FetchTest, PassDaysLimitTheFirstFetchOnly) {
  Pop3Server server;
  server.Add("old", Message("old", clock_.now() - 10 * kDay));
  server.Add("new", Message("new", clock_.now() - 1 * kDay));
  const int limited = AddAccount(server.port(), {false, false, "", 5});
  const int all = AddAccount(server.port(), {false, false, "Archived", 0});

  EXPECT_EQ(Fetch(limited).stored, 1);
  EXPECT_EQ(Fetch(all).stored, 2);
  server.Add("older", Message("older", clock_.now() - 30 * kDay));
  EXPECT_EQ(Fetch(limited).stored, 1);  // later fetches take everything new
  EXPECT_EQ(Fetch(limited).stored, 0);  // and what the first passed over stays passed

  EXPECT_EQ(Subjects(kInbox), (Texts{"new", "older"}));
  EXPECT_EQ(Subjects(kArchived), (Texts{"old", "new"}));
}

TEST_F(FetchTest, FailuresStoreNothingAndAreKept) {
  Pop3Server wrong_password;
  wrong_password.Add("y", Message("y", clock_.now()));
  Pop3Server stopping;
  stopping.Add("s", Message("s", clock_.now()));
  Pop3Server untrusted(Pop3Server::Tls::kStartTls, kCert, kKey);
  untrusted.Add("z", Message("z", clock_.now()));
  uint16_t closed_port;
  {
    Pop3Server gone;
    closed_port = gone.port();
  }
  struct Case {
    const char* name;
    uint16_t port;
    std::string password;
    std::string ca_file;
    std::string error_part;
    bool stop = false;  // the service is stopping
  } cases[] = {
      // A login the server refuses outright: pop3_fetch_test, through larkpostctl.
      {"wrong password", wrong_password.port(), "guess", kCert,
       "-ERR [AUTH] Authentication failed"},
      {"certificate not trusted", untrusted.port(), "secret", "/dev/null", "127.0.0.1:"},
      {"nobody listening", closed_port, "secret", kCert, "127.0.0.1:"},
      {"service stopping", stopping.port(), "secret", kCert, "aborted", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    clock_.Advance(60);
    Account settings;
    settings.password = c.password;
    const int account = AddAccount(c.port, settings);
    const std::atomic<bool> stop{c.stop};
    fetch::FetchOutcome outcome =
        fetch::FetchAccount(controller(), account, fetch::FetchOptions{c.ca_file, &stop});
    EXPECT_EQ(outcome.stored, 0);
    EXPECT_NE(outcome.error.find(c.error_part), std::string::npos) << outcome.error;
    EXPECT_EQ(outcome.error.find("guess"), std::string::npos);
    EXPECT_EQ(outcome.error.find("secret"), std::string::npos);
    const store::Pop3Account kept = Stored(account);
    EXPECT_EQ(kept.last_error, outcome.error);
    EXPECT_EQ(kept.last_fetch_time, clock_.now());
    EXPECT_FALSE(kept.first_fetch_done);
    EXPECT_EQ(settings_.ListPOP3().back().last_error, outcome.error);
  }
  EXPECT_EQ(Query("SELECT count(*) FROM message"), 0);
  EXPECT_EQ(Query("SELECT count(*) FROM pop3_uidl"), 0);
  EXPECT_EQ(wrong_password.uidls(), Texts{"y"});
  EXPECT_EQ(stopping.uidls(), Texts{"s"});
  EXPECT_EQ(untrusted.tls_sessions(), 0);
}

TEST_F(FetchTest, TlsAsTheAccountAsksAndTheServerOffers) {
  Pop3Server starttls(Pop3Server::Tls::kStartTls, kCert, kKey);
  starttls.Add("s", Message("starttls", clock_.now()));
  Pop3Server implicit(Pop3Server::Tls::kImplicit, kCert, kKey);
  implicit.Add("i", Message("implicit", clock_.now()));

  EXPECT_EQ(Fetch(AddAccount(starttls.port())).stored, 1);
  EXPECT_EQ(Fetch(AddAccount(implicit.port(), {true, false, "", 0})).stored, 1);
  EXPECT_EQ(starttls.tls_sessions(), 1);
  EXPECT_EQ(implicit.tls_sessions(), 1);
  EXPECT_EQ(Subjects(), (Texts{"starttls", "implicit"}));
  // The login went over TLS only after STLS.
  const Texts commands = starttls.commands();
  ASSERT_GE(commands.size(), 3u);
  EXPECT_EQ(commands[0], "CAPA");
  EXPECT_EQ(commands[1], "STLS");
}

TEST_F(FetchTest, AccountsRefuseWhatMeansNothingAndKeepPasswordsSealed) {
  using Change = void (*)(control::POP3Configure&);
  const std::pair<const char*, Change> refused[] = {
      {"no fetch_pass_days", [](control::POP3Configure& c) { c.fetch_pass_days = {}; }},
      {"no password", [](control::POP3Configure& c) { c.password = {}; }},
      {"empty user name", [](control::POP3Configure& c) { c.user_name.Set(""); }},
      {"empty host", [](control::POP3Configure& c) { c.host_name.Set(""); }},
      {"port 0", [](control::POP3Configure& c) { c.port.Set(0); }},
      {"port 65536", [](control::POP3Configure& c) { c.port.Set(65536); }},
      {"negative days", [](control::POP3Configure& c) { c.fetch_pass_days.Set(-1); }},
      {"no such mailbox", [](control::POP3Configure& c) { c.mailbox_path.Set("Nowhere"); }},
      {"virtual mailbox", [](control::POP3Configure& c) { c.mailbox_path.Set("Starred"); }},
  };
  for (const auto& [name, change] : refused) {
    control::POP3Configure config = Configure(110);
    change(config);
    EXPECT_EQ(settings_.CreatePOP3(config), 0) << name;
  }
  EXPECT_EQ(Query("SELECT count(*) FROM pop3_account"), 0);

  Account account;
  account.password = "hunter2";
  const int id = AddAccount(110, account);
  EXPECT_EQ(Query("SELECT count(*) FROM pop3_account WHERE instr(password, 'hunter2')"), 0);
  control::POP3Configure change;
  change.mail.Set("other@example.net");
  EXPECT_TRUE(settings_.ModifyPOP3(id, change));
  EXPECT_FALSE(settings_.ModifyPOP3(id + 1, change));
  change.mailbox_path.Set("Nowhere");
  EXPECT_FALSE(settings_.ModifyPOP3(id, change));
  const store::Pop3Account kept = Stored(id);
  EXPECT_EQ(kept.mail, "other@example.net");
  EXPECT_EQ(kept.port, 110);
  EXPECT_EQ(kept.password, "hunter2");  // not sent, not changed

  EXPECT_FALSE(settings_.DeletePOP3({id, id + 1}));
  EXPECT_EQ(settings_.ListPOP3().size(), 1u);
  EXPECT_TRUE(settings_.DeletePOP3({id}));
  EXPECT_EQ(settings_.ListPOP3().size(), 0u);
}

TEST_F(FetchTest, OneFetchOfAnAccountAtATime) {
  Pop3Server server;
  server.Add("u", Message("u", clock_.now()));
  const int account = AddAccount(server.port());
  const std::string store = store::StorePath(uid_);
  const std::string lock =
      store.substr(0, store.rfind('/')) + "/pop3-" + std::to_string(account) + ".lock";
  const int fd = open(lock.c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  fetch::FetchOutcome busy = Fetch(account);
  EXPECT_TRUE(busy.busy);
  EXPECT_EQ(busy.stored, 0);
  EXPECT_EQ(server.sessions(), 0);
  close(fd);
  EXPECT_EQ(Fetch(account).stored, 1);
}

}  // namespace
}  // namespace ornic::larkpost::testing
