#include "quorvel/Platform/SimulatedWorld.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <utility>

#include <nlohmann/json.hpp>

#include "Proximity/ProximityCore.h"
#include "quorvel/Helpers/QVLRealm.h"
#include "quorvel/Platform/Env.h"
#include "quorvel/Platform/Log.h"
#include "quorvel/Platform/MainQueue.h"

namespace qvl {

namespace {

using nlohmann::json;
using proximity::Seconds;

constexpr const char* kRegionsFile = "monitored-regions.json";
constexpr double kDefaultAccuracy = 5.0;

Date::duration toDuration(double seconds) {
  return std::chrono::duration_cast<Date::duration>(Seconds(seconds));
}

struct Beacon {
  std::string id;
  proximity::BeaconFrame frame;
  std::optional<Coordinate> position;
  std::optional<double> rssi;
  bool silent = false;
};

struct Walk {
  Coordinate from;
  Coordinate to;
  Date start;
  Date end;
};

json regionToJson(const Region& region) {
  if (const auto* beacon = std::get_if<BeaconRegion>(&region)) {
    json out = {{"identifier", beacon->identifier}, {"uuid", beacon->proximityUUID.toString()}};
    if (beacon->major) out["major"] = *beacon->major;
    if (beacon->minor) out["minor"] = *beacon->minor;
    return out;
  }
  const auto& circle = std::get<CircularRegion>(region);
  return {{"identifier", circle.identifier},
          {"latitude", circle.center.latitude},
          {"longitude", circle.center.longitude},
          {"radius", circle.radius}};
}

Region regionFromJson(const json& value) {
  std::string identifier = value.at("identifier").get<std::string>();
  if (value.contains("uuid")) {
    std::optional<Uuid> uuid = Uuid::parse(value.at("uuid").get<std::string>());
    if (!uuid) throw std::runtime_error("bad UUID");
    BeaconRegion region{*uuid, std::nullopt, std::nullopt, identifier};
    if (value.contains("major")) region.major = value.at("major").get<std::uint16_t>();
    if (value.contains("minor")) region.minor = value.at("minor").get<std::uint16_t>();
    return region;
  }
  return CircularRegion{{value.at("latitude").get<double>(), value.at("longitude").get<double>()},
                        value.at("radius").get<double>(),
                        identifier};
}

}  // namespace

struct SimulatedWorld::Private {
  mutable std::mutex mutex;
  SimulationSettings settings;
  std::string regionsPath;

  proximity::BeaconTracker tracker;
  proximity::BeaconRegionMonitor beaconMonitor;
  proximity::CircleMonitor circleMonitor;

  std::vector<Region> monitored;
  std::vector<BeaconRegion> ranged;
  std::vector<Beacon> beacons;
  proximity::Fix device{{0, 0}, kDefaultAccuracy};
  std::optional<Walk> walk;

  BluetoothState bluetooth = BluetoothState::PoweredOn;
  AuthorizationStatus authorization = AuthorizationStatus::NotDetermined;
  AuthorizationStatus answer = AuthorizationStatus::AuthorizedAlways;

  std::vector<SceneStep> steps;
  std::size_t nextStep = 0;
  Date sceneStart{};

  std::weak_ptr<LocationServiceDelegate> locationDelegate;
  std::weak_ptr<BluetoothCentralDelegate> bluetoothDelegate;
  std::function<void(const std::string&)> markerHandler;
  Clock::TimerId tickTimer = 0;

  // Deliveries made under the lock, posted to the main queue after it is released.
  std::vector<std::function<void()>> outbox;

  void configure(const SimulationSettings& s) {
    settings = s;
    proximity::TrackerSettings trackerSettings;
    trackerSettings.filterTimeConstant = Seconds(s.rssiTimeConstant);
    trackerSettings.pathLoss.exponent = s.pathLossExponent;
    tracker.setSettings(trackerSettings);
    beaconMonitor.setSettings({Seconds(s.exitPeriod), s.entryRssi});
    proximity::CircleMonitorSettings circleSettings;
    circleSettings.dwell = Seconds(s.dwell);
    circleMonitor.setSettings(circleSettings);
  }

  // Outbox: every event is posted in the order it happened.
  void sendLocation(std::function<void(LocationServiceDelegate&)> call) {
    outbox.push_back([delegate = locationDelegate, call = std::move(call)] {
      if (auto target = delegate.lock()) call(*target);
    });
  }

  void setAuthorization(AuthorizationStatus status) {
    if (status == authorization) return;
    authorization = status;
    sendLocation([status](LocationServiceDelegate& d) { d.didChangeAuthorization(status); });
  }

  void setBluetooth(BluetoothState state) {
    if (state == bluetooth) return;
    bluetooth = state;
    outbox.push_back([delegate = bluetoothDelegate, state] {
      if (auto target = delegate.lock()) target->bluetoothCentralDidUpdateState(state);
    });
  }

  Beacon* findBeacon(const std::string& id) {
    auto it = std::find_if(beacons.begin(), beacons.end(),
                           [&](const Beacon& beacon) { return beacon.id == id; });
    return it == beacons.end() ? nullptr : &*it;
  }

  void apply(const SceneStep::Action& action, Date now) {
    std::visit([&](const auto& a) { applyOne(a, now); }, action);
  }

  void applyOne(const SceneDeviceMove& move, Date now) {
    if (move.accuracy) device.accuracy = *move.accuracy;
    if (move.seconds > 0) {
      walk = Walk{device.coordinate, move.position, now, now + toDuration(move.seconds)};
    } else {
      walk.reset();
      device.coordinate = move.position;
    }
  }

  void applyOne(const SceneBeacon& change, Date) {
    Beacon* beacon = findBeacon(change.id);
    if (!beacon) {
      if (!change.uuid || !change.major || !change.minor) {
        log("QuorvelSDK: simulated beacon \"" + change.id + "\" needs a UUID, major and minor");
        return;
      }
      beacon = &beacons.emplace_back();
      beacon->id = change.id;
    }
    proximity::BeaconKey& key = beacon->frame.key;
    key.uuid = change.uuid.value_or(key.uuid);
    key.major = change.major.value_or(key.major);
    key.minor = change.minor.value_or(key.minor);
    beacon->frame.measuredPower = change.measuredPower.value_or(beacon->frame.measuredPower);
    if (change.position) {
      beacon->position = change.position;
      beacon->rssi.reset();
      beacon->silent = false;
    }
    if (change.rssi) {
      beacon->rssi = change.rssi;
      beacon->silent = false;
    }
    if (change.silent) beacon->silent = true;
  }

  void applyOne(const SceneRemoveBeacon& remove, Date) {
    std::erase_if(beacons, [&](const Beacon& beacon) { return beacon.id == remove.id; });
  }

  void applyOne(BluetoothState state, Date) { setBluetooth(state); }

  void applyOne(AuthorizationStatus status, Date) {
    answer = status;
    if (authorization != AuthorizationStatus::NotDetermined ||
        status == AuthorizationStatus::NotDetermined) {
      setAuthorization(status);
    }
  }

  void applyOne(const SceneMarker& marker, Date) {
    outbox.push_back([handler = markerHandler, text = marker.text] {
      if (handler) handler(text);
    });
  }

  void moveAlongWalk(Date now) {
    if (!walk) return;
    double fraction =
        std::clamp(Seconds(now - walk->start) / Seconds(walk->end - walk->start), 0.0, 1.0);
    device.coordinate = {
        walk->from.latitude + fraction * (walk->to.latitude - walk->from.latitude),
        walk->from.longitude + fraction * (walk->to.longitude - walk->from.longitude)};
    if (fraction >= 1.0) walk.reset();
  }

  // The RSSI at which the device hears the beacon now, if it does.
  std::optional<double> heard(const Beacon& beacon) const {
    if (beacon.silent) return std::nullopt;
    std::optional<double> rssi = beacon.rssi;
    if (!rssi && beacon.position) {
      rssi = tracker.settings().pathLoss.rssiAt(
          proximity::haversineMetres(device.coordinate, *beacon.position),
          beacon.frame.measuredPower);
    }
    if (!rssi || *rssi < settings.sensitivity) return std::nullopt;
    return rssi;
  }

  const Region* findMonitored(const std::string& identifier) const {
    auto it = std::find_if(monitored.begin(), monitored.end(), [&](const Region& region) {
      return regionIdentifier(region) == identifier;
    });
    return it == monitored.end() ? nullptr : &*it;
  }

  void tick(Date now) {
    while (nextStep < steps.size() && sceneStart + toDuration(steps[nextStep].at) <= now) {
      apply(steps[nextStep++].action, now);
    }
    moveAlongWalk(now);

    bool monitoring = authorization == AuthorizationStatus::AuthorizedAlways;
    bool ranging = monitoring || authorization == AuthorizationStatus::AuthorizedWhenInUse;
    std::vector<proximity::RegionEvent> events;
    if (bluetooth == BluetoothState::PoweredOn && ranging) {
      for (const Beacon& beacon : beacons) {
        std::optional<double> rssi = heard(beacon);
        if (!rssi) continue;
        // The advertisement a radio would receive, read as a device backend reads it.
        std::optional<proximity::BeaconFrame> frame = proximity::parseBeaconFrame(
            proximity::kIBeaconCompanyId, proximity::encodeBeaconFrame(beacon.frame));
        double filtered = tracker.observe(now, *frame, *rssi);
        if (monitoring) beaconMonitor.sighting(now, frame->key, filtered, events);
      }
    }
    if (monitoring) {
      beaconMonitor.tick(now, events);
      circleMonitor.update(now, device, events);
    }
    for (const proximity::RegionEvent& event : events) {
      const Region* region = findMonitored(event.identifier);
      if (!region) continue;
      bool entry = event.kind == proximity::RegionEvent::Kind::Entry;
      sendLocation([entry, region = *region](LocationServiceDelegate& d) {
        entry ? d.didEnterRegion(region) : d.didExitRegion(region);
      });
    }
    if (ranging) {
      for (const BeaconRegion& region : ranged) {
        sendLocation([report = tracker.rangingReport(now, region),
                      region](LocationServiceDelegate& d) { d.didRangeBeacons(report, region); });
      }
    }
    tracker.prune(now);
  }

  void loadRegions() {
    std::ifstream file(regionsPath);
    if (!file) return;
    try {
      json saved = json::parse(file);
      for (const json& value : saved.at("regions")) {
        Region region = regionFromJson(value);
        monitor(region);
        monitored.push_back(std::move(region));
      }
    } catch (const std::exception& error) {
      log("QuorvelSDK: monitored regions in " + regionsPath + " not read: " + error.what());
    }
  }

  void saveRegions() const {
    json regions = json::array();
    for (const Region& region : monitored) regions.push_back(regionToJson(region));
    std::error_code error;
    std::filesystem::path path(regionsPath);
    std::filesystem::create_directories(path.parent_path(), error);
    std::filesystem::path temporary = path;
    temporary += ".tmp";
    {
      std::ofstream file(temporary, std::ios::trunc);
      file << json{{"regions", regions}}.dump(2) << '\n';
      if (!file.flush()) {
        log("QuorvelSDK: monitored regions not saved to " + regionsPath);
        return;
      }
    }
    std::filesystem::rename(temporary, path, error);
    if (error) log("QuorvelSDK: monitored regions not saved to " + regionsPath);
  }

  void monitor(const Region& region) {
    unmonitor(regionIdentifier(region));
    if (const auto* beacon = std::get_if<BeaconRegion>(&region)) {
      beaconMonitor.add(*beacon);
    } else {
      circleMonitor.add(std::get<CircularRegion>(region));
    }
  }

  void unmonitor(const std::string& identifier) {
    beaconMonitor.remove(identifier);
    circleMonitor.remove(identifier);
  }
};

namespace {

// Posts what the world queued under its lock, in order, to the main queue.
void post(std::vector<std::function<void()>> outbox) {
  if (outbox.empty()) return;
  std::shared_ptr<MainQueue> queue = Env::current()->mainQueue;
  for (auto& delivery : outbox) queue->async(std::move(delivery));
}

}  // namespace

std::shared_ptr<SimulatedWorld> SimulatedWorld::create(SimulationSettings settings,
                                                       std::string storeDirectory) {
  std::shared_ptr<SimulatedWorld> world(new SimulatedWorld(settings, std::move(storeDirectory)));
  world->self_ = world;
  world->scheduleTick();
  return world;
}

SimulatedWorld::SimulatedWorld(SimulationSettings settings, std::string storeDirectory)
    : d_(std::make_unique<Private>()), clock_(Env::current()->clock) {
  if (storeDirectory.empty()) storeDirectory = QVLRealm::storeDirectory();
  d_->regionsPath = (std::filesystem::path(storeDirectory) / kRegionsFile).string();
  d_->configure(settings);
  d_->loadRegions();
}

// The clock is never called with the world's lock held: a clock may hold its own lock while
// it runs a tick, which takes the world's.
SimulatedWorld::~SimulatedWorld() {
  Clock::TimerId timer;
  {
    std::lock_guard lock(d_->mutex);
    timer = d_->tickTimer;
  }
  clock_->cancel(timer);
}

void SimulatedWorld::scheduleTick() {
  Clock::TimerId timer = clock_->runAfter(std::chrono::seconds(1), [weak = self_] {
    if (auto world = weak.lock()) world->tick();
  });
  std::lock_guard lock(d_->mutex);
  d_->tickTimer = timer;
}

void SimulatedWorld::tick() {
  std::vector<std::function<void()>> outbox;
  {
    std::lock_guard lock(d_->mutex);
    d_->tick(clock_->now());
    outbox.swap(d_->outbox);
  }
  post(std::move(outbox));
  scheduleTick();
}

void SimulatedWorld::play(const Scene& scene) {
  std::vector<std::function<void()>> outbox;
  {
    std::lock_guard lock(d_->mutex);
    Date now = clock_->now();
    d_->configure(scene.settings);
    d_->steps = scene.timeline;
    d_->nextStep = 0;
    d_->sceneStart = now;
    while (d_->nextStep < d_->steps.size() && d_->steps[d_->nextStep].at <= 0) {
      d_->apply(d_->steps[d_->nextStep++].action, now);
    }
    outbox.swap(d_->outbox);
  }
  post(std::move(outbox));
}

bool SimulatedWorld::sceneFinished() const {
  std::lock_guard lock(d_->mutex);
  return d_->nextStep == d_->steps.size();
}

void SimulatedWorld::apply(const SceneStep::Action& action) {
  std::vector<std::function<void()>> outbox;
  {
    std::lock_guard lock(d_->mutex);
    d_->apply(action, clock_->now());
    outbox.swap(d_->outbox);
  }
  post(std::move(outbox));
}

void SimulatedWorld::advance(double seconds) {
  auto manual = std::dynamic_pointer_cast<ManualClock>(clock_);
  if (!manual) throw std::logic_error("SimulatedWorld::advance needs a ManualClock");
  manual->advance(std::chrono::duration_cast<std::chrono::milliseconds>(Seconds(seconds)));
}

void SimulatedWorld::setMarkerHandler(std::function<void(const std::string&)> handler) {
  std::lock_guard lock(d_->mutex);
  d_->markerHandler = std::move(handler);
}

Coordinate SimulatedWorld::devicePosition() const {
  std::lock_guard lock(d_->mutex);
  return d_->device.coordinate;
}

void SimulatedWorld::setDelegate(std::weak_ptr<LocationServiceDelegate> delegate) {
  std::lock_guard lock(d_->mutex);
  d_->locationDelegate = std::move(delegate);
}

std::vector<Region> SimulatedWorld::monitoredRegions() const {
  std::lock_guard lock(d_->mutex);
  return d_->monitored;
}

void SimulatedWorld::startMonitoring(const Region& region) {
  std::lock_guard lock(d_->mutex);
  auto it = std::find_if(d_->monitored.begin(), d_->monitored.end(), [&](const Region& r) {
    return regionIdentifier(r) == regionIdentifier(region);
  });
  if (it != d_->monitored.end()) {
    *it = region;
  } else {
    d_->monitored.push_back(region);
  }
  d_->monitor(region);
  d_->saveRegions();
}

void SimulatedWorld::stopMonitoring(const Region& region) {
  std::lock_guard lock(d_->mutex);
  const std::string& identifier = regionIdentifier(region);
  if (std::erase_if(d_->monitored,
                    [&](const Region& r) { return regionIdentifier(r) == identifier; }) == 0) {
    return;
  }
  d_->unmonitor(identifier);
  d_->saveRegions();
}

void SimulatedWorld::startRanging(const BeaconRegion& region) {
  std::lock_guard lock(d_->mutex);
  std::erase_if(d_->ranged,
                [&](const BeaconRegion& r) { return r.identifier == region.identifier; });
  d_->ranged.push_back(region);
}

void SimulatedWorld::stopRanging(const BeaconRegion& region) {
  std::lock_guard lock(d_->mutex);
  std::erase_if(d_->ranged,
                [&](const BeaconRegion& r) { return r.identifier == region.identifier; });
}

std::vector<BeaconRegion> SimulatedWorld::rangedRegions() const {
  std::lock_guard lock(d_->mutex);
  return d_->ranged;
}

AuthorizationStatus SimulatedWorld::authorizationStatus() const {
  std::lock_guard lock(d_->mutex);
  return d_->authorization;
}

void SimulatedWorld::requestAlwaysAuthorization() {
  std::vector<std::function<void()>> outbox;
  {
    std::lock_guard lock(d_->mutex);
    if (d_->authorization == AuthorizationStatus::NotDetermined) d_->setAuthorization(d_->answer);
    outbox.swap(d_->outbox);
  }
  post(std::move(outbox));
}

BluetoothState SimulatedWorld::state() const {
  std::lock_guard lock(d_->mutex);
  return d_->bluetooth;
}

void SimulatedWorld::setDelegate(std::weak_ptr<BluetoothCentralDelegate> delegate) {
  std::lock_guard lock(d_->mutex);
  d_->bluetoothDelegate = std::move(delegate);
}

}  // namespace qvl
