#include "proximity/SceneRecorder.h"

#include <set>

namespace qvl::proximity {

namespace {

const char* name(BluetoothState state) {
  static const char* const kNames[] = {"unknown",      "resetting",  "unsupported",
                                       "unauthorized", "poweredOff", "poweredOn"};
  return kNames[static_cast<int>(state)];
}

const char* name(AuthorizationStatus status) {
  static const char* const kNames[] = {"notDetermined", "restricted", "denied", "authorizedAlways",
                                       "authorizedWhenInUse"};
  return kNames[static_cast<int>(status)];
}

}  // namespace

SceneRecorder::SceneRecorder(const SimulationSettings& rules, BluetoothState bluetooth,
                             AuthorizationStatus authorization)
    : bluetooth_(bluetooth), authorization_(authorization) {
  scene_ = {{"name", "recorded"},
            {"description", "A device session, recorded once a second."},
            {"settings",
             {{"exitPeriod", rules.exitPeriod},
              {"entryRssi", rules.entryRssi},
              {"pathLossExponent", rules.pathLossExponent},
              {"sensitivity", rules.sensitivity},
              {"rssiTimeConstant", rules.rssiTimeConstant},
              {"dwell", rules.dwell},
              {"beaconsNeedAuthorization", rules.beaconsNeedAuthorization}}},
            {"timeline", nlohmann::json::array()}};
  step(0, "bluetooth", name(bluetooth));
  step(0, "authorization", name(authorization));
}

void SceneRecorder::step(std::int64_t at, const char* key, nlohmann::json value) {
  scene_["timeline"].push_back({{"at", at}, {key, std::move(value)}});
}

void SceneRecorder::tick(std::int64_t at, BluetoothState bluetooth,
                         AuthorizationStatus authorization, const std::vector<Heard>& heard,
                         const std::optional<Fix>& position) {
  if (bluetooth != bluetooth_) step(at, "bluetooth", name(bluetooth_ = bluetooth));
  if (authorization != authorization_) {
    step(at, "authorization", name(authorization_ = authorization));
  }
  if (position && (!position_ || position->coordinate != position_->coordinate ||
                   position->accuracy != position_->accuracy)) {
    position_ = position;
    step(at, "device",
         {{"latitude", position->coordinate.latitude},
          {"longitude", position->coordinate.longitude},
          {"accuracy", position->accuracy}});
  }
  std::set<BeaconKey> now;
  for (const Heard& signal : heard) {
    now.insert(signal.frame.key);
    auto [it, added] = beacons_.try_emplace(signal.frame.key);
    Beacon& beacon = it->second;
    nlohmann::json change = {{"rssi", signal.rssi}};
    if (added) {
      beacon.id = "b" + std::to_string(beacons_.size());
      change["uuid"] = signal.frame.key.uuid.toString();
      change["major"] = signal.frame.key.major;
      change["minor"] = signal.frame.key.minor;
    }
    if (added || beacon.measuredPower != signal.frame.measuredPower) {
      change["measuredPower"] = beacon.measuredPower = signal.frame.measuredPower;
    } else if (beacon.rssi == signal.rssi) {
      continue;
    }
    beacon.rssi = signal.rssi;
    change["id"] = beacon.id;
    step(at, "beacon", std::move(change));
  }
  for (auto& [key, beacon] : beacons_) {
    if (!beacon.rssi || now.contains(key)) continue;
    beacon.rssi.reset();
    step(at, "beacon", {{"id", beacon.id}, {"rssi", nullptr}});
  }
}

std::string SceneRecorder::text() const { return scene_.dump(2) + "\n"; }

}  // namespace qvl::proximity
