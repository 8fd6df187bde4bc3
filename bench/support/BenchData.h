#pragma once
// Service-shaped post answers for benchmarks and load tests, and the floor they are measured
// against: the same answer stored with plain SQLite.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

struct sqlite3;
struct sqlite3_stmt;

namespace qvl::bench {

/// The middle sample (the upper one of an even count); `samples` must not be empty.
inline double median(std::vector<double> samples) {
  std::nth_element(samples.begin(), samples.begin() + samples.size() / 2, samples.end());
  return samples[samples.size() / 2];
}

/// What a benchmark variant run in a process of its own reported, and that process's peak
/// resident memory.
struct VariantRun {
  std::vector<double> figures;
  double peakMiB = 0;
};

/// Runs `variant` in a forked child process, so that its peak memory is its own, and returns
/// the figures it gave back. The caller must not have started threads that the child needs.
/// Exits the process when the child fails.
VariantRun runInChild(const std::function<std::vector<double>()>& variant);

/// A JSON array of `count` posts, each with 2 periods, 3 post fields and a thumbnail,
/// shaped as the service sends them. Ids are unique across the whole array.
nlohmann::json postsJson(int count);

/// A JSON array of `count` beacons of one UUID (major 1, minor = id, ids from 1), each with
/// `postsPerBeacon` posts of its own shaped as postsJson's (2 periods, one running until
/// 2031), shaped as the service sends them.
nlohmann::json beaconsJson(int count, int postsPerBeacon);

/// The UUID of beaconsJson's beacons.
inline constexpr const char* kBeaconsUuid = "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";

/// The least work that stores and reads a beacons answer: one table per record kind and one
/// per list, filled with plain prepared statements. Exits the process on any SQLite error (it only
/// serves benchmarks).
class FloorStore {
 public:
  /// Creates the database at `path` (WAL, synchronous=NORMAL) with its tables.
  explicit FloorStore(const std::string& path);
  ~FloorStore();
  FloorStore(const FloorStore&) = delete;
  FloorStore& operator=(const FloorStore&) = delete;

  /// Inserts a beacons answer (shaped as beaconsJson), with the beacons' posts and list rows,
  /// in one transaction. Returns the number of beacons.
  std::size_t importBeacons(const std::string& text);
  /// Reads beacon `id` by primary key with its posts and their periods, every column, with
  /// statements prepared once. Returns the rows read (0 when there is no such beacon).
  std::size_t readBeacon(std::int64_t id);

 private:
  struct PostStatements;
  void insertPost(PostStatements& statements, const nlohmann::json& post);

  sqlite3* db_ = nullptr;
  sqlite3_stmt* beaconById_ = nullptr;
  sqlite3_stmt* postsOfBeacon_ = nullptr;
  sqlite3_stmt* periodsOfPost_ = nullptr;
};

}  // namespace qvl::bench
