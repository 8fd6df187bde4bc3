#include "quorvel/Platform/Clock.h"

#include <mutex>

namespace qvl {

namespace {

std::mutex& overrideMutex() {
  static std::mutex mutex;
  return mutex;
}

std::optional<Date>& overrideNow() {
  static std::optional<Date> now;
  return now;
}

}  // namespace

Date Clock::now() {
  {
    std::lock_guard lock(overrideMutex());
    if (overrideNow()) return *overrideNow();
  }
  return std::chrono::floor<Date::duration>(std::chrono::system_clock::now());
}

void Clock::setNowForTesting(std::optional<Date> now) {
  std::lock_guard lock(overrideMutex());
  overrideNow() = now;
}

}  // namespace qvl
