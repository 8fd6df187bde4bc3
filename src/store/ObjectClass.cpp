#include "quorvel/store/ObjectClass.h"

#include <stdexcept>

#include "store/ObjectImpl.h"

namespace qvl {

namespace {

Value defaultValue(const Property& p) {
  if (p.optional) return {};
  switch (p.kind) {
    case PropertyKind::Int:
    case PropertyKind::Int32:
      return std::int64_t{0};
    case PropertyKind::Bool:
      return false;
    case PropertyKind::Double:
      return 0.0;
    default:
      return {};
  }
}

}  // namespace

ObjectClass::ObjectClass(std::string name, std::vector<Property> properties, std::string primaryKey,
                         Factory factory)
    : impl_(std::make_unique<Impl>()) {
  Impl& d = *impl_;
  d.name = std::move(name);
  d.properties = std::move(properties);
  d.primaryKey = std::move(primaryKey);
  d.factory = std::move(factory);
  d.storageIndex.reserve(d.properties.size());
  for (size_t i = 0; i < d.properties.size(); ++i) {
    const Property& p = d.properties[i];
    if (p.isScalar()) {
      d.storageIndex.push_back(static_cast<int>(d.scalarDefaults.size()));
      d.scalarDefaults.push_back(defaultValue(p));
    } else if (p.kind == PropertyKind::Link) {
      d.storageIndex.push_back(d.linkCount++);
    } else if (p.kind == PropertyKind::List) {
      d.storageIndex.push_back(d.listCount++);
    } else {
      d.storageIndex.push_back(-1);
    }
    if (!d.indexByName.emplace(p.name, static_cast<int>(i)).second) {
      throw std::invalid_argument(d.name + ": property '" + p.name + "' declared twice");
    }
    if (!p.isScalar() && p.target == nullptr) {
      throw std::invalid_argument(d.name + "." + p.name + ": relation without a target class");
    }
    if (p.kind == PropertyKind::LinkingObjects && p.originProperty.empty()) {
      throw std::invalid_argument(d.name + "." + p.name + ": inverse relation without origin");
    }
  }
  if (!d.primaryKey.empty()) {
    d.primaryKeyIndex = propertyIndex(d.primaryKey);
    if (d.primaryKeyIndex < 0 || d.properties[d.primaryKeyIndex].kind != PropertyKind::Int) {
      throw std::invalid_argument(d.name + ": primary key '" + d.primaryKey +
                                  "' is not an integer property");
    }
  }
}

ObjectClass::~ObjectClass() = default;

const std::string& ObjectClass::name() const { return impl_->name; }
const std::vector<Property>& ObjectClass::properties() const { return impl_->properties; }
const Property& ObjectClass::property(int index) const {
  return impl_->properties.at(static_cast<size_t>(index));
}
const std::string& ObjectClass::primaryKey() const { return impl_->primaryKey; }
int ObjectClass::primaryKeyIndex() const { return impl_->primaryKeyIndex; }
std::shared_ptr<Object> ObjectClass::makeObject() const { return impl_->factory(); }

int ObjectClass::propertyIndex(std::string_view name) const {
  auto it = impl_->indexByName.find(std::string(name));
  return it == impl_->indexByName.end() ? -1 : it->second;
}

}  // namespace qvl
