#pragma once
// Collects the library's log lines while alive, through the environment's log sink; with a
// level, the environment keeps only lines of that level and above.

#include <algorithm>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "quorvel/platform/Env.h"

namespace qvl::test {

class LogCapture {
 public:
  explicit LogCapture(std::optional<LogLevel> level = std::nullopt)
      : scope_([lines = lines_, level](Env& env) {
          if (level) env.logLevel = *level;
          env.logSink = [lines](LogLevel level, std::string_view line) {
            std::lock_guard lock(lines->mutex);
            lines->text.emplace_back(line);
            lines->levels.push_back(level);
          };
        }) {}
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const {
    std::lock_guard lock(lines_->mutex);
    return lines_->text;
  }
  // Every line with its level.
  std::vector<std::pair<LogLevel, std::string>> entries() const {
    std::lock_guard lock(lines_->mutex);
    std::vector<std::pair<LogLevel, std::string>> all;
    for (std::size_t i = 0; i < lines_->text.size(); ++i) {
      all.emplace_back(lines_->levels[i], lines_->text[i]);
    }
    return all;
  }
  std::size_t count(std::string_view line) const {
    auto all = lines();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), line));
  }
  void clear() {
    std::lock_guard lock(lines_->mutex);
    lines_->text.clear();
    lines_->levels.clear();
  }

 private:
  struct Lines {
    std::mutex mutex;
    std::vector<std::string> text;
    std::vector<LogLevel> levels;
  };
  // Shared with the sink, which worker threads may still call after the capture is gone.
  std::shared_ptr<Lines> lines_ = std::make_shared<Lines>();
  ScopedEnv scope_;
};

}  // namespace qvl::test
