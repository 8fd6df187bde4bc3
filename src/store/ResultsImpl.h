#pragma once
// Internal: what predicates, results and list handles hold.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "quorvel/store/Results.h"

namespace qvl {

struct Predicate::Impl {
  enum class Op { In, Equal, NotNull };
  struct Clause {
    Op op;
    std::string key;
    std::vector<Value> values;
  };
  std::vector<Clause> clauses;
};

struct AnyResults::Impl {
  struct Scope {
    enum class Kind { None, List, Inverse, Rows } kind = Kind::None;
    std::int64_t row = 0;                     // the list's owner, or the record pointed at
    const ObjectClass* otherClass = nullptr;  // owner class / class holding the list
    int listIndex = -1;                       // the list property in otherClass
    std::string rows;                         // Rows: the rows as a JSON array
  };

  std::shared_ptr<Store> store;
  const ObjectClass* cls = nullptr;
  Predicate predicate;
  Scope scope;
  // Unmanaged source: elements already filtered.
  std::shared_ptr<const std::vector<std::shared_ptr<Object>>> fixed;
  std::vector<std::int64_t> rows;
  std::uint64_t seenVersion = ~std::uint64_t{0};
};

struct AnyList::Impl {
  std::shared_ptr<Object> owner;
  int index;
};

}  // namespace qvl
