#pragma once
/// @file
/// A scene: a timeline of what happens around the device, for the simulated world to replay.

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "quorvel/Export.h"
#include "quorvel/platform/Region.h"
#include "quorvel/platform/Uuid.h"
#include "quorvel/proximity/BluetoothCentral.h"
#include "quorvel/proximity/LocationService.h"

namespace qvl {

/// How the simulated world hears beacons and decides region crossings. Times in seconds.
struct QVL_EXPORT SimulationSettings {
  /// A beacon region is left when none of its beacons was heard for this long.
  double exitPeriod = 10.0;
  /// Entering a beacon region needs a filtered RSSI at least this strong (dBm); staying in
  /// needs any sighting.
  double entryRssi = -95.0;
  /// Path-loss exponent of the log-distance model: how positions become RSSI, and how RSSI
  /// becomes the reported accuracy. 2 is free space; 2.5 to 3.5 suits indoors.
  double pathLossExponent = 2.0;
  /// Signals weaker than this (dBm) are not heard.
  double sensitivity = -100.0;
  /// Time constant of the RSSI filter.
  double rssiTimeConstant = 2.0;
  /// How long fixes must stay on one side of a circle's boundary before it counts.
  double dwell = 5.0;
  /// Beacons are heard only with location authorization (always or when in use), as on a
  /// phone. False: heard whatever the authorization, as by a Linux device's own radio;
  /// circles still need the authorization "always".
  bool beaconsNeedAuthorization = true;

  /// Member-wise equality.
  bool operator==(const SimulationSettings&) const = default;
};

/// The device jumps to a position, or walks there in a straight line over `seconds`.
struct QVL_EXPORT SceneDeviceMove {
  Coordinate position;  ///< Where the device ends up.
  /// Horizontal accuracy of the fixes from now on, metres; unset keeps the current one.
  std::optional<double> accuracy;
  double seconds = 0.0;  ///< 0: a jump

  /// Member-wise equality.
  bool operator==(const SceneDeviceMove&) const = default;
};

/// Places a beacon (an id not seen before: uuid, major and minor required) or changes one.
struct QVL_EXPORT SceneBeacon {
  std::string id;  ///< The scene's name for the beacon; later steps refer to it.
  /// What the beacon advertises; unset fields keep their current values.
  ///@{
  std::optional<Uuid> uuid;
  std::optional<std::uint16_t> major;
  std::optional<std::uint16_t> minor;
  ///@}
  /// Advertised RSSI at 1 m (dBm, -127..-1), used for the accuracy estimate.
  std::optional<std::int8_t> measuredPower;
  /// Where it is; the RSSI then follows the distance to the device.
  std::optional<Coordinate> position;
  /// Heard at this RSSI wherever the device is, until a position is given again.
  std::optional<double> rssi;
  /// Not heard at all ("rssi": null), until an RSSI or a position is given again.
  bool silent = false;

  /// Member-wise equality.
  bool operator==(const SceneBeacon&) const = default;
};

/// Takes a placed beacon away; it is no longer heard.
struct QVL_EXPORT SceneRemoveBeacon {
  std::string id;  ///< The id the beacon was placed with.
  /// Equal ids.
  bool operator==(const SceneRemoveBeacon&) const = default;
};

/// A label the host can react to (for example the start of an offline spell).
struct QVL_EXPORT SceneMarker {
  std::string text;  ///< Passed to the world's marker handler as given.
  /// Equal texts.
  bool operator==(const SceneMarker&) const = default;
};

/// One step of the timeline, `at` seconds after the scene starts.
struct QVL_EXPORT SceneStep {
  /// What happens. A BluetoothState sets the central's state; an AuthorizationStatus is
  /// the user's answer (applied at once unless the status is still NotDetermined, in which
  /// case it answers the next authorization request).
  using Action = std::variant<SceneDeviceMove, SceneBeacon, SceneRemoveBeacon, BluetoothState,
                              AuthorizationStatus, SceneMarker>;
  double at = 0.0;  ///< Seconds after the scene starts.
  Action action;    ///< The one action of the step.

  /// Member-wise equality.
  bool operator==(const SceneStep&) const = default;
};

/// A bad scene file: the message names the file and either the line and column of a syntax
/// error or the path of the field at fault ("timeline[3].beacon.major: ...").
class QVL_EXPORT SceneError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A scene read from JSON. The format (every key optional unless marked):
///
///     {
///       "name": "two-shops",
///       "description": "free text",
///       "origin": {"latitude": 52.52, "longitude": 13.405},
///       "settings": {"exitPeriod": 10, "entryRssi": -95, "pathLossExponent": 2,
///                    "sensitivity": -100, "rssiTimeConstant": 2, "dwell": 5,
///                    "beaconsNeedAuthorization": true},
///       "timeline": [                                                   (required)
///         {"at": 0, "bluetooth": "poweredOn"},
///         {"at": 0, "authorization": "authorizedAlways"},
///         {"at": 0, "device": {"x": 0, "y": 0, "accuracy": 5}},
///         {"at": 0, "beacon": {"id": "a1", "uuid": "E2C56DB5-...", "major": 1, "minor": 1,
///                              "measuredPower": -59, "x": 10, "y": 2}},
///         {"at": 5, "walk": {"x": 10, "y": 0, "seconds": 8}},
///         {"at": 20, "beacon": {"id": "a1", "rssi": -97}},
///         {"at": 21, "beacon": {"id": "a1", "rssi": null}},
///         {"at": 30, "removeBeacon": "a1"},
///         {"at": 40, "marker": "offline-start"}
///       ]
///     }
///
/// - "at": seconds from the start, never decreasing along the timeline. The world applies
///   a step at the first of its once-a-second ticks at or after that time; steps at 0
///   apply as soon as the scene is played.
/// - Each step has "at" and exactly one action: "device" (jump; "accuracy" in metres, 5
///   until given), "walk" (straight line, arriving "seconds" later), "beacon" (place or
///   change; "rssi" overrides the position, null silences the beacon, a new position
///   undoes both), "removeBeacon" (an id), "bluetooth" (unknown, resetting, unsupported,
///   unauthorized, poweredOff, poweredOn), "authorization" (the answer the user gives, or
///   has given: notDetermined, restricted, denied, authorizedAlways,
///   authorizedWhenInUse) and "marker" (any text).
/// - Positions: "x" and "y" in metres east and north of "origin", or "latitude" and
///   "longitude" in degrees.
/// - Unknown keys are errors, so that a misspelt key is not silently ignored.
struct QVL_EXPORT Scene {
  std::string name;                 ///< "name"; empty when absent.
  std::string description;          ///< "description"; empty when absent.
  SimulationSettings settings;      ///< "settings", defaults filled in.
  std::vector<SceneStep> timeline;  ///< "timeline", in order, positions already in degrees.

  /// Reads a scene; `source` names it in error messages. Throws SceneError.
  static Scene parse(std::string_view json, std::string_view source = "scene");
  /// Reads a scene file. Throws SceneError (also when the file cannot be read).
  static Scene load(const std::string& path);
};

}  // namespace qvl
