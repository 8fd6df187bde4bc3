#pragma once

#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "quorvel/platform/Log.h"

namespace qvl::detail {

// Runs a task on one of the library's own threads (timer, workers, queues, D-Bus loop) and
// returns what it threw, as text, or nullopt. Nothing gets past: an exception that left the
// thread's function would end the host's process.
template <class Task>
std::optional<std::string> failureOf(Task&& task) noexcept {
  try {
    try {
      task();
      return std::nullopt;
    } catch (const std::exception& e) {
      return std::string(e.what());
    } catch (...) {
      return std::string("an exception that is not a std::exception");
    }
  } catch (...) {  // no memory for the text
    return std::string();
  }
}

// Logs a failure of failureOf() once, naming `origin`; a sink that throws changes nothing.
inline void logFailure(std::string_view origin, const std::string& what) noexcept {
  try {
    log(LogLevel::error, std::string(origin) + " threw: " + what);
  } catch (...) {
  }
}

// Runs `task`; what it throws is logged, naming `origin`, and goes no further.
template <class Task>
void runGuarded(std::string_view origin, Task&& task) noexcept {
  if (auto what = failureOf(task)) logFailure(origin, *what);
}

}  // namespace qvl::detail
