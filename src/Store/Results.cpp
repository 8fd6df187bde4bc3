#include "quorvel/Store/Results.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "Store/StoreImpl.h"

namespace qvl {

namespace {

// Values as the store keeps them, so that in-memory and SQL comparisons agree.
using Stored = std::variant<std::monostate, std::int64_t, double, std::string>;

Stored stored(const Value& v) {
  if (auto* i = std::get_if<std::int64_t>(&v)) return *i;
  if (auto* d = std::get_if<double>(&v)) return *d;
  if (auto* b = std::get_if<bool>(&v)) return std::int64_t{*b ? 1 : 0};
  if (auto* s = std::get_if<std::string>(&v)) return *s;
  if (auto* t = std::get_if<Date>(&v)) return dateToStored(*t);
  return std::monostate{};
}

nlohmann::json storedJson(const Stored& s) {
  if (auto* i = std::get_if<std::int64_t>(&s)) return *i;
  if (auto* d = std::get_if<double>(&s)) return *d;
  if (auto* t = std::get_if<std::string>(&s)) return *t;
  return nullptr;
}

}  // namespace

// ---- Predicate -----------------------------------------------------------------------

Predicate Predicate::in(std::string key, std::vector<Value> values) {
  Predicate p;
  p.clauses_.push_back({Op::In, std::move(key), std::move(values)});
  return p;
}

Predicate Predicate::equal(std::string key, Value value) {
  Predicate p;
  p.clauses_.push_back({Op::Equal, std::move(key), {std::move(value)}});
  return p;
}

Predicate Predicate::notNull(std::string key) {
  Predicate p;
  p.clauses_.push_back({Op::NotNull, std::move(key), {}});
  return p;
}

Predicate Predicate::operator&&(const Predicate& other) const {
  Predicate p = *this;
  p.clauses_.insert(p.clauses_.end(), other.clauses_.begin(), other.clauses_.end());
  return p;
}

bool Predicate::matches(const Object& object) const {
  for (const auto& clause : clauses_) {
    int index = object.objectClass().propertyIndex(clause.key);
    if (index < 0) {
      throw std::invalid_argument("cannot filter " + object.objectClass().name() + " by '" +
                                  clause.key + "'");
    }
    Stored v = stored(object.value(index));
    bool null = std::holds_alternative<std::monostate>(v);
    switch (clause.op) {
      case Op::NotNull:
        if (null) return false;
        break;
      case Op::Equal:
        if (v != stored(clause.values.front())) return false;
        break;
      case Op::In: {
        if (null) return false;
        bool found = false;
        for (const auto& candidate : clause.values) {
          if (stored(candidate) == v) {
            found = true;
            break;
          }
        }
        if (!found) return false;
        break;
      }
    }
  }
  return true;
}

// ---- AnyResults ----------------------------------------------------------------------

void AnyResults::refreshRows() const {
  if (fixed_ || !store_) return;
  std::uint64_t version = store_->version();
  if (version == seenVersion_) return;

  auto& impl = StoreAccess::impl(*store_);
  const ClassInfo& info = impl.info(*class_);
  std::string sql = "SELECT t._rowid FROM ";
  std::vector<Stored> bindings;
  std::vector<std::string> where;
  std::string order = "t._rowid";
  switch (scope_.kind) {
    case Scope::Kind::None:
      sql += info.table + " t";
      break;
    case Scope::Kind::List: {
      const ClassInfo& owner = impl.info(*scope_.otherClass);
      const auto& list = owner.lists[static_cast<size_t>(owner.listOfProperty[scope_.listIndex])];
      sql += list.table + " l JOIN " + info.table + " t ON t._rowid=l.target";
      where.push_back("l.owner=?");
      bindings.emplace_back(scope_.row);
      order = "l.position";
      break;
    }
    case Scope::Kind::Rows:
      sql += info.table + " t";
      where.push_back("t._rowid IN (SELECT value FROM json_each(?))");
      bindings.emplace_back(scope_.rows);
      break;
    case Scope::Kind::Inverse: {
      const ClassInfo& origin = impl.info(*scope_.otherClass);
      const auto& list = origin.lists[static_cast<size_t>(origin.listOfProperty[scope_.listIndex])];
      sql += info.table + " t";
      where.push_back("t._rowid IN (SELECT owner FROM " + list.table + " WHERE target=?)");
      bindings.emplace_back(scope_.row);
      break;
    }
  }
  for (const auto& clause : predicate_.clauses_) {
    std::string column = "t." + quoteIdentifier(clause.key);
    switch (clause.op) {
      case Predicate::Op::NotNull:
        where.push_back(column + " IS NOT NULL");
        break;
      case Predicate::Op::Equal: {
        Stored v = stored(clause.values.front());
        if (std::holds_alternative<std::monostate>(v)) {
          where.push_back(column + " IS NULL");
        } else {
          where.push_back(column + "=?");
          bindings.push_back(std::move(v));
        }
        break;
      }
      case Predicate::Op::In: {
        nlohmann::json values = nlohmann::json::array();
        for (const auto& v : clause.values) values.push_back(storedJson(stored(v)));
        where.push_back(column + " IN (SELECT value FROM json_each(?))");
        bindings.emplace_back(values.dump());
        break;
      }
    }
  }
  for (size_t i = 0; i < where.size(); ++i) sql += (i ? " AND " : " WHERE ") + where[i];
  sql += " ORDER BY " + order;

  StatementUse use(impl.queryStatement(sql));
  for (size_t i = 0; i < bindings.size(); ++i) {
    int position = static_cast<int>(i) + 1;
    const Stored& b = bindings[i];
    if (auto* n = std::get_if<std::int64_t>(&b))
      use.bindInt(position, *n);
    else if (auto* d = std::get_if<double>(&b))
      sqlite3_bind_double(use.get(), position, *d);
    else if (auto* s = std::get_if<std::string>(&b))
      use.bindText(position, *s);
    else
      use.bindNull(position);
  }
  std::vector<std::int64_t> rows;
  while (use.step()) rows.push_back(use.columnInt(0));
  rows_ = std::move(rows);
  seenVersion_ = version;
}

std::size_t AnyResults::size() const {
  if (fixed_) return fixed_->size();
  if (!store_) return 0;
  refreshRows();
  return rows_.size();
}

std::shared_ptr<Object> AnyResults::at(std::size_t index) const {
  if (fixed_) return fixed_->at(index);
  if (!store_) throw std::out_of_range("results: index past the end");
  refreshRows();
  if (index >= rows_.size()) throw std::out_of_range("results: index past the end");
  auto& impl = StoreAccess::impl(*store_);
  return impl.load(*store_, impl.info(*class_), rows_[index]);
}

std::vector<std::shared_ptr<Object>> AnyResults::snapshot() const {
  if (fixed_) return *fixed_;
  std::vector<std::shared_ptr<Object>> out;
  if (!store_) return out;
  refreshRows();
  auto& impl = StoreAccess::impl(*store_);
  const ClassInfo& info = impl.info(*class_);
  out.reserve(rows_.size());
  for (std::int64_t row : rows_) {
    if (auto object = impl.load(*store_, info, row)) out.push_back(std::move(object));
  }
  return out;
}

AnyResults AnyResults::filter(const Predicate& predicate) const {
  AnyResults narrowed = *this;
  narrowed.seenVersion_ = ~std::uint64_t{0};
  if (fixed_) {
    auto kept = std::make_shared<std::vector<std::shared_ptr<Object>>>();
    for (const auto& object : *fixed_) {
      if (predicate.matches(*object)) kept->push_back(object);
    }
    narrowed.fixed_ = std::move(kept);
    return narrowed;
  }
  narrowed.predicate_ = predicate_ && predicate;
  return narrowed;
}

// ---- AnyList -------------------------------------------------------------------------

AnyList::AnyList(std::shared_ptr<Object> owner, int index)
    : owner_(std::move(owner)), index_(index) {
  if (!owner_) throw std::invalid_argument("list of no record");
  const Property& p = owner_->checkedProperty(index_);
  if (p.kind != PropertyKind::List) {
    throw std::invalid_argument(owner_->objectClass().name() + "." + p.name + " is not a list");
  }
}

const ObjectClass& AnyList::objectClass() const {
  return owner_->objectClass().property(index_).target();
}

namespace {

const ClassInfo::ListInfo& listInfo(detail::StoreImpl& impl, const Object& owner, int index) {
  const ClassInfo& info = impl.info(owner.objectClass());
  return info.lists[static_cast<size_t>(info.listOfProperty[static_cast<size_t>(index)])];
}

}  // namespace

std::size_t AnyList::size() const {
  if (!owner_->isManaged()) return owner_->storedList(index_).size();
  owner_->store()->checkThread();
  auto& impl = StoreAccess::impl(*owner_->store());
  StatementUse use(impl.statement(listInfo(impl, *owner_, index_).count));
  use.bindInt(1, StoreAccess::row(*owner_));
  use.step();
  return static_cast<std::size_t>(use.columnInt(0));
}

std::shared_ptr<Object> AnyList::at(std::size_t index) const {
  if (!owner_->isManaged()) return owner_->storedList(index_).at(index);
  owner_->store()->checkThread();
  auto& impl = StoreAccess::impl(*owner_->store());
  auto rows = impl.listRows(listInfo(impl, *owner_, index_), StoreAccess::row(*owner_));
  return impl.load(*owner_->store(), impl.info(objectClass()), rows.at(index));
}

std::vector<std::shared_ptr<Object>> AnyList::elements() const {
  if (!owner_->isManaged()) return owner_->storedList(index_);
  owner_->store()->checkThread();
  auto& impl = StoreAccess::impl(*owner_->store());
  const ClassInfo& target = impl.info(objectClass());
  // One joined read: a link whose target row is gone yields nothing, as load() would.
  std::vector<std::shared_ptr<Object>> out;
  StatementUse use(impl.statement(listInfo(impl, *owner_, index_).selectElements));
  use.bindInt(1, StoreAccess::row(*owner_));
  while (use.step()) {
    auto object = target.objectClass->makeObject();
    impl.fill(*object, target, use, 1);
    StoreAccess::manage(*object, owner_->store(), use.columnInt(0));
    out.push_back(std::move(object));
  }
  return out;
}

std::optional<std::size_t> AnyList::indexOf(const Object& element) const {
  if (!owner_->isManaged()) {
    const auto& list = owner_->storedList(index_);
    for (size_t i = 0; i < list.size(); ++i) {
      if (list[i]->isSameObject(element)) return i;
    }
    return std::nullopt;
  }
  if (element.store() != owner_->store()) return std::nullopt;
  auto& impl = StoreAccess::impl(*owner_->store());
  auto rows = impl.listRows(listInfo(impl, *owner_, index_), StoreAccess::row(*owner_));
  for (size_t i = 0; i < rows.size(); ++i) {
    if (rows[i] == StoreAccess::row(element)) return i;
  }
  return std::nullopt;
}

namespace {

void checkElement(const AnyList& list, const std::shared_ptr<Object>& element) {
  if (!element) throw std::invalid_argument("a list cannot hold an absent record");
  if (element->objectClass().name() != list.objectClassName()) {
    throw std::invalid_argument("a list of " + list.objectClassName() + " cannot hold " +
                                element->objectClass().name());
  }
}

}  // namespace

void AnyList::append(const std::shared_ptr<Object>& element) {
  checkElement(*this, element);
  if (!owner_->isManaged()) {
    owner_->changedList(index_).push_back(element);
    return;
  }
  Store& store = *owner_->store();
  std::int64_t row = StoreAccess::upsertGraph(store, element);
  auto& impl = StoreAccess::impl(store);
  const auto& list = listInfo(impl, *owner_, index_);
  std::int64_t position = 0;
  {
    StatementUse use(impl.statement(list.nextPosition));
    use.bindInt(1, StoreAccess::row(*owner_));
    use.step();
    position = use.columnInt(0);
  }
  StatementUse use(impl.statement(list.insertLink));
  use.bindInt(1, StoreAccess::row(*owner_));
  use.bindInt(2, position);
  use.bindInt(3, row);
  use.step();
  ++impl.changeCounter;
}

void AnyList::insert(std::size_t index, const std::shared_ptr<Object>& element) {
  checkElement(*this, element);
  if (index > size()) throw std::out_of_range("list insert past the end");
  if (!owner_->isManaged()) {
    auto& list = owner_->changedList(index_);
    list.insert(list.begin() + static_cast<std::ptrdiff_t>(index), element);
    return;
  }
  Store& store = *owner_->store();
  std::int64_t row = StoreAccess::upsertGraph(store, element);
  auto& impl = StoreAccess::impl(store);
  const auto& list = listInfo(impl, *owner_, index_);
  auto rows = impl.listRows(list, StoreAccess::row(*owner_));
  rows.insert(rows.begin() + static_cast<std::ptrdiff_t>(index), row);
  impl.writeList(list, StoreAccess::row(*owner_), rows);
}

void AnyList::remove(std::size_t index) {
  if (!owner_->isManaged()) {
    auto& list = owner_->changedList(index_);
    if (index >= list.size()) throw std::out_of_range("list remove past the end");
    list.erase(list.begin() + static_cast<std::ptrdiff_t>(index));
    return;
  }
  owner_->store()->checkWrite();
  auto& impl = StoreAccess::impl(*owner_->store());
  const auto& list = listInfo(impl, *owner_, index_);
  auto rows = impl.listRows(list, StoreAccess::row(*owner_));
  if (index >= rows.size()) throw std::out_of_range("list remove past the end");
  rows.erase(rows.begin() + static_cast<std::ptrdiff_t>(index));
  impl.writeList(list, StoreAccess::row(*owner_), rows);
}

void AnyList::removeAll() { assign({}); }

void AnyList::assign(const std::vector<std::shared_ptr<Object>>& elements) {
  for (const auto& element : elements) checkElement(*this, element);
  if (!owner_->isManaged()) {
    owner_->changedList(index_) = elements;
    return;
  }
  Store& store = *owner_->store();
  store.checkWrite();
  std::vector<std::int64_t> rows;
  rows.reserve(elements.size());
  for (const auto& element : elements) rows.push_back(StoreAccess::upsertGraph(store, element));
  auto& impl = StoreAccess::impl(store);
  impl.writeList(listInfo(impl, *owner_, index_), StoreAccess::row(*owner_), rows);
}

AnyResults AnyList::results() const {
  AnyResults results;
  results.class_ = &objectClass();
  if (!owner_->isManaged()) {
    results.fixed_ = std::make_shared<const std::vector<std::shared_ptr<Object>>>(elements());
    return results;
  }
  owner_->store()->checkThread();
  results.store_ = owner_->store();
  results.scope_.kind = AnyResults::Scope::Kind::List;
  results.scope_.row = StoreAccess::row(*owner_);
  results.scope_.otherClass = &owner_->objectClass();
  results.scope_.listIndex = index_;
  return results;
}

}  // namespace qvl
