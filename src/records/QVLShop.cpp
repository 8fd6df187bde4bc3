#include "quorvel/records/QVLShop.h"

#include "quorvel/records/QVLShopCategory.h"
#include "quorvel/records/QVLURLTrimmer.h"

using qvl::PropertyKind;

const QVLModelClass& QVLShop::modelClass() {
  static const QVLModelClass cls = [] {
    QVLModelClass::Declaration d("QVLShop", [] { return std::make_shared<QVLShop>(); });
    d.primaryKey = "shopId";
    d.property(kShopId, "shopId", PropertyKind::Int, true)
        .property(kName, "name", PropertyKind::String)
        .link(kImage, "image", &qvlObjectClassOf<QVLMedia>)
        .property(kHomepageURLString, "homepageURLString", PropertyKind::String)
        .link(kDirections, "directions", &qvlObjectClassOf<QVLMedia>)
        .property(kHours, "hours", PropertyKind::String)
        .property(kPhone, "phone", PropertyKind::String)
        .property(kDescriptionText, "descriptionText", PropertyKind::String)
        .property(kEmail, "email", PropertyKind::String)
        .link(kLogo, "logo", &qvlObjectClassOf<QVLMedia>)
        .property(kFacebookURLString, "facebookURLString", PropertyKind::String)
        .property(kCncEnabled, "cncEnabled", PropertyKind::Bool)
        .property(kCreatedAt, "createdAt", PropertyKind::Date)
        .property(kUpdatedAt, "updatedAt", PropertyKind::Date)
        .list(kBeacons, "beacons", &qvlObjectClassOf<QVLBeacon>)
        .linkingObjects(kShopCategories, "shopCategories", &qvlObjectClassOf<QVLShopCategory>,
                        "shops");
    d.apiResourcePlural = "shops";
    d.apiResourceSingular = "shop";
    d.mapping = {{{"id", d.primaryKey},
                  {"name", "name"},
                  {"homepage", "homepageURLString"},
                  {"hours", "hours"},
                  {"phone", "phone"},
                  {"description", "descriptionText"},
                  {"email", "email"},
                  {"facebook", "facebookURLString"},
                  {"cnc_enabled", "cncEnabled"},
                  {"created_at", "createdAt"},
                  {"updated_at", "updatedAt"}}};
    d.mappingRelationships = {{
        QVLRelationshipMapping::newToManyRelationWithKey("beacons", &QVLBeacon::modelClass),
        QVLRelationshipMapping::newToOneRelationWithKey("image", "image_id", &QVLMedia::modelClass),
        QVLRelationshipMapping::newToOneRelationWithKey("logo", "logo_id", &QVLMedia::modelClass),
        QVLRelationshipMapping::newToOneRelationWithKey("directions", "directions_id",
                                                        &QVLMedia::modelClass),
    }};
    return QVLModelClass(std::move(d));
  }();
  return cls;
}

std::optional<qvl::Url> QVLShop::homepageURL() const {
  return QVLURLTrimmer::trimmedURLFromString(homepageURLString());
}

std::optional<qvl::Url> QVLShop::facebookURL() const {
  return QVLURLTrimmer::trimmedURLFromString(facebookURLString());
}
