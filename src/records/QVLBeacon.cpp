#include "quorvel/records/QVLBeacon.h"

#include "quorvel/records/QVLBeaconCategory.h"
#include "quorvel/records/QVLPosition.h"
#include "quorvel/records/QVLShop.h"
#include "records/QVLPlaceRules.h"

using qvl::PropertyKind;

const QVLModelClass& QVLBeacon::modelClass() {
  static const QVLModelClass cls = [] {
    QVLModelClass::Declaration d("QVLBeacon", [] { return std::make_shared<QVLBeacon>(); });
    d.primaryKey = "beaconId";
    d.property(kBeaconId, "beaconId", PropertyKind::Int, true)
        .property(kName, "name", PropertyKind::String)
        .property(kUuidString, "uuidString", PropertyKind::String)
        .property(kMajor, "major", PropertyKind::Int, true)
        .property(kMinor, "minor", PropertyKind::Int, true)
        .property(kMessage, "message", PropertyKind::String)
        .property(kLatitude, "latitude", PropertyKind::Double, true)
        .property(kLongitude, "longitude", PropertyKind::Double, true)
        .list(kPosts, "posts", &qvlObjectClassOf<QVLPost>)
        .linkingObjects(kShops, "shops", &qvlObjectClassOf<QVLShop>, "beacons")
        .linkingObjects(kBeaconCategories, "beaconCategories", &qvlObjectClassOf<QVLBeaconCategory>,
                        "beacons")
        .property(kCreatedAt, "createdAt", PropertyKind::Date)
        .property(kUpdatedAt, "updatedAt", PropertyKind::Date);
    d.apiResourcePlural = "beacons";
    d.apiResourceSingular = "beacon";
    d.mapping = {{{"id", d.primaryKey},
                  {"description", "name"},
                  {"uuid", "uuidString"},
                  {"major", "major"},
                  {"minor", "minor"},
                  {"message", "message"},
                  {"latitude", "latitude"},
                  {"longitude", "longitude"},
                  {"created_at", "createdAt"},
                  {"updated_at", "updatedAt"}}};
    d.mappingRelationships = {{
        QVLRelationshipMapping::newToManyRelationWithKey("posts", &QVLPost::modelClass),
    }};
    return QVLModelClass(std::move(d));
  }();
  return cls;
}

// "_uuid" of the record: never stored.
struct QVLBeacon::Impl {
  qvl::Uuid uuid;
};

QVLBeacon::QVLBeacon() = default;
QVLBeacon::~QVLBeacon() = default;

std::optional<qvl::Uuid> QVLBeacon::uuid() const {
  if (!impl_) {
    std::optional<qvl::Uuid> parsed;
    if (auto text = uuidString()) parsed = qvl::Uuid::parse(*text);
    if (!parsed) return std::nullopt;
    impl_ = std::make_unique<Impl>(Impl{*parsed});
  }
  return impl_->uuid;
}

std::optional<qvl::BeaconRegion> QVLBeacon::beaconRegion() const {
  auto proximityUUID = uuid();
  if (!proximityUUID) return std::nullopt;
  auto id = beaconId();
  return qvl::BeaconRegion::withMajorMinor(
      *proximityUUID, static_cast<std::uint16_t>(major().value_or(0)),
      static_cast<std::uint16_t>(minor().value_or(0)), id ? std::to_string(*id) : std::string());
}

qvl::Coordinate QVLBeacon::coordinate() const {
  return qvl::coordinateOrDefault(latitude(), longitude());
}

qvl::Results<QVLPost> QVLBeacon::activePosts() const { return qvl::activePostsOf(posts()); }

bool QVLBeacon::active() const {
  // activePosts() is not empty exactly when some listed post with a key is active; asking
  // that directly stops at the first one and runs no narrowing query.
  for (const auto& post : posts().elements()) {
    if (post->postId() && post->active()) return true;
  }
  return false;
}

std::string QVLBeacon::notificationMessage() const {
  return qvl::notificationMessageOf(message(), name());
}
