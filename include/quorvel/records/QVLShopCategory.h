#pragma once
/// @file
/// A category that groups shops.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "quorvel/Export.h"
#include "quorvel/records/QVLApiModel.h"
#include "quorvel/records/QVLShop.h"

/// Primary key `shopCategoryId`; resources "shopcategories" / "shopcategory". Relation: "shops"
/// (list).
/// Threads: those of every record (qvl::Object).
class QVL_EXPORT QVLShopCategory : public QVLModel<QVLShopCategory> {
 public:
  /// Property indexes in declaration order, for qvl::Object's keyed access.
  enum Property : int {
    kShopCategoryId,
    kName,
    kShops,
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
  std::optional<std::int64_t> shopCategoryId() const { return optionalInt(kShopCategoryId); }
  void setShopCategoryId(std::optional<std::int64_t> v) { setOptionalInt(kShopCategoryId, v); }
  std::optional<std::string> name() const { return stringValue(kName); }
  void setName(std::optional<std::string> v) { setString(kName, std::move(v)); }
  qvl::List<QVLShop> shops() const { return listOf<QVLShop>(kShops); }
  std::optional<qvl::Date> createdAt() const { return dateValue(kCreatedAt); }
  void setCreatedAt(std::optional<qvl::Date> v) { setDate(kCreatedAt, v); }
  std::optional<qvl::Date> updatedAt() const { return dateValue(kUpdatedAt); }
  void setUpdatedAt(std::optional<qvl::Date> v) { setDate(kUpdatedAt, v); }
  ///@}
};
