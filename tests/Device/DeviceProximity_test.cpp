#include "quorvel/device/DeviceProximity.h"
#include "support/ScopedContext.h"

#include <cstdio>
#include <set>

#include <gtest/gtest.h>

#include "Device/MockBus.h"
#include "device/BusThread.h"
#include "device/Sightings.h"
#include "device/StandardBackend.h"
#include "proximity/ProximityCore.h"
#include "quorvel/managers/QVLBeaconManager.h"
#include "quorvel/managers/QVLBeaconSupport.h"
#include "quorvel/platform/Application.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/MainQueue.h"
#include "quorvel/platform/NotificationCenter.h"
#include "quorvel/testing/ManualClock.h"
#include "quorvel/testing/SimulatedWorld.h"
#include "support/ProximityLog.h"
#include "support/TempDir.h"

namespace qvl {
namespace {

using test::eventually;
using test::MockBus;

const Uuid kUuid = *Uuid::parse("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
const BeaconRegion kRanging = BeaconRegion::withUuid(kUuid, "Beacons");
const Coordinate kCentre{52.52, 13.405};

std::vector<std::uint8_t> frame(std::uint16_t minor) {
  return proximity::encodeBeaconFrame({{kUuid, 1, minor}, -59});
}

using Log = test::ProximityLog;

// A private bus with BlueZ (one adapter, hci0) and, on request, GeoClue; the backend on a
// manual clock, its events on a main queue the test drains after every tick.
class DeviceProximityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string missing = MockBus::missingTools(); !missing.empty()) {
      if (std::getenv("CI")) FAIL() << "missing in CI: " << missing;
      GTEST_SKIP() << "missing: " << missing;
    }
    bus_ = std::make_unique<MockBus>();
    bluez_ = bus_->proxy("org.bluez", "/");
    adapter_ = bus_->proxy("org.bluez", "/org/bluez/hci0");
    startBluez();
  }
  void startBluez() {
    bus_->start("bluez_beacons", "org.bluez");
    bluez_->callMethod("AddAdapter").onInterface("org.bluez.Mock").withArguments("hci0", "kiosk");
  }

  // Creates the backend and waits until it discovers: BlueZ's objects listed, the filter set,
  // discovery started and the adapter saying so. After one tick it reports the state.
  void startBackend(bool record = false) {
    DeviceProximitySettings settings;
    settings.busAddress = bus_->address();
    settings.storeDirectory = directory_.path();
    settings.rules.exitPeriod = 5;
    settings.record = record;
    backend_ = DeviceProximity::create(settings);
    backend_->setDelegate(std::weak_ptr<LocationServiceDelegate>(log_));
    backend_->setDelegate(std::weak_ptr<BluetoothCentralDelegate>(log_));
    ASSERT_TRUE(eventually([&] { return backend_->signalsHandled() >= 4; }));
    ASSERT_TRUE(discovering());
    tick();
  }

  sdbus::Variant adapterProperty(const std::string& name) {
    sdbus::Variant value;
    adapter_->callMethod("Get")
        .onInterface("org.freedesktop.DBus.Properties")
        .withArguments("org.bluez.Adapter1", name)
        .storeResultsTo(value);
    return value;
  }
  bool discovering() { return adapterProperty("Discovering").get<bool>(); }

  // Runs `action` (a call to a mock) and waits until the backend handled `signals` more.
  void expectSignals(std::uint64_t signals, const std::function<void()>& action) {
    std::uint64_t before = backend_->signalsHandled();
    action();
    ASSERT_TRUE(eventually([&] { return backend_->signalsHandled() >= before + signals; }))
        << "handled " << backend_->signalsHandled() - before << " of " << signals;
  }

  void advertise(std::uint16_t minor, std::int16_t rssi, std::vector<std::uint8_t> data = {},
                 std::uint16_t company = proximity::kIBeaconCompanyId) {
    if (data.empty()) data = frame(minor);
    char address[24];
    std::snprintf(address, sizeof address, "C0:FF:EE:00:%02X:%02X", company & 0xFF, minor & 0xFF);
    bool added = addresses_.insert(address).second;
    expectSignals(added ? 2 : 1, [&] {
      bluez_->callMethod("Advertise")
          .onInterface("org.bluez.Mock")
          .withArguments("hci0", std::string(address), rssi, company, data);
    });
  }

  // Powering on also sets the filter and starts discovery, which the adapter announces.
  void setPowered(bool on) {
    expectSignals(on ? 4 : 1, [&] {
      bluez_->callMethod("SetPowered").onInterface("org.bluez.Mock").withArguments("hci0", on);
    });
  }

  void tick(int seconds = 1) {
    for (int i = 0; i < seconds; ++i) {
      clock_->advance(std::chrono::seconds(1));
      queue_->runUntilIdle();
    }
  }

  test::TempDir directory_;
  std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>();
  std::shared_ptr<MainQueue> queue_ = std::make_shared<MainQueue>();
  qvl::test::ScopedContext env_{[this](Env& env) {
    env.clock = clock_;
    env.mainQueue = queue_;
    env.storeDirectory = directory_.path();
  }};
  std::shared_ptr<Log> log_ = std::make_shared<Log>(clock_);
  std::unique_ptr<MockBus> bus_;
  std::unique_ptr<sdbus::IProxy> bluez_, adapter_;
  std::set<std::string> addresses_;
  std::shared_ptr<DeviceProximity> backend_;  // last: goes before the bus
};

TEST_F(DeviceProximityTest, RangesOnlyIBeaconFramesNearestFirst) {
  startBackend();
  backend_->startRanging(kRanging);
  std::vector<std::uint8_t> shortFrame = frame(4);
  shortFrame.pop_back();
  advertise(1, -80);
  advertise(2, -60);
  advertise(3, -70);
  advertise(4, -50, shortFrame);
  advertise(5, -50, frame(5), 0x0059);  // another company
  tick();
  EXPECT_EQ(log_->reports.back(), "@2 Beacons: 1.2 1.3 1.1");
}

TEST_F(DeviceProximityTest, EntersOnTheFirstAdvertisementAndExitsAfterTheExitPeriod) {
  startBackend();
  backend_->startMonitoring(BeaconRegion::withMajorMinor(kUuid, 1, 1, "b1"));
  advertise(1, -70);
  tick();
  EXPECT_EQ(log_->events, (std::vector<std::string>{"@1 bluetooth 5", "@2 enter b1"}));
  // BlueZ dropping the device object says nothing about the beacon's presence.
  expectSignals(1, [&] {
    adapter_->callMethod("RemoveDevice")
        .onInterface("org.bluez.Adapter1")
        .withArguments(sdbus::ObjectPath("/org/bluez/hci0/dev_C0_FF_EE_00_4C_01"));
  });
  tick(4);  // four seconds of silence: still inside
  EXPECT_EQ(log_->count("exit b1"), 0u);
  tick();
  EXPECT_EQ(log_->events.back(), "@7 exit b1");
}

TEST_F(DeviceProximityTest, PoweringOffReachesTheManagerAndDiscoveryResumesOnPowerOn) {
  startBackend();
  qvl::test::ScopedContext services([&](Env& env) {
    env.notificationCenter = std::make_shared<NotificationCenter>();
    env.application = std::make_shared<StandardApplication>();
    env.locationService = backend_;
    env.bluetoothCentral = backend_;
  });
  auto& manager = QVLBeaconManager::sharedManager();
  int notified = 0;
  auto observer = NotificationCenter::defaultCenter().addObserver(
      QVLBeaconManager::kDidChangeBluetoothStateNotification, nullptr,
      [&](const Notification&) { ++notified; });
  setPowered(false);
  tick();
  EXPECT_EQ(manager.bluetoothState(), BluetoothState::PoweredOff);
  EXPECT_FALSE(QVLBeaconSupport::bluetoothEnabled());
  EXPECT_EQ(notified, 1);
  setPowered(true);
  EXPECT_TRUE(discovering());
  tick();
  EXPECT_EQ(manager.bluetoothState(), BluetoothState::PoweredOn);
  EXPECT_EQ(notified, 2);
}

TEST_F(DeviceProximityTest, DiscoveryStoppedBehindOurBackStartsAgainWithItsFilter) {
  startBackend();
  auto filter = adapterProperty("DiscoveryFilter").get<std::map<std::string, sdbus::Variant>>();
  EXPECT_EQ(filter.at("Transport").get<std::string>(), "le");
  EXPECT_TRUE(filter.at("DuplicateData").get<bool>());
  adapter_->callMethod("StopDiscovery").onInterface("org.bluez.Adapter1");
  EXPECT_TRUE(eventually([&] { return discovering(); }));
}

TEST_F(DeviceProximityTest, ABluezThatRestartsIsUsedAgain) {
  startBackend();
  expectSignals(1, [&] { bus_->stopServices(); });  // the name's owner went
  tick();
  EXPECT_EQ(backend_->state(), BluetoothState::Unsupported);
  startBluez();
  EXPECT_TRUE(eventually([&] { return discovering(); }));
  tick();
  EXPECT_EQ(backend_->state(), BluetoothState::PoweredOn);
  advertise(1, -60);  // the new owner's signals are heard
}

TEST_F(DeviceProximityTest, AWalkAcrossAGeofenceEntersOnceAndLeavesOnce) {
  bus_->start("geoclue", "org.freedesktop.GeoClue2");
  startBackend();
  backend_->startMonitoring(CircularRegion{kCentre, 50, "g"});
  expectSignals(2, [&] { backend_->requestAlwaysAuthorization(); });  // client made, started
  tick();
  EXPECT_EQ(backend_->authorizationStatus(), AuthorizationStatus::AuthorizedAlways);
  auto geoclue = bus_->proxy("org.freedesktop.GeoClue2", "/org/freedesktop/GeoClue2/Manager");
  // West to east through the centre at 10 m/s, then a while outside.
  for (int east = -150; east <= 250; east += 10) {
    Coordinate at = proximity::offsetCoordinate(kCentre, std::min(east, 150), 0);
    expectSignals(2, [&] {  // the update, then the new location's properties
      geoclue->callMethod("SetLocation")
          .onInterface("org.freedesktop.DBus.Mock")
          .withArguments(at.latitude, at.longitude, 5.0);
    });
    tick();
  }
  EXPECT_EQ(log_->count("authorization 3"), 1u);
  EXPECT_EQ(log_->count("enter g"), 1u);
  EXPECT_EQ(log_->count("exit g"), 1u);
  EXPECT_EQ(log_->events.size(), 4u) << ::testing::PrintToString(log_->events);
}

TEST_F(DeviceProximityTest, APositionRefusedByGeoClueIsDenied) {
  bus_->start("geoclue", "org.freedesktop.GeoClue2");
  bus_->proxy("org.freedesktop.GeoClue2", "/org/freedesktop/GeoClue2/Manager")
      ->callMethod("Refuse")
      .onInterface("org.freedesktop.DBus.Mock")
      .withArguments(true);
  startBackend();
  EXPECT_EQ(backend_->authorizationStatus(), AuthorizationStatus::NotDetermined);
  expectSignals(2, [&] { backend_->requestAlwaysAuthorization(); });  // client made, refused
  tick();
  EXPECT_EQ(log_->events.back(), "@2 authorization 2");
}

// A recorded session, replayed by the simulated world, gives the same events and reports.
TEST_F(DeviceProximityTest, ARecordedSessionReplaysToTheSameLog) {
  auto detailed = std::make_shared<Log>(clock_, true);
  log_ = detailed;
  startBackend(true);
  const std::vector<Region> regions = {BeaconRegion::withMajorMinor(kUuid, 1, 1, "b1"),
                                       BeaconRegion::withMajorMinor(kUuid, 1, 2, "b2")};
  for (const Region& region : regions) backend_->startMonitoring(region);
  backend_->startRanging(kRanging);
  for (int second = 2; second <= 30; ++second) {
    if (second < 16) advertise(1, static_cast<std::int16_t>(-60 - second));
    if (second >= 5 && second % 4 != 0) advertise(2, -75);
    if (second == 10) setPowered(false);
    if (second == 13) setPowered(true);
    tick();
  }
  const Scene scene = Scene::parse(backend_->recordedScene(), "recorded");

  test::TempDir replayDirectory;
  auto clock = std::make_shared<ManualClock>();
  auto queue = std::make_shared<MainQueue>();
  qvl::test::ScopedContext replay([&](Env& env) {
    env.clock = clock;
    env.mainQueue = queue;
  });
  auto world = SimulatedWorld::create({}, replayDirectory.path());
  auto replayed = std::make_shared<Log>(clock, true);
  world->setDelegate(std::weak_ptr<LocationServiceDelegate>(replayed));
  world->setDelegate(std::weak_ptr<BluetoothCentralDelegate>(replayed));
  world->play(scene);
  queue->runUntilIdle();
  replayed->events.clear();  // the scene's starting state
  for (int second = 1; second <= 30; ++second) {
    clock->advance(std::chrono::seconds(1));
    queue->runUntilIdle();
    if (second > 1) continue;
    // As on the device: the watches start after the first tick.
    for (const Region& region : regions) world->startMonitoring(region);
    world->startRanging(kRanging);
  }
  EXPECT_EQ(replayed->events, detailed->events);
  EXPECT_EQ(replayed->reports, detailed->reports);
  EXPECT_GE(detailed->count("exit b1"), 1u);  // the session had crossings worth replaying
  EXPECT_GE(detailed->count("enter b2"), 1u);
}

// The standard backend on the private bus, chosen by the environment; lines at warning or
// above are kept with their level.
class StandardBackendTest : public DeviceProximityTest {
 protected:
  std::shared_ptr<BluetoothCentral> choose(Env::ProximityBackend choice) {
    qvl::test::ScopedContext scope([&](Env& env) {
      env.proximityBackend = choice;
      env.logSink = [lines = lines_](LogLevel level, std::string_view) {
        std::lock_guard lock(lines->mutex);
        if (level <= LogLevel::warning) lines->text.push_back(std::string(logLevelName(level)));
      };
    });
    auto backend = proximity::makeStandardBackend(bus_->address());
    backend.bluetoothCentral->setDelegate(std::weak_ptr<BluetoothCentralDelegate>(log_));
    return backend.bluetoothCentral;
  }
  bool reaches(BluetoothState state) {
    return eventually([&] {
      tick();
      return central_->state() == state;
    });
  }
  std::vector<std::string> takeLevels() {
    std::lock_guard lock(lines_->mutex);
    return std::exchange(lines_->text, {});
  }

  struct Lines {
    std::mutex mutex;
    std::vector<std::string> text;
  };
  std::shared_ptr<Lines> lines_ = std::make_shared<Lines>();
  std::shared_ptr<BluetoothCentral> central_;
};

// A host that asks for the device never gets a simulated radio that claims to be on.
class StandardBackendSecurity : public StandardBackendTest {};

TEST_F(StandardBackendSecurity, TheEnvironmentChoosesAndNoFallbackClaimsARadio) {
  using enum Env::ProximityBackend;
  struct Case {
    Env::ProximityBackend choice;
    bool bluez;
    BluetoothState state;
    bool discovering;
    std::vector<std::string> levels;  // of the lines at warning or above
  };
  const std::vector<Case> cases = {
      {automatic, true, BluetoothState::PoweredOn, true, {}},
      {device, true, BluetoothState::PoweredOn, true, {"error"}},  // no GeoClue
      {automatic, false, BluetoothState::Unsupported, false, {"warning"}},
      {device, false, BluetoothState::Unsupported, false, {"error", "error"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << int(c.choice) << (c.bluez ? " with" : " without"));
    if (!c.bluez) bus_->stopServices();
    central_ = choose(c.choice);
    EXPECT_TRUE(reaches(c.state)) << int(central_->state());
    EXPECT_EQ(takeLevels(), c.levels);
    if (c.bluez) {
      EXPECT_EQ(c.discovering ? eventually([&] { return discovering(); }) : discovering(),
                c.discovering);
    }
    central_.reset();  // before the discovery it started is stopped, or it starts it again
    if (c.bluez) adapter_->callMethod("StopDiscovery").onInterface("org.bluez.Adapter1");
  }
}

TEST_F(StandardBackendTest, ABluezStartedLaterIsUsedAndOneThatStopsIsUnsupported) {
  bus_->stopServices();
  central_ = choose(Env::ProximityBackend::automatic);
  ASSERT_TRUE(reaches(BluetoothState::Unsupported));
  startBluez();
  EXPECT_TRUE(reaches(BluetoothState::PoweredOn));
  EXPECT_TRUE(eventually([&] { return discovering(); }));
  bus_->stopServices();
  EXPECT_TRUE(reaches(BluetoothState::Unsupported));
  std::vector<std::string> bluetooth;
  for (const auto& event : log_->events) bluetooth.push_back(event.substr(event.find(' ') + 1));
  EXPECT_EQ(bluetooth, (std::vector<std::string>{"bluetooth 2", "bluetooth 5", "bluetooth 2"}));
}

class DeviceSecurity : public DeviceProximityTest {};

// Another connection sends BlueZ's signals for a beacon and claims BlueZ's name, to everyone
// and to each connection by name: none of it reaches the host, and what arrived is counted.
TEST_F(DeviceSecurity, SignalsFromAnotherConnectionAreDroppedAndCounted) {
  startBackend();
  backend_->startMonitoring(BeaconRegion::withMajorMinor(kUuid, 1, 7, "b7"));
  backend_->startRanging(kRanging);
  auto spoofer = sdbus::createSessionBusConnectionWithAddress(bus_->address());
  const sdbus::ObjectPath device("/org/bluez/hci0/dev_C0_FF_EE_00_4C_07");
  const std::map<std::string, sdbus::Variant> properties{
      {"RSSI", sdbus::Variant(std::int16_t{-40})},
      {"ManufacturerData", sdbus::Variant(std::map<std::uint16_t, sdbus::Variant>{
                               {proximity::kIBeaconCompanyId, sdbus::Variant(frame(7))}})}};
  auto daemon = sdbus::createObject(*spoofer, "/org/freedesktop/DBus");
  auto root = sdbus::createObject(*spoofer, "/");
  auto object = sdbus::createObject(*spoofer, device);
  std::vector<std::string> names;
  bus_->proxy("org.freedesktop.DBus", "/org/freedesktop/DBus")
      ->callMethod("ListNames")
      .onInterface("org.freedesktop.DBus")
      .storeResultsTo(names);
  std::erase_if(names, [](const std::string& name) { return !name.starts_with(':'); });
  names.insert(names.begin(), "");  // a broadcast first
  const std::uint64_t before = backend_->stats().messagesDropped;
  for (const std::string& to : names) {
    auto owner = daemon->createSignal("org.freedesktop.DBus", "NameOwnerChanged");
    owner << std::string("org.bluez") << std::string() << spoofer->getUniqueName();
    auto added = root->createSignal("org.freedesktop.DBus.ObjectManager", "InterfacesAdded");
    added << device
          << std::map<std::string, std::map<std::string, sdbus::Variant>>{
                 {"org.bluez.Device1", properties}};
    auto changed = object->createSignal("org.freedesktop.DBus.Properties", "PropertiesChanged");
    changed << std::string("org.bluez.Device1") << properties << std::vector<std::string>{};
    for (sdbus::Signal* signal : {&owner, &added, &changed}) {
      if (!to.empty()) signal->setDestination(to);
      signal->send();
    }
  }
  // The unicast ones reach the handlers, in order, and are turned away there.
  ASSERT_TRUE(eventually([&] { return backend_->stats().messagesDropped >= before + 2; }));
  advertise(1, -60);  // BlueZ itself is still heard
  tick();
  EXPECT_EQ(log_->count("enter b7"), 0u);
  EXPECT_EQ(log_->reports.back(), "@2 Beacons: 1.1");
}

// Whatever a callback throws stays on the bus thread: it is logged and the next one runs.
TEST_F(DeviceSecurity, ACallbackThatThrowsLeavesTheBusThreadRunning) {
  std::atomic<bool> ran{false};
  device::BusThread thread(
      bus_->address(), [](sdbus::IConnection&) {}, [] {}, [](const std::string&) {});
  thread.post([](sdbus::IConnection&) { throw std::runtime_error("not a D-Bus error"); });
  thread.post([&](sdbus::IConnection&) { ran = true; });
  EXPECT_TRUE(eventually([&] { return ran.load(); }));
}

// A flood of made-up identifiers through the backend's handling of advertisements keeps its
// tables at the cap, the most recent kept; beacons gone quiet are forgotten.
TEST(SightingsSecurity, AFloodOfIdentifiersStaysAtTheCap) {
  device::Sightings sightings(100, 60);
  for (std::uint16_t minor = 0; minor < 250; ++minor) {
    const std::string path = "/org/bluez/hci0/dev_" + std::to_string(minor);
    sightings.setFrame(path, proximity::BeaconFrame{{kUuid, 1, minor}, -59});
    sightings.heard(path, -60);
  }
  EXPECT_EQ(sightings.stats().beacons, 100u);
  EXPECT_EQ(sightings.stats().devices, 100u);
  EXPECT_EQ(sightings.stats().evicted, 300u);
  const std::vector<proximity::Heard> heard = sightings.take();
  ASSERT_EQ(heard.size(), 100u);
  EXPECT_EQ(heard.front().frame.key.minor, 150);
  for (int tick = 0; tick < 60; ++tick) sightings.take();
  EXPECT_EQ(sightings.stats().beacons, 0u);
}

}  // namespace
}  // namespace qvl
