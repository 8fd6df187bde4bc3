// qvl-scan: prints the nearest beacons and the region events the device backend reports from
// the machine's Bluetooth adapter (and GeoClue), for a while. See --help.

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/PrivateFiles.h"
#include "quorvel/device/DeviceProximity.h"
#include "quorvel/platform/Clock.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/MainQueue.h"
#include "quorvel/testing/SimulatedWorld.h"

namespace {

constexpr const char* kUsage = R"(usage: qvl-scan [options]
  --adapter NAME     the Bluetooth adapter (default: the first one BlueZ lists)
  --uuid UUID        the proximity UUID to range, and to watch as a region (required)
  --seconds N        how long to scan, 0 to 1e9 (default 30)
  --record FILE      write the session as a scene the simulated world replays
  --bus ADDRESS      D-Bus address of BlueZ's bus (default: the system bus)
  --simulate         scan an empty simulated world instead of the radio (no --record)
Exit status: 0 done, 1 no Bluetooth radio (or the recording not written), 2 bad arguments.
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
    if (onState) onState(state);
  }
  std::function<void(qvl::BluetoothState)> onState;
};

int usage() {
  std::cerr << kUsage;
  return 2;
}

// A number of seconds, all of `text`; bounded so that it converts to milliseconds.
std::optional<double> parseSeconds(const std::string& text) {
  char* end = nullptr;
  double seconds = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(seconds) || seconds < 0 || seconds > 1e9) {
    return std::nullopt;
  }
  return seconds;
}

}  // namespace

int main(int argc, char** argv) {
  qvl::DeviceProximitySettings settings;
  std::string uuidText, recordPath;
  double seconds = 30;
  bool simulate = false;
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) std::exit(usage());
      return argv[++i];
    };
    if (arg == "--adapter") {
      settings.adapter = value();
    } else if (arg == "--uuid") {
      uuidText = value();
    } else if (arg == "--seconds") {
      std::string text = value();
      auto parsed = parseSeconds(text);
      if (!parsed) {
        std::cerr << "qvl-scan: --seconds wants a number from 0 to 1e9, not \"" << text << "\"\n";
        return usage();
      }
      seconds = *parsed;
    } else if (arg == "--record") {
      recordPath = value();
    } else if (arg == "--bus") {
      settings.busAddress = value();
    } else if (arg == "--simulate") {
      simulate = true;
    } else if (arg == "--help") {
      std::cerr << kUsage;
      return 0;
    } else {
      return usage();
    }
  }
  if (simulate && !recordPath.empty()) return usage();
  std::optional<qvl::Uuid> uuid = qvl::Uuid::parse(uuidText);
  if (!uuid) {
    std::cerr << (uuidText.empty() ? std::string(kUsage)
                                   : "qvl-scan: not a UUID: " + uuidText + "\n");
    return 2;
  }
  settings.record = !recordPath.empty();
  std::shared_ptr<qvl::LocationService> location;
  std::shared_ptr<qvl::BluetoothCentral> central;
  std::shared_ptr<qvl::DeviceProximity> device;
  if (simulate) {
    auto world = qvl::SimulatedWorld::create();
    location = world;
    central = world;
  } else {
    device = qvl::DeviceProximity::create(settings);
    location = device;
    central = device;
  }
  auto env = qvl::Env::current();
  auto printer = std::make_shared<Printer>();
  bool noRadio = false;
  printer->onState = [&](qvl::BluetoothState state) {
    if (state != qvl::BluetoothState::Unsupported || simulate) return;
    noRadio = true;
    env->mainQueue->stop();
  };
  location->setDelegate(std::weak_ptr<qvl::LocationServiceDelegate>(printer));
  central->setDelegate(std::weak_ptr<qvl::BluetoothCentralDelegate>(printer));
  qvl::BeaconRegion region = qvl::BeaconRegion::withUuid(*uuid, uuid->toString());
  location->startMonitoring(region);
  location->startRanging(region);
  location->requestAlwaysAuthorization();

  env->clock->runAfter(std::chrono::milliseconds(static_cast<long long>(seconds * 1000)),
                       [queue = env->mainQueue] { queue->stop(); });
  env->mainQueue->run();
  // The regions are this run's only: the next one starts afresh.
  for (const auto& region : location->monitoredRegions()) location->stopMonitoring(region);
  if (noRadio) {
    std::cerr << "qvl-scan: no Bluetooth radio: BlueZ is not running or has no adapter"
              << (settings.adapter.empty() ? "" : " named " + settings.adapter)
              << " (--simulate scans a simulated world)\n";
    return 1;
  }

  if (!recordPath.empty()) {
    // Written under a fresh name and renamed, so a link planted at the path is replaced, not
    // followed; the recording is owner-only.
    if (auto written = qvl::detail::writeFileAtomically(recordPath, device->recordedScene());
        !written) {
      std::cerr << "qvl-scan: cannot write " << recordPath << ": " << written.error << "\n";
      return 1;
    }
    std::printf("recorded %s\n", recordPath.c_str());
  }
  return 0;
}
