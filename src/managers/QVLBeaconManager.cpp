#include "quorvel/managers/QVLBeaconManager.h"

#include "device/StandardBackend.h"
#include "platform/ContextCore.h"
#include "platform/MainQueueOnly.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <limits>

#include "quorvel/managers/QVLAnalyticsManager.h"
#include "quorvel/platform/Application.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/NotificationCenter.h"
#include "quorvel/records/QVLRealm.h"

namespace {

// The identifier's leading integer: blanks skipped, an optional sign, the leading digits;
// 0 when there are none; clamped to 32 bits.
std::int32_t leadingInteger(const std::string& text) {
  std::size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  std::int64_t value = 0;
  constexpr std::int64_t kLimit = std::int64_t{std::numeric_limits<std::int32_t>::max()} + 1;
  for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
    value = std::min(kLimit, value * 10 + (text[i] - '0'));
  }
  if (negative) return static_cast<std::int32_t>(-value);
  return static_cast<std::int32_t>(std::min(value, kLimit - 1));
}

bool hasKnownPosition(const qvl::RangedBeacon& beacon) {
  return beacon.accuracy != -1 &&
         (beacon.proximity == qvl::Proximity::Immediate ||
          beacon.proximity == qvl::Proximity::Near || beacon.proximity == qvl::Proximity::Far);
}

std::optional<std::int64_t> widen(std::optional<std::uint16_t> value) {
  if (!value) return std::nullopt;
  return *value;
}

std::shared_ptr<QVLBeacon> storedBeacon(const QVLBeaconInternal* snapshot) {
  if (!snapshot || !snapshot->beaconId) return nullptr;
  auto realm = QVLRealm::realm();
  return realm ? realm->object<QVLBeacon>(snapshot->beaconId) : nullptr;
}

}  // namespace

std::shared_ptr<QVLBeaconInternal> QVLBeaconInternal::newWithBeaconId(
    std::optional<std::int64_t> beaconId, std::optional<qvl::Uuid> uuid,
    std::optional<std::int64_t> major, std::optional<std::int64_t> minor) {
  auto snapshot = std::make_shared<QVLBeaconInternal>();
  snapshot->beaconId = beaconId;
  snapshot->uuid = uuid;
  snapshot->major = major;
  snapshot->minor = minor;
  return snapshot;
}

namespace {

// Regions in start order with a hash index by identifier, so membership tests do not scan.
template <class R>
struct RegionList {
  std::vector<R> ordered;
  std::unordered_map<std::string, std::vector<R>> byIdentifier;

  bool contains(const R& region) const {
    auto bucket = byIdentifier.find(region.identifier);
    return bucket != byIdentifier.end() &&
           std::find(bucket->second.begin(), bucket->second.end(), region) != bucket->second.end();
  }
  void add(const R& region) {
    ordered.push_back(region);
    byIdentifier[region.identifier].push_back(region);
  }
  void removeEvery(const R& region) {
    std::erase(ordered, region);
    auto bucket = byIdentifier.find(region.identifier);
    if (bucket == byIdentifier.end()) return;
    std::erase(bucket->second, region);
    if (bucket->second.empty()) byIdentifier.erase(bucket);
  }
  void clear() {
    ordered.clear();
    byIdentifier.clear();
  }
};

struct IdentityKey {
  qvl::Uuid uuid;
  std::int64_t major;
  std::int64_t minor;
  bool operator==(const IdentityKey&) const = default;
};

struct IdentityKeyHash {
  std::size_t operator()(const IdentityKey& key) const noexcept {
    std::size_t hash = std::hash<qvl::Uuid>{}(key.uuid);
    hash ^=
        std::hash<std::int64_t>{}(key.major) + 0x9e3779b97f4a7c15ULL + (hash << 6) + (hash >> 2);
    hash ^=
        std::hash<std::int64_t>{}(key.minor) + 0x9e3779b97f4a7c15ULL + (hash << 6) + (hash >> 2);
    return hash;
  }
};

}  // namespace

struct QVLBeaconManager::Impl {
  // The context that made the manager: the services' callbacks run in it, whichever context
  // the service reports from. Weak: the context owns the manager.
  std::weak_ptr<qvl::detail::ContextCore> context = qvl::detail::currentContext();

  std::shared_ptr<QVLBeacon> closestBeacon;
  std::vector<std::shared_ptr<QVLBeaconInternal>> searchingBeacons;
  std::unordered_map<std::int64_t, std::shared_ptr<QVLBeaconInternal>> beaconsById;
  // Snapshots with a UUID, major and minor, in start order per identity.
  std::unordered_map<IdentityKey, std::vector<std::shared_ptr<QVLBeaconInternal>>, IdentityKeyHash>
      beaconsByIdentity;
  RegionList<qvl::BeaconRegion> beaconRegions;
  std::optional<qvl::Uuid> rangedUUID;
  RegionList<qvl::CircularRegion> geofences;
  QVLWeakPointerArray<QVLBeaconManagerDelegate> delegates;
};

namespace {

// Puts the manager's own context in force for one callback.
class InOwnContext {
 public:
  template <class Impl>
  explicit InOwnContext(const Impl& impl) {
    if (auto context = impl.context.lock()) binding_.emplace(std::move(context));
  }

 private:
  std::optional<qvl::detail::ContextBinding> binding_;
};

}  // namespace

QVLBeaconManager::QVLBeaconManager() : impl_(std::make_unique<Impl>()) {}
QVLBeaconManager::~QVLBeaconManager() = default;

const std::optional<qvl::Uuid>& QVLBeaconManager::rangedUUID() const { return impl_->rangedUUID; }
const std::shared_ptr<QVLBeacon>& QVLBeaconManager::closestBeacon() const {
  return impl_->closestBeacon;
}
const std::vector<std::shared_ptr<QVLBeaconInternal>>& QVLBeaconManager::searchingBeacons() const {
  return impl_->searchingBeacons;
}
const std::vector<qvl::BeaconRegion>& QVLBeaconManager::searchingBeaconRegions() const {
  return impl_->beaconRegions.ordered;
}
const std::vector<qvl::CircularRegion>& QVLBeaconManager::searchingGeofences() const {
  return impl_->geofences.ordered;
}

QVLBeaconManager& QVLBeaconManager::sharedManager() {
  static const char key = 0;
  return qvl::detail::currentContext()->service<QVLBeaconManager>(&key, [] {
    std::shared_ptr<QVLBeaconManager> manager(new QVLBeaconManager());
    manager->bindToServices();
    return manager;
  });
}

void QVLBeaconManager::bindToServices() {
  const auto env = qvl::Env::current();
  if (const auto central = qvl::proximity::bluetoothCentralOf(*env)) {
    // The manager only reads the radio's state; turning it on is the host's to ask for.
    central->setOptions({.showPowerAlert = false});
    central->setDelegate(weak_from_this());
  }
  if (const auto service = qvl::proximity::locationServiceOf(*env)) {
    service->setDelegate(weak_from_this());
    // Regions a previous run left monitored are not this manager's.
    for (const auto& region : service->monitoredRegions()) service->stopMonitoring(region);
  }
}

std::shared_ptr<qvl::LocationService> QVLBeaconManager::locationService() const {
  return qvl::proximity::locationServiceOf(*qvl::Env::current());
}

QVLAnalyticsManager& QVLBeaconManager::analyticsManager() const {
  return QVLAnalyticsManager::sharedManager();
}

template <class Call>
void QVLBeaconManager::fanOut(const Call& call) {
  for (const auto& delegate : impl_->delegates.allObjects()) call(*delegate);
}

void QVLBeaconManager::addDelegate(const std::shared_ptr<QVLBeaconManagerDelegate>& delegate) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::addDelegate")) return;
  impl_->delegates.addObject(delegate);
}

void QVLBeaconManager::removeDelegate(const QVLBeaconManagerDelegate* delegate) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::removeDelegate")) return;
  impl_->delegates.removeObject(delegate);
}

// ---- watches ------------------------------------------------------------------------------

void QVLBeaconManager::addSnapshot(std::shared_ptr<QVLBeaconInternal> snapshot) {
  if (snapshot->beaconId) impl_->beaconsById.emplace(*snapshot->beaconId, snapshot);
  if (snapshot->uuid && snapshot->major && snapshot->minor) {
    impl_->beaconsByIdentity[{*snapshot->uuid, *snapshot->major, *snapshot->minor}].push_back(
        snapshot);
  }
  impl_->searchingBeacons.push_back(std::move(snapshot));
}

void QVLBeaconManager::removeSnapshot(const std::shared_ptr<QVLBeaconInternal>& snapshot) {
  if (!snapshot) return;
  std::erase(impl_->searchingBeacons, snapshot);
  if (snapshot->beaconId) impl_->beaconsById.erase(*snapshot->beaconId);
  if (snapshot->uuid && snapshot->major && snapshot->minor) {
    auto bucket =
        impl_->beaconsByIdentity.find({*snapshot->uuid, *snapshot->major, *snapshot->minor});
    if (bucket == impl_->beaconsByIdentity.end()) return;
    std::erase(bucket->second, snapshot);
    if (bucket->second.empty()) impl_->beaconsByIdentity.erase(bucket);
  }
}

void QVLBeaconManager::startSearchingForBeacon(const std::shared_ptr<QVLBeacon>& beacon) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::startSearchingForBeacon")) return;
  if (!beacon || isBeaconMonitoring(*beacon)) return;
  auto region = beacon->beaconRegion();
  if (auto service = locationService(); service && region) service->startMonitoring(*region);
  addSnapshot(QVLBeaconInternal::newWithBeaconId(beacon->beaconId(), beacon->uuid(),
                                                 beacon->major(), beacon->minor()));
  if (!impl_->rangedUUID) setRangedUUID(beacon->uuid());
}

void QVLBeaconManager::stopSearchingForBeacon(const std::shared_ptr<QVLBeacon>& beacon) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::stopSearchingForBeacon")) return;
  if (!beacon || !isBeaconMonitoring(*beacon)) return;
  auto region = beacon->beaconRegion();
  if (auto service = locationService(); service && region) service->stopMonitoring(*region);
  analyticsManager().finishBeaconViewOfBeacon(beacon);
  removeSnapshot(internalBeaconFromBeaconId(beacon->beaconId()));
  if (impl_->searchingBeacons.empty() && impl_->beaconRegions.ordered.empty())
    setRangedUUID(std::nullopt);
}

void QVLBeaconManager::stopSearchingForBeacons() {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::stopSearchingForBeacons")) return;
  auto service = locationService();
  const auto snapshots = impl_->searchingBeacons;
  for (const auto& snapshot : snapshots) {
    // A record deleted since its watch started is passed on as null.
    auto beacon = storedBeacon(snapshot.get());
    auto region = beacon ? beacon->beaconRegion() : std::nullopt;
    if (service && region) service->stopMonitoring(*region);
    analyticsManager().finishBeaconViewOfBeacon(beacon);
  }
  setRangedUUID(std::nullopt);
  impl_->searchingBeacons.clear();
  impl_->beaconsById.clear();
  impl_->beaconsByIdentity.clear();
}

void QVLBeaconManager::startSearchingForBeaconRegion(const qvl::BeaconRegion& region) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::startSearchingForBeaconRegion")) return;
  if (impl_->beaconRegions.contains(region)) return;
  if (auto service = locationService()) service->startMonitoring(region);
  impl_->beaconRegions.add(region);
  if (!impl_->rangedUUID) setRangedUUID(region.proximityUUID);
}

void QVLBeaconManager::stopSearchingForBeaconRegion(const qvl::BeaconRegion& region) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::stopSearchingForBeaconRegion")) return;
  if (!impl_->beaconRegions.contains(region)) return;
  if (auto service = locationService()) service->stopMonitoring(region);
  impl_->beaconRegions.removeEvery(region);
  // Only beacon records keep ranging on here, not the raw regions still watched.
  if (impl_->searchingBeacons.empty()) setRangedUUID(std::nullopt);
}

void QVLBeaconManager::startSearchingForGeofence(const std::shared_ptr<QVLGeofence>& geofence) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::startSearchingForGeofence")) return;
  if (!geofence) return;
  const auto region = geofence->region();
  if (impl_->geofences.contains(region)) return;
  if (auto service = locationService()) service->startMonitoring(region);
  impl_->geofences.add(region);
}

void QVLBeaconManager::stopSearchingForGeofence(const std::shared_ptr<QVLGeofence>& geofence) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::stopSearchingForGeofence")) return;
  if (!geofence) return;
  const auto region = geofence->region();
  if (!impl_->geofences.contains(region)) return;
  if (auto service = locationService()) service->stopMonitoring(region);
  impl_->geofences.removeEvery(region);
}

void QVLBeaconManager::setRangedUUID(std::optional<qvl::Uuid> uuid) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::setRangedUUID")) return;
  setClosestBeacon(nullptr);
  auto service = locationService();
  if (impl_->rangedUUID && service) {
    service->stopRanging(qvl::BeaconRegion::withUuid(*impl_->rangedUUID, kRangingRegionIdentifier));
  }
  impl_->rangedUUID = uuid;
  if (impl_->rangedUUID && service) {
    // A guest who turns the screen on is shown where they are without waiting for a crossing.
    auto region = qvl::BeaconRegion::withUuid(*impl_->rangedUUID, kRangingRegionIdentifier);
    region.notifyEntryStateOnDisplay = true;
    service->startRanging(region);
  }
}

// ---- membership and lookups ---------------------------------------------------------------

bool QVLBeaconManager::isBeaconMonitoring(const QVLBeacon& beacon) const {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::isBeaconMonitoring")) return false;
  return internalBeaconFromBeaconId(beacon.beaconId()) != nullptr;
}

bool QVLBeaconManager::isCLBeaconRegionMonitoring(const qvl::BeaconRegion& region) const {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::isCLBeaconRegionMonitoring")) return false;
  return impl_->beaconRegions.contains(region);
}

bool QVLBeaconManager::isCLCircularRegionMonitoring(const qvl::CircularRegion& region) const {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::isCLCircularRegionMonitoring"))
    return false;
  return impl_->geofences.contains(region);
}

std::shared_ptr<QVLBeaconInternal> QVLBeaconManager::internalBeaconFromBeaconId(
    std::optional<std::int64_t> beaconId) const {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::internalBeaconFromBeaconId"))
    return nullptr;
  if (!beaconId) return nullptr;
  auto found = impl_->beaconsById.find(*beaconId);
  return found == impl_->beaconsById.end() ? nullptr : found->second;
}

std::shared_ptr<QVLBeaconInternal> QVLBeaconManager::internalBeaconFromUUID(
    const qvl::Uuid& uuid, std::optional<std::int64_t> major,
    std::optional<std::int64_t> minor) const {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::internalBeaconFromUUID")) return nullptr;
  if (!major || !minor) return nullptr;
  auto found = impl_->beaconsByIdentity.find({uuid, *major, *minor});
  return found == impl_->beaconsByIdentity.end() ? nullptr : found->second.front();
}

std::shared_ptr<QVLBeacon> QVLBeaconManager::beaconFromUUID(
    const qvl::Uuid& uuid, std::optional<std::int64_t> major,
    std::optional<std::int64_t> minor) const {
  return storedBeacon(internalBeaconFromUUID(uuid, major, minor).get());
}

std::shared_ptr<QVLBeacon> QVLBeaconManager::beaconFromCLBeacon(
    const qvl::RangedBeacon& beacon) const {
  return beaconFromUUID(beacon.proximityUUID, beacon.major, beacon.minor);
}

std::shared_ptr<QVLBeacon> QVLBeaconManager::beaconFromRegion(const qvl::Region& region) const {
  const auto* beaconRegion = std::get_if<qvl::BeaconRegion>(&region);
  if (!beaconRegion) return nullptr;
  return beaconFromUUID(beaconRegion->proximityUUID, widen(beaconRegion->major),
                        widen(beaconRegion->minor));
}

std::shared_ptr<QVLGeofence> QVLBeaconManager::geofenceFromCLCircularRegion(
    const qvl::CircularRegion& region) const {
  auto realm = QVLRealm::realm();
  return realm ? realm->object<QVLGeofence>(leadingInteger(region.identifier)) : nullptr;
}

// ---- capability ---------------------------------------------------------------------------

qvl::BluetoothState QVLBeaconManager::bluetoothState() const {
  const auto central = qvl::proximity::bluetoothCentralOf(*qvl::Env::current());
  return central ? central->state() : qvl::BluetoothState::Unknown;
}

qvl::AuthorizationStatus QVLBeaconManager::locationAuthorizationStatus() const {
  auto service = locationService();
  return service ? service->authorizationStatus() : qvl::AuthorizationStatus::NotDetermined;
}

void QVLBeaconManager::requestLocationAlwaysAuthorization() {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::requestLocationAlwaysAuthorization"))
    return;
  if (auto service = locationService()) service->requestAlwaysAuthorization();
}

void QVLBeaconManager::requestPermissionsForNotifications() {
  using qvl::Application;
  Application::shared().registerUserNotificationSettings(
      Application::kUserNotificationTypeBadge | Application::kUserNotificationTypeSound |
          Application::kUserNotificationTypeAlert,
      {});
}

// ---- events -------------------------------------------------------------------------------

void QVLBeaconManager::setClosestBeacon(const std::shared_ptr<QVLBeacon>& beacon) {
  if (!beacon && !impl_->closestBeacon) return;
  if (beacon && impl_->closestBeacon && beacon->beaconId() && impl_->closestBeacon->beaconId() &&
      *beacon->beaconId() == *impl_->closestBeacon->beaconId()) {
    return;  // the same beacon: the stored record stays, nothing is announced
  }
  impl_->closestBeacon = beacon;
  fanOut([&](QVLBeaconManagerDelegate& d) {
    d.beaconManagerClosestBeaconChangedTo(impl_->closestBeacon);
  });
}

void QVLBeaconManager::didRangeBeacons(const std::vector<qvl::RangedBeacon>& beacons,
                                       const qvl::BeaconRegion&) {
  const InOwnContext inOwnContext(*impl_);
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::didRangeBeacons")) return;
  fanOut([&](QVLBeaconManagerDelegate& d) { d.beaconManagerDidRangeCLBeacons(beacons); });
  if (beacons.empty() || impl_->searchingBeacons.empty()) {
    setClosestBeacon(nullptr);
    return;
  }
  auto realm = QVLRealm::realm();
  std::vector<std::shared_ptr<QVLBeacon>> sighted;
  for (const auto& beacon : beacons) {
    if (!hasKnownPosition(beacon)) continue;
    auto snapshot = internalBeaconFromUUID(beacon.proximityUUID, beacon.major, beacon.minor);
    if (!snapshot || !snapshot->beaconId || !realm) continue;
    if (auto record = realm->object<QVLBeacon>(snapshot->beaconId)) {
      analyticsManager().startBeaconViewOfBeacon(record);
      sighted.push_back(std::move(record));
    }
  }
  std::vector<std::shared_ptr<QVLBeacon>> active;
  std::copy_if(sighted.begin(), sighted.end(), std::back_inserter(active),
               [](const auto& beacon) { return beacon->active(); });
  setClosestBeacon(active.empty() ? nullptr : active.front());
  fanOut([&](QVLBeaconManagerDelegate& d) { d.beaconManagerDidRangeActiveBeacons(active); });
  fanOut([&](QVLBeaconManagerDelegate& d) { d.beaconManagerDidRangeBeacons(sighted); });
}

void QVLBeaconManager::regionEvent(const qvl::Region& region, bool entered) {
  if (auto beacon = beaconFromRegion(region)) {
    if (entered) {
      analyticsManager().startBeaconViewOfBeacon(beacon);
      fanOut([&](QVLBeaconManagerDelegate& d) { d.beaconManagerDidEnterRegionWithBeacon(beacon); });
    } else {
      analyticsManager().finishBeaconViewOfBeacon(beacon);
      fanOut([&](QVLBeaconManagerDelegate& d) { d.beaconManagerDidExitRegionWithBeacon(beacon); });
    }
  }
  if (const auto* beaconRegion = std::get_if<qvl::BeaconRegion>(&region);
      beaconRegion && isCLBeaconRegionMonitoring(*beaconRegion)) {
    fanOut([&](QVLBeaconManagerDelegate& d) {
      entered ? d.beaconManagerDidEnterRegion(*beaconRegion)
              : d.beaconManagerDidExitRegion(*beaconRegion);
    });
  }
  if (const auto* circle = std::get_if<qvl::CircularRegion>(&region);
      circle && isCLCircularRegionMonitoring(*circle)) {
    // Looked up afresh for each delegate; a deleted record is passed as null.
    fanOut([&](QVLBeaconManagerDelegate& d) {
      auto geofence = geofenceFromCLCircularRegion(*circle);
      entered ? d.beaconManagerDidEnterRegionWithGeofence(geofence)
              : d.beaconManagerDidExitRegionWithGeofence(geofence);
    });
  }
}

void QVLBeaconManager::didEnterRegion(const qvl::Region& region) {
  const InOwnContext inOwnContext(*impl_);
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::didEnterRegion")) return;
  regionEvent(region, true);
}

void QVLBeaconManager::didExitRegion(const qvl::Region& region) {
  const InOwnContext inOwnContext(*impl_);
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::didExitRegion")) return;
  regionEvent(region, false);
}

void QVLBeaconManager::didChangeAuthorization(qvl::AuthorizationStatus status) {
  const InOwnContext inOwnContext(*impl_);
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::didChangeAuthorization")) return;
  fanOut([&](QVLBeaconManagerDelegate& d) { d.beaconManagerDidChangeAuthorizationStatus(status); });
  qvl::NotificationCenter::defaultCenter().post(kDidChangeLocationAuthorizationStatusNotification,
                                                static_cast<std::int32_t>(status));
}

void QVLBeaconManager::bluetoothCentralDidUpdateState(qvl::BluetoothState) {
  const InOwnContext inOwnContext(*impl_);
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::bluetoothCentralDidUpdateState")) return;
  // The state is read again for each delegate: it is the central's, at the moment of use.
  fanOut([&](QVLBeaconManagerDelegate& d) {
    d.beaconManagerDidChangeBluetoothState(bluetoothState());
  });
  if (bluetoothState() == qvl::BluetoothState::PoweredOff) {
    analyticsManager().finishAllUnfinishedBeaconViews();
  }
  qvl::NotificationCenter::defaultCenter().post(kDidChangeBluetoothStateNotification, this);
}
