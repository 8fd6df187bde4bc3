#pragma once
// The engagement managers' tests: a loopback HTTPS service and a private environment per
// test (store, defaults, clock, main queue, notification centre, application, log).

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Models/RecordTestSupport.h"
#include "devserver/HttpsServer.h"
#include "quorvel/networking/PinValidator.h"
#include "quorvel/networking/QVLApiClient.h"
#include "quorvel/platform/Application.h"
#include "quorvel/platform/Clock.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/Executor.h"
#include "quorvel/platform/MainQueue.h"
#include "quorvel/platform/NotificationCenter.h"
#include "quorvel/records/QVLGuest.h"
#include "quorvel/records/QVLRealm.h"
#include "quorvel/testing/ManualClock.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/ScopedContext.h"
#include "support/TempDir.h"
#include "support/TestCertificates.h"

namespace managers_test {

using namespace std::chrono_literals;
using nlohmann::json;
using qvl::devserver::RecordedRequest;

/// Polls until `condition` holds; false after `timeout`.
using qvl::test::eventually;

/// A loopback port nobody listens on: connecting is refused at once.
inline int refusingPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  return ntohs(address.sin_port);
}

/// libcurl, sending each request to the port serviceAt() named last (0: the URL's own), so
/// that the service can move while the test's context and its managers stay.
class MovableService : public qvl::HttpTransport {
 public:
  void send(const std::shared_ptr<qvl::HttpSession>& session, qvl::HttpRequest request,
            qvl::DataTaskCompletion done) override {
    if (const int port = port_.load()) {
      const size_t authority = request.url.find("://") + 3;
      const size_t path = request.url.find('/', authority);
      const size_t colon = request.url.rfind(':', path);
      if (colon != std::string::npos && colon > authority) {
        request.url.replace(colon + 1, path - colon - 1, std::to_string(port));
      }
    }
    curl_->send(session, std::move(request), std::move(done));
  }
  void moveTo(int port) { port_ = port; }

 private:
  std::atomic<int> port_{0};
  std::shared_ptr<qvl::HttpTransport> curl_ = qvl::makeCurlTransport();
};

/// The standard worker pool, counting the jobs it finished (each answer's completion is one).
class CountingExecutor : public qvl::Executor {
 public:
  void post(std::function<void()> job) override {
    pool_->post([job = std::move(job), finished = finished_] {
      job();
      ++*finished;
    });
  }
  size_t finished() const { return finished_->load(); }

 private:
  std::shared_ptr<qvl::Executor> pool_ = qvl::threadPoolExecutor();
  std::shared_ptr<std::atomic<size_t>> finished_ = std::make_shared<std::atomic<size_t>>(0);
};

/// A host's own application: its tasks never expire; it records each task's ends and each
/// user-notification registration, and offers that registration.
class HostApplication : public qvl::Application {
 public:
  struct End {
    BackgroundTaskId id;
    std::string name;
    size_t answersBefore;  // answers() when the task was ended
  };
  explicit HostApplication(std::function<size_t()> answers = [] { return 0; })
      : answers_(std::move(answers)) {}

  BackgroundTaskId beginBackgroundTask(std::string name, std::function<void()>) override {
    std::lock_guard lock(mutex_);
    names_.push_back(std::move(name));
    return names_.size();
  }
  void endBackgroundTask(BackgroundTaskId id) override {
    {
      std::lock_guard lock(mutex_);
      ends_.push_back({id, id - 1 < names_.size() ? names_[id - 1] : "", answers_()});
    }
    ended_.notify_all();
  }
  bool waitForBackgroundTasks(std::chrono::milliseconds timeout) override {
    std::unique_lock lock(mutex_);
    return ended_.wait_for(lock, timeout, [&] { return ends_.size() >= names_.size(); });
  }
  int applicationIconBadgeNumber() const override { return 0; }
  void setApplicationIconBadgeNumber(int) override {}
  bool registerUserNotificationSettings(unsigned types,
                                        const std::vector<std::string>& categories) override {
    std::lock_guard lock(mutex_);
    registered_.emplace_back(types, categories);
    return true;
  }

  std::vector<End> ends() const {
    std::lock_guard lock(mutex_);
    return ends_;
  }
  std::vector<std::pair<unsigned, std::vector<std::string>>> registered() const {
    std::lock_guard lock(mutex_);
    return registered_;
  }

 private:
  std::function<size_t()> answers_;
  mutable std::mutex mutex_;
  std::condition_variable ended_;
  std::vector<std::string> names_;
  std::vector<End> ends_;
  std::vector<std::pair<unsigned, std::vector<std::string>>> registered_;
};

class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QVLApiClient::sharedClient().setEnvironment(QVLApiEnvironmentDev);
    QVLApiClient::sharedClient().setupPinning();
  }
  void TearDown() override { qvl::Store::closeThreadHandles(); }

  /// A new context on a changed environment for the rest of the test: the managers start
  /// afresh, as in the host's next run.
  void change(const std::function<void(qvl::Env&)>& edit) {
    service_->moveTo(0);
    changes_.push_back(std::make_unique<qvl::test::ScopedContext>(edit));
  }
  /// Sends the requests from now on to another port of this machine.
  void serviceAt(int port) { service_->moveTo(port); }

  /// The requests the service received with this method and path, bodies parsed.
  std::vector<json> bodies(const std::string& method, const std::string& path) const {
    std::vector<json> found;
    for (const auto& r : server_.requests()) {
      if (r.method == method && r.path == path) found.push_back(json::parse(r.body));
    }
    return found;
  }
  bool awaitBodies(const std::string& method, const std::string& path, size_t count) const {
    return eventually([&] { return bodies(method, path).size() >= count; });
  }

  std::shared_ptr<QVLGuest> storeGuest(std::int64_t id = 9) {
    auto guest = std::make_shared<QVLGuest>();
    guest->setGuestId(id);
    return records_test::save(guest);
  }

  /// Request completions (and other queued tasks) finished so far.
  size_t completions() const { return executor_->finished(); }

  qvl::test::TempDir directory_;
  qvl::devserver::HttpsServer server_{qvl::test::TestCertificates::leaf()};
  std::shared_ptr<qvl::ManualClock> clock_ = std::make_shared<qvl::ManualClock>();
  std::shared_ptr<qvl::MainQueue> mainQueue_ = std::make_shared<qvl::MainQueue>();
  std::shared_ptr<qvl::StandardApplication> application_ =
      std::make_shared<qvl::StandardApplication>();
  std::shared_ptr<CountingExecutor> executor_ = std::make_shared<CountingExecutor>();
  std::shared_ptr<MovableService> service_ = std::make_shared<MovableService>();
  qvl::test::ScopedContext env_{[this](qvl::Env& env) {
    env.clock = clock_;
    env.executor = executor_;
    env.mainQueue = mainQueue_;
    env.notificationCenter = std::make_shared<qvl::NotificationCenter>();
    env.application = application_;
    env.pinValidator = std::make_shared<qvl::PinValidator>();
    env.transport = service_;
    env.storeDirectory = directory_.file("store");
    env.userDefaultsPath = directory_.file("host.defaults");
    env.bundleInfo = {{"QuorvelSDK", {{"ApiKey", "test-api-key"}}}};
    env.apiDomain = "localhost:" + std::to_string(server_.port());
    env.publicKeyHashes = {qvl::test::TestCertificates::leaf().pin};
    env.trustAnchorsFile = qvl::test::TestCertificates::ca().certificatePath;
  }};
  qvl::test::LogCapture log_;
  std::vector<std::unique_ptr<qvl::test::ScopedContext>> changes_;  // undone first, latest first
};

}  // namespace managers_test
