#include "quorvel/Managers/QVLBeaconManager.h"

#include "Platform/MainQueueOnly.h"
#include "Proximity/StandardBackend.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <limits>

#include "quorvel/Helpers/QVLRealm.h"
#include "quorvel/Managers/QVLAnalyticsManager.h"
#include "quorvel/Platform/Application.h"
#include "quorvel/Platform/Env.h"
#include "quorvel/Platform/NotificationCenter.h"

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

std::size_t QVLBeaconManager::IdentityKeyHash::operator()(const IdentityKey& key) const noexcept {
  std::size_t hash = std::hash<qvl::Uuid>{}(key.uuid);
  hash ^= std::hash<std::int64_t>{}(key.major) + 0x9e3779b97f4a7c15ULL + (hash << 6) + (hash >> 2);
  hash ^= std::hash<std::int64_t>{}(key.minor) + 0x9e3779b97f4a7c15ULL + (hash << 6) + (hash >> 2);
  return hash;
}

template <class R>
bool QVLBeaconManager::RegionList<R>::contains(const R& region) const {
  auto bucket = byIdentifier.find(region.identifier);
  return bucket != byIdentifier.end() &&
         std::find(bucket->second.begin(), bucket->second.end(), region) != bucket->second.end();
}

template <class R>
void QVLBeaconManager::RegionList<R>::add(const R& region) {
  ordered.push_back(region);
  byIdentifier[region.identifier].push_back(region);
}

template <class R>
void QVLBeaconManager::RegionList<R>::removeEvery(const R& region) {
  std::erase(ordered, region);
  auto bucket = byIdentifier.find(region.identifier);
  if (bucket == byIdentifier.end()) return;
  std::erase(bucket->second, region);
  if (bucket->second.empty()) byIdentifier.erase(bucket);
}

template <class R>
void QVLBeaconManager::RegionList<R>::clear() {
  ordered.clear();
  byIdentifier.clear();
}

QVLBeaconManager& QVLBeaconManager::sharedManager() {
  // Never destroyed: services hold it weakly and may report until the process ends.
  static std::shared_ptr<QVLBeaconManager>* instance =
      new std::shared_ptr<QVLBeaconManager>(new QVLBeaconManager());
  (*instance)->bindToServices();
  return **instance;
}

void QVLBeaconManager::bindToServices() {
  const auto env = qvl::Env::current();
  std::lock_guard lock(bindMutex_);
  const auto central = qvl::proximity::bluetoothCentralOf(*env);
  if (central && central != boundBluetoothCentral_.lock()) {
    boundBluetoothCentral_ = central;
    // The manager only reads the radio's state; turning it on is the host's to ask for.
    central->setOptions({.showPowerAlert = false});
    central->setDelegate(weak_from_this());
  }
  const auto service = qvl::proximity::locationServiceOf(*env);
  if (!service || service == boundLocationService_.lock()) return;
  boundLocationService_ = service;
  closestBeacon_.reset();
  searchingBeacons_.clear();
  beaconsById_.clear();
  beaconsByIdentity_.clear();
  beaconRegions_.clear();
  geofences_.clear();
  rangedUUID_.reset();
  service->setDelegate(weak_from_this());
  for (const auto& region : service->monitoredRegions()) service->stopMonitoring(region);
}

std::shared_ptr<qvl::LocationService> QVLBeaconManager::locationService() const {
  return qvl::proximity::locationServiceOf(*qvl::Env::current());
}

QVLAnalyticsManager& QVLBeaconManager::analyticsManager() const {
  return QVLAnalyticsManager::sharedManager();
}

template <class Call>
void QVLBeaconManager::fanOut(const Call& call) {
  for (const auto& delegate : delegates_.allObjects()) call(*delegate);
}

void QVLBeaconManager::addDelegate(const std::shared_ptr<QVLBeaconManagerDelegate>& delegate) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::addDelegate")) return;
  delegates_.addObject(delegate);
}

void QVLBeaconManager::removeDelegate(const QVLBeaconManagerDelegate* delegate) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::removeDelegate")) return;
  delegates_.removeObject(delegate);
}

// ---- watches ------------------------------------------------------------------------------

void QVLBeaconManager::addSnapshot(std::shared_ptr<QVLBeaconInternal> snapshot) {
  if (snapshot->beaconId) beaconsById_.emplace(*snapshot->beaconId, snapshot);
  if (snapshot->uuid && snapshot->major && snapshot->minor) {
    beaconsByIdentity_[{*snapshot->uuid, *snapshot->major, *snapshot->minor}].push_back(snapshot);
  }
  searchingBeacons_.push_back(std::move(snapshot));
}

void QVLBeaconManager::removeSnapshot(const std::shared_ptr<QVLBeaconInternal>& snapshot) {
  if (!snapshot) return;
  std::erase(searchingBeacons_, snapshot);
  if (snapshot->beaconId) beaconsById_.erase(*snapshot->beaconId);
  if (snapshot->uuid && snapshot->major && snapshot->minor) {
    auto bucket = beaconsByIdentity_.find({*snapshot->uuid, *snapshot->major, *snapshot->minor});
    if (bucket == beaconsByIdentity_.end()) return;
    std::erase(bucket->second, snapshot);
    if (bucket->second.empty()) beaconsByIdentity_.erase(bucket);
  }
}

void QVLBeaconManager::startSearchingForBeacon(const std::shared_ptr<QVLBeacon>& beacon) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::startSearchingForBeacon")) return;
  if (!beacon || isBeaconMonitoring(*beacon)) return;
  auto region = beacon->beaconRegion();
  if (auto service = locationService(); service && region) service->startMonitoring(*region);
  addSnapshot(QVLBeaconInternal::newWithBeaconId(beacon->beaconId(), beacon->uuid(),
                                                 beacon->major(), beacon->minor()));
  if (!rangedUUID_) setRangedUUID(beacon->uuid());
}

void QVLBeaconManager::stopSearchingForBeacon(const std::shared_ptr<QVLBeacon>& beacon) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::stopSearchingForBeacon")) return;
  if (!beacon || !isBeaconMonitoring(*beacon)) return;
  auto region = beacon->beaconRegion();
  if (auto service = locationService(); service && region) service->stopMonitoring(*region);
  analyticsManager().finishBeaconViewOfBeacon(beacon);
  removeSnapshot(internalBeaconFromBeaconId(beacon->beaconId()));
  if (searchingBeacons_.empty() && beaconRegions_.ordered.empty()) setRangedUUID(std::nullopt);
}

void QVLBeaconManager::stopSearchingForBeacons() {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::stopSearchingForBeacons")) return;
  auto service = locationService();
  const auto snapshots = searchingBeacons_;
  for (const auto& snapshot : snapshots) {
    // A record deleted since its watch started is passed on as null.
    auto beacon = storedBeacon(snapshot.get());
    auto region = beacon ? beacon->beaconRegion() : std::nullopt;
    if (service && region) service->stopMonitoring(*region);
    analyticsManager().finishBeaconViewOfBeacon(beacon);
  }
  setRangedUUID(std::nullopt);
  searchingBeacons_.clear();
  beaconsById_.clear();
  beaconsByIdentity_.clear();
}

void QVLBeaconManager::startSearchingForBeaconRegion(const qvl::BeaconRegion& region) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::startSearchingForBeaconRegion")) return;
  if (beaconRegions_.contains(region)) return;
  if (auto service = locationService()) service->startMonitoring(region);
  beaconRegions_.add(region);
  if (!rangedUUID_) setRangedUUID(region.proximityUUID);
}

void QVLBeaconManager::stopSearchingForBeaconRegion(const qvl::BeaconRegion& region) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::stopSearchingForBeaconRegion")) return;
  if (!beaconRegions_.contains(region)) return;
  if (auto service = locationService()) service->stopMonitoring(region);
  beaconRegions_.removeEvery(region);
  // Only beacon records keep ranging on here, not the raw regions still watched.
  if (searchingBeacons_.empty()) setRangedUUID(std::nullopt);
}

void QVLBeaconManager::startSearchingForGeofence(const std::shared_ptr<QVLGeofence>& geofence) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::startSearchingForGeofence")) return;
  if (!geofence) return;
  const auto region = geofence->region();
  if (geofences_.contains(region)) return;
  if (auto service = locationService()) service->startMonitoring(region);
  geofences_.add(region);
}

void QVLBeaconManager::stopSearchingForGeofence(const std::shared_ptr<QVLGeofence>& geofence) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::stopSearchingForGeofence")) return;
  if (!geofence) return;
  const auto region = geofence->region();
  if (!geofences_.contains(region)) return;
  if (auto service = locationService()) service->stopMonitoring(region);
  geofences_.removeEvery(region);
}

void QVLBeaconManager::setRangedUUID(std::optional<qvl::Uuid> uuid) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::setRangedUUID")) return;
  setClosestBeacon(nullptr);
  auto service = locationService();
  if (rangedUUID_ && service) {
    service->stopRanging(qvl::BeaconRegion::withUuid(*rangedUUID_, kRangingRegionIdentifier));
  }
  rangedUUID_ = uuid;
  if (rangedUUID_ && service) {
    // A guest who turns the screen on is shown where they are without waiting for a crossing.
    auto region = qvl::BeaconRegion::withUuid(*rangedUUID_, kRangingRegionIdentifier);
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
  return beaconRegions_.contains(region);
}

bool QVLBeaconManager::isCLCircularRegionMonitoring(const qvl::CircularRegion& region) const {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::isCLCircularRegionMonitoring"))
    return false;
  return geofences_.contains(region);
}

std::shared_ptr<QVLBeaconInternal> QVLBeaconManager::internalBeaconFromBeaconId(
    std::optional<std::int64_t> beaconId) const {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::internalBeaconFromBeaconId"))
    return nullptr;
  if (!beaconId) return nullptr;
  auto found = beaconsById_.find(*beaconId);
  return found == beaconsById_.end() ? nullptr : found->second;
}

std::shared_ptr<QVLBeaconInternal> QVLBeaconManager::internalBeaconFromUUID(
    const qvl::Uuid& uuid, std::optional<std::int64_t> major,
    std::optional<std::int64_t> minor) const {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::internalBeaconFromUUID")) return nullptr;
  if (!major || !minor) return nullptr;
  auto found = beaconsByIdentity_.find({uuid, *major, *minor});
  return found == beaconsByIdentity_.end() ? nullptr : found->second.front();
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
  if (!beacon && !closestBeacon_) return;
  if (beacon && closestBeacon_ && beacon->beaconId() && closestBeacon_->beaconId() &&
      *beacon->beaconId() == *closestBeacon_->beaconId()) {
    return;  // the same beacon: the stored record stays, nothing is announced
  }
  closestBeacon_ = beacon;
  fanOut(
      [&](QVLBeaconManagerDelegate& d) { d.beaconManagerClosestBeaconChangedTo(closestBeacon_); });
}

void QVLBeaconManager::didRangeBeacons(const std::vector<qvl::RangedBeacon>& beacons,
                                       const qvl::BeaconRegion&) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::didRangeBeacons")) return;
  fanOut([&](QVLBeaconManagerDelegate& d) { d.beaconManagerDidRangeCLBeacons(beacons); });
  if (beacons.empty() || searchingBeacons_.empty()) {
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
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::didEnterRegion")) return;
  regionEvent(region, true);
}

void QVLBeaconManager::didExitRegion(const qvl::Region& region) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::didExitRegion")) return;
  regionEvent(region, false);
}

void QVLBeaconManager::didChangeAuthorization(qvl::AuthorizationStatus status) {
  if (!qvl::detail::requireMainQueue("QVLBeaconManager::didChangeAuthorization")) return;
  fanOut([&](QVLBeaconManagerDelegate& d) { d.beaconManagerDidChangeAuthorizationStatus(status); });
  qvl::NotificationCenter::defaultCenter().post(kDidChangeLocationAuthorizationStatusNotification,
                                                static_cast<std::int32_t>(status));
}

void QVLBeaconManager::bluetoothCentralDidUpdateState(qvl::BluetoothState) {
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
