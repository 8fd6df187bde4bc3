// Every record type against the service's JSON (keys, value kinds and resource names), and
// whole record graphs: relations parsed from service JSON, and inverse relations that follow
// the lists of the other side.

#include <gtest/gtest.h>

#include "Models/RecordTestSupport.h"
#include "quorvel/records/QVLAction.h"
#include "quorvel/records/QVLAudience.h"
#include "quorvel/records/QVLBeacon.h"
#include "quorvel/records/QVLBeaconCategory.h"
#include "quorvel/records/QVLGeofence.h"
#include "quorvel/records/QVLGuest.h"
#include "quorvel/records/QVLOrganization.h"
#include "quorvel/records/QVLPost.h"
#include "quorvel/records/QVLPrize.h"
#include "quorvel/records/QVLRedemption.h"
#include "quorvel/records/QVLRegion.h"
#include "quorvel/records/QVLShop.h"
#include "quorvel/records/QVLShopCategory.h"

namespace {

using json = qvl::Json;

struct Case {
  QVLModelClassRef cls;
  const char* plural;
  const char* singular;
  const char* primaryKey;
  bool stamped;        // the answer also carries created_at and updated_at
  const char* answer;  // every mapped key, each with a value of its kind
};

const std::vector<Case> kCases = {
    {&QVLOrganization::modelClass, "organizations", "organization", "organizationId", true,
     R"({"id":1,"name":"Quorvel Coffee","description":"Roasters","url":"https://coffee.example",
        "color":"12,34,56","latitude":56.5,"longitude":10.25,"max_checkins_per_week":3,
        "exclusive_max":2,"prize_warning":"Limited"})"},
    {&QVLShop::modelClass, "shops", "shop", "shopId", true,
     R"({"id":2,"name":"Harbour","homepage":"shop.example","hours":"8-16","phone":"+45 1234",
        "description":"By the water","email":"h@shop.example","facebook":"fb.example/h",
        "cnc_enabled":true})"},
    {&QVLShopCategory::modelClass, "shopcategories", "shopcategory", "shopCategoryId", true,
     R"({"id":3,"name":"Cafés"})"},
    {&QVLBeaconCategory::modelClass, "beaconcategories", "beaconcategory", "beaconCategoryId", true,
     R"({"id":4,"name":"Doors"})"},
    {&QVLAudience::modelClass, "audiences", "audience", "audienceId", true,
     R"({"id":5,"name":"Regulars"})"},
    {&QVLRegion::modelClass, "regions", "region", "regionId", false,
     R"({"id":6,"start":"2024-03-05T12:00:00+0000","stop":"2024-03-06T08:30:15+0000",
        "uuid":"E2C56DB5-DFFB-48D2-B060-D0F5A71096E0","major":1,"minor":2})"},
    {&QVLBeacon::modelClass, "beacons", "beacon", "beaconId", true,
     R"({"id":7,"description":"Front door","uuid":"E2C56DB5-DFFB-48D2-B060-D0F5A71096E0",
        "major":1,"minor":2,"message":"Welcome","latitude":56.5,"longitude":10.25})"},
    {&QVLGeofence::modelClass, "geofences", "geofence", "geofenceId", true,
     R"({"id":8,"name":"Harbour","message":"Sale","latitude":56.5,"longitude":10.25,
        "radius":120.5})"},
    {&QVLPost::modelClass, "posts", "post", "postId", true,
     R"({"id":9,"name":"Spring","content.html":"<p>Hi</p>","collectible":true,
        "parameters":"{\"x\":1}"})"},
    {&QVLPostField::modelClass, "postfields", "postfield", "postFieldId", true,
     R"({"id":10,"postFieldType_id":6,"order":2,"content":"{}"})"},
    {&QVLPostPeriod::modelClass, "postperiods", "postPeriod", "postPeriodId", true,
     R"({"id":11,"start":"2024-03-05T12:00:00+0000","stop":"2024-03-06T08:30:15+0000"})"},
    {&QVLPrize::modelClass, "prizes", "prize", "prizeId", true,
     R"({"id":12,"title":"Mug","description":"A mug","cost":40,"active":true,
        "warning":"Few left","user_can_redeem":true,"error_message":"No","info_message":"Yes",
        "limits":"{\"PER_DAY\":1}","exclusive_left":3,
        "exclusive_next_redemption":"2024-03-06T08:30:15+0000"})"},
    {&QVLRedemption::modelClass, "redemptions", "redemption", "redemptionId", false,
     R"({"id":13,"created_at":"2024-03-05T12:00:00+0000","cost":40,"title":"Mug"})"},
    {&QVLAction::modelClass, "actions", "action", "actionId", true,
     R"({"id":14,"action_type":2,"pretty_name":"Visit","subject_name":"Harbour","value":5,
        "region_id":6})"},
    {&QVLGuest::modelClass, "guests", "guest", "guestId", true,
     R"({"id":15,"balance":120,"first_name":"Ada","middle_name":"B.","last_name":"Lovelace",
        "email":"ada@example.com"})"},
};

json answerOf(const Case& c) {
  json answer = json::parse(c.answer).value();
  if (c.stamped) {
    answer.set("created_at", "2024-03-05T12:00:00+0000");
    answer.set("updated_at", "2024-03-06T08:30:15+0000");
  }
  return answer;
}

class RecordMappingTest : public records_test::RecordStoreTest {};

TEST_F(RecordMappingTest, EveryMappedKeySurvivesTheRoundTripAndTheStore) {
  for (const Case& c : kCases) {
    const QVLModelClass& cls = c.cls();
    SCOPED_TRACE(cls.name());
    const json answer = answerOf(c);
    EXPECT_EQ(cls.apiResourcePlural(), c.plural);
    EXPECT_EQ(cls.apiResourceSingular(), c.singular);
    EXPECT_EQ(cls.primaryKey(), c.primaryKey);
    json sent = json::object();  // "content.html" arrives nested and is written back flat
    for (const auto& key : answer.keys()) {
      if (key == "content.html")
        sent.set("content", {{"html", *answer.at(key)}});
      else
        sent.set(key, *answer.at(key));
    }
    auto record = QVLApiModel::newObjectWithJSONDictionary(cls, sent, store_.get());
    EXPECT_EQ(record->primaryKeyValue(), answer.at("id")->asInt());
    EXPECT_EQ(record->toDictionary(), answer);
    store_->write([&] { store_->addOrUpdate(std::shared_ptr<qvl::Object>(record)); });
    auto stored =
        std::static_pointer_cast<QVLApiModel>(store_->object(cls, *record->primaryKeyValue()));
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->toDictionary(), answer);
  }
}

using records_test::Keys;

// Inverse relations have no order of their own.
const auto ids = [](const auto& records) { return records_test::sortedKeysOf(records); };

json beaconJson(std::int64_t id, json posts) {
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
  EXPECT_EQ(organization->toDictionary().at("logo_id"), 500);
  EXPECT_EQ(organization->toDictionary().at("image_id"), 501);

  auto shop = store_->object<QVLShop>(100);
  ASSERT_TRUE(shop);
  EXPECT_EQ(shop->beacons().size(), 2u);
  EXPECT_EQ(shop->toDictionary().at("logo_id"), 500);
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
  EXPECT_EQ(ids(categoriesOf101), (Keys{10, 11}));
  EXPECT_EQ(ids(shopsOf1001), (Keys{100, 101}));
  EXPECT_EQ(ids(beaconsOf2), (Keys{1000, 1001}));
  EXPECT_EQ(ids(post2->audiences()), (Keys{20}));
  EXPECT_TRUE(beacon1001->beaconCategories().empty());

  store_->write([&] {
    auto category = std::make_shared<QVLBeaconCategory>();
    category->setBeaconCategoryId(40);
    category->beacons().append(beacon1001);
    store_->addOrUpdate(category);
    store_->object<QVLShopCategory>(11)->shops().removeAll();
    store_->object<QVLShop>(100)->beacons().remove(0);  // beacon 1000 leaves shop 100
  });

  EXPECT_EQ(ids(categoriesOf101), (Keys{10}));
  EXPECT_EQ(ids(beacon1001->beaconCategories()), (Keys{40}));
  EXPECT_TRUE(store_->object<QVLBeacon>(1000)->shops().empty());
  EXPECT_EQ(ids(beaconsOf2), (Keys{1000, 1001})) << "the beacons still list the post";

  EXPECT_TRUE(store_->object<QVLPost>(1)->audiences().empty());
  EXPECT_EQ(ids(store_->object<QVLPostField>(7)->posts()), (Keys{1}));
}

TEST_F(RecordGraphTest, UnmanagedRecordsHaveNoInverseRelations) {
  auto shop = std::make_shared<QVLShop>();
  auto category = std::make_shared<QVLShopCategory>();
  category->shops().append(shop);
  EXPECT_TRUE(shop->shopCategories().empty());
}

}  // namespace
