#include "appliance/system/clock.h"

#include <ctime>
#include <mutex>
#include <utility>

namespace larkpost::appliance {
namespace {
std::mutex g_clock_mutex;
std::function<int64_t()> g_source;
}  // namespace

int64_t UnixTime() {
  std::lock_guard<std::mutex> lock(g_clock_mutex);
  if (g_source) return g_source();
  return static_cast<int64_t>(std::time(nullptr));
}

void SetUnixTimeForTesting(std::function<int64_t()> source) {
  std::lock_guard<std::mutex> lock(g_clock_mutex);
  g_source = std::move(source);
}

}  // namespace larkpost::appliance
