#include "quorvel/testing/SimulatedWorld.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <utility>

#include "proximity/ProximityEngine.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/Log.h"
#include "quorvel/platform/MainQueue.h"
#include "quorvel/testing/ManualClock.h"

namespace qvl {

namespace {

using proximity::Seconds;

constexpr const char* kRegionsFile = "monitored-regions.json";
constexpr double kDefaultAccuracy = 5.0;

Date::duration toDuration(double seconds) {
  return std::chrono::duration_cast<Date::duration>(Seconds(seconds));
}

struct Beacon {
  std::string id;
  proximity::BeaconFrame frame;
  std::optional<Coordinate> position;
  std::optional<double> rssi;
  bool silent = false;
};

struct Walk {
  Coordinate from;
  Coordinate to;
  Date start;
  Date end;
};

}  // namespace

struct SimulatedWorld::Private {
  Private(const SimulationSettings& settings, std::string regionsPath,
          std::shared_ptr<MainQueue> mainQueue)
      : engine(settings, std::move(regionsPath), std::move(mainQueue)) {}

  std::shared_ptr<Clock> clock;  // read without the lock: set once, before any tick
  std::weak_ptr<SimulatedWorld> self;
  mutable std::mutex mutex;
  proximity::Engine engine;

  std::vector<Beacon> beacons;
  proximity::Fix device{{0, 0}, kDefaultAccuracy};
  std::optional<Walk> walk;
  AuthorizationStatus answer = AuthorizationStatus::AuthorizedAlways;

  std::vector<SceneStep> steps;
  std::size_t nextStep = 0;
  Date sceneStart{};

  std::function<void(const std::string&)> markerHandler;
  Clock::TimerId tickTimer = 0;

  Beacon* findBeacon(const std::string& id) {
    auto it = std::find_if(beacons.begin(), beacons.end(),
                           [&](const Beacon& beacon) { return beacon.id == id; });
    return it == beacons.end() ? nullptr : &*it;
  }

  void apply(const SceneStep::Action& action, Date now) {
    std::visit([&](const auto& a) { applyOne(a, now); }, action);
  }

  void applyOne(const SceneDeviceMove& move, Date now) {
    if (move.accuracy) device.accuracy = *move.accuracy;
    if (move.seconds > 0) {
      walk = Walk{device.coordinate, move.position, now, now + toDuration(move.seconds)};
    } else {
      walk.reset();
      device.coordinate = move.position;
    }
  }

  void applyOne(const SceneBeacon& change, Date) {
    Beacon* beacon = findBeacon(change.id);
    if (!beacon) {
      if (!change.uuid || !change.major || !change.minor) {
        log(LogLevel::warning,
            "simulated beacon \"" + change.id + "\" needs a UUID, major and minor");
        return;
      }
      beacon = &beacons.emplace_back();
      beacon->id = change.id;
    }
    proximity::BeaconKey& key = beacon->frame.key;
    key.uuid = change.uuid.value_or(key.uuid);
    key.major = change.major.value_or(key.major);
    key.minor = change.minor.value_or(key.minor);
    beacon->frame.measuredPower = change.measuredPower.value_or(beacon->frame.measuredPower);
    if (change.position) {
      beacon->position = change.position;
      beacon->rssi.reset();
      beacon->silent = false;
    }
    if (change.rssi) {
      beacon->rssi = change.rssi;
      beacon->silent = false;
    }
    if (change.silent) beacon->silent = true;
  }

  void applyOne(const SceneRemoveBeacon& remove, Date) {
    std::erase_if(beacons, [&](const Beacon& beacon) { return beacon.id == remove.id; });
  }

  void applyOne(BluetoothState state, Date) { engine.setBluetooth(state); }

  void applyOne(AuthorizationStatus status, Date) {
    answer = status;
    if (engine.authorization() != AuthorizationStatus::NotDetermined ||
        status == AuthorizationStatus::NotDetermined) {
      engine.setAuthorization(status);
    }
  }

  void applyOne(const SceneMarker& marker, Date) {
    engine.queue([handler = markerHandler, text = marker.text] {
      if (handler) handler(text);
    });
  }

  void moveAlongWalk(Date now) {
    if (!walk) return;
    double fraction =
        std::clamp(Seconds(now - walk->start) / Seconds(walk->end - walk->start), 0.0, 1.0);
    device.coordinate = {
        walk->from.latitude + fraction * (walk->to.latitude - walk->from.latitude),
        walk->from.longitude + fraction * (walk->to.longitude - walk->from.longitude)};
    if (fraction >= 1.0) walk.reset();
  }

  // The RSSI at which the device's radio receives the beacon now, if it does.
  std::optional<double> signal(const Beacon& beacon) const {
    if (beacon.silent) return std::nullopt;
    if (beacon.rssi || !beacon.position) return beacon.rssi;
    return engine.pathLoss().rssiAt(proximity::haversineMetres(device.coordinate, *beacon.position),
                                    beacon.frame.measuredPower);
  }

  void tick(Date now) {
    while (nextStep < steps.size() && sceneStart + toDuration(steps[nextStep].at) <= now) {
      apply(steps[nextStep++].action, now);
    }
    moveAlongWalk(now);
    std::vector<proximity::Heard> heard;
    for (const Beacon& beacon : beacons) {
      std::optional<double> rssi = signal(beacon);
      if (!rssi) continue;
      // The advertisement a radio would receive, read as a device backend reads it.
      std::optional<proximity::BeaconFrame> frame = proximity::parseBeaconFrame(
          proximity::kIBeaconCompanyId, proximity::encodeBeaconFrame(beacon.frame));
      heard.push_back({*frame, *rssi});
    }
    engine.tick(now, heard, device);
  }
};

std::shared_ptr<SimulatedWorld> SimulatedWorld::create(SimulationSettings settings,
                                                       std::string storeDirectory) {
  Env env = *Env::current();
  if (!storeDirectory.empty()) env.storeDirectory = std::move(storeDirectory);
  return create(env, settings);
}

std::shared_ptr<SimulatedWorld> SimulatedWorld::create(const Env& env,
                                                       SimulationSettings settings) {
  std::shared_ptr<SimulatedWorld> world(new SimulatedWorld(settings, env));
  world->d_->self = world;
  world->scheduleTick();
  return world;
}

SimulatedWorld::SimulatedWorld(SimulationSettings settings, const Env& env) {
  const auto completed = std::make_shared<const Env>(env.completed());
  d_ = std::make_unique<Private>(
      settings,
      (std::filesystem::path(completed->resolvedStoreDirectory()) / kRegionsFile).string(),
      completed->mainQueue);
  d_->clock = completed->clock;
}

// The clock is never called with the world's lock held: a clock may hold its own lock while
// it runs a tick, which takes the world's.
SimulatedWorld::~SimulatedWorld() {
  Clock::TimerId timer;
  {
    std::lock_guard lock(d_->mutex);
    timer = d_->tickTimer;
  }
  d_->clock->cancel(timer);
}

void SimulatedWorld::scheduleTick() {
  // The ticks run in the context in force here, without keeping it alive.
  auto tick = [weak = d_->self] {
    if (auto world = weak.lock()) world->tick();
  };
  Clock::TimerId timer =
      d_->clock->runAfter(std::chrono::seconds(1), inCurrentContext(tick, /*weakly=*/true));
  std::lock_guard lock(d_->mutex);
  d_->tickTimer = timer;
}

// Runs `change` on the private state under the lock, then delivers what it queued.
template <typename Change>
auto SimulatedWorld::locked(Change&& change) const {
  std::vector<std::function<void()>> outbox;
  if constexpr (std::is_void_v<decltype(change(*d_))>) {
    {
      std::lock_guard lock(d_->mutex);
      change(*d_);
      outbox = d_->engine.takeOutbox();
    }
    d_->engine.deliver(std::move(outbox));
  } else {
    std::lock_guard lock(d_->mutex);
    return change(*d_);
  }
}

void SimulatedWorld::tick() {
  locked([](Private& d) { d.tick(d.clock->now()); });
  scheduleTick();
}

void SimulatedWorld::play(const Scene& scene) {
  locked([&](Private& d) {
    Date now = d_->clock->now();
    d.engine.configure(scene.settings);
    d.steps = scene.timeline;
    d.nextStep = 0;
    d.sceneStart = now;
    while (d.nextStep < d.steps.size() && d.steps[d.nextStep].at <= 0) {
      d.apply(d.steps[d.nextStep++].action, now);
    }
  });
}

bool SimulatedWorld::sceneFinished() const {
  return locked([](Private& d) { return d.nextStep == d.steps.size(); });
}

void SimulatedWorld::apply(const SceneStep::Action& action) {
  locked([&](Private& d) { d.apply(action, d_->clock->now()); });
}

void SimulatedWorld::advance(double seconds) {
  auto manual = std::dynamic_pointer_cast<ManualClock>(d_->clock);
  if (!manual) throw std::logic_error("SimulatedWorld::advance needs a ManualClock");
  manual->advance(std::chrono::duration_cast<std::chrono::milliseconds>(Seconds(seconds)));
}

void SimulatedWorld::setMarkerHandler(std::function<void(const std::string&)> handler) {
  locked([&](Private& d) { d.markerHandler = std::move(handler); });
}

Coordinate SimulatedWorld::devicePosition() const {
  return locked([](Private& d) { return d.device.coordinate; });
}

void SimulatedWorld::setDelegate(std::weak_ptr<LocationServiceDelegate> delegate) {
  locked([&](Private& d) { d.engine.setDelegate(std::move(delegate)); });
}

std::vector<Region> SimulatedWorld::monitoredRegions() const {
  return locked([](Private& d) { return d.engine.monitoredRegions(); });
}

void SimulatedWorld::startMonitoring(const Region& region) {
  locked([&](Private& d) { d.engine.startMonitoring(region); });
}

void SimulatedWorld::stopMonitoring(const Region& region) {
  locked([&](Private& d) { d.engine.stopMonitoring(region); });
}

void SimulatedWorld::startRanging(const BeaconRegion& region) {
  locked([&](Private& d) { d.engine.startRanging(region); });
}

void SimulatedWorld::stopRanging(const BeaconRegion& region) {
  locked([&](Private& d) { d.engine.stopRanging(region); });
}

std::vector<BeaconRegion> SimulatedWorld::rangedRegions() const {
  return locked([](Private& d) { return d.engine.rangedRegions(); });
}

AuthorizationStatus SimulatedWorld::authorizationStatus() const {
  return locked([](Private& d) { return d.engine.authorization(); });
}

void SimulatedWorld::requestAlwaysAuthorization() {
  locked([](Private& d) {
    if (d.engine.authorization() == AuthorizationStatus::NotDetermined) {
      d.engine.setAuthorization(d.answer);
    }
  });
}

BluetoothState SimulatedWorld::state() const {
  return locked([](Private& d) { return d.engine.bluetooth(); });
}

void SimulatedWorld::setDelegate(std::weak_ptr<BluetoothCentralDelegate> delegate) {
  locked([&](Private& d) { d.engine.setDelegate(std::move(delegate)); });
}

}  // namespace qvl
