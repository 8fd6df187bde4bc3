#include "proximity/ProximityEngine.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "platform/CountersImpl.h"
#include "platform/PrivateFiles.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/Log.h"
#include "quorvel/platform/MainQueue.h"

namespace qvl::proximity {

namespace {

using nlohmann::json;

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

Engine::Engine(const SimulationSettings& settings, std::string regionsPath,
               std::shared_ptr<MainQueue> mainQueue)
    : regionsPath_(std::move(regionsPath)),
      mainQueue_(mainQueue ? std::move(mainQueue) : Env::current()->mainQueue) {
  configure(settings);
  loadRegions();
}

void Engine::configure(const SimulationSettings& s) {
  settings_ = s;
  TrackerSettings trackerSettings;
  trackerSettings.filterTimeConstant = Seconds(s.rssiTimeConstant);
  trackerSettings.pathLoss.exponent = s.pathLossExponent;
  tracker_.setSettings(trackerSettings);
  beaconMonitor_.setSettings({Seconds(s.exitPeriod), s.entryRssi});
  CircleMonitorSettings circleSettings;
  circleSettings.dwell = Seconds(s.dwell);
  circleMonitor_.setSettings(circleSettings);
}

void Engine::setDelegate(std::weak_ptr<LocationServiceDelegate> delegate) {
  locationDelegate_ = std::move(delegate);
}

void Engine::setDelegate(std::weak_ptr<BluetoothCentralDelegate> delegate) {
  bluetoothDelegate_ = std::move(delegate);
}

void Engine::sendLocation(std::function<void(LocationServiceDelegate&)> call) {
  outbox_.push_back([delegate = locationDelegate_, call = std::move(call)] {
    if (auto target = delegate.lock()) call(*target);
  });
}

void Engine::setAuthorization(AuthorizationStatus status) {
  if (status == authorization_) return;
  authorization_ = status;
  sendLocation([status](LocationServiceDelegate& d) { d.didChangeAuthorization(status); });
}

void Engine::setBluetooth(BluetoothState state) {
  if (state == bluetooth_) return;
  bluetooth_ = state;
  outbox_.push_back([delegate = bluetoothDelegate_, state] {
    if (auto target = delegate.lock()) target->bluetoothCentralDidUpdateState(state);
  });
}

void Engine::startMonitoring(const Region& region) {
  auto it = std::find_if(monitored_.begin(), monitored_.end(), [&](const Region& r) {
    return regionIdentifier(r) == regionIdentifier(region);
  });
  if (it != monitored_.end()) {
    *it = region;
  } else {
    monitored_.push_back(region);
  }
  monitor(region);
  saveRegions();
}

void Engine::stopMonitoring(const Region& region) {
  const std::string& identifier = regionIdentifier(region);
  if (std::erase_if(monitored_,
                    [&](const Region& r) { return regionIdentifier(r) == identifier; }) == 0) {
    return;
  }
  unmonitor(identifier);
  saveRegions();
}

void Engine::startRanging(const BeaconRegion& region) {
  stopRanging(region);
  ranged_.push_back(region);
}

void Engine::stopRanging(const BeaconRegion& region) {
  std::erase_if(ranged_, [&](const BeaconRegion& r) { return r.identifier == region.identifier; });
}

const Region* Engine::findMonitored(const std::string& identifier) const {
  auto it = std::find_if(monitored_.begin(), monitored_.end(), [&](const Region& region) {
    return regionIdentifier(region) == identifier;
  });
  return it == monitored_.end() ? nullptr : &*it;
}

void Engine::tick(Date now, const std::vector<Heard>& heard, const std::optional<Fix>& position) {
  bool monitoring = authorization_ == AuthorizationStatus::AuthorizedAlways;
  bool ranging = !settings_.beaconsNeedAuthorization || monitoring ||
                 authorization_ == AuthorizationStatus::AuthorizedWhenInUse;
  bool monitoringBeacons = monitoring || !settings_.beaconsNeedAuthorization;
  std::vector<RegionEvent> events;
  if (bluetooth_ == BluetoothState::PoweredOn && ranging) {
    for (const Heard& beacon : heard) {
      if (beacon.rssi < settings_.sensitivity) continue;
      double filtered = tracker_.observe(now, beacon.frame, beacon.rssi);
      if (monitoringBeacons) beaconMonitor_.sighting(now, beacon.frame.key, filtered, events);
    }
  }
  if (monitoringBeacons) beaconMonitor_.tick(now, events);
  if (monitoring && position) circleMonitor_.update(now, *position, events);
  for (const RegionEvent& event : events) {
    const Region* region = findMonitored(event.identifier);
    if (!region) continue;
    bool entry = event.kind == RegionEvent::Kind::Entry;
    sendLocation([entry, region = *region](LocationServiceDelegate& d) {
      count(entry ? Counter::regionEntries : Counter::regionExits);
      entry ? d.didEnterRegion(region) : d.didExitRegion(region);
    });
  }
  if (ranging) {
    for (const BeaconRegion& region : ranged_) {
      std::vector<RangedBeacon> report = tracker_.rangingReport(now, region);
      if (report.size() > kMaxBeacons) report.resize(kMaxBeacons);
      sendLocation([report = std::move(report), region](LocationServiceDelegate& d) {
        d.didRangeBeacons(report, region);
      });
    }
  }
  tracker_.prune(now);
}

void Engine::deliver(std::vector<std::function<void()>> outbox) const {
  if (outbox.empty()) return;
  for (auto& delivery : outbox) mainQueue_->async(std::move(delivery));
}

void Engine::loadRegions() {
  detail::removeStaleTemporaryFiles(regionsPath_);
  std::ifstream file(regionsPath_);
  if (!file) return;
  try {
    json saved = json::parse(file);
    for (const json& value : saved.at("regions")) {
      Region region = regionFromJson(value);
      monitor(region);
      monitored_.push_back(std::move(region));
    }
  } catch (const std::exception& error) {
    log(LogLevel::error, "monitored regions in " + regionsPath_ + " not read: " + error.what());
  }
}

void Engine::saveRegions() const {
  json regions = json::array();
  for (const Region& region : monitored_) regions.push_back(regionToJson(region));
  const std::filesystem::path path(regionsPath_);
  detail::Status saved =
      detail::makePrivateDirectories(path.has_parent_path() ? path.parent_path() : ".");
  if (saved) saved = detail::writeFileAtomically(path, json{{"regions", regions}}.dump(2) + '\n');
  if (!saved)
    log(LogLevel::error, "monitored regions not saved to " + regionsPath_ + ": " + saved.error);
}

void Engine::monitor(const Region& region) {
  unmonitor(regionIdentifier(region));
  if (const auto* beacon = std::get_if<BeaconRegion>(&region)) {
    beaconMonitor_.add(*beacon);
  } else {
    circleMonitor_.add(std::get<CircularRegion>(region));
  }
}

void Engine::unmonitor(const std::string& identifier) {
  beaconMonitor_.remove(identifier);
  circleMonitor_.remove(identifier);
}

}  // namespace qvl::proximity
