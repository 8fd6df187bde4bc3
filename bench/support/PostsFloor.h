#pragma once
// The floor and the limit of storing a posts answer (shaped as postsJson) in the library's own
// file layout: the same tables, columns, key indexes, list tables and date encoding, written
// with plain prepared statements and nothing else.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

struct sqlite3;

namespace qvl::bench {

/// Service date text ("2019-12-01T10:00:00+0100") as the store keeps a date: microseconds
/// since the epoch, UTC. Absent for text of another shape.
std::optional<std::int64_t> storedDate(std::string_view text);

/// Creates the library's store file in `directory` (tables, indexes, schema version) by
/// opening it once on the calling thread and closing it again. Returns the file's path.
std::string layOutLibraryStore(const std::string& directory);

/// Writes posts answers into a file laid out by layOutLibraryStore. Exits the process on
/// any SQLite error (it only serves benchmarks).
class PostsFloor {
 public:
  /// Opens a connection to `path` with the library's settings (WAL, synchronous=NORMAL).
  explicit PostsFloor(const std::string& path);
  ~PostsFloor();
  PostsFloor(const PostsFloor&) = delete;
  PostsFloor& operator=(const PostsFloor&) = delete;

  /// The first import into an empty store: nlohmann's parse (the JSON library the client
  /// uses) and plain inserts in one transaction, row ids from sqlite3_last_insert_rowid.
  /// Returns the number of posts.
  std::size_t importPosts(const std::string& text);
  /// The same answer again: upserts that leave the posts' local flags (read, saved) alone,
  /// the row id looked up by key only for rows that existed, every list rewritten.
  std::size_t refreshPosts(const std::string& text);
  /// The limit: a streaming simdjson parse straight into the plain inserts of importPosts.
  std::size_t importPostsStreaming(const std::string& text);

 private:
  sqlite3* db_ = nullptr;
};

}  // namespace qvl::bench
