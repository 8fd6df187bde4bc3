#include "quorvel/platform/Log.h"

#include <cstdio>
#include <string>

#include "quorvel/platform/Env.h"

namespace qvl {

std::string_view logLevelName(LogLevel level) {
  switch (level) {
    case LogLevel::error:
      return "error";
    case LogLevel::warning:
      return "warning";
    case LogLevel::info:
      return "info";
    case LogLevel::debug:
      return "debug";
  }
  return "unknown";
}

void log(LogLevel level, std::string_view message) {
  const std::shared_ptr<const Env> env = Env::current();
  if (static_cast<int>(level) > static_cast<int>(env->logLevel)) return;
  try {
    std::string line;
    line.reserve(logPrefix.size() + message.size() + 1);
    line.append(logPrefix).append(message);
    if (env->logSink) {
      env->logSink(level, line);
      return;
    }
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stderr);
  } catch (...) {
    // A sink that throws, or no memory for the line: the message is lost, the caller is not.
  }
}

}  // namespace qvl
