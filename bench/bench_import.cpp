// Imports 10,000 posts (2 periods, 3 fields and a thumbnail each) into the library's store,
// imports them again (every record merging with its stored twin), and measures the floor
// for the same work: the same text parsed by the same JSON library and the same rows
// inserted with plain prepared SQLite statements in one transaction.
//
//   bench_import [posts]     prints the three times, peak memory, and the ratios line.

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

#include <nlohmann/json.hpp>

#include "quorvel/Helpers/QVLRealm.h"
#include "quorvel/Models/QVLPost.h"
#include "quorvel/Platform/Env.h"
#include "support/BenchData.h"
#include "support/TempDir.h"

namespace {

using Clock = std::chrono::steady_clock;
using nlohmann::json;

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// The library path: parse, map (each record looks up its stored twin), create-or-update
// the whole array in one write transaction.
double importOnce(const std::string& text) {
  auto start = Clock::now();
  json array = json::parse(text);
  auto posts = QVLPost::newObjectsWithJSONArray(array);
  auto realm = QVLRealm::realm();
  realm->write([&] {
    realm->addOrUpdateAll(std::vector<std::shared_ptr<qvl::Object>>(posts.begin(), posts.end()));
  });
  return msSince(start);
}

// The floor: the same parse and the same rows (records and list links), nothing else.
double floorOnce(const std::string& text, const std::string& path) {
  qvl::bench::FloorStore floor(path);
  auto start = Clock::now();
  floor.importPosts(text);
  return msSince(start);
}

using qvl::bench::median;

}  // namespace

int main(int argc, char** argv) {
  int count = argc > 1 ? std::stoi(argv[1]) : 10000;
  constexpr int kRounds = 3;
  std::string text = qvl::bench::postsJson(count).dump();
  std::printf("posts: %d (2 periods, 3 fields, 1 thumbnail each), %.1f MiB of JSON, %d rounds\n",
              count, static_cast<double>(text.size()) / (1024.0 * 1024.0), kRounds);

  std::vector<double> imports, refreshes, floors;
  for (int round = 0; round < kRounds; ++round) {
    qvl::test::TempDir dir;
    qvl::ScopedEnv store([&](qvl::Env& env) { env.storeDirectory = dir.path(); });
    imports.push_back(importOnce(text));
    refreshes.push_back(importOnce(text));
    auto realm = QVLRealm::realm();
    if (realm->objects<QVLPost>().size() != static_cast<size_t>(count)) {
      std::fprintf(stderr, "import stored %zu posts, expected %d\n",
                   realm->objects<QVLPost>().size(), count);
      return 1;
    }
    realm.reset();
    qvl::Store::closeThreadHandles();
    floors.push_back(floorOnce(text, dir.file("floor.sqlite")));
  }
  double import = median(imports), refresh = median(refreshes), floor = median(floors);
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf("floor (parse + prepared inserts): %8.1f ms\n", floor);
  std::printf("first import:                     %8.1f ms\n", import);
  std::printf("refresh (merge with stored twins):%8.1f ms\n", refresh);
  std::printf("peak memory (max RSS):            %8.1f MiB\n",
              static_cast<double>(usage.ru_maxrss) / 1024.0);
  std::printf("ratios: import/floor=%.2f refresh/import=%.2f\n", import / floor, refresh / import);
  return 0;
}
