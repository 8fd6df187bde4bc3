#include "device/Sightings.h"

#include <algorithm>

namespace qvl::device {

void Sightings::setFrame(const std::string& device,
                         const std::optional<proximity::BeaconFrame>& frame) {
  if (frame) {
    devices_.touch(device) = *frame;
  } else {
    devices_.erase(device);
  }
}

void Sightings::heard(const std::string& device, std::int16_t rssi) {
  if (rssi < -127 || rssi > -1) return;  // BlueZ's "no reading" values
  const proximity::BeaconFrame* frame = devices_.find(device);
  if (!frame) return;
  devices_.touch(device);
  bool added = false;
  Beacon& beacon = beacons_.touch(frame->key, &added);
  if (added) beacon.firstHeard = ++heardSoFar_;
  beacon.frame = *frame;
  beacon.lastTick = tick_;
  beacon.sum += rssi;
  ++beacon.count;
}

std::vector<proximity::Heard> Sightings::take() {
  std::vector<std::pair<std::uint64_t, proximity::Heard>> heard;
  for (auto& [key, beacon] : beacons_.entries()) {
    if (beacon.count == 0) continue;
    heard.push_back({beacon.firstHeard, {beacon.frame, beacon.sum / beacon.count}});
    beacon.sum = 0.0;
    beacon.count = 0;
  }
  std::sort(heard.begin(), heard.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  ++tick_;
  beacons_.expire([&](const Beacon& beacon) { return tick_ - beacon.lastTick > expiry_; });
  std::vector<proximity::Heard> signals;
  signals.reserve(heard.size());
  for (auto& [order, signal] : heard) signals.push_back(signal);
  return signals;
}

}  // namespace qvl::device
