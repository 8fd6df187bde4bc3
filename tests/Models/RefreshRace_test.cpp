// A service refresh that races a local change must never write back the stale copy it
// parsed: the inbox, subscriptions and read flags live in exactly those properties.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "Models/RecordTestSupport.h"
#include "quorvel/records/QVLGuest.h"

namespace {

using json = qvl::Json;

using records_test::postWithId;

class RefreshRaceTest : public records_test::RecordStoreTest {};

TEST_F(RefreshRaceTest, ALocalChangeCommittedBetweenParseAndSaveSurvives) {
  store(QVLGuest::newObjectWithJSONDictionary({{"id", 1}, {"balance", 1}}, store_.get()));
  store(QVLPost::newObjectWithJSONDictionary({{"id", 5}, {"name", "old"}}, store_.get()));

  // Both refreshes read their stored twins now, before the local change commits.
  auto guestAnswer =
      QVLGuest::newObjectWithJSONDictionary({{"id", 1}, {"balance", 2}}, store_.get());
  auto postAnswer =
      QVLPost::newObjectWithJSONDictionary({{"id", 5}, {"name", "new"}}, store_.get());
  store_->write([&] {
    auto guest = store_->object<QVLGuest>(1);
    auto post = store_->object<QVLPost>(5);
    guest->posts().append(post);
    guest->setEmail("ada@example.com");  // a key the answer omits
    post->setRead(true);
  });
  store_->write([&] {
    store_->addOrUpdate(guestAnswer);
    store_->addOrUpdate(postAnswer);
  });

  auto guest = store_->object<QVLGuest>(1);
  auto post = store_->object<QVLPost>(5);
  EXPECT_EQ(guest->posts().size(), 1u);
  EXPECT_EQ(guest->email(), "ada@example.com");
  EXPECT_TRUE(post->read());
  EXPECT_EQ(guest->balance(), 2);  // what the answer did say is stored
  EXPECT_EQ(post->name(), "new");
}

// Refreshers (guest and posts, as the service client saves them) run alongside threads
// that append to the inbox and mark posts read; every local change must survive.
TEST_F(RefreshRaceTest, ConcurrentRefreshesLoseNoInboxAppendOrReadMark) {
  constexpr int kPosts = 24;
  constexpr int kAppendsPerThread = 30;
  store(QVLGuest::newObjectWithJSONDictionary({{"id", 1}}, store_.get()));
  store_->write([&] {
    for (int id = 1; id <= kPosts; ++id) store_->addOrUpdate(postWithId(id));
  });

  json posts = json::array();
  for (int id = 1; id <= kPosts; ++id) posts.append({{"id", id}, {"name", "p"}});
  std::atomic<bool> done{false};
  std::atomic<int> failures{0};
  auto guarded = [&](auto body) {
    return qvl::test::inThisContext([&failures, body] {
      try {
        body(QVLRealm::realm());
      } catch (const std::exception& e) {
        ADD_FAILURE() << e.what();
        ++failures;
      }
      qvl::Store::closeThreadHandles();
    });
  };
  std::vector<std::thread> refreshers;
  for (int t = 0; t < 2; ++t) {
    refreshers.emplace_back(guarded([&, t](std::shared_ptr<qvl::Store> realm) {
      for (int i = 0; !done.load() && i < 2000; ++i) {
        auto guest = QVLGuest::newObjectWithJSONDictionary(
            {{"id", 1}, {"balance", i}, {"actions", json::array()}});
        auto fresh = QVLApiModel::newObjectsWithJSONArray(QVLPost::modelClass(), posts);
        realm->write([&] {
          realm->addOrUpdate(guest);
          if (t == 0) realm->addOrUpdateAll({fresh.begin(), fresh.end()});
        });
      }
    }));
  }
  std::vector<std::thread> changers;
  for (int t = 0; t < 2; ++t) {
    changers.emplace_back(guarded([&, t](std::shared_ptr<qvl::Store> realm) {
      for (int i = 0; i < kAppendsPerThread; ++i) {
        realm->write(
            [&] { realm->object<QVLGuest>(1)->posts().append(postWithId(1000 * (t + 1) + i)); });
        std::int64_t marked = 2 * i + t;
        if (marked < kPosts)
          realm->write([&] { realm->object<QVLPost>(marked + 1)->setRead(true); });
      }
    }));
  }
  for (auto& thread : changers) thread.join();
  done = true;
  for (auto& thread : refreshers) thread.join();
  ASSERT_EQ(failures.load(), 0);

  std::size_t unread = 0;
  for (int id = 1; id <= kPosts; ++id) unread += store_->object<QVLPost>(id)->read() ? 0 : 1;
  EXPECT_EQ(store_->object<QVLGuest>(1)->posts().size(), 2u * kAppendsPerThread);
  EXPECT_EQ(unread, 0u) << "read marks lost";
}

}  // namespace
