#include "quorvel/networking/QVLApiClient.h"
#include "support/ScopedContext.h"

#include <curl/curl.h>

#include <chrono>
#include <functional>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Models/RecordTestSupport.h"
#include "devserver/HttpsServer.h"
#include "quorvel/networking/PinValidator.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/UserDefaults.h"
#include "quorvel/records/QVLGuest.h"
#include "quorvel/records/QVLPost.h"
#include "quorvel/records/QVLPostView.h"
#include "quorvel/records/QVLRealm.h"
#include "quorvel/records/QVLRedemption.h"
#include "quorvel/records/QVLShop.h"
#include "quorvel/records/QVLToken.h"
#include "support/LogCapture.h"
#include "support/ManualExecutor.h"
#include "support/RecordingTransport.h"
#include "support/RunDataTask.h"
#include "support/TempDir.h"
#include "support/TestCertificates.h"

// Readable failure messages for errors (found by argument-dependent lookup).
static void PrintTo(const QVLError& error, std::ostream* os) {
  *os << "{" << error.domain << ", " << error.code << ", "
      << (error.userInfo ? error.userInfo->dump() : "no user info") << "}";
}

namespace {

using namespace std::chrono_literals;
using json = qvl::Json;
using qvl::test::TestCertificates;
using qvl::test::TransportAnswer;
using records_test::save;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;
using LimitFields = QVLApiClient::LimitFields;
using Keys = std::vector<std::int64_t>;

constexpr auto kWait = 20s;
constexpr const char* kMissingKeyLine =
    "QuorvelSDK: No valid ApiKey provided. Add your key in your Info.plist";
constexpr const char* kUnsetEnvironmentLine =
    "QuorvelSDK: No valid ApiEnvironment key provided - using dev environment";
const std::string kBase = "https://dev.example.test/v8";
const json kBundleInfo = {{"CFBundleIdentifier", "com.example.host"},
                          {"CFBundleShortVersionString", "2.4.1"},
                          {"QuorvelSDK", {{"ApiKey", "test-api-key"}}}};

QVLApiClient& client() { return QVLApiClient::sharedClient(); }

// What one completion received, and how often it ran.
struct Outcome {
  int calls = 0;
  bool result = false;  // records, a record, or no error for completions without records
  bool managed = false;
  Keys keys;
  std::optional<QVLError> error;
};

QVLApiClient::ListCompletion list(Outcome& out) {
  return [&out](std::optional<qvl::AnyResults> records, std::optional<QVLError> error) {
    ++out.calls;
    out.result = records.has_value();
    if (records) {
      for (const auto& r : records->snapshot())
        out.keys.push_back(r->primaryKeyValue().value_or(-1));
    }
    out.error = std::move(error);
  };
}

QVLApiClient::ObjectCompletion object(Outcome& out) {
  return [&out](std::shared_ptr<QVLApiModel> record, std::optional<QVLError> error) {
    ++out.calls;
    out.result = record != nullptr;
    out.managed = record && record->isManaged();
    if (record) out.keys.push_back(record->primaryKeyValue().value_or(-1));
    out.error = std::move(error);
  };
}

QVLApiClient::ErrorCompletion done(Outcome& out) {
  return [&out](std::optional<QVLError> error) {
    ++out.calls;
    out.result = !error;
    out.error = std::move(error);
  };
}

std::shared_ptr<QVLPost> makePost(std::int64_t id, std::string name, bool read = false,
                                  bool saved = false) {
  auto post = std::make_shared<QVLPost>();
  post->setPostId(id);
  post->setName(std::move(name));
  post->setRead(read);
  post->setSaved(saved);
  return post;
}

std::shared_ptr<QVLShop> makeShop(std::int64_t id, std::string name) {
  auto shop = std::make_shared<QVLShop>();
  shop->setShopId(id);
  shop->setName(std::move(name));
  return shop;
}

// The client's logic over a recording transport; completions run when the test runs the
// manual executor, on the test's thread.
class QVLApiClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    client().setEnvironment(QVLApiEnvironmentDev);
    log_.clear();
  }
  void TearDown() override {
    executor_->runUntilIdle();
    qvl::Store::closeThreadHandles();
  }

  void respond(TransportAnswer answer) {
    transport_->setAnswer([answer](const qvl::HttpRequest&) { return answer; });
  }
  void respond(long status, std::string body) { respond(TransportAnswer{status, std::move(body)}); }

  // Starts an operation and runs the queues; it must call back exactly once, not before
  // returning.
  Outcome run(const std::function<void(Outcome&)>& start) {
    Outcome out;
    start(out);
    EXPECT_EQ(out.calls, 0) << "called back before returning";
    executor_->runUntilIdle();
    EXPECT_EQ(out.calls, 1);
    return out;
  }

  qvl::HttpRequest lastRequest() const {
    auto requests = transport_->requests();
    return requests.empty() ? qvl::HttpRequest{} : requests.back();
  }

  static Keys storedKeys(const QVLModelClass& cls) {
    return records_test::sortedKeysOf(QVLRealm::realm()->objects(cls).snapshot());
  }

  template <class T>
  static std::shared_ptr<T> stored(std::int64_t key) {
    return QVLRealm::realm()->object<T>(key);
  }

  qvl::test::TempDir directory_;
  std::shared_ptr<qvl::test::RecordingTransport> transport_ =
      std::make_shared<qvl::test::RecordingTransport>();
  std::shared_ptr<qvl::test::ManualExecutor> executor_ =
      std::make_shared<qvl::test::ManualExecutor>();
  qvl::test::ScopedContext env_{[this](qvl::Env& env) {
    env.transport = transport_;
    env.executor = executor_;
    env.userDefaultsPath = directory_.file("host.defaults");
    env.storeDirectory = directory_.file("store");
    env.bundleInfo = kBundleInfo;
    env.apiDomain = "example.test";
    env.publicKeyHashes = {TestCertificates::leaf().pin};
    env.pinValidator = std::make_shared<qvl::PinValidator>();
  }};
  qvl::test::LogCapture log_;
};

const auto redeemOne = [](Outcome& o) { client().redeemPrize(1, done(o)); };

TEST_F(QVLApiClientTest, HeadersFollowTheBundleInformationAndTheTokenOfEachRequest) {
  auto headers = [](const char* version, const char* key, std::optional<std::string> token) {
    qvl::HttpHeaders h = {{"Content-Type", "application/json"},
                          {"Accept", "application/json"},
                          {"X-App-Version-Code", version}};
    if (key) h.emplace_back("X-Api-Key", key);
    if (token) h.emplace_back("Authorization", "Bearer " + token.value());
    return h;
  };
  const json noKey = {{"CFBundleShortVersionString", "2.4.1"}, {"QuorvelSDK", {{"Badge", true}}}};
  struct Row {
    json info;
    const char* token;  // saved before the request, or none
    const char* version;
    const char* key;  // a missing key is logged once per request
  };
  const std::vector<Row> rows = {
      {kBundleInfo, nullptr, "2.4.1", "test-api-key"},
      {noKey, nullptr, "2.4.1", nullptr},
      {{{"QuorvelSDK", "test-api-key"}}, nullptr, "N/A", nullptr},
      {json::object(), "abc", "N/A", nullptr},
      {kBundleInfo, "second.jwt", "2.4.1", "test-api-key"},
  };
  auto configuration = std::make_shared<qvl::HttpSessionConfiguration>();
  configuration->timeoutIntervalForRequest = 1s;
  configuration->additionalHeaders = {{"X-Replaced", "yes"}};
  for (size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(i);
    const auto& row = rows[i];
    qvl::test::ScopedContext scope([&](qvl::Env& env) {
      env.httpSessionConfiguration = configuration;
      env.bundleInfo = row.info;
      env.userDefaultsPath = directory_.file("row" + std::to_string(i) + ".defaults");
    });
    if (row.token) {
      ASSERT_TRUE(QVLToken::initWithContent(row.token)->saveToken());
    }
    EXPECT_EQ(client().urlSession()->configuration().timeoutIntervalForRequest, 1s);
    log_.clear();
    run(redeemOne);
    EXPECT_EQ(lastRequest().headers,
              headers(row.version, row.key,
                      row.token ? std::optional<std::string>(row.token) : std::nullopt));
    EXPECT_EQ(log_.count(kMissingKeyLine), row.key ? 0u : 1u);
  }
  // A token saved here is on disk at once and sent from the next request on.
  ASSERT_TRUE(QVLToken::initWithContent(std::nullopt)->saveToken());
  EXPECT_TRUE(qvl::UserDefaults(directory_.file("host.defaults")).data(QVLToken::kDefaultsKey));
  run(redeemOne);
  EXPECT_EQ(lastRequest().headers, headers("2.4.1", "test-api-key", "(null)"));
}

TEST_F(QVLApiClientTest, EnvironmentSelectsTheServiceHostAndPinsItsDomain) {
  qvl::test::ScopedContext scope([](qvl::Env& env) {
    env.apiDomain = "example.test:8443";
    env.publicKeyHashes = {"pin-a", "pin-b"};
  });
  auto& validator = qvl::PinValidator::shared();
  const std::vector<std::pair<int, std::string>> rows = {{QVLApiEnvironmentUnset, "dev"},
                                                         {QVLApiEnvironmentApi, "api"},
                                                         {QVLApiEnvironmentDev, "dev"},
                                                         {QVLApiEnvironmentPlay, "play"},
                                                         {7, "(null)"},
                                                         {-1, "(null)"}};
  for (const auto& [value, subdomain] : rows) {
    SCOPED_TRACE(value);
    validator.configure({});
    client().setEnvironment(static_cast<QVLApiEnvironment>(value));
    log_.clear();
    const std::string base = "https://" + subdomain + ".example.test:8443";
    EXPECT_EQ(client().baseURL(), base);
    EXPECT_EQ(client().baseURLV8(), base + "/v8");
    run(redeemOne);
    EXPECT_EQ(lastRequest().url, base + "/v8/redemptions");
    // The unset environment warns on every base URL asked for, the others never.
    if (value == QVLApiEnvironmentUnset) {
      EXPECT_GE(log_.count(kUnsetEnvironmentLine), 3u);
      continue;
    }
    EXPECT_EQ(log_.count(kUnsetEnvironmentLine), 0u);
    ASSERT_EQ(validator.configuration()->pinnedDomains.size(), 1u);
    const auto pinned = validator.configuration()->pinnedDomains[0];
    EXPECT_EQ(pinned.domain, "example.test");
    EXPECT_TRUE(pinned.includeSubdomains);
    EXPECT_THAT(pinned.reportUris, ElementsAre(base + "/ssl-reporting"));
    EXPECT_THAT(pinned.publicKeyHashes, ElementsAre("pin-a", "pin-b"));
  }
  // The same value again changes nothing, not even a configuration replaced meanwhile.
  validator.configure({});
  client().setEnvironment(static_cast<QVLApiEnvironment>(-1));
  EXPECT_THAT(validator.configuration()->pinnedDomains, IsEmpty());
}

TEST_F(QVLApiClientTest, GetUrlsCarryTheQueryLiterallyButWhatAUrlCannotHold) {
  const std::vector<std::pair<qvl::HttpRequest, std::string>> rows = {
      {client().apiGetRequest("shops", {}, {}, {}, LimitFields{{"shops", "name"}}),
       "/shops?fields[shops]=name"},
      {client().apiGetRequest("posts", {}, {}, "postperiods,postfields",
                              LimitFields{{"posts", "name,content"}, {"postperiods", "start"}}),
       "/posts?include=postperiods,postfields&fields[posts]=name,content&fields[postperiods]="
       "start"},
      {client().apiGetRequest("posts", {}, {}, "a b#c%", {}), "/posts?include=a%20b%23c%25"},
      {client().apiGetRequest("shops", 0, {}, {}, {}), "/shops/0"},
      {client().apiGetRequest("shops", {}, "beacons", {}, {}), "/shops/relationships/beacons"},
  };
  for (const auto& [request, path] : rows) {
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.url, kBase + path);
  }
}

TEST_F(QVLApiClientTest, OnlyA2xxStatusSucceedsAndOtherAnswersBecomeServiceErrors) {
  const json invalid = {{"errors", {{"prize_id", {"is not redeemable"}}}}};
  struct Row {
    long status;
    bool succeeds;
    std::string body;
    std::optional<json> userInfo;
  };
  const std::vector<Row> rows = {
      {199, false, "{}", json::object()},
      {200, true, "{not json", {}},
      {204, true, "", {}},
      {299, true, "", {}},
      {300, false, "", {}},
      {302, false, "[1]", json::array({1})},
      {422, false, invalid.dump(), invalid},
      {500, false, "<html>Internal error</html>", {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.status);
    respond(row.status, row.body);
    const auto error = run(redeemOne).error;
    if (row.succeeds) {
      EXPECT_EQ(error, std::nullopt);
    } else {
      EXPECT_EQ(error, (QVLError{kQVLApiClientErrorDomain, row.status, row.userInfo}));
    }
  }
}

TEST_F(QVLApiClientTest, EveryOperationSendsItsRequestAndCallsBackOnceWithTheOutcome) {
  auto guest = std::make_shared<QVLGuest>();
  guest->setGuestId(21);
  guest->posts().append(makePost(5, "five", /*read=*/true, /*saved=*/false));
  guest->posts().append(makePost(6, "six", /*read=*/false, /*saved=*/true));
  guest->shops().append(makeShop(3, "three"));
  guest->shops().append(makeShop(4, "four"));
  auto bare = std::make_shared<QVLGuest>();
  bare->setGuestId(22);
  auto owner = save(guest, bare);
  auto empty = stored<QVLGuest>(22);
  auto view = [](std::int64_t post) {
    auto v = std::make_shared<QVLPostView>();
    v->setPostViewId(77);  // local only
    v->setGuestId(21);
    v->setPostId(post);
    return v;
  };
  auto shop = std::make_shared<QVLShop>();
  shop->setName("New shop");
  const auto& shops = QVLShop::modelClass();
  const auto& posts = QVLPost::modelClass();
  const auto& guests = QVLGuest::modelClass();
  struct Row {
    std::function<void(Outcome&)> start;
    const char* answer;  // a successful one
    const char* method;
    std::string path;
    const char* body;
  };
  const std::vector<Row> rows = {
      {[&](Outcome& o) {
         client().getObjectsRelatedTo(posts, guests, 12, "shop",
                                      LimitFields{{"posts", "title,message"}}, list(o));
       },
       R"([{"id":1}])", "GET",
       "/guests/12/relationships/posts?include=shop&fields[posts]=title,message", ""},
      {[&](Outcome& o) { client().getObject(shops, 1, {}, {}, object(o)); }, R"({"id":1})", "GET",
       "/shops/1", ""},
      {[&](Outcome& o) { client().getObjectRelatedTo(shops, guests, 12, {}, {}, object(o)); },
       R"({"id":1})", "GET", "/guests/12/relationships/shop", ""},
      {[&](Outcome& o) { client().postAndSaveObject(shop, object(o)); }, R"({"id":5})", "POST",
       "/shops", R"({"name":"New shop","cnc_enabled":false})"},
      {[&](Outcome& o) { client().postObject(view(5), done(o)); }, "created", "POST", "/postviews",
       R"({"guest_id":21,"post_id":5})"},
      {[&](Outcome& o) {
         client().postObjects({view(5), view(6)}, done(o));
       },
       "", "POST", "/postviews", R"([{"guest_id":21,"post_id":5},{"guest_id":21,"post_id":6}])"},
      {redeemOne, "{not json", "POST", "/redemptions", R"({"prize_id":1})"},
      {[&](Outcome& o) { client().syncRelations(owner->posts().any(), owner, {}, done(o)); }, "",
       "PUT", "/guests/21/relationships/posts",
       R"([{"type":"posts","id":5,"read":true,"saved":false},
           {"type":"posts","id":6,"read":false,"saved":true}])"},
      {[&](Outcome& o) {
         client().syncRelations(owner->shops().any(), owner, "subscriptions", done(o));
       },
       "", "PUT", "/guests/21/relationships/subscriptions",
       R"([{"type":"shops","id":3},{"type":"shops","id":4}])"},
      {[&](Outcome& o) { client().syncRelations(empty->posts().any(), empty, {}, done(o)); }, "",
       "PUT", "/guests/22/relationships/posts", "[]"},
      // Last: the answer replaces every stored shop.
      {[&](Outcome& o) { client().getObjects(shops, {}, {}, list(o)); }, R"([{"id":1}])", "GET",
       "/shops", ""},
  };
  const auto refused = TransportAnswer::unreachable();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    respond(200, row.answer);
    auto outcome = run(row.start);
    EXPECT_TRUE(outcome.result);
    EXPECT_EQ(outcome.error, std::nullopt);
    const auto request = lastRequest();
    EXPECT_EQ(request.method, row.method);
    EXPECT_EQ(request.url, kBase + row.path);
    if (*row.body) {
      EXPECT_EQ(json::parse(request.body), json::parse(row.body));
    } else {
      EXPECT_EQ(request.body, "");
    }

    respond(500, R"({"error":"failed"})");
    outcome = run(row.start);
    EXPECT_FALSE(outcome.result);
    EXPECT_EQ(outcome.error, (QVLError{kQVLApiClientErrorDomain, 500, json{{"error", "failed"}}}));
    respond(refused);
    outcome = run(row.start);
    EXPECT_FALSE(outcome.result);
    EXPECT_EQ(outcome.error, refused.error) << "a transport error is passed on unchanged";
  }
  EXPECT_THAT(storedKeys(QVLRedemption::modelClass()), IsEmpty());
  // An empty list sends nothing and still calls back once, later.
  const auto sent = transport_->requests().size();
  EXPECT_TRUE(run([](Outcome& o) { client().postObjects({}, done(o)); }).result);
  EXPECT_EQ(transport_->requests().size(), sent);
}

TEST_F(QVLApiClientTest, RequestsAreInFlightTogetherAndEachGetsItsOwnAnswer) {
  transport_->setAnswer([](const qvl::HttpRequest&) { return std::optional<TransportAnswer>(); });
  constexpr int kRequests = 50;
  std::vector<Outcome> outcomes(kRequests);
  Keys expected;
  for (int id = 1; id <= kRequests; ++id) {
    client().getObject(QVLShop::modelClass(), id, {}, {}, object(outcomes[id - 1]));
    expected.push_back(id);
  }
  executor_->runUntilIdle();
  ASSERT_EQ(transport_->requests().size(), static_cast<size_t>(kRequests));
  transport_->release([](const qvl::HttpRequest& request) {
    return TransportAnswer{200, R"({"id":)" + request.url.substr(request.url.rfind('/') + 1) + "}"};
  });
  executor_->runUntilIdle();
  for (int id = 1; id <= kRequests; ++id) {
    EXPECT_EQ(outcomes[id - 1].calls, 1) << id;
    EXPECT_THAT(outcomes[id - 1].keys, ElementsAre(id));
  }
  EXPECT_EQ(storedKeys(QVLShop::modelClass()), expected);
}

TEST_F(QVLApiClientTest, ListAnswerReplacesTheClassKeepingInboxMarksAndRejectedRecords) {
  save(makePost(1, "old 1", /*read=*/true), makePost(2, "old 2", false, /*saved=*/true),
       makePost(3, "old 3"), makePost(4, "old 4"));
  save(makeShop(9, "other class"));
  // Post 3 is listed with a bad value, the last element has an id of the wrong kind, post 4
  // is not listed.
  respond(200, R"([{"id":1,"name":"new 1"},{"id":2,"name":"new 2"},{"id":3,"collectible":"yes"},)"
               R"({"id":"x"}])");
  auto outcome =
      run([](Outcome& o) { client().getObjects(QVLPost::modelClass(), {}, {}, list(o)); });
  EXPECT_EQ(outcome.error, std::nullopt);
  EXPECT_THAT(outcome.keys, UnorderedElementsAre(1, 2));
  EXPECT_THAT(storedKeys(QVLPost::modelClass()), ElementsAre(1, 2, 3));
  EXPECT_THAT(storedKeys(QVLShop::modelClass()), ElementsAre(9));
  auto marks = [](std::int64_t id) {
    auto post = stored<QVLPost>(id);
    return std::make_tuple(post->name(), post->read(), post->saved());
  };
  EXPECT_EQ(marks(1), std::make_tuple(std::optional<std::string>("new 1"), true, false));
  EXPECT_EQ(marks(2), std::make_tuple(std::optional<std::string>("new 2"), false, true));
  EXPECT_EQ(marks(3), std::make_tuple(std::optional<std::string>("old 3"), false, false));
  EXPECT_THAT(log_.lines(), Contains(StartsWith("QuorvelSDK: Rejected QVLPost record")).Times(2));
}

TEST_F(QVLApiClientTest, EmptyOrUnreadableListAnswerEmptiesTheClassButNotOnFailureOrRelated) {
  save(makePost(4, "other class"));
  struct Row {
    TransportAnswer answer;
    bool related;  // a fetch of the records related to a guest
    Keys kept;
  };
  const std::vector<Row> rows = {
      {{200, "[]"}, false, {}},
      {{200, "<html>maintenance</html>"}, false, {}},
      {{200, ""}, false, {}},
      {{404, R"({"error":"not found"})"}, false, {1, 2}},
      {TransportAnswer::unreachable(), false, {1, 2}},
      {{200, "[]"}, true, {1, 2}},
      {{200, R"([{"id":3}])"}, true, {1, 2, 3}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.answer.body + (row.related ? " (related)" : ""));
    save(makeShop(1, "a"), makeShop(2, "b"));
    respond(row.answer);
    auto outcome = run([&](Outcome& o) {
      if (row.related) {
        client().getObjectsRelatedTo(QVLShop::modelClass(), QVLGuest::modelClass(), 1, {}, {},
                                     list(o));
      } else {
        client().getObjects(QVLShop::modelClass(), {}, {}, list(o));
      }
    });
    EXPECT_EQ(outcome.error.has_value(), row.answer.status != 200);
    EXPECT_EQ(storedKeys(QVLShop::modelClass()), row.kept);
    if (row.related) {
      EXPECT_EQ(outcome.keys, Keys(row.kept.begin() + 2, row.kept.end()));
    }
  }
  EXPECT_THAT(storedKeys(QVLPost::modelClass()), ElementsAre(4));
}

TEST_F(QVLApiClientTest, SingleRecordAnswersAreStoredAndHandedBackFromTheStore) {
  save(makeShop(8, "neighbour"));
  const auto fetch = [](Outcome& o) {
    client().getObject(QVLShop::modelClass(), 7, {}, {}, object(o));
  };
  respond(200, R"({"id":7,"name":"Corner shop","phone":"555-0100"})");
  auto fetched = run(fetch);
  EXPECT_TRUE(fetched.managed);
  EXPECT_THAT(fetched.keys, ElementsAre(7));
  EXPECT_EQ(stored<QVLShop>(7)->phone(), "555-0100");

  auto shop = std::make_shared<QVLShop>();
  respond(201, R"({"id":44,"name":"New shop","phone":"123"})");
  auto posted = run([&](Outcome& o) { client().postAndSaveObject(shop, object(o)); });
  EXPECT_TRUE(posted.managed);
  EXPECT_THAT(posted.keys, ElementsAre(44));
  EXPECT_EQ(stored<QVLShop>(44)->phone(), "123");

  respond(200, R"({"id":7,"phone":555})");
  auto rejected = run(fetch);
  EXPECT_FALSE(rejected.result);
  ASSERT_TRUE(rejected.error);
  EXPECT_EQ(rejected.error->domain, kQVLMappingErrorDomain);
  EXPECT_EQ(stored<QVLShop>(7)->phone(), "555-0100");
  EXPECT_THAT(storedKeys(QVLShop::modelClass()), ElementsAre(7, 8, 44));
}

TEST_F(QVLApiClientTest, ParseAndSaveCallsBackAtOnceWithLiveResultsInStoreOrder) {
  save(makePost(1, "one"), makePost(2, "two"), makePost(3, "three"), makePost(4, "4"));
  Outcome outcome;
  client().parseAndSaveJSONArrayData(
      R"([{"id":3,"name":"3"},{"id":1,"name":"1"},{"id":2,"name":"2"}])", QVLPost::modelClass(),
      list(outcome));
  EXPECT_EQ(outcome.calls, 1);
  EXPECT_THAT(outcome.keys, ElementsAre(1, 2, 3));
}

TEST_F(QVLApiClientTest, SyncWithoutAListOrAnOwnerFailsBeforeReturningAndSendsNothing) {
  auto guest = std::make_shared<QVLGuest>();
  guest->setGuestId(21);
  auto owner = save(guest);
  const QVLError expected{
      kQVLApiClientErrorDomain, 0,
      json{{"errorMessage",
            "Missing 'object' and 'relations' parameters on syncRelations in QVLApiClient"}}};
  for (bool withList : {false, true}) {
    Outcome outcome;
    client().syncRelations(withList ? std::optional(owner->posts().any()) : std::nullopt,
                           withList ? nullptr : owner, std::nullopt, done(outcome));
    EXPECT_EQ(outcome.calls, 1) << withList;
    EXPECT_EQ(outcome.error, expected);
    executor_->runUntilIdle();
    EXPECT_EQ(outcome.calls, 1);
  }
  EXPECT_THAT(transport_->requests(), IsEmpty());
}

// The same client against a real HTTPS server on the loopback whose key is pinned: pinning
// refuses another key and reports it.
class QVLApiClientWireTest : public ::testing::Test {
 protected:
  void SetUp() override {
    client().setEnvironment(QVLApiEnvironmentDev);
    client().setupPinning();
  }

  static std::string domainOf(int port) { return "localhost:" + std::to_string(port); }

  qvl::test::TempDir directory_;
  qvl::devserver::HttpsServer server_{TestCertificates::leaf()};
  qvl::test::ScopedContext env_{[this](qvl::Env& env) {
    env.trustAnchorsFile = TestCertificates::ca().certificatePath;
    env.userDefaultsPath = directory_.file("host.defaults");
    env.bundleInfo = kBundleInfo;
    env.apiDomain = domainOf(server_.port());
    env.publicKeyHashes = {TestCertificates::leaf().pin};
    env.pinValidator = std::make_shared<qvl::PinValidator>();
  }};
};

TEST_F(QVLApiClientWireTest, AServerWithAnotherKeyGetsNoRequestAndTheRefusalIsReported) {
  // Pinning is set up while the domain names server_, so that the failure report reaches
  // it; then the domain moves to a server of the same authority whose key is not pinned.
  qvl::devserver::HttpsServer impostor(TestCertificates::otherLeaf());
  client().setEnvironment(QVLApiEnvironmentApi);
  qvl::test::ScopedContext moved([&](qvl::Env& env) { env.apiDomain = domainOf(impostor.port()); });
  auto refused = qvl::test::runDataTask(
      client().urlSession(), client().apiPostRequest("redemptions", {{"prize_id", 1}}), kWait);
  ASSERT_TRUE(refused.completed);

  ASSERT_TRUE(server_.waitForRequests(1, kWait)) << "no failure report arrived";
  const auto report = server_.requests()[0];
  EXPECT_EQ(report.method, "POST");
  EXPECT_EQ(report.target, "/ssl-reporting");
  EXPECT_EQ(report.header("Host"), "api." + domainOf(server_.port()));
  EXPECT_EQ(json::parse(report.body).value_or(json()).at("known-pins"),
            json::array({"pin-sha256=\"" + TestCertificates::leaf().pin + "\""}));
}

// A server of the same authority whose key is not pinned gets none of the client's
// requests, whatever order the host configured the client in, unless the host opted out.
class PinningSecurity : public QVLApiClientWireTest {
 protected:
  qvl::test::LogCapture log_;
};

TEST_F(PinningSecurity, AnUnpinnedServerGetsNoRequestUnlessTheHostOptedOut) {
  const std::string noPinsLine =
      "QuorvelSDK: the API domain localhost has no pins; its certificates are checked against "
      "the certificate authorities only (Env::allowUnpinnedApiDomain is set)";
  struct Row {
    const char* name;
    bool pinnedDefaultDomainFirst;  // else the validator starts unconfigured
    bool ownPins;                   // the pinned server's key; else none
    bool optOut;
    const char* refusal;  // in the error's message, or nullptr
  };
  for (const auto& row : std::vector<Row>{
           {"first request, no set-up", false, true, false, nullptr},
           {"custom domain after set-up", true, true, false, nullptr},
           {"custom domain without pins", true, false, false, "has no pins"},
           {"custom domain without pins, opted out", true, false, true, nullptr},
       }) {
    SCOPED_TRACE(row.name);
    qvl::devserver::HttpsServer impostor(TestCertificates::otherLeaf());
    qvl::test::ScopedContext fresh([](qvl::Env& env) {
      env.pinValidator = std::make_shared<qvl::PinValidator>();
      env.apiDomain.clear();
    });
    if (row.pinnedDefaultDomainFirst) client().setupPinning();
    qvl::test::ScopedContext custom([&](qvl::Env& env) {
      env.apiDomain = domainOf(impostor.port());
      if (!row.ownPins) env.publicKeyHashes.clear();
      env.allowUnpinnedApiDomain = row.optOut;
    });
    log_.clear();
    auto outcome = qvl::test::runDataTask(
        client().urlSession(), client().apiPostRequest("redemptions", {{"prize_id", 1}}), kWait);
    ASSERT_TRUE(outcome.completed);
    // Pin failure reports (no key, no token) may reach it; the client's requests must not.
    const auto requests = impostor.requests();
    const auto sent = std::count_if(requests.begin(), requests.end(),
                                    [](const auto& r) { return r.path != "/ssl-reporting"; });
    EXPECT_EQ(log_.count(noPinsLine), row.optOut ? 1u : 0u);
    if (row.optOut) {
      EXPECT_FALSE(outcome.error);
      EXPECT_EQ(sent, 1);
      client().urlSession();
      EXPECT_EQ(log_.count(noPinsLine), 2u) << "one warning per session";
      continue;
    }
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->domain, kQVLTransportErrorDomain);
    EXPECT_EQ(outcome.error->code, CURLE_PEER_FAILED_VERIFICATION);
    if (row.refusal) {
      EXPECT_THAT(
          outcome.error->userInfo.value_or(json()).at("message").value_or(json()).asString(),
          ::testing::Optional(::testing::HasSubstr(row.refusal)));
    }
    EXPECT_EQ(sent, 0);
  }
}

}  // namespace
