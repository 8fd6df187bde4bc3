#include "quorvel/Store/ObjectClass.h"

#include <stdexcept>

namespace qvl {

ObjectClass::ObjectClass(std::string name, std::vector<Property> properties, std::string primaryKey,
                         Factory factory)
    : name_(std::move(name)),
      properties_(std::move(properties)),
      primaryKey_(std::move(primaryKey)),
      factory_(std::move(factory)) {
  for (size_t i = 0; i < properties_.size(); ++i) {
    const Property& p = properties_[i];
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
