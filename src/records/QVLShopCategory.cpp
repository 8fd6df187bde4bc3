#include "quorvel/records/QVLShopCategory.h"

using qvl::PropertyKind;

const QVLModelClass& QVLShopCategory::modelClass() {
  static const QVLModelClass cls = [] {
    QVLModelClass::Declaration d("QVLShopCategory",
                                 [] { return std::make_shared<QVLShopCategory>(); });
    d.primaryKey = "shopCategoryId";
    d.property(kShopCategoryId, "shopCategoryId", PropertyKind::Int, true)
        .property(kName, "name", PropertyKind::String)
        .list(kShops, "shops", &qvlObjectClassOf<QVLShop>)
        .property(kCreatedAt, "createdAt", PropertyKind::Date)
        .property(kUpdatedAt, "updatedAt", PropertyKind::Date);
    d.apiResourcePlural = "shopcategories";
    d.apiResourceSingular = "shopcategory";
    d.mapping = {{{"id", d.primaryKey},
                  {"name", "name"},
                  {"created_at", "createdAt"},
                  {"updated_at", "updatedAt"}}};
    d.mappingRelationships = {{
        QVLRelationshipMapping::newToManyRelationWithKey("shops", &QVLShop::modelClass),
    }};
    return QVLModelClass(std::move(d));
  }();
  return cls;
}
