#include "quorvel/records/QVLPrize.h"

using qvl::PropertyKind;

const QVLModelClass& QVLPrize::modelClass() {
  static const QVLModelClass cls = [] {
    QVLModelClass::Declaration d("QVLPrize", [] { return std::make_shared<QVLPrize>(); });
    d.primaryKey = "prizeId";
    d.property(kPrizeId, "prizeId", PropertyKind::Int, true)
        .property(kTitle, "title", PropertyKind::String)
        .property(kText, "text", PropertyKind::String)
        .property(kCost, "cost", PropertyKind::Int)
        .property(kActive, "active", PropertyKind::Bool)
        .link(kImage, "image", &qvlObjectClassOf<QVLMedia>)
        .property(kWarning, "warning", PropertyKind::String)
        .property(kUserCanRedeem, "userCanRedeem", PropertyKind::Bool)
        .property(kErrorMessage, "errorMessage", PropertyKind::String)
        .property(kInfoMessage, "infoMessage", PropertyKind::String)
        .jsonText(kLimits, "limits")
        .property(kExclusiveLeft, "exclusiveLeft", PropertyKind::Int)
        .property(kExclusiveNextRedemption, "exclusiveNextRedemption", PropertyKind::Date)
        .property(kCreatedAt, "createdAt", PropertyKind::Date)
        .property(kUpdatedAt, "updatedAt", PropertyKind::Date);
    d.apiResourcePlural = "prizes";
    d.apiResourceSingular = "prize";
    d.mapping = {{{"id", d.primaryKey},
                  {"title", "title"},
                  {"description", "text"},
                  {"cost", "cost"},
                  {"active", "active"},
                  {"warning", "warning"},
                  {"user_can_redeem", "userCanRedeem"},
                  {"error_message", "errorMessage"},
                  {"info_message", "infoMessage"},
                  {"limits", "limits"},
                  {"exclusive_left", "exclusiveLeft"},
                  {"exclusive_next_redemption", "exclusiveNextRedemption"},
                  {"created_at", "createdAt"},
                  {"updated_at", "updatedAt"}}};
    d.mappingRelationships = {{
        QVLRelationshipMapping::newToOneRelationWithKey("image", "image_id", &QVLMedia::modelClass),
    }};
    return QVLModelClass(std::move(d));
  }();
  return cls;
}

bool QVLPrize::isExclusive() const {
  auto text = limits();
  return text && text->find("\"USER_GROUP_MAX\"") != std::string::npos;
}
