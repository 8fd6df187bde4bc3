// The guest's refresh rules and the analytics records' request bodies.

#include <gtest/gtest.h>

#include "Models/RecordTestSupport.h"
#include "quorvel/networking/QVLApiClient.h"
#include "quorvel/records/QVLBeaconView.h"
#include "quorvel/records/QVLGuest.h"
#include "quorvel/records/QVLPostView.h"

namespace {

using json = qvl::Json;
using records_test::at;

class GuestRefreshTest : public records_test::RecordStoreTest {
 protected:
  std::shared_ptr<QVLGuest> refresh(const json& answer) {
    store(QVLGuest::newObjectWithJSONDictionary(answer, store_.get()));
    return store_->object<QVLGuest>(answer.at("id")->asInt());
  }
};

TEST_F(GuestRefreshTest, RefreshesKeepWhatTheyOmitAndLeaveSubscriptionsAndInboxToTheDevice) {
  auto guest = refresh({{"id", 1},
                        {"balance", 10},
                        {"first_name", "Ada"},
                        {"redemptions", {{{"id", 4}, {"cost", 40}, {"title", "Mug"}}}}});
  auto shop = [](std::int64_t id) {
    return QVLShop::newObjectWithJSONDictionary({{"id", id}}, nullptr);
  };
  store_->write([&] {
    guest->shops().assign({shop(3), shop(1)});
    guest->posts().assign(
        {records_test::postWithId(8), records_test::postWithId(2), records_test::postWithId(5)});
  });

  // The service knows nothing of either list, and sends keys of the same names anyway.
  json answer = {{"id", 1}, {"balance", 11}, {"shops", json::array()}, {"posts", json::array()}};
  refresh(answer);
  guest = refresh(answer);

  EXPECT_EQ(guest->balance(), 11);
  EXPECT_EQ(guest->firstName(), "Ada");
  ASSERT_EQ(guest->redemptions().size(), 1u);
  EXPECT_EQ(guest->redemptions()[0]->title(), "Mug");
  EXPECT_EQ(records_test::keysOf(guest->shops()), (records_test::Keys{3, 1}));
  EXPECT_EQ(records_test::keysOf(guest->posts()), (records_test::Keys{8, 2, 5}));
}

TEST(ViewRecordTest, PostViewDictionaryLeavesOutTheAudienceAndTheLocalId) {
  auto view = std::make_shared<QVLPostView>();
  view->setPostViewId(99);
  view->setGuestId(1);
  view->setPostId(9);
  view->setTimeIn(at("2024-03-05T12:00:00+0000"));
  view->setTimeOut(at("2024-03-05T12:00:42+0000"));
  EXPECT_EQ(view->toDictionary(), (json{{"guest_id", 1},
                                        {"post_id", 9},
                                        {"time_in", "2024-03-05T12:00:00+0000"},
                                        {"time_out", "2024-03-05T12:00:42+0000"}}));

  view->setAudienceId(4);
  EXPECT_EQ(view->toDictionary().at("audience_id"), 4);
}

TEST(ViewRecordTest, BeaconViewDictionaryLeavesOutAMissingExit) {
  auto open = std::make_shared<QVLBeaconView>();
  open->setBeaconViewId(5);
  open->setGuestId(1);
  open->setBeaconId(315);
  open->setEnterDate(at("2024-03-05T12:00:00+0000"));
  auto closed = std::make_shared<QVLBeaconView>();
  closed->setBeaconId(316);
  closed->setEnterDate(at("2024-03-05T12:00:00+0000"));
  closed->setExitDate(at("2024-03-05T12:05:00+0000"));

  std::vector<std::shared_ptr<QVLBeaconView>> batch{open, closed};
  EXPECT_EQ(QVLApiModel::arrayOfDictionariesFromObjects(batch),
            (json{{{"guest_id", 1}, {"beacon_id", 315}, {"enter", "2024-03-05T12:00:00+0000"}},
                  {{"beacon_id", 316},
                   {"enter", "2024-03-05T12:00:00+0000"},
                   {"exit", "2024-03-05T12:05:00+0000"}}}));
}

class ViewStoreTest : public records_test::RecordStoreTest {};

TEST_F(ViewStoreTest, SavingViewsWithoutAKeyReturnsEveryRecordSaved) {
  std::optional<qvl::AnyResults> saved;
  std::optional<QVLError> error;
  auto save = [&](const std::string& body) {
    QVLApiClient::sharedClient().parseAndSaveJSONArrayData(body, QVLPostView::modelClass(),
                                                           [&](auto results, auto e) {
                                                             saved = std::move(results);
                                                             error = std::move(e);
                                                           });
  };
  save(R"([{"post_id": 1}, {"post_id": 1}])");
  EXPECT_EQ(error, std::nullopt);
  ASSERT_TRUE(saved.has_value());
  auto first = *saved;
  save(R"([{"post_id": 2}])");
  EXPECT_EQ(first.size(), 2u);  // only the records that call saved, both of them
  ASSERT_EQ(saved->size(), 1u);
  EXPECT_EQ(std::static_pointer_cast<QVLPostView>(saved->at(0))->postId(), 2);
  EXPECT_EQ(store_->objects<QVLPostView>().size(), 3u);  // equal views are rows of their own
  EXPECT_THROW(store_->object<QVLPostView>(1), std::logic_error);
}

}  // namespace
