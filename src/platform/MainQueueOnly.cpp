#include "platform/MainQueueOnly.h"

#include <cassert>
#include <mutex>
#include <set>
#include <string>

#include "platform/Immortal.h"
#include "quorvel/platform/Env.h"
#include "quorvel/platform/Log.h"
#include "quorvel/platform/MainQueue.h"

namespace qvl::detail {
namespace {

struct Reported {
  std::mutex mutex;
  std::set<std::string> operations;
};

// True the first time `operation` is reported in this process.
bool firstReport(const char* operation) {
  auto& reported = immortal<Reported>();
  std::lock_guard lock(reported.mutex);
  return reported.operations.insert(operation).second;
}

}  // namespace

bool requireMainQueue(const char* operation) {
  if (Env::current()->mainQueue->adoptCallingThread()) return true;
  if (firstReport(operation)) {
    log(LogLevel::error, std::string(operation) + " was called off the main queue");
  }
  assert(!"a main-queue-only operation was called off the main queue");
  return false;
}

}  // namespace qvl::detail
