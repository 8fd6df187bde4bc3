#include "quorvel/platform/Queue.h"

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "quorvel/platform/Clock.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"

namespace qvl {
namespace {

using namespace std::chrono_literals;

// Waits (bounded) until exactly `count` tasks have finished.
bool finish(const std::atomic<int>& finished, int count) {
  return test::eventually([&] { return finished.load() == count; });
}

TEST(SerialQueueTest, RunsTasksOneAtATimeOffTheCallerInEachAddingThreadsOrder) {
  SerialQueue queue;
  constexpr int kProducers = 4;
  constexpr int kPerProducer = 500;
  std::vector<std::vector<int>> seen(kProducers);  // touched only by the queue's tasks
  std::atomic<int> running{0};
  std::atomic<int> overlaps{0};
  std::atomic<int> onCaller{0};
  std::atomic<int> finished{0};
  const auto caller = std::this_thread::get_id();
  auto produce = [&](int p) {
    for (int i = 0; i < kPerProducer; ++i) {
      queue.async([&, p, i] {
        if (running.fetch_add(1) != 0) overlaps.fetch_add(1);
        if (std::this_thread::get_id() == caller) onCaller.fetch_add(1);
        seen[p].push_back(i);
        if (i % 100 == 0) std::this_thread::yield();  // room for an overlapping task to show
        running.fetch_sub(1);
        finished.fetch_add(1);
      });
    }
  };
  std::vector<std::thread> producers;
  for (int p = 1; p < kProducers; ++p) producers.emplace_back(produce, p);
  produce(0);  // this thread adds too, and must never run a task itself
  for (auto& producer : producers) producer.join();
  ASSERT_TRUE(finish(finished, kProducers * kPerProducer));
  EXPECT_EQ(overlaps.load(), 0);
  EXPECT_EQ(onCaller.load(), 0);
  std::vector<int> expected(kPerProducer);
  std::iota(expected.begin(), expected.end(), 0);
  for (int p = 0; p < kProducers; ++p) EXPECT_EQ(seen[p], expected) << p;
}

TEST(SerialQueueTest, DifferentQueuesRunAtTheSameTime) {
  // Each task waits (bounded) for the other one to start: both see it only if they run
  // concurrently.
  std::atomic<int> started{0};
  std::atomic<int> sawBoth{0};
  std::atomic<int> finished{0};
  auto task = [&] {
    started.fetch_add(1);
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (started.load() < 2 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
    if (started.load() == 2) sawBoth.fetch_add(1);
    finished.fetch_add(1);
  };
  SerialQueue first;
  SerialQueue second;
  first.async(task);
  second.async(task);
  ASSERT_TRUE(finish(finished, 2));
  EXPECT_EQ(sawBoth.load(), 2);
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
  std::atomic<int> finished{0};
  {
    SerialQueue queue;
    queue.async([] { throw std::runtime_error("task failure"); });
    for (int i = 0; i < 50; ++i) {
      queue.async([&] { finished.fetch_add(1); });
    }
  }  // destroyed with tasks still waiting
  ASSERT_TRUE(finish(finished, 50));
}

TEST(SerialQueueTest, ManyQueuesShareTheBoundedPoolWithoutStarving) {
  constexpr int kQueues = 300;
  constexpr int kTasksEach = 5;
  std::vector<std::unique_ptr<SerialQueue>> queues;
  std::vector<std::vector<int>> seen(kQueues);
  std::atomic<int> finished{0};
  for (int q = 0; q < kQueues; ++q) queues.push_back(std::make_unique<SerialQueue>());
  for (int i = 0; i < kTasksEach; ++i) {
    for (int q = 0; q < kQueues; ++q) {
      queues[q]->async([&, q, i] {
        seen[q].push_back(i);
        finished.fetch_add(1);
      });
    }
  }
  ASSERT_TRUE(finish(finished, kQueues * kTasksEach));
  for (int q = 0; q < kQueues; ++q) EXPECT_EQ(seen[q], (std::vector<int>{0, 1, 2, 3, 4}));
}

// Whatever a task throws on one of the library's threads is logged with the thread's role,
// and the thread goes on with the next task instead of taking the host's process down.
TEST(ThreadSecurity, ATaskThatThrowsIsLoggedAndTheThreadGoesOn) {
  using Post = std::function<void(std::function<void()>)>;
  SerialQueue queue;
  SystemClock clock;
  const struct {
    const char* origin;
    Post post;
  } rows[] = {
      {"a timer task", [&](auto task) { clock.runAfter(0ms, std::move(task)); }},
      {"a worker job", [](auto task) { threadPoolExecutor()->post(std::move(task)); }},
      {"a queued task", [&](auto task) { queue.async(std::move(task)); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.origin);
    test::LogCapture log;
    std::atomic<int> finished{0};
    row.post([] { throw std::runtime_error("host callback failure"); });
    row.post([&] { finished.fetch_add(1); });
    ASSERT_TRUE(finish(finished, 1));
    const std::string line =
        std::string("QuorvelSDK: ") + row.origin + " threw: host callback failure";
    EXPECT_TRUE(
        test::eventually([&] { return log.count(line) == 1; }));  // workers run side by side
  }
}

}  // namespace
}  // namespace qvl
