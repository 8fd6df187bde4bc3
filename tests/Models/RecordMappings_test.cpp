// Every record type against the service's JSON: keys, value kinds and resource names.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Models/RecordTestSupport.h"
#include "quorvel/Models/QVLAction.h"
#include "quorvel/Models/QVLAudience.h"
#include "quorvel/Models/QVLBeacon.h"
#include "quorvel/Models/QVLBeaconCategory.h"
#include "quorvel/Models/QVLBeaconView.h"
#include "quorvel/Models/QVLGeofence.h"
#include "quorvel/Models/QVLGuest.h"
#include "quorvel/Models/QVLOrganization.h"
#include "quorvel/Models/QVLPost.h"
#include "quorvel/Models/QVLPostView.h"
#include "quorvel/Models/QVLPrize.h"
#include "quorvel/Models/QVLRedemption.h"
#include "quorvel/Models/QVLRegion.h"
#include "quorvel/Models/QVLShop.h"
#include "quorvel/Models/QVLShopCategory.h"

namespace {

using nlohmann::json;

struct Case {
  QVLModelClassRef cls;
  const char* plural;
  const char* singular;
  const char* primaryKey;
  json answer;  // every mapped key, each with a value of its kind
};

constexpr const char* kDate = "2024-03-05T12:00:00+0000";
constexpr const char* kLater = "2024-03-06T08:30:15+0000";

std::vector<Case> cases() {
  return {
      {&QVLOrganization::modelClass,
       "organizations",
       "organization",
       "organizationId",
       {{"id", 1},
        {"name", "Quorvel Coffee"},
        {"description", "Roasters"},
        {"url", "https://coffee.example"},
        {"color", "12,34,56"},
        {"latitude", 56.5},
        {"longitude", 10.25},
        {"max_checkins_per_week", 3},
        {"exclusive_max", 2},
        {"prize_warning", "Limited"},
        {"created_at", kDate},
        {"updated_at", kLater}}},
      {&QVLShop::modelClass,
       "shops",
       "shop",
       "shopId",
       {{"id", 2},
        {"name", "Harbour"},
        {"homepage", "shop.example"},
        {"hours", "8-16"},
        {"phone", "+45 1234"},
        {"description", "By the water"},
        {"email", "h@shop.example"},
        {"facebook", "fb.example/h"},
        {"cnc_enabled", true},
        {"created_at", kDate},
        {"updated_at", kLater}}},
      {&QVLShopCategory::modelClass,
       "shopcategories",
       "shopcategory",
       "shopCategoryId",
       {{"id", 3}, {"name", "Cafés"}, {"created_at", kDate}, {"updated_at", kLater}}},
      {&QVLBeaconCategory::modelClass,
       "beaconcategories",
       "beaconcategory",
       "beaconCategoryId",
       {{"id", 4}, {"name", "Doors"}, {"created_at", kDate}, {"updated_at", kLater}}},
      {&QVLAudience::modelClass,
       "audiences",
       "audience",
       "audienceId",
       {{"id", 5}, {"name", "Regulars"}, {"created_at", kDate}, {"updated_at", kLater}}},
      {&QVLRegion::modelClass,
       "regions",
       "region",
       "regionId",
       {{"id", 6},
        {"start", kDate},
        {"stop", kLater},
        {"uuid", "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"},
        {"major", 1},
        {"minor", 2}}},
      {&QVLBeacon::modelClass,
       "beacons",
       "beacon",
       "beaconId",
       {{"id", 7},
        {"description", "Front door"},
        {"uuid", "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0"},
        {"major", 1},
        {"minor", 2},
        {"message", "Welcome"},
        {"latitude", 56.5},
        {"longitude", 10.25},
        {"created_at", kDate},
        {"updated_at", kLater}}},
      {&QVLGeofence::modelClass,
       "geofences",
       "geofence",
       "geofenceId",
       {{"id", 8},
        {"name", "Harbour"},
        {"message", "Sale"},
        {"latitude", 56.5},
        {"longitude", 10.25},
        {"radius", 120.5},
        {"created_at", kDate},
        {"updated_at", kLater}}},
      {&QVLPost::modelClass,
       "posts",
       "post",
       "postId",
       {{"id", 9},
        {"name", "Spring"},
        {"content.html", "<p>Hi</p>"},
        {"collectible", true},
        {"parameters", "{\"x\":1}"},
        {"created_at", kDate},
        {"updated_at", kLater}}},
      {&QVLPostField::modelClass,
       "postfields",
       "postfield",
       "postFieldId",
       {{"id", 10},
        {"postFieldType_id", 6},
        {"order", 2},
        {"content", "{}"},
        {"created_at", kDate},
        {"updated_at", kLater}}},
      {&QVLPostPeriod::modelClass,
       "postperiods",
       "postPeriod",
       "postPeriodId",
       {{"id", 11},
        {"start", kDate},
        {"stop", kLater},
        {"created_at", kDate},
        {"updated_at", kLater}}},
      {&QVLPrize::modelClass,
       "prizes",
       "prize",
       "prizeId",
       {{"id", 12},
        {"title", "Mug"},
        {"description", "A mug"},
        {"cost", 40},
        {"active", true},
        {"warning", "Few left"},
        {"user_can_redeem", true},
        {"error_message", "No"},
        {"info_message", "Yes"},
        {"limits", "{\"PER_DAY\":1}"},
        {"exclusive_left", 3},
        {"exclusive_next_redemption", kLater},
        {"created_at", kDate},
        {"updated_at", kLater}}},
      {&QVLRedemption::modelClass,
       "redemptions",
       "redemption",
       "redemptionId",
       {{"id", 13}, {"created_at", kDate}, {"cost", 40}, {"title", "Mug"}}},
      {&QVLAction::modelClass,
       "actions",
       "action",
       "actionId",
       {{"id", 14},
        {"action_type", 2},
        {"pretty_name", "Visit"},
        {"subject_name", "Harbour"},
        {"value", 5},
        {"created_at", kDate},
        {"updated_at", kLater},
        {"region_id", 6}}},
      {&QVLGuest::modelClass,
       "guests",
       "guest",
       "guestId",
       {{"id", 15},
        {"balance", 120},
        {"first_name", "Ada"},
        {"middle_name", "B."},
        {"last_name", "Lovelace"},
        {"email", "ada@example.com"},
        {"created_at", kDate},
        {"updated_at", kLater}}},
  };
}

// "content.html" arrives nested and is written back flat.
json nest(const json& flat) {
  json out = json::object();
  for (const auto& [key, value] : flat.items()) {
    auto dot = key.find('.');
    if (dot == std::string::npos)
      out[key] = value;
    else
      out[key.substr(0, dot)][key.substr(dot + 1)] = value;
  }
  return out;
}

TEST(RecordMappingTest, EveryMappedKeySurvivesTheRoundTrip) {
  for (const Case& c : cases()) {
    const QVLModelClass& cls = c.cls();
    SCOPED_TRACE(cls.name());
    EXPECT_EQ(cls.apiResourcePlural(), c.plural);
    EXPECT_EQ(cls.apiResourceSingular(), c.singular);
    EXPECT_EQ(cls.primaryKey(), c.primaryKey);
    auto record = QVLApiModel::newObjectWithJSONDictionary(cls, nest(c.answer), nullptr);
    EXPECT_EQ(record->primaryKeyValue(), c.answer["id"].get<std::int64_t>());
    EXPECT_EQ(record->toDictionary(), c.answer);
  }
}

TEST(RecordMappingTest, ViewRecordsAreNamedForTheirEndpointsAndHaveNoKey) {
  EXPECT_TRUE(QVLPostView::modelClass().primaryKey().empty());
  EXPECT_TRUE(QVLBeaconView::modelClass().primaryKey().empty());
  EXPECT_EQ(QVLPostView::apiResourcePlural(), "postviews");
  EXPECT_EQ(QVLPostView::apiResourceSingular(), "postview");
  EXPECT_EQ(QVLBeaconView::apiResourcePlural(), "beaconviews");
  EXPECT_EQ(QVLBeaconView::apiResourceSingular(), "beaconview");
}

class RecordSchemaTest : public records_test::RecordStoreTest {};

TEST_F(RecordSchemaTest, EveryRecordTypeIsStoredAndReadBackWhole) {
  for (const Case& c : cases()) {
    const QVLModelClass& cls = c.cls();
    SCOPED_TRACE(cls.name());
    auto record = QVLApiModel::newObjectWithJSONDictionary(cls, nest(c.answer), store_.get());
    store_->write([&] { store_->addOrUpdate(std::shared_ptr<qvl::Object>(record)); });
    auto stored = std::static_pointer_cast<QVLApiModel>(
        store_->object(cls, c.answer["id"].get<std::int64_t>()));
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->toDictionary(), c.answer);
  }
}

}  // namespace
