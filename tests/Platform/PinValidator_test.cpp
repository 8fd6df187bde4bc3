#include "quorvel/Platform/PinValidator.h"

#include "quorvel/Platform/Env.h"

#include <curl/curl.h>

#include <fstream>
#include <regex>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "quorvel/Platform/BundleInfo.h"
#include "support/RunDataTask.h"
#include "support/TestCertificates.h"
#include "support/TestHttpsServer.h"

namespace qvl {
namespace {

using namespace std::chrono_literals;
using test::runDataTask;
using test::TestCertificates;
using test::TestHttpsServer;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

// What the service client does with a challenge: ask the validator, else default handling.
class PinningDelegate : public HttpSessionDelegate {
 public:
  explicit PinningDelegate(PinValidator& validator) : validator_(validator) {}
  TrustDisposition didReceiveServerTrustChallenge(const ServerTrustChallenge& challenge) override {
    TrustDisposition disposition = TrustDisposition::PerformDefaultHandling;
    return validator_.handleChallenge(challenge, &disposition)
               ? disposition
               : TrustDisposition::PerformDefaultHandling;
  }

 private:
  PinValidator& validator_;
};

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

std::string readFile(const std::string& path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

TEST(PinValidatorTest, PublicKeyHashIsTheSha256OfTheSubjectPublicKeyInfo) {
  // The test pins come from the keys themselves, independently of the certificates.
  EXPECT_EQ(PinValidator::publicKeyHash(TestCertificates::leaf().certificateDer),
            TestCertificates::leaf().pin);
  EXPECT_EQ(PinValidator::publicKeyHash(TestCertificates::ca().certificateDer),
            TestCertificates::ca().pin);
  EXPECT_EQ(TestCertificates::leaf().pin.size(), 44u);
  EXPECT_NE(TestCertificates::leaf().pin, TestCertificates::otherLeaf().pin);
  EXPECT_EQ(PinValidator::publicKeyHash("not a certificate"), "");
  EXPECT_EQ(PinValidator::publicKeyHash(""), "");
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
}

TEST(PinValidatorTest, MostSpecificDomainDecidesAndAnyChainCertificateMayMatch) {
  PinValidator validator;
  validator.configure({{pinnedDomain("example", true, {TestCertificates::otherLeaf().pin}),
                        pinnedDomain("api.example", true, {TestCertificates::ca().pin})}});
  TrustDisposition disposition{};
  // api.example pins the CA, which is in the chain but is not the leaf.
  ASSERT_TRUE(validator.handleChallenge(challengeFor("x.api.example"), &disposition));
  EXPECT_EQ(disposition, TrustDisposition::UseCredential);
  // Without the CA in the chain nothing pinned is left.
  ASSERT_TRUE(validator.handleChallenge(
      challengeFor("x.api.example", {TestCertificates::leaf().certificateDer}), &disposition));
  EXPECT_EQ(disposition, TrustDisposition::CancelAuthenticationChallenge);
  // The broader domain applies elsewhere and pins another key.
  ASSERT_TRUE(validator.handleChallenge(challengeFor("www.example"), &disposition));
  EXPECT_EQ(disposition, TrustDisposition::CancelAuthenticationChallenge);
  ASSERT_TRUE(validator.handleChallenge(
      challengeFor("www.example", {TestCertificates::otherLeaf().certificateDer}), &disposition));
  EXPECT_EQ(disposition, TrustDisposition::UseCredential);
  // An empty or unreadable chain matches nothing.
  ASSERT_TRUE(validator.handleChallenge(challengeFor("www.example", {}), &disposition));
  EXPECT_EQ(disposition, TrustDisposition::CancelAuthenticationChallenge);
  ASSERT_TRUE(validator.handleChallenge(challengeFor("www.example", {"junk"}), &disposition));
  EXPECT_EQ(disposition, TrustDisposition::CancelAuthenticationChallenge);
}

TEST(PinValidatorTest, ANewConfigurationReplacesTheOldOne) {
  PinValidator validator;
  EXPECT_FALSE(validator.isConfigured());
  EXPECT_FALSE(validator.configuration().has_value());
  TrustDisposition disposition = TrustDisposition::UseCredential;
  EXPECT_FALSE(validator.handleChallenge(challengeFor("api.example"), &disposition));

  validator.configure({{pinnedDomain("api.example", true, {TestCertificates::leaf().pin},
                                     {"https://dev.example/ssl-reporting"})}});
  EXPECT_TRUE(validator.isConfigured());
  ASSERT_TRUE(validator.configuration().has_value());
  ASSERT_EQ(validator.configuration()->pinnedDomains.size(), 1u);
  EXPECT_THAT(validator.configuration()->pinnedDomains[0].reportUris,
              ElementsAre("https://dev.example/ssl-reporting"));

  validator.configure({{pinnedDomain("play.example", true, {TestCertificates::leaf().pin})}});
  EXPECT_FALSE(validator.handleChallenge(challengeFor("api.example"), &disposition));
  EXPECT_TRUE(validator.handleChallenge(challengeFor("play.example"), &disposition));
  EXPECT_EQ(validator.configuration()->pinnedDomains[0].domain, "play.example");
}

std::vector<std::string> reportedHosts(const TestHttpsServer& reports) {
  std::vector<std::string> hosts;
  for (const auto& request : reports.requests()) {
    hosts.push_back(nlohmann::json::parse(request.body).value("hostname", ""));
  }
  return hosts;
}

class PinningTest : public ::testing::Test {
 protected:
  ScopedEnv env_{[](Env& env) {
    env.trustAnchorsFile = TestCertificates::ca().certificatePath;
    env.bundleInfo = {{"CFBundleIdentifier", "com.example.host"},
                      {"CFBundleShortVersionString", "1.2.3"}};
  }};

  test::DataTaskOutcome get(const std::string& url) {
    return runDataTask(HttpSession::create({}, delegate_), {"GET", url, {}, ""});
  }

  PinValidator validator_;
  std::shared_ptr<PinningDelegate> delegate_ = std::make_shared<PinningDelegate>(validator_);
};

TEST_F(PinningTest, PinnedKeysAreAcceptedAndOtherDomainsUseDefaultTrust) {
  TestHttpsServer server;
  // Not configured yet: default handling.
  auto unconfigured = get(server.url() + "/unconfigured");
  ASSERT_TRUE(unconfigured.completed);
  EXPECT_FALSE(unconfigured.error);

  validator_.configure({{pinnedDomain("localhost", true, {TestCertificates::leaf().pin})}});
  auto pinnedLeaf = get(server.url("api.localhost") + "/leaf");
  ASSERT_TRUE(pinnedLeaf.completed);
  EXPECT_FALSE(pinnedLeaf.error);

  validator_.configure({{pinnedDomain("localhost", true, {TestCertificates::ca().pin})}});
  auto pinnedCa = get(server.url() + "/ca");
  ASSERT_TRUE(pinnedCa.completed);
  EXPECT_FALSE(pinnedCa.error);

  // A wrong pin for a domain this host is not part of changes nothing.
  validator_.configure(
      {{pinnedDomain("quorvel.example", true, {TestCertificates::otherLeaf().pin})}});
  auto elsewhere = get(server.url() + "/elsewhere");
  ASSERT_TRUE(elsewhere.completed);
  EXPECT_FALSE(elsewhere.error);

  std::vector<std::string> paths;
  for (const auto& request : server.requests()) paths.push_back(request.path);
  EXPECT_THAT(paths, ElementsAre("/unconfigured", "/leaf", "/ca", "/elsewhere"));
}

TEST_F(PinningTest, WrongPinRefusesTheHandshakeAndReportsTheFailureOnce) {
  TestHttpsServer server;
  TestHttpsServer reports;
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
  const auto json = nlohmann::json::parse(report.body);
  EXPECT_EQ(json["app-bundle-id"], "com.example.host");
  EXPECT_EQ(json["app-version"], "1.2.3");
  EXPECT_EQ(json["hostname"], "dev.localhost");
  EXPECT_EQ(json["port"], server.port());
  EXPECT_EQ(json["noted-hostname"], "localhost");
  EXPECT_EQ(json["include-subdomains"], true);
  EXPECT_EQ(json["enforce-pinning"], true);
  EXPECT_EQ(json["validation-result"], 1);
  EXPECT_EQ(json["known-pins"],
            nlohmann::json::array({"pin-sha256=\"" + TestCertificates::otherLeaf().pin + "\""}));
  ASSERT_TRUE(json["validated-certificate-chain"].is_array());
  EXPECT_EQ(json["validated-certificate-chain"],
            nlohmann::json::array({readFile(TestCertificates::leaf().certificatePath),
                                   readFile(TestCertificates::ca().certificatePath)}));
  EXPECT_TRUE(std::regex_match(json["date-time"].get<std::string>(),
                               std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")));

  // The same failure again is not reported; one on another host is. The repeated report
  // would have been started first, so it would arrive no later than the other one.
  ASSERT_TRUE(get(server.url() + "/again").error);
  ASSERT_TRUE(get(server.url("api.localhost") + "/other-host").error);
  ASSERT_TRUE(reports.waitForRequests(2, 30s));
  EXPECT_THAT(reportedHosts(reports), UnorderedElementsAre("dev.localhost", "api.localhost"));
  // Forgetting sent reports makes the first failure reportable again.
  validator_.resetReportCacheForTesting();
  ASSERT_TRUE(get(server.url() + "/after-reset").error);
  ASSERT_TRUE(reports.waitForRequests(3, 30s));
  // A duplicate sent earlier would have arrived by now.
  EXPECT_THAT(reportedHosts(reports),
              UnorderedElementsAre("dev.localhost", "api.localhost", "dev.localhost"));
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(PinningTest, ReportsLeaveOutAbsentApplicationDetails) {
  ScopedEnv noDetails([](Env& env) { env.bundleInfo = nlohmann::json::object(); });
  TestHttpsServer server;
  TestHttpsServer reports;
  validator_.configure({{pinnedDomain("dev.localhost", false, {TestCertificates::otherLeaf().pin},
                                      {reports.url("127.0.0.1") + "/r"})}});
  ASSERT_TRUE(get(server.url() + "/").error);
  ASSERT_TRUE(reports.waitForRequests(1, 30s));
  const auto json = nlohmann::json::parse(reports.requests()[0].body);
  EXPECT_FALSE(json.contains("app-bundle-id"));
  EXPECT_FALSE(json.contains("app-version"));
  EXPECT_EQ(json["noted-hostname"], "dev.localhost");
  EXPECT_EQ(json["include-subdomains"], false);
}

}  // namespace
}  // namespace qvl
