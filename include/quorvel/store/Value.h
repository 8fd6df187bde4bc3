#pragma once
/// @file
/// Scalar values as the object store keeps them.

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "quorvel/platform/Date.h"

namespace qvl {

/// One scalar property value. std::monostate is null ("none"). 32-bit integer properties
/// hold std::int64_t here and are range-checked when set.
using Value = std::variant<std::monostate, std::int64_t, double, bool, std::string, Date>;

/// True when the value is the null alternative.
inline bool isNull(const Value& value) { return std::holds_alternative<std::monostate>(value); }

/// Kinds of persisted properties.
enum class PropertyKind {
  Int,             ///< 64-bit integer (optional or plain)
  Int32,           ///< 32-bit integer, always plain
  Bool,            ///< boolean, always plain
  Double,          ///< double (optional or plain)
  String,          ///< text, always optional
  Date,            ///< date, always optional
  Link,            ///< to-one link to another record, always optional
  List,            ///< ordered to-many list of another record type
  LinkingObjects,  ///< read-only inverse of another type's list; never stored
};

}  // namespace qvl
