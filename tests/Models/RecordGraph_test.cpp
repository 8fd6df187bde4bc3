// Whole record graphs: every class in one store, relations parsed from service JSON, and
// inverse relations that follow the lists of the other side.

#include <gtest/gtest.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "Models/RecordTestSupport.h"
#include "quorvel/Models/QVLAudience.h"
#include "quorvel/Models/QVLBeacon.h"
#include "quorvel/Models/QVLBeaconCategory.h"
#include "quorvel/Models/QVLOrganization.h"
#include "quorvel/Models/QVLShop.h"
#include "quorvel/Models/QVLShopCategory.h"

namespace {

using nlohmann::json;

template <class T, class Id>
std::vector<std::int64_t> ids(const qvl::Results<T>& records, Id id) {
  std::vector<std::int64_t> out;
  for (const auto& r : records) out.push_back(((*r).*id)().value_or(-1));
  std::sort(out.begin(), out.end());
  return out;
}

json beaconJson(std::int64_t id, std::vector<json> posts) {
  return {{"id", id},
          {"description", "Beacon " + std::to_string(id)},
          {"uuid", "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"},
          {"major", 1},
          {"minor", id},
          {"posts", posts}};
}

class RecordGraphTest : public records_test::RecordStoreTest {
 protected:
  // Organization 1: categories 10 (shops 100, 101) and 11 (shop 101); shop 100 has
  // beacons 1000 (posts 1, 2) and 1001 (post 2); shop 101 has beacon 1001; audience 20
  // lists post 2; post 1 has field 7.
  std::shared_ptr<QVLOrganization> storeOrganization() {
    // A record met twice in one answer is written twice, the later copy last: each copy
    // here is complete.
    json beacon1001 = beaconJson(1001, {{{"id", 2}}});
    json shop100 = {
        {"id", 100},
        {"name", "Harbour"},
        {"beacons",
         {beaconJson(1000, {{{"id", 1}, {"postfields", {{{"id", 7}}}}}, {{"id", 2}}}), beacon1001}},
        {"logo", {{"id", 500}, {"urls", {{"original", "https://cdn.example/l"}}}}}};
    json shop101 = {{"id", 101}, {"name", "Square"}, {"beacons", {beacon1001}}};
    json answer = {{"id", 1},
                   {"name", "Quorvel Coffee"},
                   {"shopcategories",
                    {{{"id", 10}, {"name", "Cafés"}, {"shops", {shop100, shop101}}},
                     {{"id", 11}, {"name", "Outdoor"}, {"shops", {shop101}}}}},
                   {"regions", {{{"id", 30}, {"uuid", "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"}}}},
                   {"audiences", {{{"id", 20}, {"name", "Regulars"}, {"posts", {{{"id", 2}}}}}}},
                   {"image", {{"id", 501}}},
                   {"logo", {{"id", 500}}}};
    return store(QVLOrganization::newObjectWithJSONDictionary(answer, store_.get()));
  }
};

TEST_F(RecordGraphTest, ParsedGraphLandsInEveryList) {
  auto organization = storeOrganization();
  EXPECT_EQ(organization->shopCategories().size(), 2u);
  EXPECT_EQ(organization->regions().size(), 1u);
  EXPECT_EQ(organization->audiences()[0]->posts()[0]->postId(), 2);
  ASSERT_TRUE(organization->logo());
  EXPECT_EQ(organization->logo()->mediaId(), 500);
  EXPECT_EQ(organization->toDictionary().value("logo_id", json()), 500);
  EXPECT_EQ(organization->toDictionary().value("image_id", json()), 501);

  auto shop = store_->object<QVLShop>(100);
  ASSERT_TRUE(shop);
  EXPECT_EQ(shop->beacons().size(), 2u);
  EXPECT_EQ(shop->toDictionary().value("logo_id", json()), 500);
  EXPECT_EQ(store_->object<QVLBeacon>(1000)->posts().size(), 2u);
  EXPECT_EQ(store_->objects<QVLPost>().size(), 2u) << "post 2 is one record, listed thrice";
}

TEST_F(RecordGraphTest, InverseRelationsFollowTheOtherSide) {
  storeOrganization();
  auto shop101 = store_->object<QVLShop>(101);
  auto beacon1001 = store_->object<QVLBeacon>(1001);
  auto post2 = store_->object<QVLPost>(2);

  auto categoriesOf101 = shop101->shopCategories();
  auto shopsOf1001 = beacon1001->shops();
  auto beaconsOf2 = post2->beacons();
  EXPECT_EQ(ids(categoriesOf101, &QVLShopCategory::shopCategoryId),
            (std::vector<std::int64_t>{10, 11}));
  EXPECT_EQ(ids(shopsOf1001, &QVLShop::shopId), (std::vector<std::int64_t>{100, 101}));
  EXPECT_EQ(ids(beaconsOf2, &QVLBeacon::beaconId), (std::vector<std::int64_t>{1000, 1001}));
  EXPECT_EQ(ids(post2->audiences(), &QVLAudience::audienceId), (std::vector<std::int64_t>{20}));
  EXPECT_TRUE(beacon1001->beaconCategories().empty());

  store_->write([&] {
    auto category = std::make_shared<QVLBeaconCategory>();
    category->setBeaconCategoryId(40);
    category->beacons().append(beacon1001);
    store_->addOrUpdate(category);
    store_->object<QVLShopCategory>(11)->shops().removeAll();
    store_->object<QVLShop>(100)->beacons().remove(0);  // beacon 1000 leaves shop 100
  });

  EXPECT_EQ(ids(categoriesOf101, &QVLShopCategory::shopCategoryId),
            (std::vector<std::int64_t>{10}));
  EXPECT_EQ(ids(beacon1001->beaconCategories(), &QVLBeaconCategory::beaconCategoryId),
            (std::vector<std::int64_t>{40}));
  EXPECT_TRUE(store_->object<QVLBeacon>(1000)->shops().empty());
  EXPECT_EQ(ids(beaconsOf2, &QVLBeacon::beaconId), (std::vector<std::int64_t>{1000, 1001}))
      << "the beacons still list the post";

  EXPECT_TRUE(store_->object<QVLPost>(1)->audiences().empty());
  EXPECT_EQ(ids(store_->object<QVLPostField>(7)->posts(), &QVLPost::postId),
            (std::vector<std::int64_t>{1}));
}

TEST_F(RecordGraphTest, UnmanagedRecordsHaveNoInverseRelations) {
  auto shop = std::make_shared<QVLShop>();
  auto category = std::make_shared<QVLShopCategory>();
  category->shops().append(shop);
  EXPECT_TRUE(shop->shopCategories().empty());
}

}  // namespace
