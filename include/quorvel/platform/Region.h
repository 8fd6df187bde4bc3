#pragma once
/// @file
/// Geographic positions and the regions the location service watches.

#include <cstdint>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/platform/Uuid.h"

namespace qvl {

/// A position in degrees (WGS 84).
struct QVL_EXPORT Coordinate {
  double latitude = 0.0;   ///< North positive, -90..90.
  double longitude = 0.0;  ///< East positive, -180..180.

  /// Exact equality of both degrees.
  bool operator==(const Coordinate&) const = default;
};

/// A beacon region: every beacon advertising proximityUUID, optionally narrowed to one
/// major value, and then to one minor value. A minor is only meaningful with a major;
/// the factories build the three valid forms.
struct QVL_EXPORT BeaconRegion {
  Uuid proximityUUID;                  ///< The UUID every matching beacon advertises.
  std::optional<std::uint16_t> major;  ///< The one major value matched; any when absent.
  std::optional<std::uint16_t> minor;  ///< The one minor value matched; any when absent.
  /// Names the region to the location service: starting a region with an identifier
  /// already in use replaces that region.
  std::string identifier;
  /// Asks the platform to report the region's state again when the device's display turns
  /// on. A hint only: backends without a display signal ignore it.
  bool notifyEntryStateOnDisplay = false;

  /// Every beacon with the UUID.
  static BeaconRegion withUuid(Uuid uuid, std::string identifier) {
    return {uuid, std::nullopt, std::nullopt, std::move(identifier)};
  }
  /// Beacons with the UUID and one major value.
  static BeaconRegion withMajor(Uuid uuid, std::uint16_t major, std::string identifier) {
    return {uuid, major, std::nullopt, std::move(identifier)};
  }
  /// The one beacon with the UUID, major and minor.
  static BeaconRegion withMajorMinor(Uuid uuid, std::uint16_t major, std::uint16_t minor,
                                     std::string identifier) {
    return {uuid, major, minor, std::move(identifier)};
  }

  /// The same beacons under the same identifier; notifyEntryStateOnDisplay is a request to
  /// the platform, not part of what the region is, and is not compared.
  bool operator==(const BeaconRegion& other) const {
    return proximityUUID == other.proximityUUID && major == other.major && minor == other.minor &&
           identifier == other.identifier;
  }
};

/// A circle on the ground; radius in metres.
struct QVL_EXPORT CircularRegion {
  Coordinate center;       ///< The centre of the circle.
  double radius = 0.0;     ///< In metres.
  std::string identifier;  ///< As BeaconRegion::identifier.

  /// Member-wise equality, identifier included.
  bool operator==(const CircularRegion&) const = default;
};

}  // namespace qvl
