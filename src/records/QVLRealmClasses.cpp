#include "quorvel/records/QVLAction.h"
#include "quorvel/records/QVLAudience.h"
#include "quorvel/records/QVLBeacon.h"
#include "quorvel/records/QVLBeaconCategory.h"
#include "quorvel/records/QVLBeaconView.h"
#include "quorvel/records/QVLGeofence.h"
#include "quorvel/records/QVLGuest.h"
#include "quorvel/records/QVLMedia.h"
#include "quorvel/records/QVLOrganization.h"
#include "quorvel/records/QVLPost.h"
#include "quorvel/records/QVLPostField.h"
#include "quorvel/records/QVLPostPeriod.h"
#include "quorvel/records/QVLPostView.h"
#include "quorvel/records/QVLPrize.h"
#include "quorvel/records/QVLRealm.h"
#include "quorvel/records/QVLRedemption.h"
#include "quorvel/records/QVLRegion.h"
#include "quorvel/records/QVLShop.h"
#include "quorvel/records/QVLShopCategory.h"

const std::vector<qvl::ObjectClassRef>& QVLRealm::objectClasses() {
  static const std::vector<qvl::ObjectClassRef> classes = {
      &qvlObjectClassOf<QVLOrganization>, &qvlObjectClassOf<QVLShop>,
      &qvlObjectClassOf<QVLShopCategory>, &qvlObjectClassOf<QVLBeaconCategory>,
      &qvlObjectClassOf<QVLAudience>,     &qvlObjectClassOf<QVLRegion>,
      &qvlObjectClassOf<QVLBeacon>,       &qvlObjectClassOf<QVLGeofence>,
      &qvlObjectClassOf<QVLMedia>,        &qvlObjectClassOf<QVLPost>,
      &qvlObjectClassOf<QVLPostField>,    &qvlObjectClassOf<QVLPostPeriod>,
      &qvlObjectClassOf<QVLPrize>,        &qvlObjectClassOf<QVLRedemption>,
      &qvlObjectClassOf<QVLAction>,       &qvlObjectClassOf<QVLGuest>,
      &qvlObjectClassOf<QVLPostView>,     &qvlObjectClassOf<QVLBeaconView>,
  };
  return classes;
}
