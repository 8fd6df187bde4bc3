// Imports 10,000 posts (2 periods, 3 fields and a thumbnail each) into the library's store,
// imports them again (every record merging with its stored twin), and measures in the same run:
// - the floor: the same text parsed into an nlohmann document (the public mapping API's parser;
//   the client itself reads answers with simdjson) and the same rows (the library's tables,
//   columns, key indexes, list tables and date encoding) written with plain prepared
//   statements in one transaction; for the refresh, upserts that keep the posts' local flags,
//   with a key lookup only for the rows that existed;
// - the limit: a streaming simdjson parse straight into the floor's inserts.
// Every variant runs in a process of its own, so that its peak memory is its own; the variants
// alternate over the rounds and the medians of their processor times are reported. Every store
// is opened before its timed region. Then the import's cost per 1,000 posts at 1,000, 10,000 and
// 50,000 posts.
//
//   bench_import [posts]          the comparison, peak memory, the ratios line, the scale line
//   bench_import --once [posts]   one import and nothing else, for instruction counts:
//       valgrind --tool=callgrind --toggle-collect='*importOnce*' bench_import --once 2000

#include <malloc.h>
#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "quorvel/networking/QVLApiClient.h"
#include "quorvel/platform/Env.h"
#include "quorvel/records/QVLPost.h"
#include "quorvel/records/QVLRealm.h"
#include "support/BenchData.h"
#include "support/PostsFloor.h"
#include "support/ScopedContext.h"
#include "support/TempDir.h"

namespace {

// Processor time of the process: the import runs on the calling thread, and a busy machine
// moves it less than the wall clock.
struct Clock {
  using time_point = std::chrono::nanoseconds;
  static time_point now() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return std::chrono::seconds(t.tv_sec) + std::chrono::nanoseconds(t.tv_nsec);
  }
};
using nlohmann::json;
using qvl::bench::median;
using qvl::bench::runInChild;

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

[[noreturn]] void fail(const std::string& message) {
  std::fprintf(stderr, "bench_import: %s\n", message.c_str());
  std::exit(1);
}

std::string postsText(int count) {
  std::string text = qvl::bench::postsJson(count).dump();
  malloc_trim(0);  // the document's memory goes back before any variant forks
  return text;
}

// The library path, as the client takes it for an answer: parse, map, create-or-update the
// whole array in one write transaction, on a store handle the caller opened.
[[gnu::noinline]] double importOnce(const std::string& text) {
  auto start = Clock::now();
  std::optional<QVLError> failure;
  QVLApiClient::sharedClient().parseAndSaveJSONArrayData(
      text, QVLPost::modelClass(),
      [&](std::optional<qvl::AnyResults>, std::optional<QVLError> error) { failure = error; });
  const double ms = msSince(start);
  if (failure) fail("the import failed: " + failure->domain);
  return ms;
}

// Runs `work` on a fresh library store opened beforehand; checks that `count` posts are stored.
template <typename Work>
void withLibraryStore(int count, Work work) {
  qvl::test::TempDir dir;
  qvl::test::ScopedContext store([&](qvl::Env& env) { env.storeDirectory = dir.path(); });
  auto realm = QVLRealm::realm();
  if (!realm) fail("the store could not be opened");
  work();
  if (realm->objects<QVLPost>().size() != static_cast<size_t>(count)) {
    fail("the import stored " + std::to_string(realm->objects<QVLPost>().size()) +
         " posts, expected " + std::to_string(count));
  }
  realm.reset();
  qvl::Store::closeThreadHandles();
}

// {first import, refresh} through the library.
std::vector<double> libraryVariant(const std::string& text, int count) {
  std::vector<double> times;
  withLibraryStore(count, [&] {
    times.push_back(importOnce(text));
    times.push_back(importOnce(text));
  });
  return times;
}

// {first import, refresh} of the floor, or {import} of the limit, on the library's layout.
std::vector<double> floorVariant(const std::string& text, int count, bool limit) {
  qvl::test::TempDir dir;
  qvl::bench::PostsFloor floor(qvl::bench::layOutLibraryStore(dir.path()));
  std::vector<double> times;
  auto timed = [&](auto write) {
    auto start = Clock::now();
    if (write() != static_cast<size_t>(count)) fail("the floor stored the wrong number of posts");
    times.push_back(msSince(start));
  };
  if (limit) {
    timed([&] { return floor.importPostsStreaming(text); });
  } else {
    timed([&] { return floor.importPosts(text); });
    timed([&] { return floor.refreshPosts(text); });
  }
  return times;
}

// The library's first import of `count` posts per 1,000 posts (median of `rounds`), in a
// process of its own.
double importCostPerThousand(int count, int rounds) {
  return runInChild([&] {
           const std::string text = postsText(count);
           std::vector<double> times;
           for (int round = 0; round < rounds; ++round) {
             withLibraryStore(count, [&] { times.push_back(importOnce(text)); });
           }
           return std::vector<double>{median(times) * 1000.0 / count};
         })
      .figures.at(0);
}

}  // namespace

int main(int argc, char** argv) {
  const bool once = argc > 1 && std::strcmp(argv[1], "--once") == 0;
  const int countArgument = once ? 2 : 1;
  const int count = argc > countArgument ? std::stoi(argv[countArgument]) : 10000;
  const std::string text = postsText(count);
  if (once) {
    withLibraryStore(count, [&] { std::printf("import: %.1f ms\n", importOnce(text)); });
    return 0;
  }

  constexpr int kRounds = 5;
  std::printf("posts: %d (2 periods, 3 fields, 1 thumbnail each), %.1f MiB of JSON, %d rounds\n",
              count, static_cast<double>(text.size()) / (1024.0 * 1024.0), kRounds);
  std::vector<double> imports, refreshes, floors, floorRefreshes, limits, libraryPeaks, floorPeaks,
      limitPeaks;
  for (int round = 0; round < kRounds; ++round) {
    auto library = runInChild([&] { return libraryVariant(text, count); });
    auto floor = runInChild([&] { return floorVariant(text, count, false); });
    auto limit = runInChild([&] { return floorVariant(text, count, true); });
    imports.push_back(library.figures.at(0));
    refreshes.push_back(library.figures.at(1));
    floors.push_back(floor.figures.at(0));
    floorRefreshes.push_back(floor.figures.at(1));
    limits.push_back(limit.figures.at(0));
    libraryPeaks.push_back(library.peakMiB);
    floorPeaks.push_back(floor.peakMiB);
    limitPeaks.push_back(limit.peakMiB);
  }
  const double import = median(imports), refresh = median(refreshes), floor = median(floors),
               floorRefresh = median(floorRefreshes), limit = median(limits);
  std::printf("first import:                            %8.1f ms\n", import);
  std::printf("refresh (merge with stored twins):       %8.1f ms\n", refresh);
  std::printf("floor import (parse + prepared inserts): %8.1f ms\n", floor);
  std::printf("floor refresh (upserts, key lookups):    %8.1f ms\n", floorRefresh);
  std::printf("limit (simdjson stream + inserts):       %8.1f ms\n", limit);
  std::printf(
      "peak memory (max RSS, import + refresh): library %.1f MiB, floor %.1f MiB, "
      "limit %.1f MiB\n",
      median(libraryPeaks), median(floorPeaks), median(limitPeaks));
  std::printf("ratios: import/floor=%.2f refresh/floor=%.2f import/limit=%.2f\n", import / floor,
              refresh / floorRefresh, import / limit);
  std::printf("peak memory library/floor=%.2f\n", median(libraryPeaks) / median(floorPeaks));

  std::printf("import cost per 1,000 posts:");
  for (int posts : {1000, 10000, 50000}) {
    std::printf(" %d posts %.1f ms;", posts, importCostPerThousand(posts, posts > 10000 ? 1 : 3));
    std::fflush(stdout);
  }
  std::printf("\n");
  return 0;
}
