#include "quorvel/records/QVLAction.h"

using qvl::PropertyKind;

const QVLModelClass& QVLAction::modelClass() {
  static const QVLModelClass cls = [] {
    QVLModelClass::Declaration d("QVLAction", [] { return std::make_shared<QVLAction>(); });
    d.primaryKey = "actionId";
    d.property(kActionId, "actionId", PropertyKind::Int, true)
        .property(kActionType, "actionType", PropertyKind::Int)
        .property(kName, "name", PropertyKind::String)
        .property(kSubjectName, "subjectName", PropertyKind::String)
        .property(kValue, "value", PropertyKind::Int)
        .property(kCreatedAt, "createdAt", PropertyKind::Date)
        .property(kUpdatedAt, "updatedAt", PropertyKind::Date)
        .property(kRegionId, "regionId", PropertyKind::Int);
    d.apiResourcePlural = "actions";
    d.apiResourceSingular = "action";
    d.mapping = {{{"id", d.primaryKey},
                  {"action_type", "actionType"},
                  {"pretty_name", "name"},
                  {"subject_name", "subjectName"},
                  {"value", "value"},
                  {"created_at", "createdAt"},
                  {"updated_at", "updatedAt"},
                  {"region_id", "regionId"}}};
    return QVLModelClass(std::move(d));
  }();
  return cls;
}
