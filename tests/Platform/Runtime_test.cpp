// The application runtime: main queue, notification centre, application, contexts.

#include <atomic>
#include <future>
#include <thread>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "quorvel/managers/Context.h"
#include "quorvel/managers/QVLInboxManager.h"
#include "quorvel/networking/HttpSession.h"
#include "quorvel/platform/Application.h"
#include "quorvel/platform/Clock.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/MainQueue.h"
#include "quorvel/platform/NotificationCenter.h"
#include "quorvel/platform/Queue.h"
#include "quorvel/platform/UserDefaults.h"
#include "quorvel/records/QVLRealm.h"
#include "quorvel/testing/ManualClock.h"
#include "support/LogCapture.h"
#include "support/ManualExecutor.h"
#include "support/RecordingTransport.h"
#include "support/ScopedContext.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(MainQueueTest, RunsTasksInOrderAlwaysOnTheFirstThreadThatRanThem) {
  auto queue = std::make_shared<qvl::MainQueue>();
  std::vector<int> order;
  std::vector<std::thread::id> threads;
  // Tasks added from several threads, and by a task itself.
  for (int i = 0; i < 3; ++i) {
    std::thread([&, i] {
      queue->async([&, i] {
        order.push_back(i);
        threads.push_back(std::this_thread::get_id());
      });
    }).join();
  }
  queue->async([&] { queue->async([&] { order.push_back(3); }); });

  std::thread::id runnerId;
  std::thread runner([&] {
    runnerId = std::this_thread::get_id();
    EXPECT_FALSE(queue->isCurrent());
    queue->runUntilIdle();
    EXPECT_TRUE(queue->isCurrent());
  });
  runner.join();
  EXPECT_THAT(order, ElementsAre(0, 1, 2, 3));
  EXPECT_THAT(threads, ElementsAre(runnerId, runnerId, runnerId));
  EXPECT_FALSE(queue->isCurrent());
  // Another thread may never run its tasks.
  queue->async([] {});
  EXPECT_THROW(queue->runUntilIdle(), std::logic_error);
}

TEST(MainQueueTest, RunReturnsAfterStopAndNeverRunsATaskInline) {
  auto queue = std::make_shared<qvl::MainQueue>();
  std::atomic<int> ran{0};
  std::thread main([&] { queue->run(); });
  bool inline_ = true;
  queue->async([&] {
    queue->async([&] { ++ran; });
    inline_ = ran.load() == 1;
    ++ran;
    queue->async([&] { queue->stop(); });
  });
  main.join();
  EXPECT_EQ(ran.load(), 2);
  EXPECT_FALSE(inline_);
}

// A host with a loop of its own (here a serial queue): the hook posts drains into it, and
// the loop runs them.
TEST(MainQueueTest, HostLoopRunsTasksThroughTheHook) {
  qvl::SerialQueue hostLoop;
  auto queue = std::make_shared<qvl::MainQueue>(
      [&](std::function<void()> drain) { hostLoop.async(std::move(drain)); });
  std::promise<bool> ranInTheLoop;
  queue->async([&] { ranInTheLoop.set_value(queue->isCurrent() && hostLoop.isCurrent()); });
  auto future = ranInTheLoop.get_future();
  ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
  EXPECT_TRUE(future.get());
}

TEST(ManualClockTest, AdvanceRunsDueTimersInOrderEachAtItsOwnTime) {
  qvl::ManualClock clock;
  const qvl::Date start = clock.now();
  std::vector<std::pair<int, std::chrono::milliseconds>> ran;
  auto record = [&](int n) {
    return [&, n] {
      ran.emplace_back(n,
                       std::chrono::duration_cast<std::chrono::milliseconds>(clock.now() - start));
    };
  };
  clock.runAfter(2s, record(2));
  clock.runAfter(1s, [&] {
    record(1)();
    clock.runAfter(500ms, record(3));  // added by a timer, due within the same advance
  });
  const auto cancelled = clock.runAfter(1500ms, record(9));
  clock.runAfter(5s, record(5));
  clock.cancel(cancelled);
  clock.advance(2s);
  EXPECT_THAT(ran, ElementsAre(std::pair{1, 1000ms}, std::pair{3, 1500ms}, std::pair{2, 2000ms}));
  EXPECT_EQ(clock.now() - start, 2s);
  EXPECT_EQ(clock.pendingTimers(), 1u);
}

class NotificationCenterTest : public ::testing::Test {
 protected:
  std::shared_ptr<qvl::NotificationCenter> center = std::make_shared<qvl::NotificationCenter>();
  std::vector<std::string> calls;
};

TEST_F(NotificationCenterTest, DeliversInRegistrationOrderMatchingNameAndSender) {
  int sender = 0;
  int other = 0;
  auto a = center->addObserver("N", nullptr, [&](const auto&) { calls.push_back("any"); });
  auto b = center->addObserver("N", &sender, [&](const auto&) { calls.push_back("sender"); });
  auto c =
      center->addObserver("", nullptr, [&](const auto& n) { calls.push_back("all:" + n.name); });
  center->post("N", &sender);
  center->post("N", &other);
  center->post("M", std::int64_t{4});
  EXPECT_THAT(calls, ElementsAre("any", "sender", "all:N", "any", "all:N", "all:M"));
}

TEST_F(NotificationCenterTest, RemovalDuringDeliveryAndTokenLifetime) {
  qvl::ObserverToken second;
  auto first = center->addObserver("N", nullptr, [&](const auto&) {
    calls.push_back("first");
    second.reset();  // removed before its turn: not called by this delivery
    (void)center->addObserver("N", nullptr, [&](const auto&) { calls.push_back("late"); });
  });
  second = center->addObserver("N", nullptr, [&](const auto&) { calls.push_back("second"); });
  center->post("N");
  EXPECT_THAT(calls, ElementsAre("first"));  // the one added during delivery was not called

  calls.clear();
  first = qvl::ObserverToken();  // moving a new value in removes the old observer
  center->post("N");
  EXPECT_THAT(calls, IsEmpty());
  {
    auto scoped = center->addObserver("N", nullptr, [&](const auto&) { calls.push_back("x"); });
    center->post("N");
  }
  center->post("N");
  EXPECT_THAT(calls, ElementsAre("x"));
}

// The application's timers and main queue come from the environment: a manual clock and a
// main queue the test drives.
class ApplicationTest : public ::testing::Test {
 protected:
  std::shared_ptr<qvl::ManualClock> clock = std::make_shared<qvl::ManualClock>();
  std::shared_ptr<qvl::MainQueue> mainQueue = std::make_shared<qvl::MainQueue>();
  std::shared_ptr<qvl::StandardApplication> app = std::make_shared<qvl::StandardApplication>();
  qvl::test::ScopedContext env{[this](qvl::Env& env) {
    env.clock = clock;
    env.mainQueue = mainQueue;
    env.application = app;
    env.notificationCenter = std::make_shared<qvl::NotificationCenter>();
  }};
};

TEST_F(ApplicationTest, BackgroundTaskExpiresOnTheMainQueueAfterItsAllowance) {
  using Outcome = qvl::StandardApplication::TaskOutcome;
  std::vector<std::thread::id> expiredOn;
  std::vector<std::tuple<qvl::Application::BackgroundTaskId, std::string, Outcome>> told;
  app->setBackgroundTaskObserver([&](auto id, const std::string& name, Outcome outcome) {
    told.emplace_back(id, name, outcome);
  });
  const auto expiring =
      app->beginBackgroundTask("Sync", [&] { expiredOn.push_back(std::this_thread::get_id()); });
  const auto ended = app->beginBackgroundTask("Other", [&] { ADD_FAILURE() << "ended task"; });
  app->endBackgroundTask(ended);
  EXPECT_NE(expiring, qvl::Application::kInvalidBackgroundTask);

  // The test thread is the main thread here.
  clock->advance(29s);
  mainQueue->runUntilIdle();
  EXPECT_THAT(app->runningBackgroundTasks(), ElementsAre("Sync"));
  clock->advance(1s);
  EXPECT_THAT(expiredOn, IsEmpty());  // handed to the main queue, not run by the timer
  EXPECT_EQ(mainQueue->runUntilIdle(), 1u);
  EXPECT_THAT(expiredOn, ElementsAre(std::this_thread::get_id()));
  EXPECT_THAT(app->runningBackgroundTasks(), IsEmpty());
  EXPECT_TRUE(app->waitForBackgroundTasks(0ms));
  app->endBackgroundTask(expiring);  // too late: told once, as expired
  app->endBackgroundTask(ended);
  EXPECT_THAT(told, ElementsAre(std::tuple(ended, "Other", Outcome::ended),
                                std::tuple(expiring, "Sync", Outcome::expired)));
}

TEST_F(ApplicationTest, WaitForBackgroundTasksIsBoundedAndWakesWhenTheyEnd) {
  const auto id = app->beginBackgroundTask("SyncInbox", {});
  EXPECT_FALSE(app->waitForBackgroundTasks(50ms));

  std::thread ender([&] {
    std::this_thread::sleep_for(20ms);
    app->endBackgroundTask(id);
  });
  EXPECT_TRUE(app->waitForBackgroundTasks(10s));
  ender.join();
}

TEST_F(ApplicationTest, BadgeIsSetOnlyOnTheMainQueue) {
  std::vector<int> shown;  // written on the main thread only
  app->setBadgeHook([&](int number) { shown.push_back(number); });
  std::thread main([&] { mainQueue->run(); });
  std::promise<void> bound;
  mainQueue->async([&] { bound.set_value(); });
  bound.get_future().wait();

#ifdef NDEBUG  // a debug build asserts instead (QVLBeaconManagerSecurity checks that)
  app->setApplicationIconBadgeNumber(3);  // from the test thread: refused
  EXPECT_EQ(app->applicationIconBadgeNumber(), 0);
#endif
  mainQueue->async([&] {
    app->setApplicationIconBadgeNumber(4);
    mainQueue->stop();
  });
  main.join();
  EXPECT_EQ(app->applicationIconBadgeNumber(), 4);
  EXPECT_THAT(shown, ElementsAre(4));
}

TEST(LogTest, LinesBelowTheEnvironmentsLevelAreDroppedAndTheOthersKeepTheirLevel) {
  qvl::test::TempDir directory;
  qvl::test::LogCapture log(qvl::LogLevel::warning);
  qvl::log(qvl::LogLevel::info, "dropped");
  qvl::log(qvl::LogLevel::warning, "kept");
  qvl::UserDefaults(directory.file("defaults")).setData("\xff", "v");  // refused data: an error
  EXPECT_THAT(log.entries(),
              ElementsAre(std::pair{qvl::LogLevel::warning, std::string("QuorvelSDK: kept")},
                          std::pair{qvl::LogLevel::error,
                                    std::string("QuorvelSDK: user defaults keys must be UTF-8 "
                                                "text; a value was not stored")}));
}

// Contexts side by side: each call, and each piece of work it hands to another thread, reads
// its own context's environment and reaches its own objects.
TEST(ContextTest, ContextsSideBySideKeepTheirOwnEnvironmentObjectsAndWork) {
  const auto standard = qvl::Env::current();
  qvl::test::TempDir directory;
  struct Side {
    std::string name;
    std::shared_ptr<qvl::test::RecordingTransport> transport =
        std::make_shared<qvl::test::RecordingTransport>();
    std::unique_ptr<qvl::Context> context;
  };
  Side sides[2];
  sides[0].name = "a";
  sides[1].name = "b";
  for (Side& side : sides) {
    qvl::Env env;
    env.storeDirectory = directory.file(side.name);
    env.userDefaultsPath = directory.file(side.name + ".defaults");
    env.transport = side.transport;
    side.context = std::make_unique<qvl::Context>(std::move(env));
  }
  qvl::Context& a = *sides[0].context;
  qvl::Context& b = *sides[1].context;
  EXPECT_NE(&a.apiClient(), &b.apiClient());
  EXPECT_NE(&a.inboxManager(), &b.inboxManager());
  EXPECT_EQ(&a.inboxManager(), &a.run([]() -> auto& { return QVLInboxManager::sharedManager(); }));
  EXPECT_EQ(a.userDefaults().path(), directory.file("a.defaults"));
  EXPECT_EQ(b.userDefaults().path(), directory.file("b.defaults"));
  EXPECT_EQ(b.run([] { return QVLRealm::storeDirectory(); }), directory.file("b"));
  EXPECT_EQ(qvl::Env::current(), standard) << "a scope puts back what it found";

  for (Side& side : sides) {
    std::promise<std::string> queued, completed;
    side.context->run([&] {
      auto queue = std::make_shared<qvl::SerialQueue>();
      queue->async([&, queue] { queued.set_value(qvl::Env::current()->storeDirectory); });
      qvl::HttpSession::create()->dataTask(
          {"GET", "https://example.invalid/x", {}, ""},
          [&](auto...) { completed.set_value(qvl::Env::current()->storeDirectory); });
    });
    EXPECT_EQ(queued.get_future().get(), directory.file(side.name));
    EXPECT_EQ(completed.get_future().get(), directory.file(side.name));
    EXPECT_EQ(side.transport->requests().size(), 1u);
  }
}

TEST(ContextTest, TheStandardContextIsConfiguredOnlyBeforeItsFirstUse) {
  (void)qvl::Env::current();
  EXPECT_THROW(qvl::Env::configure(qvl::Env{}), std::logic_error);
}

// A context's objects outlive the Context while its work is pending, and go with that work; a
// pending timer (a background task's expiry) does not keep them.
TEST(ContextTest, ObjectsGoWithTheLastPendingWorkNotWithPendingTimers) {
  qvl::test::TempDir directory;
  auto executor = std::make_shared<qvl::test::ManualExecutor>();
  auto clock = std::make_shared<qvl::ManualClock>();
  auto application = std::make_shared<qvl::StandardApplication>();
  qvl::Env env;
  env.executor = executor;
  env.clock = clock;
  env.application = application;
  env.storeDirectory = directory.path();
  auto context = std::make_unique<qvl::Context>(std::move(env));
  const std::weak_ptr<const qvl::Env> alive = context->env();
  std::string ranIn;
  context->run([&] {
    (void)QVLInboxManager::sharedManager();
    application->beginBackgroundTask("pending", [] {});
    auto queue = std::make_shared<qvl::SerialQueue>();
    queue->async([&, queue] { ranIn = qvl::Env::current()->storeDirectory; });
  });
  context.reset();
  EXPECT_FALSE(alive.expired()) << "the queued task holds its context";
  executor->runUntilIdle();
  EXPECT_EQ(ranIn, directory.path());
  EXPECT_TRUE(alive.expired()) << "the pending timer keeps nothing";
}

}  // namespace
