#pragma once
// A category that groups shops.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/Models/QVLApiModel.h"
#include "quorvel/Models/QVLShop.h"

/// Primary key `shopCategoryId`; resources "shopcategories" / "shopcategory". Relation: "shops"
/// (list).
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLShopCategory : public QVLModel<QVLShopCategory> {
 public:
  enum Property : int {
    kShopCategoryId,
    kName,
    kShops,
    kCreatedAt,
    kUpdatedAt,
  };
  static const QVLModelClass& modelClass();

  std::optional<std::int64_t> shopCategoryId() const { return optionalInt(kShopCategoryId); }
  void setShopCategoryId(std::optional<std::int64_t> v) { setOptionalInt(kShopCategoryId, v); }
  std::optional<std::string> name() const { return stringValue(kName); }
  void setName(std::optional<std::string> v) { setString(kName, std::move(v)); }
  qvl::List<QVLShop> shops() const { return listOf<QVLShop>(kShops); }
  std::optional<qvl::Date> createdAt() const { return dateValue(kCreatedAt); }
  void setCreatedAt(std::optional<qvl::Date> v) { setDate(kCreatedAt, v); }
  std::optional<qvl::Date> updatedAt() const { return dateValue(kUpdatedAt); }
  void setUpdatedAt(std::optional<qvl::Date> v) { setDate(kUpdatedAt, v); }
};
