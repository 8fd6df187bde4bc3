#pragma once
// The proximity backend an environment gets when the host installs none.

#include <memory>
#include <string>

namespace qvl {
class LocationService;
class BluetoothCentral;
struct Env;
}  // namespace qvl

namespace qvl::proximity {

/// One object serving as both. On first use it picks the backend Env::proximityBackend
/// names (see there; warnings and errors are logged then) and forwards every call to it.
struct StandardBackend {
  std::shared_ptr<LocationService> locationService;
  std::shared_ptr<BluetoothCentral> bluetoothCentral;
};
/// The one of the context in force, on the system bus, made on first use.
const StandardBackend& standardBackend();
/// A fresh one on the D-Bus at `busAddress` (empty: the system bus), for tests.
StandardBackend makeStandardBackend(std::string busAddress = {});

/// env.locationService, or the standard backend's of the context in force when it is empty.
std::shared_ptr<LocationService> locationServiceOf(const Env& env);
/// env.bluetoothCentral, or the standard backend's of the context in force when it is empty.
std::shared_ptr<BluetoothCentral> bluetoothCentralOf(const Env& env);

}  // namespace qvl::proximity
