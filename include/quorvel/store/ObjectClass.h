#pragma once
/// @file
/// The persisted shape of one record type: its properties, primary key and factory.

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "quorvel/Export.h"
#include "quorvel/store/Value.h"

namespace qvl {

class Object;
class ObjectClass;

/// Refers to a class descriptor lazily, so that classes can point at each other
/// (a post lists its periods, a beacon's inverse relation names the post list).
using ObjectClassRef = const ObjectClass& (*)();

/// One persisted property of a record type.
struct QVL_EXPORT Property {
  /// `targetClass` and `origin` as for the members of the same meaning below.
  Property(std::string propertyName, PropertyKind propertyKind, bool isOptional = false,
           ObjectClassRef targetClass = nullptr, std::string origin = {})
      : name(std::move(propertyName)),
        kind(propertyKind),
        optional(isOptional),
        target(targetClass),
        originProperty(std::move(origin)) {}

  std::string name;                       ///< Unique within the class; also the column name.
  PropertyKind kind = PropertyKind::Int;  ///< What the property holds.
  /// Int and Double may be optional (null allowed); String, Date and Link always are;
  /// Int32 and Bool never are.
  bool optional = false;
  /// Link and List: the element class. LinkingObjects: the class whose list points here.
  ObjectClassRef target = nullptr;
  /// LinkingObjects: the name of the list property of `target` that this inverts.
  std::string originProperty;

  /// True for the kinds held as a Value (everything but Link, List and LinkingObjects).
  bool isScalar() const {
    return kind != PropertyKind::Link && kind != PropertyKind::List &&
           kind != PropertyKind::LinkingObjects;
  }
};

/// Describes a record type to the store. Instances are long-lived (function-local
/// statics); the store keys its per-class state by their address. Immutable once built,
/// so safe to read from any thread.
class QVL_EXPORT ObjectClass {
 public:
  /// Makes a new unmanaged instance of the record type (its concrete C++ class).
  using Factory = std::function<std::shared_ptr<Object>()>;

  /// Throws std::invalid_argument when a name repeats, the primary key is not an Int
  /// property, or a relation lacks its target.
  ObjectClass(std::string name, std::vector<Property> properties, std::string primaryKey,
              Factory factory);
  virtual ~ObjectClass();
  ObjectClass(const ObjectClass&) = delete;
  ObjectClass& operator=(const ObjectClass&) = delete;

  /// The class name; unique among the classes of a store.
  const std::string& name() const;
  /// Every property in declaration order; a property's position is its index.
  const std::vector<Property>& properties() const;
  /// The property at `index`; throws std::out_of_range for an index out of range.
  const Property& property(int index) const;
  /// Name of the primary-key property; empty when the class has none (rows are then
  /// identified by the store alone).
  const std::string& primaryKey() const;
  /// Index of the primary-key property, or -1 when the class has none.
  int primaryKeyIndex() const;
  /// Index of the named property, or -1.
  int propertyIndex(std::string_view name) const;
  /// A new, unmanaged instance with every property at its default.
  std::shared_ptr<Object> makeObject() const;

 private:
  friend class Object;

  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace qvl
