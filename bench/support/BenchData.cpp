#include "support/BenchData.h"

#include <sqlite3.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace qvl::bench {

nlohmann::json postsJson(int count) {
  using nlohmann::json;
  json posts = json::array();
  for (int i = 1; i <= count; ++i) {
    std::string n = std::to_string(i);
    json periods = json::array();
    for (int p = 0; p < 2; ++p) {
      periods.push_back({{"id", i * 10 + p},
                         {"start", "2020-01-01T00:00:00+0000"},
                         {"stop", p == 0 ? "2021-01-01T00:00:00+0000" : "2031-01-01T00:00:00+0000"},
                         {"created_at", "2019-12-01T10:00:00+0100"},
                         {"updated_at", "2019-12-02T10:00:00+0100"}});
    }
    json fields = json::array();
    fields.push_back({{"id", i * 10},
                      {"postFieldType_id", 1},
                      {"order", 0},
                      {"content", "Plain text of post " + n},
                      {"created_at", "2019-12-01T10:00:00+0100"},
                      {"updated_at", "2019-12-02T10:00:00+0100"}});
    fields.push_back({{"id", i * 10 + 1},
                      {"postFieldType_id", 6},
                      {"order", 1},
                      {"content", R"({"text":"Coupon","price":"10","redeemable":true})"},
                      {"created_at", "2019-12-01T10:00:00+0100"},
                      {"updated_at", "2019-12-02T10:00:00+0100"}});
    fields.push_back(
        {{"id", i * 10 + 2},
         {"postFieldType_id", 7},
         {"order", 2},
         {"content", R"({"text":"Open","url":"https://quorvel.example/p/)" + n + "\"}"},
         {"created_at", "2019-12-01T10:00:00+0100"},
         {"updated_at", "2019-12-02T10:00:00+0100"}});
    posts.push_back(
        {{"id", i},
         {"name", "Post " + n},
         {"content", {{"html", "<p>Offer number " + n + " for everyone who walks by.</p>"}}},
         {"collectible", i % 2 == 0},
         {"parameters", R"({"layout":"card"})"},
         {"created_at", "2019-12-01T10:00:00+0100"},
         {"updated_at", "2019-12-02T10:00:00+0100"},
         {"postperiods", periods},
         {"postfields", fields},
         {"thumbnail",
          {{"id", i},
           {"width", 800},
           {"height", 600},
           {"urls",
            {{"original", "https://cdn.quorvel.example/" + n + ".jpg"},
             {"large", "https://cdn.quorvel.example/" + n + "-l.jpg"},
             {"mobile", "https://cdn.quorvel.example/" + n + "-m.jpg"},
             {"thumbnail", "https://cdn.quorvel.example/" + n + "-t.jpg"}}}}}});
  }
  return posts;
}

namespace {

using nlohmann::json;

void exec(sqlite3* db, const char* sql) {
  char* error = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
    std::fprintf(stderr, "sqlite: %s: %s\n", sql, error ? error : sqlite3_errmsg(db));
    std::exit(1);
  }
}

sqlite3_stmt* prepare(sqlite3* db, const char* sql) {
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK) {
    std::fprintf(stderr, "sqlite: %s\n", sqlite3_errmsg(db));
    std::exit(1);
  }
  return stmt;
}

void bindText(sqlite3_stmt* s, int i, const json& v) {
  if (v.is_string()) {
    const auto& t = v.get_ref<const std::string&>();
    sqlite3_bind_text(s, i, t.data(), static_cast<int>(t.size()), SQLITE_TRANSIENT);
  } else {
    sqlite3_bind_null(s, i);
  }
}

void run(sqlite3_stmt* s) {
  if (sqlite3_step(s) != SQLITE_DONE) {
    std::fprintf(stderr, "sqlite: %s\n", sqlite3_errmsg(sqlite3_db_handle(s)));
    std::exit(1);
  }
  sqlite3_reset(s);
}

}  // namespace

FloorStore::FloorStore(const std::string& path) {
  if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) {
    std::fprintf(stderr, "sqlite: cannot open %s\n", path.c_str());
    std::exit(1);
  }
  exec(db_, "PRAGMA journal_mode=WAL");
  exec(db_, "PRAGMA synchronous=NORMAL");
  exec(db_,
       "CREATE TABLE post(id INTEGER PRIMARY KEY, name TEXT, content TEXT, collectible INTEGER,"
       " parameters TEXT, thumbnail INTEGER, created TEXT, updated TEXT);"
       "CREATE TABLE period(id INTEGER PRIMARY KEY, start TEXT, stop TEXT, created TEXT,"
       " updated TEXT);"
       "CREATE TABLE field(id INTEGER PRIMARY KEY, type INTEGER, ord INTEGER, content TEXT,"
       " created TEXT, updated TEXT);"
       "CREATE TABLE media(id INTEGER PRIMARY KEY, width INTEGER, height INTEGER, original TEXT,"
       " large TEXT, mobile TEXT, thumbnail TEXT);"
       "CREATE TABLE post_periods(owner INTEGER, position INTEGER, target INTEGER,"
       " PRIMARY KEY(owner, position)) WITHOUT ROWID;"
       "CREATE TABLE post_fields(owner INTEGER, position INTEGER, target INTEGER,"
       " PRIMARY KEY(owner, position)) WITHOUT ROWID;");
}

FloorStore::~FloorStore() { sqlite3_close(db_); }

std::size_t FloorStore::importPosts(const std::string& text) {
  json array = json::parse(text);
  sqlite3_stmt* post = prepare(db_, "INSERT INTO post VALUES(?,?,?,?,?,?,?,?)");
  sqlite3_stmt* period = prepare(db_, "INSERT INTO period VALUES(?,?,?,?,?)");
  sqlite3_stmt* field = prepare(db_, "INSERT INTO field VALUES(?,?,?,?,?,?)");
  sqlite3_stmt* media = prepare(db_, "INSERT INTO media VALUES(?,?,?,?,?,?,?)");
  sqlite3_stmt* periodLink = prepare(db_, "INSERT INTO post_periods VALUES(?,?,?)");
  sqlite3_stmt* fieldLink = prepare(db_, "INSERT INTO post_fields VALUES(?,?,?)");
  exec(db_, "BEGIN IMMEDIATE");
  for (const auto& p : array) {
    std::int64_t id = p["id"].get<std::int64_t>();
    const auto& thumb = p["thumbnail"];
    sqlite3_bind_int64(media, 1, thumb["id"].get<std::int64_t>());
    sqlite3_bind_int64(media, 2, thumb["width"].get<std::int64_t>());
    sqlite3_bind_int64(media, 3, thumb["height"].get<std::int64_t>());
    const auto& urls = thumb["urls"];
    bindText(media, 4, urls["original"]);
    bindText(media, 5, urls["large"]);
    bindText(media, 6, urls["mobile"]);
    bindText(media, 7, urls["thumbnail"]);
    run(media);
    sqlite3_bind_int64(post, 1, id);
    bindText(post, 2, p["name"]);
    bindText(post, 3, p["content"]["html"]);
    sqlite3_bind_int64(post, 4, p["collectible"].get<bool>());
    bindText(post, 5, p["parameters"]);
    sqlite3_bind_int64(post, 6, thumb["id"].get<std::int64_t>());
    bindText(post, 7, p["created_at"]);
    bindText(post, 8, p["updated_at"]);
    run(post);
    int position = 0;
    for (const auto& r : p["postperiods"]) {
      sqlite3_bind_int64(period, 1, r["id"].get<std::int64_t>());
      bindText(period, 2, r["start"]);
      bindText(period, 3, r["stop"]);
      bindText(period, 4, r["created_at"]);
      bindText(period, 5, r["updated_at"]);
      run(period);
      sqlite3_bind_int64(periodLink, 1, id);
      sqlite3_bind_int64(periodLink, 2, position++);
      sqlite3_bind_int64(periodLink, 3, r["id"].get<std::int64_t>());
      run(periodLink);
    }
    position = 0;
    for (const auto& f : p["postfields"]) {
      sqlite3_bind_int64(field, 1, f["id"].get<std::int64_t>());
      sqlite3_bind_int64(field, 2, f["postFieldType_id"].get<std::int64_t>());
      sqlite3_bind_int64(field, 3, f["order"].get<std::int64_t>());
      bindText(field, 4, f["content"]);
      bindText(field, 5, f["created_at"]);
      bindText(field, 6, f["updated_at"]);
      run(field);
      sqlite3_bind_int64(fieldLink, 1, id);
      sqlite3_bind_int64(fieldLink, 2, position++);
      sqlite3_bind_int64(fieldLink, 3, f["id"].get<std::int64_t>());
      run(fieldLink);
    }
  }
  exec(db_, "COMMIT");
  for (auto* s : {post, period, field, media, periodLink, fieldLink}) sqlite3_finalize(s);
  return array.size();
}

}  // namespace qvl::bench
