#include "quorvel/records/QVLApiModel.h"

#include <gtest/gtest.h>

#include "Models/RecordTestSupport.h"
#include "quorvel/records/QVLDateFormatter.h"
#include "quorvel/records/QVLGuest.h"
#include "quorvel/records/QVLPost.h"
#include "records/QVLMappingPlan.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace {

using json = qvl::Json;
using qvl::PropertyKind;

class Part : public QVLModel<Part> {
 public:
  enum Property { kPartId, kTitle, kCount };
  static const QVLModelClass& modelClass() {
    static const QVLModelClass cls = [] {
      QVLModelClass::Declaration d("Part", [] { return std::make_shared<Part>(); });
      d.primaryKey = "partId";
      d.property(kPartId, "partId", PropertyKind::Int, true)
          .property(kTitle, "title", PropertyKind::String)
          .property(kCount, "count", PropertyKind::Int, true);
      d.apiResourcePlural = "parts";
      d.apiResourceSingular = "part";
      d.mapping = {{{"id", d.primaryKey}, {"title", "title"}, {"count", "count"}}};
      return QVLModelClass(std::move(d));
    }();
    return cls;
  }
  std::optional<std::string> title() const { return stringValue(kTitle); }
  std::optional<std::int64_t> count() const { return optionalInt(kCount); }
};

class Thing : public QVLModel<Thing> {
 public:
  enum Property {
    kThingId,
    kName,
    kHtml,
    kAmount,
    kRatio,
    kFlag,
    kWhen,
    kLocalMark,
    kCover,
    kParts,
    kKept,
  };
  static const QVLModelClass& modelClass() {
    static const QVLModelClass cls = [] {
      QVLModelClass::Declaration d("Thing", [] { return std::make_shared<Thing>(); });
      d.primaryKey = "thingId";
      d.property(kThingId, "thingId", PropertyKind::Int, true)
          .property(kName, "name", PropertyKind::String)
          .property(kHtml, "html", PropertyKind::String)
          .property(kAmount, "amount", PropertyKind::Int, true)
          .property(kRatio, "ratio", PropertyKind::Double)
          .property(kFlag, "flag", PropertyKind::Bool)
          .property(kWhen, "when", PropertyKind::Date)
          .property(kLocalMark, "localMark", PropertyKind::Bool)
          .link(kCover, "cover", &qvlObjectClassOf<Part>)
          .list(kParts, "parts", &qvlObjectClassOf<Part>)
          .list(kKept, "kept", &qvlObjectClassOf<Part>);
      d.apiResourcePlural = "things";
      d.apiResourceSingular = "thing";
      d.mapping = {{{"id", d.primaryKey},
                    {"name", "name"},
                    {"content.html", "html"},
                    {"amount", "amount"},
                    {"ratio", "ratio"},
                    {"flag", "flag"},
                    {"when", "when"}}};
      d.mappingRelationships = {{
          QVLRelationshipMapping::newToOneRelationWithKey("cover", "cover_id", &Part::modelClass),
          QVLRelationshipMapping::newToManyRelationWithJsonKey("pieces", "parts",
                                                               &Part::modelClass),
      }};
      d.protectedProperties = {{"localMark", "kept"}};
      return QVLModelClass(std::move(d));
    }();
    return cls;
  }
  std::optional<std::string> name() const { return stringValue(kName); }
  std::optional<std::string> html() const { return stringValue(kHtml); }
  std::optional<std::int64_t> amount() const { return optionalInt(kAmount); }
  bool localMark() const { return boolValue(kLocalMark); }
  std::shared_ptr<Part> cover() const { return linkAs<Part>(kCover); }
  qvl::List<Part> parts() { return qvl::List<Part>(shared_from_this(), kParts); }
};

class Bare : public QVLModel<Bare> {
 public:
  static const QVLModelClass& modelClass() {
    static const QVLModelClass cls(
        QVLModelClass::Declaration("Bare", [] { return std::make_shared<Bare>(); }));
    return cls;
  }
};

class MappingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qvl::StoreConfiguration c;
    c.path = dir.file("mapping.store");
    c.schemaVersion = 1;
    c.classes = {&qvlObjectClassOf<Thing>, &qvlObjectClassOf<Part>};
    store = qvl::Store::open(c);
  }
  void TearDown() override {
    store.reset();
    qvl::Store::closeThreadHandles();
  }
  // Parses against the store and writes the result, as the service client does.
  std::shared_ptr<Thing> merge(const json& j) {
    auto parsed = Thing::newObjectWithJSONDictionary(j, store.get());
    std::shared_ptr<Thing> stored;
    store->write([&] { stored = store->addOrUpdate(parsed); });
    return stored;
  }

  qvl::test::TempDir dir;
  std::shared_ptr<qvl::Store> store;
};

const json kFull = {
    {"id", 1},
    {"name", "full"},
    {"content", {{"html", "<p>hi</p>"}}},
    {"amount", 5},
    {"ratio", 0.5},
    {"flag", true},
    {"when", "2016-01-31T23:59:59+0100"},
    {"cover", {{"id", 10}, {"title", "cover"}, {"count", 3}}},
    {"pieces", {{{"id", 20}, {"title", "a"}}, {{"id", 21}, {"title", "b"}}}},
};

TEST_F(MappingTest, OmittedKeysKeepStoredValuesAndNullsOrEmptyArraysClearThem) {
  merge(kFull);
  auto stored = merge({{"id", 1}, {"amount", nullptr}, {"content", {{"other", 1}}}});
  EXPECT_EQ(stored->name(), "full");          // omitted: kept
  EXPECT_EQ(stored->html(), "<p>hi</p>");     // nested path member omitted: kept
  EXPECT_EQ(stored->amount(), std::nullopt);  // null: cleared
  EXPECT_EQ(stored->cover()->title(), "cover");
  EXPECT_EQ(stored->parts().size(), 2u);

  stored = merge({{"id", 1}, {"content", nullptr}});
  EXPECT_EQ(stored->html(), std::nullopt);  // a null on the way clears the value
  EXPECT_EQ(stored->parts().size(), 2u);
  stored = merge({{"id", 1}, {"pieces", json::array()}});  // an empty array empties the list
  EXPECT_EQ(stored->parts().size(), 0u);
  EXPECT_EQ(store->objects<Part>().size(), 3u);  // the records themselves stay
}

TEST_F(MappingTest, AnExistingNestedRecordIsMergedByTheSameRules) {
  merge(kFull);
  // The nested cover omits "count" and nulls "title".
  auto stored = merge({{"id", 1}, {"cover", {{"id", 10}, {"title", nullptr}}}});
  EXPECT_EQ(stored->cover()->count(), 3);
  EXPECT_EQ(stored->cover()->title(), std::nullopt);
  // A nested list element that exists keeps what its JSON omits too.
  stored = merge({{"id", 1}, {"pieces", {{{"id", 10}}}}});
  ASSERT_EQ(stored->parts().size(), 1u);
  EXPECT_EQ(stored->parts().at(0)->count(), 3);
}

TEST_F(MappingTest, RecordsWithoutIdOrWithoutDictionaryGetNoTwin) {
  merge(kFull);
  auto noId = Thing::newObjectWithJSONDictionary({{"name", "x"}}, store.get());
  EXPECT_EQ(noId->primaryKeyValue(), std::nullopt);
  EXPECT_EQ(noId->amount(), std::nullopt);
  EXPECT_FALSE(noId->localMark());
  auto absent = Thing::newObjectWithJSONDictionary(json(), store.get());
  EXPECT_EQ(absent->primaryKeyValue(), std::nullopt);
  EXPECT_EQ(absent->name(), std::nullopt);
}

TEST_F(MappingTest, ToDictionaryWritesFlatKeysRelationKeysAndServiceDates) {
  auto parsed = Thing::newObjectWithJSONDictionary(kFull, store.get());
  EXPECT_EQ(parsed->toDictionary(), (json{{"id", 1},
                                          {"name", "full"},
                                          {"content.html", "<p>hi</p>"},
                                          {"amount", 5},
                                          {"ratio", 0.5},
                                          {"flag", true},
                                          {"when", "2016-01-31T22:59:59+0000"},
                                          {"cover_id", 10}}));
  auto sparse = Thing::newObjectWithJSONDictionary({{"id", 2}}, nullptr);
  EXPECT_EQ(sparse->toDictionary(), (json{{"id", 2}, {"ratio", 0.0}, {"flag", false}}));
  auto list = QVLApiModel::arrayOfDictionariesFromObjects(std::vector{parsed, sparse});
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list.at(1).value().at("id"), 2);
}

TEST_F(MappingTest, MissingDeclarationsRaiseNamedExceptions) {
  auto expectRaise = [](auto call, const std::string& name, const std::string& reason) {
    try {
      call();
      ADD_FAILURE() << "no exception for " << name;
    } catch (const QVLException& e) {
      EXPECT_EQ(e.name(), name);
      EXPECT_EQ(e.reason(), reason);
    }
  };
  expectRaise([] { QVLApiModel::modelClass().mapping(); }, "mapping not implemented on model",
              "You have not implemented the mapping method on QVLApiModel");
  expectRaise([] { Bare::apiResourcePlural(); }, "apiResource plural not implemented on model",
              "You have not implemented the apiResource plural method on Bare");
  expectRaise([] { Bare::apiResourceSingular(); }, "apiResource singular not implemented on model",
              "You have not implemented the apiResource singular method on Bare");
  expectRaise([&] { Bare::newObjectWithJSONDictionary(json::object(), store.get()); },
              "mapping not implemented on model",
              "You have not implemented the mapping method on Bare");
  EXPECT_EQ(Bare::modelClass().mappingRelationships(), std::nullopt);
  EXPECT_EQ(Bare::modelClass().protectedProperties(), std::nullopt);
}

TEST_F(MappingTest, ValuesOfTheWrongKindRejectTheRecord) {
  const std::vector<json> bad = {
      {{"id", 1}, {"amount", "five"}},            // text under a number
      {{"id", 1}, {"flag", nullptr}},             // null for a plain property
      {{"id", 1}, {"name", 5}},                   // number under text
      {{"id", 1}, {"name", json::array({"a"})}},  // a structure under text that keeps none
      {{"id", 1}, {"cover", 10}},                 // scalar under a to-one relation
      {{"id", 1}, {"cover", nullptr}},            // null under a to-one relation
      {{"id", 1}, {"pieces", {{"id", 2}}}},       // object under a to-many relation
      {{"id", 1}, {"pieces", {1, 2}}},            // scalars in a to-many array
      {{"id", 1}, {"content", "flat text"}},      // a key path through a scalar
      {{"id", 1}, {"when", 12}},                  // a number under a date
      {{"id", "1"}},                              // text primary key
      json::array(),                              // not an object at all
  };
  for (const auto& j : bad) {
    EXPECT_THROW(Thing::newObjectWithJSONDictionary(j, store.get()), QVLMappingError) << j.dump();
  }
  // Unparseable date text is not an error: the date is absent.
  auto parsed = Thing::newObjectWithJSONDictionary({{"id", 1}, {"when", "yesterday"}}, nullptr);
  EXPECT_TRUE(qvl::isNull(parsed->value(Thing::kWhen)));
}

TEST_F(MappingTest, ArrayParsingDropsOnlyTheRejectedRecordAndSaysWhy) {
  qvl::test::LogCapture log;
  std::vector<QVLError> rejected;
  json array = {{{"id", 1}}, {{"id", 2}, {"amount", "x"}}, 7, {{"id", 3}}};
  auto records =
      QVLApiModel::newObjectsWithJSONArray(Thing::modelClass(), array, store.get(), &rejected);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0]->primaryKeyValue(), 1);
  EXPECT_EQ(records[1]->primaryKeyValue(), 3);
  ASSERT_EQ(rejected.size(), 2u);
  EXPECT_EQ(rejected[0].domain, kQVLMappingErrorDomain);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].rfind("QuorvelSDK: Rejected Thing record: ", 0), 0u) << lines[0];
  EXPECT_TRUE(QVLApiModel::newObjectsWithJSONArray(Thing::modelClass(), json::object(), store.get(),
                                                   nullptr)
                  .empty());
}

// Code that prints or copies JSON recurses once per level: hostile nesting is refused
// before anything recurses over it, in service bytes and in documents handed to the mapping.
TEST(DeepJsonTest, NestingBeyondTheLimitIsRejectedNotRecursedOver) {
  auto nested = [](int depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_TRUE(qvl::detail::parseJSONData(nested(kQVLMaxJSONDepth)).is_array());
  EXPECT_THROW(qvl::detail::parseJSONData(nested(kQVLMaxJSONDepth + 1)), QVLMappingError);
  EXPECT_THROW(qvl::detail::parseJSONData(R"({"parameters":)" + nested(100000) + "}"),
               QVLMappingError);
  EXPECT_TRUE(qvl::detail::parseJSONData("[1,").is_discarded());

  // A host can build deeper documents than parse() accepts, one level at a time.
  auto built = [](int depth) {
    json value = json::array();
    while (--depth > 0) {
      json outer = json::array();
      outer.append(std::move(value));
      value = std::move(outer);
    }
    return value;
  };
  json post = {{"id", 1}};
  post.set("parameters", built(kQVLMaxJSONDepth));
  EXPECT_EQ(QVLPost::newObjectWithJSONDictionary(post, nullptr)->parametersJSON(),
            nested(kQVLMaxJSONDepth));
  post.set("parameters", built(100000));
  EXPECT_THROW(QVLPost::newObjectWithJSONDictionary(post, nullptr), QVLMappingError);
}

TEST(RecordClassTest, PropertyTypesNameTheirDeclaredKinds) {
  const std::pair<const char*, std::optional<std::string>> types[] = {
      {"when", "NSDate"},          {"name", "NSString"}, {"amount", "NSNumber<RLMInt>"},
      {"parts", "RLMArray<Part>"}, {"cover", "Part"},    {"flag", std::nullopt},
      {"unknown", std::nullopt}};
  for (const auto& [name, type] : types) {
    EXPECT_EQ(Thing::modelClass().propertyTypeFromPropertyString(name), type) << name;
  }
}

class DefaultStoreMergeTest : public records_test::RecordStoreTest {};

TEST_F(DefaultStoreMergeTest, NestedListElementsMergeWithTheDefaultStoreNotTheHandleGiven) {
  store(QVLGuest::newObjectWithJSONDictionary(
      {{"id", 1}, {"actions", {{{"id", 10}, {"pretty_name", "Visit"}, {"value", 5}}}}},
      store_.get()));
  qvl::StoreConfiguration otherFile = QVLRealm::configuration();
  otherFile.path = directory_.file("other.realm");
  auto other = qvl::Store::open(otherFile);

  auto parsed = QVLGuest::newObjectWithJSONDictionary(
      {{"id", 1}, {"actions", {{{"id", 10}, {"value", 6}}}}}, other.get());
  ASSERT_EQ(parsed->actions().size(), 1u);
  EXPECT_EQ(parsed->actions()[0]->name(), "Visit");
  EXPECT_EQ(parsed->actions()[0]->value(), 6);
}

}  // namespace
