// qvl-demo: a host application on the SDK's public API, run against qvl-sandbox. It walks a
// simulated guest through a mall, prints what the host would show, then asks the sandbox
// what arrived and checks it against what the SDK should have sent. See --help.

#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "demo/Checks.h"
#include "demo/SandboxControl.h"
#include "quorvel/managers/QVLAnalyticsManager.h"
#include "quorvel/managers/QVLBeaconManager.h"
#include "quorvel/managers/QVLInboxManager.h"
#include "quorvel/managers/QVLPushManager.h"
#include "quorvel/managers/QVLSubscriptionManager.h"
#include "quorvel/networking/QVLApiClient.h"
#include "quorvel/platform/Application.h"
#include "quorvel/platform/Clock.h"
#include "quorvel/platform/Counters.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/MainQueue.h"
#include "quorvel/platform/NotificationCenter.h"
#include "quorvel/proximity/Scene.h"
#include "quorvel/records/QVLBeacon.h"
#include "quorvel/records/QVLBeaconCategory.h"
#include "quorvel/records/QVLBeaconView.h"
#include "quorvel/records/QVLGeofence.h"
#include "quorvel/records/QVLGuest.h"
#include "quorvel/records/QVLOrganization.h"
#include "quorvel/records/QVLPost.h"
#include "quorvel/records/QVLPostView.h"
#include "quorvel/records/QVLPrize.h"
#include "quorvel/records/QVLRealm.h"
#include "quorvel/records/QVLShop.h"
#include "quorvel/records/QVLShopCategory.h"
#include "quorvel/records/QVLToken.h"
#include "quorvel/testing/ManualClock.h"
#include "quorvel/testing/SimulatedWorld.h"

namespace {

using nlohmann::json;
using namespace std::chrono_literals;
using qvl::demo::ClosedPostView;
using qvl::demo::Expectations;
using qvl::demo::SandboxControl;

constexpr const char* kUsage = R"(usage: qvl-demo --sandbox-dir DIR [options]
  --sandbox-dir DIR   the state directory of a running qvl-sandbox (its sandbox.json)
  --scene FILE        the walk to replay (default: the shipped mall-walk.json)
  --store-dir DIR     the SDK's store directory, empty or new (default: a temporary one,
                      removed afterwards)
  --offline-for S     real seconds the sandbox refuses connections at the scene's
                      "offline-start" marker (default 3)
)";

// The sandbox refuses connections for this long once the scene goes offline; the walk
// reaches the view that must be kept well within it (a few scene seconds take milliseconds).
constexpr double kDefaultOfflineSeconds = 3;
// The demo's device token (raw bytes, as a phone's push service hands them over).
const std::string kDeviceToken = "\x5e\x1f\x0a\x9c\x33\x70\xd2\x41\x8b\x06\xfe\x12\x77\xc4\x2d\x90";

// The timeline: "[t=  12s] event            what the host would show". Any thread may print
// (the SDK's log sink runs on its own threads).
class Timeline {
 public:
  explicit Timeline(std::shared_ptr<qvl::Clock> clock) : clock_(std::move(clock)) {
    start_ = clock_->now();
  }
  void restart() { start_ = clock_->now(); }
  double seconds() const { return std::chrono::duration<double>(clock_->now() - start_).count(); }
  void print(std::string_view event, std::string_view text) {
    std::lock_guard lock(mutex_);
    std::printf("[t=%4.0fs] %-18.*s %.*s\n", seconds(), static_cast<int>(event.size()),
                event.data(), static_cast<int>(text.size()), text.data());
    std::fflush(stdout);
  }

 private:
  std::shared_ptr<qvl::Clock> clock_;
  qvl::Date start_;
  std::mutex mutex_;
};

// Requests of the SDK may still be running on their threads: leave without tearing down the
// singletons under them.
[[noreturn]] void fail(const std::string& message) {
  std::cout.flush();
  std::fflush(stdout);
  std::cerr << "qvl-demo: " << message << std::endl;
  std::_Exit(1);
}

// Polls `done` until it holds or `limit` (real time) has passed.
bool waitUntil(std::chrono::milliseconds limit, const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(20ms);
  }
  return true;
}

// Waits, bounded, for an SDK completion that fulfils a promise.
template <class T>
T await(std::future<T>& future, const std::string& what) {
  if (future.wait_for(15s) != std::future_status::ready) fail(what + ": no completion within 15 s");
  return future.get();
}

std::string describe(const std::optional<QVLError>& error) {
  if (!error) return "ok";
  return error->domain + " " + std::to_string(error->code) +
         (error->userInfo ? " " + error->userInfo->dump() : "");
}

std::string nameOf(const std::optional<std::string>& name) { return name.value_or("(unnamed)"); }

// "name" in quotes, appended piecewise ("literal" + std::string trips GCC 12's -Wrestrict).
std::string quoted(const std::optional<std::string>& name) {
  std::string out = "\"";
  out.append(nameOf(name)).append("\"");
  return out;
}

template <class T>
std::size_t keptCount() {
  auto realm = QVLRealm::realm();
  return realm ? realm->objects<T>().size() : 0;
}

std::size_t keptViews() { return keptCount<QVLPostView>() + keptCount<QVLBeaconView>(); }

// The host: what a phone app would show for the beacon manager's calls, and what the guest
// does on the way. Runs on the main queue only.
class Host : public QVLBeaconManagerDelegate {
 public:
  Host(Timeline& timeline, Expectations& expected) : timeline_(timeline), expected_(expected) {}

  void beaconManagerDidChangeAuthorizationStatus(qvl::AuthorizationStatus status) override {
    static const char* names[] = {"not determined", "restricted", "denied", "always",
                                  "when in use"};
    timeline_.print("location",
                    std::string("authorization: ") + names[static_cast<int>(status) % 5]);
  }
  void beaconManagerDidChangeBluetoothState(qvl::BluetoothState state) override {
    timeline_.print("bluetooth", state == qvl::BluetoothState::PoweredOn
                                     ? "powered on: beacons are heard again"
                                 : state == qvl::BluetoothState::PoweredOff
                                     ? "powered off: open beacon views are closed and sent"
                                     : "state " + std::to_string(static_cast<int>(state)));
  }
  void beaconManagerDidEnterRegionWithBeacon(const std::shared_ptr<QVLBeacon>& beacon) override {
    const std::string message = beacon->message().value_or("");
    timeline_.print("beacon entered",
                    label(*beacon) + (message.empty() ? "" : ": \"" + message + "\""));
  }
  void beaconManagerDidEnterRegion(const qvl::BeaconRegion& region) override {
    timeline_.print("region entered", region.identifier);
  }
  void beaconManagerDidExitRegionWithBeacon(const std::shared_ptr<QVLBeacon>& beacon) override {
    timeline_.print("beacon left", label(*beacon) + ": its beacon view is closed and sent");
  }
  void beaconManagerClosestBeaconChangedTo(const std::shared_ptr<QVLBeacon>& beacon) override {
    close(beaconSlot_);
    if (!beacon) {
      timeline_.print("closest beacon", "none: nothing to show");
      return;
    }
    timeline_.print("closest beacon", label(*beacon));
    auto posts = beacon->activePosts();
    if (!posts.empty()) open(beaconSlot_, posts.at(0));
    // The nearest beacon moved on inside a shop: the guest keeps the post shown and
    // follows the shop.
    if (previousClosest_ && *previousClosest_ != beacon->beaconId() && !collected_ &&
        beaconSlot_.post) {
      collected_ = true;
      collect(beaconSlot_.post);
      auto shops = beacon->shops();
      if (!shops.empty()) subscribe(shops.at(0));
    }
    previousClosest_ = beacon->beaconId();
  }
  void beaconManagerDidEnterRegionWithGeofence(
      const std::shared_ptr<QVLGeofence>& geofence) override {
    if (!geofence) return;
    const std::string message = geofence->message().value_or("");
    timeline_.print("geofence entered",
                    nameOf(geofence->name()) + (message.empty() ? "" : ": \"" + message + "\""));
    auto posts = geofence->activePosts();
    if (!posts.empty()) open(geofenceSlot_, posts.at(0));
  }
  void beaconManagerDidExitRegionWithGeofence(
      const std::shared_ptr<QVLGeofence>& geofence) override {
    timeline_.print("geofence left", geofence ? nameOf(geofence->name()) : "(gone)");
    close(geofenceSlot_);
  }

  // Closes whatever is still on screen (the walk is over).
  void closeAll() {
    close(beaconSlot_);
    close(geofenceSlot_);
  }

 private:
  struct Slot {
    std::shared_ptr<QVLPost> post;
    double openedAt = 0;
  };

  static std::string label(const QVLBeacon& beacon) {
    return nameOf(beacon.name()) + " (" + std::to_string(beacon.major().value_or(0)) + "/" +
           std::to_string(beacon.minor().value_or(0)) + ")";
  }

  void open(Slot& slot, const std::shared_ptr<QVLPost>& post) {
    QVLAnalyticsManager::sharedManager().startPostViewOfPost(post);
    slot = {post, timeline_.seconds()};
    timeline_.print("post shown", quoted(post->name()) + " (post view opened)");
  }

  void close(Slot& slot) {
    if (!slot.post) return;
    QVLAnalyticsManager::sharedManager().finishPostViewOfPost(slot.post);
    const double now = timeline_.seconds();
    expected_.postViews.push_back({*slot.post->postId(), slot.openedAt, now});
    timeline_.print("post closed", quoted(slot.post->name()) + " after " +
                                       std::to_string(std::lround(now - slot.openedAt)) +
                                       " s (post view closed)");
    slot = {};
  }

  void collect(const std::shared_ptr<QVLPost>& post) {
    auto& inbox = QVLInboxManager::sharedManager();
    inbox.addPost(post);
    timeline_.print("inbox", quoted(post->name()) + " added: " +
                                 std::to_string(inbox.numberOfUnreadPosts()) + " unread");
    inbox.markPostAsRead(post, true);
    inbox.markPostAsSaved(post, true);
    timeline_.print("inbox",
                    "marked read and saved: " + std::to_string(inbox.numberOfUnreadPosts()) +
                        " unread, " + std::to_string(inbox.savedPosts().size()) + " saved");
    expected_.inboxPostId = post->postId();
  }

  void subscribe(const std::shared_ptr<QVLShop>& shop) {
    auto& subscriptions = QVLSubscriptionManager::sharedManager();
    subscriptions.subscribeToShop(shop);
    const bool subscribed = subscriptions.isShopSubscribedTo(shop);
    timeline_.print("subscription",
                    nameOf(shop->name()) + (subscribed ? " followed" : " NOT followed (no guest)"));
    if (subscribed) expected_.subscribedShopId = shop->shopId();
  }

  Timeline& timeline_;
  Expectations& expected_;
  Slot beaconSlot_;
  Slot geofenceSlot_;
  std::optional<std::optional<std::int64_t>> previousClosest_;
  bool collected_ = false;
};

// Fetches one record class and answers how many records the answer stored.
template <class T>
std::size_t fetch(Timeline& timeline, const std::optional<std::string>& includes) {
  auto done = std::make_shared<std::promise<std::pair<std::size_t, std::optional<QVLError>>>>();
  auto future = done->get_future();
  QVLApiClient::sharedClient().getObjects<T>(
      includes, std::nullopt,
      [done](std::optional<qvl::Results<T>> records, std::optional<QVLError> error) {
        // Runs on the request's own queue; only the count leaves it.
        done->set_value({records ? records->size() : 0, std::move(error)});
      });
  auto [count, error] = await(future, "GET " + T::apiResourcePlural());
  if (error) fail("GET " + T::apiResourcePlural() + " failed: " + describe(error));
  timeline.print("fetched", std::to_string(count) + " " + T::apiResourcePlural() +
                                (includes ? " (with " + *includes + ")" : ""));
  return count;
}

// The installed scene, or the source tree's when this build was never installed.
std::string defaultScene() {
  for (const char* candidate : {QVL_DEMO_INSTALLED_SCENE, QVL_DEMO_SOURCE_SCENE}) {
    if (std::filesystem::exists(candidate)) return candidate;
  }
  return QVL_DEMO_INSTALLED_SCENE;
}

struct Options {
  std::string sandboxDir;
  std::string scene = defaultScene();
  std::string storeDir;
  double offlineSeconds = kDefaultOfflineSeconds;
};

Options parseOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string_view flag = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) fail(std::string(flag) + " needs a value\n" + kUsage);
      return argv[++i];
    };
    if (flag == "--help" || flag == "-h") {
      std::cout << kUsage;
      std::exit(0);
    } else if (flag == "--sandbox-dir") {
      options.sandboxDir = value();
    } else if (flag == "--scene") {
      options.scene = value();
    } else if (flag == "--store-dir") {
      options.storeDir = value();
    } else if (flag == "--offline-for") {
      try {
        options.offlineSeconds = std::stod(value());
      } catch (const std::logic_error&) {
        fail("bad value for --offline-for");
      }
    } else {
      fail("unknown option " + std::string(flag) + "\n" + kUsage);
    }
  }
  if (options.sandboxDir.empty()) fail(std::string("--sandbox-dir is required\n") + kUsage);
  if (options.offlineSeconds <= 0 || options.offlineSeconds > 60) {
    fail("--offline-for must be in (0, 60]");
  }
  return options;
}

// A fresh store directory: the one given (new or empty) or a temporary one.
std::string freshStoreDirectory(const Options& options, bool& temporary) {
  namespace fs = std::filesystem;
  temporary = options.storeDir.empty();
  if (!temporary) {
    if (fs::exists(options.storeDir) && !fs::is_empty(options.storeDir)) {
      fail("--store-dir " + options.storeDir + " is not empty; the demo starts from a fresh store");
    }
    fs::create_directories(options.storeDir);
    // The library refuses a store folder that group or others can write to.
    std::error_code ignored;  // a folder it cannot change is refused by the store, by name
    fs::permissions(options.storeDir, fs::perms::owner_all, fs::perm_options::replace, ignored);
    return options.storeDir;
  }
  std::string pattern = (fs::temp_directory_path() / "qvl-demo-XXXXXX").string();
  if (!mkdtemp(pattern.data())) fail("cannot make a temporary store directory");
  return pattern;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);

  json sandbox;
  {
    std::ifstream file(options.sandboxDir + "/sandbox.json");
    if (!file)
      fail("cannot read " + options.sandboxDir + "/sandbox.json (is qvl-sandbox running?)");
    sandbox = json::parse(file, nullptr, false);
    for (const char* key : {"api_domain", "api_key", "token", "control_token", "pin", "ca_file"}) {
      if (!sandbox.is_object() || !sandbox.contains(key) || !sandbox[key].is_string()) {
        fail(options.sandboxDir + "/sandbox.json lacks \"" + key + "\"");
      }
    }
  }
  qvl::Scene scene;
  try {
    scene = qvl::Scene::load(options.scene);
  } catch (const qvl::SceneError& error) {
    fail(error.what());
  }
  bool temporaryStore = false;
  const std::string storeDir = freshStoreDirectory(options, temporaryStore);

  // The environment: a manual clock so that the walk runs faster than real time, the
  // main queue driven by this thread, the sandbox as the service.
  const auto start = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  auto clock = std::make_shared<qvl::ManualClock>(qvl::Date(start));
  auto mainQueue = std::make_shared<qvl::MainQueue>();
  auto timeline = std::make_shared<Timeline>(clock);
  // The host's own application object, so that it can show the badge.
  auto application = std::make_shared<qvl::StandardApplication>();
  std::shared_ptr<qvl::SimulatedWorld> world;
  {
    qvl::Env env;
    env.clock = clock;
    env.application = application;
    env.mainQueue = mainQueue;
    env.storeDirectory = storeDir;
    env.userDefaultsPath = storeDir + "/user-defaults.json";
    env.apiDomain = sandbox["api_domain"];
    env.publicKeyHashes = {sandbox["pin"].get<std::string>()};
    env.trustAnchorsFile = sandbox["ca_file"];
    env.bundleInfo = {
        {"CFBundleShortVersionString", "1.0"},
        {"QuorvelSDK",
         {{"ApiKey", sandbox["api_key"].get<std::string>()}, {"AutoUpdateAppIconBadge", true}}}};
    env.logSink = [timeline](qvl::LogLevel, std::string_view line) {
      timeline->print("sdk log", line);
    };
    world = qvl::SimulatedWorld::create(env);
    env.locationService = world;
    env.bluetoothCentral = world;
    qvl::Env::configure(std::move(env));
  }
  // This thread becomes the main queue's thread.
  mainQueue->async([] {});
  mainQueue->runUntilIdle();

  const std::string sandboxUrl = "https://dev." + sandbox["api_domain"].get<std::string>();
  SandboxControl control(sandboxUrl, sandbox["control_token"]);
  // Requests from an earlier run of the same sandbox are not this walk's.
  std::int64_t firstSequence = 0;
  {
    auto before = control.get("/_sandbox/requests");
    if (!before.ok()) fail("cannot reach " + sandboxUrl + "/_sandbox/requests: " + before.error);
    for (const json& entry : before.body)
      firstSequence = std::max(firstSequence, entry.value("seq", std::int64_t{0}));
  }

  Expectations expected;
  expected.deviceTokenHex = QVLPushManager::stringFromDeviceToken(kDeviceToken);
  auto host = std::make_shared<Host>(*timeline, expected);
  // The hook runs once per inbox change; show only what changes on screen.
  application->setBadgeHook([timeline, shown = std::make_shared<int>(-1)](int number) {
    if (number != *shown) timeline->print("badge", "icon badge " + std::to_string(number));
    *shown = number;
  });

  timeline->print("start", "store " + storeDir + ", service " + sandboxUrl + "/v8");
  QVLToken::initWithContent(sandbox["token"].get<std::string>())->saveToken();
  QVLApiClient::sharedClient().setEnvironment(QVLApiEnvironmentDev);  // also pins the sandbox
  application->didBecomeActive();
  timeline->print("lifecycle", "became active");

  // The organization's records.
  expected.records += fetch<QVLOrganization>(*timeline, std::nullopt);
  expected.records += fetch<QVLShopCategory>(*timeline, std::nullopt);
  expected.records += fetch<QVLPost>(*timeline, "postperiods,postfields,thumbnail");
  expected.records += fetch<QVLShop>(*timeline, "beacons");
  expected.records += fetch<QVLBeaconCategory>(*timeline, std::nullopt);
  expected.records += fetch<QVLBeacon>(*timeline, "posts");
  expected.records += fetch<QVLGeofence>(*timeline, "posts");
  expected.records += fetch<QVLPrize>(*timeline, std::nullopt);
  expected.records += fetch<QVLGuest>(*timeline, std::nullopt);
  auto realm = QVLRealm::realm();
  if (!realm) fail("the store at " + storeDir + " cannot be opened");
  auto guests = realm->objects<QVLGuest>();
  if (guests.empty()) fail("the service sent no guest for the token");
  expected.guestId = guests.at(0)->guestId().value_or(0);
  timeline->print("guest", guests.at(0)->firstName().value_or("") + " (guest " +
                               std::to_string(expected.guestId) + "), balance " +
                               std::to_string(guests.at(0)->balance().value_or(0)));

  // The push endpoint.
  {
    auto done = std::make_shared<std::promise<std::optional<QVLError>>>();
    auto future = done->get_future();
    QVLPushManager::createEndpointWithDeviceToken(
        kDeviceToken, [done](std::optional<QVLError> error) { done->set_value(std::move(error)); });
    auto error = await(future, "POST endpoints");
    expected.endpointId = QVLPushManager::endpointId();
    timeline->print("push", error ? "registration failed: " + describe(error)
                                  : "endpoint " + std::to_string(expected.endpointId) +
                                        " registered for device token " + expected.deviceTokenHex);
  }

  // Watch every beacon and geofence of the organization.
  auto& beacons = QVLBeaconManager::sharedManager();
  beacons.addDelegate(host);
  beacons.requestLocationAlwaysAuthorization();
  auto beaconRecords = realm->objects<QVLBeacon>().snapshot();
  for (const auto& beacon : beaconRecords) expected.watchedBeaconIds.insert(*beacon->beaconId());
  beacons.startSearchingForBeacons(beaconRecords);
  auto geofences = realm->objects<QVLGeofence>().snapshot();
  for (const auto& geofence : geofences) beacons.startSearchingForGeofence(geofence);
  timeline->print("watching", std::to_string(beaconRecords.size()) + " beacons, " +
                                  std::to_string(geofences.size()) + " geofences");
  auto inboxObservation = qvl::NotificationCenter::defaultCenter().addObserver(
      QVLInboxManager::kDidUpdateInboxNotification, nullptr,
      [timeline](const qvl::Notification&) { timeline->print("notification", "inbox updated"); });

  // Markers of the scene: the network goes away and comes back.
  bool offlineFailed = false;
  world->setMarkerHandler([&](const std::string& marker) {
    if (marker == "offline-start") {
      auto answer = control.post("/_sandbox/faults", {{"offline_for", options.offlineSeconds}});
      // The sandbox answers, then closes its listener: wait until connections are refused.
      const bool refused =
          answer.ok() && waitUntil(2s, [&] { return !control.get("/_sandbox/faults").reached; });
      offlineFailed = !refused;
      expected.offlineFrom = timeline->seconds();
      timeline->print("network", refused ? "offline: the sandbox refuses connections"
                                         : "could not take the sandbox offline: " + answer.error);
    } else if (marker == "offline-end") {
      expected.offlineUntil = timeline->seconds();
      waitUntil(5s, [] { return keptViews() > 0; });
      expected.viewsKeptOffline = keptViews();
      timeline->print("views kept", std::to_string(keptCount<QVLPostView>()) + " post view(s), " +
                                        std::to_string(keptCount<QVLBeaconView>()) +
                                        " beacon view(s) in the store, waiting for the network");
      const auto limit = std::chrono::milliseconds(std::lround(options.offlineSeconds * 1000)) + 5s;
      const bool back = waitUntil(limit, [&] { return control.get("/_sandbox/faults").ok(); });
      timeline->print("network", back ? "online again" : "the sandbox is still unreachable");
      application->didBecomeActive();
      timeline->print("lifecycle", "became active: kept views are sent in one batch");
    } else {
      timeline->print("marker", marker);
    }
  });

  timeline->restart();
  world->play(scene);
  mainQueue->runUntilIdle();
  // The walk, one simulated second at a time; bounded by the scene's length.
  const double lastStep = scene.timeline.empty() ? 0 : scene.timeline.back().at;
  while (!world->sceneFinished() && timeline->seconds() <= lastStep + 1) {
    world->advance(1.0);
    mainQueue->runUntilIdle();
  }
  expected.sceneSeconds = timeline->seconds();

  // The guest leaves: stop watching, close what is on screen, go to the background.
  beacons.stopSearchingForBeacons();
  for (const auto& geofence : geofences) beacons.stopSearchingForGeofence(geofence);
  host->closeAll();
  mainQueue->runUntilIdle();
  timeline->print("watching", "stopped");
  application->didEnterBackground();
  timeline->print("lifecycle", "entered background: inbox and subscriptions are synchronised");
  const bool flushed = application->waitForBackgroundTasks(15s);
  timeline->print("lifecycle",
                  flushed ? "background tasks done" : "background tasks still running");
  waitUntil(5s, [] { return keptViews() == 0; });
  expected.viewsStillKept = keptViews();

  // What arrived. Views are sent without a completion for the host, so poll (bounded) until
  // every check passes or the time is up.
  std::vector<qvl::demo::CheckResult> results;
  json requests;
  waitUntil(10s, [&] {
    auto log = control.get("/_sandbox/requests?since=" + std::to_string(firstSequence));
    auto state = control.get("/_sandbox/state");
    if (!log.ok() || !state.ok()) {
      results = {{"records", false, "", "cannot read the sandbox: " + log.error + state.error}};
      return false;
    }
    requests = log.body;
    results = qvl::demo::checkArrivals(expected, requests, state.body);
    for (const auto& result : results) {
      if (!result.ok) return false;
    }
    return true;
  });
  std::size_t sent = 0;
  for (const json& request : requests) {
    if (request.value("path", "").rfind("/v8/", 0) == 0) ++sent;
  }
  timeline->print("sandbox", std::to_string(sent) + " requests of this walk arrived");
  {
    const qvl::Counters counters = qvl::countersSnapshot();
    std::string line;
#define QVL_DEMO_COUNTER(name) \
  line += std::string(line.empty() ? "" : " ") + #name "=" + std::to_string(counters.name);
    QVL_COUNTERS(QVL_DEMO_COUNTER)
#undef QVL_DEMO_COUNTER
    timeline->print("counters", line);
  }
  if (offlineFailed) {
    std::cout << "reason: offline-retry: the sandbox could not be taken offline\n";
  }
  bool ok = !offlineFailed && !results.empty();
  for (const auto& result : results) {
    if (!result.ok) {
      std::cout << "reason: " << result.name << ": " << result.reason << "\n";
      ok = false;
    }
  }
  std::cout << qvl::demo::summaryLine(results) << std::endl;

  if (temporaryStore) {
    std::error_code ignored;
    std::filesystem::remove_all(storeDir, ignored);
  }
  // Requests of the SDK may still be in flight on their threads; leave without tearing down
  // the singletons under them.
  std::_Exit(ok ? 0 : 1);
}
