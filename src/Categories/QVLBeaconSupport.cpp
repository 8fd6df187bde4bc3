#include "quorvel/Categories/QVLBeaconSupport.h"

#include "Proximity/StandardBackend.h"

#include "quorvel/Managers/QVLBeaconManager.h"
#include "quorvel/Platform/Env.h"

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
