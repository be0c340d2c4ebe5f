// POP3 fetching in the background service: one thread that fetches, for
// every user whose domain's policy allows it, the accounts whose period
// has passed since their last fetch, and every account of a user at once
// when asked (after the user's settings changed). One thread, one account
// after another: together with the fetcher's per-account lock, no account
// is ever fetched twice at once, whoever else fetches it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace larkpost::service {

struct FetchPolicy {
  bool enabled = false;
  int64_t period_minutes = 0;
};

class FetchScheduler {
 public:
  // `policy_of` reads the policy of a user domain; it runs on the
  // scheduler's thread.
  explicit FetchScheduler(std::function<FetchPolicy(const std::string& domain)> policy_of);
  // Ends the fetch under way (its message stays on the server) and joins
  // the thread.
  ~FetchScheduler();
  FetchScheduler(const FetchScheduler&) = delete;
  FetchScheduler& operator=(const FetchScheduler&) = delete;

  // Every account of `uid`, as soon as the thread is free.
  void FetchNow(uint32_t uid);

 private:
  void Run();
  // One pass over the users; returns the Unix time at which the next
  // account falls due (0: none).
  int64_t Round(const std::set<uint32_t>& requested);

  std::function<FetchPolicy(const std::string&)> policy_of_;
  std::atomic<bool> stopping_{false};  // ends a fetch under way
  std::mutex mutex_;
  std::condition_variable wake_;
  std::set<uint32_t> requested_;
  bool stop_ = false;
  std::thread thread_;
};

}  // namespace larkpost::service
