#pragma once
/// @file
/// The device's location service: region monitoring and beacon ranging.

#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "quorvel/Export.h"
#include "quorvel/platform/Region.h"
#include "quorvel/platform/Uuid.h"

namespace qvl {

/// A monitored region: a beacon region or a circle on the ground. Two regions are equal when
/// they are of the same kind with the same identifier and the same geometry.
using Region = std::variant<BeaconRegion, CircularRegion>;

/// The identifier of either kind of region.
inline const std::string& regionIdentifier(const Region& region) {
  return std::visit([](const auto& r) -> const std::string& { return r.identifier; }, region);
}

/// Location authorization, in the platform's numbering.
enum class AuthorizationStatus : std::int32_t {
  NotDetermined = 0,        ///< The user has not been asked yet.
  Restricted = 1,           ///< Location use is blocked by policy; the user cannot allow it.
  Denied = 2,               ///< The user refused.
  AuthorizedAlways = 3,     ///< Allowed, also in the background (monitoring works).
  AuthorizedWhenInUse = 4,  ///< Allowed only while the host is in front.
};

/// Proximity classes, in the platform's numbering.
enum class Proximity : std::int64_t {
  Unknown = 0,    ///< No distance estimate (accuracy -1).
  Immediate = 1,  ///< Estimated under half a metre away.
  Near = 2,       ///< Estimated half a metre to 3 m away.
  Far = 3         ///< Estimated over 3 m away.
};

/// One beacon of a ranging report.
struct QVL_EXPORT RangedBeacon {
  Uuid proximityUUID;                        ///< The beacon's advertised UUID.
  std::uint16_t major = 0;                   ///< The beacon's advertised major number.
  std::uint16_t minor = 0;                   ///< The beacon's advertised minor number.
  Proximity proximity = Proximity::Unknown;  ///< Rough distance class.
  double accuracy = -1.0;                    ///< metres; -1 when unknown
  std::int64_t rssi = 0;                     ///< dBm; 0 when unknown

  /// Member-wise equality.
  bool operator==(const RangedBeacon&) const = default;
};

/// Receives the location service's events, always on the main queue.
class QVL_EXPORT LocationServiceDelegate {
 public:
  virtual ~LocationServiceDelegate() = default;
  /// One ranging report for a ranged region: the beacons seen, nearest first.
  virtual void didRangeBeacons(const std::vector<RangedBeacon>& beacons,
                               const BeaconRegion& region) = 0;
  /// The device moved into a monitored region (the region as it was registered).
  virtual void didEnterRegion(const Region& region) = 0;
  /// The device left a monitored region.
  virtual void didExitRegion(const Region& region) = 0;
  /// The authorization status changed, e.g. after requestAlwaysAuthorization() was answered.
  virtual void didChangeAuthorization(AuthorizationStatus status) = 0;
};

/// Region monitoring and beacon ranging. Backends: simulated, device (BlueZ + GeoClue).
/// Main queue only, unless an operation says otherwise: the library calls these only from
/// QVLBeaconManager, whose operations assert in debug builds and log an error in release
/// when called from another thread. The library's own backends are thread-safe all the same.
class QVL_EXPORT LocationService {
 public:
  virtual ~LocationService() = default;

  /// The one delegate, held weakly.
  virtual void setDelegate(std::weak_ptr<LocationServiceDelegate> delegate) = 0;

  /// Regions being monitored, kept across runs of the process (so a new run can clear
  /// what an earlier one registered).
  virtual std::vector<Region> monitoredRegions() const = 0;
  /// Starts monitoring; a region with an identifier already monitored replaces it.
  virtual void startMonitoring(const Region& region) = 0;
  /// Stops monitoring the region with that identifier; unknown ones are ignored.
  virtual void stopMonitoring(const Region& region) = 0;

  /// Starts ranging: the delegate gets a report for the region about once a second. A
  /// region with an identifier already ranged replaces it.
  virtual void startRanging(const BeaconRegion& region) = 0;
  /// Stops ranging the region with that identifier; unknown ones are ignored.
  virtual void stopRanging(const BeaconRegion& region) = 0;
  /// Regions being ranged, in the order ranging started. Not kept across runs.
  virtual std::vector<BeaconRegion> rangedRegions() const = 0;

  /// Thread-safe.
  virtual AuthorizationStatus authorizationStatus() const = 0;
  /// Asks the user for AuthorizedAlways when the status is NotDetermined; otherwise does
  /// nothing. The answer arrives later as didChangeAuthorization().
  virtual void requestAlwaysAuthorization() = 0;
};

}  // namespace qvl
