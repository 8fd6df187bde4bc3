// Computed properties of the catalogue records: regions, beacons, geofences, the
// organization and media.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Models/RecordTestSupport.h"
#include "quorvel/Models/QVLBeacon.h"
#include "quorvel/Models/QVLGeofence.h"
#include "quorvel/Models/QVLMedia.h"
#include "quorvel/Models/QVLOrganization.h"
#include "quorvel/Models/QVLRegion.h"
#include "quorvel/Models/QVLShop.h"

namespace {

using nlohmann::json;
using records_test::at;
using records_test::kNow;

constexpr const char* kUuidText = "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";

std::shared_ptr<QVLRegion> regionFrom(const json& j) {
  return QVLRegion::newObjectWithJSONDictionary(j, nullptr);
}

TEST(CatalogueRegionTest, NarrowsByWhatIsPresentAndNamesItselfAfterTheId) {
  auto uuid = qvl::Uuid::parse(kUuidText).value();

  auto majorOnly = regionFrom({{"id", 42}, {"uuid", kUuidText}, {"major", 7}});
  auto region = majorOnly->beaconRegion();
  ASSERT_TRUE(region);
  EXPECT_EQ(region->proximityUUID, uuid);
  EXPECT_EQ(region->major, std::optional<std::uint16_t>(7));
  EXPECT_EQ(region->minor, std::nullopt);
  EXPECT_EQ(region->identifier, "qvl_region;42");

  auto uuidWide = regionFrom({{"id", 43}, {"uuid", kUuidText}, {"major", nullptr}})->beaconRegion();
  ASSERT_TRUE(uuidWide);
  EXPECT_EQ(uuidWide->major, std::nullopt);
  EXPECT_EQ(uuidWide->minor, std::nullopt);
  EXPECT_EQ(uuidWide->identifier, "qvl_region;43");

  auto both =
      regionFrom({{"id", 44}, {"uuid", kUuidText}, {"major", 7}, {"minor", 9}})->beaconRegion();
  ASSERT_TRUE(both);
  EXPECT_EQ(both->major, std::optional<std::uint16_t>(7));
  EXPECT_EQ(both->minor, std::optional<std::uint16_t>(9));

  // A minor without a major does not narrow the region.
  auto minorOnly = regionFrom({{"id", 45}, {"uuid", kUuidText}, {"minor", 9}})->beaconRegion();
  ASSERT_TRUE(minorOnly);
  EXPECT_EQ(minorOnly->major, std::nullopt);
  EXPECT_EQ(minorOnly->minor, std::nullopt);

  // Values beyond 16 bits are truncated, not rejected.
  auto wide = regionFrom({{"id", 46}, {"uuid", kUuidText}, {"major", 65537}, {"minor", 65536}})
                  ->beaconRegion();
  ASSERT_TRUE(wide);
  EXPECT_EQ(wide->major, std::optional<std::uint16_t>(1));
  EXPECT_EQ(wide->minor, std::optional<std::uint16_t>(0));
}

TEST(CatalogueRegionTest, UuidTextThatDoesNotParseGivesNoRegion) {
  EXPECT_FALSE(regionFrom({{"id", 1}, {"uuid", "not-a-uuid"}})->beaconRegion());
  EXPECT_FALSE(regionFrom({{"id", 1}})->beaconRegion());
  // Lower case is the same UUID.
  auto lower = regionFrom({{"id", 1}, {"uuid", "e2c56db5-dffb-48d2-b060-d0f5a71096e0"}});
  ASSERT_TRUE(lower->beaconRegion());
  EXPECT_EQ(lower->beaconRegion()->proximityUUID.toString(), kUuidText);
}

class CatalogueWindowTest : public records_test::FixedClockTest {};

TEST_F(CatalogueWindowTest, RegionIsActiveOnlyStrictlyInsideItsWindow) {
  auto region = regionFrom({{"id", 1},
                            {"uuid", kUuidText},
                            {"start", "2024-03-05T12:00:00+0000"},
                            {"stop", "2024-03-06T12:00:00+0000"}});
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
  auto withoutLatitude =
      QVLBeacon::newObjectWithJSONDictionary({{"id", 1}, {"longitude", 9.5}}, nullptr);
  EXPECT_EQ(withoutLatitude->coordinate(), fallback);
  auto withoutLongitude =
      QVLBeacon::newObjectWithJSONDictionary({{"id", 1}, {"latitude", 55.5}}, nullptr);
  EXPECT_EQ(withoutLongitude->coordinate(), fallback);
  auto placed = QVLBeacon::newObjectWithJSONDictionary(
      {{"id", 1}, {"latitude", 0.0}, {"longitude", 0.0}}, nullptr);
  EXPECT_EQ(placed->coordinate(), (qvl::Coordinate{0.0, 0.0})) << "zero is a position";

  auto organization =
      QVLOrganization::newObjectWithJSONDictionary({{"id", 1}, {"latitude", 55.5}}, nullptr);
  EXPECT_EQ(organization->coordinate(), fallback);
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
  EXPECT_EQ(beacon->uuid()->toString(), kUuidText);

  beacon->setUuidString(std::string("00000000-0000-0000-0000-000000000001"));
  EXPECT_EQ(beacon->uuid()->toString(), kUuidText);
  EXPECT_EQ(beacon->beaconRegion()->proximityUUID.toString(), kUuidText);
}

TEST(CatalogueBeaconTest, NotificationTextFallsBackToTheNameOnlyForBlankMessages) {
  auto beacon = QVLBeacon::newObjectWithJSONDictionary(
      {{"id", 1}, {"description", "Front door"}, {"message", "  "}}, nullptr);
  EXPECT_EQ(beacon->notificationMessage(), "Front door") << "two blanks";
  beacon->setMessage(std::string("\t \t"));
  EXPECT_EQ(beacon->notificationMessage(), "Front door") << "tabs";
  auto silent =
      QVLBeacon::newObjectWithJSONDictionary({{"id", 2}, {"description", "Front door"}}, nullptr);
  EXPECT_EQ(silent->notificationMessage(), "Front door") << "absent";
  beacon->setMessage(std::string("Welcome "));
  EXPECT_EQ(beacon->notificationMessage(), "Welcome ") << "kept untrimmed";
  beacon->setMessage(std::string("\n"));
  EXPECT_EQ(beacon->notificationMessage(), "\n") << "line breaks are not blanks here";

  auto geofence = QVLGeofence::newObjectWithJSONDictionary(
      {{"id", 2}, {"name", "Harbour"}, {"message", "  "}}, nullptr);
  EXPECT_EQ(geofence->notificationMessage(), "Harbour");
  geofence->setMessage(std::nullopt);
  EXPECT_EQ(geofence->notificationMessage(), "Harbour");
  geofence->setMessage(std::string("Sale today "));
  EXPECT_EQ(geofence->notificationMessage(), "Sale today ");
}

TEST(CatalogueGeofenceTest, RegionIsTheStoredCircleNamedByTheId) {
  auto geofence = QVLGeofence::newObjectWithJSONDictionary(
      {{"id", 12}, {"latitude", 56.15}, {"longitude", 10.2}, {"radius", 150.5}}, nullptr);
  qvl::CircularRegion region = geofence->region();
  EXPECT_EQ(region.center, (qvl::Coordinate{56.15, 10.2}));
  EXPECT_DOUBLE_EQ(region.radius, 150.5);
  EXPECT_EQ(region.identifier, "12");
}

TEST(CatalogueOrganizationTest, ColourNeedsExactlyThreeNumbers) {
  EXPECT_EQ(QVLOrganization::colorFromString("255,0,0"), (qvl::Color{1.0, 0.0, 0.0, 1.0}));
  qvl::Color mixed = QVLOrganization::colorFromString("51, 102,255");
  EXPECT_DOUBLE_EQ(mixed.red, 0.2);
  EXPECT_DOUBLE_EQ(mixed.green, 0.4);
  EXPECT_DOUBLE_EQ(mixed.blue, 1.0);
  EXPECT_EQ(QVLOrganization::colorFromString("255,0"), qvl::Color::standardBlue());
  EXPECT_EQ(QVLOrganization::colorFromString(""), qvl::Color::standardBlue());
  EXPECT_EQ(QVLOrganization::colorFromString("1,2,3,4"), qvl::Color::standardBlue());
  EXPECT_EQ(qvl::Color::standardBlue(), (qvl::Color{0.0, 0.0, 1.0, 1.0}));

  auto organization =
      QVLOrganization::newObjectWithJSONDictionary({{"id", 1}, {"color", "0,255,0"}}, nullptr);
  EXPECT_EQ(organization->color(), (qvl::Color{0.0, 1.0, 0.0, 1.0}));
  organization->setColorString(std::nullopt);
  EXPECT_EQ(organization->color(), qvl::Color::standardBlue());
}

TEST(CatalogueOrganizationTest, UrlIsNoneUnlessTheTextIsAUrl) {
  auto organization = QVLOrganization::newObjectWithJSONDictionary(
      {{"id", 1}, {"url", "https://quorvel.example/org"}}, nullptr);
  ASSERT_TRUE(organization->url());
  EXPECT_EQ(organization->url()->absoluteString(), "https://quorvel.example/org");
  organization->setUrlString(std::string("not a url"));
  EXPECT_FALSE(organization->url());
  organization->setUrlString(std::nullopt);
  EXPECT_FALSE(organization->url());
}

TEST(CatalogueShopTest, WebAddressesAreTrimmedAndGivenAScheme) {
  auto shop = QVLShop::newObjectWithJSONDictionary(
      {{"id", 1}, {"homepage", "  www.shop.example "}, {"facebook", "https://fb.example/shop"}},
      nullptr);
  ASSERT_TRUE(shop->homepageURL());
  EXPECT_EQ(shop->homepageURL()->absoluteString(), "http://www.shop.example");
  ASSERT_TRUE(shop->facebookURL());
  EXPECT_EQ(shop->facebookURL()->absoluteString(), "https://fb.example/shop");
  shop->setHomepageURLString(std::string(" \t"));
  EXPECT_FALSE(shop->homepageURL());
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

}  // namespace
