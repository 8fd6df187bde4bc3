#include "device/StandardBackend.h"
#include "platform/ContextCore.h"

#include <mutex>
#include <string>

#include "quorvel/platform/Env.h"
#include "quorvel/platform/Log.h"
#if QVL_DEVICE_BACKEND
#include "device/BusThread.h"
#include "quorvel/device/DeviceProximity.h"
#endif

namespace qvl::proximity {

namespace {

using Choice = Env::ProximityBackend;

// What serves when the device backend cannot: no radio, no
// position, and nothing that ever changes, so the delegates are never called.
class Unavailable final : public LocationService, public BluetoothCentral {
 public:
  void setDelegate(std::weak_ptr<LocationServiceDelegate>) override {}
  std::vector<Region> monitoredRegions() const override { return {}; }
  void startMonitoring(const Region&) override {}
  void stopMonitoring(const Region&) override {}
  void startRanging(const BeaconRegion&) override {}
  void stopRanging(const BeaconRegion&) override {}
  std::vector<BeaconRegion> rangedRegions() const override { return {}; }
  AuthorizationStatus authorizationStatus() const override {
    return AuthorizationStatus::Restricted;
  }
  void requestAlwaysAuthorization() override {}
  BluetoothState state() const override { return BluetoothState::Unsupported; }
  void setDelegate(std::weak_ptr<BluetoothCentralDelegate>) override {}
  void setOptions(const BluetoothCentralOptions&) override {}
};

// Chooses on first use, not when the environment is made: most environments never reach
// the proximity services, and looking at the system bus is not free.
class Deferred final : public LocationService, public BluetoothCentral {
 public:
  explicit Deferred(std::string busAddress) : busAddress_(std::move(busAddress)) {}

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
  void setOptions(const BluetoothCentralOptions& options) override {
    central().setOptions(options);
  }

 private:
  template <typename Backend>
  void use(std::shared_ptr<Backend> backend) const {
    location_ = backend;
    central_ = backend;
  }

  void choose() const {
    std::call_once(once_, [this] {
      const Choice choice = Env::current()->proximityBackend;
#if QVL_DEVICE_BACKEND
      // The device backend follows org.bluez itself once it runs: asked here only to say
      // what is missing now.
      std::string error;
      const auto owned =
          device::namesOwned(busAddress_, {"org.bluez", "org.freedesktop.GeoClue2"}, error);
      DeviceProximitySettings settings;
      settings.busAddress = busAddress_;
      if (choice == Choice::device) {
        if (!owned) {
          log(LogLevel::error, "device proximity backend: no system bus (" + error +
                                   "); Bluetooth reads Unsupported, location Restricted");
        } else {
          if (!(*owned)[0]) {
            log(LogLevel::error,
                "device proximity backend: no org.bluez on the system bus; Bluetooth reads "
                "Unsupported until BlueZ starts");
          }
          if (!(*owned)[1]) {
            log(LogLevel::error,
                "device proximity backend: no org.freedesktop.GeoClue2 on the system bus; "
                "location authorization reads Restricted once requested");
          }
        }
        return use(DeviceProximity::create(settings));
      }
      if (owned) {
        if (!(*owned)[0]) {
          log(LogLevel::warning,
              "no org.bluez on the system bus; Bluetooth reads Unsupported until BlueZ starts");
        }
        return use(DeviceProximity::create(settings));
      }
      const std::string reason = "no system bus (" + error + ")";
#else
      if (choice == Choice::device) {
        log(LogLevel::error,
            "built without the device backend; Bluetooth reads Unsupported, location Restricted");
        return use(std::make_shared<Unavailable>());
      }
      const std::string reason = "built without the device backend";
#endif
      log(LogLevel::warning,
          reason + "; Bluetooth reads Unsupported and location authorization Restricted");
      use(std::make_shared<Unavailable>());
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

  const std::string busAddress_;
  mutable std::once_flag once_;
  mutable std::shared_ptr<LocationService> location_;
  mutable std::shared_ptr<BluetoothCentral> central_;
};

}  // namespace

StandardBackend makeStandardBackend(std::string busAddress) {
  auto deferred = std::make_shared<Deferred>(std::move(busAddress));
  return {deferred, deferred};
}

const StandardBackend& standardBackend() {
  // One per context: its events go to that context's main queue and managers.
  static const char key = 0;
  return detail::currentContext()->service<StandardBackend>(
      &key, [] { return std::make_shared<StandardBackend>(makeStandardBackend()); });
}

std::shared_ptr<LocationService> locationServiceOf(const Env& env) {
  return env.locationService ? env.locationService : standardBackend().locationService;
}

std::shared_ptr<BluetoothCentral> bluetoothCentralOf(const Env& env) {
  return env.bluetoothCentral ? env.bluetoothCentral : standardBackend().bluetoothCentral;
}

}  // namespace qvl::proximity
