#include "quorvel/records/QVLBeaconView.h"

using qvl::PropertyKind;

const QVLModelClass& QVLBeaconView::modelClass() {
  static const QVLModelClass cls = [] {
    QVLModelClass::Declaration d("QVLBeaconView", [] { return std::make_shared<QVLBeaconView>(); });
    d.property(kBeaconViewId, "beaconViewId", PropertyKind::Int, true)
        .property(kGuestId, "guestId", PropertyKind::Int, true)
        .property(kBeaconId, "beaconId", PropertyKind::Int, true)
        .property(kEnterDate, "enterDate", PropertyKind::Date)
        .property(kExitDate, "exitDate", PropertyKind::Date);
    d.apiResourcePlural = "beaconviews";
    d.apiResourceSingular = "beaconview";
    d.mapping = {{{"guest_id", "guestId"},
                  {"beacon_id", "beaconId"},
                  {"enter", "enterDate"},
                  {"exit", "exitDate"}}};
    return QVLModelClass(std::move(d));
  }();
  return cls;
}
