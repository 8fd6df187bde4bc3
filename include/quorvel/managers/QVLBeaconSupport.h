#pragma once
/// @file
/// What the device can do for proximity: Bluetooth, location authorization, beacons.

#include "quorvel/Export.h"

/// Yes-or-no capability queries for hosts and for the analytics manager. Each reads the
/// platform's state at the moment of the call (no snapshot) and is lenient: only an
/// explicit "powered off" makes Bluetooth disabled, only an explicit "unsupported" makes
/// beacons unsupported, so both are true while the state is still unknown.
///
/// bluetoothEnabled() and supportsBeacons() go through QVLBeaconManager::sharedManager(),
/// so the first of them creates the beacon manager (with its side effects: see
/// QVLBeaconManager). Callable from any thread once the beacon manager exists.
class QVL_EXPORT QVLBeaconSupport {
 public:
  QVLBeaconSupport() = delete;

  /// False only for the Bluetooth state "powered off" (4).
  static bool bluetoothEnabled();
  /// True only for location authorization "always" (3); "when in use" (4) does not count.
  static bool hasAuthorizedLocationAlways();
  /// False only for the Bluetooth state "unsupported" (2).
  static bool supportsBeacons();
};
