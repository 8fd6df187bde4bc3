#include "Proximity/ProximityCore.h"

#include <cmath>
#include <vector>

#include <gtest/gtest.h>

namespace qvl::proximity {
namespace {

using namespace std::chrono_literals;

const Uuid kUuid = *Uuid::parse("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
const Date kStart{std::chrono::seconds(1767225600)};

Date at(double seconds) {
  return kStart + std::chrono::duration_cast<Date::duration>(Seconds(seconds));
}

TEST(BeaconFrameTest, ReadsOnlyWellFormedIBeaconFrames) {
  const BeaconFrame frame{{kUuid, 0x0102, 0xFFFE}, -59};
  const std::vector<std::uint8_t> good = encodeBeaconFrame(frame);
  ASSERT_EQ(good.size(), 23u);
  EXPECT_EQ(good[18], 0x01);  // major, big-endian
  EXPECT_EQ(good[22], 0xC5);  // -59 as a signed byte

  auto changed = [&](auto change) {
    std::vector<std::uint8_t> data = good;
    change(data);
    return data;
  };
  struct Case {
    const char* name;
    std::uint16_t company;
    std::vector<std::uint8_t> data;
    bool parsed;
  };
  const Case cases[] = {
      {"well formed", kIBeaconCompanyId, good, true},
      {"trailing bytes", kIBeaconCompanyId, changed([](auto& d) { d.push_back(0); }), true},
      {"another company", 0x0059, good, false},
      {"short payload", kIBeaconCompanyId, changed([](auto& d) { d.pop_back(); }), false},
      {"empty payload", kIBeaconCompanyId, {}, false},
      {"other type", kIBeaconCompanyId, changed([](auto& d) { d[0] = 0x03; }), false},
      {"other length", kIBeaconCompanyId, changed([](auto& d) { d[1] = 0x14; }), false},
  };
  for (const Case& c : cases) {
    std::optional<BeaconFrame> parsed = parseBeaconFrame(c.company, c.data);
    EXPECT_EQ(parsed.has_value(), c.parsed) << c.name;
    if (parsed) {
      EXPECT_EQ(*parsed, frame) << c.name;
    }
  }
}

TEST(RssiFilterTest, FollowsAStepFasterThanARunningAverageAndDampsJitter) {
  RssiFilter filter;
  double value = 0;
  for (int s = 0; s < 10; ++s) value = filter.add(at(s), -80);
  EXPECT_DOUBLE_EQ(value, -80);
  // Walking up to the beacon: -60 from now on. A 20 s running average would still read -74
  // after 6 s.
  for (int s = 10; s < 16; ++s) value = filter.add(at(s), -60);
  EXPECT_NEAR(value, -60, 1.0);

  // +-6 dB of alternating jitter around -70, once settled, stays within +-2 dB.
  for (int s = 16; s < 60; ++s) {
    value = filter.add(at(s), s % 2 ? -64 : -76);
    if (s > 30) {
      EXPECT_NEAR(value, -70, 2.0) << s;
    }
  }
  // A burst of samples at one instant still moves the value.
  double first = filter.add(at(60), -40);
  EXPECT_GT(filter.add(at(60), -40), first);
  // After a long silence the first sample is taken as it comes.
  EXPECT_DOUBLE_EQ(filter.add(at(200), -90), -90);
}

TEST(PathLossModelTest, DistanceInvertsTheModelAndClassifiesProximity) {
  for (double exponent : {2.0, 3.0}) {
    PathLossModel model{exponent};
    for (double metres : {0.3, 1.0, 2.5, 12.0}) {
      EXPECT_NEAR(model.distance(model.rssiAt(metres, -59), -59), metres, 1e-9);
    }
  }
  EXPECT_EQ(PathLossModel{}.distance(0, -59), -1);
  EXPECT_EQ(PathLossModel{}.distance(-70, 0), -1);
  const std::pair<double, Proximity> classes[] = {{-1, Proximity::Unknown},
                                                  {0.2, Proximity::Immediate},
                                                  {0.5, Proximity::Near},
                                                  {3.0, Proximity::Near},
                                                  {3.1, Proximity::Far}};
  for (auto [metres, proximity] : classes) {
    EXPECT_EQ(proximityForDistance(metres), proximity) << metres;
  }
}

TEST(BeaconTrackerTest, ReportsTheRegionsBeaconsNearestFirstThenLostOnes) {
  BeaconTracker tracker;
  const Uuid other = *Uuid::parse("00000000-0000-0000-0000-000000000001");
  tracker.observe(at(0), {{kUuid, 1, 9}, -59}, -90);  // lost after this one
  tracker.observe(at(2), {{kUuid, 1, 1}, -59}, -75);
  tracker.observe(at(2), {{kUuid, 1, 2}, -59}, -60);
  tracker.observe(at(2), {{kUuid, 1, 3}, -65}, -68);  // weaker beacon: 2 m, nearer than -75
  tracker.observe(at(2), {{kUuid, 2, 1}, -59}, -50);  // another major
  tracker.observe(at(2), {{other, 1, 1}, -59}, -40);  // another UUID

  auto minors = [](const std::vector<RangedBeacon>& report) {
    std::vector<int> out;
    for (const RangedBeacon& b : report) out.push_back(b.major * 10 + b.minor);
    return out;
  };
  std::vector<RangedBeacon> report =
      tracker.rangingReport(at(2.5), BeaconRegion::withMajor(kUuid, 1, "r"));
  EXPECT_EQ(minors(report), (std::vector<int>{12, 13, 11, 19}));
  EXPECT_EQ(report[0].proximity, Proximity::Near);
  EXPECT_EQ(report[0].rssi, -60);
  EXPECT_EQ(report[3].proximity, Proximity::Unknown);
  EXPECT_EQ(report[3].accuracy, -1);
  EXPECT_EQ(report[3].rssi, 0);

  EXPECT_EQ(minors(tracker.rangingReport(at(2.5), BeaconRegion::withUuid(kUuid, "r"))),
            (std::vector<int>{21, 12, 13, 11, 19}));
  // Later every beacon is lost: key order; the one heard at 0 s is past the hold time.
  EXPECT_EQ(minors(tracker.rangingReport(at(5.5), BeaconRegion::withUuid(kUuid, "r"))),
            (std::vector<int>{11, 12, 13, 21}));
}

// Beacon region monitoring, driven once a second as a backend does: `heard[s]` is the RSSI
// heard at second s (0: nothing heard); returns the events with their second.
std::vector<std::pair<int, RegionEvent>> monitor(const std::vector<BeaconRegion>& regions,
                                                 const std::vector<int>& heard) {
  BeaconRegionMonitor monitor;
  BeaconTracker tracker;
  for (const BeaconRegion& region : regions) monitor.add(region);
  std::vector<std::pair<int, RegionEvent>> log;
  for (int s = 0; s < int(heard.size()); ++s) {
    std::vector<RegionEvent> events;
    if (heard[s] != 0) {
      BeaconFrame frame{{kUuid, 1, 2}, -59};
      monitor.sighting(at(s), frame.key, tracker.observe(at(s), frame, heard[s]), events);
    }
    monitor.tick(at(s), events);
    for (RegionEvent& event : events) log.emplace_back(s, event);
  }
  return log;
}

constexpr auto kEntry = RegionEvent::Kind::Entry;
constexpr auto kExit = RegionEvent::Kind::Exit;

TEST(BeaconRegionMonitorTest, EntersOnASightingAndExitsAfterTheExitPeriod) {
  std::vector<int> heard(30, 0);
  heard[3] = heard[4] = -70;  // last sighting at 4 s: exit at 14 s, not at 13 s
  EXPECT_EQ(
      monitor({BeaconRegion::withMajorMinor(kUuid, 1, 2, "exact")}, heard),
      (std::vector<std::pair<int, RegionEvent>>{{3, {kEntry, "exact"}}, {14, {kExit, "exact"}}}));

  // One sighting enters every region that holds the beacon; others stay silent.
  auto log = monitor({BeaconRegion::withUuid(kUuid, "uuid"), BeaconRegion::withMajor(kUuid, 1, "m"),
                      BeaconRegion::withMajorMinor(kUuid, 1, 3, "other minor")},
                     {-70});
  EXPECT_EQ(log,
            (std::vector<std::pair<int, RegionEvent>>{{0, {kEntry, "m"}}, {0, {kEntry, "uuid"}}}));
}

TEST(BeaconRegionMonitorTest, ABeaconFlickeringAtTheEdgeDoesNotFlap) {
  // Heard at the edge of range with gaps under the exit period, then lost for good, then
  // heard again only faintly: one entry, one exit, no re-entry from the faint sightings.
  std::vector<int> heard = {-92, 0, -99, 0, 0, -97, 0, 0, 0, 0, 0, 0, -98, -93, 0, -99};
  heard.resize(40, 0);
  heard[30] = heard[33] = -99;
  EXPECT_EQ(
      monitor({BeaconRegion::withUuid(kUuid, "edge")}, heard),
      (std::vector<std::pair<int, RegionEvent>>{{0, {kEntry, "edge"}}, {25, {kExit, "edge"}}}));
}

TEST(CircleMonitorTest, AWalkAcrossAGeofenceGivesOneEntryAndOneExit) {
  const Coordinate origin{52.52, 13.405};
  CircleMonitor monitor;
  monitor.add({origin, 50, "fence"});
  // West to east through the centre at 1.5 m/s with +-4 m of jitter, accuracy 5 m; then a
  // coarse 80 m fix just outside, which is within its own uncertainty, and so no exit yet.
  std::vector<std::pair<int, RegionEvent>> log;
  int s = 0;
  for (; s <= 100; ++s) {
    double east = -75 + 1.5 * s + (s % 2 ? 4 : -4);
    std::vector<RegionEvent> events;
    monitor.update(at(s), {offsetCoordinate(origin, east, 0), 5}, events);
    for (RegionEvent& event : events) log.emplace_back(s, event);
  }
  EXPECT_EQ(log, (std::vector<std::pair<int, RegionEvent>>{{24, {kEntry, "fence"}},
                                                           {90, {kExit, "fence"}}}));
  monitor.add({origin, 50, "fence"});
  std::vector<RegionEvent> events;
  for (int t = 0; t < 10; ++t) monitor.update(at(s + t), {origin, 5}, events);
  for (int t = 10; t < 20; ++t) {
    monitor.update(at(s + t), {offsetCoordinate(origin, 0, 70), 80}, events);
  }
  EXPECT_EQ(events, (std::vector<RegionEvent>{{kEntry, "fence"}}));
  EXPECT_NEAR(haversineMetres(origin, offsetCoordinate(origin, 300, -400)), 500, 0.05);
}

}  // namespace
}  // namespace qvl::proximity
