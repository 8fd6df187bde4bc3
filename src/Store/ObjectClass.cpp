#include "quorvel/Store/ObjectClass.h"

#include <stdexcept>

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
    : name_(std::move(name)),
      properties_(std::move(properties)),
      primaryKey_(std::move(primaryKey)),
      factory_(std::move(factory)) {
  storageIndex_.reserve(properties_.size());
  for (size_t i = 0; i < properties_.size(); ++i) {
    const Property& p = properties_[i];
    if (p.isScalar()) {
      storageIndex_.push_back(static_cast<int>(scalarDefaults_.size()));
      scalarDefaults_.push_back(defaultValue(p));
    } else if (p.kind == PropertyKind::Link) {
      storageIndex_.push_back(linkCount_++);
    } else if (p.kind == PropertyKind::List) {
      storageIndex_.push_back(listCount_++);
    } else {
      storageIndex_.push_back(-1);
    }
    if (!indexByName_.emplace(p.name, static_cast<int>(i)).second) {
      throw std::invalid_argument(name_ + ": property '" + p.name + "' declared twice");
    }
    if (!p.isScalar() && p.target == nullptr) {
      throw std::invalid_argument(name_ + "." + p.name + ": relation without a target class");
    }
    if (p.kind == PropertyKind::LinkingObjects && p.originProperty.empty()) {
      throw std::invalid_argument(name_ + "." + p.name + ": inverse relation without origin");
    }
  }
  if (!primaryKey_.empty()) {
    primaryKeyIndex_ = propertyIndex(primaryKey_);
    if (primaryKeyIndex_ < 0 || properties_[primaryKeyIndex_].kind != PropertyKind::Int) {
      throw std::invalid_argument(name_ + ": primary key '" + primaryKey_ +
                                  "' is not an integer property");
    }
  }
}

int ObjectClass::propertyIndex(std::string_view name) const {
  auto it = indexByName_.find(std::string(name));
  return it == indexByName_.end() ? -1 : it->second;
}

}  // namespace qvl
