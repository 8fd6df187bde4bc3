#include "quorvel/managers/QVLBeaconSupport.h"

#include "device/StandardBackend.h"

#include "quorvel/managers/QVLBeaconManager.h"
#include "quorvel/platform/Env.h"

bool QVLBeaconSupport::bluetoothEnabled() {
  return QVLBeaconManager::sharedManager().bluetoothState() != qvl::BluetoothState::PoweredOff;
}

bool QVLBeaconSupport::hasAuthorizedLocationAlways() {
  // The authorization is the service's, not the manager's: asking creates no manager.
  const auto service = qvl::proximity::locationServiceOf(*qvl::Env::current());
  return service && service->authorizationStatus() == qvl::AuthorizationStatus::AuthorizedAlways;
}

bool QVLBeaconSupport::supportsBeacons() {
  return QVLBeaconManager::sharedManager().bluetoothState() != qvl::BluetoothState::Unsupported;
}
