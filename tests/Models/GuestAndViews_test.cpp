// The guest's refresh rules and the analytics records' request bodies.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Models/RecordTestSupport.h"
#include "quorvel/Managers/QVLApiClient.h"
#include "quorvel/Models/QVLBeaconView.h"
#include "quorvel/Models/QVLGuest.h"
#include "quorvel/Models/QVLPostView.h"

namespace {

using nlohmann::json;
using records_test::at;

class GuestRefreshTest : public records_test::RecordStoreTest {
 protected:
  std::shared_ptr<QVLGuest> refresh(const json& answer) {
    store(QVLGuest::newObjectWithJSONDictionary(answer, store_.get()));
    return store_->object<QVLGuest>(answer.at("id").get<std::int64_t>());
  }

  static json action(std::int64_t id, std::int64_t value) {
    return {{"id", id}, {"action_type", 2}, {"pretty_name", "Visit"}, {"value", value}};
  }
};

TEST_F(GuestRefreshTest, OmittedKeysKeepTheirValuesNullOrAnEmptyArrayClearsThem) {
  auto guest = refresh({{"id", 1},
                        {"balance", 120},
                        {"first_name", "Ada"},
                        {"actions", {action(10, 5), action(11, -3)}},
                        {"redemptions", {{{"id", 4}, {"cost", 40}, {"title", "Mug"}}}}});
  ASSERT_EQ(guest->actions().size(), 2u);
  EXPECT_EQ(guest->actions()[1]->value(), -3);
  EXPECT_EQ(guest->redemptions()[0]->title(), "Mug");

  guest = refresh({{"id", 1}, {"email", "ada@example.com"}});
  EXPECT_EQ(guest->balance(), 120);
  EXPECT_EQ(guest->actions().size(), 2u);
  EXPECT_EQ(guest->redemptions().size(), 1u);

  guest = refresh({{"id", 1}, {"balance", nullptr}, {"actions", json::array()}});
  EXPECT_EQ(guest->balance(), std::nullopt);
  EXPECT_TRUE(guest->actions().empty());
  EXPECT_EQ(guest->redemptions().size(), 1u);
  EXPECT_EQ(guest->firstName(), "Ada");
}

TEST_F(GuestRefreshTest, RefreshesLeaveSubscriptionsAndInboxAsTheDeviceSetThem) {
  auto guest = refresh({{"id", 1}, {"balance", 10}});
  auto shop = [](std::int64_t id) {
    return QVLShop::newObjectWithJSONDictionary({{"id", id}}, nullptr);
  };
  auto post = [](std::int64_t id) {
    return QVLPost::newObjectWithJSONDictionary({{"id", id}}, nullptr);
  };
  store_->write([&] {
    guest->shops().assign({shop(3), shop(1)});
    guest->posts().assign({post(8), post(2), post(5)});
  });

  // The service knows nothing of either list, and sends keys of the same names anyway.
  json answer = {{"id", 1}, {"balance", 11}, {"shops", json::array()}, {"posts", json::array()}};
  refresh(answer);
  guest = refresh(answer);

  EXPECT_EQ(guest->balance(), 11);
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
  EXPECT_EQ(view->toDictionary().value("audience_id", json()), 4);
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

TEST_F(ViewStoreTest, ViewsAreStoredWithoutAPrimaryKey) {
  for (int i = 0; i < 2; ++i) {
    auto view = std::make_shared<QVLBeaconView>();
    view->setBeaconId(315);  // the same values twice: two rows all the same
    view->setEnterDate(at("2024-03-05T12:00:00+0000"));
    store(view);
  }
  auto views = store_->objects<QVLBeaconView>();
  ASSERT_EQ(views.size(), 2u);
  EXPECT_EQ(views[1]->toDictionary(),
            (json{{"beacon_id", 315}, {"enter", "2024-03-05T12:00:00+0000"}}));
  EXPECT_THROW(store_->object<QVLPostView>(1), std::logic_error);
}

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
  EXPECT_EQ(store_->objects<QVLPostView>().size(), 3u);
}

}  // namespace
