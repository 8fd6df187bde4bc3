#pragma once
/// @file
/// The base of every service record and the one mechanism that maps JSON to records and back.

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quorvel/Export.h"
#include "quorvel/platform/Json.h"
#include "quorvel/platform/QVLError.h"
#include "quorvel/records/QVLRelationshipMapping.h"
#include "quorvel/store/Store.h"

/// Raised when a record class lacks a declaration the caller needs (apiResourcePlural,
/// apiResourceSingular, mapping): a programming error, never caught by the library.
/// what() is the reason; name() the exception name, e.g. "mapping not implemented on model".
class QVL_EXPORT QVLException : public std::logic_error {
 public:
  /// An exception named `name` whose what() is `reason`.
  QVLException(std::string name, std::string reason);
  /// Copies share the exception's texts and never throw; a move copies, so that the
  /// exception moved from keeps its texts.
  ///@{
  QVLException(const QVLException& other) = default;
  QVLException& operator=(const QVLException& other) = default;
  ///@}
  /// The exception name: which declaration is missing.
  const std::string& name() const;
  /// The reason, naming the class (same text as what()).
  const std::string& reason() const;

 private:
  struct Impl;
  std::shared_ptr<const Impl> impl_;
};

/// Service JSON with a value of the wrong kind for a record (text under a number, null
/// for a plain property, a scalar or null under a relation key, a non-object record), or
/// JSON nested deeper than kQVLMaxJSONDepth. The one record (or the whole answer, for
/// nesting) is rejected; what() names the class and the key.
class QVL_EXPORT QVLMappingError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class QVLModelClass;

namespace qvl::detail {
struct MappingPlan;
/// The class's mapping resolved to property indexes; built on first use, thread-safe.
const MappingPlan& mappingPlan(const QVLModelClass& cls);
}  // namespace qvl::detail

/// A record class: its store shape plus the service-facing declarations. Made once per
/// record type (a function-local static) and immutable afterwards, so safe on any thread.
class QVL_EXPORT QVLModelClass : public qvl::ObjectClass {
 public:
  /// What a record type declares. The property helpers take the index the record type's
  /// accessors use and check that it matches the declaration order.
  struct Declaration {
    /// A declaration with a name and factory and nothing else yet.
    Declaration(std::string className, Factory factory)
        : name(std::move(className)), factory(std::move(factory)) {}

    std::string name;        ///< The class name, e.g. "QVLPost"; also the store's class name.
    Factory factory;         ///< Makes an unmanaged instance of the record type.
    std::string primaryKey;  ///< The primary-key property (an Int); empty for none.
    /// In index order; filled by the property helpers below.
    std::vector<qvl::Property> properties;
    /// The service resources, e.g. "posts" and "post"; nullopt for a class the client does
    /// not request (asking for it then raises QVLException).
    ///@{
    std::optional<std::string> apiResourcePlural;
    std::optional<std::string> apiResourceSingular;
    ///@}
    /// JSON key path ("content.html") to property name.
    std::optional<std::vector<std::pair<std::string, std::string>>> mapping;
    /// The relations parsed from JSON; nullopt for none.
    std::optional<std::vector<QVLRelationshipMapping>> mappingRelationships;
    /// Properties that JSON never sets: create-or-update keeps their stored values.
    std::optional<std::vector<std::string>> protectedProperties;
    /// Text properties that keep service JSON: they also accept a JSON object or array,
    /// stored as its compact text. Every other text property rejects one.
    std::vector<std::string> jsonTextProperties;

    /// @name Property helpers
    /// Each appends one property and returns the declaration for chaining. `index` must
    /// equal the number of properties declared so far, else std::logic_error.
    ///@{

    /// A scalar property; String and Date properties are always optional.
    Declaration& property(int index, std::string propertyName, qvl::PropertyKind kind,
                          bool optional = false);
    /// A text property declared in jsonTextProperties too.
    Declaration& jsonText(int index, std::string propertyName);
    /// A to-one link to a record of `target`.
    Declaration& link(int index, std::string propertyName, qvl::ObjectClassRef target);
    /// A list of records of `target`.
    Declaration& list(int index, std::string propertyName, qvl::ObjectClassRef target);
    /// The inverse of `origin`'s list `originProperty`: the records whose list holds this one.
    Declaration& linkingObjects(int index, std::string propertyName, qvl::ObjectClassRef origin,
                                std::string originProperty);
    ///@}
  };

  /// Builds the class; throws std::invalid_argument as ObjectClass does. The mapping is
  /// checked on first use, not here.
  explicit QVLModelClass(Declaration declaration);
  ~QVLModelClass() override;

  ///@{
  /// Throw QVLException when the class did not declare them.
  const std::string& apiResourcePlural() const;
  const std::string& apiResourceSingular() const;
  const std::vector<std::pair<std::string, std::string>>& mapping() const;
  ///@}
  /// nullopt when the class declares none.
  const std::optional<std::vector<QVLRelationshipMapping>>& mappingRelationships() const;
  /// Properties JSON never sets; nullopt when the class declares none.
  const std::optional<std::vector<std::string>>& protectedProperties() const;

  /// The property's class name as the original runtime declared it ("NSDate",
  /// "NSString", "NSNumber<RLMInt>", "RLMArray<QVLPost>", ...), or nullopt for plain
  /// integers, doubles and booleans and for unknown names.
  std::optional<std::string> propertyTypeFromPropertyString(std::string_view name) const;

 private:
  friend const qvl::detail::MappingPlan& qvl::detail::mappingPlan(const QVLModelClass&);

  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

/// Lets a record type be named where the store wants a class reference.
template <class T>
const qvl::ObjectClass& qvlObjectClassOf() {
  return T::modelClass();
}

/// The base of every record. Carries no data of its own.
///
/// Records are reference objects (std::shared_ptr). Parsing makes unmanaged records that
/// the caller owns and stores with create-or-update (Store::addOrUpdate); the merge rules
/// below make that update keep what the JSON did not say.
class QVL_EXPORT QVLApiModel : public qvl::Object {
 public:
  /// The base class descriptor: no resources, no mapping (asking for them raises).
  static const QVLModelClass& modelClass();
  /// The record's class (every record's class is a QVLModelClass).
  const QVLModelClass& apiModelClass() const {
    return static_cast<const QVLModelClass&>(objectClass());
  }

  /// A new unmanaged record of cls from a JSON object, merged with its stored twin in
  /// realm (may be null: no twin). Keys absent from the JSON, absent relations and
  /// protected properties take the twin's values; JSON null clears a value; an empty
  /// array empties a list. A nested to-one record is made and merged the same way against
  /// the same handle; the elements of a nested list against the calling thread's default
  /// store (QVLRealm::realm()). A JSON null dictionary behaves as an empty one. Runs on the
  /// caller's thread (realm must belong to it).
  /// The omitted and protected properties of a record with a key are also marked to keep
  /// their stored value (qvl::Object::keepStoredValue), so that create-or-update merges
  /// again with the record as stored when it writes, and never writes back a stale copy.
  /// Throws QVLMappingError for a value of the wrong kind, QVLException for a class
  /// without a mapping.
  static std::shared_ptr<QVLApiModel> newObjectWithJSONDictionary(const QVLModelClass& cls,
                                                                  const qvl::Json& dictionary,
                                                                  qvl::Store* realm);
  /// The same against the calling thread's default store (QVLRealm::realm()).
  static std::shared_ptr<QVLApiModel> newObjectWithJSONDictionary(const QVLModelClass& cls,
                                                                  const qvl::Json& dictionary);
  /// One record per element, in order, against the default store. A rejected element
  /// (wrong kind) is left out, logged as "QuorvelSDK: Rejected <class> record: <reason>"
  /// and, when rejected is given, appended to it as a QVLMappingErrorDomain error. A value
  /// that is not an array gives an empty list.
  static std::vector<std::shared_ptr<QVLApiModel>> newObjectsWithJSONArray(
      const QVLModelClass& cls, const qvl::Json& array, std::vector<QVLError>* rejected = nullptr);
  /// The same against a given handle (may be null).
  static std::vector<std::shared_ptr<QVLApiModel>> newObjectsWithJSONArray(
      const QVLModelClass& cls, const qvl::Json& array, qvl::Store* realm,
      std::vector<QVLError>* rejected);

  /// The record as a flat JSON object: mapped values under their key paths taken
  /// literally ("urls.original"), dates as service text, to-one relations as the related
  /// record's primary key under the relation key; absent values and lists left out.
  qvl::Json toDictionary() const;
  /// A JSON array of toDictionary() of each record, in order (records are pointers).
  template <class Range>
  static qvl::Json arrayOfDictionariesFromObjects(const Range& records) {
    qvl::Json out = qvl::Json::array();
    for (const auto& record : records) out.append(record->toDictionary());
    return out;
  }

  /// QVLModelClass::propertyTypeFromPropertyString() of cls.
  static std::optional<std::string> propertyTypeFromPropertyString(const QVLModelClass& cls,
                                                                   std::string_view name) {
    return cls.propertyTypeFromPropertyString(name);
  }

 protected:
  /// An unmanaged record of cls; record types pass their own class.
  explicit QVLApiModel(const QVLModelClass& cls) : qvl::Object(cls) {}

  /// The list property `index` as a typed handle. A list handle reads and writes the
  /// record's list (in the store when managed), so it is available from const records too.
  template <class T>
  qvl::List<T> listOf(int index) const {
    return qvl::List<T>(std::const_pointer_cast<qvl::Object>(shared_from_this()), index);
  }
};

/// Typed front for a record type T: the class operations with T's class filled in.
template <class T>
class QVL_EXPORT QVLModel : public QVLApiModel {
 public:
  /// @name Parsing, as QVLApiModel's, typed
  ///@{

  /// The QVLApiModel operation of the same name with T's class; same rules and errors.
  static std::shared_ptr<T> newObjectWithJSONDictionary(const qvl::Json& dictionary,
                                                        qvl::Store* realm) {
    return std::static_pointer_cast<T>(
        QVLApiModel::newObjectWithJSONDictionary(T::modelClass(), dictionary, realm));
  }
  /// The same against the calling thread's default store.
  static std::shared_ptr<T> newObjectWithJSONDictionary(const qvl::Json& dictionary) {
    return std::static_pointer_cast<T>(
        QVLApiModel::newObjectWithJSONDictionary(T::modelClass(), dictionary));
  }
  /// One record per accepted element, in order; rejected elements as in QVLApiModel.
  static std::vector<std::shared_ptr<T>> newObjectsWithJSONArray(
      const qvl::Json& array, std::vector<QVLError>* rejected = nullptr) {
    std::vector<std::shared_ptr<T>> out;
    for (auto& r : QVLApiModel::newObjectsWithJSONArray(T::modelClass(), array, rejected)) {
      out.push_back(std::static_pointer_cast<T>(r));
    }
    return out;
  }
  ///@}
  /// @name Class declarations
  ///@{

  /// The name of T's primary-key property; empty for none.
  static const std::string& primaryKey() { return T::modelClass().primaryKey(); }
  /// T's plural resource; QVLException when T declares none.
  static const std::string& apiResourcePlural() { return T::modelClass().apiResourcePlural(); }
  /// T's singular resource; QVLException when T declares none.
  static const std::string& apiResourceSingular() { return T::modelClass().apiResourceSingular(); }
  ///@}
  /// @name Store queries
  ///@{

  /// Every record of T in `realm` (Store::objects<T>()); same thread rules and errors.
  static qvl::Results<T> allObjectsInRealm(qvl::Store& realm) { return realm.objects<T>(); }
  /// The records of T in `realm` matching `predicate`, as live results.
  static qvl::Results<T> objectsInRealm(qvl::Store& realm, const qvl::Predicate& predicate) {
    return realm.objects<T>(predicate);
  }
  /// The record of T with that primary key in `realm` (Store::object<T>()), or null.
  static std::shared_ptr<T> objectInRealm(qvl::Store& realm, std::optional<std::int64_t> key) {
    return realm.object<T>(key);
  }
  ///@}

 protected:
  /// An unmanaged record of T's class.
  QVLModel() : QVLApiModel(T::modelClass()) {}
};
