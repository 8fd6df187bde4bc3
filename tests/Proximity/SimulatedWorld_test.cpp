#include "quorvel/testing/SimulatedWorld.h"
#include "support/ScopedContext.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "quorvel/platform/Env.h"
#include "quorvel/platform/MainQueue.h"
#include "quorvel/testing/ManualClock.h"
#include "support/ProximityLog.h"
#include "support/TempDir.h"

namespace qvl {
namespace {

using Log = std::vector<std::string>;

const Uuid kUuid = *Uuid::parse("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");

using Recorder = test::ProximityLog;

class SimulatedWorldTest : public ::testing::Test {
 protected:
  std::shared_ptr<SimulatedWorld> makeWorld() {
    auto world = SimulatedWorld::create();
    world->setDelegate(std::weak_ptr<LocationServiceDelegate>(recorder));
    world->setDelegate(std::weak_ptr<BluetoothCentralDelegate>(recorder));
    return world;
  }
  // Delivers what is pending, then moves on second by second, delivering as it goes.
  void run(int seconds) {
    queue->runUntilIdle();
    for (int s = 0; s < seconds; ++s) {
      world->advance(1);
      queue->runUntilIdle();
    }
  }
  // A step at 0 s that places a beacon of kUuid `x` metres east.
  static std::string place(const char* id, int major, int minor, double x) {
    return R"({"at": 0, "beacon": {"id": ")" + std::string(id) + R"(", "uuid": ")" +
           kUuid.toString() + R"(", "major": )" + std::to_string(major) + R"(, "minor": )" +
           std::to_string(minor) + R"(, "x": )" + std::to_string(x) + R"(, "y": 0}})";
  }
  // Plays a scene made of these steps, after one that places beacon "a" (1.1) 5 m away.
  void play(const std::string& steps, const std::string& settings = "{}") {
    world->play(Scene::parse(R"({"settings": )" + settings + R"(, "timeline": [)" +
                             place("a", 1, 1, 5) + (steps.empty() ? "" : ", " + steps) + "]}"));
  }

  test::TempDir dir;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  std::shared_ptr<MainQueue> queue = std::make_shared<MainQueue>();
  qvl::test::ScopedContext env{[this](Env& e) {
    e.clock = clock;
    e.mainQueue = queue;
    e.storeDirectory = dir.path();
  }};
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>(clock);
  std::shared_ptr<SimulatedWorld> world = makeWorld();
};

TEST_F(SimulatedWorldTest, RangesOnceASecondNearestFirstOnTheMainQueueOnceAuthorized) {
  // "a" (1.1, 5 m) has a weaker measured power: it is heard below "far" (1.3, 12 m) but is
  // nearer.
  play(R"({"at": 0, "beacon": {"id": "a", "measuredPower": -70}}, )" + place("far", 1, 3, 12) +
       ", " + place("near", 1, 2, 0.3) + ", " + place("other", 2, 1, 1) +
       R"(, {"at": 4, "removeBeacon": "near"})");
  world->startRanging(BeaconRegion::withMajor(kUuid, 1, "Beacons"));
  run(2);
  EXPECT_EQ(recorder->reports, Log{}) << "no ranging before authorization";

  world->requestAlwaysAuthorization();
  world->advance(1);
  EXPECT_EQ(recorder->reports, Log{}) << "delivered only by the main queue";
  run(2);
  world->stopRanging(BeaconRegion::withMajor(kUuid, 1, "Beacons"));
  run(2);
  EXPECT_EQ(recorder->events, Log{"@3 authorization 3"});
  EXPECT_EQ(recorder->reports, (Log{"@3 Beacons: 1.2 1.1 1.3", "@4 Beacons: 1.1 1.3 1.2?",
                                    "@5 Beacons: 1.1 1.3 1.2?"}));
}

TEST_F(SimulatedWorldTest, ReportsRegionCrossingsAsTheSignalsAndPositionsSay) {
  const std::string uuidRegion = "uuid";
  struct Case {
    const char* name;
    std::string steps;
    std::vector<Region> regions;
    int seconds;
    Log expected;
  };
  const CircularRegion fence{{0, 0.0005}, 20, "fence"};  // 55.6 m east of the start
  const Case cases[] = {
      {"entry on the first sighting, exit after the exit period",
       R"({"at": 0, "beacon": {"id": "a", "rssi": -70}}, {"at": 5, "beacon": {"id": "a", "rssi": null}})",
       {BeaconRegion::withMajorMinor(kUuid, 1, 1, "a")},
       30,
       {"@1 enter a", "@14 exit a"}},
      {"one sighting enters every region holding the beacon",
       "",
       {BeaconRegion::withMajorMinor(kUuid, 1, 2, "1.2"), BeaconRegion::withMajor(kUuid, 1, "1"),
        BeaconRegion::withUuid(kUuid, uuidRegion)},
       1,
       {"@1 enter 1", "@1 enter uuid"}},
      {"a beacon flickering at the edge does not flap",
       R"({"at": 0, "beacon": {"id": "a", "rssi": -93}}, {"at": 2, "beacon": {"id": "a", "rssi": null}},
          {"at": 3, "beacon": {"id": "a", "rssi": -99}}, {"at": 4, "beacon": {"id": "a", "rssi": null}},
          {"at": 12, "beacon": {"id": "a", "rssi": -98}}, {"at": 13, "beacon": {"id": "a", "rssi": null}},
          {"at": 30, "beacon": {"id": "a", "rssi": -98}}, {"at": 31, "beacon": {"id": "a", "rssi": null}})",
       {BeaconRegion::withUuid(kUuid, uuidRegion)},
       40,
       {"@1 enter uuid", "@22 exit uuid"}},
      {"beyond the sensitivity nothing is heard",
       R"({"at": 0, "beacon": {"id": "a", "x": 200, "y": 0}})",
       {BeaconRegion::withUuid(kUuid, uuidRegion)},
       5,
       {}},
      {"Bluetooth off: exit after the exit period, entry when it is back",
       R"({"at": 5, "bluetooth": "poweredOff"}, {"at": 20, "bluetooth": "poweredOn"})",
       {BeaconRegion::withUuid(kUuid, uuidRegion)},
       25,
       {"@1 enter uuid", "@5 bluetooth 4", "@14 exit uuid", "@20 bluetooth 5", "@20 enter uuid"}},
      {"a walk across a geofence: one entry, one exit",
       R"({"at": 0, "device": {"latitude": 0, "longitude": 0, "accuracy": 8}},
          {"at": 0, "walk": {"latitude": 0, "longitude": 0.001, "seconds": 80}})",
       {fence},
       100,
       {"@37 enter fence", "@66 exit fence"}},
      {"a region the device is already in is entered",
       R"({"at": 0, "device": {"latitude": 0, "longitude": 0.0005}})",
       {fence},
       10,
       {"@6 enter fence"}},
      {"a coarse fix just outside is within its own uncertainty: no exit",
       R"({"at": 0, "device": {"latitude": 0, "longitude": 0.0005}},
          {"at": 10, "device": {"latitude": 0, "longitude": 0.00113, "accuracy": 80}})",
       {fence},
       30,
       {"@6 enter fence"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    recorder = std::make_shared<Recorder>(clock);
    world = makeWorld();
    for (const Region& region : world->monitoredRegions()) world->stopMonitoring(region);
    for (const Region& region : c.regions) world->startMonitoring(region);
    world->requestAlwaysAuthorization();
    play(c.steps);
    queue->runUntilIdle();
    recorder->events.clear();
    run(c.seconds);
    EXPECT_EQ(recorder->events, c.expected);
  }
}

TEST_F(SimulatedWorldTest, AuthorizationFollowsTheAnswerOnceRequested) {
  play(R"({"at": 0, "authorization": "denied"}, {"at": 3, "authorization": "authorizedAlways"})");
  world->startMonitoring(BeaconRegion::withUuid(kUuid, "uuid"));
  run(2);
  EXPECT_EQ(world->authorizationStatus(), AuthorizationStatus::NotDetermined);
  world->requestAlwaysAuthorization();
  world->requestAlwaysAuthorization();  // asked once only
  run(2);
  EXPECT_EQ(recorder->events, (Log{"@2 authorization 2", "@3 authorization 3", "@3 enter uuid"}));
}

TEST_F(SimulatedWorldTest, MonitoredRegionsOutliveTheWorld) {
  const Region beacon = BeaconRegion::withMajor(kUuid, 7, "12");
  const Region circle = CircularRegion{{52.52, 13.405}, 40, "3"};
  const Region moved = CircularRegion{{52.53, 13.405}, 60, "3"};
  world->startMonitoring(beacon);
  world->startMonitoring(circle);
  world->startMonitoring(BeaconRegion::withUuid(kUuid, "gone"));
  world->stopMonitoring(BeaconRegion::withUuid(kUuid, "gone"));
  world->startMonitoring(moved);  // same identifier: replaced in place

  world.reset();
  world = makeWorld();
  EXPECT_EQ(world->monitoredRegions(), (std::vector<Region>{beacon, moved}));
  // What a new run finds it also watches: the beacon region is entered.
  world->requestAlwaysAuthorization();
  play(R"({"at": 0, "beacon": {"id": "b", "uuid": ")" + kUuid.toString() +
       R"(", "major": 7, "minor": 1, "rssi": -60}})");
  run(1);
  EXPECT_EQ(recorder->events, (Log{"@0 authorization 3", "@1 enter 12"}));

  world->stopMonitoring(beacon);
  world->stopMonitoring(moved);
  EXPECT_TRUE(SimulatedWorld::create()->monitoredRegions().empty());
}

}  // namespace
}  // namespace qvl
