#include "quorvel/records/QVLPostPeriod.h"

#include "quorvel/platform/Clock.h"

using qvl::PropertyKind;

const QVLModelClass& QVLPostPeriod::modelClass() {
  static const QVLModelClass cls = [] {
    QVLModelClass::Declaration d("QVLPostPeriod", [] { return std::make_shared<QVLPostPeriod>(); });
    d.primaryKey = "postPeriodId";
    d.property(kPostPeriodId, "postPeriodId", PropertyKind::Int, true)
        .property(kStart, "start", PropertyKind::Date)
        .property(kStop, "stop", PropertyKind::Date)
        .property(kCreatedAt, "createdAt", PropertyKind::Date)
        .property(kUpdatedAt, "updatedAt", PropertyKind::Date);
    d.apiResourcePlural = "postperiods";
    d.apiResourceSingular = "postPeriod";
    d.mapping = {{{"id", d.primaryKey},
                  {"start", "start"},
                  {"stop", "stop"},
                  {"created_at", "createdAt"},
                  {"updated_at", "updatedAt"}}};
    return QVLModelClass(std::move(d));
  }();
  return cls;
}

bool QVLPostPeriod::active() const {
  auto from = start();
  auto until = stop();
  if (!from || !until) return false;
  qvl::Date now = qvl::now();
  return *from < now && now < *until;
}
