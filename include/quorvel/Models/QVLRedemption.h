#pragma once
// A prize the guest redeemed.

#include <cstdint>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/Models/QVLApiModel.h"

/// Primary key `redemptionId`; resources "redemptions" / "redemption"; no relations.
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLRedemption : public QVLModel<QVLRedemption> {
 public:
  enum Property : int {
    kRedemptionId,
    kCreatedAt,
    kCost,
    kTitle,
  };
  static const QVLModelClass& modelClass();

  std::optional<std::int64_t> redemptionId() const { return optionalInt(kRedemptionId); }
  void setRedemptionId(std::optional<std::int64_t> v) { setOptionalInt(kRedemptionId, v); }
  std::optional<qvl::Date> createdAt() const { return dateValue(kCreatedAt); }
  void setCreatedAt(std::optional<qvl::Date> v) { setDate(kCreatedAt, v); }
  /// Balance points paid.
  std::int64_t cost() const { return intValue(kCost); }
  void setCost(std::int64_t v) { setValue(kCost, v); }
  std::optional<std::string> title() const { return stringValue(kTitle); }
  void setTitle(std::optional<std::string> v) { setString(kTitle, std::move(v)); }
};
