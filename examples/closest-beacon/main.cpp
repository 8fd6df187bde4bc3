// A minimal host: points the SDK at a service (the sandbox's sandbox.json), fetches the
// organization's beacons, places them around the device in a simulated world, watches them
// and prints the closest one.
//
//   closest-beacon <sandbox-dir>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <unistd.h>

#include "quorvel/managers/QVLBeaconManager.h"
#include "quorvel/networking/QVLApiClient.h"
#include "quorvel/platform/Clock.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/MainQueue.h"
#include "quorvel/records/QVLBeacon.h"
#include "quorvel/records/QVLRealm.h"
#include "quorvel/records/QVLToken.h"
#include "quorvel/testing/ManualClock.h"
#include "quorvel/testing/SimulatedWorld.h"

namespace {

class PrintClosest : public QVLBeaconManagerDelegate {
 public:
  bool announced = false;
  void beaconManagerClosestBeaconChangedTo(const std::shared_ptr<QVLBeacon>& beacon) override {
    if (beacon) {
      announced = true;
      std::cout << "closest beacon: " << beacon->name().value_or("(unnamed)") << " ("
                << beacon->uuidString().value_or("") << " " << beacon->major().value_or(0) << "."
                << beacon->minor().value_or(0) << ")\n";
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: closest-beacon <sandbox-dir>\n";
    return 2;
  }
  const std::filesystem::path sandboxDir = argv[1];
  std::ifstream file(sandboxDir / "sandbox.json");
  const qvl::Json info =
      qvl::Json::parse(std::string(std::istreambuf_iterator<char>(file), {})).value_or(nullptr);
  auto text = [&](const char* key) {
    return info.at(key).value_or(nullptr).asString().value_or(std::string());
  };
  const std::filesystem::path storeDir =
      std::filesystem::temp_directory_path() / ("closest-beacon-" + std::to_string(::getpid()));

  // The environment: the service, its pin and CA, a fresh store, and a simulated radio on a
  // clock this program moves itself.
  auto clock = std::make_shared<qvl::ManualClock>();
  qvl::Env env;
  env.clock = clock;
  env.storeDirectory = storeDir;
  env.userDefaultsPath = storeDir / "defaults.json";
  env.trustAnchorsFile = text("ca_file");
  env.apiDomain = text("api_domain");
  env.publicKeyHashes = {text("pin")};
  env.bundleInfo = {{"QuorvelSDK", {{"ApiKey", text("api_key")}}}};
  auto world = qvl::SimulatedWorld::create(env);
  env.locationService = world;
  env.bluetoothCentral = world;
  qvl::Env::configure(std::move(env));
  QVLToken::initWithContent(text("token"))->saveToken();
  QVLApiClient::sharedClient().setEnvironment(QVLApiEnvironmentDev);
  auto mainQueue = qvl::Env::current()->mainQueue;

  // Fetch the beacons with their posts and the posts' periods: a beacon counts once it has
  // a post running now. The completion runs on the request's own thread: it only says that the
  // beacons are stored; this thread then reads them through its own store handle.
  std::mutex mutex;
  std::condition_variable fetched;
  std::optional<std::optional<QVLError>> outcome;
  QVLApiClient::sharedClient().getObjects<QVLBeacon>(std::string("posts.postperiods"), std::nullopt,
                                                     [&](auto, std::optional<QVLError> error) {
                                                       std::lock_guard lock(mutex);
                                                       outcome = std::move(error);
                                                       fetched.notify_all();
                                                     });
  {
    std::unique_lock lock(mutex);
    if (!fetched.wait_for(lock, std::chrono::seconds(30), [&] { return outcome.has_value(); })) {
      std::cerr << "no answer from the service within 30 s\n";
      return 1;
    }
    if (*outcome) {
      std::cerr << "fetch failed: " << (*outcome)->domain << " " << (*outcome)->code << "\n";
      return 1;
    }
  }
  auto store = QVLRealm::realm();
  if (!store) {
    std::cerr << "cannot open the store in " << storeDir << "\n";
    return 1;
  }
  const auto beacons = QVLBeacon::allObjectsInRealm(*store);
  if (beacons.empty()) {
    std::cerr << "the service has no beacons\n";
    return 1;
  }
  std::cout << "fetched " << beacons.size() << " beacons\n";

  // Place them 3, 6, 9, ... metres east of the device: the first is the closest.
  double x = 3;
  for (const auto& beacon : beacons) {
    qvl::SceneBeacon placed;
    placed.id = std::to_string(beacon->beaconId().value_or(0));
    placed.uuid = beacon->uuid();
    placed.major = static_cast<std::uint16_t>(beacon->major().value_or(0));
    placed.minor = static_cast<std::uint16_t>(beacon->minor().value_or(0));
    placed.position = qvl::Coordinate{0, x / 111320.0};  // metres east of (0, 0)
    world->apply(placed);
    x += 3;
  }

  auto printer = std::make_shared<PrintClosest>();
  auto& manager = QVLBeaconManager::sharedManager();
  manager.addDelegate(printer);
  manager.requestLocationAlwaysAuthorization();
  manager.startSearchingForBeacons(beacons);
  for (int second = 0; second < 15 && !printer->announced; ++second) {
    world->advance(1);
    mainQueue->runUntilIdle();
  }
  manager.stopSearchingForBeacons();
  std::filesystem::remove_all(storeDir);
  return printer->announced ? 0 : 1;
}
