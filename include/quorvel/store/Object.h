#pragma once
/// @file
/// The base of every persisted record.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "quorvel/Export.h"
#include "quorvel/store/ObjectClass.h"
#include "quorvel/store/Value.h"

namespace qvl {

class Store;
class AnyList;
class AnyResults;

/// A record. Always owned through std::shared_ptr (records share and link each other).
///
/// Unmanaged: made by code or by the JSON mapping; its links and lists live in memory.
/// Managed: read from a store handle and bound to it and to its thread. A managed record
/// holds the scalar and to-one values read when it was fetched plus the changes made
/// through it (refresh() reads them again); its lists and inverse relations are read
/// from the store on every access. Changing a managed record needs an open write
/// transaction on its handle and writes through to the store.
///
/// Not thread-safe: an unmanaged record belongs to whoever holds it; a managed record
/// must stay on the thread of its store handle (other threads re-fetch it by key).
class QVL_EXPORT Object : public std::enable_shared_from_this<Object> {
 public:
  virtual ~Object();
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  /// The record's class; it outlives every record of it.
  const ObjectClass& objectClass() const;
  /// True when the record is bound to a store handle (see above).
  bool isManaged() const;
  /// The handle this record is bound to; nullptr when unmanaged.
  const std::shared_ptr<Store>& store() const;
  /// True when the record is managed and its row has been deleted from the store.
  bool isInvalidated() const;
  /// Reads a managed record's scalar and to-one values from the store again.
  void refresh();
  /// True for the same instance, or two managed records of one handle and row.
  bool isSameObject(const Object& other) const;

  /// The primary-key value; nullopt when absent or when the class has no primary key.
  std::optional<std::int64_t> primaryKeyValue() const;

  /// @name Keyed access
  ///@{

  /// Indexes come from objectClass().propertyIndex(); a property of the wrong kind or an
  /// index out of range throws std::invalid_argument. value() and setValue() take scalar
  /// properties, link() and setLink() to-one links. Setting a value of the wrong type (text
  /// into an integer, null into a plain property) or linking a record of another class
  /// throws it too.
  Value value(int index) const;
  void setValue(int index, Value value);
  std::shared_ptr<Object> link(int index) const;
  void setLink(int index, std::shared_ptr<Object> target);
  ///@}
  /// The list property `index` (kind List) as a live list handle.
  AnyList list(int index);
  /// The inverse relation `index` (kind LinkingObjects). Empty for an unmanaged record.
  AnyResults linkingObjects(int index) const;
  /// Copies property `index` of `source` (same class) into this record: scalars by value,
  /// links by reference, lists element by element.
  void copyProperty(const Object& source, int index);

  /// Marks property `index` of this unmanaged record as one that create-or-update leaves
  /// as it is when the record is already stored: the merge with the stored record then
  /// happens inside the write transaction, so a change committed after this record was
  /// made is never overwritten. The JSON mapping marks the properties an answer omitted
  /// and the protected ones. Setting or changing the property clears the mark. Throws
  /// std::logic_error for a managed record.
  void keepStoredValue(int index);
  /// Whether property `index` is marked by keepStoredValue().
  bool keepsStoredValue(int index) const;

 protected:
  /// An unmanaged record of `objectClass` with every property null or empty.
  explicit Object(const ObjectClass& objectClass);

  /// @name Typed helpers for record accessors
  ///@{

  /// The getters read the held value without a kind check: a null (or a value of another
  /// type) reads as nullopt, 0, 0.0 or false. linkAs() is link() cast to the target type,
  /// which the caller guarantees. The setters go through setValue() (nullopt stores null)
  /// and throw as it does.
  std::optional<std::int64_t> optionalInt(int index) const;
  std::int64_t intValue(int index) const;
  double doubleValue(int index) const;
  std::optional<double> optionalDouble(int index) const;
  bool boolValue(int index) const;
  std::optional<std::string> stringValue(int index) const;
  std::optional<Date> dateValue(int index) const;
  template <class T>
  std::shared_ptr<T> linkAs(int index) const {
    return std::static_pointer_cast<T>(link(index));
  }
  void setOptionalInt(int index, std::optional<std::int64_t> v);
  void setOptionalDouble(int index, std::optional<double> v);
  void setString(int index, std::optional<std::string> v);
  void setDate(int index, std::optional<Date> v);
  ///@}

 private:
  friend class Store;
  friend class AnyList;
  friend class StoreAccess;

  struct LinkSlot;
  struct Impl;
  using ObjectList = std::vector<std::shared_ptr<Object>>;

  const Property& checkedProperty(int index) const;
  /// Position of property `index` among the properties held the same way (no range check).
  std::size_t storageIndex(int index) const;
  /// The held value of scalar property `index`, or null for another kind; the index is
  /// checked (std::out_of_range).
  const Value& heldValue(int index) const;
  LinkSlot& linkSlot(int index) const;
  /// The in-memory list of an unmanaged record.
  const ObjectList& storedList(int index) const;
  /// The in-memory list of an unmanaged record, about to be changed.
  ObjectList& changedList(int index);
  bool keepsMark(int index) const;
  void setKeepsMark(int index, bool marked);

  // Only what a property's kind needs is held: the class lays out scalars, links and lists
  // separately. Never null; managed links load on first read, through const access too.
  const std::unique_ptr<Impl> impl_;
};

}  // namespace qvl
