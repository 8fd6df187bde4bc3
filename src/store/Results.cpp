#include "quorvel/store/Results.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "store/ResultsImpl.h"
#include "store/StoreImpl.h"

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

Predicate::Predicate() = default;
Predicate::~Predicate() = default;
Predicate::Predicate(const Predicate& other) = default;
Predicate& Predicate::operator=(const Predicate& other) = default;
Predicate::Predicate(Predicate&& other) noexcept = default;
Predicate& Predicate::operator=(Predicate&& other) noexcept = default;

Predicate Predicate::in(std::string key, std::vector<Value> values) {
  Predicate p;
  p.impl_ = std::make_shared<const Impl>(Impl{{{Impl::Op::In, std::move(key), std::move(values)}}});
  return p;
}

Predicate Predicate::equal(std::string key, Value value) {
  Predicate p;
  p.impl_ =
      std::make_shared<const Impl>(Impl{{{Impl::Op::Equal, std::move(key), {std::move(value)}}}});
  return p;
}

Predicate Predicate::notNull(std::string key) {
  Predicate p;
  p.impl_ = std::make_shared<const Impl>(Impl{{{Impl::Op::NotNull, std::move(key), {}}}});
  return p;
}

Predicate Predicate::operator&&(const Predicate& other) const {
  if (!other.impl_) return *this;
  if (!impl_) return other;
  auto both = std::make_shared<Impl>(*impl_);
  both->clauses.insert(both->clauses.end(), other.impl_->clauses.begin(),
                       other.impl_->clauses.end());
  Predicate p;
  p.impl_ = std::move(both);
  return p;
}

bool Predicate::matchesAll() const { return !impl_ || impl_->clauses.empty(); }

bool Predicate::matches(const Object& object) const {
  if (!impl_) return true;
  for (const auto& clause : impl_->clauses) {
    int index = object.objectClass().propertyIndex(clause.key);
    if (index < 0) {
      throw std::invalid_argument("cannot filter " + object.objectClass().name() + " by '" +
                                  clause.key + "'");
    }
    Stored v = stored(object.value(index));
    bool null = std::holds_alternative<std::monostate>(v);
    switch (clause.op) {
      case Impl::Op::NotNull:
        if (null) return false;
        break;
      case Impl::Op::Equal:
        if (v != stored(clause.values.front())) return false;
        break;
      case Impl::Op::In: {
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

AnyResults::AnyResults() = default;
AnyResults::~AnyResults() = default;
AnyResults::AnyResults(const AnyResults& other)
    : impl_(other.impl_ ? std::make_unique<Impl>(*other.impl_) : nullptr) {}
AnyResults& AnyResults::operator=(const AnyResults& other) {
  if (this != &other) impl_ = other.impl_ ? std::make_unique<Impl>(*other.impl_) : nullptr;
  return *this;
}
AnyResults::AnyResults(AnyResults&& other) noexcept = default;
AnyResults& AnyResults::operator=(AnyResults&& other) noexcept = default;

const ObjectClass* AnyResults::objectClass() const { return impl_ ? impl_->cls : nullptr; }
bool AnyResults::empty() const { return size() == 0; }

void AnyResults::refreshRows() const {
  Impl& r = *impl_;
  if (r.fixed || !r.store) return;
  std::uint64_t version = r.store->version();
  if (version == r.seenVersion) return;

  auto& impl = StoreAccess::impl(*r.store);
  const ClassInfo& info = impl.info(*r.cls);
  std::string sql = "SELECT t._rowid FROM ";
  std::vector<Stored> bindings;
  std::vector<std::string> where;
  std::string order = "t._rowid";
  switch (r.scope.kind) {
    case Impl::Scope::Kind::None:
      sql += info.table + " t";
      break;
    case Impl::Scope::Kind::List: {
      const ClassInfo& owner = impl.info(*r.scope.otherClass);
      const auto& list = owner.lists[static_cast<size_t>(owner.listOfProperty[r.scope.listIndex])];
      sql += list.table + " l JOIN " + info.table + " t ON t._rowid=l.target";
      where.push_back("l.owner=?");
      bindings.emplace_back(r.scope.row);
      order = "l.position";
      break;
    }
    case Impl::Scope::Kind::Rows:
      sql += info.table + " t";
      where.push_back("t._rowid IN (SELECT value FROM json_each(?))");
      bindings.emplace_back(r.scope.rows);
      break;
    case Impl::Scope::Kind::Inverse: {
      const ClassInfo& origin = impl.info(*r.scope.otherClass);
      const auto& list =
          origin.lists[static_cast<size_t>(origin.listOfProperty[r.scope.listIndex])];
      sql += info.table + " t";
      where.push_back("t._rowid IN (SELECT owner FROM " + list.table + " WHERE target=?)");
      bindings.emplace_back(r.scope.row);
      break;
    }
  }
  const std::vector<Predicate::Impl::Clause> noClauses;
  const auto& clauses = r.predicate.impl_ ? r.predicate.impl_->clauses : noClauses;
  for (const auto& clause : clauses) {
    std::string column = "t." + quoteIdentifier(clause.key);
    switch (clause.op) {
      case Predicate::Impl::Op::NotNull:
        where.push_back(column + " IS NOT NULL");
        break;
      case Predicate::Impl::Op::Equal: {
        Stored v = stored(clause.values.front());
        if (std::holds_alternative<std::monostate>(v)) {
          where.push_back(column + " IS NULL");
        } else {
          where.push_back(column + "=?");
          bindings.push_back(std::move(v));
        }
        break;
      }
      case Predicate::Impl::Op::In: {
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
  r.rows = std::move(rows);
  r.seenVersion = version;
}

std::size_t AnyResults::size() const {
  if (!impl_) return 0;
  if (impl_->fixed) return impl_->fixed->size();
  if (!impl_->store) return 0;
  refreshRows();
  return impl_->rows.size();
}

std::shared_ptr<Object> AnyResults::at(std::size_t index) const {
  if (!impl_) throw std::out_of_range("results: index past the end");
  if (impl_->fixed) return impl_->fixed->at(index);
  if (!impl_->store) throw std::out_of_range("results: index past the end");
  refreshRows();
  if (index >= impl_->rows.size()) throw std::out_of_range("results: index past the end");
  auto& impl = StoreAccess::impl(*impl_->store);
  return impl.load(*impl_->store, impl.info(*impl_->cls), impl_->rows[index]);
}

std::vector<std::shared_ptr<Object>> AnyResults::snapshot() const {
  if (!impl_) return {};
  if (impl_->fixed) return *impl_->fixed;
  std::vector<std::shared_ptr<Object>> out;
  if (!impl_->store) return out;
  refreshRows();
  auto& impl = StoreAccess::impl(*impl_->store);
  const ClassInfo& info = impl.info(*impl_->cls);
  out.reserve(impl_->rows.size());
  for (std::int64_t row : impl_->rows) {
    if (auto object = impl.load(*impl_->store, info, row)) out.push_back(std::move(object));
  }
  return out;
}

AnyResults AnyResults::filter(const Predicate& predicate) const {
  AnyResults narrowed = *this;
  if (!narrowed.impl_) return narrowed;
  narrowed.impl_->seenVersion = ~std::uint64_t{0};
  if (impl_->fixed) {
    auto kept = std::make_shared<std::vector<std::shared_ptr<Object>>>();
    for (const auto& object : *impl_->fixed) {
      if (predicate.matches(*object)) kept->push_back(object);
    }
    narrowed.impl_->fixed = std::move(kept);
    return narrowed;
  }
  narrowed.impl_->predicate = impl_->predicate && predicate;
  return narrowed;
}

// ---- AnyList -------------------------------------------------------------------------

AnyList::AnyList(std::shared_ptr<Object> owner, int index) {
  if (!owner) throw std::invalid_argument("list of no record");
  const Property& p = owner->checkedProperty(index);
  if (p.kind != PropertyKind::List) {
    throw std::invalid_argument(owner->objectClass().name() + "." + p.name + " is not a list");
  }
  impl_ = std::make_shared<const Impl>(Impl{std::move(owner), index});
}

const std::string& AnyList::objectClassName() const { return objectClass().name(); }
bool AnyList::empty() const { return size() == 0; }

const ObjectClass& AnyList::objectClass() const {
  return impl_->owner->objectClass().property(impl_->index).target();
}

namespace {

const ClassInfo::ListInfo& listInfo(detail::StoreImpl& impl, const Object& owner, int index) {
  const ClassInfo& info = impl.info(owner.objectClass());
  return info.lists[static_cast<size_t>(info.listOfProperty[static_cast<size_t>(index)])];
}

}  // namespace

std::size_t AnyList::size() const {
  if (!impl_->owner->isManaged()) return impl_->owner->storedList(impl_->index).size();
  impl_->owner->store()->checkThread();
  auto& impl = StoreAccess::impl(*impl_->owner->store());
  StatementUse use(impl.statement(listInfo(impl, *impl_->owner, impl_->index).count));
  use.bindInt(1, StoreAccess::row(*impl_->owner));
  use.step();
  return static_cast<std::size_t>(use.columnInt(0));
}

std::shared_ptr<Object> AnyList::at(std::size_t index) const {
  if (!impl_->owner->isManaged()) return impl_->owner->storedList(impl_->index).at(index);
  impl_->owner->store()->checkThread();
  auto& impl = StoreAccess::impl(*impl_->owner->store());
  auto rows =
      impl.listRows(listInfo(impl, *impl_->owner, impl_->index), StoreAccess::row(*impl_->owner));
  return impl.load(*impl_->owner->store(), impl.info(objectClass()), rows.at(index));
}

std::vector<std::shared_ptr<Object>> AnyList::elements() const {
  if (!impl_->owner->isManaged()) return impl_->owner->storedList(impl_->index);
  impl_->owner->store()->checkThread();
  auto& impl = StoreAccess::impl(*impl_->owner->store());
  const ClassInfo& target = impl.info(objectClass());
  // One joined read: a link whose target row is gone yields nothing, as load() would.
  std::vector<std::shared_ptr<Object>> out;
  StatementUse use(impl.statement(listInfo(impl, *impl_->owner, impl_->index).selectElements));
  use.bindInt(1, StoreAccess::row(*impl_->owner));
  while (use.step()) {
    auto object = target.objectClass->makeObject();
    impl.fill(*object, target, use, 1);
    StoreAccess::manage(*object, impl_->owner->store(), use.columnInt(0));
    out.push_back(std::move(object));
  }
  return out;
}

std::optional<std::size_t> AnyList::indexOf(const Object& element) const {
  if (!impl_->owner->isManaged()) {
    const auto& list = impl_->owner->storedList(impl_->index);
    for (size_t i = 0; i < list.size(); ++i) {
      if (list[i]->isSameObject(element)) return i;
    }
    return std::nullopt;
  }
  if (element.store() != impl_->owner->store()) return std::nullopt;
  auto& impl = StoreAccess::impl(*impl_->owner->store());
  auto rows =
      impl.listRows(listInfo(impl, *impl_->owner, impl_->index), StoreAccess::row(*impl_->owner));
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
  if (!impl_->owner->isManaged()) {
    impl_->owner->changedList(impl_->index).push_back(element);
    return;
  }
  Store& store = *impl_->owner->store();
  std::int64_t row = StoreAccess::upsertGraph(store, element);
  auto& impl = StoreAccess::impl(store);
  const auto& list = listInfo(impl, *impl_->owner, impl_->index);
  std::int64_t position = 0;
  {
    StatementUse use(impl.statement(list.nextPosition));
    use.bindInt(1, StoreAccess::row(*impl_->owner));
    use.step();
    position = use.columnInt(0);
  }
  StatementUse use(impl.statement(list.insertLink));
  use.bindInt(1, StoreAccess::row(*impl_->owner));
  use.bindInt(2, position);
  use.bindInt(3, row);
  use.step();
  ++impl.changeCounter;
}

void AnyList::insert(std::size_t index, const std::shared_ptr<Object>& element) {
  checkElement(*this, element);
  if (index > size()) throw std::out_of_range("list insert past the end");
  if (!impl_->owner->isManaged()) {
    auto& list = impl_->owner->changedList(impl_->index);
    list.insert(list.begin() + static_cast<std::ptrdiff_t>(index), element);
    return;
  }
  Store& store = *impl_->owner->store();
  std::int64_t row = StoreAccess::upsertGraph(store, element);
  auto& impl = StoreAccess::impl(store);
  const auto& list = listInfo(impl, *impl_->owner, impl_->index);
  auto rows = impl.listRows(list, StoreAccess::row(*impl_->owner));
  rows.insert(rows.begin() + static_cast<std::ptrdiff_t>(index), row);
  impl.writeList(list, StoreAccess::row(*impl_->owner), rows);
}

void AnyList::remove(std::size_t index) {
  if (!impl_->owner->isManaged()) {
    auto& list = impl_->owner->changedList(impl_->index);
    if (index >= list.size()) throw std::out_of_range("list remove past the end");
    list.erase(list.begin() + static_cast<std::ptrdiff_t>(index));
    return;
  }
  impl_->owner->store()->checkWrite();
  auto& impl = StoreAccess::impl(*impl_->owner->store());
  const auto& list = listInfo(impl, *impl_->owner, impl_->index);
  auto rows = impl.listRows(list, StoreAccess::row(*impl_->owner));
  if (index >= rows.size()) throw std::out_of_range("list remove past the end");
  rows.erase(rows.begin() + static_cast<std::ptrdiff_t>(index));
  impl.writeList(list, StoreAccess::row(*impl_->owner), rows);
}

void AnyList::removeAll() { assign({}); }

void AnyList::assign(const std::vector<std::shared_ptr<Object>>& elements) {
  for (const auto& element : elements) checkElement(*this, element);
  if (!impl_->owner->isManaged()) {
    impl_->owner->changedList(impl_->index) = elements;
    return;
  }
  Store& store = *impl_->owner->store();
  store.checkWrite();
  std::vector<std::int64_t> rows;
  rows.reserve(elements.size());
  for (const auto& element : elements) rows.push_back(StoreAccess::upsertGraph(store, element));
  auto& impl = StoreAccess::impl(store);
  impl.writeList(listInfo(impl, *impl_->owner, impl_->index), StoreAccess::row(*impl_->owner),
                 rows);
}

AnyResults AnyList::results() const {
  AnyResults results;
  results.impl_ = std::make_unique<AnyResults::Impl>();
  results.impl_->cls = &objectClass();
  if (!impl_->owner->isManaged()) {
    results.impl_->fixed = std::make_shared<const std::vector<std::shared_ptr<Object>>>(elements());
    return results;
  }
  impl_->owner->store()->checkThread();
  results.impl_->store = impl_->owner->store();
  results.impl_->scope.kind = AnyResults::Impl::Scope::Kind::List;
  results.impl_->scope.row = StoreAccess::row(*impl_->owner);
  results.impl_->scope.otherClass = &impl_->owner->objectClass();
  results.impl_->scope.listIndex = impl_->index;
  return results;
}

}  // namespace qvl
