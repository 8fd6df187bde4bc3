// qvl-scan: prints the nearest beacons and the region events the device backend reports from
// the machine's Bluetooth adapter (and GeoClue), for a while. See --help.

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/PrivateFiles.h"
#include "quorvel/Linux/DeviceProximity.h"
#include "quorvel/Platform/Clock.h"
#include "quorvel/Platform/Env.h"
#include "quorvel/Platform/MainQueue.h"

namespace {

constexpr const char* kUsage = R"(usage: qvl-scan [options]
  --adapter NAME     the Bluetooth adapter (default: the first one BlueZ lists)
  --uuid UUID        the proximity UUID to range, and to watch as a region (required)
  --seconds N        how long to scan (default 30)
  --record FILE      write the session as a scene the simulated world replays
  --bus ADDRESS      D-Bus address of BlueZ's bus (default: the system bus)
)";

const char* kProximity[] = {"unknown", "immediate", "near", "far"};

// Prints what the backend reports, one line per event.
class Printer : public qvl::LocationServiceDelegate, public qvl::BluetoothCentralDelegate {
 public:
  void didRangeBeacons(const std::vector<qvl::RangedBeacon>& beacons,
                       const qvl::BeaconRegion& region) override {
    std::printf("ranged %s:", region.proximityUUID.toString().c_str());
    if (beacons.empty()) std::printf(" none");
    for (const auto& b : beacons) {
      std::printf(" %u.%u %s %.1fm %lld dBm;", b.major, b.minor,
                  kProximity[static_cast<int>(b.proximity)], b.accuracy,
                  static_cast<long long>(b.rssi));
    }
    std::printf("\n");
  }
  void didEnterRegion(const qvl::Region& region) override {
    std::printf("enter %s\n", qvl::regionIdentifier(region).c_str());
  }
  void didExitRegion(const qvl::Region& region) override {
    std::printf("exit %s\n", qvl::regionIdentifier(region).c_str());
  }
  void didChangeAuthorization(qvl::AuthorizationStatus status) override {
    std::printf("location authorization %d\n", static_cast<int>(status));
  }
  void bluetoothCentralDidUpdateState(qvl::BluetoothState state) override {
    static const char* const kStates[] = {"unknown",      "resetting",   "unsupported",
                                          "unauthorized", "powered off", "powered on"};
    std::printf("bluetooth %s\n", kStates[static_cast<int>(state)]);
  }
};

}  // namespace

int main(int argc, char** argv) {
  qvl::DeviceProximitySettings settings;
  std::string uuidText, recordPath;
  double seconds = 30;
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) {
        std::cerr << kUsage;
        std::exit(2);
      }
      return argv[++i];
    };
    if (arg == "--adapter") {
      settings.adapter = value();
    } else if (arg == "--uuid") {
      uuidText = value();
    } else if (arg == "--seconds") {
      seconds = std::atof(value().c_str());
    } else if (arg == "--record") {
      recordPath = value();
    } else if (arg == "--bus") {
      settings.busAddress = value();
    } else {
      std::cerr << kUsage;
      return arg == "--help" ? 0 : 2;
    }
  }
  std::optional<qvl::Uuid> uuid = qvl::Uuid::parse(uuidText);
  if (!uuid) {
    std::cerr << (uuidText.empty() ? std::string(kUsage)
                                   : "qvl-scan: not a UUID: " + uuidText + "\n");
    return 2;
  }
  settings.record = !recordPath.empty();
  auto backend = qvl::DeviceProximity::create(settings);
  auto printer = std::make_shared<Printer>();
  backend->setDelegate(std::weak_ptr<qvl::LocationServiceDelegate>(printer));
  backend->setDelegate(std::weak_ptr<qvl::BluetoothCentralDelegate>(printer));
  qvl::BeaconRegion region = qvl::BeaconRegion::withUuid(*uuid, uuid->toString());
  backend->startMonitoring(region);
  backend->startRanging(region);
  backend->requestAlwaysAuthorization();

  auto env = qvl::Env::current();
  env->clock->runAfter(std::chrono::milliseconds(static_cast<long long>(seconds * 1000)),
                       [queue = env->mainQueue] { queue->stop(); });
  env->mainQueue->run();
  // The regions are this run's only: the next one starts afresh.
  for (const auto& region : backend->monitoredRegions()) backend->stopMonitoring(region);

  if (!recordPath.empty()) {
    // Written under a fresh name and renamed, so a link planted at the path is replaced, not
    // followed; the recording is owner-only.
    if (auto written = qvl::detail::writeFileAtomically(recordPath, backend->recordedScene());
        !written) {
      std::cerr << "qvl-scan: cannot write " << recordPath << ": " << written.error << "\n";
      return 1;
    }
    std::printf("recorded %s\n", recordPath.c_str());
  }
  return 0;
}
