#include "quorvel/Platform/Log.h"

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

namespace qvl {
namespace {

std::mutex& sinkMutex() {
  static std::mutex mutex;
  return mutex;
}

std::shared_ptr<const LogSink>& currentSink() {
  static std::shared_ptr<const LogSink> sink;
  return sink;
}

}  // namespace

void log(std::string_view line) {
  std::shared_ptr<const LogSink> sink;
  {
    std::lock_guard lock(sinkMutex());
    sink = currentSink();
  }
  if (sink) {
    (*sink)(line);
    return;
  }
  std::string text(line);
  text.push_back('\n');
  std::fwrite(text.data(), 1, text.size(), stderr);
}

void setLogSink(LogSink sink) {
  auto next = sink ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
  std::lock_guard lock(sinkMutex());
  currentSink() = std::move(next);
}

}  // namespace qvl
