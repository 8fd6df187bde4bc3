#include "quorvel/Models/QVLApiModel.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <type_traits>

#include "Models/QVLMappingPlan.h"
#include "quorvel/Helpers/QVLDateFormatter.h"
#include "quorvel/Helpers/QVLRealm.h"
#include "quorvel/Platform/Log.h"

using nlohmann::json;
using qvl::PropertyKind;

// ---- QVLRelationshipMapping ------------------------------------------------------------

QVLRelationshipMapping QVLRelationshipMapping::newToManyRelationWithJsonKey(
    std::string jsonKey, std::string classProperty, QVLModelClassRef objectClass) {
  QVLRelationshipMapping m;
  m.relationType_ = QVLRelationTypeToMany;
  m.jsonKey_ = std::move(jsonKey);
  m.classProperty_ = std::move(classProperty);
  m.objectClass_ = objectClass;
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
  m.relationType_ = QVLRelationTypeToOne;
  m.toOneRelationKey_ = std::move(relationKey);
  m.jsonKey_ = std::move(jsonKey);
  m.classProperty_ = std::move(classProperty);
  m.objectClass_ = objectClass;
  return m;
}

QVLRelationshipMapping QVLRelationshipMapping::newToOneRelationWithKey(
    std::string key, std::string relationKey, QVLModelClassRef objectClass) {
  std::string property = key;
  return newToOneRelationWithJsonKey(std::move(key), std::move(property), std::move(relationKey),
                                     objectClass);
}

// ---- QVLModelClass ---------------------------------------------------------------------

namespace {

void checkIndex(const QVLModelClass::Declaration& d, int index, const std::string& name) {
  if (index != static_cast<int>(d.properties.size())) {
    throw std::logic_error(d.name + "." + name + " declared at position " +
                           std::to_string(d.properties.size()) + ", its accessors use " +
                           std::to_string(index));
  }
}

}  // namespace

QVLModelClass::Declaration& QVLModelClass::Declaration::property(int index,
                                                                 std::string propertyName,
                                                                 PropertyKind kind, bool optional) {
  checkIndex(*this, index, propertyName);
  bool alwaysOptional = kind == PropertyKind::String || kind == PropertyKind::Date;
  properties.push_back({std::move(propertyName), kind, optional || alwaysOptional, nullptr, {}});
  return *this;
}

QVLModelClass::Declaration& QVLModelClass::Declaration::jsonText(int index,
                                                                 std::string propertyName) {
  jsonTextProperties.push_back(propertyName);
  return property(index, std::move(propertyName), PropertyKind::String);
}

QVLModelClass::Declaration& QVLModelClass::Declaration::link(int index, std::string propertyName,
                                                             qvl::ObjectClassRef target) {
  checkIndex(*this, index, propertyName);
  properties.push_back({std::move(propertyName), PropertyKind::Link, true, target, {}});
  return *this;
}

QVLModelClass::Declaration& QVLModelClass::Declaration::list(int index, std::string propertyName,
                                                             qvl::ObjectClassRef target) {
  checkIndex(*this, index, propertyName);
  properties.push_back({std::move(propertyName), PropertyKind::List, false, target, {}});
  return *this;
}

QVLModelClass::Declaration& QVLModelClass::Declaration::linkingObjects(int index,
                                                                       std::string propertyName,
                                                                       qvl::ObjectClassRef origin,
                                                                       std::string originProperty) {
  checkIndex(*this, index, propertyName);
  properties.push_back({std::move(propertyName), PropertyKind::LinkingObjects, false, origin,
                        std::move(originProperty)});
  return *this;
}

QVLModelClass::QVLModelClass(Declaration d)
    : qvl::ObjectClass(d.name, std::move(d.properties), d.primaryKey, std::move(d.factory)),
      plural_(std::move(d.apiResourcePlural)),
      singular_(std::move(d.apiResourceSingular)),
      mapping_(std::move(d.mapping)),
      relationships_(std::move(d.mappingRelationships)),
      protected_(std::move(d.protectedProperties)),
      jsonText_(std::move(d.jsonTextProperties)) {}

QVLModelClass::~QVLModelClass() = default;

const std::string& QVLModelClass::apiResourcePlural() const {
  if (!plural_) {
    throw QVLException("apiResource plural not implemented on model",
                       "You have not implemented the apiResource plural method on " + name());
  }
  return *plural_;
}

const std::string& QVLModelClass::apiResourceSingular() const {
  if (!singular_) {
    throw QVLException("apiResource singular not implemented on model",
                       "You have not implemented the apiResource singular method on " + name());
  }
  return *singular_;
}

const std::vector<std::pair<std::string, std::string>>& QVLModelClass::mapping() const {
  if (!mapping_) {
    throw QVLException("mapping not implemented on model",
                       "You have not implemented the mapping method on " + name());
  }
  return *mapping_;
}

std::optional<std::string> QVLModelClass::propertyTypeFromPropertyString(
    std::string_view propertyName) const {
  int index = propertyIndex(propertyName);
  if (index < 0) return std::nullopt;
  const qvl::Property& p = property(index);
  switch (p.kind) {
    case PropertyKind::Date:
      return "NSDate";
    case PropertyKind::String:
      return "NSString";
    case PropertyKind::Int:
      return p.optional ? std::optional<std::string>("NSNumber<RLMInt>") : std::nullopt;
    case PropertyKind::Double:
      return p.optional ? std::optional<std::string>("NSNumber<RLMDouble>") : std::nullopt;
    case PropertyKind::Link:
      return p.target().name();
    case PropertyKind::List:
      return "RLMArray<" + p.target().name() + ">";
    case PropertyKind::LinkingObjects:
      return "RLMLinkingObjects";
    default:
      return std::nullopt;
  }
}

const qvl::detail::MappingPlan& qvl::detail::mappingPlan(const QVLModelClass& cls) {
  std::call_once(cls.planOnce_, [&cls] {
    auto fail = [&cls](const std::string& what) {
      throw std::logic_error(cls.name() + ": " + what);
    };
    auto plan = std::make_unique<MappingPlan>();
    for (const auto& [key, propertyName] : cls.mapping()) {
      int index = cls.propertyIndex(propertyName);
      if (index < 0 || !cls.property(index).isScalar()) {
        fail("mapping names '" + propertyName + "', which is not a stored value");
      }
      bool holdsJson = std::find(cls.jsonText_.begin(), cls.jsonText_.end(), propertyName) !=
                       cls.jsonText_.end();
      MappingPlan::Field field{{}, key, index, holdsJson};
      size_t start = 0;
      while (true) {
        size_t dot = key.find('.', start);
        field.path.push_back(key.substr(start, dot - start));
        if (dot == std::string::npos) break;
        start = dot + 1;
      }
      plan->fields.push_back(std::move(field));
    }
    if (cls.relationships_) {
      for (const auto& m : *cls.relationships_) {
        if (m.relationType() != QVLRelationTypeToOne && m.relationType() != QVLRelationTypeToMany) {
          continue;
        }
        int index = cls.propertyIndex(m.classProperty());
        PropertyKind want =
            m.relationType() == QVLRelationTypeToOne ? PropertyKind::Link : PropertyKind::List;
        if (index < 0 || cls.property(index).kind != want) {
          fail("relation '" + m.jsonKey() + "' names '" + m.classProperty() +
               "', which is not a matching relation property");
        }
        plan->relations.push_back(
            {m.relationType(), m.jsonKey(), m.toOneRelationKey(), index, &m.objectClass()});
      }
    }
    if (cls.protected_) {
      for (const auto& propertyName : *cls.protected_) {
        int index = cls.propertyIndex(propertyName);
        if (index < 0) fail("protected property '" + propertyName + "' does not exist");
        plan->protectedIndexes.push_back(index);
      }
    }
    cls.plan_ = std::move(plan);
  });
  return *cls.plan_;
}

// ---- JSON to record --------------------------------------------------------------------

namespace {

// True when arrays and objects in `value` nest more than `limit` levels deep. Walks with
// an explicit stack and stops at the first path that goes too deep.
bool nestsDeeperThan(const json& value, int limit) {
  std::vector<std::pair<const json*, int>> pending{{&value, 1}};
  while (!pending.empty()) {
    auto [node, depth] = pending.back();
    pending.pop_back();
    if (!node->is_structured()) continue;
    if (depth > limit) return true;
    for (const auto& child : *node) {
      if (child.is_structured()) pending.emplace_back(&child, depth + 1);
    }
  }
  return false;
}

// Builds the document as nlohmann's own parser does, refusing to open a level beyond the
// limit; nlohmann's parser keeps its nesting on the heap, so the input cannot recurse.
class BoundedDomParser : public nlohmann::detail::json_sax_dom_parser<json> {
 public:
  BoundedDomParser(json& result, bool allowExceptions)
      : json_sax_dom_parser(result, allowExceptions) {}
  bool start_object(std::size_t size) { return enter() && json_sax_dom_parser::start_object(size); }
  bool end_object() { return leave() && json_sax_dom_parser::end_object(); }
  bool start_array(std::size_t size) { return enter() && json_sax_dom_parser::start_array(size); }
  bool end_array() { return leave() && json_sax_dom_parser::end_array(); }
  bool tooDeep() const { return tooDeep_; }

 private:
  bool enter() {
    tooDeep_ = ++depth_ > kQVLMaxJSONDepth;
    return !tooDeep_;
  }
  bool leave() {
    --depth_;
    return true;
  }
  int depth_ = 0;
  bool tooDeep_ = false;
};

[[noreturn]] void reject(const QVLModelClass& cls, const std::string& key, const char* why) {
  throw QVLMappingError(cls.name() + " \"" + key + "\": " + why);
}

using qvl::detail::MappingPlan;

qvl::Value convert(const QVLModelClass& cls, const MappingPlan::Field& field, const json& v) {
  const qvl::Property& p = cls.property(field.property);
  const std::string& key = field.key;
  if (v.is_null()) {
    if (!p.optional) reject(cls, key, "null for a value that cannot be absent");
    return {};
  }
  switch (p.kind) {
    case PropertyKind::Int:
    case PropertyKind::Int32: {
      std::int64_t n = 0;
      if (v.is_number_unsigned()) {
        auto u = v.get<std::uint64_t>();
        if (u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
          reject(cls, key, "integer out of range");
        }
        n = static_cast<std::int64_t>(u);
      } else if (v.is_number_integer()) {
        n = v.get<std::int64_t>();
      } else if (v.is_number_float()) {
        double d = v.get<double>();
        if (!std::isfinite(d) || d >= 9.2e18 || d <= -9.2e18)
          reject(cls, key, "number out of range");
        n = static_cast<std::int64_t>(d);
      } else if (v.is_boolean()) {
        n = v.get<bool>() ? 1 : 0;
      } else {
        reject(cls, key, "expected a number");
      }
      if (p.kind == PropertyKind::Int32 && (n < std::numeric_limits<std::int32_t>::min() ||
                                            n > std::numeric_limits<std::int32_t>::max())) {
        reject(cls, key, "number out of 32-bit range");
      }
      return n;
    }
    case PropertyKind::Bool:
      if (v.is_boolean()) return v.get<bool>();
      if (v.is_number()) return v.get<double>() != 0.0;
      reject(cls, key, "expected a boolean");
    case PropertyKind::Double:
      if (v.is_number()) return v.get<double>();
      if (v.is_boolean()) return v.get<bool>() ? 1.0 : 0.0;
      reject(cls, key, "expected a number");
    case PropertyKind::String:
      if (v.is_string()) return v.get<std::string>();
      // Text properties that keep JSON ("parameters", "limits") may arrive as structures.
      // Printing recurses per level, so the depth is checked first, without recursion.
      if (field.holdsJson && (v.is_object() || v.is_array())) {
        if (nestsDeeperThan(v, kQVLMaxJSONDepth)) reject(cls, key, "JSON nested too deep");
        return v.dump();
      }
      reject(cls, key, "expected text");
    case PropertyKind::Date: {
      if (!v.is_string()) reject(cls, key, "expected date text");
      auto date = QVLDateFormatter::dateFromString(v.get_ref<const std::string&>());
      return date ? qvl::Value{*date} : qvl::Value{};
    }
    default:
      reject(cls, key, "not a value property");
  }
}

// Follows a dotted key path; nullptr when a member is missing. A null on the way yields
// that null; any other non-object on the way is input of the wrong kind.
const json* follow(const QVLModelClass& cls, const json& root, const MappingPlan::Field& field) {
  const json* current = &root;
  for (const auto& component : field.path) {
    if (current->is_null() && current != &root) return current;
    if (!current->is_object()) reject(cls, field.key, "a member on the key path is not an object");
    auto it = current->find(component);
    if (it == current->end()) return nullptr;
    current = &*it;
  }
  return current;
}

// The stores a parse merges against: the handle given for the record and its to-one
// relations, the calling thread's default store for the elements of nested lists (opened
// when first needed).
class MergeStores {
 public:
  /// A null store merges nested lists with nothing.
  explicit MergeStores(std::shared_ptr<qvl::Store> defaultStore)
      : default_(std::move(defaultStore)), opened_(true) {}
  MergeStores() = default;
  qvl::Store* defaultStore() {
    if (!opened_) {
      default_ = QVLRealm::realm();
      opened_ = true;
    }
    return default_.get();
  }

 private:
  std::shared_ptr<qvl::Store> default_;
  bool opened_ = false;
};

std::shared_ptr<QVLApiModel> parse(const QVLModelClass& cls, const json& dictionary,
                                   qvl::Store* realm, MergeStores& stores);

std::vector<std::shared_ptr<qvl::Object>> parseList(const QVLModelClass& cls, const json& array,
                                                    MergeStores& stores) {
  std::vector<std::shared_ptr<qvl::Object>> out;
  out.reserve(array.size());
  for (const auto& element : array) {
    if (!element.is_object()) {
      throw QVLMappingError(cls.name() + ": an array element is not an object");
    }
    out.push_back(parse(cls, element, stores.defaultStore(), stores));
  }
  return out;
}

std::shared_ptr<QVLApiModel> parse(const QVLModelClass& cls, const json& dictionary,
                                   qvl::Store* realm, MergeStores& stores) {
  const auto& plan = qvl::detail::mappingPlan(cls);
  static const json kEmpty = json::object();
  const json& J = dictionary.is_null() ? kEmpty : dictionary;
  if (!J.is_object()) throw QVLMappingError(cls.name() + ": the record is not a JSON object");

  auto record = std::static_pointer_cast<QVLApiModel>(cls.makeObject());
  std::vector<int> missing;
  for (const auto& field : plan.fields) {
    const json* v = follow(cls, J, field);
    if (!v) {
      missing.push_back(field.property);
      continue;
    }
    record->setValue(field.property, convert(cls, field, *v));
  }
  for (const auto& relation : plan.relations) {
    auto it = J.find(relation.jsonKey);
    if (it == J.end()) {
      missing.push_back(relation.property);
      continue;
    }
    if (relation.type == QVLRelationTypeToOne) {
      if (!it->is_object()) reject(cls, relation.jsonKey, "a to-one relation must be an object");
      record->setLink(relation.property, parse(*relation.target, *it, realm, stores));
    } else {
      if (!it->is_array()) reject(cls, relation.jsonKey, "a to-many relation must be an array");
      if (!it->empty()) {
        record->list(relation.property).assign(parseList(*relation.target, *it, stores));
      }
    }
  }

  auto key = record->primaryKeyValue();
  if (!key) return record;  // no stored twin to merge with
  std::shared_ptr<qvl::Object> twin;
  if (realm && realm->hasClass(cls)) twin = realm->object(cls, key);
  for (int index : missing) {
    if (twin) record->copyProperty(*twin, index);
    record->keepStoredValue(index);
  }
  for (int index : plan.protectedIndexes) {
    if (twin) record->copyProperty(*twin, index);
    record->keepStoredValue(index);
  }
  return record;
}

// One record per element of an array; a document given as modifiable releases each element
// once it is mapped.
template <class Array>
std::vector<std::shared_ptr<QVLApiModel>> parseEach(const QVLModelClass& cls, Array& array,
                                                    qvl::Store* realm, MergeStores& stores,
                                                    std::vector<QVLError>* rejected) {
  std::vector<std::shared_ptr<QVLApiModel>> out;
  if (!array.is_array()) return out;
  out.reserve(array.size());
  for (auto& element : array) {
    try {
      if (!element.is_object()) {
        throw QVLMappingError(cls.name() + ": an array element is not an object");
      }
      out.push_back(parse(cls, element, realm, stores));
    } catch (const QVLMappingError& e) {
      qvl::log(std::string("QuorvelSDK: Rejected ") + cls.name() + " record: " + e.what());
      if (rejected) {
        rejected->push_back(QVLError{kQVLMappingErrorDomain, 1, json{{"errorMessage", e.what()}}});
      }
    }
    if constexpr (!std::is_const_v<Array>) element = nullptr;
  }
  return out;
}

}  // namespace

std::vector<std::shared_ptr<QVLApiModel>> qvl::detail::recordsToMerge(const QVLModelClass& cls,
                                                                      json&& array) {
  qvl::detail::mappingPlan(cls);  // a class without a mapping raises whatever the answer
  MergeStores none(nullptr);
  return parseEach(cls, array, nullptr, none, nullptr);
}

std::shared_ptr<QVLApiModel> qvl::detail::recordToMerge(const QVLModelClass& cls,
                                                        const json& dictionary) {
  static const json kAbsent;
  MergeStores none(nullptr);
  return parse(cls, dictionary.is_object() ? dictionary : kAbsent, nullptr, none);
}

const QVLModelClass& QVLApiModel::modelClass() {
  static const QVLModelClass cls(
      QVLModelClass::Declaration("QVLApiModel", [] { return std::shared_ptr<qvl::Object>(); }));
  return cls;
}

std::shared_ptr<QVLApiModel> QVLApiModel::newObjectWithJSONDictionary(const QVLModelClass& cls,
                                                                      const json& dictionary,
                                                                      qvl::Store* realm) {
  MergeStores stores;
  return parse(cls, dictionary, realm, stores);
}

std::shared_ptr<QVLApiModel> QVLApiModel::newObjectWithJSONDictionary(const QVLModelClass& cls,
                                                                      const json& dictionary) {
  qvl::detail::mappingPlan(cls);  // a class without a mapping raises before the store opens
  MergeStores stores(QVLRealm::realm());
  return parse(cls, dictionary, stores.defaultStore(), stores);
}

std::vector<std::shared_ptr<QVLApiModel>> QVLApiModel::newObjectsWithJSONArray(
    const QVLModelClass& cls, const json& array, std::vector<QVLError>* rejected) {
  qvl::detail::mappingPlan(cls);
  auto realm = QVLRealm::realm();
  return newObjectsWithJSONArray(cls, array, realm.get(), rejected);
}

std::vector<std::shared_ptr<QVLApiModel>> QVLApiModel::newObjectsWithJSONArray(
    const QVLModelClass& cls, const json& array, qvl::Store* realm,
    std::vector<QVLError>* rejected) {
  MergeStores stores;
  return parseEach(cls, array, realm, stores, rejected);
}

json QVLApiModel::parseJSONData(std::string_view data, bool allowExceptions) {
  json result;
  BoundedDomParser parser(result, allowExceptions);
  if (json::sax_parse(data, &parser, json::input_format_t::json, true)) return result;
  if (parser.tooDeep()) {
    throw QVLMappingError("the JSON nests arrays and objects deeper than " +
                          std::to_string(kQVLMaxJSONDepth) + " levels");
  }
  return json(json::value_t::discarded);
}

// ---- record to JSON --------------------------------------------------------------------

nlohmann::json QVLApiModel::toDictionary() const {
  const QVLModelClass& cls = apiModelClass();
  const auto& plan = qvl::detail::mappingPlan(cls);
  json out = json::object();
  for (const auto& field : plan.fields) {
    qvl::Value v = value(field.property);
    if (auto* i = std::get_if<std::int64_t>(&v))
      out[field.key] = *i;
    else if (auto* d = std::get_if<double>(&v))
      out[field.key] = *d;
    else if (auto* b = std::get_if<bool>(&v))
      out[field.key] = *b;
    else if (auto* s = std::get_if<std::string>(&v))
      out[field.key] = *s;
    else if (auto* t = std::get_if<qvl::Date>(&v))
      out[field.key] = QVLDateFormatter::formattedStringFromDate(*t);
  }
  for (const auto& relation : plan.relations) {
    if (relation.type != QVLRelationTypeToOne || !relation.toOneRelationKey) continue;
    auto target = link(relation.property);
    if (!target) continue;
    if (auto key = target->primaryKeyValue()) out[*relation.toOneRelationKey] = *key;
  }
  return out;
}
