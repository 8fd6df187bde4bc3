#include "quorvel/Platform/HttpSession.h"

#include "quorvel/Platform/Env.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/RunDataTask.h"
#include "support/SilentServer.h"
#include "support/TestCertificates.h"
#include "support/TestHttpsServer.h"

namespace qvl {
namespace {

using namespace std::chrono_literals;
using test::DataTaskOutcome;
using test::runDataTask;
using test::TestCertificates;
using test::TestHttpsServer;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

class HttpSessionTest : public ::testing::Test {
 protected:
  ScopedEnv env_{[](Env& env) { env.trustAnchorsFile = TestCertificates::ca().certificatePath; }};

  static void expectTransportError(const DataTaskOutcome& outcome, CURLcode code) {
    ASSERT_TRUE(outcome.completed);
    EXPECT_FALSE(outcome.response.has_value());
    EXPECT_TRUE(outcome.body.empty());
    ASSERT_TRUE(outcome.error.has_value());
    EXPECT_EQ(outcome.error->domain, kQVLTransportErrorDomain);
    EXPECT_EQ(outcome.error->code, code) << outcome.error->userInfo.value_or(nullptr).dump();
    ASSERT_TRUE(outcome.error->userInfo.has_value());
    EXPECT_FALSE(outcome.error->userInfo->value("message", "").empty());
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

int unusedLoopbackPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);  // nothing listens there any more
  return ntohs(address.sin_port);
}

TEST_F(HttpSessionTest, RequestsReachTheServerAsBuilt) {
  TestHttpsServer server;
  HttpSessionConfiguration config;
  config.additionalHeaders = {{"X-Session", "s"}, {"X-Shared", "from-session"}, {"Accept", "a/b"}};
  auto session = HttpSession::create(config);

  // Request headers win over session headers of the same name, whatever the case.
  auto get = runDataTask(session, {"GET",
                                   server.url() + "/v8/guests/12/relationships/posts"
                                                  "?include=shop&fields[posts]=title,message",
                                   {{"x-shared", "from-request"}, {"X-Request", "r"}},
                                   ""});
  ASSERT_TRUE(get.completed);
  ASSERT_FALSE(get.error) << get.error->userInfo->dump();
  auto post = runDataTask(session, {"POST", server.url() + "/v8/views", {}, R"({"a":[1,2]})"});
  auto put = runDataTask(
      session, {"PUT", server.url() + "/v8/guests/1/relationships/posts", {}, R"({"data":[]})"});
  auto emptyPut = runDataTask(session, {"PUT", server.url() + "/empty", {}, ""});
  auto remove = runDataTask(session, {"DELETE", server.url() + "/v8/endpoints/3", {}, ""});
  for (const auto* outcome : {&post, &put, &emptyPut, &remove}) {
    ASSERT_TRUE(outcome->completed);
    ASSERT_FALSE(outcome->error) << outcome->error->userInfo->dump();
  }

  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 5u);
  const auto& first = requests[0];
  EXPECT_EQ(first.method, "GET");
  EXPECT_EQ(first.path, "/v8/guests/12/relationships/posts");
  EXPECT_EQ(first.query, "include=shop&fields[posts]=title,message");  // literal on the wire
  EXPECT_EQ(first.header("X-Session"), "s");
  EXPECT_EQ(first.header("X-Request"), "r");
  EXPECT_EQ(first.header("X-Shared"), "from-request");
  EXPECT_EQ(first.headerCount("X-Shared"), 1u);
  EXPECT_EQ(first.header("Accept"), "a/b");
  EXPECT_EQ(first.headerCount("Accept"), 1u);
  EXPECT_TRUE(first.body.empty());

  EXPECT_EQ(requests[1].method, "POST");
  EXPECT_EQ(requests[1].body, R"({"a":[1,2]})");
  EXPECT_EQ(requests[1].header("X-Session"), "s");
  EXPECT_FALSE(requests[1].hasQuery);
  EXPECT_EQ(requests[2].method, "PUT");
  EXPECT_EQ(requests[2].body, R"({"data":[]})");
  EXPECT_EQ(requests[3].method, "PUT");
  EXPECT_EQ(requests[3].header("Content-Length"), "0");
  EXPECT_EQ(requests[4].method, "DELETE");
  EXPECT_EQ(requests[4].path, "/v8/endpoints/3");
}

TEST_F(HttpSessionTest, LargeBodiesAreSentWithoutWaitingForContinue) {
  TestHttpsServer server;
  const std::string body(3 * 1024 * 1024, 'x');
  auto outcome =
      runDataTask(HttpSession::create(),
                  {"POST", server.url() + "/big", {{"Content-Type", "text/plain"}}, body});
  ASSERT_TRUE(outcome.completed);
  ASSERT_FALSE(outcome.error) << outcome.error->userInfo->dump();
  EXPECT_EQ(outcome.response->statusCode, 200) << outcome.body;
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(server.requests()[0].body.size(), body.size());
  EXPECT_FALSE(server.requests()[0].header("Expect").has_value());
}

TEST_F(HttpSessionTest, EveryStatusIsAnAnswerAndRedirectsAreNotFollowed) {
  TestHttpsServer server;
  server.setHandler([](const test::RecordedRequest& request, httplib::Response& response) {
    if (request.path == "/missing") {
      response.status = 404;
      response.set_content(R"({"error":"not found"})", "application/json");
    } else if (request.path == "/broken") {
      response.status = 500;
      response.set_content("not json", "text/plain");
    } else if (request.path == "/moved") {
      response.status = 302;
      response.set_header("Location", "/elsewhere");
    } else {
      response.status = 200;
      response.set_header("X-Answer", "yes");
      response.set_content("ok", "text/plain");
    }
  });
  auto session = HttpSession::create();

  auto ok = runDataTask(session, {"GET", server.url() + "/fine", {}, ""});
  ASSERT_TRUE(ok.completed);
  ASSERT_FALSE(ok.error);
  ASSERT_TRUE(ok.response);
  EXPECT_EQ(ok.response->statusCode, 200);
  EXPECT_EQ(ok.body, "ok");
  EXPECT_EQ(ok.response->url, server.url() + "/fine");
  EXPECT_EQ(ok.response->header("x-answer"), "yes");
  EXPECT_EQ(ok.response->header("Content-Type"), "text/plain");

  auto missing = runDataTask(session, {"GET", server.url() + "/missing", {}, ""});
  ASSERT_TRUE(missing.completed);
  EXPECT_FALSE(missing.error);
  ASSERT_TRUE(missing.response);
  EXPECT_EQ(missing.response->statusCode, 404);
  EXPECT_EQ(missing.body, R"({"error":"not found"})");

  auto broken = runDataTask(session, {"POST", server.url() + "/broken", {}, "{}"});
  ASSERT_TRUE(broken.completed);
  EXPECT_FALSE(broken.error);
  ASSERT_TRUE(broken.response);
  EXPECT_EQ(broken.response->statusCode, 500);
  EXPECT_EQ(broken.body, "not json");

  auto moved = runDataTask(session, {"GET", server.url() + "/moved", {}, ""});
  ASSERT_TRUE(moved.completed);
  EXPECT_FALSE(moved.error);
  ASSERT_TRUE(moved.response);
  EXPECT_EQ(moved.response->statusCode, 302);
  EXPECT_EQ(moved.response->header("Location"), "/elsewhere");
  std::vector<std::string> paths;
  for (const auto& request : server.requests()) paths.push_back(request.path);
  EXPECT_THAT(paths, ElementsAre("/fine", "/missing", "/broken", "/moved"));
}

TEST_F(HttpSessionTest, CompletionRunsOnceOnTheSessionQueueNeverOnTheCaller) {
  TestHttpsServer server;
  auto session = HttpSession::create();
  std::atomic<int> calls{0};
  session->dataTask({"GET", server.url() + "/once", {}, ""},
                    [&](std::string, std::optional<HttpResponse>, std::optional<QVLError>) {
                      calls.fetch_add(1);
                    });
  // Failures must be delivered once too, and asynchronously even when detected up front.
  std::atomic<int> failureCalls{0};
  std::thread::id failureThread;
  std::mutex failureMutex;
  session->dataTask({"GET", server.url() + "/bad", {{"X-Bad", "a\r\nInjected: 1"}}, ""},
                    [&](std::string, std::optional<HttpResponse>, std::optional<QVLError> error) {
                      std::lock_guard lock(failureMutex);
                      failureThread = std::this_thread::get_id();
                      if (error && error->code == CURLE_BAD_FUNCTION_ARGUMENT) {
                        failureCalls.fetch_add(1);
                      }
                    });
  // The session queue is serial and completions are queued in order of finishing, so once a
  // later task's completion ran, any duplicate of the earlier ones would have run too.
  auto outcome = runDataTask(session, {"GET", server.url() + "/later", {}, ""});
  ASSERT_TRUE(outcome.completed);
  EXPECT_NE(outcome.thread, std::this_thread::get_id());
  EXPECT_TRUE(outcome.onCallbackQueue);
  auto flush = runDataTask(session, {"GET", server.url() + "/flush", {}, ""});
  ASSERT_TRUE(flush.completed);
  EXPECT_EQ(calls.load(), 1);
  EXPECT_EQ(failureCalls.load(), 1);
  {
    std::lock_guard lock(failureMutex);
    EXPECT_NE(failureThread, std::this_thread::get_id());
  }
  for (const auto& request : server.requests()) EXPECT_NE(request.path, "/bad");
}

TEST_F(HttpSessionTest, SessionStaysAliveUntilItsCompletionsRan) {
  TestHttpsServer server;
  server.setHandler([](const test::RecordedRequest&, httplib::Response& response) {
    std::this_thread::sleep_for(200ms);  // the caller has long dropped the session by now
    response.set_content("late", "text/plain");
  });
  std::mutex mutex;
  std::condition_variable done;
  std::optional<std::string> body;
  std::weak_ptr<HttpSession> weak;
  {
    auto session = HttpSession::create();
    weak = session;
    session->dataTask({"GET", server.url() + "/slow", {}, ""},
                      [&](std::string text, std::optional<HttpResponse>, std::optional<QVLError>) {
                        std::lock_guard lock(mutex);
                        body = text;
                        done.notify_all();
                      });
  }
  std::unique_lock lock(mutex);
  ASSERT_TRUE(done.wait_for(lock, 30s, [&] { return body.has_value(); }));
  EXPECT_EQ(*body, "late");
  lock.unlock();
  // Released once its last completion finished.
  for (int i = 0; i < 200 && !weak.expired(); ++i) std::this_thread::sleep_for(10ms);
  EXPECT_TRUE(weak.expired());
}

TEST_F(HttpSessionTest, FiftyRequestsAreInFlightAtOnce) {
  constexpr size_t kRequests = 50;
  TestHttpsServer server;
  // Every handler holds its answer until all requests have arrived, which happens only if
  // the client really has them all in flight together.
  std::atomic<int> sawAll{0};
  server.setHandler([&](const test::RecordedRequest& request, httplib::Response& response) {
    if (server.waitForRequests(kRequests, 30s)) sawAll.fetch_add(1);
    response.set_content(request.path, "text/plain");
  });
  auto session = HttpSession::create();
  std::mutex mutex;
  std::condition_variable changed;
  std::map<std::string, int> completions;
  for (size_t i = 0; i < kRequests; ++i) {
    const std::string path = "/r" + std::to_string(i);
    session->dataTask({"GET", server.url() + path, {}, ""},
                      [&, path](std::string body, std::optional<HttpResponse> response,
                                std::optional<QVLError> error) {
                        std::lock_guard lock(mutex);
                        if (!error && response && response->statusCode == 200 && body == path) {
                          ++completions[path];
                        } else {
                          ++completions["failed"];
                        }
                        changed.notify_all();
                      });
  }
  std::unique_lock lock(mutex);
  changed.wait_for(lock, 60s, [&] {
    int total = 0;
    for (const auto& entry : completions) total += entry.second;
    return total >= static_cast<int>(kRequests);
  });
  EXPECT_EQ(completions.count("failed"), 0u);
  EXPECT_EQ(completions.size(), kRequests);
  for (const auto& [path, count] : completions) EXPECT_EQ(count, 1) << path;
  EXPECT_EQ(sawAll.load(), static_cast<int>(kRequests));
}

TEST_F(HttpSessionTest, NoAnswerEndsInATransportError) {
  HttpSessionConfiguration configuration;
  configuration.timeoutIntervalForRequest = 1s;
  auto session = HttpSession::create(configuration);

  auto refused = runDataTask(
      session, {"GET", "https://127.0.0.1:" + std::to_string(unusedLoopbackPort()) + "/", {}, ""});
  expectTransportError(refused, CURLE_COULDNT_CONNECT);

  // A server that accepts and never writes: stuck in the TLS handshake, or after a plain
  // HTTP request. Both must end with a time-out rather than hang.
  test::SilentServer silent;
  const std::string port = std::to_string(silent.port());
  auto handshake = runDataTask(session, {"GET", "https://127.0.0.1:" + port + "/", {}, ""}, 60s);
  expectTransportError(handshake, CURLE_OPERATION_TIMEDOUT);
  auto answer = runDataTask(session, {"GET", "http://127.0.0.1:" + port + "/", {}, ""}, 60s);
  expectTransportError(answer, CURLE_OPERATION_TIMEDOUT);
  EXPECT_GE(silent.acceptedCount(), 2u);

  auto malformed = runDataTask(session, {"GET", "not a url", {}, ""});
  expectTransportError(malformed, CURLE_URL_MALFORMAT);
}

TEST_F(HttpSessionTest, UntrustedServersAreRefusedBeforeAnyRequest) {
  auto delegate = std::make_shared<RecordingDelegate>(TrustDisposition::UseCredential);
  auto session = HttpSession::create({}, delegate);

  // A certificate from no trusted authority; the delegate cannot overrule that.
  TestHttpsServer untrusted(TestCertificates::untrustedLeaf());
  auto outcome = runDataTask(session, {"GET", untrusted.url() + "/", {}, ""});
  expectTransportError(outcome, CURLE_PEER_FAILED_VERIFICATION);
  EXPECT_TRUE(untrusted.requests().empty());

  // A trusted certificate that does not name the host.
  TestHttpsServer server;
  auto wrongName = runDataTask(session, {"GET", server.url("other.localhost") + "/", {}, ""});
  ASSERT_TRUE(wrongName.completed);
  ASSERT_TRUE(wrongName.error);
  EXPECT_EQ(wrongName.error->domain, kQVLTransportErrorDomain);
  EXPECT_THAT(wrongName.error->code,
              ::testing::AnyOf(CURLE_PEER_FAILED_VERIFICATION, CURLE_SSL_CONNECT_ERROR));
  EXPECT_TRUE(delegate->challenges().empty());

  // Without the test anchors only the system's authorities are trusted.
  ScopedEnv systemAnchors([](Env& env) { env.trustAnchorsFile.clear(); });
  auto systemTrust = runDataTask(HttpSession::create(), {"GET", server.url() + "/", {}, ""});
  expectTransportError(systemTrust, CURLE_PEER_FAILED_VERIFICATION);
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(HttpSessionTest, DelegateSeesTheVerifiedChainAndDecides) {
  TestHttpsServer server;

  auto accepting = std::make_shared<RecordingDelegate>(TrustDisposition::UseCredential);
  auto accepted =
      runDataTask(HttpSession::create({}, accepting), {"GET", server.url() + "/a", {}, ""});
  ASSERT_TRUE(accepted.completed);
  ASSERT_FALSE(accepted.error) << accepted.error->userInfo->dump();
  const auto challenges = accepting->challenges();
  ASSERT_EQ(challenges.size(), 1u);
  EXPECT_EQ(challenges[0].host, "dev.localhost");
  EXPECT_EQ(challenges[0].port, server.port());
  EXPECT_THAT(
      challenges[0].certificateChainDer,
      ElementsAre(TestCertificates::leaf().certificateDer, TestCertificates::ca().certificateDer));

  auto defaulting = std::make_shared<RecordingDelegate>(TrustDisposition::PerformDefaultHandling);
  auto byDefault = runDataTask(HttpSession::create({}, defaulting),
                               {"GET", server.url("127.0.0.1") + "/b", {}, ""});
  ASSERT_TRUE(byDefault.completed);
  EXPECT_FALSE(byDefault.error);
  ASSERT_EQ(defaulting->challenges().size(), 1u);
  EXPECT_EQ(defaulting->challenges()[0].host, "127.0.0.1");

  // A rejection or a throwing delegate stops the handshake: the server gets no request. The
  // connections accepted above for the same server must not be reused to skip the question.
  for (bool throws : {false, true}) {
    auto rejecting = std::make_shared<RecordingDelegate>(
        TrustDisposition::CancelAuthenticationChallenge, throws);
    auto refused =
        runDataTask(HttpSession::create({}, rejecting), {"GET", server.url() + "/c", {}, ""});
    expectTransportError(refused, CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(rejecting->challenges().size(), 1u);
  }
  std::vector<std::string> paths;
  for (const auto& request : server.requests()) paths.push_back(request.path);
  EXPECT_THAT(paths, ElementsAre("/a", "/b"));
}

}  // namespace
}  // namespace qvl
