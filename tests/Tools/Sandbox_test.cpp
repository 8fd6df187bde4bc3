#include "sandbox/Sandbox.h"
#include "support/ScopedContext.h"

#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <httplib.h>

#include "devserver/Certificates.h"
#include "quorvel/networking/HttpSession.h"
#include "quorvel/networking/PinValidator.h"
#include "quorvel/networking/QVLApiClient.h"
#include "quorvel/platform/Clock.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/UserDefaults.h"
#include "quorvel/records/QVLBeacon.h"
#include "quorvel/records/QVLGuest.h"
#include "quorvel/records/QVLPostView.h"
#include "quorvel/records/QVLRealm.h"
#include "quorvel/records/QVLToken.h"
#include "support/Eventually.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using qvl::sandbox::Sandbox;

struct Answer {
  int status = 0;  // 0: no answer (connection failed)
  json body;
};

class SandboxTest : public ::testing::Test {
 protected:
  void SetUp() override { start(); }

  // Certificates are made once for the suite and copied in, as a sandbox finds them on
  // its second start: making RSA keys for every test would dominate the suite's time.
  void start(bool reset = false) {
    static const qvl::test::TempDir made;
    static std::once_flag once;
    std::call_once(once, [] { qvl::devserver::Certificates(made.path()).server("server"); });
    for (const char* name : {"ca.pem", "ca-key.pem", "server.pem", "server-key.pem"}) {
      std::filesystem::copy_file(made.file(name), directory_.file(name),
                                 std::filesystem::copy_options::skip_existing);
    }
    sandbox_.reset();
    options_.reset = reset;
    sandbox_ = std::make_unique<Sandbox>(options_);
  }

  // One request to the sandbox with the API key and token (the control token for
  // /_sandbox/*) unless `headers` replaces them.
  Answer send(const std::string& method, const std::string& target, const json& body = nullptr,
              std::optional<httplib::Headers> headers = std::nullopt) {
    httplib::SSLClient client("localhost", sandbox_->port());
    client.set_ca_cert_path(sandbox_->caFile().c_str());
    client.enable_server_certificate_verification(true);
    client.set_connection_timeout(5);
    client.set_read_timeout(10);
    const bool control = target.rfind("/_sandbox/", 0) == 0;
    const httplib::Headers standing = headers.value_or(httplib::Headers{
        {"X-Api-Key", sandbox_->apiKey()},
        {"Authorization", "Bearer " + (control ? sandbox_->controlToken() : sandbox_->token())}});
    const std::string text = body.is_null() ? std::string() : body.dump();
    httplib::Result result = method == "GET" ? client.Get(target.c_str(), standing)
                             : method == "PUT"
                                 ? client.Put(target.c_str(), standing, text, "application/json")
                                 : client.Post(target.c_str(), standing, text, "application/json");
    if (!result) return {};
    return {result->status, json::parse(result->body, nullptr, false)};
  }

  std::int64_t balance() { return send("GET", "/v8/guests/1").body.value("balance", -1); }

  qvl::test::TempDir directory_;
  qvl::sandbox::Options options_{directory_.path(), QVL_SANDBOX_SOURCE_SEED, "test-key"};
  std::unique_ptr<Sandbox> sandbox_;
};

TEST_F(SandboxTest, RefusesMissingOrUnknownCredentials) {
  const std::string token = "Bearer " + sandbox_->token();
  struct Case {
    const char* what;
    httplib::Headers headers;
  } cases[] = {
      {"no key", {{"Authorization", token}}},
      {"wrong key", {{"X-Api-Key", "other"}, {"Authorization", token}}},
      {"no token", {{"X-Api-Key", "test-key"}}},
      {"unknown token", {{"X-Api-Key", "test-key"}, {"Authorization", token + "x"}}},
      {"not a bearer", {{"X-Api-Key", "test-key"}, {"Authorization", sandbox_->token()}}},
  };
  for (const auto& c : cases) {
    const Answer answer = send("GET", "/v8/shops", nullptr, c.headers);
    EXPECT_EQ(answer.status, 401) << c.what;
    EXPECT_EQ(answer.body.value("status", 0), 401) << c.what;
  }
  EXPECT_EQ(send("GET", "/v8/shops").status, 200);
  EXPECT_EQ(sandbox_->requests().size(), std::size(cases) + 1);
}

TEST_F(SandboxTest, IncludesEmbedRelationsAndFieldsLimitKeys) {
  const Answer posts = send("GET",
                            "/v8/beacons/1/relationships/posts?include=postperiods,thumbnail"
                            "&fields[posts]=name,postperiods&fields[postperiods]=start");
  ASSERT_EQ(posts.status, 200);
  ASSERT_EQ(posts.body.size(), 2u);
  for (const json& post : posts.body) {
    std::set<std::string> keys;
    for (const auto& item : post.items()) keys.insert(item.key());
    EXPECT_EQ(keys, (std::set<std::string>{"id", "name", "postperiods"})) << post;
    ASSERT_FALSE(post["postperiods"].empty());
    for (const json& period : post["postperiods"]) {
      EXPECT_EQ(period.size(), 2u) << period;
      EXPECT_TRUE(period.contains("start"));
    }
  }
  // Without include a relation is left out, not sent as bare ids.
  const Answer shop = send("GET", "/v8/shops/1");
  EXPECT_FALSE(shop.body.contains("beacons"));
  EXPECT_EQ(send("GET", "/v8/shops?include=nothing").status, 400);
  EXPECT_EQ(send("GET", "/v8/shops/99").status, 404);
}

TEST_F(SandboxTest, RedemptionNeedsAnExistingPrizeAndEnoughBalance) {
  struct Case {
    json body;
    int status;
    std::int64_t balanceAfter;
  } cases[] = {
      {{{"prize_id", 2}}, 422, 120},  // costs 150
      {{{"prize_id", 99}}, 422, 120}, {{{"prize", 1}}, 422, 120},
      {{{"prize_id", 1}}, 201, 70},  // costs 50
      {{{"prize_id", 1}}, 201, 20},   {{{"prize_id", 1}}, 422, 20},
  };
  for (const auto& c : cases) {
    const Answer answer = send("POST", "/v8/redemptions", c.body);
    EXPECT_EQ(answer.status, c.status) << c.body;
    if (c.status != 201) {
      EXPECT_TRUE(answer.body.contains("message")) << answer.body;
    }
    EXPECT_EQ(balance(), c.balanceAfter) << c.body;
  }
  EXPECT_EQ(sandbox_->state()["redemptions"].size(), 2u);
}

TEST_F(SandboxTest, StateSurvivesARestartAndResetRestoresTheSeed) {
  const std::string token = sandbox_->token();
  const std::string pin = sandbox_->pin();
  ASSERT_EQ(send("POST", "/v8/postviews", {{"post_id", 3}, {"time_in", "2024-05-01T10:00:00+0000"}})
                .status,
            201);
  ASSERT_EQ(send("POST", "/v8/redemptions", {{"prize_id", 1}}).status, 201);
  ASSERT_EQ(send("PUT", "/v8/guests/1/relationships/subscriptions",
                 json::array({{{"type", "shops"}, {"id", 2}}}))
                .status,
            200);

  start();
  EXPECT_EQ(sandbox_->token(), token);
  EXPECT_EQ(sandbox_->pin(), pin);
  EXPECT_EQ(sandbox_->state()["postviews"].size(), 1u);
  EXPECT_EQ(balance(), 70);
  const Answer subscriptions = send("GET", "/v8/guests/1/relationships/subscriptions");
  ASSERT_EQ(subscriptions.body.size(), 1u);
  EXPECT_EQ(subscriptions.body[0]["name"], "Blue Fjord Books");

  start(/*reset=*/true);
  EXPECT_EQ(sandbox_->token(), token);
  EXPECT_TRUE(sandbox_->state()["postviews"].empty());
  EXPECT_EQ(balance(), 120);
}

TEST_F(SandboxTest, InjectedFaultsFailRequestsUntilCleared) {
  sandbox_->setFaults(1.0, 0ms);
  EXPECT_EQ(send("GET", "/v8/shops").status, 503);

  // Through the control endpoint: no failures, but the listener closed for a moment.
  const Answer control =
      send("POST", "/_sandbox/faults", {{"failure_rate", 0}, {"offline_for", 1}});
  ASSERT_EQ(control.status, 200);
  const auto answers = [&](int status) { return send("GET", "/v8/shops").status == status; };
  EXPECT_TRUE(qvl::test::eventually([&] { return answers(0); }, 5s)) << "the listener never closed";
  EXPECT_TRUE(qvl::test::eventually([&] { return answers(200); }, 10s)) << "it never came back";
}

class SandboxSecurity : public SandboxTest {};

TEST_F(SandboxSecurity, ControlEndpointsNeedTheControlTokenOfThisStart) {
  const std::string control = sandbox_->controlToken();
  ASSERT_EQ(control.size(), 64u);
  for (const std::string& authorization :
       {std::string(), "Bearer " + sandbox_->token(), "Bearer " + control + "0",
        "Bearer " + control.substr(0, 63) + (control[63] == '0' ? "1" : "0"), control}) {
    EXPECT_EQ(
        send("GET", "/_sandbox/info", nullptr, httplib::Headers{{"Authorization", authorization}})
            .status,
        401)
        << authorization;
  }
  const Answer info = send("GET", "/_sandbox/info");
  EXPECT_EQ(info.status, 200);
  EXPECT_EQ(info.body.value("control_token", ""), control);
  EXPECT_EQ(
      json::parse(qvl::test::readFile(directory_.file("sandbox.json"))).value("control_token", ""),
      control);
  start();
  EXPECT_NE(sandbox_->controlToken(), control);
}

// The head declares far more than is sent: an answer can only come from the head.
TEST_F(SandboxSecurity, BodyAboveTheLimitIsRefusedFromItsHead) {
  options_.maxBody = 1024;
  start();
  EXPECT_EQ(send("POST", "/v8/postviews", std::string(2000, 'x')).status, 413);
  EXPECT_EQ(send("POST", "/v8/postviews", std::string(1000, 'x')).status, 422);

  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(sandbox_->port()));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const timeval limit{30, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  SSL_CTX* context = SSL_CTX_new(TLS_client_method());
  SSL* ssl = SSL_new(context);
  SSL_set_fd(ssl, fd);
  ASSERT_EQ(SSL_connect(ssl), 1);
  const std::string head =
      "POST /v8/postviews HTTP/1.1\r\nHost: localhost\r\nContent-Length: 68719476736\r\n\r\n" +
      std::string(4096, 'x');
  EXPECT_EQ(SSL_write(ssl, head.data(), static_cast<int>(head.size())),
            static_cast<int>(head.size()));
  char answer[64] = {};
  EXPECT_GT(SSL_read(ssl, answer, sizeof answer - 1), 0);
  EXPECT_EQ(std::string(answer).substr(0, 12), "HTTP/1.1 413") << answer;
  SSL_free(ssl);
  SSL_CTX_free(context);
  ::close(fd);
}

TEST_F(SandboxSecurity, RequestLogIsBoundedInBytesAndCountsWhatItDropped) {
  options_.logBytes = 8192;
  start();
  for (int i = 0; i < 20; ++i) send("POST", "/v8/postviews", std::string(900, 'x'));
  const json log = sandbox_->requests();
  size_t bytes = 0;
  for (const json& entry : log) bytes += entry.dump().size();
  EXPECT_LE(bytes, options_.logBytes);
  EXPECT_FALSE(log.empty());
  EXPECT_EQ(log.size() + sandbox_->state()["requests_dropped"].get<size_t>(), 20u);
}

TEST_F(SandboxSecurity, SecondSandboxOnABusyPortExitsWithStatus1) {
#ifndef QVL_SANDBOX_BINARY
  GTEST_SKIP() << "built without the tools";
#else
  const std::string port = std::to_string(sandbox_->port());
  // Bounded: a sandbox that started anyway is killed after 10 s and fails the test.
  FILE* run = ::popen(("timeout 10 " QVL_SANDBOX_BINARY " --port " + port + " --state-dir " +
                       directory_.path() + " 2>&1")
                          .c_str(),
                      "r");
  ASSERT_NE(run, nullptr);
  std::string output;
  char buffer[512];
  while (std::fgets(buffer, sizeof buffer, run)) output += buffer;
  const int status = ::pclose(run);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status << ": " << output;
  EXPECT_NE(output.find("port " + port + " is in use"), std::string::npos) << output;
#endif
}

// A fresh state directory under umask 022, with links planted where a writer might put its
// temporary files (the names used before and a unique-name lookalike) and at a key's name.
TEST_F(SandboxSecurity, StateFilesArePrivateAndPlantedLinksAreNotFollowed) {
  const qvl::test::TempDir outside;
  const std::string victim = outside.file("victim");
  std::ofstream(victim) << "untouched";
  const qvl::test::TempDir root;
  const std::string dir = root.file("state");
  std::filesystem::create_directory(dir);
  for (const char* name : {"secret.tmp", "pin.txt.tmp", "sandbox.json.tmp",
                           "sandbox.json.tmp-XXXXXX", "pin.txt.tmp-000000", "ca-key.pem"}) {
    std::filesystem::create_symlink(victim, dir + "/" + name);
  }
  const mode_t previous = ::umask(022);
  options_.stateDirectory = dir;
  start();
  ::umask(previous);
  EXPECT_EQ(qvl::test::readFile(victim), "untouched");
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (entry.is_symlink()) continue;
    EXPECT_EQ(entry.status().permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write)
        << entry.path();
  }

  // A folder others may write in is refused, and left as it was.
  const std::string shared = root.file("shared");
  std::filesystem::create_directory(shared);
  std::filesystem::permissions(shared, std::filesystem::perms::all);
  options_.stateDirectory = shared;
  EXPECT_THROW(start(), std::runtime_error);
  EXPECT_EQ(std::filesystem::status(shared).permissions(), std::filesystem::perms::all);

  options_.stateDirectory = root.file("made/state");
  ::umask(022);
  start();
  ::umask(previous);
  EXPECT_EQ(std::filesystem::status(options_.stateDirectory).permissions(),
            std::filesystem::perms::owner_all);
}

// The library's own client, configured for the sandbox as a host would configure it.
class SandboxClientTest : public SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    env_.emplace([this](qvl::Env& env) {
      env.trustAnchorsFile = sandbox_->caFile();
      env.userDefaultsPath = directory_.file("host/defaults");
      env.storeDirectory = directory_.file("host/store");
      env.bundleInfo = {{"QuorvelSDK", {{"ApiKey", sandbox_->apiKey()}}}};
      env.apiDomain = "localhost:" + std::to_string(sandbox_->port());
      env.publicKeyHashes = {sandbox_->pin()};
      env.pinValidator = std::make_shared<qvl::PinValidator>();
    });
    QVLToken::initWithContent(sandbox_->token())->saveToken();
    client().setEnvironment(QVLApiEnvironmentDev);
    client().setupPinning();
  }

  void TearDown() override {
    qvl::Store::closeThreadHandles();
    env_.reset();
  }

  static QVLApiClient& client() { return QVLApiClient::sharedClient(); }

  // Runs an operation taking an error completion; its error, or a failure when none came.
  template <class Start>
  std::optional<QVLError> await(const Start& start) {
    auto done = std::make_shared<std::promise<std::optional<QVLError>>>();
    auto future = done->get_future();
    start([done](std::optional<QVLError> error) { done->set_value(std::move(error)); });
    if (future.wait_for(30s) != std::future_status::ready) {
      return QVLError{"no completion", -1, {}};
    }
    return future.get();
  }

  std::optional<QVLError> fetch(const QVLModelClass& cls, std::optional<std::string> include) {
    return await([&](auto done) {
      client().getObjects(cls, include, std::nullopt,
                          [done](std::optional<qvl::AnyResults>, std::optional<QVLError> error) {
                            done(std::move(error));
                          });
    });
  }

  std::optional<qvl::test::ScopedContext> env_;
};

TEST_F(SandboxClientTest, StoresEverySeededRecordClass) {
  EXPECT_FALSE(await([](auto done) { client().redeemPrize(1, done); }));
  auto view = std::make_shared<QVLPostView>();
  view->setPostId(2);
  view->setTimeIn(qvl::now());
  EXPECT_FALSE(await([&](auto done) { client().postObject(view, done); }));

  const json seed = json::parse(qvl::test::readFile(QVL_SANDBOX_SOURCE_SEED));
  for (qvl::ObjectClassRef ref : QVLRealm::objectClasses()) {
    const auto& cls = static_cast<const QVLModelClass&>(ref());
    if (cls.primaryKey().empty()) continue;  // view records are only ever sent
    const std::string& resource = cls.apiResourcePlural();
    const auto error = fetch(cls, std::nullopt);
    EXPECT_FALSE(error) << resource << ": " << error->domain << " " << error->code;
    const size_t expected =
        seed.value(resource, json::array()).size() + (resource == "redemptions" ? 1 : 0);
    EXPECT_EQ(QVLRealm::realm()->objects(cls).size(), expected) << resource;
  }
  // Relations arrive when included.
  ASSERT_FALSE(fetch(QVLBeacon::modelClass(), "posts.postperiods"));
  auto beacon = QVLRealm::realm()->object<QVLBeacon>(1);
  ASSERT_TRUE(beacon);
  EXPECT_EQ(beacon->posts().size(), 2u);
  EXPECT_EQ(sandbox_->state()["postviews"].size(), 1u);
}

}  // namespace
