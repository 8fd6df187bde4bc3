#include "proximity/ProximityCore.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <tuple>

namespace qvl::proximity {

namespace {

constexpr std::uint8_t kIBeaconType = 0x02;
constexpr std::uint8_t kIBeaconLength = 0x15;
constexpr std::size_t kFrameSize = 23;
constexpr double kEarthRadiusMetres = 6371008.8;

double radians(double degrees) { return degrees * std::numbers::pi / 180.0; }

Seconds since(Date earlier, Date later) { return later - earlier; }

}  // namespace

std::size_t BeaconKeyHash::operator()(const BeaconKey& key) const noexcept {
  return std::hash<Uuid>{}(key.uuid) ^ (std::size_t{key.major} << 16 | key.minor) * 0x9E3779B1u;
}

std::optional<BeaconFrame> parseBeaconFrame(std::uint16_t companyId,
                                            std::span<const std::uint8_t> data) {
  if (companyId != kIBeaconCompanyId || data.size() < kFrameSize || data[0] != kIBeaconType ||
      data[1] != kIBeaconLength) {
    return std::nullopt;
  }
  BeaconFrame frame;
  Uuid::Bytes bytes;
  std::copy_n(data.begin() + 2, bytes.size(), bytes.begin());
  frame.key.uuid = Uuid(bytes);
  frame.key.major = static_cast<std::uint16_t>(data[18] << 8 | data[19]);
  frame.key.minor = static_cast<std::uint16_t>(data[20] << 8 | data[21]);
  frame.measuredPower = static_cast<std::int8_t>(data[22]);
  return frame;
}

std::vector<std::uint8_t> encodeBeaconFrame(const BeaconFrame& frame) {
  std::vector<std::uint8_t> data(kFrameSize);
  data[0] = kIBeaconType;
  data[1] = kIBeaconLength;
  std::copy_n(frame.key.uuid.bytes().begin(), 16, data.begin() + 2);
  data[18] = static_cast<std::uint8_t>(frame.key.major >> 8);
  data[19] = static_cast<std::uint8_t>(frame.key.major & 0xFF);
  data[20] = static_cast<std::uint8_t>(frame.key.minor >> 8);
  data[21] = static_cast<std::uint8_t>(frame.key.minor & 0xFF);
  data[22] = static_cast<std::uint8_t>(frame.measuredPower);
  return data;
}

double RssiFilter::add(Date at, double rssi) {
  Seconds step = since(last_, at);
  if (!value_ || step > 5 * timeConstant_) {
    value_ = rssi;
  } else {
    double weight = 1.0 - std::exp(-std::max(step, minimumStep_) / timeConstant_);
    *value_ += weight * (rssi - *value_);
  }
  last_ = at;
  return *value_;
}

double PathLossModel::distance(double rssi, double measuredPower) const {
  if (rssi >= 0 || measuredPower >= 0) return -1.0;
  return std::pow(10.0, (measuredPower - rssi) / (10.0 * exponent));
}

double PathLossModel::rssiAt(double metres, double measuredPower) const {
  return measuredPower - 10.0 * exponent * std::log10(std::max(metres, 0.1));
}

Proximity proximityForDistance(double metres) {
  if (metres < 0) return Proximity::Unknown;
  if (metres < 0.5) return Proximity::Immediate;
  if (metres <= 3.0) return Proximity::Near;
  return Proximity::Far;
}

bool regionContains(const BeaconRegion& region, const BeaconKey& key) {
  return region.proximityUUID == key.uuid && (!region.major || *region.major == key.major) &&
         (!region.minor || *region.minor == key.minor);
}

double BeaconTracker::observe(Date at, const BeaconFrame& frame, double rssi) {
  auto [it, added] = tracks_.try_emplace(
      frame.key, Track{RssiFilter(settings_.filterTimeConstant), double(frame.measuredPower), at});
  Track& track = it->second;
  track.measuredPower = frame.measuredPower;
  track.lastHeard = at;
  return track.filter.add(at, rssi);
}

std::vector<RangedBeacon> BeaconTracker::rangingReport(Date now, const BeaconRegion& region) const {
  struct Entry {
    BeaconKey key;
    double rssi;
    double distance;
    bool fresh;
  };
  std::vector<Entry> entries;
  for (const auto& [key, track] : tracks_) {
    Seconds age = since(track.lastHeard, now);
    if (age > settings_.hold || !regionContains(region, key)) continue;
    double rssi = track.filter.value().value_or(0.0);
    bool fresh = age < settings_.fresh;
    entries.push_back(
        {key, rssi, fresh ? settings_.pathLoss.distance(rssi, track.measuredPower) : -1, fresh});
  }
  std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
    if (a.fresh != b.fresh) return a.fresh;
    if (a.fresh && a.distance != b.distance) return a.distance < b.distance;
    if (a.fresh && a.rssi != b.rssi) return a.rssi > b.rssi;
    return a.key < b.key;
  });
  std::vector<RangedBeacon> report;
  report.reserve(entries.size());
  for (const Entry& entry : entries) {
    RangedBeacon beacon{entry.key.uuid, entry.key.major, entry.key.minor};
    if (entry.fresh && entry.distance >= 0) {
      beacon.accuracy = entry.distance;
      beacon.proximity = proximityForDistance(entry.distance);
      beacon.rssi = std::lround(entry.rssi);
    }
    report.push_back(beacon);
  }
  return report;
}

void BeaconTracker::prune(Date now) {
  std::erase_if(tracks_, [&](const auto& item) {
    return since(item.second.lastHeard, now) > settings_.hold;
  });
}

void BeaconRegionMonitor::add(const BeaconRegion& region) {
  remove(region.identifier);
  regions_.emplace(region.identifier, State{region});
  index_[Pattern{region.proximityUUID, region.major, region.minor}].push_back(region.identifier);
}

void BeaconRegionMonitor::remove(const std::string& identifier) {
  auto it = regions_.find(identifier);
  if (it == regions_.end()) return;
  const BeaconRegion& region = it->second.region;
  auto slot = index_.find(Pattern{region.proximityUUID, region.major, region.minor});
  std::erase(slot->second, identifier);
  if (slot->second.empty()) index_.erase(slot);
  regions_.erase(it);
}

void BeaconRegionMonitor::sighting(Date at, const BeaconKey& key, double filteredRssi,
                                   std::vector<RegionEvent>& events) {
  visit(Pattern{key.uuid, key.major, key.minor}, at, filteredRssi, events);
  visit(Pattern{key.uuid, key.major, std::nullopt}, at, filteredRssi, events);
  visit(Pattern{key.uuid, std::nullopt, std::nullopt}, at, filteredRssi, events);
}

void BeaconRegionMonitor::visit(const Pattern& pattern, Date at, double filteredRssi,
                                std::vector<RegionEvent>& events) {
  auto slot = index_.find(pattern);
  if (slot == index_.end()) return;
  for (const std::string& identifier : slot->second) {
    State& state = regions_.at(identifier);
    if (!state.inside) {
      if (filteredRssi < settings_.entryRssi) continue;
      state.inside = true;
      events.push_back({RegionEvent::Kind::Entry, identifier});
    }
    state.lastSeen = at;
  }
}

void BeaconRegionMonitor::tick(Date now, std::vector<RegionEvent>& events) {
  for (auto& [identifier, state] : regions_) {
    if (state.inside && since(state.lastSeen, now) >= settings_.exitPeriod) {
      state.inside = false;
      events.push_back({RegionEvent::Kind::Exit, identifier});
    }
  }
}

bool BeaconRegionMonitor::isInside(const std::string& identifier) const {
  auto it = regions_.find(identifier);
  return it != regions_.end() && it->second.inside;
}

double haversineMetres(const Coordinate& a, const Coordinate& b) {
  double dLat = radians(b.latitude - a.latitude);
  double dLon = radians(b.longitude - a.longitude);
  double h = std::pow(std::sin(dLat / 2), 2) + std::cos(radians(a.latitude)) *
                                                   std::cos(radians(b.latitude)) *
                                                   std::pow(std::sin(dLon / 2), 2);
  return 2 * kEarthRadiusMetres * std::asin(std::min(1.0, std::sqrt(h)));
}

Coordinate offsetCoordinate(const Coordinate& origin, double east, double north) {
  double metresPerDegree = kEarthRadiusMetres * std::numbers::pi / 180.0;
  return {origin.latitude + north / metresPerDegree,
          origin.longitude + east / (metresPerDegree * std::cos(radians(origin.latitude)))};
}

void CircleMonitor::add(const CircularRegion& region) {
  regions_.insert_or_assign(region.identifier, State{region});
}

void CircleMonitor::remove(const std::string& identifier) { regions_.erase(identifier); }

void CircleMonitor::update(Date now, const Fix& fix, std::vector<RegionEvent>& events) {
  double margin = std::max(settings_.minimumMargin, settings_.accuracyFactor * fix.accuracy);
  for (auto& [identifier, state] : regions_) {
    double radius = state.region.radius;
    double distance = haversineMetres(fix.coordinate, state.region.center);
    Side seen = distance <= radius - std::min(margin, radius / 2) ? Side::Inside
                : distance > radius + margin                      ? Side::Outside
                                                                  : Side::Unknown;
    if (seen == Side::Unknown) continue;  // between the boundaries
    if (seen == state.side) {
      state.pending = Side::Unknown;
      continue;
    }
    if (state.pending != seen) {
      state.pending = seen;
      state.pendingSince = now;
    }
    if (since(state.pendingSince, now) < settings_.dwell) continue;
    bool announce = seen == Side::Inside || state.side == Side::Inside;
    state.side = seen;
    state.pending = Side::Unknown;
    if (announce) {
      events.push_back(
          {seen == Side::Inside ? RegionEvent::Kind::Entry : RegionEvent::Kind::Exit, identifier});
    }
  }
}

bool CircleMonitor::isInside(const std::string& identifier) const {
  auto it = regions_.find(identifier);
  return it != regions_.end() && it->second.side == Side::Inside;
}

}  // namespace qvl::proximity
