#pragma once
/// @file
/// A prize the guest can redeem with balance points.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/records/QVLApiModel.h"
#include "quorvel/records/QVLMedia.h"

/// Primary key `prizeId`; resources "prizes" / "prize". Relation: "image" (media, written
/// back as "image_id").
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLPrize : public QVLModel<QVLPrize> {
 public:
  /// Property indexes in declaration order, for qvl::Object's keyed access.
  enum Property : int {
    kPrizeId,
    kTitle,
    kText,
    kCost,
    kActive,
    kImage,
    kWarning,
    kUserCanRedeem,
    kErrorMessage,
    kInfoMessage,
    kLimits,
    kExclusiveLeft,
    kExclusiveNextRedemption,
    kCreatedAt,
    kUpdatedAt,
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
  std::optional<std::int64_t> prizeId() const { return optionalInt(kPrizeId); }
  void setPrizeId(std::optional<std::int64_t> v) { setOptionalInt(kPrizeId, v); }
  std::optional<std::string> title() const { return stringValue(kTitle); }
  void setTitle(std::optional<std::string> v) { setString(kTitle, std::move(v)); }
  /// The service's "description".
  std::optional<std::string> text() const { return stringValue(kText); }
  void setText(std::optional<std::string> v) { setString(kText, std::move(v)); }
  /// Price in balance points.
  std::int64_t cost() const { return intValue(kCost); }
  void setCost(std::int64_t v) { setValue(kCost, v); }
  /// As the service says (not a validity window).
  bool active() const { return boolValue(kActive); }
  void setActive(bool v) { setValue(kActive, v); }
  std::shared_ptr<QVLMedia> image() const { return linkAs<QVLMedia>(kImage); }
  void setImage(std::shared_ptr<QVLMedia> v) { setLink(kImage, std::move(v)); }
  std::optional<std::string> warning() const { return stringValue(kWarning); }
  void setWarning(std::optional<std::string> v) { setString(kWarning, std::move(v)); }
  bool userCanRedeem() const { return boolValue(kUserCanRedeem); }
  void setUserCanRedeem(bool v) { setValue(kUserCanRedeem, v); }
  std::optional<std::string> errorMessage() const { return stringValue(kErrorMessage); }
  void setErrorMessage(std::optional<std::string> v) { setString(kErrorMessage, std::move(v)); }
  std::optional<std::string> infoMessage() const { return stringValue(kInfoMessage); }
  void setInfoMessage(std::optional<std::string> v) { setString(kInfoMessage, std::move(v)); }
  /// The prize's limits as JSON text, kept unparsed.
  std::optional<std::string> limits() const { return stringValue(kLimits); }
  void setLimits(std::optional<std::string> v) { setString(kLimits, std::move(v)); }
  std::int64_t exclusiveLeft() const { return intValue(kExclusiveLeft); }
  void setExclusiveLeft(std::int64_t v) { setValue(kExclusiveLeft, v); }
  std::optional<qvl::Date> exclusiveNextRedemption() const {
    return dateValue(kExclusiveNextRedemption);
  }
  void setExclusiveNextRedemption(std::optional<qvl::Date> v) {
    setDate(kExclusiveNextRedemption, v);
  }
  std::optional<qvl::Date> createdAt() const { return dateValue(kCreatedAt); }
  void setCreatedAt(std::optional<qvl::Date> v) { setDate(kCreatedAt, v); }
  std::optional<qvl::Date> updatedAt() const { return dateValue(kUpdatedAt); }
  void setUpdatedAt(std::optional<qvl::Date> v) { setDate(kUpdatedAt, v); }
  ///@}

  /// limits contains "USER_GROUP_MAX" with its double quotes (the key as written in the
  /// JSON text; the text is searched, not parsed). False without limits.
  bool isExclusive() const;
};
