#include "quorvel/records/QVLBeaconCategory.h"

using qvl::PropertyKind;

const QVLModelClass& QVLBeaconCategory::modelClass() {
  static const QVLModelClass cls = [] {
    QVLModelClass::Declaration d("QVLBeaconCategory",
                                 [] { return std::make_shared<QVLBeaconCategory>(); });
    d.primaryKey = "beaconCategoryId";
    d.property(kBeaconCategoryId, "beaconCategoryId", PropertyKind::Int, true)
        .property(kName, "name", PropertyKind::String)
        .list(kBeacons, "beacons", &qvlObjectClassOf<QVLBeacon>)
        .property(kCreatedAt, "createdAt", PropertyKind::Date)
        .property(kUpdatedAt, "updatedAt", PropertyKind::Date);
    d.apiResourcePlural = "beaconcategories";
    d.apiResourceSingular = "beaconcategory";
    d.mapping = {{{"id", d.primaryKey},
                  {"name", "name"},
                  {"created_at", "createdAt"},
                  {"updated_at", "updatedAt"}}};
    d.mappingRelationships = {{
        QVLRelationshipMapping::newToManyRelationWithKey("beacons", &QVLBeacon::modelClass),
    }};
    return QVLModelClass(std::move(d));
  }();
  return cls;
}
