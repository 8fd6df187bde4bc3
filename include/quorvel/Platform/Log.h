#pragma once
/// @file
/// The library's diagnostic log: one plain line per message.

#include <functional>
#include <string_view>

#include "quorvel/Export.h"

namespace qvl {

/// Receives one log line, without a trailing newline. Called on whatever thread logs;
/// a sink must be thread-safe and must not call back into the library.
using LogSink = std::function<void(std::string_view line)>;

/// Writes one line to the environment's sink (Env::logSink; standard error when it has
/// none). Thread-safe.
QVL_EXPORT void log(std::string_view line);

}  // namespace qvl
