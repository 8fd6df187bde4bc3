#include "quorvel/networking/PinValidator.h"
#include "support/ScopedContext.h"

#include "quorvel/platform/Clock.h"
#include "quorvel/platform/Env.h"
#include "quorvel/testing/ManualClock.h"

#include <curl/curl.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "devserver/HttpsServer.h"
#include "support/RunDataTask.h"
#include "support/TempDir.h"
#include "support/TestCertificates.h"

namespace qvl {
namespace {

using namespace std::chrono_literals;
using devserver::HttpsServer;
using test::runDataTask;
using test::TestCertificates;
using ::testing::UnorderedElementsAre;

PinnedDomainConfiguration pinnedDomain(std::string domain, bool includeSubdomains,
                                       std::vector<std::string> pins,
                                       std::vector<std::string> reportUris = {}) {
  return {std::move(domain), includeSubdomains, std::move(reportUris), std::move(pins)};
}

ServerTrustChallenge challengeFor(std::string host, std::vector<std::string> chain = {
                                                        TestCertificates::leaf().certificateDer,
                                                        TestCertificates::ca().certificateDer}) {
  return {std::move(host), 443, std::move(chain)};
}

TEST(PinValidatorTest, OnlyHostsOfAPinnedDomainAreHandled) {
  PinValidator validator;
  validator.configure({{pinnedDomain("api.example", true, {TestCertificates::leaf().pin}),
                        pinnedDomain("exact.example", false, {TestCertificates::leaf().pin})}});
  for (const char* host : {"api.example", "API.Example", "x.api.example", "a.b.api.example",
                           "api.example.", "exact.example", "EXACT.example"}) {
    TrustDisposition disposition = TrustDisposition::CancelAuthenticationChallenge;
    EXPECT_TRUE(validator.handleChallenge(challengeFor(host), &disposition)) << host;
    EXPECT_EQ(disposition, TrustDisposition::UseCredential) << host;
  }
  for (const char* host : {"evilapi.example", "xapi.example", "example", "api.example.evil",
                           "pi.example", "x.exact.example", "other.test", ""}) {
    TrustDisposition disposition = TrustDisposition::PerformDefaultHandling;
    EXPECT_FALSE(validator.handleChallenge(challengeFor(host), &disposition)) << host;
    EXPECT_EQ(disposition, TrustDisposition::PerformDefaultHandling) << host;
  }
  // A new configuration replaces the old one.
  validator.configure({{pinnedDomain("play.example", true, {TestCertificates::leaf().pin})}});
  TrustDisposition disposition{};
  EXPECT_FALSE(validator.handleChallenge(challengeFor("api.example"), &disposition));
  EXPECT_TRUE(validator.handleChallenge(challengeFor("play.example"), &disposition));
  EXPECT_TRUE(validator.isConfigured());
  PinValidator unconfigured;
  EXPECT_FALSE(unconfigured.isConfigured());
  EXPECT_FALSE(unconfigured.handleChallenge(challengeFor("api.example"), &disposition));
}

TEST(PinValidatorTest, MostSpecificDomainDecidesAndAnyChainCertificateMayMatch) {
  PinValidator validator;
  validator.configure({{pinnedDomain("example", true, {TestCertificates::otherLeaf().pin}),
                        pinnedDomain("api.example", true, {TestCertificates::ca().pin})}});
  const auto& leaf = TestCertificates::leaf().certificateDer;
  const auto& ca = TestCertificates::ca().certificateDer;
  const auto& other = TestCertificates::otherLeaf().certificateDer;
  struct Row {
    const char* host;
    std::vector<std::string> chain;
    bool accepted;
  };
  for (const auto& row : std::vector<Row>{
           {"x.api.example", {leaf, ca}, true},  // the pinned CA need not be the leaf
           {"x.api.example", {leaf}, false},
           {"www.example", {leaf, ca}, false},  // the broader domain pins another key
           {"www.example", {other}, true},
           {"www.example", {}, false},
           {"www.example", {"junk"}, false},
       }) {
    TrustDisposition disposition{};
    ASSERT_TRUE(validator.handleChallenge(challengeFor(row.host, row.chain), &disposition));
    EXPECT_EQ(disposition, row.accepted ? TrustDisposition::UseCredential
                                        : TrustDisposition::CancelAuthenticationChallenge)
        << row.host << " with " << row.chain.size() << " certificates";
  }
}

std::vector<std::string> reportedHosts(const HttpsServer& reports) {
  std::vector<std::string> hosts;
  for (const auto& request : reports.requests()) {
    hosts.push_back(nlohmann::json::parse(request.body).value("hostname", ""));
  }
  return hosts;
}

// Sessions whose delegate does what the service client does with a challenge: ask the
// validator, else default handling.
class PinningTest : public ::testing::Test, public HttpSessionDelegate {
 protected:
  TrustDisposition didReceiveServerTrustChallenge(const ServerTrustChallenge& challenge) override {
    TrustDisposition disposition = TrustDisposition::PerformDefaultHandling;
    validator_.handleChallenge(challenge, &disposition);
    return disposition;
  }
  test::DataTaskOutcome get(const std::string& url) {
    // The fixture outlives every session it makes.
    std::shared_ptr<HttpSessionDelegate> self(std::shared_ptr<void>(), this);
    return runDataTask(HttpSession::create({}, self), {"GET", url, {}, ""});
  }

  std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>();
  qvl::test::ScopedContext env_{[this](Env& env) {
    env.clock = clock_;
    env.trustAnchorsFile = TestCertificates::ca().certificatePath;
    env.bundleInfo = {{"CFBundleIdentifier", "com.example.host"},
                      {"CFBundleShortVersionString", "1.2.3"}};
  }};
  PinValidator validator_;
};

TEST_F(PinningTest, WrongPinRefusesTheHandshakeAndReportsTheFailureOnceADay) {
  HttpsServer server(TestCertificates::leaf());
  HttpsServer reports(TestCertificates::leaf());
  const std::string reportUri = reports.url("127.0.0.1") + "/ssl-reporting";
  validator_.configure(
      {{pinnedDomain("localhost", true, {TestCertificates::otherLeaf().pin}, {reportUri})}});

  auto refused = get(server.url() + "/v8/shops");
  ASSERT_TRUE(refused.completed);
  ASSERT_TRUE(refused.error);
  EXPECT_EQ(refused.error->domain, kQVLTransportErrorDomain);
  EXPECT_EQ(refused.error->code, CURLE_PEER_FAILED_VERIFICATION);
  EXPECT_TRUE(server.requests().empty());

  ASSERT_TRUE(reports.waitForRequests(1, 30s));
  const auto report = reports.requests()[0];
  EXPECT_EQ(report.method, "POST");
  EXPECT_EQ(report.path, "/ssl-reporting");
  EXPECT_EQ(report.header("Content-Type"), "application/json");
  auto json = nlohmann::json::parse(report.body);
  EXPECT_EQ(json["date-time"], "2026-01-01T00:00:00Z");  // the manual clock's start
  json.erase("date-time");
  EXPECT_EQ(json,
            (nlohmann::json{
                {"app-bundle-id", "com.example.host"},
                {"app-version", "1.2.3"},
                {"hostname", "dev.localhost"},
                {"port", server.port()},
                {"noted-hostname", "localhost"},
                {"include-subdomains", true},
                {"enforce-pinning", true},
                {"validation-result", 1},
                {"known-pins", nlohmann::json::array(
                                   {"pin-sha256=\"" + TestCertificates::otherLeaf().pin + "\""})},
                {"validated-certificate-chain",
                 nlohmann::json::array({test::readFile(TestCertificates::leaf().certificatePath),
                                        test::readFile(TestCertificates::ca().certificatePath)})},
            }));

  // The same failure again is not reported; one on another host is. The repeated report
  // would have been started first, so it would arrive no later than the other one.
  ASSERT_TRUE(get(server.url() + "/again").error);
  ASSERT_TRUE(get(server.url("api.localhost") + "/other-host").error);
  ASSERT_TRUE(reports.waitForRequests(2, 30s));
  EXPECT_THAT(reportedHosts(reports), UnorderedElementsAre("dev.localhost", "api.localhost"));
  // A day later the first failure is reportable again.
  clock_->advance(std::chrono::hours(24));
  ASSERT_TRUE(get(server.url() + "/after-reset").error);
  ASSERT_TRUE(reports.waitForRequests(3, 30s));
  // A duplicate sent earlier would have arrived by now.
  EXPECT_THAT(reportedHosts(reports),
              UnorderedElementsAre("dev.localhost", "api.localhost", "dev.localhost"));

  // Absent application details are left out; the domain's own settings go in.
  qvl::test::ScopedContext noDetails([](Env& env) { env.bundleInfo = qvl::Json::object(); });
  validator_.configure(
      {{pinnedDomain("dev.localhost", false, {TestCertificates::otherLeaf().pin}, {reportUri})}});
  clock_->advance(std::chrono::hours(24));
  ASSERT_TRUE(get(server.url() + "/bare").error);
  ASSERT_TRUE(reports.waitForRequests(4, 30s));
  const auto bare = nlohmann::json::parse(reports.requests()[3].body);
  EXPECT_FALSE(bare.contains("app-bundle-id"));
  EXPECT_FALSE(bare.contains("app-version"));
  EXPECT_EQ(bare["noted-hostname"], "dev.localhost");
  EXPECT_EQ(bare["include-subdomains"], false);
  EXPECT_TRUE(server.requests().empty());
}

}  // namespace
}  // namespace qvl
