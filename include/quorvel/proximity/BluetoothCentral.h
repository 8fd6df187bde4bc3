#pragma once
/// @file
/// The device's Bluetooth radio, as far as the library needs it: its state.

#include <cstdint>
#include <memory>

#include "quorvel/Export.h"

namespace qvl {

/// The platform's numbering, kept as it stands.
enum class BluetoothState : std::int64_t {
  Unknown = 0,
  Resetting = 1,
  Unsupported = 2,
  Unauthorized = 3,
  PoweredOff = 4,
  PoweredOn = 5,
};

/// Receives a central's state changes. Implemented by the library's beacon manager; owned
/// by whoever registers it (the central holds it weakly).
class QVL_EXPORT BluetoothCentralDelegate {
 public:
  virtual ~BluetoothCentralDelegate() = default;
  /// The state changed; always on the main queue.
  virtual void bluetoothCentralDidUpdateState(BluetoothState state) = 0;
};

/// How the one who takes a central on wants it to behave.
struct QVL_EXPORT BluetoothCentralOptions {
  /// Whether the platform may ask the user to turn Bluetooth on while it is off. Only
  /// platforms with such an alert use it; the simulated and BlueZ backends have none.
  bool showPowerAlert = true;
};

/// A Bluetooth central used only for its state. Backends: simulated, BlueZ.
class QVL_EXPORT BluetoothCentral {
 public:
  virtual ~BluetoothCentral() = default;
  /// The current state; Unknown until the backend knows. Thread-safe.
  virtual BluetoothState state() const = 0;
  /// The one delegate, held weakly; events after this call go to it. Main queue only: the
  /// library calls it from QVLBeaconManager, which checks its thread as described there.
  virtual void setDelegate(std::weak_ptr<BluetoothCentralDelegate> delegate) = 0;
  /// Sets the options, once, by whoever takes the central on, before its setDelegate(). A
  /// backend without the option's effect ignores it. Main queue; never fails.
  virtual void setOptions(const BluetoothCentralOptions& options) = 0;
};

}  // namespace qvl
