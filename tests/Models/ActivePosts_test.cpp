// Which posts of a beacon or geofence are active, and what that makes of the beacon.

#include <gtest/gtest.h>

#include <thread>

#include "Models/RecordTestSupport.h"
#include "quorvel/Models/QVLBeacon.h"
#include "quorvel/Models/QVLGeofence.h"
#include "quorvel/Models/QVLPost.h"

namespace {

using records_test::kNow;
using records_test::kTomorrow;
using records_test::kYesterday;

std::shared_ptr<QVLPostPeriod> period(std::int64_t id, qvl::Date start, qvl::Date stop) {
  auto p = std::make_shared<QVLPostPeriod>();
  p->setPostPeriodId(id);
  p->setStart(start);
  p->setStop(stop);
  return p;
}

std::shared_ptr<QVLPost> post(std::int64_t id,
                              std::vector<std::shared_ptr<QVLPostPeriod>> periods = {}) {
  auto p = std::make_shared<QVLPost>();
  p->setPostId(id);
  for (auto& each : periods) p->periods().append(each);
  return p;
}

std::vector<std::int64_t> idsOf(const qvl::Results<QVLPost>& posts) {
  std::vector<std::int64_t> ids;
  for (const auto& p : posts) ids.push_back(p->postId().value_or(-1));
  return ids;
}

class ActivePostsTest : public records_test::RecordStoreTest {};

TEST_F(ActivePostsTest, ABeaconOrGeofenceWithoutActivePostsIsInactive) {
  auto ended = [] { return post(1, {period(11, kYesterday - std::chrono::hours(1), kYesterday)}); };
  auto beacon = std::make_shared<QVLBeacon>();
  beacon->setBeaconId(1);
  beacon->posts().append(ended());
  EXPECT_FALSE(beacon->active());
  EXPECT_TRUE(beacon->activePosts().empty());

  auto geofence = std::make_shared<QVLGeofence>();
  geofence->setGeofenceId(1);
  EXPECT_FALSE(geofence->active()) << "no posts at all";
  geofence->posts().append(ended());
  EXPECT_FALSE(geofence->active());
  geofence->posts().append(post(2));  // no periods: always active
  EXPECT_TRUE(geofence->active());

  auto stored = store(beacon);
  EXPECT_FALSE(stored->active());
}

TEST_F(ActivePostsTest, KeepsListOrderAndSkipsInactivePosts) {
  auto beacon = std::make_shared<QVLBeacon>();
  beacon->setBeaconId(7);
  // List order differs from key order and from the order the posts reach the store.
  beacon->posts().assign({post(30), post(10, {period(1, kYesterday, kNow)}), post(20),
                          post(5, {period(2, kYesterday, kTomorrow)})});
  auto stored = store(beacon);

  EXPECT_EQ(idsOf(stored->activePosts()), (std::vector<std::int64_t>{30, 20, 5}));
  EXPECT_TRUE(stored->active());
  EXPECT_EQ(idsOf(beacon->activePosts()), (std::vector<std::int64_t>{30, 20, 5}))
      << "the same rule on the unmanaged record";
}

TEST_F(ActivePostsTest, ResultsFollowLaterCommits) {
  auto geofence = std::make_shared<QVLGeofence>();
  geofence->setGeofenceId(3);
  geofence->posts().assign({post(1), post(2, {period(21, kYesterday, kTomorrow)}), post(3)});
  auto stored = store(geofence);

  qvl::Results<QVLPost> active = stored->activePosts();
  ASSERT_EQ(idsOf(active), (std::vector<std::int64_t>{1, 2, 3}));

  // Committed from another thread, through that thread's own handle.
  std::thread writer([] {
    auto realm = QVLRealm::realm();
    auto mine = realm->object<QVLGeofence>(3);
    realm->write([&] {
      mine->posts().remove(2);                    // post 3 leaves the geofence
      mine->posts().insert(0, mine->posts()[1]);  // post 2 moves to the front
      mine->posts().remove(2);
      realm->object<QVLPostPeriod>(21)->setStop(records_test::kNow);  // post 2 ends now
    });
    qvl::Store::closeThreadHandles();
  });
  writer.join();

  EXPECT_EQ(idsOf(active), (std::vector<std::int64_t>{2, 1}))
      << "list changes show in the results already handed out";
  EXPECT_FALSE(active[0]->active()) << "the period change shows through the results";
  EXPECT_EQ(idsOf(stored->activePosts()), (std::vector<std::int64_t>{1}))
      << "asking again applies the new periods";
  EXPECT_TRUE(stored->active());
}

}  // namespace
