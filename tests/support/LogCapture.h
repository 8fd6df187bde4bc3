#pragma once
// Collects the library's log lines while alive, through the environment's log sink.

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "quorvel/Platform/Env.h"

namespace qvl::test {

class LogCapture {
 public:
  LogCapture()
      : scope_([lines = lines_](Env& env) {
          env.logSink = [lines](LogLevel, std::string_view line) {
            std::lock_guard lock(lines->mutex);
            lines->text.emplace_back(line);
          };
        }) {}
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const {
    std::lock_guard lock(lines_->mutex);
    return lines_->text;
  }
  std::size_t count(std::string_view line) const {
    auto all = lines();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), line));
  }
  void clear() {
    std::lock_guard lock(lines_->mutex);
    lines_->text.clear();
  }

 private:
  struct Lines {
    std::mutex mutex;
    std::vector<std::string> text;
  };
  // Shared with the sink, which worker threads may still call after the capture is gone.
  std::shared_ptr<Lines> lines_ = std::make_shared<Lines>();
  ScopedEnv scope_;
};

}  // namespace qvl::test
