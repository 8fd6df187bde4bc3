#pragma once
/// @file
/// How long the guest looked at a post: analytics sent to the service.

#include <cstdint>
#include <optional>

#include "quorvel/Export.h"
#include "quorvel/records/QVLApiModel.h"

/// No primary key (never parsed from JSON; built locally and sent with toDictionary());
/// resources "postviews" / "postview". JSON: "guest_id", "post_id", "audience_id",
/// "time_in", "time_out", absent values left out. postViewId is local and never sent.
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLPostView : public QVLModel<QVLPostView> {
 public:
  /// Property indexes in declaration order, for qvl::Object's keyed access.
  enum Property : int {
    kPostViewId,
    kGuestId,
    kPostId,
    kAudienceId,
    kTimeIn,
    kTimeOut,
  };
  /// The class descriptor: store shape, service resources and JSON mapping.
  static const QVLModelClass& modelClass();

  /// @name Mapped properties
  ///@{

  /// Typed accessor of one stored property. Each property has a getter and a setter; to-one
  /// relations give the related record or null, list properties a live qvl::List handle
  /// (change the list through it) and inverse relations live qvl::Results (read-only). A
  /// getter reads nullopt for an absent value, and 0 or false for a plain number or flag
  /// never set. Setting a property of a managed record needs an open write transaction on
  /// its handle and writes through (see qvl::Object). Which JSON key fills each property
  /// is the class's mapping (modelClass()).
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
  ///@}
};
