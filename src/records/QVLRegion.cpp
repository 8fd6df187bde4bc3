#include "quorvel/records/QVLRegion.h"

#include "quorvel/platform/Clock.h"

using qvl::PropertyKind;

const QVLModelClass& QVLRegion::modelClass() {
  static const QVLModelClass cls = [] {
    QVLModelClass::Declaration d("QVLRegion", [] { return std::make_shared<QVLRegion>(); });
    d.primaryKey = "regionId";
    d.property(kRegionId, "regionId", PropertyKind::Int, true)
        .property(kStart, "start", PropertyKind::Date)
        .property(kStop, "stop", PropertyKind::Date)
        .property(kUuid, "uuid", PropertyKind::String)
        .property(kMajor, "major", PropertyKind::Int, true)
        .property(kMinor, "minor", PropertyKind::Int, true);
    d.apiResourcePlural = "regions";
    d.apiResourceSingular = "region";
    d.mapping = {{{"id", d.primaryKey},
                  {"start", "start"},
                  {"stop", "stop"},
                  {"uuid", "uuid"},
                  {"major", "major"},
                  {"minor", "minor"}}};
    return QVLModelClass(std::move(d));
  }();
  return cls;
}

std::string QVLRegion::regionIdentifier() const {
  auto id = regionId();
  return "qvl_region;" + (id ? std::to_string(*id) : std::string());
}

std::optional<qvl::BeaconRegion> QVLRegion::beaconRegion() const {
  auto text = uuid();
  if (!text) return std::nullopt;
  auto proximityUUID = qvl::Uuid::parse(*text);
  if (!proximityUUID) return std::nullopt;
  auto majorValue = major();
  auto minorValue = minor();
  if (majorValue && minorValue) {
    return qvl::BeaconRegion::withMajorMinor(
        *proximityUUID, static_cast<std::uint16_t>(*majorValue),
        static_cast<std::uint16_t>(*minorValue), regionIdentifier());
  }
  if (majorValue) {
    return qvl::BeaconRegion::withMajor(*proximityUUID, static_cast<std::uint16_t>(*majorValue),
                                        regionIdentifier());
  }
  return qvl::BeaconRegion::withUuid(*proximityUUID, regionIdentifier());
}

bool QVLRegion::active() const {
  auto from = start();
  auto until = stop();
  if (!from || !until) return false;
  qvl::Date now = qvl::now();
  return *from < now && now < *until;
}
