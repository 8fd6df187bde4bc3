#pragma once
// Collects every line the library logs while alive, from any context or thread (see
// LogCaptures); with a level, only lines of that level and above.

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

class LogCapture;

/// The test binary's log sink (its standard context's, which every test context inherits):
/// each line goes to every capture alive, whichever context or thread logged it.
class LogCaptures {
 public:
  static LogCaptures& instance() {
    static LogCaptures* captures = new LogCaptures();
    return *captures;
  }
  static void sink(LogLevel level, std::string_view line);
  void add(LogCapture* capture) {
    std::lock_guard lock(mutex_);
    captures_.push_back(capture);
  }
  void remove(LogCapture* capture) {
    std::lock_guard lock(mutex_);
    std::erase(captures_, capture);
  }

 private:
  std::mutex mutex_;
  std::vector<LogCapture*> captures_;
};

class LogCapture {
 public:
  explicit LogCapture(std::optional<LogLevel> level = std::nullopt)
      : level_(level.value_or(LogLevel::info)) {
    LogCaptures::instance().add(this);
  }
  ~LogCapture() { LogCaptures::instance().remove(this); }
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
  void take(LogLevel level, std::string_view line) {
    if (static_cast<int>(level) > static_cast<int>(level_)) return;
    std::lock_guard lock(lines_->mutex);
    lines_->text.emplace_back(line);
    lines_->levels.push_back(level);
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
  LogLevel level_;
};

inline void LogCaptures::sink(LogLevel level, std::string_view line) {
  LogCaptures& captures = instance();
  std::lock_guard lock(captures.mutex_);
  for (LogCapture* capture : captures.captures_) capture->take(level, line);
}

}  // namespace qvl::test
