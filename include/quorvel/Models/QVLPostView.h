#pragma once
// How long the guest looked at a post: analytics sent to the service.

#include <cstdint>
#include <optional>

#include "quorvel/Export.h"
#include "quorvel/Models/QVLApiModel.h"

/// No primary key (never parsed from JSON; built locally and sent with toDictionary());
/// resources "postviews" / "postview". JSON: "guest_id", "post_id", "audience_id",
/// "time_in", "time_out", absent values left out. postViewId is local and never sent.
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLPostView : public QVLModel<QVLPostView> {
 public:
  enum Property : int {
    kPostViewId,
    kGuestId,
    kPostId,
    kAudienceId,
    kTimeIn,
    kTimeOut,
  };
  static const QVLModelClass& modelClass();

  std::optional<std::int64_t> postViewId() const { return optionalInt(kPostViewId); }
  void setPostViewId(std::optional<std::int64_t> v) { setOptionalInt(kPostViewId, v); }
  std::optional<std::int64_t> guestId() const { return optionalInt(kGuestId); }
  void setGuestId(std::optional<std::int64_t> v) { setOptionalInt(kGuestId, v); }
  std::optional<std::int64_t> postId() const { return optionalInt(kPostId); }
  void setPostId(std::optional<std::int64_t> v) { setOptionalInt(kPostId, v); }
  std::optional<std::int64_t> audienceId() const { return optionalInt(kAudienceId); }
  void setAudienceId(std::optional<std::int64_t> v) { setOptionalInt(kAudienceId, v); }
  std::optional<qvl::Date> timeIn() const { return dateValue(kTimeIn); }
  void setTimeIn(std::optional<qvl::Date> v) { setDate(kTimeIn, v); }
  std::optional<qvl::Date> timeOut() const { return dateValue(kTimeOut); }
  void setTimeOut(std::optional<qvl::Date> v) { setDate(kTimeOut, v); }
};
