#include "quorvel/records/QVLGeofence.h"

#include "records/QVLPlaceRules.h"

using qvl::PropertyKind;

const QVLModelClass& QVLGeofence::modelClass() {
  static const QVLModelClass cls = [] {
    QVLModelClass::Declaration d("QVLGeofence", [] { return std::make_shared<QVLGeofence>(); });
    d.primaryKey = "geofenceId";
    d.property(kGeofenceId, "geofenceId", PropertyKind::Int, true)
        .property(kName, "name", PropertyKind::String)
        .property(kMessage, "message", PropertyKind::String)
        .property(kLatitude, "latitude", PropertyKind::Double)
        .property(kLongitude, "longitude", PropertyKind::Double)
        .property(kRadius, "radius", PropertyKind::Double)
        .list(kPosts, "posts", &qvlObjectClassOf<QVLPost>)
        .property(kCreatedAt, "createdAt", PropertyKind::Date)
        .property(kUpdatedAt, "updatedAt", PropertyKind::Date);
    d.apiResourcePlural = "geofences";
    d.apiResourceSingular = "geofence";
    d.mapping = {{{"id", d.primaryKey},
                  {"name", "name"},
                  {"message", "message"},
                  {"latitude", "latitude"},
                  {"longitude", "longitude"},
                  {"radius", "radius"},
                  {"created_at", "createdAt"},
                  {"updated_at", "updatedAt"}}};
    d.mappingRelationships = {{
        QVLRelationshipMapping::newToManyRelationWithKey("posts", &QVLPost::modelClass),
    }};
    return QVLModelClass(std::move(d));
  }();
  return cls;
}

qvl::CircularRegion QVLGeofence::region() const {
  auto id = geofenceId();
  return {coordinate(), radius(), id ? std::to_string(*id) : std::string()};
}

qvl::Results<QVLPost> QVLGeofence::activePosts() const { return qvl::activePostsOf(posts()); }

bool QVLGeofence::active() const { return !activePosts().empty(); }

std::string QVLGeofence::notificationMessage() const {
  return qvl::notificationMessageOf(message(), name());
}
