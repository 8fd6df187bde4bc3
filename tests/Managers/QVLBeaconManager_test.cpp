#include "quorvel/managers/QVLBeaconManager.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include "Managers/ServiceFixture.h"
#include "quorvel/managers/QVLAnalyticsManager.h"
#include "quorvel/managers/QVLBeaconSupport.h"
#include "quorvel/managers/QVLWeakPointerArray.h"
#include "quorvel/proximity/Scene.h"
#include "quorvel/testing/SimulatedWorld.h"
#include "support/RecordingTransport.h"

namespace {

using qvl::BeaconRegion;
using qvl::Proximity;
using qvl::RangedBeacon;
using records_test::save;

const qvl::Uuid kUuid = *qvl::Uuid::parse("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
const qvl::Uuid kOtherUuid = *qvl::Uuid::parse("B9407F30-F5F8-466E-AFF9-25556B57FE6D");

// A location service and Bluetooth central that the test drives: calls are recorded,
// events go to the delegate through the environment's main queue.
class FakeServices : public qvl::LocationService, public qvl::BluetoothCentral {
 public:
  std::vector<qvl::Region> monitored;
  std::vector<BeaconRegion> ranged;
  std::vector<BeaconRegion> rangingStarts;
  std::optional<qvl::BluetoothCentralOptions> options;
  qvl::BluetoothState bluetooth = qvl::BluetoothState::PoweredOn;
  qvl::AuthorizationStatus authorization = qvl::AuthorizationStatus::AuthorizedAlways;

  void setDelegate(std::weak_ptr<qvl::LocationServiceDelegate> d) override { location_ = d; }
  std::vector<qvl::Region> monitoredRegions() const override { return monitored; }
  void startMonitoring(const qvl::Region& region) override {
    stopMonitoring(region);
    monitored.push_back(region);
  }
  void stopMonitoring(const qvl::Region& region) override {
    std::erase_if(monitored, [&](const qvl::Region& r) {
      return qvl::regionIdentifier(r) == qvl::regionIdentifier(region);
    });
  }
  void startRanging(const BeaconRegion& region) override {
    ranged.push_back(region);
    rangingStarts.push_back(region);
  }
  void stopRanging(const BeaconRegion& region) override { std::erase(ranged, region); }
  std::vector<BeaconRegion> rangedRegions() const override { return ranged; }
  qvl::AuthorizationStatus authorizationStatus() const override { return authorization; }
  void requestAlwaysAuthorization() override {}
  qvl::BluetoothState state() const override { return bluetooth; }
  void setDelegate(std::weak_ptr<qvl::BluetoothCentralDelegate> d) override { central_ = d; }
  void setOptions(const qvl::BluetoothCentralOptions& o) override { options = o; }

  void report(std::vector<RangedBeacon> beacons) {
    deliver([=, this] {
      if (auto d = location_.lock())
        d->didRangeBeacons(beacons, BeaconRegion::withUuid(kUuid, "Beacons"));
    });
  }
  void enter(qvl::Region region) {
    deliver([=, this] {
      if (auto d = location_.lock()) d->didEnterRegion(region);
    });
  }
  void switchBluetooth(qvl::BluetoothState state) {
    bluetooth = state;
    deliver([=, this] {
      if (auto d = central_.lock()) d->bluetoothCentralDidUpdateState(state);
    });
  }

 private:
  void deliver(std::function<void()> event) {
    auto queue = qvl::Env::current()->mainQueue;
    queue->async(std::move(event));
    queue->runUntilIdle();
  }
  std::weak_ptr<qvl::LocationServiceDelegate> location_;
  std::weak_ptr<qvl::BluetoothCentralDelegate> central_;
};

std::string ids(const std::vector<std::shared_ptr<QVLBeacon>>& beacons) {
  std::string text;
  for (const auto& b : beacons) text += (text.empty() ? "" : ",") + std::to_string(*b->beaconId());
  return text.empty() ? "-" : text;
}

// Compares `lines` with the golden file at `path`, naming the first line that differs; with
// QVL_UPDATE_GOLDEN=1 in the environment it first rewrites the file from `lines`.
void expectGolden(const std::vector<std::string>& lines, const std::filesystem::path& path) {
  if (const char* update = std::getenv("QVL_UPDATE_GOLDEN"); update && std::string(update) == "1") {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path);
    for (const auto& line : lines) out << line << '\n';
    ASSERT_TRUE(out.flush()) << "cannot write " << path;
    std::printf("rewrote %s\n", path.c_str());
  }
  std::ifstream in(path);
  ASSERT_TRUE(in) << "no golden file " << path << " (QVL_UPDATE_GOLDEN=1 writes it)";
  std::vector<std::string> golden;
  for (std::string line; std::getline(in, line);) golden.push_back(line);
  size_t same = 0;
  while (same < golden.size() && same < lines.size() && golden[same] == lines[same]) ++same;
  auto at = [same](const std::vector<std::string>& v) {
    return same < v.size() ? v[same] : "(end)";
  };
  EXPECT_TRUE(golden == lines) << path << " differs from line " << same + 1
                               << ":\n- golden: " << at(golden) << "\n+ now:    " << at(lines);
}

// Writes what it hears, one line per call, to a shared log.
class LoggingDelegate : public QVLBeaconManagerDelegate {
 public:
  LoggingDelegate(std::shared_ptr<std::vector<std::string>> log, std::string name)
      : log_(std::move(log)), name_(std::move(name)) {}
  // Lists the ranged beacons as major.minor/proximity, nearest first; otherwise counts them.
  bool listsRanged = false;

  void beaconManagerDidRangeCLBeacons(const std::vector<RangedBeacon>& b) override {
    if (!listsRanged) return add("ranged " + std::to_string(b.size()));
    static const char* const kProximity[] = {"unknown", "immediate", "near", "far"};
    std::string line = "ranged";
    for (const auto& r : b) {
      line += " " + std::to_string(r.major) + "." + std::to_string(r.minor) + "/" +
              kProximity[static_cast<int>(r.proximity)];
    }
    add(line);
  }
  void beaconManagerClosestBeaconChangedTo(const std::shared_ptr<QVLBeacon>& b) override {
    add("closest " + (b ? std::to_string(*b->beaconId()) : std::string("none")));
  }
  void beaconManagerDidRangeActiveBeacons(
      const std::vector<std::shared_ptr<QVLBeacon>>& b) override {
    add("active " + ids(b));
  }
  void beaconManagerDidRangeBeacons(const std::vector<std::shared_ptr<QVLBeacon>>& b) override {
    add("beacons " + ids(b));
  }
  void beaconManagerDidEnterRegionWithBeacon(const std::shared_ptr<QVLBeacon>& b) override {
    add("enter beacon " + std::to_string(*b->beaconId()));
  }
  void beaconManagerDidEnterRegion(const BeaconRegion& r) override {
    add("enter region " + r.identifier);
  }
  void beaconManagerDidEnterRegionWithGeofence(const std::shared_ptr<QVLGeofence>& g) override {
    add("enter geofence " + (g ? std::to_string(*g->geofenceId()) : std::string("none")));
  }
  void beaconManagerDidExitRegionWithBeacon(const std::shared_ptr<QVLBeacon>& b) override {
    add("exit beacon " + std::to_string(*b->beaconId()));
  }
  void beaconManagerDidExitRegion(const BeaconRegion& r) override {
    add("exit region " + r.identifier);
  }
  void beaconManagerDidExitRegionWithGeofence(const std::shared_ptr<QVLGeofence>& g) override {
    add("exit geofence " + (g ? std::to_string(*g->geofenceId()) : std::string("none")));
  }
  void beaconManagerDidChangeAuthorizationStatus(qvl::AuthorizationStatus s) override {
    add("authorization " + std::to_string(static_cast<int>(s)));
  }
  void beaconManagerDidChangeBluetoothState(qvl::BluetoothState s) override {
    add("bluetooth " + std::to_string(static_cast<int>(s)));
  }

 private:
  void add(const std::string& line) { log_->push_back(name_.empty() ? line : name_ + ": " + line); }
  std::shared_ptr<std::vector<std::string>> log_;
  std::string name_;
};

class QVLBeaconManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    save(guest(), beacon(1, 1, true), beacon(2, 2, true), beacon(3, 3, false));
    manager().addDelegate(delegate_);
  }
  // Open views live in the process-wide analytics manager: none may reach the next test.
  void TearDown() override { manager().analyticsManager().finishAllUnfinishedBeaconViews(); }

  static QVLBeaconManager& manager() { return QVLBeaconManager::sharedManager(); }

  static std::shared_ptr<QVLApiModel> guest() {
    auto g = std::make_shared<QVLGuest>();
    g->setGuestId(9);
    return g;
  }
  // Beacon `id` of kUuid with this major and minor; active when it has a post.
  static std::shared_ptr<QVLApiModel> beacon(std::int64_t id, std::int64_t minor, bool active,
                                             std::int64_t major = 100) {
    auto b = std::make_shared<QVLBeacon>();
    b->setBeaconId(id);
    b->setUuidString(kUuid.toString());
    b->setMajor(major);
    b->setMinor(minor);
    if (active) {
      auto post = std::make_shared<QVLPost>();
      post->setPostId(100 + id);
      b->posts().append(post);
    }
    return b;
  }
  std::shared_ptr<QVLBeacon> stored(std::int64_t id) {
    return QVLRealm::realm()->object<QVLBeacon>(id);
  }
  void watch(std::initializer_list<std::int64_t> beaconIds) {
    for (auto id : beaconIds) manager().startSearchingForBeacon(stored(id));
  }
  static RangedBeacon seen(std::int64_t minor, Proximity proximity = Proximity::Near,
                           double accuracy = 1.5) {
    return {kUuid, 100, static_cast<std::uint16_t>(minor), proximity, accuracy, -60};
  }
  std::vector<std::string> takeLog() { return std::exchange(*log_, {}); }

  qvl::test::TempDir directory_;
  std::shared_ptr<FakeServices> services_ = std::make_shared<FakeServices>();
  std::shared_ptr<qvl::test::RecordingTransport> transport_ =
      std::make_shared<qvl::test::RecordingTransport>();
  qvl::test::ScopedContext env_{[this](qvl::Env& env) {
    env.mainQueue = std::make_shared<qvl::MainQueue>();
    env.notificationCenter = std::make_shared<qvl::NotificationCenter>();
    env.application = std::make_shared<qvl::StandardApplication>();
    env.locationService = services_;
    env.bluetoothCentral = services_;
    env.transport = transport_;
    env.storeDirectory = directory_.path();
  }};
  std::shared_ptr<std::vector<std::string>> log_ = std::make_shared<std::vector<std::string>>();
  std::shared_ptr<LoggingDelegate> delegate_ = std::make_shared<LoggingDelegate>(log_, "");
};

// The watch lists are not locked: a call from another thread is caught instead of racing.
class QVLBeaconManagerSecurity : public QVLBeaconManagerTest {};

TEST_F(QVLBeaconManagerSecurity, ACallFromAnotherThreadAssertsInDebugAndIsLoggedOnceInRelease) {
  auto offTheMainQueue = [] {
    std::thread(qvl::test::inThisContext([] { manager().stopSearchingForBeacons(); })).join();
  };
#ifdef NDEBUG
  watch({1});
  qvl::test::LogCapture log;
  offTheMainQueue();
  offTheMainQueue();
  EXPECT_EQ(log.count("QuorvelSDK: QVLBeaconManager::stopSearchingForBeacons was called off "
                      "the main queue"),
            1u);
  EXPECT_EQ(manager().searchingBeacons().size(), 1u);  // refused
#else
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(offTheMainQueue(), "main-queue-only");
#endif
}

TEST_F(QVLBeaconManagerTest, RangingReportsTellDelegatesInOrder) {
  struct Case {
    const char* name;
    std::vector<std::int64_t> watched;
    bool rawRegion;
    std::vector<std::vector<RangedBeacon>> reports;
    std::vector<std::string> log;
  };
  const std::vector<Case> cases = {
      {"closest told once",
       {1, 2},
       false,
       {{seen(2), seen(1)}, {seen(2, Proximity::Far), seen(1)}},
       {"ranged 2", "closest 2", "active 2,1", "beacons 2,1", "ranged 2", "active 2,1",
        "beacons 2,1"}},
      {"empty report clears the closest only",
       {1},
       false,
       {{seen(1)}, {}},
       {"ranged 1", "closest 1", "active 1", "beacons 1", "ranged 0", "closest none"}},
      {"raw region alone: the raw list only", {}, true, {{seen(1), seen(2)}}, {"ranged 2"}},
      {"inactive: no closest", {3}, false, {{seen(3)}}, {"ranged 1", "active -", "beacons 3"}},
      {"unknown or accuracy -1: left out",
       {1, 2},
       false,
       {{seen(1, Proximity::Unknown), seen(2, Proximity::Immediate, -1)}},
       {"ranged 2", "active -", "beacons -"}},
      {"unwatched: none; next active closest",
       {1, 2},
       false,
       {{seen(7), seen(3), seen(2)}},
       {"ranged 3", "closest 2", "active 2", "beacons 2"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    manager().stopSearchingForBeacons();
    manager().stopSearchingForBeaconRegion(BeaconRegion::withUuid(kUuid, "raw"));
    for (auto id : c.watched) manager().startSearchingForBeacon(stored(id));
    if (c.rawRegion) manager().startSearchingForBeaconRegion(BeaconRegion::withUuid(kUuid, "raw"));
    takeLog();
    for (const auto& report : c.reports) services_->report(report);
    EXPECT_EQ(takeLog(), c.log);
  }
}

TEST_F(QVLBeaconManagerTest, OnlyTheFirstUuidIsRangedAndTheStopsDiffer) {
  const BeaconRegion rangingFirst = BeaconRegion::withUuid(kUuid, "Beacons");
  auto other = std::static_pointer_cast<QVLBeacon>(beacon(4, 4, true));
  other->setUuidString(kOtherUuid.toString());
  save(other);
  watch({1, 4});
  EXPECT_EQ(services_->ranged, std::vector<BeaconRegion>{rangingFirst});
  const auto raw = BeaconRegion::withUuid(kOtherUuid, "raw");
  const auto raw2 = BeaconRegion::withMajor(kOtherUuid, 1, "raw2");
  manager().startSearchingForBeaconRegion(raw);
  manager().startSearchingForBeaconRegion(raw2);
  manager().stopSearchingForBeacon(stored(1));
  manager().stopSearchingForBeacon(stored(4));  // the raw regions keep ranging on
  EXPECT_EQ(services_->ranged, std::vector<BeaconRegion>{rangingFirst});
  manager().stopSearchingForBeaconRegion(raw);  // no beacon record left: ranging stops
  EXPECT_TRUE(services_->ranged.empty());
  EXPECT_TRUE(manager().isCLBeaconRegionMonitoring(raw2));

  watch({1});
  services_->report({seen(1)});
  manager().setRangedUUID(kUuid);  // the same UUID restarts ranging and clears the closest
  EXPECT_EQ(services_->ranged, std::vector<BeaconRegion>{rangingFirst});
  EXPECT_EQ(takeLog().back(), "closest none");
  EXPECT_EQ(manager().closestBeacon(), nullptr);

  // Stopping every beacon stops ranging although raw2 is watched. A record deleted since its
  // watch started is passed on as none: its region stays monitored, its view stays open.
  watch({2});
  services_->report({seen(1), seen(2)});
  auto realm = QVLRealm::realm();
  realm->write([&] { realm->remove(realm->object<QVLBeacon>(1)); });
  manager().stopSearchingForBeacons();
  EXPECT_TRUE(manager().searchingBeacons().empty());
  EXPECT_TRUE(services_->ranged.empty());
  std::vector<std::string> monitored;
  for (const auto& region : services_->monitored)
    monitored.push_back(qvl::regionIdentifier(region));
  EXPECT_EQ(monitored, (std::vector<std::string>{"raw2", "1"}));
  EXPECT_TRUE(manager().analyticsManager().beaconViewIsStarted(1));
  EXPECT_FALSE(manager().analyticsManager().beaconViewIsStarted(2));
  ASSERT_EQ(services_->rangingStarts.size(), 3u);
  for (const auto& region : services_->rangingStarts) EXPECT_TRUE(region.notifyEntryStateOnDisplay);
}

TEST_F(QVLBeaconManagerTest, ARepeatedIdentityMapsToTheRecordStartedFirst) {
  save(beacon(5, 1, true));  // the identity of beacon 1 under another key
  watch({5, 1, 5});
  EXPECT_EQ(manager().searchingBeacons().size(), 2u);
  EXPECT_EQ(services_->monitored.size(), 2u);
  services_->report({seen(1)});
  EXPECT_EQ(*manager().closestBeacon()->beaconId(), 5);
  manager().stopSearchingForBeacon(stored(5));
  services_->report({seen(1)});
  EXPECT_EQ(*manager().closestBeacon()->beaconId(), 1);
}

TEST_F(QVLBeaconManagerTest, CapabilityQueriesFailOnlyOnAnExplicitState) {
  using qvl::BluetoothState;
  for (int state = 0; state <= 5; ++state) {
    services_->bluetooth = static_cast<BluetoothState>(state);
    SCOPED_TRACE(state);
    EXPECT_EQ(QVLBeaconSupport::bluetoothEnabled(), state != 4);
    EXPECT_EQ(QVLBeaconSupport::supportsBeacons(), state != 2);
  }
  for (int status = 0; status <= 4; ++status) {
    services_->authorization = static_cast<qvl::AuthorizationStatus>(status);
    EXPECT_EQ(QVLBeaconSupport::hasAuthorizedLocationAlways(), status == 3) << status;
  }
}

TEST_F(QVLBeaconManagerTest, RegionEntriesReachTheMatchingDelegateOperation) {
  auto geofence = std::make_shared<QVLGeofence>();
  geofence->setGeofenceId(12);
  geofence->setRadius(50);
  save(geofence);
  manager().startSearchingForGeofence(geofence);
  manager().startSearchingForBeaconRegion(BeaconRegion::withUuid(kUuid, "raw"));
  watch({1});
  takeLog();

  services_->enter(BeaconRegion::withUuid(kUuid, "raw"));
  EXPECT_EQ(takeLog(), std::vector<std::string>{"enter region raw"});
  EXPECT_TRUE(manager().analyticsManager().unfinishedBeaconViews().empty());

  services_->enter(*stored(1)->beaconRegion());
  EXPECT_EQ(takeLog(), std::vector<std::string>{"enter beacon 1"});
  EXPECT_TRUE(manager().analyticsManager().beaconViewIsStarted(1));

  services_->enter(geofence->region());
  auto realm = QVLRealm::realm();
  realm->write([&] { realm->remove(realm->object<QVLGeofence>(12)); });
  services_->enter(geofence->region());
  EXPECT_EQ(takeLog(), (std::vector<std::string>{"enter geofence 12", "enter geofence none"}));
  // The identifier's leading integer names the geofence.
  EXPECT_EQ(manager().geofenceFromCLCircularRegion({{}, 1, "12abc"}), nullptr);
  save(geofence);
  EXPECT_EQ(*manager().geofenceFromCLCircularRegion({{}, 1, "12abc"})->geofenceId(), 12);
  geofence->setGeofenceId(0);
  save(geofence);
  EXPECT_EQ(*manager().geofenceFromCLCircularRegion({{}, 1, "plaza"})->geofenceId(), 0);
  // Only a beacon region naming a watched beacon's UUID, major and minor maps to it.
  EXPECT_EQ(manager().beaconFromRegion(BeaconRegion::withMajor(kUuid, 100, "1")), nullptr);
  EXPECT_EQ(manager().beaconFromRegion(qvl::CircularRegion{{}, 1, "1"}), nullptr);
}

TEST_F(QVLBeaconManagerTest, BluetoothOffFinishesBeaconViewsBeforeTheNotification) {
  watch({1, 2});
  services_->report({seen(1), seen(2)});
  ASSERT_EQ(manager().analyticsManager().unfinishedBeaconViews().size(), 2u);
  auto observer = qvl::NotificationCenter::defaultCenter().addObserver(
      QVLBeaconManager::kDidChangeBluetoothStateNotification, nullptr,
      [&](const qvl::Notification& n) {
        log_->push_back(
            "notified, open views " +
            std::to_string(manager().analyticsManager().unfinishedBeaconViews().size()));
        EXPECT_EQ(std::any_cast<QVLBeaconManager*>(n.object), &manager());
      });
  takeLog();

  services_->switchBluetooth(qvl::BluetoothState::PoweredOff);
  EXPECT_EQ(takeLog(), (std::vector<std::string>{"bluetooth 4", "notified, open views 0"}));
  EXPECT_TRUE(managers_test::eventually([&] { return transport_->requests().size() == 2; }));
  EXPECT_EQ(services_->monitored.size(), 2u);  // the watches stay
  // With Bluetooth off no view opens.
  services_->report({seen(1)});
  EXPECT_TRUE(manager().analyticsManager().unfinishedBeaconViews().empty());
}

TEST_F(QVLBeaconManagerTest, ANewLocationServiceStartsFromAnEmptyWatchList) {
  watch({1});
  auto next = std::make_shared<FakeServices>();
  next->monitored = {BeaconRegion::withUuid(kOtherUuid, "left by an earlier run"),
                     qvl::CircularRegion{{1, 2}, 30, "7"}};
  qvl::test::ScopedContext rerun([&](qvl::Env& env) {
    env.locationService = next;
    env.bluetoothCentral = next;
  });
  EXPECT_TRUE(manager().searchingBeacons().empty());
  EXPECT_TRUE(next->monitored.empty());
  EXPECT_FALSE(manager().rangedUUID());
  ASSERT_TRUE(next->options);  // the manager only reads the state: no power alert
  EXPECT_FALSE(next->options->showPowerAlert);
}

TEST_F(QVLBeaconManagerTest, NotificationSettingsGoToAHostThatOffersThem) {
  QVLBeaconManager::sharedManager().requestPermissionsForNotifications();  // standard: nothing
  auto host = std::make_shared<managers_test::HostApplication>();
  qvl::test::ScopedContext scope([&](qvl::Env& env) { env.application = host; });
  QVLBeaconManager::sharedManager().requestPermissionsForNotifications();
  EXPECT_EQ(host->registered(),
            (std::vector<std::pair<unsigned, std::vector<std::string>>>{{7u, {}}}));
}

TEST_F(QVLBeaconManagerTest, ReleasedDelegatesAreSkippedAndTheirSlotsDropped) {
  manager().removeDelegate(delegate_.get());
  std::vector<std::shared_ptr<LoggingDelegate>> delegates;
  for (const char* name : {"a", "b", "c", "d"}) {
    delegates.push_back(std::make_shared<LoggingDelegate>(log_, name));
    manager().addDelegate(delegates.back());
  }
  manager().addDelegate(delegates[1]);  // present already
  delegates[0].reset();
  delegates[2].reset();
  services_->report({});
  EXPECT_EQ(takeLog(), (std::vector<std::string>{"b: ranged 0", "d: ranged 0"}));

  // Two emptied slots among live ones: compaction keeps exactly the live ones, in order.
  QVLWeakPointerArray<int> list;
  std::vector<std::shared_ptr<int>> objects;
  for (int i = 0; i < 5; ++i) {
    objects.push_back(std::make_shared<int>(i));
    list.addObject(objects.back());
  }
  objects[0].reset();
  objects[3].reset();
  EXPECT_EQ(list.indexForObject(objects[4].get()), 2u);
  EXPECT_EQ(list.count(), 3u);
  list.removeObject(objects[1].get());
  EXPECT_EQ(list.allObjects(), (std::vector<std::shared_ptr<int>>{objects[2], objects[4]}));
  EXPECT_EQ(QVLWeakPointerArray<int>().indexForObject(nullptr), 9223372036854775807u);
}

// The two-shops walk (data/scenes/two-shops.json) replayed by the simulated world and heard
// through the beacon manager: every delegate call and notification, one line each, stamped
// with the scene second it was delivered at, must equal tests/Managers/golden/two-shops.log.
// After an intended change of behaviour or of the scene, rewrite the golden file with
//   QVL_UPDATE_GOLDEN=1 ./build/quorvel_tests --gtest_filter='*TwoShopsWalk*'
// and review its diff before committing it.
TEST_F(QVLBeaconManagerTest, TheTwoShopsWalkGivesTheGoldenLog) {
  const std::filesystem::path here = std::filesystem::path(__FILE__).parent_path();
  auto clock = std::make_shared<qvl::ManualClock>();
  qvl::test::ScopedContext timed([&](qvl::Env& env) { env.clock = clock; });
  auto world = qvl::SimulatedWorld::create();
  qvl::test::ScopedContext simulated([&](qvl::Env& env) {
    env.locationService = world;
    env.bluetoothCentral = world;
  });
  manager().addDelegate(delegate_);  // this context's manager
  // Shop A: beacons 11 (1.1) and 12 (1.2); shop B: beacon 21 (2.1) and the raw region of
  // major 2; the plaza between them: geofence 30.
  auto plaza = std::make_shared<QVLGeofence>();
  plaza->setGeofenceId(30);
  plaza->setLatitude(52.5203597);
  plaza->setLongitude(13.4060346);
  plaza->setRadius(25);
  save(beacon(11, 1, true, 1), beacon(12, 2, true, 1), beacon(21, 1, true, 2), plaza);
  delegate_->listsRanged = true;
  auto observer = qvl::NotificationCenter::defaultCenter().addObserver(
      "", nullptr, [&](const qvl::Notification& n) {
        std::string object = "?";
        if (const auto* status = std::any_cast<std::int32_t>(&n.object)) {
          object = std::to_string(*status);
        } else if (std::any_cast<QVLBeaconManager*>(&n.object)) {
          object = "manager, bluetoothState " +
                   std::to_string(static_cast<int>(manager().bluetoothState()));
        }
        log_->push_back("notification " + n.name + " (" + object + ")");
      });
  watch({11, 12, 21});
  manager().startSearchingForBeaconRegion(BeaconRegion::withMajor(kUuid, 2, "shop B"));
  manager().startSearchingForGeofence(QVLRealm::realm()->object<QVLGeofence>(30));
  manager().requestLocationAlwaysAuthorization();
  world->play(qvl::Scene::load(here / "../../data/scenes/two-shops.json"));

  std::vector<std::string> log;
  auto& queue = *qvl::Env::current()->mainQueue;
  for (int second = 0; second <= 130; ++second) {
    if (second > 0) world->advance(1);
    queue.runUntilIdle();
    for (const auto& line : takeLog()) log.push_back("@" + std::to_string(second) + " " + line);
  }
  ASSERT_TRUE(world->sceneFinished());
  expectGolden(log, here / "golden/two-shops.log");
}

}  // namespace
