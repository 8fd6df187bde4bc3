#pragma once
// The proximity backend an environment gets when the host installs none.

#include <memory>

namespace qvl {
class LocationService;
class BluetoothCentral;
}  // namespace qvl

namespace qvl::proximity {

/// One process-wide object serving as both. On first use it picks the device backend when
/// the library has one and org.bluez is on the system bus, otherwise a simulated world
/// (saying so in one log line); it then forwards every call there.
struct StandardBackend {
  std::shared_ptr<LocationService> locationService;
  std::shared_ptr<BluetoothCentral> bluetoothCentral;
};
const StandardBackend& standardBackend();

}  // namespace qvl::proximity
