#include "appliance/service/task_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace larkpost::service {
namespace {

using namespace std::chrono_literals;

// A job of `steps` steps, each taken when the test releases it.
class SteppedJob : public Job {
 public:
  explicit SteppedJob(uint32_t steps) : steps_(steps) {}

  Outcome Run(const std::atomic<bool>& cancelled, std::atomic<uint32_t>& progress,
              std::atomic<uint32_t>& total) override {
    total = steps_;
    std::unique_lock<std::mutex> lock(mutex_);
    started_ = true;
    wake_.notify_all();
    while (progress < steps_ && !cancelled) {
      wake_.wait_for(lock, 5ms, [&] { return released_ > 0; });
      if (released_ > 0) {
        --released_;
        ++progress;
      }
    }
    return {false, "done"};
  }
  std::string Kind() const override { return "test job"; }

  void Release(uint32_t steps) {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ += steps;
    wake_.notify_all();
  }
  bool WaitStarted() {
    std::unique_lock<std::mutex> lock(mutex_);
    return wake_.wait_for(lock, 5s, [&] { return started_; });
  }

 private:
  uint32_t steps_;
  std::mutex mutex_;
  std::condition_variable wake_;
  uint32_t released_ = 0;
  bool started_ = false;
};

class TaskQueueTest : public ::testing::Test {
 protected:
  TaskQueueTest() : queue_(Limits(), [this] { return "key" + std::to_string(++keys_); }) {}
  ~TaskQueueTest() override {
    queue_.Stop();
    for (std::thread& worker : workers_) worker.join();
  }

  static TaskQueue::Limits Limits() {
    TaskQueue::Limits limits;
    limits.running = 2;
    limits.waiting_per_user = 2;
    limits.remembered = 3;
    return limits;
  }
  void StartWorkers(int count) {
    for (int i = 0; i < count; ++i) {
      workers_.emplace_back([this] {
        while (queue_.RunNext(
            [](uint32_t, const std::string&, const Job&, TaskState, const Job::Outcome&) {})) {
        }
      });
    }
  }
  // Adds a job of `steps` steps for `uid`: its key ("" when refused) and job.
  std::pair<std::string, SteppedJob*> Add(uint32_t uid, uint32_t steps) {
    auto job = std::make_unique<SteppedJob>(steps);
    SteppedJob* raw = job.get();
    return {queue_.Add(uid, std::move(job)), raw};
  }
  // Waits until the task reads `state`.
  bool Reaches(uint32_t uid, const std::string& key, TaskState state) {
    for (auto end = std::chrono::steady_clock::now() + 5s; std::chrono::steady_clock::now() < end;
         std::this_thread::sleep_for(1ms)) {
      if (queue_.Status(uid, key).state == state) return true;
    }
    return false;
  }

  int keys_ = 0;
  TaskQueue queue_;
  std::vector<std::thread> workers_;
};

TEST_F(TaskQueueTest, OneTaskPerUserAtATimeAndABoundOverall) {
  StartWorkers(3);  // more workers than the limit: the limit still holds
  auto [a1, job_a1] = Add(1, 2);
  auto [a2, job_a2] = Add(1, 1);
  auto [b1, job_b1] = Add(2, 1);
  const std::string c1 = Add(3, 1).first;
  ASSERT_TRUE(job_a1->WaitStarted());
  ASSERT_TRUE(job_b1->WaitStarted());
  // a2 waits for its user's task, c1 for the limit of two.
  EXPECT_EQ(queue_.Status(1, a2).state, TaskState::kWaiting);
  EXPECT_EQ(queue_.Status(3, c1).state, TaskState::kWaiting);
  job_b1->Release(1);  // b1 ends: c1, the oldest that may run, starts; a2 still waits
  ASSERT_TRUE(Reaches(3, c1, TaskState::kRunning));
  EXPECT_EQ(queue_.Status(1, a2).state, TaskState::kWaiting);
  const TaskStatus finished = queue_.Status(2, b1);
  EXPECT_EQ(std::tie(finished.state, finished.progress, finished.total),
            std::make_tuple(TaskState::kFinished, 1u, 1u));
  job_a1->Release(2);
  ASSERT_TRUE(job_a2->WaitStarted());
}

// Another user's key reads unknown and cannot be cancelled, running or ended.
TEST_F(TaskQueueTest, KeysBelongToTheirUser) {
  StartWorkers(1);
  auto [key, job] = Add(1, 1);
  ASSERT_TRUE(job->WaitStarted());
  EXPECT_EQ(queue_.Status(2, key).state, TaskState::kUnknown);
  EXPECT_FALSE(queue_.Cancel(2, key));
  EXPECT_EQ(queue_.Status(1, key).state, TaskState::kRunning);
  job->Release(1);
  ASSERT_TRUE(Reaches(1, key, TaskState::kFinished));
  EXPECT_EQ(queue_.Status(2, key).state, TaskState::kUnknown);
}

TEST_F(TaskQueueTest, RefusesBeyondTheUsersWaitingLimitAndForgetsTheOldestEnded) {
  std::string keys[4];
  for (std::string& key : keys) key = Add(1, 1).first;
  EXPECT_NE(keys[1], "");
  EXPECT_EQ(keys[2], "");  // two waiting already (no worker runs them)
  const std::string other = Add(2, 1).first;
  EXPECT_NE(other, "");

  // Ended tasks are remembered three at a time.
  for (const std::string& key : {keys[0], keys[1], other}) queue_.Cancel(key == other ? 2 : 1, key);
  const std::string last = Add(1, 1).first;
  queue_.Cancel(1, last);
  EXPECT_EQ(queue_.Status(1, keys[0]).state, TaskState::kUnknown);
  EXPECT_EQ(queue_.Status(1, keys[1]).state, TaskState::kCancelled);
  EXPECT_EQ(queue_.Status(1, last).state, TaskState::kCancelled);
}

TEST(TaskQueueBoundTest, RefusesBeyondTheOverallWaitingLimit) {
  TaskQueue::Limits limits;
  limits.waiting = 3;
  TaskQueue queue(limits, [n = 0]() mutable { return "key" + std::to_string(++n); });
  // Four users, each far within their own limit; nothing runs them.
  std::vector<std::string> added;
  for (uint32_t uid : {1, 2, 3, 4})
    added.push_back(queue.Add(uid, std::make_unique<SteppedJob>(1)));
  EXPECT_EQ(added, (std::vector<std::string>{"key1", "key2", "key3", ""}));
  // A place that frees up is taken again.
  EXPECT_TRUE(queue.Cancel(1, added[0]));
  EXPECT_NE(queue.Add(4, std::make_unique<SteppedJob>(1)), "");
  queue.Stop();
}

TEST_F(TaskQueueTest, StopCancelsRunningTasksAndRefusesNewOnes) {
  StartWorkers(1);
  auto [key, job] = Add(1, 100);
  ASSERT_TRUE(job->WaitStarted());
  queue_.Stop();
  for (std::thread& worker : workers_) worker.join();
  workers_.clear();
  EXPECT_EQ(queue_.Status(1, key).state, TaskState::kCancelled);
  EXPECT_EQ(Add(1, 1).first, "");
}

}  // namespace
}  // namespace larkpost::service
