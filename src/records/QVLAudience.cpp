#include "quorvel/records/QVLAudience.h"

using qvl::PropertyKind;

const QVLModelClass& QVLAudience::modelClass() {
  static const QVLModelClass cls = [] {
    QVLModelClass::Declaration d("QVLAudience", [] { return std::make_shared<QVLAudience>(); });
    d.primaryKey = "audienceId";
    d.property(kAudienceId, "audienceId", PropertyKind::Int, true)
        .property(kName, "name", PropertyKind::String)
        .list(kPosts, "posts", &qvlObjectClassOf<QVLPost>)
        .property(kCreatedAt, "createdAt", PropertyKind::Date)
        .property(kUpdatedAt, "updatedAt", PropertyKind::Date);
    d.apiResourcePlural = "audiences";
    d.apiResourceSingular = "audience";
    d.mapping = {{{"id", d.primaryKey},
                  {"name", "name"},
                  {"created_at", "createdAt"},
                  {"updated_at", "updatedAt"}}};
    d.mappingRelationships = {{
        QVLRelationshipMapping::newToManyRelationWithKey("posts", &QVLPost::modelClass),
    }};
    return QVLModelClass(std::move(d));
  }();
  return cls;
}
