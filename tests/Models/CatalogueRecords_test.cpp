// Computed properties of the catalogue records: regions, beacons, geofences, the
// organization and media; and the UUIDs they carry.

#include <gtest/gtest.h>

#include "Models/RecordTestSupport.h"
#include "quorvel/platform/Uuid.h"
#include "quorvel/records/QVLBeacon.h"
#include "quorvel/records/QVLGeofence.h"
#include "quorvel/records/QVLMedia.h"
#include "quorvel/records/QVLOrganization.h"
#include "quorvel/records/QVLRegion.h"
#include "quorvel/records/QVLShop.h"

namespace {

using json = qvl::Json;
using records_test::kNow;

constexpr const char* kUuidText = "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";

std::shared_ptr<QVLRegion> regionFrom(const json& j) {
  return QVLRegion::newObjectWithJSONDictionary(j, nullptr);
}

TEST(CatalogueRegionTest, NarrowsByWhatIsPresentAndNamesItselfAfterTheId) {
  using Part = std::optional<std::uint16_t>;
  struct Row {
    json answer;
    Part major, minor;
  };
  const std::vector<Row> rows = {
      {{{"id", 42}, {"major", 7}}, 7, std::nullopt},
      {{{"id", 43}, {"major", nullptr}}, std::nullopt, std::nullopt},
      {{{"id", 44}, {"major", 7}, {"minor", 9}}, 7, 9},
      {{{"id", 45}, {"minor", 9}}, std::nullopt, std::nullopt},  // a minor alone does not narrow
      {{{"id", 46}, {"major", 65537}, {"minor", 65536}}, 1, 0},  // truncated, not rejected
      {{{"id", 47}, {"uuid", "e2c56db5-dffb-48d2-b060-d0f5a71096e0"}}, std::nullopt, std::nullopt},
  };
  for (auto row : rows) {
    SCOPED_TRACE(row.answer.dump());
    if (!row.answer.contains("uuid")) row.answer.set("uuid", kUuidText);
    auto region = regionFrom(row.answer)->beaconRegion();
    ASSERT_TRUE(region);
    EXPECT_EQ(region->proximityUUID.toString(), kUuidText);
    EXPECT_EQ(region->major, row.major);
    EXPECT_EQ(region->minor, row.minor);
    EXPECT_EQ(region->identifier, "qvl_region;" + row.answer.at("id")->dump());
  }
  EXPECT_FALSE(regionFrom({{"id", 1}, {"uuid", "not-a-uuid"}})->beaconRegion());
  EXPECT_FALSE(regionFrom({{"id", 1}})->beaconRegion());
}

class CatalogueWindowTest : public records_test::FixedClockTest {};

TEST_F(CatalogueWindowTest, RegionIsActiveOnlyStrictlyInsideItsWindow) {
  auto region = regionFrom({{"id", 1}, {"start", "2024-03-05T12:00:00+0000"}});
  region->setStop(kNow + std::chrono::hours(24));
  EXPECT_FALSE(region->active()) << "start equal to now";
  region->setStart(kNow - std::chrono::seconds(1));
  EXPECT_TRUE(region->active());
  region->setStop(kNow);
  EXPECT_FALSE(region->active()) << "stop equal to now";
  region->setStop(std::nullopt);
  EXPECT_FALSE(region->active()) << "no stop";
}

TEST(CatalogueBeaconTest, DefaultPositionWhenEitherCoordinateIsMissing) {
  const qvl::Coordinate fallback{56.172208, 10.185621};
  const std::vector<std::pair<json, qvl::Coordinate>> rows = {
      {{{"longitude", 9.5}}, fallback},
      {{{"latitude", 55.5}}, fallback},
      {{{"latitude", 0.0}, {"longitude", 0.0}}, {0.0, 0.0}},  // zero is a position
  };
  for (auto [answer, expected] : rows) {
    answer.set("id", 1);
    EXPECT_EQ(QVLBeacon::newObjectWithJSONDictionary(answer, nullptr)->coordinate(), expected)
        << answer.dump();
    EXPECT_EQ(QVLOrganization::newObjectWithJSONDictionary(answer, nullptr)->coordinate(), expected)
        << answer.dump();
  }
}

TEST(CatalogueBeaconTest, RegionAlwaysCarriesMajorAndMinorAndTheBareId) {
  auto beacon = QVLBeacon::newObjectWithJSONDictionary(
      {{"id", 315}, {"uuid", "e2c56db5-dffb-48d2-b060-d0f5a71096e0"}, {"major", 70000}}, nullptr);
  auto region = beacon->beaconRegion();
  ASSERT_TRUE(region);
  EXPECT_EQ(region->proximityUUID.toString(), kUuidText);
  EXPECT_EQ(region->major, std::optional<std::uint16_t>(70000 & 0xFFFF));
  EXPECT_EQ(region->minor, std::optional<std::uint16_t>(0)) << "a missing minor reads as 0";
  EXPECT_EQ(region->identifier, "315");

  auto broken = QVLBeacon::newObjectWithJSONDictionary({{"id", 1}, {"uuid", "E2C56DB5"}}, nullptr);
  EXPECT_FALSE(broken->uuid());
  EXPECT_FALSE(broken->beaconRegion());
}

TEST(CatalogueBeaconTest, UuidIsCachedOnceParsedAndNeverRefreshed) {
  auto beacon = QVLBeacon::newObjectWithJSONDictionary({{"id", 1}}, nullptr);
  EXPECT_FALSE(beacon->uuid());
  // Nothing was cached while there was nothing to parse.
  beacon->setUuidString(std::string(kUuidText));
  ASSERT_TRUE(beacon->uuid());
  beacon->setUuidString(std::string("00000000-0000-0000-0000-000000000001"));
  EXPECT_EQ(beacon->uuid()->toString(), kUuidText);
  EXPECT_EQ(beacon->beaconRegion()->proximityUUID.toString(), kUuidText);
}

TEST(CatalogueBeaconTest, NotificationTextFallsBackToTheNameOnlyForBlankMessages) {
  const std::vector<std::pair<std::optional<std::string>, std::string>> rows = {
      {"  ", "Front door"},
      {"\t \t", "Front door"},
      {std::nullopt, "Front door"},
      {"Welcome ", "Welcome "},  // kept untrimmed
      {"\n", "\n"},              // line breaks are not blanks here
  };
  auto beacon =
      QVLBeacon::newObjectWithJSONDictionary({{"id", 1}, {"description", "Front door"}}, nullptr);
  auto geofence =
      QVLGeofence::newObjectWithJSONDictionary({{"id", 2}, {"name", "Front door"}}, nullptr);
  for (const auto& [message, shown] : rows) {
    beacon->setMessage(message);
    geofence->setMessage(message);
    EXPECT_EQ(beacon->notificationMessage(), shown) << message.value_or("absent");
    EXPECT_EQ(geofence->notificationMessage(), shown) << message.value_or("absent");
  }
}

TEST(CatalogueOrganizationTest, ColourNeedsExactlyThreeNumbers) {
  EXPECT_EQ(QVLOrganization::colorFromString("255,0,0"), (qvl::Color{1.0, 0.0, 0.0, 1.0}));
  EXPECT_EQ(QVLOrganization::colorFromString("51, 102,255"), (qvl::Color{0.2, 0.4, 1.0, 1.0}));
  for (const char* text : {"255,0", "", "1,2,3,4"}) {
    EXPECT_EQ(QVLOrganization::colorFromString(text), (qvl::Color{0.0, 0.0, 1.0, 1.0})) << text;
  }
  auto organization =
      QVLOrganization::newObjectWithJSONDictionary({{"id", 1}, {"color", "0,255,0"}}, nullptr);
  EXPECT_EQ(organization->color(), (qvl::Color{0.0, 1.0, 0.0, 1.0}));
  organization->setColorString(std::nullopt);
  EXPECT_EQ(organization->color(), qvl::Color::standardBlue());
}

TEST(CatalogueShopTest, WebAddressesAreTrimmedAndGivenASchemeOrAreNone) {
  auto shop = QVLShop::newObjectWithJSONDictionary(
      {{"id", 1}, {"homepage", "  www.shop.example "}, {"facebook", "https://fb.example/shop"}},
      nullptr);
  EXPECT_EQ(shop->homepageURL()->absoluteString(), "http://www.shop.example");
  EXPECT_EQ(shop->facebookURL()->absoluteString(), "https://fb.example/shop");
  auto organization = QVLOrganization::newObjectWithJSONDictionary(
      {{"id", 1}, {"url", "https://quorvel.example/org"}}, nullptr);
  EXPECT_EQ(organization->url()->absoluteString(), "https://quorvel.example/org");
  organization->setUrlString(std::string("not a url"));
  EXPECT_FALSE(organization->url());
}

TEST(CatalogueMediaTest, AspectRatioAndUrlFallback) {
  auto media = QVLMedia::newObjectWithJSONDictionary(
      {{"id", 3},
       {"width", 0},
       {"height", 600},
       {"urls",
        {{"original", "https://cdn.example/o.png"}, {"large", "https://cdn.example/l.png"}}}},
      nullptr);
  EXPECT_DOUBLE_EQ(media->aspectRatio(), 1.875);
  media->setWidth(800);
  EXPECT_NEAR(media->aspectRatio(), 1.3333, 1e-4);
  media->setHeight(0);
  EXPECT_DOUBLE_EQ(media->aspectRatio(), 1.875);

  ASSERT_TRUE(media->urlInSize(QVLMediaSizeMobile));
  EXPECT_EQ(media->urlInSize(QVLMediaSizeMobile)->absoluteString(), "https://cdn.example/o.png");
  EXPECT_EQ(media->urlInSize(QVLMediaSizeLarge)->absoluteString(), "https://cdn.example/l.png");
  EXPECT_EQ(media->urlInSize(9)->absoluteString(), "https://cdn.example/o.png");
}

TEST(UuidTest, ParsesOnlyTheStandardFormInEitherCase) {
  auto upper = qvl::Uuid::parse("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
  auto lower = qvl::Uuid::parse("e2c56db5-dffb-48d2-b060-d0f5a71096e0");
  ASSERT_TRUE(upper);
  ASSERT_TRUE(lower);
  EXPECT_EQ(*upper, *lower);
  EXPECT_EQ(lower->toString(), "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
  EXPECT_EQ(upper->bytes()[0], 0xE2);
  EXPECT_EQ(upper->bytes()[15], 0xE0);
  EXPECT_NE(*upper, *qvl::Uuid::parse("E2C56DB5-DFFB-48D2-B060-D0F5A71096E1"));
  EXPECT_EQ(std::hash<qvl::Uuid>{}(*upper), std::hash<qvl::Uuid>{}(*lower));
  EXPECT_EQ(qvl::Uuid().toString(), "00000000-0000-0000-0000-000000000000");
  for (const char* text : {
           "",
           "E2C56DB5DFFB48D2B060D0F5A71096E0",        // no hyphens
           "E2C56DB5-DFFB-48D2-B060-D0F5A71096E",     // short
           "E2C56DB5-DFFB-48D2-B060-D0F5A71096E00",   // long
           "E2C56DB-5DFFB-48D2-B060-D0F5A71096E0",    // hyphen misplaced
           "G2C56DB5-DFFB-48D2-B060-D0F5A71096E0",    // not hex
           " E2C56DB5-DFFB-48D2-B060-D0F5A71096E",    // blank
           "{E2C56DB5-DFFB-48D2-B060-D0F5A71096E0}",  // braces
       }) {
    EXPECT_FALSE(qvl::Uuid::parse(text)) << text;
  }
}

}  // namespace
