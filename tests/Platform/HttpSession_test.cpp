#include "quorvel/networking/HttpSession.h"
#include "support/ScopedContext.h"

#include "quorvel/platform/Env.h"

#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "devserver/HttpsServer.h"
#include "support/FaultServer.h"
#include "support/RunDataTask.h"
#include "support/TempDir.h"
#include "support/TestCertificates.h"

namespace qvl {
namespace {

using namespace std::chrono_literals;
using devserver::HttpsServer;
using test::DataTaskOutcome;
using test::runDataTask;
using test::TestCertificates;
using ::testing::ElementsAre;

class HttpSessionTest : public ::testing::Test {
 protected:
  qvl::test::ScopedContext env_{
      [](Env& env) { env.trustAnchorsFile = TestCertificates::ca().certificatePath; }};

  static void expectTransportError(const DataTaskOutcome& outcome, CURLcode code) {
    ASSERT_TRUE(outcome.completed);
    EXPECT_FALSE(outcome.response.has_value());
    EXPECT_TRUE(outcome.body.empty());
    ASSERT_TRUE(outcome.error.has_value());
    EXPECT_EQ(outcome.error->domain, kQVLTransportErrorDomain);
    EXPECT_EQ(outcome.error->code, code) << outcome.error->userInfo.value_or(nullptr).dump();
    ASSERT_TRUE(outcome.error->userInfo.has_value());
    EXPECT_TRUE(outcome.error->userInfo->at("message").value_or(nullptr).asString());
  }
};

// Records the challenges it sees and answers with a fixed disposition.
class RecordingDelegate : public HttpSessionDelegate {
 public:
  explicit RecordingDelegate(TrustDisposition answer, bool throws = false)
      : answer_(answer), throws_(throws) {}

  TrustDisposition didReceiveServerTrustChallenge(const ServerTrustChallenge& challenge) override {
    std::lock_guard lock(mutex_);
    challenges_.push_back(challenge);
    if (throws_) throw std::runtime_error("delegate failure");
    return answer_;
  }

  std::vector<ServerTrustChallenge> challenges() const {
    std::lock_guard lock(mutex_);
    return challenges_;
  }

 private:
  const TrustDisposition answer_;
  const bool throws_;
  mutable std::mutex mutex_;
  std::vector<ServerTrustChallenge> challenges_;
};

TEST_F(HttpSessionTest, RequestsReachTheServerAsBuiltWithoutWaitingForContinue) {
  HttpsServer server(TestCertificates::leaf());
  HttpSessionConfiguration config;
  config.additionalHeaders = {{"X-Session", "s"}, {"X-Shared", "from-session"}, {"Accept", "a/b"}};
  auto session = HttpSession::create(config);
  // Request headers win over session headers of the same name, whatever the case.
  const HttpHeaders own = {{"x-shared", "from-request"}, {"X-Request", "r"}};
  const std::vector<HttpRequest> sent = {
      {"GET", "/v8/guests/12/relationships/posts?include=shop&fields[posts]=title,message", own,
       ""},
      {"POST", "/v8/views", {}, R"({"a":[1,2]})"},
      {"PUT", "/v8/guests/1/relationships/posts", {}, R"({"data":[]})"},
      {"PUT", "/empty", {}, ""},
      {"DELETE", "/v8/endpoints/3", {}, ""},
      // Large enough for libcurl to wait for "100 Continue" unless told not to.
      {"POST", "/big", {{"Content-Type", "text/plain"}}, std::string(3 * 1024 * 1024, 'x')},
  };
  for (auto request : sent) {
    request.url = server.url() + request.url;
    auto outcome = runDataTask(session, request);
    ASSERT_TRUE(outcome.completed);
    ASSERT_FALSE(outcome.error) << outcome.error->userInfo->dump();
  }
  const auto received = server.requests();
  ASSERT_EQ(received.size(), sent.size());
  for (size_t i = 0; i < sent.size(); ++i) {
    SCOPED_TRACE(sent[i].url);
    EXPECT_EQ(received[i].method, sent[i].method);
    EXPECT_EQ(received[i].target, sent[i].url);  // the query literally, as given
    EXPECT_TRUE(received[i].body == sent[i].body);
    EXPECT_FALSE(received[i].header("Expect").has_value());
    EXPECT_EQ(received[i].header("X-Session"), "s");
    EXPECT_EQ(received[i].header("Accept"), "a/b");
    EXPECT_EQ(received[i].headerCount("Accept"), 1u);
  }
  EXPECT_EQ(received[0].header("X-Request"), "r");
  EXPECT_EQ(received[0].header("X-Shared"), "from-request");
  EXPECT_EQ(received[0].headerCount("X-Shared"), 1u);
  EXPECT_EQ(received[3].header("Content-Length"), "0");
}

TEST_F(HttpSessionTest, EveryStatusIsAnAnswerAndRedirectsAreNotFollowed) {
  HttpsServer server(TestCertificates::leaf());
  server.setHandler([](const devserver::RecordedRequest& request, httplib::Response& response) {
    response.status = std::stoi(request.path.substr(1));
    response.set_header("Location", "/elsewhere");
    response.set_content("body of " + request.path, "text/plain");
  });
  auto session = HttpSession::create();
  const std::vector<int> statuses = {200, 404, 500, 302};
  for (int status : statuses) {
    const std::string path = "/" + std::to_string(status);
    auto outcome = runDataTask(session, {"GET", server.url() + path, {}, ""});
    ASSERT_TRUE(outcome.completed);
    EXPECT_FALSE(outcome.error) << status;
    ASSERT_TRUE(outcome.response);
    EXPECT_EQ(outcome.response->statusCode, status);
    EXPECT_EQ(outcome.body, "body of " + path);
    EXPECT_EQ(outcome.response->url, server.url() + path);
    EXPECT_EQ(outcome.response->header("location"), "/elsewhere");
  }
  EXPECT_EQ(server.requests().size(), statuses.size()) << "a redirect was followed";
}

// What the completions of several tasks received: the body, or "error <code>" when no
// answer came; and whether any of them ran on the thread that made the collector.
class Completions {
 public:
  DataTaskCompletion add() {
    return [this](std::string body, std::optional<HttpResponse>, std::optional<QVLError> error) {
      std::lock_guard lock(mutex_);
      received_.insert(error ? "error " + std::to_string(error->code) : body);
      onCaller_ = onCaller_ || std::this_thread::get_id() == caller_;
      changed_.notify_all();
    };
  }
  std::multiset<std::string> waitFor(size_t count, std::chrono::seconds timeout = 60s) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, timeout, [&] { return received_.size() >= count; });
    EXPECT_FALSE(onCaller_);
    return received_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::multiset<std::string> received_;
  bool onCaller_ = false;
  const std::thread::id caller_ = std::this_thread::get_id();
};

TEST_F(HttpSessionTest, CompletionRunsOnceOnTheSessionQueueNeverOnTheCaller) {
  HttpsServer server(TestCertificates::leaf());
  auto session = HttpSession::create();
  Completions completions;
  session->dataTask({"GET", server.url() + "/once", {}, ""}, completions.add());
  // Failures must be delivered once too, and asynchronously even when detected up front.
  session->dataTask({"GET", server.url() + "/bad", {{"X-Bad", "a\r\nInjected: 1"}}, ""},
                    completions.add());
  // The session queue is serial and completions are queued in order of finishing, so once a
  // later task's completion ran, any duplicate of the earlier ones would have run too.
  auto outcome = runDataTask(session, {"GET", server.url() + "/later", {}, ""});
  ASSERT_TRUE(outcome.completed);
  EXPECT_NE(outcome.thread, std::this_thread::get_id());
  EXPECT_TRUE(outcome.onCallbackQueue);
  ASSERT_TRUE(runDataTask(session, {"GET", server.url() + "/flush", {}, ""}).completed);
  EXPECT_EQ(
      completions.waitFor(2, 0s),
      (std::multiset<std::string>{"{}", "error " + std::to_string(CURLE_BAD_FUNCTION_ARGUMENT)}));
  for (const auto& request : server.requests()) EXPECT_NE(request.path, "/bad");
}

TEST_F(HttpSessionTest, SessionStaysAliveUntilItsCompletionsRan) {
  HttpsServer server(TestCertificates::leaf());
  server.setHandler([](const devserver::RecordedRequest&, httplib::Response& response) {
    std::this_thread::sleep_for(200ms);  // the caller has long dropped the session by now
    response.set_content("late", "text/plain");
  });
  Completions completions;
  std::weak_ptr<HttpSession> weak;
  {
    auto session = HttpSession::create();
    weak = session;
    session->dataTask({"GET", server.url() + "/slow", {}, ""}, completions.add());
  }
  EXPECT_EQ(completions.waitFor(1), std::multiset<std::string>{"late"});
  // Released once its last completion finished.
  for (int i = 0; i < 200 && !weak.expired(); ++i) std::this_thread::sleep_for(10ms);
  EXPECT_TRUE(weak.expired());
}

TEST_F(HttpSessionTest, FiftyRequestsAreInFlightAtOnce) {
  constexpr size_t kRequests = 50;
  HttpsServer server(TestCertificates::leaf());
  // Every handler holds its answer until all requests have arrived, which happens only if
  // the transport really has them all in flight together.
  std::atomic<size_t> sawAll{0};
  server.setHandler([&](const devserver::RecordedRequest& request, httplib::Response& response) {
    if (server.waitForRequests(kRequests, 30s)) sawAll.fetch_add(1);
    response.set_content(request.path, "text/plain");
  });
  auto session = HttpSession::create();
  Completions completions;
  std::multiset<std::string> paths;
  for (size_t i = 0; i < kRequests; ++i) {
    paths.insert("/r" + std::to_string(i));
    session->dataTask({"GET", server.url() + "/r" + std::to_string(i), {}, ""}, completions.add());
  }
  EXPECT_EQ(completions.waitFor(kRequests), paths);
  EXPECT_EQ(sawAll.load(), kRequests);
}

TEST_F(HttpSessionTest, NoAnswerEndsInATransportError) {
  HttpSessionConfiguration configuration;
  configuration.timeoutIntervalForRequest = 1s;
  auto session = HttpSession::create(configuration);

  // Port 1 (tcpmux) has no listener on any machine these tests run on.
  auto refused = runDataTask(session, {"GET", "https://127.0.0.1:1/", {}, ""});
  expectTransportError(refused, CURLE_COULDNT_CONNECT);

  // A server that accepts and never writes: stuck in the TLS handshake, or after a plain
  // HTTP request. Both must end with a time-out rather than hang.
  test::FaultServer silent([](test::FaultConnection& c) { c.pause(1h); });
  const std::string port = std::to_string(silent.port());
  auto handshake = runDataTask(session, {"GET", "https://127.0.0.1:" + port + "/", {}, ""}, 60s);
  expectTransportError(handshake, CURLE_OPERATION_TIMEDOUT);
  auto answer = runDataTask(session, {"GET", "http://127.0.0.1:" + port + "/", {}, ""}, 60s);
  expectTransportError(answer, CURLE_OPERATION_TIMEDOUT);

  auto malformed = runDataTask(session, {"GET", "not a url", {}, ""});
  expectTransportError(malformed, CURLE_URL_MALFORMAT);
}

TEST_F(HttpSessionTest, UntrustedServersAreRefusedBeforeAnyRequest) {
  auto delegate = std::make_shared<RecordingDelegate>(TrustDisposition::UseCredential);
  auto session = HttpSession::create({}, delegate);

  // A certificate from no trusted authority; the delegate cannot overrule that.
  HttpsServer untrusted(TestCertificates::untrustedLeaf());
  auto outcome = runDataTask(session, {"GET", untrusted.url() + "/", {}, ""});
  expectTransportError(outcome, CURLE_PEER_FAILED_VERIFICATION);
  EXPECT_TRUE(untrusted.requests().empty());

  // A trusted certificate that does not name the host.
  HttpsServer server(TestCertificates::leaf());
  auto wrongName = runDataTask(session, {"GET", server.url("other.localhost") + "/", {}, ""});
  ASSERT_TRUE(wrongName.completed);
  ASSERT_TRUE(wrongName.error);
  EXPECT_EQ(wrongName.error->domain, kQVLTransportErrorDomain);
  EXPECT_THAT(wrongName.error->code,
              ::testing::AnyOf(CURLE_PEER_FAILED_VERIFICATION, CURLE_SSL_CONNECT_ERROR));
  EXPECT_TRUE(delegate->challenges().empty());

  // Without the test anchors only the system's authorities are trusted.
  qvl::test::ScopedContext systemAnchors([](Env& env) { env.trustAnchorsFile.clear(); });
  auto systemTrust = runDataTask(HttpSession::create(), {"GET", server.url() + "/", {}, ""});
  expectTransportError(systemTrust, CURLE_PEER_FAILED_VERIFICATION);
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(HttpSessionTest, DelegateSeesTheVerifiedChainAndDecides) {
  HttpsServer server(TestCertificates::leaf());
  struct Row {
    TrustDisposition answer;
    bool throws;
    std::string host;
    bool accepted;
  };
  // A rejection or a throwing delegate stops the handshake: the server gets no request. The
  // connections accepted before for the same server must not be reused to skip the question.
  for (const auto& row : std::vector<Row>{
           {TrustDisposition::UseCredential, false, "dev.localhost", true},
           {TrustDisposition::PerformDefaultHandling, false, "127.0.0.1", true},
           {TrustDisposition::CancelAuthenticationChallenge, false, "dev.localhost", false},
           {TrustDisposition::CancelAuthenticationChallenge, true, "dev.localhost", false},
       }) {
    SCOPED_TRACE(row.host + (row.throws ? " throwing" : ""));
    auto delegate = std::make_shared<RecordingDelegate>(row.answer, row.throws);
    auto outcome =
        runDataTask(HttpSession::create({}, delegate), {"GET", server.url(row.host) + "/", {}, ""});
    if (row.accepted) {
      ASSERT_TRUE(outcome.completed);
      EXPECT_FALSE(outcome.error);
    } else {
      expectTransportError(outcome, CURLE_PEER_FAILED_VERIFICATION);
    }
    const auto challenges = delegate->challenges();
    ASSERT_EQ(challenges.size(), 1u);
    EXPECT_EQ(challenges[0].host, row.host);
    EXPECT_EQ(challenges[0].port, server.port());
    EXPECT_THAT(challenges[0].certificateChainDer,
                ElementsAre(TestCertificates::leaf().certificateDer,
                            TestCertificates::ca().certificateDer));
  }
  EXPECT_EQ(server.requests().size(), 2u);
}

class TransportSecurity : public HttpSessionTest {};

TEST_F(TransportSecurity, AnOptionLibcurlRefusesFailsTheTaskBeforeAnythingIsSent) {
  // A valid method token, but longer than libcurl takes for any text option: sending the
  // request without it would send a GET instead.
  HttpsServer server(TestCertificates::leaf());
  auto outcome =
      runDataTask(HttpSession::create(), {std::string(8'000'001, 'X'), server.url() + "/", {}, ""});
  expectTransportError(outcome, CURLE_BAD_FUNCTION_ARGUMENT);
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(TransportSecurity, SessionKeysGoOnlyToTheKeyLogFileOfTheEnvironment) {
  // libcurl reads SSLKEYLOGFILE once, as it starts, so the check runs in a fresh process.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        test::TempDir directory;
        setenv("SSLKEYLOGFILE", directory.file("process.keys").c_str(), 1);
        HttpsServer server(TestCertificates::leaf());
        auto fetch = [&] {
          return !runDataTask(HttpSession::create(), {"GET", server.url() + "/", {}, ""}).error;
        };
        const bool fetched = fetch();
        qvl::test::ScopedContext optIn(
            [&](Env& env) { env.tlsKeyLogFile = directory.file("host.keys"); });
        const bool fetchedAgain = fetch();
        namespace fs = std::filesystem;
        std::error_code ignored;
        const auto processKeys = fs::file_size(directory.file("process.keys"), ignored);
        const auto hostKeys = fs::file_size(directory.file("host.keys"), ignored);
        const auto mode = fs::status(directory.file("host.keys")).permissions();
        std::fprintf(stderr, "fetched %d %d, SSLKEYLOGFILE %lld bytes, host %lld bytes mode %o\n",
                     fetched, fetchedAgain, static_cast<long long>(processKeys),
                     static_cast<long long>(hostKeys), static_cast<unsigned>(mode));
        fs::remove_all(directory.path(), ignored);  // exit() skips destructors
        const bool ok = fetched && fetchedAgain && (processKeys == 0 || processKeys == ~0ULL) &&
                        hostKeys > 0 && hostKeys != ~0ULL &&
                        mode == (fs::perms::owner_read | fs::perms::owner_write);
        std::exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace qvl
