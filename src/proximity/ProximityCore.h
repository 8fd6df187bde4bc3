#pragma once
// What a location service makes of radio advertisements and position fixes, as plain values:
// iBeacon frames, a filtered signal, distance and proximity class, ranging reports nearest
// first, beacon region entry and exit, and circle entry and exit. No threads, no clock of
// its own, no I/O: the simulated backend and the device backends feed it the same values
// and report what it returns, so both report the same events for the same signals.
//
// Not thread-safe: a backend keeps each object on one thread or behind its own lock.

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "quorvel/platform/Region.h"
#include "quorvel/platform/Uuid.h"
#include "quorvel/proximity/LocationService.h"
#include "quorvel/store/Value.h"

namespace qvl::proximity {

using Seconds = std::chrono::duration<double>;

/// What identifies one beacon.
struct BeaconKey {
  Uuid uuid;
  std::uint16_t major = 0;
  std::uint16_t minor = 0;

  auto operator<=>(const BeaconKey&) const = default;
};

struct BeaconKeyHash {
  std::size_t operator()(const BeaconKey& key) const noexcept;
};

/// One iBeacon advertisement's payload.
struct BeaconFrame {
  BeaconKey key;
  /// Calibrated RSSI at one metre, dBm.
  std::int8_t measuredPower = -59;

  bool operator==(const BeaconFrame&) const = default;
};

/// Bluetooth SIG company identifier under which iBeacon frames are advertised.
inline constexpr std::uint16_t kIBeaconCompanyId = 0x004C;

/// Reads an iBeacon frame from one manufacturer-specific data entry: `companyId` as the
/// advertisement carries it, `data` the bytes after it (BlueZ's ManufacturerData value):
/// 0x02 0x15, the UUID (16 bytes), major and minor (big-endian), measured power (signed).
/// Anything else (another company, another type or length byte, fewer than 23 bytes)
/// gives nullopt; bytes after the 23rd are ignored.
std::optional<BeaconFrame> parseBeaconFrame(std::uint16_t companyId,
                                            std::span<const std::uint8_t> data);

/// The manufacturer data parseBeaconFrame reads (company 0x004C), as a beacon sends it.
std::vector<std::uint8_t> encodeBeaconFrame(const BeaconFrame& frame);

/// Smooths RSSI samples with an exponential moving average whose weight follows the time
/// between samples: value += (1 - exp(-dt / timeConstant)) * (sample - value), dt at least
/// `minimumStep` so that a burst of samples at one instant still counts. After a step
/// change it is within 5% of the new level after 3 time constants (6 s by default), where
/// a 20 s running average needs the whole 20 s; alternating jitter of +-a dB at one sample
/// a second is cut to about +-0.25a. The first sample, and the first after a silence longer
/// than 5 time constants, are taken as they come.
class RssiFilter {
 public:
  explicit RssiFilter(Seconds timeConstant = Seconds(2), Seconds minimumStep = Seconds(0.1))
      : timeConstant_(timeConstant), minimumStep_(minimumStep) {}

  /// Adds a sample taken at `at` (samples in time order) and returns the filtered value.
  double add(Date at, double rssi);
  std::optional<double> value() const { return value_; }

 private:
  Seconds timeConstant_;
  Seconds minimumStep_;
  std::optional<double> value_;
  Date last_{};
};

/// The log-distance path-loss model: rssi = measuredPower - 10 n log10(d), d in metres,
/// measuredPower being the RSSI at 1 m and n the path-loss exponent (2 in free space,
/// about 2.5-3.5 indoors).
struct PathLossModel {
  double exponent = 2.0;

  /// Estimated distance in metres; -1 when unknown (an RSSI or measured power of 0 or
  /// above, which no real reading has).
  double distance(double rssi, double measuredPower) const;
  /// The RSSI this model gives at `metres` (distances under 0.1 m count as 0.1 m).
  double rssiAt(double metres, double measuredPower) const;
};

/// Proximity class of an estimated distance: under 0.5 m immediate, up to 3 m near, beyond
/// far; a negative (unknown) distance is unknown.
Proximity proximityForDistance(double metres);

/// True when the beacon is in the region: same UUID, and the region's major and minor,
/// where it has them.
bool regionContains(const BeaconRegion& region, const BeaconKey& key);

struct TrackerSettings {
  Seconds filterTimeConstant{2};
  PathLossModel pathLoss;
  /// A beacon heard within this time is reported with its RSSI, distance and proximity.
  Seconds fresh{1};
  /// A beacon heard longer ago than `fresh` but within this time is still reported, last,
  /// with RSSI 0, accuracy -1 and proximity unknown (as a phone does for a beacon it just
  /// lost); after that it is dropped.
  Seconds hold{5};
};

/// The beacons heard lately, with their filtered signal.
class BeaconTracker {
 public:
  explicit BeaconTracker(TrackerSettings settings = {}) : settings_(settings) {}

  /// Records one advertisement; returns the beacon's filtered RSSI.
  double observe(Date at, const BeaconFrame& frame, double rssi);

  /// The beacons of `region` heard within the hold time: fresh ones nearest first (ties by
  /// stronger signal, then by UUID, major, minor), then the stale ones in key order.
  std::vector<RangedBeacon> rangingReport(Date now, const BeaconRegion& region) const;

  /// Forgets beacons not heard within the hold time. Call it now and then (every report).
  void prune(Date now);

  const TrackerSettings& settings() const { return settings_; }
  void setSettings(const TrackerSettings& settings) { settings_ = settings; }

 private:
  struct Track {
    RssiFilter filter;
    double measuredPower;
    Date lastHeard;
  };

  TrackerSettings settings_;
  std::unordered_map<BeaconKey, Track, BeaconKeyHash> tracks_;
};

/// An entry into or exit from a monitored region, by its identifier.
struct RegionEvent {
  enum class Kind { Entry, Exit };
  Kind kind;
  std::string identifier;

  bool operator==(const RegionEvent&) const = default;
};

struct BeaconMonitorSettings {
  /// A region is left when none of its beacons was heard for this long.
  Seconds exitPeriod{10};
  /// Entering needs a sighting with a filtered RSSI at least this strong; once inside, any
  /// sighting keeps the region. The gap between the two is the hysteresis that keeps a
  /// beacon at the edge of range, heard now and then, from entering again after each exit.
  double entryRssi = -95.0;
};

/// Beacon region state: every region starts unknown; a sighting strong enough enters it
/// (one entry event), and `exitPeriod` without any sighting of its beacons leaves it (one
/// exit event). Stopping a region reports nothing. Sightings find their regions through an
/// index on (UUID, major, minor), (UUID, major) and UUID, never a scan of all regions.
class BeaconRegionMonitor {
 public:
  explicit BeaconRegionMonitor(BeaconMonitorSettings settings = {}) : settings_(settings) {}

  /// Starts watching; a region with the same identifier is replaced and starts unknown.
  void add(const BeaconRegion& region);
  void remove(const std::string& identifier);

  /// A sighting of `key` with its filtered RSSI: appends the entries it causes.
  void sighting(Date at, const BeaconKey& key, double filteredRssi,
                std::vector<RegionEvent>& events);
  /// Appends the exits due at `now`, in identifier order.
  void tick(Date now, std::vector<RegionEvent>& events);

  bool isInside(const std::string& identifier) const;
  void setSettings(const BeaconMonitorSettings& settings) { settings_ = settings; }

 private:
  struct Pattern {
    Uuid uuid;
    std::optional<std::uint16_t> major;
    std::optional<std::uint16_t> minor;
    auto operator<=>(const Pattern&) const = default;
  };
  struct State {
    BeaconRegion region;
    bool inside = false;
    Date lastSeen{};
  };

  void visit(const Pattern& pattern, Date at, double filteredRssi,
             std::vector<RegionEvent>& events);

  BeaconMonitorSettings settings_;
  std::map<std::string, State> regions_;
  std::map<Pattern, std::vector<std::string>> index_;
};

/// Great-circle distance in metres (haversine, mean Earth radius 6,371,008.8 m).
double haversineMetres(const Coordinate& a, const Coordinate& b);

/// The point `east` and `north` metres from `origin` (a local flat approximation, good to
/// a few centimetres over a few kilometres).
Coordinate offsetCoordinate(const Coordinate& origin, double east, double north);

/// A position fix with its horizontal accuracy in metres.
struct Fix {
  Coordinate coordinate;
  double accuracy = 0.0;
};

struct CircleMonitorSettings {
  /// A new side of the boundary counts once the fixes stay on it this long.
  Seconds dwell{5};
  /// Entry needs the fix this far inside the circle, exit this far outside it:
  /// max(minimumMargin, accuracyFactor x the fix's accuracy), and the inner margin is at
  /// most half the radius so that a small circle can still be entered.
  double minimumMargin = 5.0;
  double accuracyFactor = 1.0;
};

/// Circular region state from position fixes: unknown at first; entry when the fixes stay
/// inside the inner boundary for the dwell time (also from unknown: a device that is
/// already inside hears an entry), exit when they stay beyond the outer one for the dwell
/// time (from unknown: silently outside). A fix between the two boundaries neither counts
/// for a side nor resets the time already spent on one; a fix back on the current side does.
class CircleMonitor {
 public:
  explicit CircleMonitor(CircleMonitorSettings settings = {}) : settings_(settings) {}

  void add(const CircularRegion& region);
  void remove(const std::string& identifier);

  /// The fix at `now` (the last one known; call it at least once a second so that dwell
  /// times end on time): appends the entries and exits due, in identifier order.
  void update(Date now, const Fix& fix, std::vector<RegionEvent>& events);

  bool isInside(const std::string& identifier) const;
  void setSettings(const CircleMonitorSettings& settings) { settings_ = settings; }

 private:
  enum class Side { Unknown, Inside, Outside };
  struct State {
    CircularRegion region;
    Side side = Side::Unknown;
    Side pending = Side::Unknown;
    Date pendingSince{};
  };

  CircleMonitorSettings settings_;
  std::map<std::string, State> regions_;
};

}  // namespace qvl::proximity
