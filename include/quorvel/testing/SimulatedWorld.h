#pragma once
/// @file
/// A deterministic stand-in for a phone's location service and Bluetooth radio.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "quorvel/Export.h"
#include "quorvel/platform/Clock.h"
#include "quorvel/platform/Env.h"
#include "quorvel/proximity/BluetoothCentral.h"
#include "quorvel/proximity/LocationService.h"
#include "quorvel/proximity/Scene.h"

namespace qvl {

/// A simulated world around the device: beacons (UUID, major, minor, measured power, and a
/// position or an RSSI of their own), the device's position, the location authorization
/// the user gives, and the Bluetooth radio's state. It reports what a phone's location
/// service and Bluetooth central would, through the same core a device backend uses:
///
/// - Time is the clock of the environment it is created for (kept for its life). Once a second
/// (first tick one second after creation) the world applies the
///   scene steps that fell due, moves a walking device, hears every beacon whose signal
///   reaches the sensitivity (Bluetooth powered on only), and reports:
///   - region entries and exits (authorization "always" only): a beacon region is entered
///     on a sighting strong enough (SimulationSettings::entryRssi) and left after the
///     exit period without any sighting; a circle is entered and left from the device's
///     position with a margin scaled by the fix accuracy and a dwell time. A region whose
///     state was not yet known and turns out to be outside reports nothing.
///   - then, for every ranged region (authorization "always" or "when in use"), one ranging
///     report: the region's beacons nearest first, a beacon lost in the last few seconds
///     last with accuracy -1, proximity unknown and RSSI 0. With Bluetooth off the reports
///     go on, empty once the lost beacons are dropped.
/// - Authorization is not determined until requestAlwaysAuthorization(); it then becomes
///   the answer the scene gives (authorized always unless a scene says otherwise). A scene
///   step changing the answer after the request changes the status, as a user does in the
///   system settings.
/// - Every event reaches its delegate on the main queue of the environment it was created
///   for (MainQueue::async), in the order it happened, in the context it was created in
///   (created outside any: the one in force where the event happens). The delegate is read
///   when the event happens; a released delegate is skipped.
/// - Monitored regions persist in "monitored-regions.json" in the store directory, so a new
///   world over the same directory monitors what an earlier one registered (their state
///   starts unknown). A file that cannot be read or written is logged and otherwise ignored.
///
/// Thread-safe: the interface operations (meant for the main queue), the ticks (on the
/// clock's thread: inside ManualClock::advance, or SystemClock's timer thread) and the
/// driving operations below may run on any threads. Delegates are never called with the
/// world's lock held, so they may call back into it.
class QVL_EXPORT SimulatedWorld final : public LocationService, public BluetoothCentral {
 public:
  /// An empty world: no beacons, the device at (0, 0) with fixes accurate to 5 m, Bluetooth
  /// powered on, authorization not determined. `storeDirectory` empty: the environment's
  /// (Env::storeDirectory, or its default).
  static std::shared_ptr<SimulatedWorld> create(SimulationSettings settings = {},
                                                std::string storeDirectory = {});
  /// The same world for the environment `env` (its clock, main queue and store directory;
  /// empty members: the standard ones), so that it can go into env's locationService and
  /// bluetoothCentral before a context is made of it.
  static std::shared_ptr<SimulatedWorld> create(const Env& env, SimulationSettings settings = {});
  ~SimulatedWorld() override;
  SimulatedWorld(const SimulatedWorld&) = delete;
  SimulatedWorld& operator=(const SimulatedWorld&) = delete;

  /// Starts replaying `scene` from now: its settings replace the world's, steps at 0
  /// apply at once, later ones at the ticks. A scene already playing is dropped.
  void play(const Scene& scene);
  /// True once every step of the scene played has been applied (also with no scene).
  bool sceneFinished() const;
  /// Applies one action now, as a scene step would.
  void apply(const SceneStep::Action& action);

  /// Moves the world's clock forward, running the ticks that fall due. The clock must be a
  /// ManualClock (tests, simulations faster than real time); otherwise throws
  /// std::logic_error. Events then wait on the main queue: run it to deliver them.
  void advance(double seconds);

  /// Called with the text of each scene marker, on the main queue. Empty: markers ignored.
  void setMarkerHandler(std::function<void(const std::string&)> handler);

  /// The device's current position.
  Coordinate devicePosition() const;

  // LocationService
  void setDelegate(std::weak_ptr<LocationServiceDelegate> delegate) override;
  std::vector<Region> monitoredRegions() const override;
  void startMonitoring(const Region& region) override;
  void stopMonitoring(const Region& region) override;
  void startRanging(const BeaconRegion& region) override;
  void stopRanging(const BeaconRegion& region) override;
  std::vector<BeaconRegion> rangedRegions() const override;
  AuthorizationStatus authorizationStatus() const override;
  void requestAlwaysAuthorization() override;

  // BluetoothCentral
  BluetoothState state() const override;
  void setDelegate(std::weak_ptr<BluetoothCentralDelegate> delegate) override;
  /// Ignored: there is no power alert to show.
  void setOptions(const BluetoothCentralOptions&) override {}

 private:
  struct Private;
  SimulatedWorld(SimulationSettings settings, const Env& env);
  void scheduleTick();
  void tick();
  template <typename Change>
  auto locked(Change&& change) const;

  std::unique_ptr<Private> d_;
};

}  // namespace qvl
