#include "appliance/service/fetch_scheduler.h"

#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <map>
#include <string>
#include <vector>

#include "appliance/mailcore/controller_impl.h"
#include "appliance/mailcore/fetch/fetcher.h"
#include "appliance/mailcore/pop3_store.h"
#include "appliance/system/appliance.h"
#include "appliance/system/clock.h"
#include "appliance/system/log_file.h"
#include "appliance/system/user_admin.h"
#include "platform/mailcore/controller.h"
#include "platform/mailcore/db_setup.h"
#include "platform/mailcore/error.h"

namespace larkpost::service {
namespace {

namespace store = ornic::larkpost::store;

// The longest sleep between two rounds, so that new users and policy
// changes are seen without a request.
constexpr int64_t kLongestSleep = 60;

// "<unix time> <uid> pop3 fetch <account>: <n> stored[; <error>]" in
// <root>/log/service.log, as the service logs its tasks.
void LogFetch(uint32_t uid, const ornic::larkpost::fetch::FetchOutcome& outcome) {
  if (outcome.busy) return;
  std::string line = std::to_string(uid) + " pop3 fetch " + std::to_string(outcome.account_id) +
                     ": " + std::to_string(outcome.stored) + " stored";
  if (!outcome.error.empty()) line += "; " + outcome.error;
  syslog(outcome.error.empty() ? LOG_INFO : LOG_ERR, "%s", line.c_str());
  appliance::AppendLine(appliance::LogDir() + "/service.log",
                        std::to_string(appliance::UnixTime()) + " " + line);
}

}  // namespace

FetchScheduler::FetchScheduler(std::function<FetchPolicy(const std::string&)> policy_of)
    : policy_of_(std::move(policy_of)) {
  thread_ = std::thread([this] { Run(); });
}

FetchScheduler::~FetchScheduler() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  stopping_ = true;
  wake_.notify_all();
  thread_.join();
}

void FetchScheduler::FetchNow(uint32_t uid) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    requested_.insert(uid);
  }
  wake_.notify_all();
}

void FetchScheduler::Run() {
  std::set<uint32_t> requested;
  for (;;) {
    const int64_t next = Round(requested);
    const int64_t now = appliance::UnixTime();
    const int64_t sleep =
        next == 0 ? kLongestSleep : std::clamp<int64_t>(next - now, 1, kLongestSleep);
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait_for(lock, std::chrono::seconds(sleep),
                   [this] { return stop_ || !requested_.empty(); });
    if (stop_) return;
    requested.swap(requested_);
    requested_.clear();
  }
}

int64_t FetchScheduler::Round(const std::set<uint32_t>& requested) {
  int64_t next = 0;
  std::map<std::string, FetchPolicy> policies;
  std::vector<appliance::UserRecord> users;
  try {
    users = appliance::ListUsers();
  } catch (const std::exception& e) {
    syslog(LOG_ERR, "pop3 fetch: cannot list the users: %s", e.what());
    return 0;
  }
  for (const appliance::UserRecord& user : users) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stop_) return 0;
    }
    auto found = policies.find(user.domain);
    if (found == policies.end())
      found = policies.emplace(user.domain, policy_of_(user.domain)).first;
    const FetchPolicy& policy = found->second;
    if (!policy.enabled || policy.period_minutes <= 0) continue;
    try {
      if (!ornic::larkpost::db::DBSetupHandler(user.uid).DoesDBExist()) continue;
      ornic::larkpost::control::Controller controller(user.uid);
      const bool all = requested.count(user.uid) != 0;
      for (const store::Pop3Account& account : store::LoadPop3Accounts(controller.impl().db())) {
        const int64_t due = account.last_fetch_time + policy.period_minutes * 60;
        if (all || due <= appliance::UnixTime()) {
          if (stopping_) break;
          ornic::larkpost::fetch::FetchOptions options;
          options.stop = &stopping_;
          LogFetch(user.uid, ornic::larkpost::fetch::FetchAccount(controller, account.id, options));
          const int64_t again = appliance::UnixTime() + policy.period_minutes * 60;
          next = next == 0 ? again : std::min(next, again);
        } else {
          next = next == 0 ? due : std::min(next, due);
        }
      }
    } catch (const ornic::Error& e) {
      syslog(LOG_ERR, "pop3 fetch for user %u failed: error %d", user.uid, e.ErrorCode());
    } catch (const std::exception& e) {
      syslog(LOG_ERR, "pop3 fetch for user %u failed: %s", user.uid, e.what());
    }
    // The service holds no store open between rounds.
    store::CloseConnection(user.uid);
  }
  return next;
}

}  // namespace larkpost::service
