#include "quorvel/device/DeviceProximity.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>

#include <sdbus-c++/sdbus-c++.h>

#include "device/BusThread.h"
#include "device/Sightings.h"
#include "platform/CountersImpl.h"
#include "proximity/ProximityEngine.h"
#include "proximity/SceneRecorder.h"
#include "quorvel/platform/Clock.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/Log.h"

namespace qvl {

namespace {

constexpr auto kCallTimeout = std::chrono::seconds(5);
constexpr std::uint64_t kBeaconExpiryTicks = 60;
constexpr const char* kDaemon = "org.freedesktop.DBus";
constexpr const char* kBluez = "org.bluez";
constexpr const char* kAdapter = "org.bluez.Adapter1";
constexpr const char* kDevice = "org.bluez.Device1";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
constexpr const char* kGeoClue = "org.freedesktop.GeoClue2";
constexpr const char* kGeoClueManager = "/org/freedesktop/GeoClue2/Manager";
constexpr const char* kGeoClueClient = "org.freedesktop.GeoClue2.Client";
constexpr const char* kGeoClueLocation = "org.freedesktop.GeoClue2.Location";

using Properties = std::map<std::string, sdbus::Variant>;
using Interfaces = std::map<std::string, Properties>;
using Objects = std::map<sdbus::ObjectPath, Interfaces>;

bool refused(const sdbus::Error& error) {
  return error.getName() == "org.freedesktop.DBus.Error.AccessDenied" ||
         error.getName() == "org.bluez.Error.NotAuthorized" ||
         error.getName() == "org.bluez.Error.NotPermitted";
}

// The iBeacon frame among a device's manufacturer data (a{qv} of byte arrays), if any.
std::optional<proximity::BeaconFrame> beaconFrame(const sdbus::Variant& manufacturerData) {
  try {
    for (const auto& [company, value] :
         manufacturerData.get<std::map<std::uint16_t, sdbus::Variant>>()) {
      auto bytes = value.get<std::vector<std::uint8_t>>();
      if (auto frame = proximity::parseBeaconFrame(company, bytes)) return frame;
    }
  } catch (const sdbus::Error&) {
    // Not the documented type: no frame.
  }
  return std::nullopt;
}

template <typename T>
std::optional<T> property(const Properties& properties, const std::string& name) {
  auto it = properties.find(name);
  if (it == properties.end()) return std::nullopt;
  try {
    return it->second.get<T>();
  } catch (const sdbus::Error&) {
    return std::nullopt;
  }
}

}  // namespace

struct DeviceProximity::Private {
  Private(DeviceProximitySettings s, std::string regionsPath)
      : settings(std::move(s)),
        clock(Env::current()->clock),
        start(clock->now()),
        engine(settings.rules, std::move(regionsPath)) {
    engine.setBluetooth(BluetoothState::Unknown);
    engine.takeOutbox();  // nobody to tell yet
    if (settings.record) recorder.emplace(settings.rules, bluetooth, authorization);
  }

  // ---- shared between the bus thread, the clock's thread and callers: under `mutex` ----
  const DeviceProximitySettings settings;
  const std::shared_ptr<Clock> clock;
  const Date start;
  std::weak_ptr<DeviceProximity> owner;  // set once by create(), before the first tick
  std::atomic<std::uint64_t> handled{0};
  std::atomic<std::uint64_t> dropped{0};
  mutable std::mutex mutex;
  proximity::Engine engine;
  device::Sightings sightings{proximity::kMaxBeacons, kBeaconExpiryTicks};
  std::optional<proximity::Fix> position;
  BluetoothState bluetooth = BluetoothState::Unknown;
  AuthorizationStatus authorization = AuthorizationStatus::NotDetermined;
  std::optional<proximity::SceneRecorder> recorder;
  Clock::TimerId tickTimer = 0;

  void setBluetooth(BluetoothState state) {
    std::lock_guard lock(mutex);
    bluetooth = state;
  }
  void setAuthorization(AuthorizationStatus status) {
    std::lock_guard lock(mutex);
    authorization = status;
  }

  // One tick: what the bus reported since the last one goes through the engine.
  void tick(Date now) {
    std::vector<std::function<void()>> outbox;
    {
      std::lock_guard lock(mutex);
      engine.setBluetooth(bluetooth);
      engine.setAuthorization(authorization);
      std::vector<proximity::Heard> signals = sightings.take();
      if (recorder) {
        auto at = std::llround(proximity::Seconds(now - start).count());
        recorder->tick(at, bluetooth, authorization, signals, position);
      }
      engine.tick(now, signals, position);
      outbox = engine.takeOutbox();
    }
    engine.deliver(std::move(outbox));
  }

  // ---- the bus thread's own: only touched there ----
  struct Bus {
    std::vector<sdbus::Slot> matches;
    std::unique_ptr<sdbus::IProxy> root;
    std::unique_ptr<sdbus::IProxy> adapter;
    std::string adapterPath;
    bool powered = false;
    bool discoveryWanted = false;
    std::string bluezOwner;  // unique names; empty while unknown
    std::string geoclueOwner;
    bool dropLogged = false;
    std::unique_ptr<sdbus::IProxy> geoclue;
    std::unique_ptr<sdbus::IProxy> client;
    std::string clientPath;
    std::unique_ptr<sdbus::IProxy> location;
    bool locating = false;
  };
  std::unique_ptr<Bus> bus;
  std::unique_ptr<device::BusThread> thread;  // last: stopped first

  void handledOne() { handled.fetch_add(1, std::memory_order_release); }

  // ---- who may speak: any connection on the bus can send us signals, unicast ones even
  // past our match rules, so each message's sender is checked against the peer's owner ----
  enum class Peer { Daemon, Bluez, GeoClue };

  // True when `sender` speaks for `peer`; otherwise the message is dropped and counted. An
  // answer to a call made to the peer's name tells its owner while none is known yet (the
  // daemon routes such calls to the owner and lets only the callee answer); an error may
  // also come from the daemon or sd-bus (no such name, time-out).
  bool speaksFor(Peer peer, const std::string& sender, bool answer, bool error) {
    bool ok = false;
    std::string* owner = peer == Peer::Bluez     ? &bus->bluezOwner
                         : peer == Peer::GeoClue ? &bus->geoclueOwner
                                                 : nullptr;
    if (!owner) {
      ok = sender == kDaemon;
    } else if (error) {
      ok = sender.empty() || sender == kDaemon || sender == *owner;
    } else {
      if (answer && owner->empty() && sender.starts_with(':')) *owner = sender;
      ok = !owner->empty() && sender == *owner;
    }
    if (!ok) {
      dropped.fetch_add(1, std::memory_order_relaxed);
      count(Counter::deviceMessagesDropped);
      if (!std::exchange(bus->dropLogged, true)) {
        log(LogLevel::warning,
            "D-Bus: dropped a message from " + sender +
                ", which does not own the name it claims (later ones are only counted)");
      }
    }
    return ok;
  }

  using Answer = std::function<void(const sdbus::Error* error, sdbus::MethodReply& reply)>;
  // Calls `peer` (through a proxy on its name); `then` gets the answer when `peer` gave it.
  void call(sdbus::IProxy& proxy, Peer peer, const sdbus::MethodCall& message, const char* origin,
            Answer then) {
    proxy.callMethod(
        message,
        [this, peer, origin, then = std::move(then)](sdbus::MethodReply& reply,
                                                     const sdbus::Error* error) {
          device::guard(origin, [&] {
            if (speaksFor(peer, reply.getSender(), true, error != nullptr)) then(error, reply);
          });
        },
        kCallTimeout);
  }

  void setup(sdbus::IConnection& connection) {
    bus = std::make_unique<Bus>();
    auto on = [&](const std::string& rule, Peer peer, const char* origin, auto handler) {
      bus->matches.push_back(
          connection.addMatch(rule, [this, peer, origin, handler](sdbus::Message& message) {
            bool spoke = false;
            device::guard(origin, [&] {
              if (!(spoke = speaksFor(peer, message.getSender(), false, false))) return;
              (this->*handler)(message);
            });
            if (spoke) handledOne();
          }));
    };
    on("type='signal',sender='org.bluez',interface='org.freedesktop.DBus.ObjectManager'",
       Peer::Bluez, "BlueZ ObjectManager signal", &Private::onObjectManager);
    on("type='signal',sender='org.bluez',interface='org.freedesktop.DBus.Properties',"
       "member='PropertiesChanged'",
       Peer::Bluez, "BlueZ PropertiesChanged", &Private::onPropertiesChanged);
    on("type='signal',sender='org.freedesktop.GeoClue2',interface='org.freedesktop.GeoClue2."
       "Client',member='LocationUpdated'",
       Peer::GeoClue, "GeoClue LocationUpdated", &Private::onLocationUpdated);
    on("type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
       "member='NameOwnerChanged',arg0='org.bluez'",
       Peer::Daemon, "BlueZ NameOwnerChanged", &Private::onBluezOwner);
    on("type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
       "member='NameOwnerChanged',arg0='org.freedesktop.GeoClue2'",
       Peer::Daemon, "GeoClue NameOwnerChanged", &Private::onGeoClueOwner);
    bus->root = sdbus::createProxy(connection, kBluez, "/");
    listObjects();
  }

  // What BlueZ has now: the adapter and the frames of the devices it knows.
  void listObjects() {
    call(*bus->root, Peer::Bluez, bus->root->createMethodCall(kObjectManager, "GetManagedObjects"),
         "BlueZ GetManagedObjects", [this](const sdbus::Error* error, sdbus::MethodReply& reply) {
           if (error) {
             // Info: the state says it, and the backend's chooser named what is missing.
             log(LogLevel::info, "BlueZ not reachable: " + error->getName());
             setBluetooth(refused(*error) ? BluetoothState::Unauthorized
                                          : BluetoothState::Unsupported);
           } else {
             Objects objects;
             reply >> objects;
             onObjects(bus->root->getConnection(), objects);
           }
           handledOne();
         });
  }

  // bluetoothd stopped or started again: a restarted one announces nothing of its own
  // adapter to old listeners, so it is read afresh, and only the new owner is heard.
  void onBluezOwner(sdbus::Message& message) {
    std::string name, previous, current;
    message >> name >> previous >> current;
    bus->bluezOwner = current;
    forgetAdapter();
    if (current.empty()) {
      log(LogLevel::info, "BlueZ stopped");
      setBluetooth(BluetoothState::Unsupported);
    } else {
      listObjects();
    }
  }

  void onGeoClueOwner(sdbus::Message& message) {
    std::string name, previous, current;
    message >> name >> previous >> current;
    bus->geoclueOwner = current;
  }

  void forgetAdapter() {
    bus->adapter.reset();
    bus->adapterPath.clear();
    {
      std::lock_guard lock(mutex);
      sightings.forgetDevices();
    }
    bus->discoveryWanted = false;
  }

  void teardown() { bus.reset(); }

  bool wantedAdapter(const std::string& path) const {
    const std::string suffix = "/" + settings.adapter;
    return settings.adapter.empty() ||
           (path.size() >= suffix.size() &&
            path.compare(path.size() - suffix.size(), std::string::npos, suffix) == 0);
  }

  void onObjects(sdbus::IConnection& connection, const Objects& objects) {
    for (const auto& [path, interfaces] : objects) {
      auto adapter = interfaces.find(kAdapter);
      if (adapter != interfaces.end() && wantedAdapter(path)) {
        adopt(connection, path, adapter->second);
        break;
      }
    }
    if (bus->adapterPath.empty()) {
      log(LogLevel::info,
          "no Bluetooth adapter" +
              (settings.adapter.empty() ? std::string() : " named " + settings.adapter));
      setBluetooth(BluetoothState::Unsupported);
      return;
    }
    // Known devices give their frames, not sightings: BlueZ keeps objects of absent devices.
    for (const auto& [path, interfaces] : objects) {
      auto device = interfaces.find(kDevice);
      if (device != interfaces.end()) readDevice(path, device->second, false);
    }
  }

  void adopt(sdbus::IConnection& connection, const std::string& path, const Properties& adapter) {
    bus->adapterPath = path;
    bus->adapter = sdbus::createProxy(connection, kBluez, path);
    setPowered(property<bool>(adapter, "Powered").value_or(false));
  }

  void setPowered(bool powered) {
    bus->powered = powered;
    setBluetooth(powered ? BluetoothState::PoweredOn : BluetoothState::PoweredOff);
    if (powered) startDiscovery();
  }

  // LE only, and every advertisement reported (BlueZ's default drops repeats).
  void startDiscovery() {
    bus->discoveryWanted = true;
    std::map<std::string, sdbus::Variant> filter{{"Transport", sdbus::Variant(std::string("le"))},
                                                 {"DuplicateData", sdbus::Variant(true)}};
    auto setFilter = bus->adapter->createMethodCall(kAdapter, "SetDiscoveryFilter");
    setFilter << filter;
    call(*bus->adapter, Peer::Bluez, setFilter, "BlueZ SetDiscoveryFilter",
         [this](const sdbus::Error* error, sdbus::MethodReply&) {
           if (error) {
             discoveryFailed(*error);
           } else if (bus->adapter) {
             call(*bus->adapter, Peer::Bluez,
                  bus->adapter->createMethodCall(kAdapter, "StartDiscovery"),
                  "BlueZ StartDiscovery", [this](const sdbus::Error* error, sdbus::MethodReply&) {
                    if (error && error->getName() != "org.bluez.Error.InProgress") {
                      discoveryFailed(*error);
                    }
                    handledOne();
                  });
           }
           handledOne();
         });
  }

  void discoveryFailed(const sdbus::Error& error) {
    log(LogLevel::error,
        "Bluetooth discovery not started: " + error.getName() + ": " + error.getMessage());
    if (refused(error)) setBluetooth(BluetoothState::Unauthorized);
  }

  void readDevice(const std::string& path, const Properties& properties, bool sighted) {
    if (path.rfind(bus->adapterPath + "/", 0) != 0) return;
    count(Counter::advertisementsSeen);
    auto data = properties.find("ManufacturerData");
    std::optional<proximity::BeaconFrame> frame;
    if (data != properties.end()) frame = beaconFrame(data->second);
    auto rssi = property<std::int16_t>(properties, "RSSI");
    std::lock_guard lock(mutex);
    if (data != properties.end()) sightings.setFrame(path, frame);
    if (sighted && rssi) sightings.heard(path, *rssi);
  }

  void onObjectManager(sdbus::Message& message) {
    sdbus::ObjectPath path;
    message >> path;
    if (message.getMemberName() == "InterfacesAdded") {
      Interfaces interfaces;
      message >> interfaces;
      if (auto adapter = interfaces.find(kAdapter);
          adapter != interfaces.end() && bus->adapterPath.empty() && wantedAdapter(path)) {
        adopt(bus->root->getConnection(), path, adapter->second);
      }
      if (auto device = interfaces.find(kDevice); device != interfaces.end()) {
        readDevice(path, device->second, true);
      }
    } else if (message.getMemberName() == "InterfacesRemoved") {
      std::vector<std::string> interfaces;
      message >> interfaces;
      for (const std::string& interface : interfaces) {
        if (interface == kDevice) {
          std::lock_guard lock(mutex);
          sightings.forgetDevice(path);
        }
        if (interface == kAdapter && path == bus->adapterPath) {
          log(LogLevel::info, "Bluetooth adapter " + path + " removed");
          forgetAdapter();
          setBluetooth(BluetoothState::Unsupported);
        }
      }
    }
  }

  void onPropertiesChanged(sdbus::Message& message) {
    std::string interface;
    Properties changed;
    message >> interface >> changed;
    const std::string path = message.getPath();
    if (interface == kDevice) return readDevice(path, changed, true);
    if (interface != kAdapter || path != bus->adapterPath) return;
    if (auto powered = property<bool>(changed, "Powered")) setPowered(*powered);
    auto discovering = property<bool>(changed, "Discovering");
    if (discovering && !*discovering && bus->powered && bus->discoveryWanted) {
      log(LogLevel::info, "Bluetooth discovery stopped by someone else; starting it again");
      startDiscovery();
    }
  }

  // ---- GeoClue ----
  void locate(sdbus::IConnection& connection) {
    if (bus->locating) return;
    bus->locating = true;
    bus->geoclue = sdbus::createProxy(connection, kGeoClue, kGeoClueManager);
    call(*bus->geoclue, Peer::GeoClue,
         bus->geoclue->createMethodCall("org.freedesktop.GeoClue2.Manager", "GetClient"),
         "GeoClue GetClient",
         [this, &connection](const sdbus::Error* error, sdbus::MethodReply& reply) {
           if (error) {
             locationRefused(*error);
           } else {
             sdbus::ObjectPath client;
             reply >> client;
             bus->clientPath = client;
             bus->client = sdbus::createProxy(connection, kGeoClue, client);
             configureClient();
           }
           handledOne();
         });
  }

  void configureClient() {
    std::string desktopId = settings.desktopId.empty() ? "quorvel" : settings.desktopId;
    auto set = [this](const char* name, sdbus::Variant value, auto then) {
      auto message = bus->client->createMethodCall(kProperties, "Set");
      message << std::string(kGeoClueClient) << std::string(name) << value;
      call(*bus->client, Peer::GeoClue, message, "GeoClue Set",
           [this, then](const sdbus::Error* error, sdbus::MethodReply&) {
             if (error) return locationRefused(*error);
             then();
           });
    };
    set("DesktopId", sdbus::Variant(desktopId), [this, set] {
      set("RequestedAccuracyLevel", sdbus::Variant(settings.accuracyLevel), [this] {
        call(*bus->client, Peer::GeoClue, bus->client->createMethodCall(kGeoClueClient, "Start"),
             "GeoClue Start", [this](const sdbus::Error* error, sdbus::MethodReply&) {
               if (error) return locationRefused(*error);
               setAuthorization(AuthorizationStatus::AuthorizedAlways);
               handledOne();
             });
      });
    });
  }

  void locationRefused(const sdbus::Error& error) {
    log(LogLevel::error,
        "GeoClue refused the position: " + error.getName() + ": " + error.getMessage());
    setAuthorization(refused(error) ? AuthorizationStatus::Denied
                                    : AuthorizationStatus::Restricted);
    handledOne();
  }

  void onLocationUpdated(sdbus::Message& message) {
    if (message.getPath() != bus->clientPath) return;
    sdbus::ObjectPath previous, current;
    message >> previous >> current;
    bus->location = sdbus::createProxy(bus->client->getConnection(), kGeoClue, current);
    auto getAll = bus->location->createMethodCall(kProperties, "GetAll");
    getAll << std::string(kGeoClueLocation);
    call(*bus->location, Peer::GeoClue, getAll, "GeoClue location",
         [this](const sdbus::Error* error, sdbus::MethodReply& reply) {
           Properties properties;
           if (!error) reply >> properties;
           auto latitude = property<double>(properties, "Latitude");
           auto longitude = property<double>(properties, "Longitude");
           auto accuracy = property<double>(properties, "Accuracy");
           if (!error && latitude && longitude) {
             std::lock_guard lock(mutex);
             position = proximity::Fix{{*latitude, *longitude}, accuracy.value_or(0.0)};
           }
           handledOne();
         });
  }
};

std::shared_ptr<DeviceProximity> DeviceProximity::create(DeviceProximitySettings settings) {
  std::shared_ptr<DeviceProximity> backend(new DeviceProximity(std::move(settings)));
  backend->d_->owner = backend;
  backend->scheduleTick();
  return backend;
}

DeviceProximity::DeviceProximity(DeviceProximitySettings settings) {
  std::string directory = settings.storeDirectory.empty() ? Env::current()->resolvedStoreDirectory()
                                                          : settings.storeDirectory;
  std::string address = settings.busAddress;
  d_ = std::make_shared<Private>(
      std::move(settings), (std::filesystem::path(directory) / "monitored-regions.json").string());
  Private* d = d_.get();
  d_->thread = std::make_unique<device::BusThread>(
      address, [d](sdbus::IConnection& connection) { d->setup(connection); },
      [d] { d->teardown(); },
      [d](const std::string& reason) {
        log(LogLevel::warning, "no D-Bus for the device backend: " + reason);
        d->setBluetooth(BluetoothState::Unsupported);
        d->setAuthorization(AuthorizationStatus::Restricted);
      });
}

DeviceProximity::~DeviceProximity() {
  Clock::TimerId timer;
  {
    std::lock_guard lock(d_->mutex);
    timer = d_->tickTimer;
  }
  d_->clock->cancel(timer);
  d_->thread.reset();
}

void DeviceProximity::scheduleTick() {
  Clock::TimerId timer = d_->clock->runAfter(std::chrono::seconds(1), [weak = d_->owner] {
    if (auto self = weak.lock()) {
      self->d_->tick(self->d_->clock->now());
      self->scheduleTick();
    }
  });
  std::lock_guard lock(d_->mutex);
  d_->tickTimer = timer;
}

std::string DeviceProximity::recordedScene() const {
  std::lock_guard lock(d_->mutex);
  return d_->recorder ? d_->recorder->text() : std::string();
}

std::uint64_t DeviceProximity::signalsHandled() const {
  return d_->handled.load(std::memory_order_acquire);
}

DeviceProximityStats DeviceProximity::stats() const {
  DeviceProximityStats stats;
  stats.messagesDropped = d_->dropped.load(std::memory_order_relaxed);
  std::lock_guard lock(d_->mutex);
  device::Sightings::Stats kept = d_->sightings.stats();
  stats.beaconsKept = kept.beacons;
  stats.devicesKept = kept.devices;
  stats.evicted = kept.evicted;
  return stats;
}

void DeviceProximity::setDelegate(std::weak_ptr<LocationServiceDelegate> delegate) {
  std::lock_guard lock(d_->mutex);
  d_->engine.setDelegate(std::move(delegate));
}

std::vector<Region> DeviceProximity::monitoredRegions() const {
  std::lock_guard lock(d_->mutex);
  return d_->engine.monitoredRegions();
}

void DeviceProximity::startMonitoring(const Region& region) {
  std::lock_guard lock(d_->mutex);
  d_->engine.startMonitoring(region);
}

void DeviceProximity::stopMonitoring(const Region& region) {
  std::lock_guard lock(d_->mutex);
  d_->engine.stopMonitoring(region);
}

void DeviceProximity::startRanging(const BeaconRegion& region) {
  std::lock_guard lock(d_->mutex);
  d_->engine.startRanging(region);
}

void DeviceProximity::stopRanging(const BeaconRegion& region) {
  std::lock_guard lock(d_->mutex);
  d_->engine.stopRanging(region);
}

std::vector<BeaconRegion> DeviceProximity::rangedRegions() const {
  std::lock_guard lock(d_->mutex);
  return d_->engine.rangedRegions();
}

AuthorizationStatus DeviceProximity::authorizationStatus() const {
  std::lock_guard lock(d_->mutex);
  return d_->engine.authorization();
}

void DeviceProximity::requestAlwaysAuthorization() {
  {
    std::lock_guard lock(d_->mutex);
    if (d_->authorization != AuthorizationStatus::NotDetermined) return;
  }
  Private* d = d_.get();
  d_->thread->post([d](sdbus::IConnection& connection) { d->locate(connection); });
}

BluetoothState DeviceProximity::state() const {
  std::lock_guard lock(d_->mutex);
  return d_->engine.bluetooth();
}

void DeviceProximity::setDelegate(std::weak_ptr<BluetoothCentralDelegate> delegate) {
  std::lock_guard lock(d_->mutex);
  d_->engine.setDelegate(std::move(delegate));
}

bool systemBusHasName(const std::string& name) {
  std::string error;
  auto owned = device::namesOwned({}, {name}, error);
  return owned && owned->front();
}

}  // namespace qvl
