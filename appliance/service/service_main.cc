// larkpost-service: the mail core's background service. One per data root,
// started and restarted by `larkpostctl serve`; reached by the core's rpc::
// calls on <root>/run/core.sock (appliance/mailcore/service_channel.h).
//
// The main thread answers requests, one connection at a time, from the
// queue's state alone: it never touches a store, so an answer takes
// microseconds whatever the workers are doing. Workers run the tasks; each
// step of a task is one transaction of the user's store, so a killed
// service leaves every message as it was before or after a step.
//
// Two services on one data root would share the socket path; the first
// takes <root>/run/core.lock and keeps it for life, a second waits for it.
// A socket file left by a killed service is replaced atomically (a new
// socket bound beside it and renamed over it), so clients meet either the
// old, refusing one or the new one, never no file at all.
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
#include "appliance/service/fetch_scheduler.h"
#include "appliance/service/task_queue.h"
#include "appliance/system/appliance.h"
#include "appliance/system/clock.h"
#include "appliance/system/log_file.h"
#include "platform/mailcore/control.h"
#include "platform/mailcore/error.h"
#include "platform/mailcore/global_setting.h"
#include "proto/fetch.pb.h"
#include "proto/task.pb.h"

namespace larkpost::service {
namespace {

namespace proto = ornic::larkpost::proto;
namespace channel = ornic::larkpost::service;

// The administrator's POP3 policy of a user domain; off when it cannot be
// read.
FetchPolicy PolicyOf(const std::string& domain) {
  try {
    const ornic::larkpost::record::GlobalPOP3Config policy =
        ornic::larkpost::global_control::SettingControl(domain).GetPOP3Config();
    if (!policy.IsValid()) return {};
    return {policy.enable_pop3, policy.pop3_fetch_period};
  } catch (const ornic::Error& e) {
    syslog(LOG_ERR, "the POP3 policy of %s cannot be read: error %d", domain.c_str(),
           e.ErrorCode());
    return {};
  }
}

// A filter task as the queue runs it.
class FilterJob : public Job {
 public:
  FilterJob(uint32_t uid, std::unique_ptr<ornic::larkpost::store::FilterRun> run,
            std::string origin)
      : uid_(uid), run_(std::move(run)), origin_(std::move(origin)) {}

  Outcome Run(const std::atomic<bool>& cancelled, std::atomic<uint32_t>& progress,
              std::atomic<uint32_t>& total) override {
    try {
      total = run_->Prepare(uid_);
      while (!cancelled) {
        uint32_t examined = run_->NextBatch();
        if (examined == 0) break;
        progress += examined;
      }
      return {false, run_->Summary()};
    } catch (const std::exception& e) {
      return {true, run_->Summary() + "; stopped: " + e.what()};
    }
  }
  std::string Kind() const override { return origin_ == "filter" ? "filter run" : "filter task"; }

 private:
  uint32_t uid_;
  std::unique_ptr<ornic::larkpost::store::FilterRun> run_;
  std::string origin_;
};

const char* StateWord(TaskState state) {
  switch (state) {
    case TaskState::kFinished:
      return "finished";
    case TaskState::kCancelled:
      return "cancelled";
    case TaskState::kFailed:
      return "failed";
    default:
      return "ended";
  }
}

// "<unix time> <uid> <kind> <key prefix> <state>: <summary>" in
// <root>/log/service.log and the system log. Only the key's first
// characters: the log must not hand out keys.
void LogEnded(uint32_t uid, const std::string& key, const Job& job, TaskState state,
              const Job::Outcome& outcome) {
  std::string line = std::to_string(uid) + " " + job.Kind() + " " + key.substr(0, 8) + " " +
                     StateWord(state) + ": " + outcome.summary;
  syslog(state == TaskState::kFailed ? LOG_ERR : LOG_INFO, "%s", line.c_str());
  appliance::AppendLine(appliance::LogDir() + "/service.log",
                        std::to_string(appliance::UnixTime()) + " " + line);
}

proto::GetTaskStatusResponse::Status StatusValue(TaskState state) {
  switch (state) {
    case TaskState::kWaiting:
      return proto::GetTaskStatusResponse::WAITING;
    case TaskState::kRunning:
      return proto::GetTaskStatusResponse::RUNNING;
    case TaskState::kFinished:
      return proto::GetTaskStatusResponse::FINISHED;
    case TaskState::kCancelled:
      return proto::GetTaskStatusResponse::CANCELLED;
    case TaskState::kFailed:
      return proto::GetTaskStatusResponse::FAILED;
    default:
      return proto::GetTaskStatusResponse::UNKNOWN;
  }
}

proto::Response Handle(TaskQueue& queue, FetchScheduler& fetching, const proto::Request& request) {
  proto::Response response;
  if (!request.has_uid()) {
    response.set_code(proto::Response::BAD_REQUEST);
    return response;
  }
  const uint32_t uid = request.uid();
  if (request.HasExtension(proto::AddTaskRequest::add_task)) {
    const proto::AddTaskRequest& add = request.GetExtension(proto::AddTaskRequest::add_task);
    auto run = ornic::larkpost::store::FilterRun::FromText(add.conditions(), add.actions());
    if (!run) {
      response.set_code(proto::Response::BAD_REQUEST);
      return response;
    }
    std::string key =
        queue.Add(uid, std::make_unique<FilterJob>(uid, std::move(run), add.origin()));
    if (key.empty()) {
      response.set_code(proto::Response::REFUSED);
      return response;
    }
    response.MutableExtension(proto::AddTaskResponse::add_task)->set_task_key(key);
  } else if (request.HasExtension(proto::GetTaskStatusRequest::get_task_status)) {
    TaskStatus status = queue.Status(
        uid, request.GetExtension(proto::GetTaskStatusRequest::get_task_status).task_key());
    auto* answer = response.MutableExtension(proto::GetTaskStatusResponse::get_task_status);
    answer->set_status(StatusValue(status.state));
    answer->set_progress(status.progress);
    answer->set_total(status.total);
  } else if (request.HasExtension(proto::FetchNowRequest::fetch_now)) {
    fetching.FetchNow(uid);
    response.MutableExtension(proto::FetchNowResponse::fetch_now);
  } else if (request.HasExtension(proto::CancelTaskRequest::cancel_task)) {
    bool cancelled =
        queue.Cancel(uid, request.GetExtension(proto::CancelTaskRequest::cancel_task).task_key());
    response.MutableExtension(proto::CancelTaskResponse::cancel_task)->set_cancelled(cancelled);
  } else {
    response.set_code(proto::Response::BAD_REQUEST);
  }
  return response;
}

void Serve(TaskQueue& queue, FetchScheduler& fetching, int connection) {
  ucred peer{};
  socklen_t size = sizeof peer;
  // Only the appliance's own processes (the web server's user) ask.
  if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
      (peer.uid != getuid() && peer.uid != 0)) {
    return;
  }
  // A client that stalls holds up the others this long at most.
  channel::SetTimeouts(connection, 250);
  std::string bytes;
  proto::Request request;
  if (!channel::ReadFrame(connection, &bytes) || !request.ParseFromString(bytes)) return;
  proto::Response response = Handle(queue, fetching, request);
  if (response.SerializeToString(&bytes)) channel::WriteFrame(connection, bytes);
}

// Waits for the data root's lock; false when a stop signal came first.
bool TakeLock(int signals) {
  const std::string path = appliance::RunDir() + "/core.lock";
  // Kept open (and locked) for the rest of the process.
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    syslog(LOG_ERR, "cannot open %s: %s", path.c_str(), strerror(errno));
    return false;
  }
  bool said = false;
  while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (!said) {
      syslog(LOG_INFO, "another service runs on %s; waiting for it to end",
             appliance::DataRoot().c_str());
      said = true;
    }
    pollfd wait{signals, POLLIN, 0};
    if (poll(&wait, 1, 200) > 0) return false;
  }
  return true;
}

// Listens on the socket path, replacing whatever file is there; the bound
// file's inode goes to `*inode` (so that only our own file is removed).
int Listen(ino_t* inode) {
  const std::string path = channel::SocketPath();
  const std::string temp = path + "." + std::to_string(getpid());
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() + 12 >= sizeof address.sun_path) {
    syslog(LOG_ERR, "socket path too long: %s", path.c_str());
    return -1;
  }
  std::memcpy(address.sun_path, temp.c_str(), temp.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  unlink(temp.c_str());
  const mode_t old_mask = umask(0177);
  const bool bound = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  umask(old_mask);
  struct stat info {};
  if (!bound || listen(fd, 128) != 0 || stat(temp.c_str(), &info) != 0 ||
      rename(temp.c_str(), path.c_str()) != 0) {
    syslog(LOG_ERR, "cannot listen on %s: %s", path.c_str(), strerror(errno));
    unlink(temp.c_str());
    close(fd);
    return -1;
  }
  *inode = info.st_ino;
  return fd;
}

int Main() {
  openlog("larkpost-service", LOG_PID, LOG_MAIL);
  // Goes with whoever started it (larkpostctl serve's supervisor).
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  sigset_t stop;
  sigemptyset(&stop);
  for (int number : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&stop, number);
  // Blocked before any thread starts, so that only the signal descriptor
  // hears them.
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);
  signal(SIGPIPE, SIG_IGN);
  const int signals = signalfd(-1, &stop, SFD_CLOEXEC);
  if (signals < 0 || !appliance::MakeDirs(appliance::RunDir())) return 1;
  if (!TakeLock(signals)) return 0;
  ino_t inode = 0;
  const int listener = Listen(&inode);
  if (listener < 0) return 1;
  syslog(LOG_INFO, "serving %s", channel::SocketPath().c_str());

  TaskQueue queue(TaskQueue::Limits{},
                  [] { return ornic::larkpost::control::RandomString("", 32); });
  FetchScheduler fetching(PolicyOf);
  std::vector<std::thread> workers;
  for (size_t i = 0; i < TaskQueue::Limits{}.running; ++i) {
    workers.emplace_back([&queue] {
      while (queue.RunNext(LogEnded)) {
      }
    });
  }
  for (;;) {
    pollfd wait[2] = {{listener, POLLIN, 0}, {signals, POLLIN, 0}};
    if (poll(wait, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (wait[1].revents != 0) break;
    if (wait[0].revents != 0) {
      const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection >= 0) {
        Serve(queue, fetching, connection);
        close(connection);
      } else if (errno == EMFILE || errno == ENFILE) {
        usleep(100 * 1000);
      }
    }
  }
  // Running tasks stop after their current step.
  queue.Stop();
  for (std::thread& worker : workers) worker.join();
  struct stat info {};
  if (stat(channel::SocketPath().c_str(), &info) == 0 && info.st_ino == inode) {
    unlink(channel::SocketPath().c_str());
  }
  close(listener);
  syslog(LOG_INFO, "stopped");
  return 0;
}

}  // namespace
}  // namespace larkpost::service

int main() { return larkpost::service::Main(); }
