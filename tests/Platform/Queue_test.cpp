#include "quorvel/Platform/Queue.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace qvl {
namespace {

using namespace std::chrono_literals;

// Counts finished tasks and lets the test wait for a number of them (bounded).
class Completion {
 public:
  void done() {
    std::lock_guard lock(mutex_);
    ++count_;
    changed_.notify_all();
  }
  bool waitFor(int count, std::chrono::milliseconds timeout = 20s) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return count_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
};

TEST(SerialQueueTest, RunsTasksInOrderOneAtATimeOffTheCallingThread) {
  SerialQueue queue;
  constexpr int kTasks = 2000;
  std::vector<int> order;  // touched only by the queue's tasks
  std::atomic<int> running{0};
  std::atomic<int> overlaps{0};
  std::atomic<int> onCaller{0};
  Completion finished;
  const auto caller = std::this_thread::get_id();
  for (int i = 0; i < kTasks; ++i) {
    queue.async([&, i] {
      if (running.fetch_add(1) != 0) overlaps.fetch_add(1);
      if (std::this_thread::get_id() == caller) onCaller.fetch_add(1);
      order.push_back(i);
      if (i % 100 == 0) std::this_thread::yield();  // give an overlapping task room to show
      running.fetch_sub(1);
      finished.done();
    });
  }
  ASSERT_TRUE(finished.waitFor(kTasks));
  EXPECT_EQ(overlaps.load(), 0);
  EXPECT_EQ(onCaller.load(), 0);
  ASSERT_EQ(order.size(), static_cast<size_t>(kTasks));
  for (int i = 0; i < kTasks; ++i) ASSERT_EQ(order[i], i);
}

TEST(SerialQueueTest, KeepsEachProducersOrderWhenSeveralThreadsAdd) {
  SerialQueue queue;
  constexpr int kProducers = 4;
  constexpr int kPerProducer = 300;
  std::vector<std::vector<int>> seen(kProducers);
  Completion finished;
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kPerProducer; ++i) {
        queue.async([&, p, i] {
          seen[p].push_back(i);
          finished.done();
        });
      }
    });
  }
  for (auto& producer : producers) producer.join();
  ASSERT_TRUE(finished.waitFor(kProducers * kPerProducer));
  for (int p = 0; p < kProducers; ++p) {
    ASSERT_EQ(seen[p].size(), static_cast<size_t>(kPerProducer));
    for (int i = 0; i < kPerProducer; ++i) ASSERT_EQ(seen[p][i], i);
  }
}

TEST(SerialQueueTest, DifferentQueuesRunAtTheSameTime) {
  // Each task waits for the other one to start: both finish only if they run concurrently.
  SerialQueue first;
  SerialQueue second;
  std::promise<void> firstStarted;
  std::promise<void> secondStarted;
  std::promise<bool> firstSawSecond;
  std::promise<bool> secondSawFirst;
  first.async([&] {
    firstStarted.set_value();
    firstSawSecond.set_value(secondStarted.get_future().wait_for(10s) == std::future_status::ready);
  });
  second.async([&] {
    secondStarted.set_value();
    secondSawFirst.set_value(firstStarted.get_future().wait_for(10s) == std::future_status::ready);
  });
  auto a = firstSawSecond.get_future();
  auto b = secondSawFirst.get_future();
  ASSERT_EQ(a.wait_for(20s), std::future_status::ready);
  ASSERT_EQ(b.wait_for(20s), std::future_status::ready);
  EXPECT_TRUE(a.get());
  EXPECT_TRUE(b.get());
}

TEST(SerialQueueTest, IsCurrentOnlyInsideItsOwnTasks) {
  SerialQueue queue;
  SerialQueue other;
  EXPECT_FALSE(queue.isCurrent());
  std::promise<std::pair<bool, bool>> inQueue;
  queue.async([&] { inQueue.set_value({queue.isCurrent(), other.isCurrent()}); });
  auto [self, foreign] = inQueue.get_future().get();
  EXPECT_TRUE(self);
  EXPECT_FALSE(foreign);

  // A task of another queue running later on the same worker is not "current" for this one.
  std::promise<bool> inOther;
  other.async([&] { inOther.set_value(queue.isCurrent()); });
  EXPECT_FALSE(inOther.get_future().get());
}

TEST(SerialQueueTest, PendingTasksOutliveTheQueueAndThrowingTasksDoNotStopIt) {
  Completion finished;
  std::atomic<int> ran{0};
  {
    SerialQueue queue;
    queue.async([] { throw std::runtime_error("task failure"); });
    for (int i = 0; i < 50; ++i) {
      queue.async([&] {
        ran.fetch_add(1);
        finished.done();
      });
    }
  }  // destroyed with tasks still waiting
  ASSERT_TRUE(finished.waitFor(50));
  EXPECT_EQ(ran.load(), 50);
}

TEST(SerialQueueTest, ManyQueuesShareTheBoundedPoolWithoutStarving) {
  constexpr int kQueues = 300;
  constexpr int kTasksEach = 5;
  std::vector<std::unique_ptr<SerialQueue>> queues;
  std::vector<std::vector<int>> seen(kQueues);
  Completion finished;
  for (int q = 0; q < kQueues; ++q) queues.push_back(std::make_unique<SerialQueue>());
  for (int i = 0; i < kTasksEach; ++i) {
    for (int q = 0; q < kQueues; ++q) {
      queues[q]->async([&, q, i] {
        seen[q].push_back(i);
        finished.done();
      });
    }
  }
  ASSERT_TRUE(finished.waitFor(kQueues * kTasksEach));
  for (int q = 0; q < kQueues; ++q) EXPECT_EQ(seen[q], (std::vector<int>{0, 1, 2, 3, 4}));
}

}  // namespace
}  // namespace qvl
