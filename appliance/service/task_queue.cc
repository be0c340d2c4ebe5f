#include "appliance/service/task_queue.h"

#include <algorithm>
#include <utility>

namespace larkpost::service {

TaskQueue::TaskQueue(Limits limits, std::function<std::string()> make_key)
    : limits_(limits), make_key_(std::move(make_key)) {}

std::string TaskQueue::Add(uint32_t uid, std::unique_ptr<Job> job) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopping_ || order_.size() >= limits_.waiting) return "";
  size_t waiting = 0;
  for (const std::string& key : order_) waiting += tasks_.at(key)->uid == uid;
  if (waiting >= limits_.waiting_per_user) return "";
  auto task = std::make_shared<Task>();
  task->uid = uid;
  task->job = std::move(job);
  std::string key = make_key_();
  tasks_.emplace(key, std::move(task));
  order_.push_back(key);
  wake_.notify_all();
  return key;
}

TaskStatus TaskQueue::Status(uint32_t uid, const std::string& key) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto task = tasks_.find(key);
  if (task != tasks_.end() && task->second->uid == uid) {
    const Task& t = *task->second;
    // A cancelled task reads so at once, though it may finish its batch.
    TaskState state = t.cancelled ? TaskState::kCancelled
                      : t.running ? TaskState::kRunning
                                  : TaskState::kWaiting;
    return {state, t.progress.load(), t.total.load()};
  }
  auto ended = ended_.find(key);
  if (ended != ended_.end() && ended->second.uid == uid) return ended->second.status;
  return {};
}

bool TaskQueue::Cancel(uint32_t uid, const std::string& key) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = tasks_.find(key);
  if (found == tasks_.end() || found->second->uid != uid) return false;
  std::shared_ptr<Task> task = found->second;
  task->cancelled = true;
  if (!task->running) {
    order_.erase(std::find(order_.begin(), order_.end(), key));
    tasks_.erase(found);
    Remember(key, uid, {TaskState::kCancelled, 0, 0});
  }
  return true;
}

void TaskQueue::Remember(const std::string& key, uint32_t uid, const TaskStatus& status) {
  ended_[key] = {uid, status};
  ended_order_.push_back(key);
  while (ended_order_.size() > limits_.remembered) {
    ended_.erase(ended_order_.front());
    ended_order_.pop_front();
  }
}

bool TaskQueue::RunNext(const std::function<void(uint32_t, const std::string&, const Job&,
                                                 TaskState, const Job::Outcome&)>& ended) {
  std::unique_lock<std::mutex> lock(mutex_);
  std::string key;
  std::shared_ptr<Task> task;
  // The oldest waiting task whose user has nothing running.
  auto pick = [&] {
    if (stopping_ || running_ >= limits_.running) return false;
    for (auto at = order_.begin(); at != order_.end(); ++at) {
      const uint32_t uid = tasks_.at(*at)->uid;
      bool busy = std::any_of(tasks_.begin(), tasks_.end(), [&](const auto& entry) {
        return entry.second->running && entry.second->uid == uid;
      });
      if (busy) continue;
      key = *at;
      task = tasks_.at(key);
      order_.erase(at);
      return true;
    }
    return false;
  };
  wake_.wait(lock, [&] { return stopping_ || pick(); });
  if (!task) return false;
  task->running = true;
  ++running_;
  lock.unlock();

  Job::Outcome outcome;
  try {
    outcome = task->job->Run(task->cancelled, task->progress, task->total);
  } catch (const std::exception& e) {
    outcome = {true, e.what()};
  }
  const TaskState state = outcome.failed    ? TaskState::kFailed
                          : task->cancelled ? TaskState::kCancelled
                                            : TaskState::kFinished;
  ended(task->uid, key, *task->job, state, outcome);

  lock.lock();
  --running_;
  tasks_.erase(key);
  Remember(key, task->uid, {state, task->progress.load(), task->total.load()});
  wake_.notify_all();
  return true;
}

void TaskQueue::Stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  stopping_ = true;
  for (const std::string& key : order_) tasks_.erase(key);
  order_.clear();
  for (auto& entry : tasks_) entry.second->cancelled = true;
  wake_.notify_all();
}

}  // namespace larkpost::service
