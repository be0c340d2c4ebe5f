// The service's work queue: tasks of any kind, each belonging to one user,
// run by a fixed number of workers. A user has at most one task running;
// the others wait, in the order they came, as do all tasks beyond the
// service's limit. Every operation answers at once: no lock is held while
// a task works, so a status request never waits for a batch.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace larkpost::service {

// A piece of background work. Run() is called once, on a worker thread,
// with the task's progress counters; it works in steps, each complete in
// itself (one transaction), and returns when it is done or `cancelled` is
// set (checked between steps).
class Job {
 public:
  virtual ~Job() = default;
  // What the service's log says of the job when it ends: its counts, or
  // the error that stopped it.
  struct Outcome {
    bool failed = false;
    std::string summary;
  };
  virtual Outcome Run(const std::atomic<bool>& cancelled, std::atomic<uint32_t>& progress,
                      std::atomic<uint32_t>& total) = 0;
  // For the log: "filter task", "POP3 fetch".
  virtual std::string Kind() const = 0;
};

enum class TaskState { kUnknown, kWaiting, kRunning, kFinished, kCancelled, kFailed };

struct TaskStatus {
  TaskState state = TaskState::kUnknown;
  uint32_t progress = 0;
  uint32_t total = 0;
};

class TaskQueue {
 public:
  struct Limits {
    size_t running = 2;            // tasks running at once, over all users
    size_t waiting_per_user = 16;  // a user's tasks waiting; more are refused
    // All users' tasks waiting: many users each within their own limit
    // must not grow the service without end either.
    size_t waiting = 256;
    size_t remembered = 256;  // ended tasks whose outcome is still told
  };
  // `make_key` gives each task its key; it must not repeat (the service's
  // draws 192 random bits).
  TaskQueue(Limits limits, std::function<std::string()> make_key);

  // Queues `job` for `uid`; returns its key, "" when refused (the user, or
  // the service as a whole, has too many waiting, or the queue is stopping).
  std::string Add(uint32_t uid, std::unique_ptr<Job> job);
  // The task of `uid` with `key`; kUnknown for another user's key.
  TaskStatus Status(uint32_t uid, const std::string& key);
  // A waiting task ends at once; a running one at its next step. False when
  // `uid` has no such task in either state.
  bool Cancel(uint32_t uid, const std::string& key);

  // For the workers: blocks until a task may run (its user has none
  // running, and fewer than Limits::running run), runs it and records how it
  // ended; returns false once Stop() was called. `ended` hears of each task
  // that ends (for the log).
  bool RunNext(const std::function<void(uint32_t uid, const std::string& key, const Job& job,
                                        TaskState state, const Job::Outcome& outcome)>& ended);
  // Refuses new tasks, drops the waiting ones, cancels the running ones and
  // wakes every worker.
  void Stop();

 private:
  struct Task {
    uint32_t uid = 0;
    std::unique_ptr<Job> job;
    std::atomic<bool> cancelled{false};
    std::atomic<uint32_t> progress{0};
    std::atomic<uint32_t> total{0};
    bool running = false;
  };
  void Remember(const std::string& key, uint32_t uid, const TaskStatus& status);

  Limits limits_;
  std::function<std::string()> make_key_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  size_t running_ = 0;
  std::map<std::string, std::shared_ptr<Task>> tasks_;  // waiting and running
  std::deque<std::string> order_;                       // keys of waiting tasks, oldest first
  struct Ended {
    uint32_t uid;
    TaskStatus status;
  };
  std::map<std::string, Ended> ended_;
  std::deque<std::string> ended_order_;
};

}  // namespace larkpost::service
