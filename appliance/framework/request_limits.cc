#include "appliance/framework/request_limits.h"

#include <fcntl.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <system_error>
#include <thread>

#include "appliance/framework/cgi.h"

namespace larkpost::cgi {
namespace {

enum AnswerOwner : int { kNobody, kRequest, kTimeLimit, kOver };

std::atomic<int> g_owner{kNobody};
std::atomic<int> g_client{-1};

}  // namespace

bool ClaimAnswer() {
  int expected = kNobody;
  return g_owner.compare_exchange_strong(expected, kRequest) || expected == kRequest;
}

void StartTimeLimit(int seconds) {
  g_client = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  try {
    std::thread([seconds] {
      std::this_thread::sleep_for(std::chrono::seconds(seconds));
      int expected = kNobody;
      if (g_owner.compare_exchange_strong(expected, kTimeLimit)) {
        const std::string answer = BuildAnswer(ErrorEnvelope(kErrorTimeLimit));
        const int client = g_client.load();
        for (size_t at = 0; client >= 0 && at < answer.size();) {
          const ssize_t written = write(client, answer.data() + at, answer.size() - at);
          if (written <= 0) break;
          at += static_cast<size_t>(written);
        }
      } else if (expected == kOver) {
        return;
      }
      syslog(LOG_ERR, "request over its time limit (%d s), ended", seconds);
      // At once: no exit handlers, nothing of the request's left to run.
      kill(getpid(), SIGKILL);
    }).detach();
  } catch (const std::system_error& e) {
    syslog(LOG_ERR, "request runs without its time limit: %s", e.what());
  }
}

void StopTimeLimit() {
  int expected = kNobody;
  if (!g_owner.compare_exchange_strong(expected, kOver) && expected == kRequest) {
    g_owner.compare_exchange_strong(expected, kOver);
  }
  if (g_owner.load() != kOver) return;  // the limit is answering: this process ends
  const int client = g_client.exchange(-1);
  if (client >= 0) close(client);
}

}  // namespace larkpost::cgi
