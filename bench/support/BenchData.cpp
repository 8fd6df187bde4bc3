#include "support/BenchData.h"

#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace qvl::bench {

VariantRun runInChild(const std::function<std::vector<double>()>& variant) {
  int channel[2];
  if (pipe(channel) != 0) {
    std::perror("pipe");
    std::exit(1);
  }
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) {
    std::perror("fork");
    std::exit(1);
  }
  if (child == 0) {
    close(channel[0]);
    int status = 0;
    try {
      const std::vector<double> figures = variant();
      const auto bytes = static_cast<ssize_t>(figures.size() * sizeof(double));
      if (write(channel[1], figures.data(), static_cast<size_t>(bytes)) != bytes) status = 1;
    } catch (const std::exception& e) {
      std::fprintf(stderr, "benchmark variant failed: %s\n", e.what());
      status = 1;
    }
    std::fflush(nullptr);
    _exit(status);
  }
  close(channel[1]);
  VariantRun run;
  double figure = 0;
  while (read(channel[0], &figure, sizeof figure) == static_cast<ssize_t>(sizeof figure)) {
    run.figures.push_back(figure);
  }
  close(channel[0]);
  int status = 0;
  rusage usage{};
  if (wait4(child, &status, 0, &usage) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "a benchmark variant failed\n");
    std::exit(1);
  }
  run.peakMiB = static_cast<double>(usage.ru_maxrss) / 1024.0;
  return run;
}

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

nlohmann::json beaconsJson(int count, int postsPerBeacon) {
  using nlohmann::json;
  const json posts = postsJson(count * postsPerBeacon);
  json beacons = json::array();
  for (int i = 1; i <= count; ++i) {
    json own = json::array();
    for (int p = 0; p < postsPerBeacon; ++p) own.push_back(posts[(i - 1) * postsPerBeacon + p]);
    beacons.push_back({{"id", i},
                       {"description", "Beacon " + std::to_string(i)},
                       {"uuid", kBeaconsUuid},
                       {"major", 1},
                       {"minor", i},
                       {"message", "Welcome to counter " + std::to_string(i)},
                       {"latitude", 52.52},
                       {"longitude", 13.405},
                       {"created_at", "2019-12-01T10:00:00+0100"},
                       {"updated_at", "2019-12-02T10:00:00+0100"},
                       {"posts", own}});
  }
  return beacons;
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

void bindInt(sqlite3_stmt* s, int i, const json& v) {
  if (v.is_number()) {
    sqlite3_bind_int64(s, i, v.get<std::int64_t>());
  } else {
    sqlite3_bind_null(s, i);
  }
}

// Steps through every row, reading every column as a client building its objects would.
std::size_t readRows(sqlite3_stmt* s) {
  std::size_t rows = 0;
  int result;
  while ((result = sqlite3_step(s)) == SQLITE_ROW) {
    for (int c = 0, n = sqlite3_column_count(s); c < n; ++c) {
      if (sqlite3_column_type(s, c) == SQLITE_TEXT) {
        sqlite3_column_text(s, c);
      } else {
        sqlite3_column_int64(s, c);
      }
    }
    ++rows;
  }
  if (result != SQLITE_DONE) {
    std::fprintf(stderr, "sqlite: %s\n", sqlite3_errmsg(sqlite3_db_handle(s)));
    std::exit(1);
  }
  sqlite3_reset(s);
  return rows;
}

void run(sqlite3_stmt* s);

// One row of a list table: owner, position, target.
void insertLink(sqlite3_stmt* s, std::int64_t owner, int position, std::int64_t target) {
  sqlite3_bind_int64(s, 1, owner);
  sqlite3_bind_int64(s, 2, position);
  sqlite3_bind_int64(s, 3, target);
  run(s);
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
       " PRIMARY KEY(owner, position)) WITHOUT ROWID;"
       "CREATE TABLE beacon(id INTEGER PRIMARY KEY, name TEXT, uuid TEXT, major INTEGER,"
       " minor INTEGER, message TEXT, latitude REAL, longitude REAL, created TEXT,"
       " updated TEXT);"
       "CREATE TABLE beacon_posts(owner INTEGER, position INTEGER, target INTEGER,"
       " PRIMARY KEY(owner, position)) WITHOUT ROWID;");
}

FloorStore::~FloorStore() {
  for (auto* s : {beaconById_, postsOfBeacon_, periodsOfPost_}) sqlite3_finalize(s);
  sqlite3_close(db_);
}

struct FloorStore::PostStatements {
  explicit PostStatements(sqlite3* db)
      : post(prepare(db, "INSERT INTO post VALUES(?,?,?,?,?,?,?,?)")),
        period(prepare(db, "INSERT INTO period VALUES(?,?,?,?,?)")),
        field(prepare(db, "INSERT INTO field VALUES(?,?,?,?,?,?)")),
        media(prepare(db, "INSERT INTO media VALUES(?,?,?,?,?,?,?)")),
        periodLink(prepare(db, "INSERT INTO post_periods VALUES(?,?,?)")),
        fieldLink(prepare(db, "INSERT INTO post_fields VALUES(?,?,?)")) {}
  ~PostStatements() {
    for (auto* s : {post, period, field, media, periodLink, fieldLink}) sqlite3_finalize(s);
  }
  sqlite3_stmt *post, *period, *field, *media, *periodLink, *fieldLink;
};

void FloorStore::insertPost(PostStatements& st, const json& p) {
  std::int64_t id = p["id"].get<std::int64_t>();
  const auto& thumb = p["thumbnail"];
  sqlite3_bind_int64(st.media, 1, thumb["id"].get<std::int64_t>());
  sqlite3_bind_int64(st.media, 2, thumb["width"].get<std::int64_t>());
  sqlite3_bind_int64(st.media, 3, thumb["height"].get<std::int64_t>());
  const auto& urls = thumb["urls"];
  bindText(st.media, 4, urls["original"]);
  bindText(st.media, 5, urls["large"]);
  bindText(st.media, 6, urls["mobile"]);
  bindText(st.media, 7, urls["thumbnail"]);
  run(st.media);
  sqlite3_bind_int64(st.post, 1, id);
  bindText(st.post, 2, p["name"]);
  bindText(st.post, 3, p["content"]["html"]);
  sqlite3_bind_int64(st.post, 4, p["collectible"].get<bool>());
  bindText(st.post, 5, p["parameters"]);
  sqlite3_bind_int64(st.post, 6, thumb["id"].get<std::int64_t>());
  bindText(st.post, 7, p["created_at"]);
  bindText(st.post, 8, p["updated_at"]);
  run(st.post);
  int position = 0;
  for (const auto& r : p["postperiods"]) {
    sqlite3_bind_int64(st.period, 1, r["id"].get<std::int64_t>());
    bindText(st.period, 2, r["start"]);
    bindText(st.period, 3, r["stop"]);
    bindText(st.period, 4, r["created_at"]);
    bindText(st.period, 5, r["updated_at"]);
    run(st.period);
    insertLink(st.periodLink, id, position++, r["id"].get<std::int64_t>());
  }
  position = 0;
  for (const auto& f : p["postfields"]) {
    sqlite3_bind_int64(st.field, 1, f["id"].get<std::int64_t>());
    sqlite3_bind_int64(st.field, 2, f["postFieldType_id"].get<std::int64_t>());
    sqlite3_bind_int64(st.field, 3, f["order"].get<std::int64_t>());
    bindText(st.field, 4, f["content"]);
    bindText(st.field, 5, f["created_at"]);
    bindText(st.field, 6, f["updated_at"]);
    run(st.field);
    insertLink(st.fieldLink, id, position++, f["id"].get<std::int64_t>());
  }
}

std::size_t FloorStore::importBeacons(const std::string& text) {
  json array = json::parse(text);
  PostStatements statements(db_);
  sqlite3_stmt* beacon = prepare(db_, "INSERT INTO beacon VALUES(?,?,?,?,?,?,?,?,?,?)");
  sqlite3_stmt* postLink = prepare(db_, "INSERT INTO beacon_posts VALUES(?,?,?)");
  exec(db_, "BEGIN IMMEDIATE");
  for (const auto& b : array) {
    const std::int64_t id = b["id"].get<std::int64_t>();
    sqlite3_bind_int64(beacon, 1, id);
    bindText(beacon, 2, b["description"]);
    bindText(beacon, 3, b["uuid"]);
    bindInt(beacon, 4, b["major"]);
    bindInt(beacon, 5, b["minor"]);
    bindText(beacon, 6, b["message"]);
    sqlite3_bind_double(beacon, 7, b["latitude"].get<double>());
    sqlite3_bind_double(beacon, 8, b["longitude"].get<double>());
    bindText(beacon, 9, b["created_at"]);
    bindText(beacon, 10, b["updated_at"]);
    run(beacon);
    int position = 0;
    for (const auto& p : b["posts"]) {
      insertPost(statements, p);
      insertLink(postLink, id, position++, p["id"].get<std::int64_t>());
    }
  }
  exec(db_, "COMMIT");
  for (auto* s : {beacon, postLink}) sqlite3_finalize(s);
  return array.size();
}

std::size_t FloorStore::readBeacon(std::int64_t id) {
  if (!beaconById_) {
    beaconById_ = prepare(db_, "SELECT * FROM beacon WHERE id = ?");
    postsOfBeacon_ = prepare(db_,
                             "SELECT post.* FROM beacon_posts JOIN post ON post.id = target"
                             " WHERE owner = ? ORDER BY position");
    periodsOfPost_ = prepare(db_,
                             "SELECT period.* FROM post_periods JOIN period ON period.id = target"
                             " WHERE owner = ? ORDER BY position");
  }
  sqlite3_bind_int64(beaconById_, 1, id);
  std::size_t rows = readRows(beaconById_);
  if (rows == 0) return 0;
  std::vector<std::int64_t> posts;
  sqlite3_bind_int64(postsOfBeacon_, 1, id);
  while (sqlite3_step(postsOfBeacon_) == SQLITE_ROW) {
    posts.push_back(sqlite3_column_int64(postsOfBeacon_, 0));
    for (int c = 1, n = sqlite3_column_count(postsOfBeacon_); c < n; ++c) {
      sqlite3_column_text(postsOfBeacon_, c);
    }
  }
  sqlite3_reset(postsOfBeacon_);
  rows += posts.size();
  for (std::int64_t post : posts) {
    sqlite3_bind_int64(periodsOfPost_, 1, post);
    rows += readRows(periodsOfPost_);
  }
  return rows;
}

}  // namespace qvl::bench
