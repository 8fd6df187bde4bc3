#pragma once
// Service-shaped post answers for benchmarks and load tests, and the floor they are measured
// against: the same answer stored with plain SQLite.

#include <cstddef>
#include <string>

#include <nlohmann/json.hpp>

struct sqlite3;

namespace qvl::bench {

/// A JSON array of `count` posts, each with 2 periods, 3 post fields and a thumbnail,
/// shaped as the service sends them. Ids are unique across the whole array.
nlohmann::json postsJson(int count);

/// The least work that stores a posts answer: one table per record kind and one per list,
/// filled with plain prepared statements. Exits the process on any SQLite error (it only
/// serves benchmarks).
class FloorStore {
 public:
  /// Creates the database at `path` (WAL, synchronous=NORMAL) with its tables.
  explicit FloorStore(const std::string& path);
  ~FloorStore();
  FloorStore(const FloorStore&) = delete;
  FloorStore& operator=(const FloorStore&) = delete;

  /// Parses `text` (an array shaped as postsJson) with the same JSON library the client
  /// uses and inserts every post, its thumbnail, periods and fields and their list rows in
  /// one transaction. Returns the number of posts.
  std::size_t importPosts(const std::string& text);

 private:
  sqlite3* db_ = nullptr;
};

}  // namespace qvl::bench
