#pragma once
/// @file
/// Where the library's serial queues run their tasks.

#include <functional>
#include <memory>

#include "quorvel/Export.h"

namespace qvl {

/// Runs jobs handed to it on threads of its own choosing. The library's serial queues (one
/// per request) post one job per task here. Implementations are thread-safe.
class QVL_EXPORT Executor {
 public:
  virtual ~Executor() = default;
  /// Takes the job and returns; the job runs later, exactly once, never inline.
  virtual void post(std::function<void()> job) = 0;
};

/// The process's pool of worker threads: created on demand, capped at
/// max(8, 2 x hardware threads), never destroyed. At exit, jobs still waiting are dropped and
/// the exit waits at most a second for running ones.
QVL_EXPORT std::shared_ptr<Executor> threadPoolExecutor();

}  // namespace qvl
