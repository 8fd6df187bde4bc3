#include "quorvel/records/QVLRedemption.h"

using qvl::PropertyKind;

const QVLModelClass& QVLRedemption::modelClass() {
  static const QVLModelClass cls = [] {
    QVLModelClass::Declaration d("QVLRedemption", [] { return std::make_shared<QVLRedemption>(); });
    d.primaryKey = "redemptionId";
    d.property(kRedemptionId, "redemptionId", PropertyKind::Int, true)
        .property(kCreatedAt, "createdAt", PropertyKind::Date)
        .property(kCost, "cost", PropertyKind::Int)
        .property(kTitle, "title", PropertyKind::String);
    d.apiResourcePlural = "redemptions";
    d.apiResourceSingular = "redemption";
    d.mapping = {
        {{"id", d.primaryKey}, {"created_at", "createdAt"}, {"cost", "cost"}, {"title", "title"}}};
    return QVLModelClass(std::move(d));
  }();
  return cls;
}
