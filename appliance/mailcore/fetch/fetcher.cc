#include "appliance/mailcore/fetch/fetcher.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdint>
#include <limits>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/delivery.h"
#include "appliance/mailcore/fetch/pop3_client.h"
#include "appliance/mailcore/mime/mime_parser.h"
#include "appliance/mailcore/pop3_store.h"
#include "appliance/system/clock.h"
#include "platform/mailcore/constant.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/error.h"
#include "platform/zevo/notify.h"

namespace ornic::larkpost::fetch {
namespace {

constexpr int kInbox = control::DefaultMailbox::id<constant::kInbox>();
constexpr int64_t kDay = 24 * 3600;

// An exclusive lock on the account's lock file, held while it lives; not
// taken (held() false) when another fetch of the account holds it.
class AccountLock {
 public:
  AccountLock(uint32_t uid, int account_id) {
    const std::string store = store::StorePath(uid);
    const std::string path =
        store.substr(0, store.rfind('/')) + "/pop3-" + std::to_string(account_id) + ".lock";
    fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0) {
      store::LogError("fetch", __LINE__, "cannot open " + path + ": " + strerror(errno));
      throw Error(kErrorStorage);
    }
    held_ = flock(fd_, LOCK_EX | LOCK_NB) == 0;
  }
  ~AccountLock() { close(fd_); }
  AccountLock(const AccountLock&) = delete;
  AccountLock& operator=(const AccountLock&) = delete;

  bool held() const { return held_; }

 private:
  int fd_ = -1;
  bool held_ = false;
};

// The mailbox that receives the account's mail; the inbox when its own is
// gone, so that mail keeps coming in.
int MailboxId(control::Controller& controller, const std::string& path) {
  const int id = store::FetchMailboxId(controller, path);
  if (id > 0) return id;
  store::LogError("fetch", __LINE__, "no mailbox " + path + "; fetched mail goes to the inbox");
  return kInbox;
}

// Remembers that the account took the message with `uidl`.
void Remember(store::Database& db, int account_id, const std::string& uidl) {
  store::Guard("remembering a UIDL", [&] {
    store::Transaction transaction(db);
    store::RememberUidl(db, account_id, uidl);
    transaction.Commit();
  });
}

// The session with the server: everything after the account was read.
// Returns the error text, "" when the fetch went through.
std::string Fetch(control::Controller& controller, const store::Pop3Account& account,
                  const FetchOptions& options, int64_t now, int* stored) {
  store::Database& db = controller.impl().db();
  Pop3Server server;
  server.host = account.host_name;
  server.port = account.port;
  server.implicit_tls = account.enable_ssl;
  server.user_name = account.user_name;
  server.password = account.password;
  server.ca_file = options.ca_file;
  server.stop = options.stop;
  Pop3Client client(server);
  std::vector<std::pair<int, std::string>> listing;
  if (!client.ListUidls(&listing)) return client.error();

  std::set<std::string> listed;
  for (const auto& entry : listing) listed.insert(entry.second);
  store::ForgetUidlsExcept(db, account.id, listed);
  const std::set<std::string> remembered = store::RememberedUidls(db, account.id);
  const int mailbox_id = MailboxId(controller, account.mailbox_path);
  // Only the first fetch is limited to the last days.
  const int64_t oldest = !account.first_fetch_done && account.fetch_pass_days > 0
                             ? now - int64_t{account.fetch_pass_days} * kDay
                             : std::numeric_limits<int64_t>::min();

  for (const auto& [number, uidl] : listing) {
    if (remembered.count(uidl) != 0) {
      // Stored before, but the session that should have deleted it was cut
      // short (a deletion counts only at QUIT).
      if (account.delete_after_fetch && !client.Delete(number)) break;
      continue;
    }
    if (options.stop != nullptr && *options.stop) return "stopped before the end of the maildrop";
    std::string raw;
    if (!client.Retrieve(number, &raw)) break;
    store::NewMessage message = mime::ParseMessage(std::move(raw), now);
    if (message.arrival_time < oldest) {
      Remember(db, account.id, uidl);
      continue;
    }
    // A fetched message arrives now, whatever its Date header claims.
    message.arrival_time = now;
    message.mailbox_id = mailbox_id;
    try {
      // Filters, forwarding and the vacation reply apply as to any new mail.
      // A message that a rule deleted or that was forwarded without a copy
      // is taken from the server all the same, but not counted as stored.
      // The UIDL commits with the message: a process killed or a disk
      // full between the two would otherwise fetch it a second time.
      const auto remember = [&] { store::RememberUidl(db, account.id, uidl); };
      if (store::Deliver(controller, message, remember).id > 0) ++*stored;
      // A forward without a copy stores nothing to go with it: remembered
      // on its own (should the process die just before, the message comes
      // again, never lost).
      Remember(db, account.id, uidl);
    } catch (const Error& error) {
      return "storing message " + uidl + " failed (error " + std::to_string(error.ErrorCode()) +
             "); it stays on the server";
    }
    if (account.delete_after_fetch && !client.Delete(number)) break;
  }
  return client.error();
}

}  // namespace

FetchOutcome FetchAccount(control::Controller& controller, int account_id,
                          const FetchOptions& options) {
  FetchOutcome outcome;
  outcome.account_id = account_id;
  store::Database& db = controller.impl().db();
  std::optional<store::Pop3Account> account;
  try {
    account = store::LoadPop3Account(db, account_id);
  } catch (const Error& error) {
    // A password that does not open under the data root's key (logged).
    outcome.error = "POP3 account " + std::to_string(account_id) + " cannot be read (error " +
                    std::to_string(error.ErrorCode()) + ")";
    return outcome;
  }
  if (!account) {
    outcome.error = "no POP3 account " + std::to_string(account_id);
    return outcome;
  }
  AccountLock lock(controller.uid(), account_id);
  if (!lock.held()) {
    outcome.busy = true;
    return outcome;
  }
  const int64_t now = ::larkpost::appliance::UnixTime();
  outcome.error = Fetch(controller, *account, options, now, &outcome.stored);
  if (!outcome.error.empty()) {
    store::LogError("fetch", __LINE__,
                    "POP3 account " + std::to_string(account_id) + ": " + outcome.error);
  }
  store::RecordFetch(db, account_id, now, outcome.error, outcome.error.empty());
  if (outcome.stored > 0) ZEVOLarkpostNotifyMailboxUpdate(controller.uid());
  return outcome;
}

std::vector<FetchOutcome> FetchAllAccounts(control::Controller& controller,
                                           const FetchOptions& options) {
  std::vector<FetchOutcome> outcomes;
  for (const store::Pop3Account& account : store::LoadPop3Accounts(controller.impl().db())) {
    outcomes.push_back(FetchAccount(controller, account.id, options));
  }
  return outcomes;
}

}  // namespace ornic::larkpost::fetch
