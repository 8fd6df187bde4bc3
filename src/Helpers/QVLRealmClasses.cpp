#include "quorvel/Helpers/QVLRealm.h"
#include "quorvel/Models/QVLAction.h"
#include "quorvel/Models/QVLAudience.h"
#include "quorvel/Models/QVLBeacon.h"
#include "quorvel/Models/QVLBeaconCategory.h"
#include "quorvel/Models/QVLBeaconView.h"
#include "quorvel/Models/QVLGeofence.h"
#include "quorvel/Models/QVLGuest.h"
#include "quorvel/Models/QVLMedia.h"
#include "quorvel/Models/QVLOrganization.h"
#include "quorvel/Models/QVLPost.h"
#include "quorvel/Models/QVLPostField.h"
#include "quorvel/Models/QVLPostPeriod.h"
#include "quorvel/Models/QVLPostView.h"
#include "quorvel/Models/QVLPrize.h"
#include "quorvel/Models/QVLRedemption.h"
#include "quorvel/Models/QVLRegion.h"
#include "quorvel/Models/QVLShop.h"
#include "quorvel/Models/QVLShopCategory.h"

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
