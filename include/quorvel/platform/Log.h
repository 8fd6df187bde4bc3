#pragma once
/// @file
/// The library's diagnostic log: one plain line per message, each with a level.

#include <functional>
#include <string_view>

#include "quorvel/Export.h"

namespace qvl {

/// How much a log line matters, most important first. The environment's Env::logLevel
/// keeps lines of its level and those above it.
enum class LogLevel {
  error,    ///< Something the host asked for failed, or data was refused or lost.
  warning,  ///< A degraded mode or a misconfiguration the library works around.
  info,     ///< A notable event of normal work (a backend chosen, a file moved aside).
  debug,    ///< Detail for finding a fault; off by default.
};

/// The level's lower-case name ("error", "warning", "info", "debug").
QVL_EXPORT std::string_view logLevelName(LogLevel level);

/// Receives one log line, without a trailing newline, and its level. Called on whatever
/// thread logs; a sink must be thread-safe and must not call back into the library.
using LogSink = std::function<void(LogLevel level, std::string_view line)>;

/// The text every log line begins with.
inline constexpr std::string_view logPrefix = "QuorvelSDK: ";

/// Logs `message` at `level`: when `level` is kept by Env::logLevel, the line
/// logPrefix + `message` goes to the environment's sink (Env::logSink; standard error when
/// it has none). Thread-safe; never throws.
QVL_EXPORT void log(LogLevel level, std::string_view message);

}  // namespace qvl
