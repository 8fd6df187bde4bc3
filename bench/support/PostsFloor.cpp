#include "support/PostsFloor.h"
#include "support/ScopedContext.h"

#include <simdjson.h>
#include <sqlite3.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <nlohmann/json.hpp>

#include "quorvel/platform/Env.h"
#include "quorvel/records/QVLRealm.h"
#include "quorvel/store/Store.h"

namespace qvl::bench {

std::optional<std::int64_t> storedDate(std::string_view text) {
  // yyyy-MM-ddTHH:mm:ss+HHMM
  if (text.size() != 24 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' ||
      text[16] != ':' || (text[19] != '+' && text[19] != '-')) {
    return std::nullopt;
  }
  auto number = [&](size_t at, size_t digits) -> int {
    int n = 0;
    for (size_t i = at; i < at + digits; ++i) {
      if (text[i] < '0' || text[i] > '9') return -1;
      n = n * 10 + (text[i] - '0');
    }
    return n;
  };
  int year = number(0, 4), month = number(5, 2), day = number(8, 2), hour = number(11, 2),
      minute = number(14, 2), second = number(17, 2), zoneHours = number(20, 2),
      zoneMinutes = number(22, 2);
  if (year < 0 || month < 0 || day < 0 || hour < 0 || minute < 0 || second < 0 || zoneHours < 0 ||
      zoneMinutes < 0) {
    return std::nullopt;
  }
  using namespace std::chrono;
  const year_month_day date{std::chrono::year(year),
                            std::chrono::month(static_cast<unsigned>(month)),
                            std::chrono::day(static_cast<unsigned>(day))};
  if (!date.ok()) return std::nullopt;
  const int zone = (text[19] == '-' ? -1 : 1) * (zoneHours * 60 + zoneMinutes);
  const auto local = sys_days(date) + hours(hour) + minutes(minute) + seconds(second);
  return duration_cast<microseconds>((local - minutes(zone)).time_since_epoch()).count();
}

std::string layOutLibraryStore(const std::string& directory) {
  qvl::test::ScopedContext store([&](qvl::Env& env) { env.storeDirectory = directory; });
  if (!QVLRealm::realm()) {
    std::fprintf(stderr, "the library's store could not be opened in %s\n", directory.c_str());
    std::exit(1);
  }
  qvl::Store::closeThreadHandles();
  return directory + "/QuorvelSDK.realm";
}

namespace {

using Rowid = std::int64_t;
using OptionalDate = std::optional<std::int64_t>;

struct MediaRow {
  std::int64_t id = 0, width = 0, height = 0;
  std::string_view urls[4];  // original, large, mobile, thumbnail
};
struct PeriodRow {
  std::int64_t id = 0;
  OptionalDate start, stop, created, updated;
};
struct FieldRow {
  std::int64_t id = 0, type = 0, order = 0;
  std::string_view content;
  OptionalDate created, updated;
};
struct PostRow {
  std::int64_t id = 0;
  std::string_view name, content, parameters;
  bool collectible = false;
  OptionalDate created, updated;
  MediaRow thumbnail;
  std::vector<PeriodRow> periods;
  std::vector<FieldRow> fields;
  void clear() {
    periods.clear();
    fields.clear();
  }
};

[[noreturn]] void fail(sqlite3* db, const char* what) {
  std::fprintf(stderr, "sqlite: %s: %s\n", what, sqlite3_errmsg(db));
  std::exit(1);
}

void exec(sqlite3* db, const char* sql) {
  if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail(db, sql);
}

sqlite3_stmt* prepare(sqlite3* db, const std::string& sql) {
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) fail(db, sql.c_str());
  return stmt;
}

void step(sqlite3_stmt* s) {
  if (sqlite3_step(s) != SQLITE_DONE) fail(sqlite3_db_handle(s), sqlite3_sql(s));
  sqlite3_reset(s);
}

void bindText(sqlite3_stmt* s, int i, std::string_view text) {
  sqlite3_bind_text(s, i, text.data(), static_cast<int>(text.size()), SQLITE_STATIC);
}

void bindDate(sqlite3_stmt* s, int i, const OptionalDate& date) {
  if (date)
    sqlite3_bind_int64(s, i, *date);
  else
    sqlite3_bind_null(s, i);
}

// One record table: its insert (or upsert, which keeps some columns) and its key lookup.
struct Table {
  Table(sqlite3* db, const std::string& table, const std::string& key,
        const std::vector<std::string>& columns, size_t keptColumns, bool upsert) {
    std::string names, marks, updates;
    for (size_t c = 0; c < columns.size(); ++c) {
      const std::string name = '"' + columns[c] + '"';
      names += (c ? "," : "") + name;
      marks += c ? ",?" : "?";
      if (columns[c] != key && c < columns.size() - keptColumns) {
        updates += (updates.empty() ? "" : ",") + name + "=excluded." + name;
      }
    }
    std::string sql = "INSERT INTO \"" + table + "\"(" + names + ") VALUES(" + marks + ")";
    if (upsert) sql += " ON CONFLICT(\"" + key + "\") DO UPDATE SET " + updates;
    write = prepare(db, sql);
    rowForKey = prepare(db, "SELECT _rowid FROM \"" + table + "\" WHERE \"" + key + "\"=?");
    this->upsert = upsert;
  }
  ~Table() {
    sqlite3_finalize(write);
    sqlite3_finalize(rowForKey);
  }
  Table(const Table&) = delete;
  Table& operator=(const Table&) = delete;

  // Steps the bound write; the row id of an insert, or the stored row's for an update.
  Rowid put(std::int64_t key) {
    sqlite3* db = sqlite3_db_handle(write);
    if (upsert) sqlite3_set_last_insert_rowid(db, 0);
    step(write);
    Rowid row = sqlite3_last_insert_rowid(db);
    if (row != 0) return row;
    sqlite3_bind_int64(rowForKey, 1, key);
    if (sqlite3_step(rowForKey) != SQLITE_ROW) fail(db, "row for key");
    row = sqlite3_column_int64(rowForKey, 0);
    sqlite3_reset(rowForKey);
    return row;
  }

  sqlite3_stmt* write = nullptr;
  sqlite3_stmt* rowForKey = nullptr;
  bool upsert = false;
};

// A list table: on refresh an owner's rows are replaced.
struct ListTable {
  ListTable(sqlite3* db, const std::string& table)
      : insert(prepare(db, "INSERT INTO \"" + table + "\"(owner,position,target) VALUES(?,?,?)")),
        clear(prepare(db, "DELETE FROM \"" + table + "\" WHERE owner=?")) {}
  ~ListTable() {
    sqlite3_finalize(insert);
    sqlite3_finalize(clear);
  }
  ListTable(const ListTable&) = delete;
  ListTable& operator=(const ListTable&) = delete;

  void write(Rowid owner, const std::vector<Rowid>& targets, bool replace) {
    if (replace) {
      sqlite3_bind_int64(clear, 1, owner);
      step(clear);
    }
    for (size_t i = 0; i < targets.size(); ++i) {
      sqlite3_bind_int64(insert, 1, owner);
      sqlite3_bind_int64(insert, 2, static_cast<std::int64_t>(i));
      sqlite3_bind_int64(insert, 3, targets[i]);
      step(insert);
    }
  }

  sqlite3_stmt* insert;
  sqlite3_stmt* clear;
};

// The rows of one post, in the order the library writes them: the thumbnail, the post, then
// each list's elements and the list's rows.
class PostsWriter {
 public:
  PostsWriter(sqlite3* db, bool upsert)
      : upsert_(upsert),
        media_(
            db, "QVLMedia", "mediaId",
            {"mediaId", "width", "height", "urlOriginal", "urlLarge", "urlMobile", "urlThumbnail"},
            0, upsert),
        post_(db, "QVLPost", "postId",
              {"postId", "name", "content", "thumbnail", "collectible", "parametersJSON",
               "createdAt", "updatedAt", "read", "saved"},
              2, upsert),
        period_(db, "QVLPostPeriod", "postPeriodId",
                {"postPeriodId", "start", "stop", "createdAt", "updatedAt"}, 0, upsert),
        field_(db, "QVLPostField", "postFieldId",
               {"postFieldId", "postFieldTypeId", "order", "content", "createdAt", "updatedAt"}, 0,
               upsert),
        periods_(db, "QVLPost.periods"),
        fields_(db, "QVLPost.postFields") {}

  void write(const PostRow& p) {
    sqlite3_stmt* s = media_.write;
    sqlite3_bind_int64(s, 1, p.thumbnail.id);
    sqlite3_bind_int64(s, 2, p.thumbnail.width);
    sqlite3_bind_int64(s, 3, p.thumbnail.height);
    for (int i = 0; i < 4; ++i) bindText(s, 4 + i, p.thumbnail.urls[i]);
    const Rowid thumbnail = media_.put(p.thumbnail.id);

    s = post_.write;
    sqlite3_bind_int64(s, 1, p.id);
    bindText(s, 2, p.name);
    bindText(s, 3, p.content);
    sqlite3_bind_int64(s, 4, thumbnail);
    sqlite3_bind_int64(s, 5, p.collectible);
    bindText(s, 6, p.parameters);
    bindDate(s, 7, p.created);
    bindDate(s, 8, p.updated);
    sqlite3_bind_int64(s, 9, 0);
    sqlite3_bind_int64(s, 10, 0);
    const Rowid post = post_.put(p.id);

    targets_.clear();
    s = period_.write;
    for (const PeriodRow& r : p.periods) {
      sqlite3_bind_int64(s, 1, r.id);
      bindDate(s, 2, r.start);
      bindDate(s, 3, r.stop);
      bindDate(s, 4, r.created);
      bindDate(s, 5, r.updated);
      targets_.push_back(period_.put(r.id));
    }
    periods_.write(post, targets_, upsert_);

    targets_.clear();
    s = field_.write;
    for (const FieldRow& f : p.fields) {
      sqlite3_bind_int64(s, 1, f.id);
      sqlite3_bind_int64(s, 2, f.type);
      sqlite3_bind_int64(s, 3, f.order);
      bindText(s, 4, f.content);
      bindDate(s, 5, f.created);
      bindDate(s, 6, f.updated);
      targets_.push_back(field_.put(f.id));
    }
    fields_.write(post, targets_, upsert_);
  }

 private:
  bool upsert_;
  Table media_, post_, period_, field_;
  ListTable periods_, fields_;
  std::vector<Rowid> targets_;
};

using nlohmann::json;

std::string_view textOf(const json& value) {
  return value.is_string() ? std::string_view(value.get_ref<const std::string&>())
                           : std::string_view();
}

OptionalDate dateOf(const json& value) {
  return value.is_string() ? storedDate(value.get_ref<const std::string&>()) : std::nullopt;
}

// The post's values from nlohmann's document, text viewed in place.
void readPost(const json& p, PostRow& post) {
  post.clear();
  post.id = p["id"].get<std::int64_t>();
  post.name = textOf(p["name"]);
  post.content = textOf(p["content"]["html"]);
  post.collectible = p["collectible"].get<bool>();
  post.parameters = textOf(p["parameters"]);
  post.created = dateOf(p["created_at"]);
  post.updated = dateOf(p["updated_at"]);
  const json& thumbnail = p["thumbnail"];
  post.thumbnail.id = thumbnail["id"].get<std::int64_t>();
  post.thumbnail.width = thumbnail["width"].get<std::int64_t>();
  post.thumbnail.height = thumbnail["height"].get<std::int64_t>();
  const json& urls = thumbnail["urls"];
  post.thumbnail.urls[0] = textOf(urls["original"]);
  post.thumbnail.urls[1] = textOf(urls["large"]);
  post.thumbnail.urls[2] = textOf(urls["mobile"]);
  post.thumbnail.urls[3] = textOf(urls["thumbnail"]);
  for (const json& r : p["postperiods"]) {
    post.periods.push_back({r["id"].get<std::int64_t>(), dateOf(r["start"]), dateOf(r["stop"]),
                            dateOf(r["created_at"]), dateOf(r["updated_at"])});
  }
  for (const json& f : p["postfields"]) {
    post.fields.push_back({f["id"].get<std::int64_t>(), f["postFieldType_id"].get<std::int64_t>(),
                           f["order"].get<std::int64_t>(), textOf(f["content"]),
                           dateOf(f["created_at"]), dateOf(f["updated_at"])});
  }
}

std::size_t writeDocument(sqlite3* db, const std::string& text, bool upsert) {
  const json array = json::parse(text);
  PostsWriter writer(db, upsert);
  PostRow post;
  exec(db, "BEGIN IMMEDIATE");
  for (const json& p : array) {
    readPost(p, post);
    writer.write(post);
  }
  exec(db, "COMMIT");
  return array.size();
}

using simdjson::ondemand::field;
using simdjson::ondemand::object;
using simdjson::ondemand::value;

OptionalDate dateOf(value v) { return storedDate(std::string_view(v.get_string())); }

}  // namespace

PostsFloor::PostsFloor(const std::string& path) {
  if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) fail(db_, path.c_str());
  sqlite3_busy_timeout(db_, 60000);
  exec(db_, "PRAGMA journal_mode=WAL");
  exec(db_, "PRAGMA synchronous=NORMAL");
}

PostsFloor::~PostsFloor() { sqlite3_close(db_); }

std::size_t PostsFloor::importPosts(const std::string& text) {
  return writeDocument(db_, text, false);
}

std::size_t PostsFloor::refreshPosts(const std::string& text) {
  return writeDocument(db_, text, true);
}

std::size_t PostsFloor::importPostsStreaming(const std::string& text) {
  simdjson::ondemand::parser parser;
  const simdjson::padded_string padded(text);
  auto document = parser.iterate(padded);
  PostsWriter writer(db_, false);
  PostRow post;
  std::size_t count = 0;
  exec(db_, "BEGIN IMMEDIATE");
  for (object p : document.get_array()) {
    post.clear();
    for (field member : p) {
      const std::string_view key = member.unescaped_key();
      value v = member.value();
      if (key == "id") {
        post.id = v.get_int64();
      } else if (key == "name") {
        post.name = v.get_string();
      } else if (key == "content") {
        post.content = v["html"].get_string();
      } else if (key == "collectible") {
        post.collectible = v.get_bool();
      } else if (key == "parameters") {
        post.parameters = v.get_string();
      } else if (key == "created_at") {
        post.created = dateOf(v);
      } else if (key == "updated_at") {
        post.updated = dateOf(v);
      } else if (key == "postperiods") {
        for (object r : v.get_array()) {
          PeriodRow& row = post.periods.emplace_back();
          for (field m : r) {
            const std::string_view k = m.unescaped_key();
            if (k == "id") {
              row.id = m.value().get_int64();
            } else if (k == "start") {
              row.start = dateOf(m.value());
            } else if (k == "stop") {
              row.stop = dateOf(m.value());
            } else if (k == "created_at") {
              row.created = dateOf(m.value());
            } else if (k == "updated_at") {
              row.updated = dateOf(m.value());
            }
          }
        }
      } else if (key == "postfields") {
        for (object f : v.get_array()) {
          FieldRow& row = post.fields.emplace_back();
          for (field m : f) {
            const std::string_view k = m.unescaped_key();
            if (k == "id") {
              row.id = m.value().get_int64();
            } else if (k == "postFieldType_id") {
              row.type = m.value().get_int64();
            } else if (k == "order") {
              row.order = m.value().get_int64();
            } else if (k == "content") {
              row.content = m.value().get_string();
            } else if (k == "created_at") {
              row.created = dateOf(m.value());
            } else if (k == "updated_at") {
              row.updated = dateOf(m.value());
            }
          }
        }
      } else if (key == "thumbnail") {
        for (field m : v.get_object()) {
          const std::string_view k = m.unescaped_key();
          if (k == "id") {
            post.thumbnail.id = m.value().get_int64();
          } else if (k == "width") {
            post.thumbnail.width = m.value().get_int64();
          } else if (k == "height") {
            post.thumbnail.height = m.value().get_int64();
          } else if (k == "urls") {
            for (field u : m.value().get_object()) {
              const std::string_view name = u.unescaped_key();
              const std::string_view url = u.value().get_string();
              if (name == "original") post.thumbnail.urls[0] = url;
              if (name == "large") post.thumbnail.urls[1] = url;
              if (name == "mobile") post.thumbnail.urls[2] = url;
              if (name == "thumbnail") post.thumbnail.urls[3] = url;
            }
          }
        }
      }
    }
    writer.write(post);
    ++count;
  }
  exec(db_, "COMMIT");
  return count;
}

}  // namespace qvl::bench
