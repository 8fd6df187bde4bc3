// Fetches 10,000 posts (2 periods, 3 fields and a thumbnail each) with the service client
// from a loopback HTTPS server, end to end: request, parse, merge, store, stale-record
// removal, until the completion runs. The floor for the same work: the same bytes fetched
// with plain libcurl, parsed by the same JSON library and the same rows written into the
// library's layout (tables, columns, key indexes, list tables, date encoding) with plain
// prepared statements in one transaction. Both sides open an existing store file inside the
// timed region. Every variant runs in a process of its own, so that its peak memory is its
// own; the variants alternate over the rounds and the medians are reported. Also times the
// stale-record test both ways: a linear search of the answer's keys for every stored key, and
// the store's own removal.
//
//   bench_fetch [posts]     prints the times, peak memory, and the ratios line.

#include <curl/curl.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "devserver/HttpsServer.h"
#include "quorvel/networking/HttpSession.h"
#include "quorvel/networking/QVLApiClient.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/UserDefaults.h"
#include "quorvel/records/QVLPost.h"
#include "quorvel/records/QVLRealm.h"
#include "support/BenchData.h"
#include "support/PostsFloor.h"
#include "support/ScopedContext.h"
#include "support/TempDir.h"
#include "support/TestCertificates.h"

namespace {

using Clock = std::chrono::steady_clock;
using qvl::test::TestCertificates;

double msSince(Clock::time_point start, Clock::time_point end = Clock::now()) {
  return std::chrono::duration<double, std::milli>(end - start).count();
}

using qvl::bench::median;

[[noreturn]] void fail(const std::string& message) {
  std::fprintf(stderr, "bench_fetch: %s\n", message.c_str());
  std::exit(1);
}

// The client path, into an empty store: returns the time until the completion starts.
double fetchOnce(std::size_t expected) {
  std::promise<void> finished;
  auto done = finished.get_future();
  Clock::time_point end;
  std::size_t count = 0;
  std::optional<QVLError> failure;
  const auto start = Clock::now();
  QVLApiClient::sharedClient().getObjects<QVLPost>(
      std::nullopt, std::nullopt,
      [&](std::optional<qvl::Results<QVLPost>> posts, std::optional<QVLError> error) {
        end = Clock::now();
        count = posts ? posts->size() : 0;
        failure = std::move(error);
        finished.set_value();
      });
  if (done.wait_for(std::chrono::minutes(5)) != std::future_status::ready) {
    fail("the fetch did not complete");
  }
  if (failure) fail("the fetch failed: " + failure->domain + " " + std::to_string(failure->code));
  if (count != expected) {
    fail("the fetch stored " + std::to_string(count) + " posts, expected " +
         std::to_string(expected));
  }
  return msSince(start, end);
}

std::size_t appendBody(char* data, std::size_t size, std::size_t count, void* body) {
  static_cast<std::string*>(body)->append(data, size * count);
  return size * count;
}

// The floor: plain libcurl (trusting the test CA) for the same bytes, then the plain
// SQLite import into the library's layout at `databasePath`.
double floorOnce(const std::string& url, const std::string& databasePath, std::size_t expected) {
  const auto start = Clock::now();
  CURL* curl = curl_easy_init();
  std::string body;
  curl_slist* headers = curl_slist_append(nullptr, "Accept: application/json");
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_CAINFO, TestCertificates::ca().certificatePath.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");  // as the client asks
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, appendBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
  const CURLcode result = curl_easy_perform(curl);
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  curl_easy_cleanup(curl);
  curl_slist_free_all(headers);
  if (result != CURLE_OK || status != 200) {
    fail(std::string("floor fetch failed: ") + curl_easy_strerror(result) + ", status " +
         std::to_string(status));
  }
  qvl::bench::PostsFloor floor(databasePath);
  if (floor.importPosts(body) != expected) fail("the floor stored the wrong number of posts");
  return msSince(start);
}

// The stale-record test done as a linear search of a plain list of the answer's keys for
// every stored key. Returns the time; `stale` receives how many keys were missing.
double linearStaleTest(const std::vector<std::int64_t>& storedKeys,
                       const std::vector<std::int64_t>& answerKeys, std::size_t* stale) {
  const auto start = Clock::now();
  std::size_t missing = 0;
  for (std::int64_t key : storedKeys) {
    if (std::find(answerKeys.begin(), answerKeys.end(), key) == answerKeys.end()) ++missing;
  }
  const double ms = msSince(start);
  *stale = missing;
  return ms;
}

// The store's removal of what an answer did not list, on a store holding the answer.
double storeStaleRemoval(const std::vector<std::int64_t>& answerKeys, std::size_t expected) {
  auto realm = QVLRealm::realm();
  if (!realm) fail("the store could not be opened");
  const auto start = Clock::now();
  realm->write([&] { realm->removeAllExceptPrimaryKeys(QVLPost::modelClass(), answerKeys); });
  const double ms = msSince(start);
  if (realm->objects<QVLPost>().size() != expected) fail("the stale removal removed posts");
  return ms;
}

}  // namespace

int main(int argc, char** argv) {
  const int count = argc > 1 ? std::stoi(argv[1]) : 10000;
  constexpr int kRounds = 5;
  curl_global_init(CURL_GLOBAL_DEFAULT);

  const auto text = std::make_shared<const std::string>(qvl::bench::postsJson(count).dump());
  malloc_trim(0);  // the document's memory goes back before any variant forks
  std::printf("posts: %d (2 periods, 3 fields, 1 thumbnail each), %.1f MiB of JSON, %d rounds\n",
              count, static_cast<double>(text->size()) / (1024.0 * 1024.0), kRounds);

  qvl::devserver::HttpsServer server(TestCertificates::leaf());
  server.setHandler(
      [text](const qvl::devserver::RecordedRequest& request, httplib::Response& response) {
        if (request.path == "/v8/posts") {
          response.status = 200;
          // The test server compresses a plain "application/json" body for a client that accepts
          // it (brotli at its highest quality: seconds for this answer); with the charset named
          // it sends the bytes as they are, so both sides time their own work only.
          response.set_content(*text, "application/json; charset=utf-8");
        } else {
          response.status = 404;
        }
      });
  const std::string url = "https://dev.localhost:" + std::to_string(server.port()) + "/v8/posts";

  std::vector<std::int64_t> keys;
  for (int id = 1; id <= count; ++id) keys.push_back(id);
  const auto size = static_cast<std::size_t>(count);

  // The client lives in the child processes only: a forked child has none of its threads.
  auto clientVariant = [&] {
    qvl::test::TempDir home;
    qvl::bench::layOutLibraryStore(home.path());
    qvl::test::ScopedContext context([&](qvl::Env& env) {
      env.trustAnchorsFile = TestCertificates::ca().certificatePath;
      env.userDefaultsPath = home.file("host.defaults");
      env.bundleInfo = {{"CFBundleShortVersionString", "1.0"},
                        {"QuorvelSDK", {{"ApiKey", "bench"}}}};
      env.apiDomain = "localhost:" + std::to_string(server.port());
      env.publicKeyHashes = {TestCertificates::leaf().pin};
      env.storeDirectory = home.path();
    });
    auto& client = QVLApiClient::sharedClient();
    client.setEnvironment(QVLApiEnvironmentDev);  // sets pinning up for the loopback server
    if (client.baseURLV8() + "/posts" != url) fail("the floor fetches another URL");
    const double fetch = fetchOnce(size);
    const double removal = storeStaleRemoval(keys, size);
    qvl::Store::closeThreadHandles();
    return std::vector<double>{fetch, removal};
  };
  auto floorVariant = [&] {
    qvl::test::TempDir home;
    const std::string path = qvl::bench::layOutLibraryStore(home.path());
    return std::vector<double>{floorOnce(url, path, size)};
  };

  std::vector<double> fetches, floors, linear, removals, fetchPeaks, floorPeaks;
  std::size_t stale = 0;
  for (int round = 0; round < kRounds; ++round) {
    auto fetch = qvl::bench::runInChild(clientVariant);
    auto floor = qvl::bench::runInChild(floorVariant);
    fetches.push_back(fetch.figures.at(0));
    removals.push_back(fetch.figures.at(1));
    floors.push_back(floor.figures.at(0));
    fetchPeaks.push_back(fetch.peakMiB);
    floorPeaks.push_back(floor.peakMiB);
    linear.push_back(linearStaleTest(keys, keys, &stale));
  }
  if (stale != 0) fail("the linear stale test found stale keys");

  const double fetch = median(fetches), floor = median(floors);
  std::printf("fetch (request, parse, merge, store, stale removal): %8.1f ms\n", fetch);
  std::printf("floor (libcurl fetch, parse, prepared inserts):      %8.1f ms\n", floor);
  std::printf("stale test, linear search per stored key (%d vs %d): %8.1f ms\n", count, count,
              median(linear));
  std::printf("stale removal, Store::removeAllExceptPrimaryKeys (%d stored, %d kept): %8.1f ms\n",
              count, count, median(removals));
  std::printf("peak memory (max RSS): fetch %.1f MiB, floor %.1f MiB\n", median(fetchPeaks),
              median(floorPeaks));
  std::printf("ratios: fetch/floor=%.2f peak fetch/floor=%.2f\n", fetch / floor,
              median(fetchPeaks) / median(floorPeaks));
  return 0;
}
