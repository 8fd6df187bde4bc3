#include "quorvel/managers/QVLInboxManager.h"

#include <atomic>
#include <future>
#include <thread>

#include "Managers/ServiceFixture.h"
#include "quorvel/managers/QVLPushManager.h"
#include "quorvel/managers/QVLSubscriptionManager.h"

namespace managers_test {
namespace {

constexpr const char* kInboxPath = "/v8/guests/9/relationships/posts";
constexpr const char* kSubscriptionsPath = "/v8/guests/9/relationships/subscriptions";

class QVLInboxManagerTest : public ServiceTest {
 protected:
  void SetUp() override {
    ServiceTest::SetUp();
    guest_ = storeGuest(9);
    inbox();
    subscriptions();
  }

  static QVLInboxManager& inbox() { return QVLInboxManager::sharedManager(); }
  static QVLSubscriptionManager& subscriptions() { return QVLSubscriptionManager::sharedManager(); }

  // A stored post; with `expired`, its one period ended yesterday.
  std::shared_ptr<QVLPost> storePost(std::int64_t id, bool expired = false) {
    auto post = std::make_shared<QVLPost>();
    post->setPostId(id);
    if (expired) {
      auto period = std::make_shared<QVLPostPeriod>();
      period->setPostPeriodId(id);
      period->setStart(clock_->now() - 48h);
      period->setStop(clock_->now() - 24h);
      post->periods().append(period);
    }
    return records_test::save(post);
  }
  std::shared_ptr<QVLShop> storeShop(std::int64_t id) {
    auto shop = std::make_shared<QVLShop>();
    shop->setShopId(id);
    return records_test::save(shop);
  }
  // What a host about to exit does.
  void enterBackgroundAndWait() {
    application_->didEnterBackground();
    EXPECT_TRUE(application_->waitForBackgroundTasks(20s));
  }

  std::shared_ptr<QVLGuest> guest_;
};

TEST_F(QVLInboxManagerTest, TheSyncsAnswerEndsTheHostsBackgroundTaskOnce) {
  auto host =
      std::make_shared<HostApplication>([this] { return bodies("PUT", kInboxPath).size(); });
  change([&](qvl::Env& env) { env.application = host; });
  inbox().addPost(storePost(1));
  const size_t before = completions();
  host->didEnterBackground();
  EXPECT_TRUE(host->waitForBackgroundTasks(20s));
  ASSERT_TRUE(eventually([&] { return completions() > before; }));  // the sync's completion ran
  const auto ends = host->ends();
  ASSERT_EQ(ends.size(), 1u);
  EXPECT_EQ(ends[0].name, "SyncInbox");
  EXPECT_EQ(ends[0].answersBefore, 1u);
}

TEST_F(QVLInboxManagerTest, ChangedListsGoOutWhenTheApplicationEntersTheBackgroundUntilSent) {
  server_.setHandler([](const RecordedRequest&, httplib::Response& response) {
    response.status = 500;
    response.set_content(R"({"error":"down"})", "application/json");
  });
  auto first = storePost(1);
  auto second = storePost(2);
  auto shop = storeShop(4);
  inbox().addPost(first);
  inbox().addPost(second);
  inbox().markPostAsRead(first, true);
  inbox().markPostAsSaved(second, true);
  subscriptions().subscribeToShop(shop);
  enterBackgroundAndWait();  // refused: logged, and sent again next time
  const std::string error =
      R"(Error Domain=QVLApiClientErrorDomain Code=500 UserInfo={"error":"down"})";
  EXPECT_EQ(log_.count("QuorvelSDK: Something went wrong when syncing posts (inbox): " + error),
            1u);
  EXPECT_EQ(log_.count("QuorvelSDK: Something went wrong when syncing relations: " + error), 1u);

  server_.setHandler({});
  enterBackgroundAndWait();
  enterBackgroundAndWait();  // nothing changed since: nothing is sent

  subscriptions().toggleSubscriptionForShop(shop);
  subscriptions().toggleSubscriptionForShop(shop);  // back as it was, still a change
  enterBackgroundAndWait();

  inbox().removeAllPosts();
  subscriptions().unsubscribeFromShop(shop);
  enterBackgroundAndWait();

  const json posts = json::parse(R"([{"type":"posts","id":1,"read":true,"saved":false},
                                     {"type":"posts","id":2,"read":false,"saved":true}])");
  EXPECT_EQ(bodies("PUT", kInboxPath), (std::vector<json>{posts, posts, json::array()}));
  const json subscribed = json::parse(R"([{"type":"shops","id":4}])");
  EXPECT_EQ(bodies("PUT", kSubscriptionsPath),
            (std::vector<json>{subscribed, subscribed, subscribed, json::array()}));
  EXPECT_FALSE(inbox().changesMadeSinceLastSync());
  EXPECT_FALSE(subscriptions().changesMadeSinceLastSync());
}

TEST_F(QVLInboxManagerTest, TheBadgeCountsUnreadActivePostsOnTheMainQueueWhenEnabled) {
  for (bool enabled : {false, true}) {
    SCOPED_TRACE(enabled ? "enabled" : "disabled");
    change([enabled](qvl::Env& env) {
      qvl::Json settings = env.bundleInfo.at("QuorvelSDK").value_or(qvl::Json::object());
      settings.set("AutoUpdateAppIconBadge", enabled);
      env.bundleInfo.set("QuorvelSDK", std::move(settings));
    });
    inbox().removeAllPosts();
    inbox().addPost(storePost(1));        // no periods: active, unread
    inbox().addPost(storePost(2, true));  // expired
    auto read = storePost(3);
    inbox().addPost(read);
    inbox().markPostAsRead(read, true);
    EXPECT_EQ(application_->applicationIconBadgeNumber(), 0);  // not before the main queue runs
    mainQueue_->runUntilIdle();
    EXPECT_EQ(application_->applicationIconBadgeNumber(), enabled ? 1 : 0);
  }
}

TEST_F(QVLInboxManagerTest, EachFailureReachesTheHostInItsDomainAndNeverAsAnException) {
  using Start = std::function<void(std::function<void(std::optional<QVLError>)>)>;
  auto sync = [this](Start::argument_type done) {
    QVLApiClient::sharedClient().syncRelations(guest_->shops().any(), guest_, "subscriptions",
                                               done);
  };
  std::shared_ptr<QVLShop> otherThreads;  // a record of another thread's store handle
  std::thread(qvl::test::inThisContext([&] {
    otherThreads = storeShop(4);
    qvl::Store::closeThreadHandles();
  })).join();
  struct Case {
    const char* name;
    std::function<void()> arrange;
    Start start;
    std::optional<QVLError> expected;  // none: the failure is logged as an error line
  };
  const std::vector<Case> cases = {
      {"status 500",
       [this] {
         server_.setHandler([](const RecordedRequest&, httplib::Response& response) {
           response.status = 500;
           response.set_content(R"({"error":"down"})", "application/json");
         });
       },
       sync, QVLError{kQVLApiClientErrorDomain, 500, qvl::Json{{"error", "down"}}}},
      {"no answer", [this] { serviceAt(refusingPort()); }, sync,
       QVLError{kQVLTransportErrorDomain, 7, std::nullopt}},  // CURLE_COULDNT_CONNECT
      {"no endpoint", [] {}, QVLPushManager::updateGuestIdForEndpointWithCompletion,
       QVLError{kQVLPushManagerErrorDomain, 1, qvl::Json{{"info", "No existing endpoint id"}}}},
      {"store refuses the record", [] {},
       [&](auto) { subscriptions().subscribeToShop(otherThreads); }, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    c.arrange();
    // The completion may come on a worker thread: the promise hands the error over safely.
    auto promise = std::make_shared<std::promise<std::optional<QVLError>>>();
    std::future<std::optional<QVLError>> answer = promise->get_future();
    EXPECT_NO_THROW(
        c.start([promise](std::optional<QVLError> error) { promise->set_value(error); }));
    if (c.expected) {
      ASSERT_TRUE(eventually(
          [&] { return answer.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }));
      const std::optional<QVLError> got = answer.get();
      ASSERT_TRUE(got);
      EXPECT_EQ(got->domain, c.expected->domain);
      EXPECT_EQ(got->code, c.expected->code);
      if (c.expected->userInfo) {
        EXPECT_EQ(got->userInfo, c.expected->userInfo);
      }
    } else {
      EXPECT_EQ(log_.lines().back().rfind("QuorvelSDK: QVLSubscriptionManager::", 0), 0u);
    }
  }
}

TEST_F(QVLInboxManagerTest, AGuestRefreshArrivingWhileTheInboxChangesLosesNothing) {
  server_.setHandler([](const RecordedRequest&, httplib::Response& response) {
    response.set_content(R"({"id":9,"first_name":"Ann"})", "application/json");
  });
  constexpr int kPosts = 40;
  std::vector<std::shared_ptr<QVLPost>> posts;
  for (int id = 1; id <= kPosts; ++id) posts.push_back(storePost(id));
  std::atomic<int> refreshed = 0;
  for (const auto& post : posts) {
    QVLApiClient::sharedClient().getObject(
        QVLGuest::modelClass(), 9, std::nullopt, std::nullopt,
        [&refreshed](std::shared_ptr<QVLApiModel>, std::optional<QVLError>) { ++refreshed; });
    inbox().addPost(post);
  }
  ASSERT_TRUE(eventually([&] { return refreshed == kPosts; }));
  EXPECT_EQ(inbox().allPosts().size(), static_cast<size_t>(kPosts));
  EXPECT_EQ(*QVLRealm::realm()->object<QVLGuest>(9)->firstName(), "Ann");
}

}  // namespace
}  // namespace managers_test
