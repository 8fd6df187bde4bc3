#pragma once
// What a proximity backend tells its delegates, one line each, stamped with the second since
// the log began: entries, exits, authorization and Bluetooth changes in `events`; ranging in
// `reports` as "@t <region>: major.minor ..." nearest first, "?" marking an unknown
// proximity, and with `detailed` also /rssi/accuracy/proximity per beacon.

#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "quorvel/platform/Clock.h"
#include "quorvel/proximity/BluetoothCentral.h"
#include "quorvel/proximity/LocationService.h"

namespace qvl::test {

class ProximityLog : public LocationServiceDelegate, public BluetoothCentralDelegate {
 public:
  explicit ProximityLog(std::shared_ptr<Clock> clock, bool detailed = false)
      : clock_(std::move(clock)), start_(clock_->now()), detailed_(detailed) {}

  std::vector<std::string> events;
  std::vector<std::string> reports;

  void didRangeBeacons(const std::vector<RangedBeacon>& beacons,
                       const BeaconRegion& region) override {
    std::ostringstream line;
    line << stamp() << region.identifier << ":";
    for (const RangedBeacon& b : beacons) {
      line << ' ' << b.major << '.' << b.minor << (b.proximity == Proximity::Unknown ? "?" : "");
      if (detailed_) line << '/' << b.rssi << '/' << b.accuracy << '/' << int(b.proximity);
    }
    reports.push_back(line.str());
  }
  void didEnterRegion(const Region& r) override { add("enter " + regionIdentifier(r)); }
  void didExitRegion(const Region& r) override { add("exit " + regionIdentifier(r)); }
  void didChangeAuthorization(AuthorizationStatus s) override {
    add("authorization " + std::to_string(int(s)));
  }
  void bluetoothCentralDidUpdateState(BluetoothState s) override {
    add("bluetooth " + std::to_string(int(s)));
  }

  /// How many events end in `what`, e.g. "enter b1".
  std::size_t count(const std::string& what) const {
    std::size_t n = 0;
    for (const auto& e : events) n += e.ends_with(" " + what);
    return n;
  }

 private:
  void add(const std::string& text) { events.push_back(stamp() + text); }
  std::string stamp() const {
    auto seconds = std::chrono::duration_cast<std::chrono::seconds>(clock_->now() - start_);
    return "@" + std::to_string(seconds.count()) + " ";
  }
  std::shared_ptr<Clock> clock_;
  Date start_;
  bool detailed_;
};

}  // namespace qvl::test
