// Processes one ranging report through the beacon manager while 1,000 beacons are watched
// (5 posts of 2 periods each), 30 of them sighted per report: mapping each sighting to its
// record, the beacon views, the active test, the closest beacon and the delegate calls.
// The floor, measured in the same run: the 30 primary-key reads of the same beacons with
// their posts and periods, with plain prepared SQLite statements.
//
//   bench_ranging [watched] [sighted]     prints the times and the ratios line.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "quorvel/managers/QVLAnalyticsManager.h"
#include "quorvel/managers/QVLBeaconManager.h"
#include "quorvel/platform/Application.h"
#include "quorvel/platform/Clock.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/MainQueue.h"
#include "quorvel/platform/NotificationCenter.h"
#include "quorvel/records/QVLBeacon.h"
#include "quorvel/records/QVLGuest.h"
#include "quorvel/records/QVLRealm.h"
#include "quorvel/testing/ManualClock.h"
#include "quorvel/testing/SimulatedWorld.h"
#include "support/BenchData.h"
#include "support/ScopedContext.h"
#include "support/TempDir.h"

namespace {

using Clock = std::chrono::steady_clock;

double usSince(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

using qvl::bench::median;

[[noreturn]] void fail(const std::string& message) {
  std::fprintf(stderr, "bench_ranging: %s\n", message.c_str());
  std::exit(1);
}

// Times `once` until kMaxRounds runs or kMaxSeconds have passed (at least kMinRounds runs).
template <class Work>
std::vector<double> timeRounds(const Work& once) {
  constexpr int kMinRounds = 20, kMaxRounds = 2000;
  constexpr double kMaxSeconds = 3;
  std::vector<double> times;
  const auto start = Clock::now();
  while (times.size() < kMaxRounds &&
         (times.size() < kMinRounds || usSince(start) < kMaxSeconds * 1e6)) {
    const auto round = Clock::now();
    once();
    times.push_back(usSince(round));
  }
  return times;
}

// Keeps what the last report told the delegates, to check the work was done.
class Listener : public QVLBeaconManagerDelegate {
 public:
  std::size_t sighted = 0, active = 0;
  void beaconManagerDidRangeActiveBeacons(
      const std::vector<std::shared_ptr<QVLBeacon>>& beacons) override {
    active = beacons.size();
  }
  void beaconManagerDidRangeBeacons(
      const std::vector<std::shared_ptr<QVLBeacon>>& beacons) override {
    sighted = beacons.size();
  }
};

}  // namespace

int main(int argc, char** argv) {
  const int watched = argc > 1 ? std::stoi(argv[1]) : 1000;
  const int sightedCount = argc > 2 ? std::stoi(argv[2]) : 30;
  constexpr int kPostsPerBeacon = 5;
  if (watched < 1 || sightedCount < 1 || sightedCount > watched) fail("bad arguments");
  const std::string text = qvl::bench::beaconsJson(watched, kPostsPerBeacon).dump();
  std::printf("watched beacons: %d (%d posts of 2 periods each), sighted per report: %d\n", watched,
              kPostsPerBeacon, sightedCount);

  qvl::test::TempDir home;
  // A manual clock: the simulated world never ticks, so the reports timed are the only ones.
  qvl::Env env;
  env.clock = std::make_shared<qvl::ManualClock>();
  env.mainQueue = std::make_shared<qvl::MainQueue>();
  env.notificationCenter = std::make_shared<qvl::NotificationCenter>();
  env.application = std::make_shared<qvl::StandardApplication>();
  env.storeDirectory = home.file("store");
  env.userDefaultsPath = home.file("host.defaults");
  auto world = qvl::SimulatedWorld::create(env);
  env.locationService = world;
  env.bluetoothCentral = world;
  qvl::test::ScopedContext context(std::move(env));

  auto realm = QVLRealm::realm();
  if (!realm) fail("the store could not be opened");
  auto beacons = QVLBeacon::newObjectsWithJSONArray(qvl::Json::parse(text).value_or(nullptr));
  auto guest = std::make_shared<QVLGuest>();
  guest->setGuestId(1);
  realm->write([&] {
    realm->addOrUpdate(guest);
    realm->addOrUpdateAll(
        std::vector<std::shared_ptr<qvl::Object>>(beacons.begin(), beacons.end()));
  });
  auto& manager = QVLBeaconManager::sharedManager();
  auto listener = std::make_shared<Listener>();
  manager.addDelegate(listener);
  manager.startSearchingForBeacons(realm->objects<QVLBeacon>());
  if (manager.searchingBeacons().size() != static_cast<std::size_t>(watched)) {
    fail("not every beacon is watched");
  }

  // Sightings spread over the watched beacons, nearest first.
  const auto uuid = *qvl::Uuid::parse(qvl::bench::kBeaconsUuid);
  const int step = watched / sightedCount;
  std::vector<qvl::RangedBeacon> report;
  std::vector<std::int64_t> sightedIds;
  for (int k = 0; k < sightedCount; ++k) {
    const int id = 1 + k * step;
    sightedIds.push_back(id);
    report.push_back(
        {uuid, 1, static_cast<std::uint16_t>(id), qvl::Proximity::Near, 1.0 + 0.25 * k, -60 - k});
  }
  const auto ranging =
      qvl::BeaconRegion::withUuid(uuid, QVLBeaconManager::kRangingRegionIdentifier);

  // The first report opens the beacon views; the timed ones find them open, as every later
  // report of a walk does.
  manager.didRangeBeacons(report, ranging);
  if (manager.analyticsManager().unfinishedBeaconViews().size() !=
      static_cast<std::size_t>(sightedCount)) {
    fail("the first report did not open a view per sighted beacon");
  }
  const auto reports = timeRounds([&] { manager.didRangeBeacons(report, ranging); });
  if (listener->sighted != report.size() || listener->active != report.size() ||
      !manager.closestBeacon() || manager.closestBeacon()->beaconId() != sightedIds.front()) {
    fail("the report did not map every sighting to an active beacon");
  }

  qvl::bench::FloorStore floor(home.file("floor.sqlite"));
  floor.importBeacons(text);
  const std::size_t rowsPerBeacon = 1 + kPostsPerBeacon * 3;  // beacon, posts, 2 periods each
  const auto floors = timeRounds([&] {
    for (std::int64_t id : sightedIds) {
      if (floor.readBeacon(id) != rowsPerBeacon) fail("the floor read the wrong rows");
    }
  });

  const double report_us = median(reports), floor_us = median(floors);
  std::printf("report through the beacon manager (%zu rounds): %9.1f us\n", reports.size(),
              report_us);
  std::printf("floor, %d primary-key reads with posts and periods (%zu rounds): %9.1f us\n",
              sightedCount, floors.size(), floor_us);
  std::printf("ratios: report/floor=%.2f\n", report_us / floor_us);
  return 0;
}
