#include "device/BusThread.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <exception>
#include <optional>
#include <system_error>
#include <unordered_set>

#include <sdbus-c++/sdbus-c++.h>

#include "platform/Guarded.h"
#include "quorvel/platform/Log.h"

namespace qvl::device {

void guard(const std::string& origin, const std::function<void()>& callback) noexcept {
  std::optional<std::string> what = detail::failureOf(callback);
  if (!what) return;
  // Each bus thread logs an origin once: a peer that makes a handler fail can do it again.
  thread_local std::unordered_set<std::string> logged;
  try {
    if (logged.insert(origin).second) detail::logFailure("D-Bus " + origin, *what);
  } catch (...) {  // no memory for the set or the line: the failure itself was handled
  }
}

std::optional<std::vector<bool>> namesOwned(const std::string& address,
                                            const std::vector<std::string>& names,
                                            std::string& error) {
  std::unique_ptr<sdbus::IConnection> connection;
  try {
    connection = address.empty() ? sdbus::createSystemBusConnection()
                                 : sdbus::createSessionBusConnectionWithAddress(address);
  } catch (const std::exception& failure) {
    error = failure.what();
    return std::nullopt;
  }
  auto daemon = sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
  std::vector<bool> owned;
  for (const std::string& name : names) {
    bool has = false;
    try {
      daemon->callMethod("NameHasOwner")
          .onInterface("org.freedesktop.DBus")
          .withArguments(name)
          .withTimeout(std::chrono::seconds(1))
          .storeResultsTo(has);
    } catch (const sdbus::Error&) {
      has = false;  // no answer in time: as good as absent
    }
    owned.push_back(has);
  }
  return owned;
}

BusThread::BusThread(std::string address, Task setup, std::function<void()> teardown,
                     std::function<void(const std::string&)> failed)
    : wakeFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (wakeFd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  thread_ = std::thread([this, address = std::move(address), setup = std::move(setup),
                         teardown = std::move(teardown),
                         failed = std::move(failed)] { run(address, setup, teardown, failed); });
}

BusThread::~BusThread() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake();
  thread_.join();
  close(wakeFd_);
}

void BusThread::post(Task task) {
  {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  wake();
}

void BusThread::wake() {
  std::uint64_t one = 1;
  [[maybe_unused]] ssize_t written = write(wakeFd_, &one, sizeof one);
}

void BusThread::run(const std::string& address, const Task& setup,
                    const std::function<void()>& teardown,
                    const std::function<void(const std::string&)>& failed) {
  detail::refuseTeardownOnThisThread();
  // Bound while handlers run, not while waiting: the context may go meanwhile.
  std::optional<detail::ContextBinding> binding(std::in_place, context_.lock());
  std::unique_ptr<sdbus::IConnection> connection;
  try {
    connection = address.empty() ? sdbus::createSystemBusConnection()
                                 : sdbus::createSessionBusConnectionWithAddress(address);
    setup(*connection);
  } catch (const std::exception& error) {
    if (connection) teardown();  // what setup made goes before its connection
    connection.reset();
    const auto* busError = dynamic_cast<const sdbus::Error*>(&error);
    failed(busError ? busError->getName() + ": " + busError->getMessage() : error.what());
  }
  for (;;) {
    if (!binding) binding.emplace(context_.lock());
    std::deque<Task> tasks;
    {
      std::lock_guard lock(mutex_);
      if (stopping_) break;
      tasks.swap(tasks_);
    }
    if (!connection) {
      binding.reset();
      pollfd wakeOnly{wakeFd_, POLLIN, 0};
      poll(&wakeOnly, 1, -1);
    } else {
      for (Task& task : tasks) guard("posted task", [&] { task(*connection); });
      try {
        while (connection->processPendingRequest()) {
        }
      } catch (const sdbus::Error& error) {
        // The connection is gone (the bus stopped): nothing more can arrive on it.
        teardown();
        connection.reset();
        failed(error.getName() + ": " + error.getMessage());
        continue;
      } catch (...) {
        guard("message dispatch", [] { throw; });  // a handler that is not guarded itself
      }
      if (!tasks.empty()) continue;  // a task may have queued messages
      sdbus::IConnection::PollData data = connection->getEventLoopPollData();
      pollfd fds[2] = {{data.fd, data.events, 0}, {wakeFd_, POLLIN, 0}};
      binding.reset();
      poll(fds, 2, data.getPollTimeout());
    }
    std::uint64_t count;
    [[maybe_unused]] ssize_t read_ = read(wakeFd_, &count, sizeof count);
  }
  if (connection) teardown();
  binding.reset();
}

}  // namespace qvl::device
