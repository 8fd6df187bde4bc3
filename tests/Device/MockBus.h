#pragma once
// A private D-Bus daemon with python-dbusmock services on it, for the device backend's tests.
// Everything it starts it stops; every wait has a time-out. Without dbus-daemon or
// python3-dbusmock the tests are skipped, except in CI (CI set), where that is a failure.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include "support/Eventually.h"

extern char** environ;

namespace qvl::test {

using namespace std::chrono_literals;

using qvl::test::eventually;

class MockBus {
 public:
  static constexpr const char* kPython = "/usr/bin/python3";

  /// Empty when the tools are there; otherwise what is missing.
  static std::string missingTools() {
    if (access("/usr/bin/dbus-daemon", X_OK) != 0) return "dbus-daemon (Debian: dbus)";
    if (std::system("/usr/bin/python3 -c 'import dbusmock' 2>/dev/null") != 0) {
      return "python3-dbusmock";
    }
    return {};
  }

  MockBus() {
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    daemon_ =
        spawn({"/usr/bin/dbus-daemon", "--session", "--nofork", "--print-address=1"}, &actions, {});
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    pollfd ready{out[0], POLLIN, 0};
    char buffer[512];
    ssize_t n = poll(&ready, 1, 10000) == 1 ? read(out[0], buffer, sizeof buffer - 1) : -1;
    close(out[0]);
    if (n <= 0) throw std::runtime_error("dbus-daemon gave no address");
    address_.assign(buffer, static_cast<std::size_t>(n));
    address_.erase(address_.find_last_not_of("\n") + 1);
    client_ = sdbus::createSessionBusConnectionWithAddress(address_);
  }

  ~MockBus() {
    client_.reset();
    for (pid_t pid : services_) stop(pid);
    stop(daemon_);
  }

  const std::string& address() const { return address_; }

  /// Starts `/usr/bin/python3 -m dbusmock` with a template of ours (tests/Device/templates)
  /// and waits until it owns `name`.
  void start(const std::string& templateName, const std::string& name) {
    std::string path =
        (std::filesystem::path(__FILE__).parent_path() / "templates" / (templateName + ".py"))
            .string();
    posix_spawn_file_actions_t quiet;  // the mock logs every call on its standard output
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
    services_.push_back(spawn({kPython, "-m", "dbusmock", "--session", "-t", path}, &quiet,
                              {"DBUS_SESSION_BUS_ADDRESS=" + address_}));
    posix_spawn_file_actions_destroy(&quiet);
    auto daemon = proxy("org.freedesktop.DBus", "/org/freedesktop/DBus");
    bool owned = eventually([&] {
      bool has = false;
      daemon->callMethod("NameHasOwner")
          .onInterface("org.freedesktop.DBus")
          .withArguments(name)
          .storeResultsTo(has);
      return has;
    });
    if (!owned) throw std::runtime_error("mock " + templateName + " did not start");
  }

  /// Stops every mock service started so far, as a crashing daemon would go.
  void stopServices() {
    for (pid_t pid : services_) stop(pid);
    services_.clear();
  }

  /// A proxy on the test's own connection (calls from the test thread only).
  std::unique_ptr<sdbus::IProxy> proxy(const std::string& name, const std::string& path) {
    return sdbus::createProxy(*client_, name, path);
  }

 private:
  static pid_t spawn(const std::vector<std::string>& argv, posix_spawn_file_actions_t* actions,
                     const std::vector<std::string>& extraEnvironment) {
    std::vector<std::string> environment = extraEnvironment;
    for (char** e = environ; *e; ++e) {
      std::string entry = *e;
      bool replaced = false;
      for (const auto& extra : extraEnvironment) {
        replaced |= entry.compare(0, extra.find('=') + 1, extra, 0, extra.find('=') + 1) == 0;
      }
      if (!replaced) environment.push_back(std::move(entry));
    }
    std::vector<char*> args, env;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    for (const auto& e : environment) env.push_back(const_cast<char*>(e.c_str()));
    args.push_back(nullptr);
    env.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawn(&pid, args[0], actions, nullptr, args.data(), env.data()) != 0) {
      throw std::runtime_error("cannot start " + argv[0]);
    }
    return pid;
  }

  static void stop(pid_t pid) {
    kill(pid, SIGTERM);
    for (int i = 0; i < 500; ++i) {
      if (waitpid(pid, nullptr, WNOHANG) == pid) return;
      std::this_thread::sleep_for(2ms);
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }

  pid_t daemon_ = 0;
  std::vector<pid_t> services_;
  std::string address_;
  std::unique_ptr<sdbus::IConnection> client_;
};

}  // namespace qvl::test
