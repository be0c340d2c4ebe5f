#include "appliance/framework/login_throttle.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "appliance/system/clock.h"

namespace larkpost::cgi {
namespace {

namespace sqlite = appliance::sqlite;

constexpr char kSchema[] =
    "CREATE TABLE IF NOT EXISTS failure(account TEXT NOT NULL, client TEXT NOT NULL,"
    " time INTEGER NOT NULL);"
    "CREATE INDEX IF NOT EXISTS failure_by_account ON failure(account, time);"
    "CREATE INDEX IF NOT EXISTS failure_by_client ON failure(client, time);"
    "CREATE INDEX IF NOT EXISTS failure_by_time ON failure(time);"
    "CREATE TABLE IF NOT EXISTS trusted(account TEXT NOT NULL, client TEXT NOT NULL,"
    " time INTEGER NOT NULL, PRIMARY KEY(account, client));";

// Account names are short; a longer text is a name nobody has, and need not
// be kept whole.
constexpr size_t kMaxAccount = 256;

std::string AccountKey(const std::string& account) { return account.substr(0, kMaxAccount); }

}  // namespace

std::string ClientKey(const std::string& remote_addr) {
  in_addr v4;
  in6_addr v6;
  char text[INET6_ADDRSTRLEN];
  if (inet_pton(AF_INET, remote_addr.c_str(), &v4) == 1) {
    return inet_ntop(AF_INET, &v4, text, sizeof(text));
  }
  if (inet_pton(AF_INET6, remote_addr.c_str(), &v6) != 1) return remote_addr;
  if (IN6_IS_ADDR_V4MAPPED(&v6)) {
    std::memcpy(&v4, v6.s6_addr + 12, sizeof(v4));
    return inet_ntop(AF_INET, &v4, text, sizeof(text));
  }
  // One host holds a whole /64 as easily as one address of it.
  std::memset(v6.s6_addr + 8, 0, 8);
  return std::string(inet_ntop(AF_INET6, &v6, text, sizeof(text))) + "/64";
}

LoginThrottle::LoginThrottle(const std::string& path, const ThrottlePolicy& policy)
    : policy_(policy) {
  sqlite::OpenOptions options;
  options.create = true;
  options.keep_wal_files = true;
  db_ = std::make_unique<sqlite::Database>(path, options);
  db_->Exec(kSchema);
}

LoginThrottle::~LoginThrottle() = default;

int64_t LoginThrottle::Reserve(const std::string& account_name, const std::string& client) {
  const std::string account = AccountKey(account_name);
  const int64_t now = appliance::UnixTime();
  // BEGIN IMMEDIATE: the check and the count are one step for all the
  // processes that try at once.
  sqlite::Transaction transaction(*db_);
  sqlite::Statement(*db_, "DELETE FROM failure WHERE time <= ?1")
      .Bind(1, now - policy_.window)
      .Run();
  sqlite::Statement(*db_, "DELETE FROM trusted WHERE time <= ?1")
      .Bind(1, now - policy_.trust_time)
      .Run();
  int64_t wait = 0;
  sqlite::Statement by_client(*db_, "SELECT count(*), min(time) FROM failure WHERE client = ?1");
  by_client.Bind(1, client).Step();
  if (by_client.Int64(0) >= policy_.address_limit) {
    wait = by_client.Int64(1) + policy_.window - now;
  } else {
    sqlite::Statement trusted(*db_, "SELECT 1 FROM trusted WHERE account = ?1 AND client = ?2");
    sqlite::Statement by_account(*db_,
                                 "SELECT count(*), max(time) FROM failure WHERE account = ?1");
    if (!trusted.Bind(1, account).Bind(2, client).Step() && by_account.Bind(1, account).Step() &&
        by_account.Int64(0) >= policy_.account_limit) {
      wait = by_account.Int64(1) + policy_.account_spacing - now;
    }
  }
  if (wait <= 0) {
    wait = 0;
    sqlite::Statement(*db_, "INSERT INTO failure(account, client, time) VALUES (?1, ?2, ?3)")
        .Bind(1, account)
        .Bind(2, client)
        .Bind(3, now)
        .Run();
  }
  transaction.Commit();
  return wait == 0 ? 0 : std::max<int64_t>(wait, 1);
}

void LoginThrottle::Succeeded(const std::string& account_name, const std::string& client) {
  const std::string account = AccountKey(account_name);
  sqlite::Transaction transaction(*db_);
  sqlite::Statement(*db_, "DELETE FROM failure WHERE account = ?1 AND client = ?2")
      .Bind(1, account)
      .Bind(2, client)
      .Run();
  sqlite::Statement(*db_,
                    "INSERT OR REPLACE INTO trusted(account, client, time) VALUES (?1, ?2, ?3)")
      .Bind(1, account)
      .Bind(2, client)
      .Bind(3, appliance::UnixTime())
      .Run();
  transaction.Commit();
}

}  // namespace larkpost::cgi
