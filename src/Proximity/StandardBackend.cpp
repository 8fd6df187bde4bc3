#include "Proximity/StandardBackend.h"

#include <mutex>

#include "quorvel/Platform/Log.h"
#include "quorvel/Platform/SimulatedWorld.h"
#if QVL_DEVICE_BACKEND
#include "quorvel/Linux/DeviceProximity.h"
#endif

namespace qvl::proximity {

namespace {

// Chooses on first use, not when the environment is made: most environments never reach
// the proximity services, and looking at the system bus is not free.
class Deferred final : public LocationService, public BluetoothCentral {
 public:
  void setDelegate(std::weak_ptr<LocationServiceDelegate> delegate) override {
    location().setDelegate(std::move(delegate));
  }
  std::vector<Region> monitoredRegions() const override { return location().monitoredRegions(); }
  void startMonitoring(const Region& region) override { location().startMonitoring(region); }
  void stopMonitoring(const Region& region) override { location().stopMonitoring(region); }
  void startRanging(const BeaconRegion& region) override { location().startRanging(region); }
  void stopRanging(const BeaconRegion& region) override { location().stopRanging(region); }
  std::vector<BeaconRegion> rangedRegions() const override { return location().rangedRegions(); }
  AuthorizationStatus authorizationStatus() const override {
    return location().authorizationStatus();
  }
  void requestAlwaysAuthorization() override { location().requestAlwaysAuthorization(); }
  BluetoothState state() const override { return central().state(); }
  void setDelegate(std::weak_ptr<BluetoothCentralDelegate> delegate) override {
    central().setDelegate(std::move(delegate));
  }

 private:
  void choose() const {
    std::call_once(once_, [this] {
#if QVL_DEVICE_BACKEND
      if (systemBusHasName("org.bluez")) {
        auto device = DeviceProximity::create();
        location_ = device;
        central_ = device;
        return;
      }
      log("no org.bluez on the system bus; proximity uses the simulated world");
#else
      log("built without the device backend; proximity uses the simulated world");
#endif
      auto world = SimulatedWorld::create();
      location_ = world;
      central_ = world;
    });
  }
  LocationService& location() const {
    choose();
    return *location_;
  }
  BluetoothCentral& central() const {
    choose();
    return *central_;
  }

  mutable std::once_flag once_;
  mutable std::shared_ptr<LocationService> location_;
  mutable std::shared_ptr<BluetoothCentral> central_;
};

}  // namespace

const StandardBackend& standardBackend() {
  // Never destroyed: the backend's threads may still report while statics go at exit.
  static const StandardBackend* backend = [] {
    auto deferred = std::make_shared<Deferred>();
    return new StandardBackend{deferred, deferred};
  }();
  return *backend;
}

}  // namespace qvl::proximity
