#include "quorvel/records/QVLPost.h"

#include <algorithm>

#include "quorvel/records/QVLAudience.h"
#include "quorvel/records/QVLBeacon.h"

using qvl::PropertyKind;

const QVLModelClass& QVLPost::modelClass() {
  static const QVLModelClass cls = [] {
    QVLModelClass::Declaration d("QVLPost", [] { return std::make_shared<QVLPost>(); });
    d.primaryKey = "postId";
    d.property(kPostId, "postId", PropertyKind::Int, true)
        .property(kName, "name", PropertyKind::String)
        .property(kContent, "content", PropertyKind::String)
        .list(kPeriods, "periods", &qvlObjectClassOf<QVLPostPeriod>)
        .list(kPostFields, "postFields", &qvlObjectClassOf<QVLPostField>)
        .link(kThumbnail, "thumbnail", &qvlObjectClassOf<QVLMedia>)
        .property(kCollectible, "collectible", PropertyKind::Bool)
        .jsonText(kParametersJSON, "parametersJSON")
        .linkingObjects(kBeacons, "beacons", &qvlObjectClassOf<QVLBeacon>, "posts")
        .linkingObjects(kAudiences, "audiences", &qvlObjectClassOf<QVLAudience>, "posts")
        .property(kCreatedAt, "createdAt", PropertyKind::Date)
        .property(kUpdatedAt, "updatedAt", PropertyKind::Date)
        .property(kRead, "read", PropertyKind::Bool)
        .property(kSaved, "saved", PropertyKind::Bool);
    d.apiResourcePlural = "posts";
    d.apiResourceSingular = "post";
    d.mapping = {{{"id", d.primaryKey},
                  {"name", "name"},
                  {"content.html", "content"},
                  {"collectible", "collectible"},
                  {"parameters", "parametersJSON"},
                  {"created_at", "createdAt"},
                  {"updated_at", "updatedAt"}}};
    d.mappingRelationships = {{
        QVLRelationshipMapping::newToManyRelationWithJsonKey("postperiods", "periods",
                                                             &QVLPostPeriod::modelClass),
        QVLRelationshipMapping::newToManyRelationWithJsonKey("postfields", "postFields",
                                                             &QVLPostField::modelClass),
        QVLRelationshipMapping::newToOneRelationWithKey("thumbnail", "thumbnail_id",
                                                        &QVLMedia::modelClass),
    }};
    d.protectedProperties = {{"read", "saved"}};
    return QVLModelClass(std::move(d));
  }();
  return cls;
}

bool QVLPost::active() const {
  auto all = periods().elements();
  return all.empty() ||
         std::any_of(all.begin(), all.end(), [](const auto& period) { return period->active(); });
}
