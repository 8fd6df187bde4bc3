#pragma once
/// @file
/// Queries over the store (live results), ordered lists and the typed fronts of both.

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "quorvel/Export.h"
#include "quorvel/store/Object.h"

namespace qvl {

/// A small typed filter that the store compiles to SQL (and evaluates in memory for
/// unmanaged lists). Keys name scalar properties of the queried class.
class QVL_EXPORT Predicate {
 public:
  /// Matches every record.
  Predicate();
  ~Predicate();
  /// Copies share the clauses, which never change.
  ///@{
  Predicate(const Predicate& other);
  Predicate& operator=(const Predicate& other);
  Predicate(Predicate&& other) noexcept;
  Predicate& operator=(Predicate&& other) noexcept;
  ///@}
  /// key IN values. An empty value list matches nothing.
  static Predicate in(std::string key, std::vector<Value> values);
  /// key == value; a null value matches records whose key is null.
  static Predicate equal(std::string key, Value value);
  /// key != null.
  static Predicate notNull(std::string key);
  /// Both must hold.
  Predicate operator&&(const Predicate& other) const;

  /// True for the default predicate (no clause).
  bool matchesAll() const;
  /// In-memory evaluation; throws std::invalid_argument for an unknown key.
  bool matches(const Object& object) const;

 private:
  friend class Store;
  friend class AnyResults;

  struct Impl;
  std::shared_ptr<const Impl> impl_;  // immutable, shared by copies; null matches every record
};

/// Records of one class matching a predicate, optionally scoped to one record's list (in
/// list order) or to the records whose list holds one record (inverse relation).
/// Live: each read re-runs the query when the store changed since the last read (a
/// commit on any thread or process, or a change in this handle's open transaction).
/// Order: store order (insertion) unless scoped to a list. Same thread rules as the
/// handle it came from. Results over an unmanaged list are a fixed snapshot.
class QVL_EXPORT AnyResults {
 public:
  /// Empty results of no class.
  AnyResults();
  ~AnyResults();
  /// Copies are independent results of the same query.
  ///@{
  AnyResults(const AnyResults& other);
  AnyResults& operator=(const AnyResults& other);
  AnyResults(AnyResults&& other) noexcept;
  AnyResults& operator=(AnyResults&& other) noexcept;
  ///@}

  /// The class of the records; nullptr for default-constructed results.
  const ObjectClass* objectClass() const;
  /// The number of matching records, re-running the query when the store changed.
  std::size_t size() const;
  /// size() == 0.
  bool empty() const;
  /// Throws std::out_of_range past the end.
  std::shared_ptr<Object> at(std::size_t index) const;
  /// Every matching record, read now.
  std::vector<std::shared_ptr<Object>> snapshot() const;
  /// These results narrowed by another predicate (still live).
  AnyResults filter(const Predicate& predicate) const;

 private:
  friend class Store;
  friend class AnyList;
  friend class Object;

  struct Impl;

  void refreshRows() const;

  std::unique_ptr<Impl> impl_;  // null for default-constructed (or moved-from) results
};

/// A handle to one record's list property. Works for unmanaged records (in memory) and
/// managed ones (reads and writes the store; writes need an open write transaction).
class QVL_EXPORT AnyList {
 public:
  /// The list property `index` of `owner`, which the handle keeps alive. Throws
  /// std::invalid_argument when owner is null or the property is not a list.
  AnyList(std::shared_ptr<Object> owner, int index);

  /// The class of the elements.
  const ObjectClass& objectClass() const;
  /// The class name of the elements, e.g. "QVLPost".
  const std::string& objectClassName() const;
  /// @name Reading
  ///@{

  /// Reads the list now (from the store when managed). at() throws std::out_of_range past
  /// the end; elements() returns every element in list order.
  std::size_t size() const;
  bool empty() const;
  std::shared_ptr<Object> at(std::size_t index) const;
  std::vector<std::shared_ptr<Object>> elements() const;
  ///@}
  /// Position of the first element that is the same record, if any.
  std::optional<std::size_t> indexOf(const Object& element) const;

  /// @name Changing
  ///@{

  /// Elements must be of the list's class (else std::invalid_argument, as for a null
  /// element); for a managed list, managed by the same handle or unmanaged (then added to
  /// the store, as create-or-update does). insert() at size() appends; an index past that,
  /// or remove() past the end, throws std::out_of_range. assign() replaces the whole list.
  /// Removing only takes the element out of the list: the record itself stays stored.
  void append(const std::shared_ptr<Object>& element);
  void insert(std::size_t index, const std::shared_ptr<Object>& element);
  void remove(std::size_t index);
  void removeAll();
  void assign(const std::vector<std::shared_ptr<Object>>& elements);
  ///@}

  /// The list as live results (list order), ready to filter.
  AnyResults results() const;

 private:
  struct Impl;
  std::shared_ptr<const Impl> impl_;  // never null; immutable, shared by copies
};

/// AnyResults typed for the record type T: the same live query and rules, records cast to
/// T. The caller guarantees the results are of T's class (Store::objects<T>() does).
template <class T>
class QVL_EXPORT Results {
 public:
  Results() = default;
  /// Wraps untyped results of T's class.
  explicit Results(AnyResults any) : any_(std::move(any)) {}

  /// @name Typed forms of the AnyResults operations
  ///@{

  /// As the AnyResults member of the same name; operator[] is at() (also range-checked).
  std::size_t size() const { return any_.size(); }
  bool empty() const { return any_.empty(); }
  std::shared_ptr<T> at(std::size_t i) const { return std::static_pointer_cast<T>(any_.at(i)); }
  std::shared_ptr<T> operator[](std::size_t i) const { return at(i); }
  std::vector<std::shared_ptr<T>> snapshot() const { return cast(any_.snapshot()); }
  Results<T> filter(const Predicate& p) const { return Results<T>(any_.filter(p)); }
  ///@}
  /// The untyped results underneath.
  const AnyResults& any() const { return any_; }

  /// Iteration works over a snapshot taken when begin() is called.
  /// A forward iterator over the snapshot, which it shares; valid however the store changes.
  class iterator {
   public:
    /// @name Standard iterator types
    ///@{

    /// Elements are the records' shared pointers, read-only.
    using iterator_category = std::forward_iterator_tag;
    using value_type = std::shared_ptr<T>;
    using difference_type = std::ptrdiff_t;
    using pointer = const value_type*;
    using reference = const value_type&;
    ///@}
    iterator() = default;
    /// Position `i` of `items` (shared, never copied).
    iterator(std::shared_ptr<const std::vector<value_type>> items, std::size_t i)
        : items_(std::move(items)), i_(i) {}
    /// @name Iteration
    ///@{

    /// Usual forward-iterator operations; dereferencing the end is undefined.
    reference operator*() const { return (*items_)[i_]; }
    pointer operator->() const { return &(*items_)[i_]; }
    iterator& operator++() {
      ++i_;
      return *this;
    }
    iterator operator++(int) {
      auto old = *this;
      ++i_;
      return old;
    }
    ///@}
    /// Compares positions only (see end()).
    bool operator==(const iterator& o) const { return i_ == o.i_; }

   private:
    std::shared_ptr<const std::vector<value_type>> items_;
    std::size_t i_ = 0;
  };
  /// Takes the snapshot that the loop then walks.
  iterator begin() const {
    auto items = std::make_shared<const std::vector<std::shared_ptr<T>>>(snapshot());
    return iterator(items, 0);
  }
  /// Compares by position only: pairs with the begin() of the same loop.
  iterator end() const { return iterator(nullptr, size()); }

 private:
  static std::vector<std::shared_ptr<T>> cast(std::vector<std::shared_ptr<Object>> in) {
    std::vector<std::shared_ptr<T>> out;
    out.reserve(in.size());
    for (auto& o : in) out.push_back(std::static_pointer_cast<T>(std::move(o)));
    return out;
  }
  AnyResults any_;
};

/// AnyList typed for the element type T: the same handle and rules, elements cast to T.
/// The record types' list accessors return these.
template <class T>
class QVL_EXPORT List {
 public:
  /// As AnyList(owner, index); the property's elements must be of T's class.
  List(std::shared_ptr<Object> owner, int index) : any_(std::move(owner), index) {}
  /// Wraps an untyped list of T's class.
  explicit List(AnyList any) : any_(std::move(any)) {}

  /// @name Typed forms of the AnyList operations
  ///@{

  /// As the AnyList member of the same name; operator[] is at() (also range-checked).
  std::size_t size() const { return any_.size(); }
  bool empty() const { return any_.empty(); }
  std::shared_ptr<T> at(std::size_t i) const { return std::static_pointer_cast<T>(any_.at(i)); }
  std::shared_ptr<T> operator[](std::size_t i) const { return at(i); }
  std::vector<std::shared_ptr<T>> elements() const {
    std::vector<std::shared_ptr<T>> out;
    for (auto& o : any_.elements()) out.push_back(std::static_pointer_cast<T>(o));
    return out;
  }
  std::optional<std::size_t> indexOf(const T& element) const { return any_.indexOf(element); }
  void append(const std::shared_ptr<T>& e) { any_.append(e); }
  void insert(std::size_t i, const std::shared_ptr<T>& e) { any_.insert(i, e); }
  void remove(std::size_t i) { any_.remove(i); }
  void removeAll() { any_.removeAll(); }
  void assign(const std::vector<std::shared_ptr<T>>& elements) {
    any_.assign(std::vector<std::shared_ptr<Object>>(elements.begin(), elements.end()));
  }
  Results<T> results() const { return Results<T>(any_.results()); }
  ///@}
  /// The untyped handle underneath.
  const AnyList& any() const { return any_; }
  /// The class name of the elements, e.g. "QVLPost".
  const std::string& objectClassName() const { return any_.objectClassName(); }

  /// @name Iteration
  ///@{

  /// Over a snapshot of the list taken by begin(), as for Results.
  auto begin() const { return results().begin(); }
  auto end() const { return typename Results<T>::iterator(nullptr, size()); }
  ///@}

 private:
  AnyList any_;
};

}  // namespace qvl
