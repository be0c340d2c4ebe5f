// The background service's side of its protocol: a connection's bytes read
// as one frame, decoded as a request and answered, as the service's own
// Serve does it (the program's file, with its main renamed, so that nothing
// of it is copied here). Input: the bytes a client sends.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "appliance/mailcore/filter_run.h"
#include "appliance/mailcore/service_channel.h"
#include "appliance/service/task_queue.h"
#include "appliance/system/appliance.h"
#include "appliance/system/clock.h"
#include "appliance/system/log_file.h"
#include "fuzz/fuzz_util.h"
#include "platform/mailcore/control.h"
#include "proto/task.pb.h"

#define main ServiceMain
#include "appliance/service/service_main.cc"
#undef main

namespace {

std::unique_ptr<larkpost::service::TaskQueue> queue;
int served = 0;

// Fetching is off for every domain: a request to fetch reaches the
// scheduler and fetches nothing.
larkpost::service::FetchScheduler& Fetching() {
  static larkpost::service::FetchScheduler scheduler(
      [](const std::string&) { return larkpost::service::FetchPolicy{}; });
  return scheduler;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // No worker runs the queue: tasks wait, and a fresh queue now and then
  // keeps the waiting ones few.
  if (!queue || ++served % 1000 == 0) {
    if (queue) queue->Stop();
    int counter = 0;
    queue = std::make_unique<larkpost::service::TaskQueue>(
        larkpost::service::TaskQueue::Limits{},
        [counter]() mutable { return "key" + std::to_string(++counter); });
  }
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) abort();
  // Larger inputs than a socket holds are cut: the frame limit is far above.
  const int buffer = 1 << 20;
  setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
  size_t sent = 0;
  while (sent < size) {
    const ssize_t put = send(ends[0], data + sent, size - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (put <= 0) break;
    sent += static_cast<size_t>(put);
  }
  shutdown(ends[0], SHUT_WR);
  larkpost::service::Serve(*queue, Fetching(), ends[1]);
  close(ends[1]);
  // Whatever the service answered is a frame of a response.
  std::string answer;
  if (ornic::larkpost::service::ReadFrame(ends[0], &answer)) {
    ornic::larkpost::proto::Response response;
    if (!response.ParseFromString(answer)) larkpost::fuzz::Broken("an answer that is no response");
  }
  close(ends[0]);
  return 0;
}
