#pragma once
// The part of a location service and Bluetooth central that every backend shares: the
// monitored and ranged regions (monitored ones kept in a file across runs), the location
// authorization and Bluetooth state, and the once-a-second tick that turns what the radio
// heard and where the device is into region events and ranging reports. A backend supplies
// the signals; the engine decides what is reported, so that the simulated world and the
// device backend report the same events for the same signals.
//
// Not thread-safe: a backend calls it under its own lock, then posts takeOutbox() to the
// main queue with deliver() once the lock is released.

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "proximity/ProximityCore.h"
#include "quorvel/platform/MainQueue.h"
#include "quorvel/proximity/BluetoothCentral.h"
#include "quorvel/proximity/LocationService.h"
#include "quorvel/proximity/Scene.h"

namespace qvl::proximity {

/// The most beacons a device backend keeps state for, and one ranging report carries (the
/// nearest): what the air sends is not bounded, what a backend holds must be.
inline constexpr std::size_t kMaxBeacons = 2048;

/// One beacon as the radio heard it during a tick.
struct Heard {
  BeaconFrame frame;
  double rssi = 0.0;
};

class Engine {
 public:
  /// `regionsPath`: the file that keeps the monitored regions (read now). `mainQueue`: where
  /// deliveries go; null: the main queue of the context in force.
  Engine(const SimulationSettings& settings, std::string regionsPath,
         std::shared_ptr<MainQueue> mainQueue = nullptr);

  void configure(const SimulationSettings& settings);
  const SimulationSettings& settings() const { return settings_; }
  const PathLossModel& pathLoss() const { return tracker_.settings().pathLoss; }

  void setDelegate(std::weak_ptr<LocationServiceDelegate> delegate);
  void setDelegate(std::weak_ptr<BluetoothCentralDelegate> delegate);

  const std::vector<Region>& monitoredRegions() const { return monitored_; }
  void startMonitoring(const Region& region);
  void stopMonitoring(const Region& region);
  const std::vector<BeaconRegion>& rangedRegions() const { return ranged_; }
  void startRanging(const BeaconRegion& region);
  void stopRanging(const BeaconRegion& region);

  AuthorizationStatus authorization() const { return authorization_; }
  /// Changes the status; the delegate hears of a change.
  void setAuthorization(AuthorizationStatus status);
  BluetoothState bluetooth() const { return bluetooth_; }
  /// Changes the state; the delegate hears of a change.
  void setBluetooth(BluetoothState state);

  /// One tick at `now`: the beacons heard since the last one (used only with Bluetooth on;
  /// weaker than the sensitivity: not heard) and the device's position, if known. Queues
  /// region events, then one ranging report per ranged region (at most kMaxBeacons).
  void tick(Date now, const std::vector<Heard>& heard, const std::optional<Fix>& position);

  /// Queues a delivery of the backend's own, in order with the events.
  void queue(std::function<void()> delivery) { outbox_.push_back(std::move(delivery)); }
  std::vector<std::function<void()>> takeOutbox() { return std::exchange(outbox_, {}); }
  /// Posts deliveries, in order, to the engine's main queue; they run in the context in force
  /// here (a backend's thread puts its own in force). Needs no lock: it reads only what
  /// construction set.
  void deliver(std::vector<std::function<void()>> outbox) const;

 private:
  void sendLocation(std::function<void(LocationServiceDelegate&)> call);
  const Region* findMonitored(const std::string& identifier) const;
  void monitor(const Region& region);
  void unmonitor(const std::string& identifier);
  void loadRegions();
  void saveRegions() const;

  SimulationSettings settings_;
  std::string regionsPath_;
  BeaconTracker tracker_;
  BeaconRegionMonitor beaconMonitor_;
  CircleMonitor circleMonitor_;
  std::vector<Region> monitored_;
  std::vector<BeaconRegion> ranged_;
  BluetoothState bluetooth_ = BluetoothState::PoweredOn;
  AuthorizationStatus authorization_ = AuthorizationStatus::NotDetermined;
  std::weak_ptr<LocationServiceDelegate> locationDelegate_;
  std::weak_ptr<BluetoothCentralDelegate> bluetoothDelegate_;
  std::vector<std::function<void()>> outbox_;

  const std::shared_ptr<MainQueue> mainQueue_;
};

}  // namespace qvl::proximity
