// Feeds advertisements through the device backend's handling of BlueZ's device reports (the
// frame decoded from the manufacturer data, the per-beacon tables, a tick every 10,000
// advertisements through the proximity engine with one ranged region) with 100, 1,000 and
// 100,000 distinct beacon identifiers, each run in a process of its own for its peak memory.
// The floor, measured in the same run: decoding the same frames and nothing else.
//
//   bench_device [advertisements]     prints the rates, the peak memory and the ratios line.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "device/Sightings.h"
#include "proximity/ProximityEngine.h"
#include "quorvel/platform/Uuid.h"
#include "support/BenchData.h"
#include "support/TempDir.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace qvl;

constexpr int kPerTick = 10000;

struct Advertisement {
  std::string device;
  std::vector<std::uint8_t> data;
};

std::vector<Advertisement> advertisements(int identifiers) {
  const Uuid uuid = *Uuid::parse(bench::kBeaconsUuid);
  std::vector<Advertisement> out;
  out.reserve(static_cast<std::size_t>(identifiers));
  for (int i = 0; i < identifiers; ++i) {
    proximity::BeaconKey key{uuid, static_cast<std::uint16_t>(i >> 16),
                             static_cast<std::uint16_t>(i & 0xFFFF)};
    char path[64];
    std::snprintf(path, sizeof path, "/org/bluez/hci0/dev_C0_FF_%02X_%02X_%02X_%02X", i >> 24,
                  (i >> 16) & 0xFF, (i >> 8) & 0xFF, i & 0xFF);
    out.push_back({path, proximity::encodeBeaconFrame({key, -59})});
  }
  return out;
}

struct Reports : LocationServiceDelegate {
  std::size_t largest = 0;
  void didRangeBeacons(const std::vector<RangedBeacon>& beacons, const BeaconRegion&) override {
    largest = std::max(largest, beacons.size());
  }
  void didEnterRegion(const Region&) override {}
  void didExitRegion(const Region&) override {}
  void didChangeAuthorization(AuthorizationStatus) override {}
};

double seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Advertisements per second through the backend's handling, the largest ranging report,
// the beacons kept and the evictions.
std::vector<double> backend(int identifiers, int total) {
  const std::vector<Advertisement> ads = advertisements(identifiers);
  test::TempDir directory;
  SimulationSettings rules;
  rules.beaconsNeedAuthorization = false;
  proximity::Engine engine(rules, directory.path() + "/monitored-regions.json");
  auto reports = std::make_shared<Reports>();
  engine.setDelegate(std::weak_ptr<LocationServiceDelegate>(reports));
  engine.startRanging(BeaconRegion::withUuid(*Uuid::parse(bench::kBeaconsUuid), "all"));
  device::Sightings sightings(proximity::kMaxBeacons, 60);
  Date now{};
  const auto start = Clock::now();
  for (int n = 0; n < total; ++n) {
    const Advertisement& ad = ads[static_cast<std::size_t>(n % identifiers)];
    sightings.setFrame(ad.device,
                       proximity::parseBeaconFrame(proximity::kIBeaconCompanyId, ad.data));
    sightings.heard(ad.device, static_cast<std::int16_t>(-60 - n % 30));
    if ((n + 1) % kPerTick == 0) {
      now += std::chrono::seconds(1);
      engine.tick(now, sightings.take(), std::nullopt);
      for (auto& delivery : engine.takeOutbox()) delivery();
    }
  }
  const double rate = total / seconds(start);
  const device::Sightings::Stats stats = sightings.stats();
  return {rate, static_cast<double>(reports->largest), static_cast<double>(stats.beacons),
          static_cast<double>(stats.evicted)};
}

std::vector<double> decodeOnly(int identifiers, int total) {
  const std::vector<Advertisement> ads = advertisements(identifiers);
  int frames = 0;
  const auto start = Clock::now();
  for (int n = 0; n < total; ++n) {
    const Advertisement& ad = ads[static_cast<std::size_t>(n % identifiers)];
    frames += proximity::parseBeaconFrame(proximity::kIBeaconCompanyId, ad.data).has_value();
  }
  const double rate = total / seconds(start);
  if (frames != total) std::exit(1);
  return {rate};
}

}  // namespace

int main(int argc, char** argv) {
  const int total = argc > 1 ? std::atoi(argv[1]) : 300000;
  if (total < kPerTick) {
    std::fprintf(stderr, "bench_device: at least %d advertisements\n", kPerTick);
    return 1;
  }
  std::printf("advertisements per run: %d, a tick every %d, cap %zu beacons\n", total, kPerTick,
              proximity::kMaxBeacons);
  std::string ratios = "ratios:";
  for (int identifiers : {100, 1000, 100000}) {
    bench::VariantRun run = bench::runInChild([&] { return backend(identifiers, total); });
    bench::VariantRun base = bench::runInChild([&] { return decodeOnly(identifiers, total); });
    std::printf(
        "%6d identifiers: %10.0f ads/s (peak %.1f MiB; largest report %.0f, kept %.0f, "
        "evicted %.0f); floor, decoding only: %10.0f ads/s (peak %.1f MiB)\n",
        identifiers, run.figures[0], run.peakMiB, run.figures[1], run.figures[2], run.figures[3],
        base.figures[0], base.peakMiB);
    char ratio[64];
    std::snprintf(ratio, sizeof ratio, " floor/device@%d=%.2f", identifiers,
                  base.figures[0] / run.figures[0]);
    ratios += ratio;
  }
  std::printf("%s\n", ratios.c_str());
}
