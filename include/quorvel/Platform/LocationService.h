#pragma once
// The device's location service: region monitoring and beacon ranging.

#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "quorvel/Export.h"
#include "quorvel/Platform/Region.h"
#include "quorvel/Platform/Uuid.h"

namespace qvl {

/// A monitored region: a beacon region or a circle on the ground. Two regions are equal when
/// they are of the same kind with the same identifier and the same geometry.
using Region = std::variant<BeaconRegion, CircularRegion>;

inline const std::string& regionIdentifier(const Region& region) {
  return std::visit([](const auto& r) -> const std::string& { return r.identifier; }, region);
}

/// Location authorization, in the platform's numbering.
enum class AuthorizationStatus : std::int32_t {
  NotDetermined = 0,
  Restricted = 1,
  Denied = 2,
  AuthorizedAlways = 3,
  AuthorizedWhenInUse = 4,
};

/// Proximity classes, in the platform's numbering.
enum class Proximity : std::int64_t { Unknown = 0, Immediate = 1, Near = 2, Far = 3 };

/// One beacon of a ranging report.
struct QVL_EXPORT RangedBeacon {
  Uuid proximityUUID;
  std::uint16_t major = 0;
  std::uint16_t minor = 0;
  Proximity proximity = Proximity::Unknown;
  double accuracy = -1.0;  ///< metres; -1 when unknown
  std::int64_t rssi = 0;   ///< dBm; 0 when unknown

  bool operator==(const RangedBeacon&) const = default;
};

/// Receives the location service's events, always on the main queue.
class QVL_EXPORT LocationServiceDelegate {
 public:
  virtual ~LocationServiceDelegate() = default;
  /// One ranging report for a ranged region: the beacons seen, nearest first.
  virtual void didRangeBeacons(const std::vector<RangedBeacon>& beacons,
                               const BeaconRegion& region) = 0;
  virtual void didEnterRegion(const Region& region) = 0;
  virtual void didExitRegion(const Region& region) = 0;
  virtual void didChangeAuthorization(AuthorizationStatus status) = 0;
};

/// Region monitoring and beacon ranging. Backends: simulated, device (BlueZ + GeoClue).
/// Every operation is called on the main queue unless it says otherwise.
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

  virtual void startRanging(const BeaconRegion& region) = 0;
  virtual void stopRanging(const BeaconRegion& region) = 0;
  virtual std::vector<BeaconRegion> rangedRegions() const = 0;

  /// Thread-safe.
  virtual AuthorizationStatus authorizationStatus() const = 0;
  virtual void requestAlwaysAuthorization() = 0;
};

}  // namespace qvl
