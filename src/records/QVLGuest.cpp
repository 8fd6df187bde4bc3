#include "quorvel/records/QVLGuest.h"

using qvl::PropertyKind;

const QVLModelClass& QVLGuest::modelClass() {
  static const QVLModelClass cls = [] {
    QVLModelClass::Declaration d("QVLGuest", [] { return std::make_shared<QVLGuest>(); });
    d.primaryKey = "guestId";
    d.property(kGuestId, "guestId", PropertyKind::Int, true)
        .property(kBalance, "balance", PropertyKind::Int, true)
        .property(kFirstName, "firstName", PropertyKind::String)
        .property(kMiddleName, "middleName", PropertyKind::String)
        .property(kLastName, "lastName", PropertyKind::String)
        .property(kEmail, "email", PropertyKind::String)
        .list(kActions, "actions", &qvlObjectClassOf<QVLAction>)
        .list(kRedemptions, "redemptions", &qvlObjectClassOf<QVLRedemption>)
        .list(kShops, "shops", &qvlObjectClassOf<QVLShop>)
        .list(kPosts, "posts", &qvlObjectClassOf<QVLPost>)
        .property(kCreatedAt, "createdAt", PropertyKind::Date)
        .property(kUpdatedAt, "updatedAt", PropertyKind::Date);
    d.apiResourcePlural = "guests";
    d.apiResourceSingular = "guest";
    d.mapping = {{{"id", d.primaryKey},
                  {"balance", "balance"},
                  {"first_name", "firstName"},
                  {"middle_name", "middleName"},
                  {"last_name", "lastName"},
                  {"email", "email"},
                  {"created_at", "createdAt"},
                  {"updated_at", "updatedAt"}}};
    d.mappingRelationships = {{
        QVLRelationshipMapping::newToManyRelationWithKey("actions", &QVLAction::modelClass),
        QVLRelationshipMapping::newToManyRelationWithKey("redemptions", &QVLRedemption::modelClass),
    }};
    d.protectedProperties = {{"shops", "posts"}};
    return QVLModelClass(std::move(d));
  }();
  return cls;
}
