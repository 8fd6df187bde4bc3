#include "quorvel/records/QVLRelationshipMapping.h"

struct QVLRelationshipMapping::Impl {
  std::int64_t relationType = QVLRelationTypeToMany;
  std::optional<std::string> toOneRelationKey;
  std::string jsonKey;
  std::string classProperty;
  QVLModelClassRef objectClass = nullptr;
};

QVLRelationshipMapping::QVLRelationshipMapping() : impl_(std::make_unique<Impl>()) {}
QVLRelationshipMapping::~QVLRelationshipMapping() = default;
QVLRelationshipMapping::QVLRelationshipMapping(const QVLRelationshipMapping& other)
    : impl_(std::make_unique<Impl>(other.fields())) {}
QVLRelationshipMapping& QVLRelationshipMapping::operator=(const QVLRelationshipMapping& other) {
  if (this != &other) changedFields() = other.fields();
  return *this;
}
QVLRelationshipMapping::QVLRelationshipMapping(QVLRelationshipMapping&& other) noexcept = default;
QVLRelationshipMapping& QVLRelationshipMapping::operator=(QVLRelationshipMapping&& other) noexcept =
    default;

const QVLRelationshipMapping::Impl& QVLRelationshipMapping::fields() const {
  static const Impl kDefault;
  return impl_ ? *impl_ : kDefault;
}

QVLRelationshipMapping::Impl& QVLRelationshipMapping::changedFields() {
  if (!impl_) impl_ = std::make_unique<Impl>();
  return *impl_;
}

QVLRelationshipMapping QVLRelationshipMapping::newToManyRelationWithJsonKey(
    std::string jsonKey, std::string classProperty, QVLModelClassRef objectClass) {
  QVLRelationshipMapping m;
  m.impl_->relationType = QVLRelationTypeToMany;
  m.impl_->jsonKey = std::move(jsonKey);
  m.impl_->classProperty = std::move(classProperty);
  m.impl_->objectClass = objectClass;
  return m;
}

QVLRelationshipMapping QVLRelationshipMapping::newToManyRelationWithKey(
    std::string key, QVLModelClassRef objectClass) {
  std::string property = key;
  return newToManyRelationWithJsonKey(std::move(key), std::move(property), objectClass);
}

QVLRelationshipMapping QVLRelationshipMapping::newToOneRelationWithJsonKey(
    std::string jsonKey, std::string classProperty, std::string relationKey,
    QVLModelClassRef objectClass) {
  QVLRelationshipMapping m;
  m.impl_->relationType = QVLRelationTypeToOne;
  m.impl_->toOneRelationKey = std::move(relationKey);
  m.impl_->jsonKey = std::move(jsonKey);
  m.impl_->classProperty = std::move(classProperty);
  m.impl_->objectClass = objectClass;
  return m;
}

QVLRelationshipMapping QVLRelationshipMapping::newToOneRelationWithKey(
    std::string key, std::string relationKey, QVLModelClassRef objectClass) {
  std::string property = key;
  return newToOneRelationWithJsonKey(std::move(key), std::move(property), std::move(relationKey),
                                     objectClass);
}

std::int64_t QVLRelationshipMapping::relationType() const { return fields().relationType; }
void QVLRelationshipMapping::setRelationType(std::int64_t type) {
  changedFields().relationType = type;
}
const std::optional<std::string>& QVLRelationshipMapping::toOneRelationKey() const {
  return fields().toOneRelationKey;
}
void QVLRelationshipMapping::setToOneRelationKey(std::optional<std::string> key) {
  changedFields().toOneRelationKey = std::move(key);
}
const std::string& QVLRelationshipMapping::jsonKey() const { return fields().jsonKey; }
void QVLRelationshipMapping::setJsonKey(std::string key) {
  changedFields().jsonKey = std::move(key);
}
const std::string& QVLRelationshipMapping::classProperty() const { return fields().classProperty; }
void QVLRelationshipMapping::setClassProperty(std::string name) {
  changedFields().classProperty = std::move(name);
}
QVLModelClassRef QVLRelationshipMapping::objectClassRef() const { return fields().objectClass; }
const QVLModelClass& QVLRelationshipMapping::objectClass() const { return fields().objectClass(); }
void QVLRelationshipMapping::setObjectClass(QVLModelClassRef objectClass) {
  changedFields().objectClass = objectClass;
}
