#include "quorvel/managers/QVLPushManager.h"

#include <atomic>
#include <utility>

#include "Managers/ServiceFixture.h"

namespace managers_test {
namespace {

class QVLPushManagerTest : public ServiceTest {
 protected:
  // Runs one operation and waits for its completion; "no completion" fails the test.
  template <class Start>
  std::optional<QVLError> await(const Start& start) {
    auto result = std::make_shared<std::pair<std::atomic<int>, std::optional<QVLError>>>();
    start([result](std::optional<QVLError> error) {
      result->second = std::move(error);
      ++result->first;
    });
    EXPECT_TRUE(eventually([&] { return result->first == 1; }));
    return result->second;
  }
  std::optional<QVLError> create(const std::string& token) {
    return await([&](auto done) { QVLPushManager::createEndpointWithDeviceToken(token, done); });
  }
  std::optional<QVLError> attach() {
    return await([](auto done) { QVLPushManager::updateGuestIdForEndpointWithCompletion(done); });
  }
  void answer(int status, std::string body) {
    server_.setHandler([=](const RecordedRequest&, httplib::Response& response) {
      response.status = status;
      response.set_content(body, "application/json");
    });
  }
};

TEST_F(QVLPushManagerTest, EndpointIsCreatedWithTheTokenAndTheGuestAttached) {
  EXPECT_EQ(QVLPushManager::stringFromDeviceToken(std::string("\x0a\xff\x00\x01", 4)), "0aff0001");
  const std::string token(32, '\xaa'), hex(64, 'a');
  for (std::int64_t guest : {0, 9}) {  // without a guest the id sent is 0
    SCOPED_TRACE(guest);
    if (guest) storeGuest(guest);
    const std::int64_t endpoint = 70 + guest;
    answer(201, R"({"id": )" + std::to_string(endpoint) + "}");
    EXPECT_EQ(create(token), std::nullopt);
    EXPECT_EQ(QVLPushManager::endpointId(), endpoint);
    EXPECT_EQ(attach(), std::nullopt);
    EXPECT_EQ(bodies("POST", "/v8/endpoints").back(),
              (json{{"guest_id", guest}, {"platform", "APNS"}, {"token", hex}}));
    EXPECT_EQ(bodies("PUT", "/v8/endpoints/" + std::to_string(endpoint)).back(),
              (json{{"guest_id", guest}}));
  }
}

TEST(QVLPushManagerSecurity, ABodyThatIsNotUtf8IsLeftEmptyInsteadOfThrowing) {
  qvl::HttpRequest request;
  EXPECT_NO_THROW(request = QVLPushManager::requestWithURL("https://localhost/v8/endpoints", "POST",
                                                           {{"token", "\xff\xfe"}}));
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.body, "");
}

TEST_F(QVLPushManagerTest, FailuresReachTheCompletionAndLeaveTheEndpointAlone) {
  bool calledBack = false;
  QVLPushManager::updateGuestIdForEndpointWithCompletion([&](std::optional<QVLError> error) {
    calledBack = true;
    EXPECT_EQ(error,
              (QVLError{"QVLPushManagerError", 1, qvl::Json{{"info", "No existing endpoint id"}}}));
  });
  EXPECT_TRUE(calledBack);  // at once, on this thread: no request was made
  EXPECT_TRUE(server_.requests().empty());

  const char* push = "QVLPushManagerError";
  const char* api = "QVLApiClientErrorDomain";
  struct Case {
    const char* name;
    bool attach;
    int status;
    const char* body;
    QVLError expected;
  };
  const std::vector<Case> cases = {
      {"create: no id", false, 201, R"({"name":"x"})", {push, 500, qvl::Json{{"name", "x"}}}},
      {"create: id 0", false, 200, R"({"id":0})", {push, 500, qvl::Json{{"id", 0}}}},
      {"create refused", false, 403, R"({"error":"no"})", {api, 403, qvl::Json{{"error", "no"}}}},
      {"attach refused", true, 404, R"({"e":"gone"})", {api, 404, qvl::Json{{"e", "gone"}}}},
  };
  QVLPushManager::setEndpointId(5);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    answer(c.status, c.body);
    EXPECT_EQ(c.attach ? attach() : create("\x01"), c.expected);
    EXPECT_EQ(QVLPushManager::endpointId(), 5);
  }
}

}  // namespace
}  // namespace managers_test
