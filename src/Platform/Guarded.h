#pragma once

#include <exception>
#include <string>
#include <string_view>

#include "quorvel/Platform/Log.h"

namespace qvl::detail {

// Runs a task on one of the library's own threads (timer, workers, queues, D-Bus loop). What
// the task throws is logged once, naming `origin`, and goes no further: an exception that
// left the thread's function would end the host's process.
template <class Task>
void runGuarded(std::string_view origin, Task&& task) noexcept {
  std::string what;
  try {
    task();
    return;
  } catch (const std::exception& e) {
    what = e.what();
  } catch (...) {
    what = "an exception that is not a std::exception";
  }
  try {
    log("QuorvelSDK: " + std::string(origin) + " threw: " + what);
  } catch (...) {  // a sink that throws, or no memory for the line: the thread still goes on
  }
}

}  // namespace qvl::detail
