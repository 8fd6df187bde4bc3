#pragma once
/// @file
/// The proximity engine: watches beacons, raw beacon regions and geofences through the
/// location service, maps sightings back to records and tells its delegates.

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "quorvel/Export.h"
#include "quorvel/managers/QVLWeakPointerArray.h"
#include "quorvel/platform/Region.h"
#include "quorvel/platform/Uuid.h"
#include "quorvel/proximity/BluetoothCentral.h"
#include "quorvel/proximity/LocationService.h"
#include "quorvel/records/QVLBeacon.h"
#include "quorvel/records/QVLGeofence.h"

class QVLAnalyticsManager;

/// What the beacon manager tells its delegates. Every operation is optional: the defaults
/// do nothing. Calls arrive on the main queue, synchronously, in the order documented on
/// QVLBeaconManager. Records passed in belong to the main queue's store handle.
class QVL_EXPORT QVLBeaconManagerDelegate {
 public:
  virtual ~QVLBeaconManagerDelegate() = default;

  /// Every ranging report, first: the beacons as the location service reported them.
  virtual void beaconManagerDidRangeCLBeacons(const std::vector<qvl::RangedBeacon>&) {}
  /// The watched, sighted beacons that are active, in report order.
  virtual void beaconManagerDidRangeActiveBeacons(const std::vector<std::shared_ptr<QVLBeacon>>&) {}
  /// The watched, sighted beacons, in report order; last of a report.
  virtual void beaconManagerDidRangeBeacons(const std::vector<std::shared_ptr<QVLBeacon>>&) {}
  /// Entry into a watched beacon's own region, after its beacon view was opened.
  virtual void beaconManagerDidEnterRegionWithBeacon(const std::shared_ptr<QVLBeacon>&) {}
  /// Entry into a watched raw beacon region.
  virtual void beaconManagerDidEnterRegion(const qvl::BeaconRegion&) {}
  /// Entry into a watched geofence; null when its record is no longer in the store.
  virtual void beaconManagerDidEnterRegionWithGeofence(const std::shared_ptr<QVLGeofence>&) {}
  /// Exit from a watched beacon's own region, after its beacon view was finished.
  virtual void beaconManagerDidExitRegionWithBeacon(const std::shared_ptr<QVLBeacon>&) {}
  /// Exit from a watched raw beacon region.
  virtual void beaconManagerDidExitRegion(const qvl::BeaconRegion&) {}
  /// Exit from a watched geofence; null when its record is no longer in the store.
  virtual void beaconManagerDidExitRegionWithGeofence(const std::shared_ptr<QVLGeofence>&) {}
  /// The location service's authorization changed.
  virtual void beaconManagerDidChangeAuthorizationStatus(qvl::AuthorizationStatus) {}
  /// The Bluetooth central's state changed.
  virtual void beaconManagerDidChangeBluetoothState(qvl::BluetoothState) {}
  /// The closest beacon changed (null: none any more).
  virtual void beaconManagerClosestBeaconChangedTo(const std::shared_ptr<QVLBeacon>&) {}
};

/// The identity of one watched beacon, taken when its watch starts (later changes of the
/// record are not seen). A plain value.
struct QVL_EXPORT QVLBeaconInternal {
  std::optional<std::int64_t> beaconId;  ///< The record's key; watches are keyed by it.
  std::optional<qvl::Uuid> uuid;         ///< The advertised UUID; nullopt when unparsable.
  std::optional<std::int64_t> major;     ///< The advertised major number.
  std::optional<std::int64_t> minor;     ///< The advertised minor number.

  /// A new identity holding the given values.
  static std::shared_ptr<QVLBeaconInternal> newWithBeaconId(std::optional<std::int64_t> beaconId,
                                                            std::optional<qvl::Uuid> uuid,
                                                            std::optional<std::int64_t> major,
                                                            std::optional<std::int64_t> minor);
};

/// The process's beacon manager.
///
/// Threads: every operation, every delegate call and both notifications run on the main
/// queue (Env::mainQueue); the location service and the Bluetooth central deliver their
/// events there. Nothing here is locked. Main queue only: a call from another thread
/// asserts in debug builds and is logged as an error in release (once per operation per
/// process), where the call is refused: it changes nothing and a lookup answers null or
/// false. A queue that has no thread yet takes the calling thread as its own, so a host may
/// start its searches from its main thread before it first runs the queue. Exceptions:
/// sharedManager(), bluetoothState(), locationAuthorizationStatus(),
/// requestPermissionsForNotifications() and analyticsManager() may be called from any
/// thread; the inline accessors (rangedUUID(), closestBeacon(), searching...()) are main
/// queue only and unchecked.
///
/// Services: the manager talks to the location service and the Bluetooth central of its
/// context (Env::locationService, Env::bluetoothCentral). It binds to them when it is made:
/// it becomes the service's delegate (and the central's, with
/// BluetoothCentralOptions::showPowerAlert false) and stops monitoring every region the
/// service still monitors (what an earlier run, or anyone else, registered: a run always
/// starts from an empty watch list and the host starts its searches again).
///
/// Ranging: one region "Beacons", with notifyEntryStateOnDisplay set, ranges one proximity
/// UUID, the UUID of the first beacon or raw region watched while none was ranged; a later
/// target with another UUID is monitored but not ranged. stopSearchingForBeacon() stops ranging
/// only when no beacon and no raw region is left; stopSearchingForBeaconRegion() stops it when no
/// beacon record is left, even while other raw regions are watched; stopSearchingForBeacons()
/// always stops it.
///
/// Per ranging report the delegates hear, in order: beaconManagerDidRangeCLBeacons (always),
/// beaconManagerClosestBeaconChangedTo (when the closest beacon changed), then, when the
/// report had beacons and beacon records are watched, beaconManagerDidRangeActiveBeacons
/// and beaconManagerDidRangeBeacons. Beacons of unknown proximity or accuracy -1 are not
/// mapped. The closest beacon is the first active watched beacon of the report (the
/// service lists the nearest first); the same beacon again is not announced again.
///
/// Notifications (Env::notificationCenter): "QVLBeaconManagerDidChangeLocationAuthorizationStatus"
/// with the new status as a std::int32_t object; "QVLBeaconManagerDidChangeBluetoothState"
/// with this manager (QVLBeaconManager*) as object, after every open beacon view was
/// finished when the state is "powered off".
class QVL_EXPORT QVLBeaconManager : public qvl::LocationServiceDelegate,
                                    public qvl::BluetoothCentralDelegate,
                                    public std::enable_shared_from_this<QVLBeaconManager> {
 public:
  ///@{
  /// The names of the notifications described above.
  static constexpr const char* kDidChangeLocationAuthorizationStatusNotification =
      "QVLBeaconManagerDidChangeLocationAuthorizationStatus";
  static constexpr const char* kDidChangeBluetoothStateNotification =
      "QVLBeaconManagerDidChangeBluetoothState";
  ///@}
  /// The identifier of the ranging region.
  static constexpr const char* kRangingRegionIdentifier = "Beacons";

  /// The manager of the context in force on the calling thread (the standard context's
  /// outside any), made on first call (thread-safe, any thread) and destroyed with its
  /// context. It takes the context's location service and Bluetooth central as it is made
  /// (stopping regions an earlier run left monitored), and their callbacks run in its
  /// context.
  static QVLBeaconManager& sharedManager();

  /// Delegates are held weakly, once each, in registration order; a released delegate is
  /// skipped and its slot dropped at the next add or remove.
  ///@{
  void addDelegate(const std::shared_ptr<QVLBeaconManagerDelegate>& delegate);
  void removeDelegate(const QVLBeaconManagerDelegate* delegate);
  ///@}

  /// startSearchingForBeacon() for each record, in order.
  template <class Range>
  void startSearchingForBeacons(const Range& beacons) {
    for (const auto& beacon : beacons) startSearchingForBeacon(beacon);
  }
  /// Stops every watched beacon (records gone from the store are passed on as null) and
  /// ranging; raw regions and geofences stay watched.
  void stopSearchingForBeacons();
  /// Monitors the beacon's own region and keeps its identity (by beaconId: a second start
  /// does nothing). Ranges its UUID when nothing is ranged yet.
  void startSearchingForBeacon(const std::shared_ptr<QVLBeacon>& beacon);
  /// Stops monitoring it and finishes its beacon view.
  void stopSearchingForBeacon(const std::shared_ptr<QVLBeacon>& beacon);
  /// Monitors a raw beacon region (an equal region already watched: nothing happens) and
  /// ranges its UUID when nothing is ranged yet.
  void startSearchingForBeaconRegion(const qvl::BeaconRegion& region);
  /// Stops monitoring an equal watched region (else nothing happens); ranging as described
  /// above.
  void stopSearchingForBeaconRegion(const qvl::BeaconRegion& region);
  ///@{
  /// Monitors, or stops monitoring, the geofence's circular region (compared by value: a
  /// second start does nothing); a null geofence is ignored. Geofences never touch ranging.
  void startSearchingForGeofence(const std::shared_ptr<QVLGeofence>& geofence);
  void stopSearchingForGeofence(const std::shared_ptr<QVLGeofence>& geofence);
  ///@}

  /// Clears the closest beacon, stops ranging the old UUID and ranges `uuid` (none: stops).
  /// Setting the UUID already ranged restarts ranging all the same.
  void setRangedUUID(std::optional<qvl::Uuid> uuid);
  /// The UUID being ranged, or nullopt.
  const std::optional<qvl::Uuid>& rangedUUID() const;

  /// @name Watch membership
  ///@{

  /// Whether the beacon (by beaconId) or an equal region is being watched.
  bool isBeaconMonitoring(const QVLBeacon& beacon) const;
  bool isCLBeaconRegionMonitoring(const qvl::BeaconRegion& region) const;
  bool isCLCircularRegionMonitoring(const qvl::CircularRegion& region) const;
  ///@}

  /// @name Lookups
  /// Each answers null when nothing matches. Only watched beacons are found; two watched
  /// records with one UUID, major and minor resolve to the one started first.
  ///@{

  /// The identity watched under the beacon id.
  std::shared_ptr<QVLBeaconInternal> internalBeaconFromBeaconId(
      std::optional<std::int64_t> beaconId) const;
  /// A missing major or minor never matches.
  std::shared_ptr<QVLBeaconInternal> internalBeaconFromUUID(
      const qvl::Uuid& uuid, std::optional<std::int64_t> major,
      std::optional<std::int64_t> minor) const;
  /// The watched record, read from the store by its beaconId.
  std::shared_ptr<QVLBeacon> beaconFromUUID(const qvl::Uuid& uuid,
                                            std::optional<std::int64_t> major,
                                            std::optional<std::int64_t> minor) const;
  /// beaconFromUUID() with a ranged beacon's UUID, major and minor.
  std::shared_ptr<QVLBeacon> beaconFromCLBeacon(const qvl::RangedBeacon& beacon) const;
  /// Null for a circular region and for a beacon region without both major and minor.
  std::shared_ptr<QVLBeacon> beaconFromRegion(const qvl::Region& region) const;
  /// The geofence whose key is the identifier's leading integer ("12abc" is 12, letters
  /// only are 0), read from the store.
  std::shared_ptr<QVLGeofence> geofenceFromCLCircularRegion(
      const qvl::CircularRegion& region) const;
  ///@}

  /// The current closest active beacon, or null.
  const std::shared_ptr<QVLBeacon>& closestBeacon() const;
  /// The watched beacons' identities, in start order.
  const std::vector<std::shared_ptr<QVLBeaconInternal>>& searchingBeacons() const;
  /// The watched raw beacon regions, in start order.
  const std::vector<qvl::BeaconRegion>& searchingBeaconRegions() const;
  /// The watched geofences' regions, in start order.
  const std::vector<qvl::CircularRegion>& searchingGeofences() const;

  /// The Bluetooth central's state now. Thread-safe.
  qvl::BluetoothState bluetoothState() const;
  /// The location service's authorization now. Thread-safe.
  qvl::AuthorizationStatus locationAuthorizationStatus() const;
  /// Asks the location service for "always" authorization; the library never asks by
  /// itself.
  void requestLocationAlwaysAuthorization();
  /// Registers badge, sound and alert (types 7, no categories) with the application's
  /// registerUserNotificationSettings() where the host offers it; otherwise nothing. The
  /// library never calls it by itself. Any thread.
  void requestPermissionsForNotifications();

  /// QVLAnalyticsManager::sharedManager().
  QVLAnalyticsManager& analyticsManager() const;

  // qvl::LocationServiceDelegate and qvl::BluetoothCentralDelegate (main queue).
  void didRangeBeacons(const std::vector<qvl::RangedBeacon>& beacons,
                       const qvl::BeaconRegion& region) override;
  void didEnterRegion(const qvl::Region& region) override;
  void didExitRegion(const qvl::Region& region) override;
  void didChangeAuthorization(qvl::AuthorizationStatus status) override;
  void bluetoothCentralDidUpdateState(qvl::BluetoothState state) override;

  ~QVLBeaconManager() override;

 private:
  QVLBeaconManager();

  void bindToServices();
  std::shared_ptr<qvl::LocationService> locationService() const;
  void setClosestBeacon(const std::shared_ptr<QVLBeacon>& beacon);
  void regionEvent(const qvl::Region& region, bool entered);
  void addSnapshot(std::shared_ptr<QVLBeaconInternal> snapshot);
  void removeSnapshot(const std::shared_ptr<QVLBeaconInternal>& snapshot);
  template <class Call>
  void fanOut(const Call& call);

  struct Impl;
  const std::unique_ptr<Impl> impl_;
};
