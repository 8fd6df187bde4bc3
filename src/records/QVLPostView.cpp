#include "quorvel/records/QVLPostView.h"

using qvl::PropertyKind;

const QVLModelClass& QVLPostView::modelClass() {
  static const QVLModelClass cls = [] {
    QVLModelClass::Declaration d("QVLPostView", [] { return std::make_shared<QVLPostView>(); });
    d.property(kPostViewId, "postViewId", PropertyKind::Int, true)
        .property(kGuestId, "guestId", PropertyKind::Int, true)
        .property(kPostId, "postId", PropertyKind::Int, true)
        .property(kAudienceId, "audienceId", PropertyKind::Int, true)
        .property(kTimeIn, "timeIn", PropertyKind::Date)
        .property(kTimeOut, "timeOut", PropertyKind::Date);
    d.apiResourcePlural = "postviews";
    d.apiResourceSingular = "postview";
    d.mapping = {{{"guest_id", "guestId"},
                  {"post_id", "postId"},
                  {"audience_id", "audienceId"},
                  {"time_in", "timeIn"},
                  {"time_out", "timeOut"}}};
    return QVLModelClass(std::move(d));
  }();
  return cls;
}
