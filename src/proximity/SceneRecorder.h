#pragma once
// Writes what a backend's ticks were fed as a scene that the simulated world replays with the
// same events: per tick, the beacons heard with their RSSI (null once no longer heard), the
// position fixes, the Bluetooth state and the authorization, each written when it changes.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "proximity/ProximityEngine.h"

namespace qvl::proximity {

class SceneRecorder {
 public:
  /// The scene starts in this state (its steps at 0).
  SceneRecorder(const SimulationSettings& rules, BluetoothState bluetooth,
                AuthorizationStatus authorization);

  /// The tick `at` seconds after the start: `heard` in the order the engine gets it.
  void tick(std::int64_t at, BluetoothState bluetooth, AuthorizationStatus authorization,
            const std::vector<Heard>& heard, const std::optional<Fix>& position);

  /// The scene so far, as JSON text.
  std::string text() const;

 private:
  struct Beacon {
    std::string id;
    std::int8_t measuredPower;
    std::optional<double> rssi;
  };
  void step(std::int64_t at, const char* key, nlohmann::json value);

  nlohmann::json scene_;
  BluetoothState bluetooth_;
  AuthorizationStatus authorization_;
  std::map<BeaconKey, Beacon> beacons_;
  std::optional<Fix> position_;
};

}  // namespace qvl::proximity
