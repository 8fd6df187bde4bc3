// Hostile answers over real TLS: every fault ends in exactly one completion, with the right
// error, within its time bound, and leaves the store as it was.

#include <curl/curl.h>
#include <zlib.h>

#include <algorithm>
#include <optional>
#include <string_view>
#include <thread>

#include "Managers/ServiceFixture.h"
#include "quorvel/records/QVLShop.h"
#include "support/FaultServer.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using qvl::test::FaultConnection;

constexpr std::chrono::milliseconds kIdle = 1s;
constexpr std::chrono::milliseconds kOverall = 4s;
constexpr std::size_t kCap = 1 << 20;
// What a fault may take beyond its bound on a busy machine.
constexpr auto kSlack = 1s;

// `size` zero bytes, gzip-compressed (about a thousandth of the size).
std::string gzipOfZeros(std::size_t size) {
  const std::string zeros(size, '\0');
  std::string out(compressBound(static_cast<uLong>(size)) + 32, '\0');
  z_stream z{};
  deflateInit2(&z, 9, Z_DEFLATED, 15 + 16, 9, Z_DEFAULT_STRATEGY);
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(zeros.data()));
  z.avail_in = static_cast<uInt>(zeros.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  deflate(&z, Z_FINISH);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

bool drip(FaultConnection& c, std::string_view bytes, std::chrono::milliseconds every) {
  for (char byte : bytes) {
    if (!c.pause(every) || !c.send(std::string(1, byte))) return false;
  }
  return true;
}

constexpr const char* kOkHead = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n";
const std::string kStoredAnswer = R"([{"id":1,"name":"kept"}])";

struct Fault {
  const char* name;
  std::function<void(FaultConnection&)> behave;  // after the request was read
  std::optional<std::string> domain;             // nullopt: success
  long long code;
  std::chrono::milliseconds atLeast, atMost;
};

const std::vector<Fault>& faults() {
  static const std::vector<Fault> table = {
      {"reset", [](FaultConnection& c) { c.reset(); }, kQVLTransportErrorDomain, CURLE_RECV_ERROR,
       0ms, kIdle},
      {"silence", [](FaultConnection& c) { c.pause(1h); }, kQVLTransportErrorDomain,
       CURLE_OPERATION_TIMEDOUT, kIdle, kIdle + kSlack},
      {"stall-after-headers",
       [](FaultConnection& c) {
         c.send(std::string(kOkHead) + "Content-Length: 100\r\n\r\n");
         c.pause(1h);
       },
       kQVLTransportErrorDomain, CURLE_OPERATION_TIMEDOUT, kIdle, kIdle + kSlack},
      {"truncated-body",
       [](FaultConnection& c) {
         c.send(std::string(kOkHead) + "Content-Length: 100\r\n\r\n[{\"id\"");
       },
       kQVLTransportErrorDomain, CURLE_PARTIAL_FILE, 0ms, kIdle},
      // The last eight bytes one every 0.3 idle limits: 2.4 idle limits in all, never idle.
      {"slow-drip",
       [](FaultConnection& c) {
         const std::string tail(8, ' ');
         c.send(std::string(kOkHead) + "Content-Length: " +
                std::to_string(kStoredAnswer.size() + tail.size()) + "\r\n\r\n" + kStoredAnswer);
         drip(c, tail, kIdle * 3 / 10);
       },
       std::nullopt, 0, kIdle * 24 / 10, kOverall},
      {"endless-drip",
       [](FaultConnection& c) {
         c.send(std::string(kOkHead) + "\r\n[");
         while (drip(c, " ", kIdle / 2)) {
         }
       },
       kQVLTransportErrorDomain, CURLE_OPERATION_TIMEDOUT, kOverall, kOverall + kSlack},
      {"oversize-body",
       [](FaultConnection& c) {
         c.send(std::string(kOkHead) + "\r\n[");  // no length: ends when the server closes
         const std::string chunk(64 << 10, ' ');
         for (std::size_t sent = 0; sent <= 4 * kCap && c.send(chunk); sent += chunk.size()) {
         }
       },
       kQVLTransportErrorDomain, CURLE_FILESIZE_EXCEEDED, 0ms, kIdle},
      {"compression-bomb",
       [bomb = gzipOfZeros(16 * kCap)](FaultConnection& c) {
         c.send(std::string(kOkHead) + "Content-Encoding: gzip\r\nContent-Length: " +
                std::to_string(bomb.size()) + "\r\n\r\n" + bomb);
       },
       kQVLTransportErrorDomain, CURLE_FILESIZE_EXCEEDED, 0ms, kIdle},
      {"nested-100000-deep",
       [](FaultConnection& c) {
         const std::string body = std::string(100000, '[') + std::string(100000, ']');
         c.send(std::string(kOkHead) + "Content-Length: " + std::to_string(body.size()) +
                "\r\n\r\n" + body);
       },
       kQVLMappingErrorDomain, 1, 0ms, kIdle},
  };
  return table;
}

class HostileServerTest : public managers_test::ServiceTest {
 protected:
  void SetUp() override {
    ServiceTest::SetUp();
    change([](qvl::Env& env) {
      qvl::HttpSessionConfiguration limits;
      limits.timeoutIntervalForRequest = kIdle;
      limits.timeoutIntervalForResource = kOverall;
      limits.maximumResponseBytes = kCap;
      limits.maximumDecodedBytes = kCap;
      env.httpSessionConfiguration = std::make_shared<const qvl::HttpSessionConfiguration>(limits);
    });
    serviceAt(faulty_.port());
  }

  // The request names its fault in the query: /v8/shops?include=<fault>.
  static void serve(FaultConnection& c) {
    if (!c.handshake() || !c.readRequest()) return;
    for (const auto& fault : faults()) {
      if (c.target().ends_with(std::string("include=") + fault.name)) return fault.behave(c);
    }
  }

  qvl::test::FaultServer faulty_{&HostileServerTest::serve};
};

TEST_F(HostileServerTest, EveryFaultCompletesOnceInTimeWithTheRightErrorAndTheStoreIntact) {
  auto realm = QVLRealm::realm();
  ASSERT_TRUE(realm);
  realm->write([&] {
    realm->addOrUpdate(
        QVLShop::newObjectWithJSONDictionary({{"id", 1}, {"name", "kept"}}, nullptr));
  });

  struct Outcome {
    int calls = 0;
    std::optional<QVLError> error;
    Clock::duration took{};
  };
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<Outcome> outcomes(faults().size());
  const Clock::time_point start = Clock::now();
  for (std::size_t i = 0; i < faults().size(); ++i) {
    QVLApiClient::sharedClient().getObjects(
        QVLShop::modelClass(), std::string(faults()[i].name), std::nullopt,
        [&, i](std::optional<qvl::AnyResults>, std::optional<QVLError> error) {
          std::lock_guard lock(mutex);
          Outcome& outcome = outcomes[i];
          if (++outcome.calls == 1) {
            outcome.error = std::move(error);
            outcome.took = Clock::now() - start;
          }
          changed.notify_all();
        });
  }
  {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, kOverall + 5 * kSlack, [&] {
      return std::all_of(outcomes.begin(), outcomes.end(), [](auto& o) { return o.calls > 0; });
    });
  }
  std::this_thread::sleep_for(kIdle);  // time for a second completion to show itself

  std::lock_guard lock(mutex);
  for (std::size_t i = 0; i < faults().size(); ++i) {
    const Fault& fault = faults()[i];
    const Outcome& outcome = outcomes[i];
    SCOPED_TRACE(fault.name);
    EXPECT_EQ(outcome.calls, 1);
    if (outcome.calls == 0) continue;
    if (fault.domain) {
      ASSERT_TRUE(outcome.error);
      EXPECT_EQ(outcome.error->domain, *fault.domain) << outcome.error->userInfo->dump();
      EXPECT_EQ(outcome.error->code, fault.code) << outcome.error->userInfo->dump();
    } else {
      EXPECT_FALSE(outcome.error) << outcome.error->userInfo->dump();
    }
    EXPECT_GE(outcome.took, fault.atLeast);
    EXPECT_LE(outcome.took, fault.atMost + kSlack);
  }
  qvl::Store::closeThreadHandles();
  auto shops = QVLRealm::realm()->objects<QVLShop>().snapshot();
  ASSERT_EQ(shops.size(), 1u);
  EXPECT_EQ(shops[0]->name(), "kept");
}

}  // namespace
