#include "quorvel/records/QVLPostField.h"

#include "quorvel/records/QVLPost.h"

using qvl::PropertyKind;

const QVLModelClass& QVLPostField::modelClass() {
  static const QVLModelClass cls = [] {
    QVLModelClass::Declaration d("QVLPostField", [] { return std::make_shared<QVLPostField>(); });
    d.primaryKey = "postFieldId";
    d.property(kPostFieldId, "postFieldId", PropertyKind::Int, true)
        .property(kPostFieldTypeId, "postFieldTypeId", PropertyKind::Int)
        .property(kOrder, "order", PropertyKind::Int32)
        .property(kContent, "content", PropertyKind::String)
        .property(kCreatedAt, "createdAt", PropertyKind::Date)
        .property(kUpdatedAt, "updatedAt", PropertyKind::Date)
        .linkingObjects(kPosts, "posts", &qvlObjectClassOf<QVLPost>, "postFields");
    d.apiResourcePlural = "postfields";
    d.apiResourceSingular = "postfield";
    d.mapping = {{{"id", d.primaryKey},
                  {"postFieldType_id", "postFieldTypeId"},
                  {"order", "order"},
                  {"content", "content"},
                  {"created_at", "createdAt"},
                  {"updated_at", "updatedAt"}}};
    return QVLModelClass(std::move(d));
  }();
  return cls;
}
