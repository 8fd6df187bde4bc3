#include "quorvel/store/Object.h"

#include <limits>
#include <stdexcept>

#include "store/ObjectImpl.h"
#include "store/ResultsImpl.h"
#include "store/StoreImpl.h"

namespace qvl {

namespace {

const char* kindName(PropertyKind kind) {
  switch (kind) {
    case PropertyKind::Int:
      return "integer";
    case PropertyKind::Int32:
      return "32-bit integer";
    case PropertyKind::Bool:
      return "boolean";
    case PropertyKind::Double:
      return "double";
    case PropertyKind::String:
      return "text";
    case PropertyKind::Date:
      return "date";
    case PropertyKind::Link:
      return "link";
    case PropertyKind::List:
      return "list";
    case PropertyKind::LinkingObjects:
      return "inverse relation";
  }
  return "?";
}

const Value kNull{};
const std::vector<std::shared_ptr<Object>> kNoElements{};

}  // namespace

Object::Object(const ObjectClass& objectClass)
    : impl_(Impl::create(objectClass, objectClass.impl_->scalarDefaults,
                         objectClass.impl_->linkCount)) {}

Object::~Object() = default;

const ObjectClass& Object::objectClass() const { return *impl_->cls; }
bool Object::isManaged() const { return impl_->store != nullptr; }
const std::shared_ptr<Store>& Object::store() const { return impl_->store; }

std::size_t Object::storageIndex(int index) const {
  return static_cast<std::size_t>(impl_->cls->impl_->storageIndex[static_cast<std::size_t>(index)]);
}

Object::LinkSlot& Object::linkSlot(int index) const { return impl_->links()[storageIndex(index)]; }

const Property& Object::checkedProperty(int index) const {
  if (index < 0 || static_cast<size_t>(index) >= impl_->cls->properties().size()) {
    throw std::invalid_argument(impl_->cls->name() + ": no property at index " +
                                std::to_string(index));
  }
  return impl_->cls->properties()[static_cast<size_t>(index)];
}

bool Object::isInvalidated() const {
  if (!impl_->store) return false;
  impl_->store->checkThread();
  auto& impl = StoreAccess::impl(*impl_->store);
  StatementUse use(impl.statement(impl.info(*impl_->cls).exists));
  use.bindInt(1, impl_->row);
  return !use.step();
}

void Object::refresh() {
  if (!impl_->store) return;
  impl_->store->checkThread();
  auto& impl = StoreAccess::impl(*impl_->store);
  const ClassInfo& info = impl.info(*impl_->cls);
  StatementUse use(impl.statement(info.selectRow));
  use.bindInt(1, impl_->row);
  if (use.step()) impl.fill(*this, info, use, 1);
}

bool Object::isSameObject(const Object& other) const {
  if (this == &other) return true;
  return impl_->store && impl_->store == other.impl_->store && impl_->row == other.impl_->row &&
         impl_->cls == other.impl_->cls;
}

std::optional<std::int64_t> Object::primaryKeyValue() const {
  int index = impl_->cls->primaryKeyIndex();
  if (index < 0) return std::nullopt;
  const Value& v = impl_->values()[storageIndex(index)];
  if (auto* i = std::get_if<std::int64_t>(&v)) return *i;
  return std::nullopt;
}

const Value& Object::heldValue(int index) const {
  return impl_->cls->property(index).isScalar() ? impl_->values()[storageIndex(index)] : kNull;
}

Value Object::value(int index) const {
  const Property& p = checkedProperty(index);
  if (!p.isScalar()) {
    throw std::invalid_argument(impl_->cls->name() + "." + p.name + " is a " + kindName(p.kind));
  }
  return impl_->values()[storageIndex(index)];
}

void Object::setValue(int index, Value value) {
  const Property& p = checkedProperty(index);
  auto reject = [&](const char* why) {
    throw std::invalid_argument(impl_->cls->name() + "." + p.name + ": " + why);
  };
  if (!p.isScalar()) reject("not a scalar property");
  if (isNull(value)) {
    if (!p.optional && p.kind != PropertyKind::String && p.kind != PropertyKind::Date) {
      reject("null for a property that cannot be null");
    }
  } else {
    switch (p.kind) {
      case PropertyKind::Int:
        if (!std::holds_alternative<std::int64_t>(value)) reject("expects an integer");
        break;
      case PropertyKind::Int32: {
        auto* i = std::get_if<std::int64_t>(&value);
        if (!i) reject("expects an integer");
        if (*i < std::numeric_limits<std::int32_t>::min() ||
            *i > std::numeric_limits<std::int32_t>::max()) {
          reject("value out of 32-bit range");
        }
        break;
      }
      case PropertyKind::Bool:
        if (!std::holds_alternative<bool>(value)) reject("expects a boolean");
        break;
      case PropertyKind::Double:
        if (auto* i = std::get_if<std::int64_t>(&value)) value = static_cast<double>(*i);
        if (!std::holds_alternative<double>(value)) reject("expects a number");
        break;
      case PropertyKind::String:
        if (!std::holds_alternative<std::string>(value)) reject("expects text");
        break;
      case PropertyKind::Date:
        if (!std::holds_alternative<Date>(value)) reject("expects a date");
        break;
      default:
        break;
    }
  }
  if (impl_->store) {
    impl_->store->checkWrite();
    auto& impl = StoreAccess::impl(*impl_->store);
    StatementUse use(
        impl.statement(impl.info(*impl_->cls).updateColumn[static_cast<size_t>(index)]));
    impl.bindValue(use, 1, p, value);
    use.bindInt(2, impl_->row);
    use.step();
    ++impl.changeCounter;
  }
  impl_->values()[storageIndex(index)] = std::move(value);
  setKeepsMark(index, false);
}

std::shared_ptr<Object> Object::link(int index) const {
  const Property& p = checkedProperty(index);
  if (p.kind != PropertyKind::Link) {
    throw std::invalid_argument(impl_->cls->name() + "." + p.name + " is not a link");
  }
  LinkSlot& slot = linkSlot(index);
  if (impl_->store && !slot.resolved) {
    impl_->store->checkThread();
    auto& impl = StoreAccess::impl(*impl_->store);
    slot.target = impl.load(*impl_->store, impl.info(p.target()), slot.row);
    slot.resolved = true;
  }
  return slot.target;
}

void Object::setLink(int index, std::shared_ptr<Object> target) {
  const Property& p = checkedProperty(index);
  if (p.kind != PropertyKind::Link) {
    throw std::invalid_argument(impl_->cls->name() + "." + p.name + " is not a link");
  }
  if (target && target->objectClass().name() != p.target().name()) {
    throw std::invalid_argument(impl_->cls->name() + "." + p.name + " links " + p.target().name() +
                                ", not " + target->objectClass().name());
  }
  LinkSlot& slot = linkSlot(index);
  if (impl_->store) {
    std::int64_t row = target ? StoreAccess::upsertGraph(*impl_->store, target) : 0;
    auto& impl = StoreAccess::impl(*impl_->store);
    StatementUse use(
        impl.statement(impl.info(*impl_->cls).updateColumn[static_cast<size_t>(index)]));
    if (row)
      use.bindInt(1, row);
    else
      use.bindNull(1);
    use.bindInt(2, impl_->row);
    use.step();
    ++impl.changeCounter;
    slot.row = row;
    slot.resolved = false;
    slot.target.reset();
    return;
  }
  slot.target = std::move(target);
  setKeepsMark(index, false);
}

void Object::keepStoredValue(int index) {
  const Property& p = checkedProperty(index);
  if (impl_->store)
    throw std::logic_error(impl_->cls->name() + "." + p.name + ": the record is stored");
  if (p.kind == PropertyKind::LinkingObjects) return;
  setKeepsMark(index, true);
}

bool Object::keepsStoredValue(int index) const {
  checkedProperty(index);
  return keepsMark(index);
}

bool Object::keepsMark(int index) const {
  auto i = static_cast<size_t>(index);
  if (i < 64) return (impl_->keepMarks >> i) & 1;
  return impl_->keepMarksBeyond64 && ((impl_->keepMarksBeyond64[i / 64 - 1] >> (i % 64)) & 1);
}

void Object::setKeepsMark(int index, bool marked) {
  auto i = static_cast<size_t>(index);
  std::uint64_t* word = &impl_->keepMarks;
  if (i >= 64) {
    if (!impl_->keepMarksBeyond64) {
      if (!marked) return;
      // One word per further 64 properties; a class of 65 properties needs one.
      impl_->keepMarksBeyond64 =
          std::make_unique<std::uint64_t[]>((impl_->cls->properties().size() - 1) / 64);
    }
    word = &impl_->keepMarksBeyond64[i / 64 - 1];
  }
  const std::uint64_t bit = std::uint64_t{1} << (i % 64);
  *word = marked ? (*word | bit) : (*word & ~bit);
}

const Object::ObjectList& Object::storedList(int index) const {
  return impl_->lists ? impl_->lists[storageIndex(index)] : kNoElements;
}

Object::ObjectList& Object::changedList(int index) {
  if (!impl_->lists)
    impl_->lists =
        std::make_unique<ObjectList[]>(static_cast<size_t>(impl_->cls->impl_->listCount));
  setKeepsMark(index, false);
  return impl_->lists[storageIndex(index)];
}

AnyList Object::list(int index) { return AnyList(shared_from_this(), index); }

AnyResults Object::linkingObjects(int index) const {
  const Property& p = checkedProperty(index);
  if (p.kind != PropertyKind::LinkingObjects) {
    throw std::invalid_argument(impl_->cls->name() + "." + p.name + " is not an inverse relation");
  }
  AnyResults results;
  results.impl_ = std::make_unique<AnyResults::Impl>();
  results.impl_->cls = &p.target();
  if (!impl_->store) {
    results.impl_->fixed = std::make_shared<const std::vector<std::shared_ptr<Object>>>();
    return results;
  }
  impl_->store->checkThread();
  int origin = p.target().propertyIndex(p.originProperty);
  if (origin < 0 || p.target().property(origin).kind != PropertyKind::List) {
    throw std::logic_error(impl_->cls->name() + "." + p.name + ": " + p.target().name() +
                           " has no list " + p.originProperty);
  }
  results.impl_->store = impl_->store;
  results.impl_->scope.kind = AnyResults::Impl::Scope::Kind::Inverse;
  results.impl_->scope.row = impl_->row;
  results.impl_->scope.otherClass = &p.target();
  results.impl_->scope.listIndex = origin;
  return results;
}

void Object::copyProperty(const Object& source, int index) {
  if (source.impl_->cls->name() != impl_->cls->name()) {
    throw std::invalid_argument("copyProperty: " + source.impl_->cls->name() + " into " +
                                impl_->cls->name());
  }
  const Property& p = checkedProperty(index);
  switch (p.kind) {
    case PropertyKind::Link:
      setLink(index, source.link(index));
      break;
    case PropertyKind::List: {
      auto owner = std::const_pointer_cast<Object>(source.shared_from_this());
      list(index).assign(AnyList(owner, index).elements());
      break;
    }
    case PropertyKind::LinkingObjects:
      break;
    default:
      setValue(index, source.value(index));
      break;
  }
}

std::optional<std::int64_t> Object::optionalInt(int index) const {
  const Value& v = heldValue(index);
  if (auto* i = std::get_if<std::int64_t>(&v)) return *i;
  return std::nullopt;
}
std::int64_t Object::intValue(int index) const { return optionalInt(index).value_or(0); }
std::optional<double> Object::optionalDouble(int index) const {
  const Value& v = heldValue(index);
  if (auto* d = std::get_if<double>(&v)) return *d;
  return std::nullopt;
}
double Object::doubleValue(int index) const { return optionalDouble(index).value_or(0.0); }
bool Object::boolValue(int index) const {
  const Value& v = heldValue(index);
  auto* b = std::get_if<bool>(&v);
  return b && *b;
}
std::optional<std::string> Object::stringValue(int index) const {
  const Value& v = heldValue(index);
  if (auto* s = std::get_if<std::string>(&v)) return *s;
  return std::nullopt;
}
std::optional<Date> Object::dateValue(int index) const {
  const Value& v = heldValue(index);
  if (auto* d = std::get_if<Date>(&v)) return *d;
  return std::nullopt;
}
void Object::setOptionalInt(int index, std::optional<std::int64_t> v) {
  setValue(index, v ? Value{*v} : Value{});
}
void Object::setOptionalDouble(int index, std::optional<double> v) {
  setValue(index, v ? Value{*v} : Value{});
}
void Object::setString(int index, std::optional<std::string> v) {
  setValue(index, v ? Value{std::move(*v)} : Value{});
}
void Object::setDate(int index, std::optional<Date> v) { setValue(index, v ? Value{*v} : Value{}); }

}  // namespace qvl
