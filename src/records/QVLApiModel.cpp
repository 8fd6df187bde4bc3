#include "quorvel/records/QVLApiModel.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <type_traits>

#include <simdjson.h>

#include "platform/CountersImpl.h"
#include "platform/JsonImpl.h"
#include "quorvel/platform/Log.h"
#include "quorvel/records/QVLDateFormatter.h"
#include "quorvel/records/QVLRealm.h"
#include "records/QVLMappingPlan.h"

using nlohmann::json;
using qvl::PropertyKind;

// ---- QVLException ----------------------------------------------------------------------

struct QVLException::Impl {
  std::string name, reason;
};

QVLException::QVLException(std::string name, std::string reason)
    : std::logic_error(reason),
      impl_(std::make_shared<const Impl>(Impl{std::move(name), std::move(reason)})) {}

const std::string& QVLException::name() const { return impl_->name; }
const std::string& QVLException::reason() const { return impl_->reason; }

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

// The plan is held by value: reaching it per record costs the flag test and no pointer
// beyond impl_.
struct QVLModelClass::Impl {
  std::optional<std::string> plural, singular;
  std::optional<std::vector<std::pair<std::string, std::string>>> mapping;
  std::optional<std::vector<QVLRelationshipMapping>> relationships;
  std::optional<std::vector<std::string>> protectedProperties;
  std::vector<std::string> jsonText;
  std::once_flag planOnce;
  qvl::detail::MappingPlan plan;  // set once, under planOnce
};

QVLModelClass::QVLModelClass(Declaration d)
    : qvl::ObjectClass(d.name, std::move(d.properties), d.primaryKey, std::move(d.factory)),
      impl_(new Impl{std::move(d.apiResourcePlural),
                     std::move(d.apiResourceSingular),
                     std::move(d.mapping),
                     std::move(d.mappingRelationships),
                     std::move(d.protectedProperties),
                     std::move(d.jsonTextProperties),
                     {},
                     {}}) {}

QVLModelClass::~QVLModelClass() = default;

const std::string& QVLModelClass::apiResourcePlural() const {
  if (!impl_->plural) {
    throw QVLException("apiResource plural not implemented on model",
                       "You have not implemented the apiResource plural method on " + name());
  }
  return *impl_->plural;
}

const std::string& QVLModelClass::apiResourceSingular() const {
  if (!impl_->singular) {
    throw QVLException("apiResource singular not implemented on model",
                       "You have not implemented the apiResource singular method on " + name());
  }
  return *impl_->singular;
}

const std::vector<std::pair<std::string, std::string>>& QVLModelClass::mapping() const {
  if (!impl_->mapping) {
    throw QVLException("mapping not implemented on model",
                       "You have not implemented the mapping method on " + name());
  }
  return *impl_->mapping;
}

const std::optional<std::vector<QVLRelationshipMapping>>& QVLModelClass::mappingRelationships()
    const {
  return impl_->relationships;
}

const std::optional<std::vector<std::string>>& QVLModelClass::protectedProperties() const {
  return impl_->protectedProperties;
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
  QVLModelClass::Impl& impl = *cls.impl_;
  std::call_once(impl.planOnce, [&cls, &impl] {
    auto fail = [&cls](const std::string& what) {
      throw std::logic_error(cls.name() + ": " + what);
    };
    MappingPlan plan;
    for (const auto& [key, propertyName] : cls.mapping()) {
      int index = cls.propertyIndex(propertyName);
      if (index < 0 || !cls.property(index).isScalar()) {
        fail("mapping names '" + propertyName + "', which is not a stored value");
      }
      bool holdsJson = std::find(impl.jsonText.begin(), impl.jsonText.end(), propertyName) !=
                       impl.jsonText.end();
      MappingPlan::Field field{{}, key, index, holdsJson};
      size_t start = 0;
      while (true) {
        size_t dot = key.find('.', start);
        field.path.push_back(key.substr(start, dot - start));
        if (dot == std::string::npos) break;
        start = dot + 1;
      }
      plan.fields.push_back(std::move(field));
    }
    if (impl.relationships) {
      for (const auto& m : *impl.relationships) {
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
        plan.relations.push_back(
            {m.relationType(), m.jsonKey(), m.toOneRelationKey(), index, &m.objectClass()});
      }
    }
    if (impl.protectedProperties) {
      for (const auto& propertyName : *impl.protectedProperties) {
        int index = cls.propertyIndex(propertyName);
        if (index < 0) fail("protected property '" + propertyName + "' does not exist");
        plan.protectedIndexes.push_back(index);
      }
    }
    impl.plan = std::move(plan);
  });
  return impl.plan;
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

using qvl::detail::Failure;
using qvl::detail::Result;

// Input of the wrong kind rejects the one record it is part of.
Failure reject(const QVLModelClass& cls, const std::string& key, const char* why) {
  return {cls.name() + " \"" + key + "\": " + why};
}

using qvl::detail::MappingPlan;

// The mapping reads JSON through one of two nodes with the same interface: NlohmannNode over
// a document the caller holds, SimdNode over an answer parsed by simdjson. Both read a
// document as nlohmann's parser builds it (a repeated member: the last one counts; a
// non-negative integer is unsigned), so the mapping rules exist once and give the same
// records from either.
enum class NodeType { Null, Bool, Number, String, Array, Object };

struct Number {
  enum Kind { Unsigned, Signed, Float } kind;
  std::uint64_t u = 0;
  std::int64_t i = 0;
  double d = 0;
  double asDouble() const {
    return kind == Float ? d : kind == Signed ? static_cast<double>(i) : static_cast<double>(u);
  }
};

class NlohmannNode {
 public:
  explicit NlohmannNode(const json& value) : value_(&value) {}
  /// An array whose elements forEach() sets to null once each is handled.
  static NlohmannNode releasing(json& array) {
    NlohmannNode node(array);
    node.release_ = &array;
    return node;
  }
  NodeType type() const {
    switch (value_->type()) {
      case json::value_t::boolean:
        return NodeType::Bool;
      case json::value_t::number_unsigned:
      case json::value_t::number_integer:
      case json::value_t::number_float:
        return NodeType::Number;
      case json::value_t::string:
        return NodeType::String;
      case json::value_t::array:
        return NodeType::Array;
      case json::value_t::object:
        return NodeType::Object;
      default:
        return NodeType::Null;
    }
  }
  bool boolean() const { return value_->get<bool>(); }
  Number number() const {
    if (value_->is_number_unsigned()) return {Number::Unsigned, value_->get<std::uint64_t>()};
    if (value_->is_number_integer()) return {Number::Signed, 0, value_->get<std::int64_t>()};
    return {Number::Float, 0, 0, value_->get<double>()};
  }
  std::string_view text() const { return value_->get_ref<const std::string&>(); }
  std::optional<NlohmannNode> member(std::string_view key) const {
    auto it = value_->find(key);
    if (it == value_->end()) return std::nullopt;
    return NlohmannNode(*it);
  }
  std::size_t size() const { return value_->size(); }
  template <class Each>
  void forEach(Each each) const {
    if (release_) {
      for (auto& element : *release_) {
        each(NlohmannNode(element));
        element = nullptr;
      }
    } else {
      for (const auto& element : *value_) each(NlohmannNode(element));
    }
  }
  /// The value as JSON text; nullopt when it nests deeper than the mapping accepts. Printing
  /// recurses per level, so the depth is checked first, without recursion.
  std::optional<std::string> jsonText() const {
    if (nestsDeeperThan(*value_, kQVLMaxJSONDepth)) return std::nullopt;
    return value_->dump();
  }

 private:
  const json* value_;
  json* release_ = nullptr;
};

// The parser refuses documents that nest kQVLMaxJSONDepth levels or more, so every SimdNode
// is within the mapping's limit and recursing over one is bounded.
class SimdNode {
 public:
  explicit SimdNode(simdjson::dom::element value) : value_(value) {}
  /// The value as a T; callers check type() first, so the conversion cannot fail.
  template <class T>
  static T as(simdjson::dom::element value) {
    T out{};
    if (value.get(out) != simdjson::SUCCESS) return T{};
    return out;
  }
  NodeType type() const {
    switch (value_.type()) {
      case simdjson::dom::element_type::BOOL:
        return NodeType::Bool;
      case simdjson::dom::element_type::INT64:
      case simdjson::dom::element_type::UINT64:
      case simdjson::dom::element_type::DOUBLE:
        return NodeType::Number;
      case simdjson::dom::element_type::STRING:
        return NodeType::String;
      case simdjson::dom::element_type::ARRAY:
        return NodeType::Array;
      case simdjson::dom::element_type::OBJECT:
        return NodeType::Object;
      default:
        return NodeType::Null;
    }
  }
  bool boolean() const { return as<bool>(value_); }
  Number number() const {
    switch (value_.type()) {
      case simdjson::dom::element_type::INT64: {
        std::int64_t i = as<std::int64_t>(value_);
        if (i >= 0) return {Number::Unsigned, static_cast<std::uint64_t>(i)};
        return {Number::Signed, 0, i};
      }
      case simdjson::dom::element_type::UINT64:
        return {Number::Unsigned, as<std::uint64_t>(value_)};
      default:
        return {Number::Float, 0, 0, as<double>(value_)};
    }
  }
  std::string_view text() const { return as<std::string_view>(value_); }
  std::optional<SimdNode> member(std::string_view key) const {
    std::optional<SimdNode> found;
    for (auto field : as<simdjson::dom::object>(value_)) {
      if (field.key == key) found = SimdNode(field.value);
    }
    return found;
  }
  std::size_t size() const {
    return value_.is_array() ? as<simdjson::dom::array>(value_).size()
                             : as<simdjson::dom::object>(value_).size();
  }
  template <class Each>
  void forEach(Each each) const {
    for (auto element : as<simdjson::dom::array>(value_)) each(SimdNode(element));
  }
  std::optional<std::string> jsonText() const { return document(value_).dump(); }

 private:
  static json document(simdjson::dom::element value) {
    switch (value.type()) {
      case simdjson::dom::element_type::ARRAY: {
        json out = json::array();
        for (auto element : as<simdjson::dom::array>(value)) out.push_back(document(element));
        return out;
      }
      case simdjson::dom::element_type::OBJECT: {
        json out = json::object();
        for (auto field : as<simdjson::dom::object>(value)) {
          out[std::string(field.key)] = document(field.value);
        }
        return out;
      }
      case simdjson::dom::element_type::STRING:
        return std::string(as<std::string_view>(value));
      case simdjson::dom::element_type::BOOL:
        return as<bool>(value);
      case simdjson::dom::element_type::NULL_VALUE:
        return nullptr;
      default: {
        Number n = SimdNode(value).number();
        if (n.kind == Number::Unsigned) return n.u;
        if (n.kind == Number::Signed) return n.i;
        return n.d;
      }
    }
  }
  simdjson::dom::element value_;
};

template <class Node>
Result<qvl::Value> convert(const QVLModelClass& cls, const MappingPlan::Field& field,
                           const Node& v) {
  const qvl::Property& p = cls.property(field.property);
  const std::string& key = field.key;
  const NodeType type = v.type();
  if (type == NodeType::Null) {
    if (!p.optional) return reject(cls, key, "null for a value that cannot be absent");
    return qvl::Value{};
  }
  switch (p.kind) {
    case PropertyKind::Int:
    case PropertyKind::Int32: {
      std::int64_t n = 0;
      if (type == NodeType::Number) {
        Number number = v.number();
        if (number.kind == Number::Unsigned) {
          if (number.u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return reject(cls, key, "integer out of range");
          }
          n = static_cast<std::int64_t>(number.u);
        } else if (number.kind == Number::Signed) {
          n = number.i;
        } else {
          if (!std::isfinite(number.d) || number.d >= 9.2e18 || number.d <= -9.2e18)
            return reject(cls, key, "number out of range");
          n = static_cast<std::int64_t>(number.d);
        }
      } else if (type == NodeType::Bool) {
        n = v.boolean() ? 1 : 0;
      } else {
        return reject(cls, key, "expected a number");
      }
      if (p.kind == PropertyKind::Int32 && (n < std::numeric_limits<std::int32_t>::min() ||
                                            n > std::numeric_limits<std::int32_t>::max())) {
        return reject(cls, key, "number out of 32-bit range");
      }
      return qvl::Value{n};
    }
    case PropertyKind::Bool:
      if (type == NodeType::Bool) return qvl::Value{v.boolean()};
      if (type == NodeType::Number) return qvl::Value{v.number().asDouble() != 0.0};
      return reject(cls, key, "expected a boolean");
    case PropertyKind::Double:
      if (type == NodeType::Number) return qvl::Value{v.number().asDouble()};
      if (type == NodeType::Bool) return qvl::Value{v.boolean() ? 1.0 : 0.0};
      return reject(cls, key, "expected a number");
    case PropertyKind::String:
      if (type == NodeType::String) return qvl::Value{std::string(v.text())};
      // Text properties that keep JSON ("parameters", "limits") may arrive as structures.
      if (field.holdsJson && (type == NodeType::Object || type == NodeType::Array)) {
        auto text = v.jsonText();
        if (!text) return reject(cls, key, "JSON nested too deep");
        return qvl::Value{std::move(*text)};
      }
      return reject(cls, key, "expected text");
    case PropertyKind::Date: {
      if (type != NodeType::String) return reject(cls, key, "expected date text");
      auto date = QVLDateFormatter::dateFromString(v.text());
      return date ? qvl::Value{*date} : qvl::Value{};
    }
    default:
      return reject(cls, key, "not a value property");
  }
}

// Follows a dotted key path; nullopt when a member is missing. A null on the way yields
// that null; any other non-object on the way is input of the wrong kind.
template <class Node>
Result<std::optional<Node>> follow(const QVLModelClass& cls, const Node& root,
                                   const MappingPlan::Field& field) {
  Node current = root;
  bool atRoot = true;
  for (const auto& component : field.path) {
    if (!atRoot && current.type() == NodeType::Null) return std::optional<Node>(current);
    if (current.type() != NodeType::Object) {
      return reject(cls, field.key, "a member on the key path is not an object");
    }
    auto next = current.member(component);
    if (!next) return std::optional<Node>();
    current = *next;
    atRoot = false;
  }
  return std::optional<Node>(current);
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

template <class Node>
Result<std::shared_ptr<QVLApiModel>> parse(const QVLModelClass& cls,
                                           const std::optional<Node>& dictionary, qvl::Store* realm,
                                           MergeStores& stores);

// The elements of a nested list; the first element that is rejected rejects the list.
template <class Node>
Result<std::vector<std::shared_ptr<qvl::Object>>> parseList(const QVLModelClass& cls,
                                                            const Node& array,
                                                            MergeStores& stores) {
  std::vector<std::shared_ptr<qvl::Object>> out;
  std::optional<Failure> failed;
  out.reserve(array.size());
  array.forEach([&](const Node& element) {
    if (failed) return;
    if (element.type() != NodeType::Object) {
      failed = Failure{cls.name() + ": an array element is not an object"};
      return;
    }
    auto record = parse<Node>(cls, element, stores.defaultStore(), stores);
    if (!record) {
      failed = record.failure();
      return;
    }
    out.push_back(std::move(*record));
  });
  if (failed) return std::move(*failed);
  return out;
}

// A record from a JSON object; an absent or null dictionary maps as an empty object.
template <class Node>
Result<std::shared_ptr<QVLApiModel>> parse(const QVLModelClass& cls,
                                           const std::optional<Node>& dictionary, qvl::Store* realm,
                                           MergeStores& stores) {
  const auto& plan = qvl::detail::mappingPlan(cls);
  std::optional<Node> J = dictionary;
  if (J && J->type() == NodeType::Null) J.reset();
  if (J && J->type() != NodeType::Object) {
    return Failure{cls.name() + ": the record is not a JSON object"};
  }

  auto record = std::static_pointer_cast<QVLApiModel>(cls.makeObject());
  std::vector<int> missing;
  for (const auto& field : plan.fields) {
    Result<std::optional<Node>> v = J ? follow(cls, *J, field) : std::optional<Node>();
    if (!v) return v.failure();
    if (!*v) {
      missing.push_back(field.property);
      continue;
    }
    Result<qvl::Value> value = convert(cls, field, **v);
    if (!value) return value.failure();
    record->setValue(field.property, std::move(*value));
  }
  for (const auto& relation : plan.relations) {
    std::optional<Node> related = J ? J->member(relation.jsonKey) : std::nullopt;
    if (!related) {
      missing.push_back(relation.property);
      continue;
    }
    if (relation.type == QVLRelationTypeToOne) {
      if (related->type() != NodeType::Object) {
        return reject(cls, relation.jsonKey, "a to-one relation must be an object");
      }
      auto target = parse(*relation.target, related, realm, stores);
      if (!target) return target.failure();
      record->setLink(relation.property, std::move(*target));
    } else {
      if (related->type() != NodeType::Array) {
        return reject(cls, relation.jsonKey, "a to-many relation must be an array");
      }
      if (related->size() > 0) {
        auto elements = parseList(*relation.target, *related, stores);
        if (!elements) return elements.failure();
        record->list(relation.property).assign(std::move(*elements));
      }
    }
  }

  auto key = record->primaryKeyValue();
  if (!key) return std::shared_ptr<QVLApiModel>(record);  // no stored twin to merge with
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
  return std::shared_ptr<QVLApiModel>(record);
}

// One record per element of an array; anything but an array gives none. Each rejection is
// logged through `log`.
template <class ArrayNode, class Log>
std::vector<std::shared_ptr<QVLApiModel>> parseEach(
    const QVLModelClass& cls, const ArrayNode& array, qvl::Store* realm, MergeStores& stores,
    std::vector<QVLError>* rejected, std::vector<std::int64_t>* listedKeys, Log log) {
  std::vector<std::shared_ptr<QVLApiModel>> out;
  if (array.type() != NodeType::Array) return out;
  out.reserve(array.size());
  array.forEach([&](const auto& element) {
    using Node = std::decay_t<decltype(element)>;
    Result<std::shared_ptr<QVLApiModel>> record =
        Failure{cls.name() + ": an array element is not an object"};
    if (element.type() == NodeType::Object) {
      if (listedKeys) {
        auto id = element.member("id");
        if (id && id->type() == NodeType::Number) {
          Number n = id->number();
          if (n.kind != Number::Float) {
            listedKeys->push_back(n.kind == Number::Signed ? n.i : static_cast<std::int64_t>(n.u));
          }
        }
      }
      record = parse<Node>(cls, element, realm, stores);
    }
    if (record) {
      out.push_back(std::move(*record));
      return;
    }
    log(std::string("Rejected ") + cls.name() + " record: " + record.error());
    if (rejected) {
      rejected->push_back(QVLError{kQVLMappingErrorDomain, 1,
                                   qvl::Json::object({{"errorMessage", record.error()}})});
    }
  });
  return out;
}

void logRejection(const std::string& line) {
  qvl::count(qvl::Counter::recordsRejected);
  qvl::log(qvl::LogLevel::error, line);
}

// The elements of an answer's top-level array, streamed: simdjson walks the text once and each
// element, which must be an object, becomes a small document of its own, so the whole answer
// is never held as a document. The element parser refuses elements that nest
// kQVLMaxJSONDepth - 1 levels or more (kQVLMaxJSONDepth or more in the answer).
class StreamedArray {
 public:
  StreamedArray(simdjson::ondemand::array& array, simdjson::dom::parser& elementParser)
      : array_(&array), elementParser_(&elementParser) {}
  NodeType type() const { return NodeType::Array; }
  std::size_t size() const { return 0; }  // not known before the walk
  /// True once simdjson refused an element: the walk stopped there, and the answer must go
  /// the nlohmann way.
  bool refused() const { return refused_; }
  template <class Each>
  void forEach(Each each) const {
    for (auto result : *array_) {
      simdjson::ondemand::value value;
      simdjson::ondemand::object object;
      std::string_view text;
      simdjson::dom::element root;
      // The element's text lies inside the padded answer, so it may be parsed in place.
      if (result.get(value) != simdjson::SUCCESS ||
          value.get_object().get(object) != simdjson::SUCCESS ||
          object.raw_json().get(text) != simdjson::SUCCESS ||
          elementParser_->parse(text.data(), text.size(), false).get(root) != simdjson::SUCCESS) {
        refused_ = true;
        return;
      }
      each(SimdNode(root));
    }
  }

 private:
  simdjson::ondemand::array* array_;
  simdjson::dom::parser* elementParser_;
  mutable bool refused_ = false;
};

// An answer parsed by simdjson, or nothing when simdjson refuses it: text nlohmann accepts
// and simdjson does not (integers beyond 64 bits, nesting at the limit) then goes the
// nlohmann way, which also decides what malformed text gives.
std::optional<simdjson::dom::element> parseFast(simdjson::dom::parser& parser,
                                                std::string_view text) {
  if (parser.allocate(text.size(), kQVLMaxJSONDepth) != simdjson::SUCCESS) return std::nullopt;
  simdjson::dom::element root;
  if (parser.parse(text.data(), text.size(), true).get(root) != simdjson::SUCCESS) {
    return std::nullopt;
  }
  return root;
}

}  // namespace

std::vector<std::shared_ptr<QVLApiModel>> qvl::detail::recordsToMerge(
    const QVLModelClass& cls, json&& array, std::vector<std::int64_t>* listedKeys) {
  qvl::detail::mappingPlan(cls);  // a class without a mapping raises whatever the answer
  MergeStores none(nullptr);
  return parseEach(cls, NlohmannNode::releasing(array), nullptr, none, nullptr, listedKeys,
                   logRejection);
}

namespace {

// The records of an answer's text: streamed when simdjson takes the whole of it, otherwise
// from nlohmann's document. `capacity` is what the text's buffer holds; with room for
// simdjson's padding the text is read in place. `done` runs once the text is no longer needed.
template <class Done>
Result<std::vector<std::shared_ptr<QVLApiModel>>> recordsToMergeFromText(
    const QVLModelClass& cls, std::string_view text, std::size_t capacity,
    std::vector<std::int64_t>* listedKeys, Done done) {
  qvl::detail::mappingPlan(cls);
  std::vector<std::string> rejections;  // logged only when the walk completes
  {
    simdjson::padded_string copy;
    simdjson::padded_string_view view(text.data(), text.size(), capacity);
    if (capacity < text.size() + simdjson::SIMDJSON_PADDING) {
      copy = simdjson::padded_string(text);
      view = copy;
    }
    simdjson::ondemand::parser parser;
    simdjson::ondemand::document document;
    simdjson::ondemand::array array;
    simdjson::dom::parser elementParser;
    // A text that is not an array gives no records, unless it nests too deep: nlohmann decides.
    if (parser.iterate(view).get(document) == simdjson::SUCCESS &&
        document.get_array().get(array) == simdjson::SUCCESS &&
        elementParser.allocate(4096, kQVLMaxJSONDepth - 1) == simdjson::SUCCESS) {
      MergeStores none(nullptr);
      const StreamedArray streamed(array, elementParser);
      auto records = parseEach(cls, streamed, nullptr, none, nullptr, listedKeys,
                               [&](std::string line) { rejections.push_back(line); });
      const char* trailing = nullptr;
      if (!streamed.refused() && document.current_location().get(trailing) != simdjson::SUCCESS) {
        done();
        for (const auto& line : rejections) logRejection(line);
        return records;
      }
    }
  }
  if (listedKeys) listedKeys->clear();
  Result<json> document = qvl::detail::readServiceJSON(text);
  done();
  if (!document) return document.failure();
  return qvl::detail::recordsToMerge(cls, std::move(*document), listedKeys);
}

}  // namespace

qvl::detail::Result<std::vector<std::shared_ptr<QVLApiModel>>> qvl::detail::recordsToMerge(
    const QVLModelClass& cls, std::string&& text, std::vector<std::int64_t>* listedKeys) {
  text.reserve(text.size() + simdjson::SIMDJSON_PADDING);
  return recordsToMergeFromText(cls, text, text.capacity(), listedKeys,
                                [&text] { std::string().swap(text); });
}

qvl::detail::Result<std::vector<std::shared_ptr<QVLApiModel>>> qvl::detail::recordsToMerge(
    const QVLModelClass& cls, const std::string& text, std::vector<std::int64_t>* listedKeys) {
  return recordsToMergeFromText(cls, text, text.capacity(), listedKeys, [] {});
}

qvl::detail::Result<std::shared_ptr<QVLApiModel>> qvl::detail::recordToMerge(
    const QVLModelClass& cls, const json& dictionary) {
  MergeStores none(nullptr);
  std::optional<NlohmannNode> node;
  if (dictionary.is_object()) node.emplace(dictionary);
  return parse(cls, node, nullptr, none);
}

qvl::detail::Result<std::shared_ptr<QVLApiModel>> qvl::detail::recordToMerge(
    const QVLModelClass& cls, std::string_view text) {
  simdjson::dom::parser parser;
  auto root = parseFast(parser, text);
  if (!root) {
    Result<json> document = qvl::detail::readServiceJSON(text);
    if (!document) return document.failure();
    return recordToMerge(cls, *document);
  }
  MergeStores none(nullptr);
  std::optional<SimdNode> node;
  if (root->is_object()) node.emplace(*root);
  return parse(cls, node, nullptr, none);
}

const QVLModelClass& QVLApiModel::modelClass() {
  static const QVLModelClass cls(
      QVLModelClass::Declaration("QVLApiModel", [] { return std::shared_ptr<qvl::Object>(); }));
  return cls;
}

namespace {

// The public calls' contract: a record, or QVLMappingError naming why there is none.
std::shared_ptr<QVLApiModel> recordOrThrow(Result<std::shared_ptr<QVLApiModel>> record) {
  if (!record) throw QVLMappingError(record.error());
  return std::move(*record);
}

}  // namespace

std::shared_ptr<QVLApiModel> qvl::detail::newObjectWithJSONDictionary(const QVLModelClass& cls,
                                                                      const json& dictionary,
                                                                      qvl::Store* realm) {
  MergeStores stores;
  return recordOrThrow(parse(cls, std::optional<NlohmannNode>(dictionary), realm, stores));
}

std::shared_ptr<QVLApiModel> qvl::detail::newObjectWithJSONDictionary(const QVLModelClass& cls,
                                                                      const json& dictionary) {
  qvl::detail::mappingPlan(cls);  // a class without a mapping raises before the store opens
  MergeStores stores(QVLRealm::realm());
  return recordOrThrow(
      parse(cls, std::optional<NlohmannNode>(dictionary), stores.defaultStore(), stores));
}

std::vector<std::shared_ptr<QVLApiModel>> qvl::detail::newObjectsWithJSONArray(
    const QVLModelClass& cls, const json& array, qvl::Store* realm,
    std::vector<QVLError>* rejected) {
  MergeStores stores;
  return parseEach(cls, NlohmannNode(array), realm, stores, rejected, nullptr, logRejection);
}

std::shared_ptr<QVLApiModel> QVLApiModel::newObjectWithJSONDictionary(const QVLModelClass& cls,
                                                                      const qvl::Json& dictionary,
                                                                      qvl::Store* realm) {
  return qvl::detail::newObjectWithJSONDictionary(cls, qvl::detail::nlohmannOf(dictionary), realm);
}

std::shared_ptr<QVLApiModel> QVLApiModel::newObjectWithJSONDictionary(const QVLModelClass& cls,
                                                                      const qvl::Json& dictionary) {
  return qvl::detail::newObjectWithJSONDictionary(cls, qvl::detail::nlohmannOf(dictionary));
}

std::vector<std::shared_ptr<QVLApiModel>> QVLApiModel::newObjectsWithJSONArray(
    const QVLModelClass& cls, const qvl::Json& array, std::vector<QVLError>* rejected) {
  qvl::detail::mappingPlan(cls);
  auto realm = QVLRealm::realm();
  return newObjectsWithJSONArray(cls, array, realm.get(), rejected);
}

std::vector<std::shared_ptr<QVLApiModel>> QVLApiModel::newObjectsWithJSONArray(
    const QVLModelClass& cls, const qvl::Json& array, qvl::Store* realm,
    std::vector<QVLError>* rejected) {
  return qvl::detail::newObjectsWithJSONArray(cls, qvl::detail::nlohmannOf(array), realm, rejected);
}

namespace {

std::string tooDeepText() {
  return "the JSON nests arrays and objects deeper than " + std::to_string(kQVLMaxJSONDepth) +
         " levels";
}

}  // namespace

qvl::detail::Result<json> qvl::detail::readServiceJSON(std::string_view data) {
  json result;
  if (parseBoundedJSON(data, result, false) == JsonParse::tooDeep) return Failure{tooDeepText()};
  return result;
}

json qvl::detail::parseJSONData(std::string_view data, bool allowExceptions) {
  json result;
  if (parseBoundedJSON(data, result, allowExceptions) == JsonParse::tooDeep) {
    throw QVLMappingError(tooDeepText());
  }
  return result;
}

// ---- record to JSON --------------------------------------------------------------------

qvl::Json QVLApiModel::toDictionary() const {
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
  return qvl::detail::fromNlohmann(std::move(out));
}
