#pragma once
/// @file
/// The Linux device backend: beacons through BlueZ, the position through GeoClue2.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "quorvel/Export.h"
#include "quorvel/proximity/BluetoothCentral.h"
#include "quorvel/proximity/LocationService.h"
#include "quorvel/proximity/Scene.h"

namespace qvl {

/// Where the device backend finds its services and how it decides.
struct QVL_EXPORT DeviceProximitySettings {
  /// D-Bus address of the bus BlueZ and GeoClue are on. Empty: the system bus.
  std::string busAddress;
  /// The Bluetooth adapter to use ("hci1"). Empty: the first one BlueZ lists.
  std::string adapter;
  /// The desktop id GeoClue checks its permissions against. Empty: "quorvel".
  std::string desktopId;
  /// The accuracy GeoClue is asked for: 1 country, 4 city, 5 neighbourhood, 6 street,
  /// 8 exact.
  std::uint32_t accuracyLevel = 8;
  /// The monitored regions' file lives here. Empty: the environment's store directory.
  std::string storeDirectory;
  /// How signals become events; the same rules as the simulated world. Beacons are heard
  /// without location authorization: the radio needs none on Linux.
  SimulationSettings rules = [] {
    SimulationSettings rules;
    rules.beaconsNeedAuthorization = false;
    return rules;
  }();
  /// Records the session from creation on; recordedScene() returns it.
  bool record = false;
};

/// What the device backend refused or forgot to keep its bounds.
struct QVL_EXPORT DeviceProximityStats {
  /// D-Bus signals and answers dropped because their sender was neither the bus itself nor
  /// the current owner of org.bluez or org.freedesktop.GeoClue2 (as the message claimed).
  std::uint64_t messagesDropped = 0;
  /// Beacons and beacon devices forgotten, least recently heard first, to stay within the
  /// cap (2048 of each).
  std::uint64_t evicted = 0;
  /// Beacons (UUID, major, minor) whose sightings are kept now.
  std::size_t beaconsKept = 0;
  /// BlueZ device objects whose iBeacon frame is kept now.
  std::size_t devicesKept = 0;
};

/// A location service and Bluetooth central over the machine's own radio and position.
///
/// - Bluetooth: BlueZ's first adapter (or the named one). Its state: no BlueZ or no adapter
///   Unsupported, access refused Unauthorized, Powered false PoweredOff, true PoweredOn.
///   While powered it runs LE discovery with an explicit filter (Transport "le",
///   DuplicateData true, so every advertisement is reported) and starts it again, with a
///   log line, when the adapter stops discovering without being asked to.
/// - Beacons: iBeacon frames in the manufacturer data of company 0x004C, every RSSI
///   report of a device counting as one sighting of the frame it last advertised. BlueZ's
///   device objects say nothing about presence (they outlive the beacon), so the backend
///   keeps its own last-seen time per beacon.
/// - Bounds: what the air sends is not bounded, so the backend keeps at most 2048 beacons
///   and 2048 beacon devices (a new one past that evicts the least recently heard; a beacon
///   not heard for 60 s is forgotten), each advertisement costs O(1), and one ranging report
///   carries at most 2048 beacons, the nearest: a few MiB in all, however many beacons.
/// - Peers: signals and answers count only from the current unique-name owner of org.bluez
///   or org.freedesktop.GeoClue2 (followed through NameOwnerChanged, so a restarted
///   bluetoothd is heard again); anything else on the bus is dropped and counted.
/// - Once a second, on the environment's clock (the one in force at creation), the signals
///   heard since the last tick (mean RSSI per beacon) and the latest position fix go
///   through the same rules as the simulated world: filtered RSSI, distance and proximity
///   from the frame's measured power, ranging reports nearest first, a beacon region
///   entered on a sighting strong enough and left after the exit period without one, a
///   circle entered and left with an accuracy-scaled margin and a dwell time.
/// - Position: GeoClue2, started by requestAlwaysAuthorization(). The status is
///   NotDetermined until then, AuthorizedAlways once the client started, Denied when
///   GeoClue refused it, Restricted when there is no GeoClue.
/// - Threads: one D-Bus connection on a thread of its own, which owns every D-Bus object;
///   events reach the delegates on the main queue of the context in force at creation
///   (MainQueue::async), in that context, Bluetooth and authorization changes and region events
///   first, then the ranging reports of the tick. The interface operations may be called
///   from any thread (meant for the main queue); they never wait for D-Bus.
/// - Monitored regions persist as the simulated world's do ("monitored-regions.json").
class QVL_EXPORT DeviceProximity final : public LocationService, public BluetoothCentral {
 public:
  /// Starts the D-Bus thread and the ticks. Failures (no bus, no BlueZ) show in state()
  /// and the log, never as exceptions.
  static std::shared_ptr<DeviceProximity> create(DeviceProximitySettings settings = {});
  /// Stops the ticks and the D-Bus thread (waits for it).
  ~DeviceProximity() override;
  DeviceProximity(const DeviceProximity&) = delete;
  DeviceProximity& operator=(const DeviceProximity&) = delete;

  /// The session so far as a scene (JSON text Scene::parse reads): per tick, the beacons
  /// heard with their RSSI ("rssi" null when no longer heard), the position fixes, the
  /// Bluetooth state and the authorization. Played by a SimulatedWorld created at the same
  /// tick phase, it gives the same events. Empty unless DeviceProximitySettings::record.
  std::string recordedScene() const;

  /// Signals handled so far (advertisements, adapter and position changes, method
  /// answers). A caller that caused a change waits for this to grow before relying on it.
  std::uint64_t signalsHandled() const;

  /// Dropped messages and evictions so far, and what is kept now. Any thread.
  DeviceProximityStats stats() const;

  /// The LocationService and BluetoothCentral operations; see there.
  ///@{
  void setDelegate(std::weak_ptr<LocationServiceDelegate> delegate) override;
  std::vector<Region> monitoredRegions() const override;
  void startMonitoring(const Region& region) override;
  void stopMonitoring(const Region& region) override;
  void startRanging(const BeaconRegion& region) override;
  void stopRanging(const BeaconRegion& region) override;
  std::vector<BeaconRegion> rangedRegions() const override;
  AuthorizationStatus authorizationStatus() const override;
  void requestAlwaysAuthorization() override;
  BluetoothState state() const override;
  void setDelegate(std::weak_ptr<BluetoothCentralDelegate> delegate) override;
  /// Ignored: there is no power alert to show.
  void setOptions(const BluetoothCentralOptions&) override {}
  ///@}

 private:
  struct Private;
  explicit DeviceProximity(DeviceProximitySettings settings);
  void scheduleTick();

  std::shared_ptr<Private> d_;
};

/// True when `name` has an owner on the system bus (false when there is no system bus).
/// Waits at most about a second.
QVL_EXPORT bool systemBusHasName(const std::string& name);

}  // namespace qvl
