#pragma once
// Waits for something another thread does, with a time-out, never a bare sleep.

#include <chrono>
#include <functional>
#include <thread>

namespace qvl::test {

/// Polls `condition` every 2 ms until it holds (true) or `timeout` passes (false).
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace qvl::test
