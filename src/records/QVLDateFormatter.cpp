#include "quorvel/records/QVLDateFormatter.h"

#include <chrono>
#include <cstdio>

namespace {

// Reads exactly `count` ASCII digits at `pos`.
bool digits(std::string_view text, size_t pos, size_t count, int* out) {
  if (pos + count > text.size()) return false;
  int value = 0;
  for (size_t i = pos; i < pos + count; ++i) {
    char c = text[i];
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  *out = value;
  return true;
}

}  // namespace

std::optional<qvl::Date> QVLDateFormatter::dateFrom(std::string_view text) const {
  using namespace std::chrono;
  int y, mo, d, h, mi, s;
  if (text.size() < 20 || !digits(text, 0, 4, &y) || text[4] != '-' || !digits(text, 5, 2, &mo) ||
      text[7] != '-' || !digits(text, 8, 2, &d) || text[10] != 'T' || !digits(text, 11, 2, &h) ||
      text[13] != ':' || !digits(text, 14, 2, &mi) || text[16] != ':' || !digits(text, 17, 2, &s)) {
    return std::nullopt;
  }
  if (h > 23 || mi > 59 || s > 59) return std::nullopt;
  year_month_day day{year{y}, month{static_cast<unsigned>(mo)},
                     std::chrono::day{static_cast<unsigned>(d)}};
  if (!day.ok()) return std::nullopt;

  std::string_view zone = text.substr(19);
  int offsetMinutes = 0;
  if (zone == "Z") {
    offsetMinutes = 0;
  } else {
    if (zone[0] != '+' && zone[0] != '-') return std::nullopt;
    int zh = 0, zm = 0;
    if (!digits(zone, 1, 2, &zh)) return std::nullopt;
    if (zone.size() == 3) {
      zm = 0;
    } else if (zone.size() == 5) {
      if (!digits(zone, 3, 2, &zm)) return std::nullopt;
    } else if (zone.size() == 6 && zone[3] == ':') {
      if (!digits(zone, 4, 2, &zm)) return std::nullopt;
    } else {
      return std::nullopt;
    }
    if (zh > 23 || zm > 59) return std::nullopt;
    offsetMinutes = (zh * 60 + zm) * (zone[0] == '-' ? -1 : 1);
  }
  sys_seconds local = sys_days(day) + hours(h) + minutes(mi) + seconds(s);
  return qvl::Date(local - minutes(offsetMinutes));
}

std::string QVLDateFormatter::stringFrom(qvl::Date date) const {
  using namespace std::chrono;
  auto secs = floor<seconds>(date);
  auto dayPoint = floor<days>(secs);
  year_month_day day{dayPoint};
  hh_mm_ss<seconds> time{secs - dayPoint};
  const int y = static_cast<int>(day.year());
  char buffer[48];
  std::snprintf(buffer, sizeof buffer,
                y >= 0 && y <= 9999 ? "%04d-%02u-%02uT%02ld:%02ld:%02ld+0000"
                                    : "%+05d-%02u-%02uT%02ld:%02ld:%02ld+0000",
                y, static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()),
                static_cast<long>(time.hours().count()), static_cast<long>(time.minutes().count()),
                static_cast<long>(time.seconds().count()));
  return buffer;
}
