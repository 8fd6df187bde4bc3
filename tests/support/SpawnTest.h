#pragma once
// Starts this test binary afresh in a child process to run one (usually DISABLED_) test,
// with `settings` ("NAME=value") added to the environment. A process started afresh, not
// forked from the threaded test process, has no lock a fork could have left held.

#include <spawn.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace qvl::test {

inline pid_t spawnTest(const std::string& test, std::vector<std::string> settings) {
  std::vector<char*> environment;
  for (char** e = environ; *e; ++e) environment.push_back(*e);
  for (auto& setting : settings) environment.push_back(setting.data());
  environment.push_back(nullptr);
  std::string self = "/proc/self/exe";
  std::string filter = "--gtest_filter=" + test;
  std::string disabled = "--gtest_also_run_disabled_tests";
  char* argv[] = {self.data(), filter.data(), disabled.data(), nullptr};
  pid_t child = 0;
  return ::posix_spawn(&child, self.c_str(), nullptr, nullptr, argv, environment.data()) == 0
             ? child
             : -1;
}

}  // namespace qvl::test
