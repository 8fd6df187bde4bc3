// The test binary's entry point: each process gets its own data and config directories, so
// no test reads or writes the user's real store or defaults, and parallel test processes
// never share a file by accident. No test reaches the machine's system bus either. Tests
// build contexts of their own; lines logged outside them reach the live log captures.

#include <gtest/gtest.h>

#include <cstdlib>

#include "quorvel/platform/Env.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

int main(int argc, char** argv) {
  qvl::test::TempDir home;
  setenv("XDG_DATA_HOME", (home.path() + "/data").c_str(), 1);
  setenv("XDG_CONFIG_HOME", (home.path() + "/config").c_str(), 1);
  setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + home.path() + "/no-system-bus").c_str(), 1);
  qvl::Env env;
  env.logLevel = qvl::LogLevel::debug;  // each capture keeps its own level
  env.logSink = &qvl::test::LogCaptures::sink;
  qvl::Env::configure(std::move(env));
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
