// qvl-scan as a user runs it: its exit status and what it says. The test process has no
// system bus (see TestMain), so the radio is missing unless the world is simulated.

#include <sys/wait.h>

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

namespace {

TEST(ScanTool, BadArgumentsExit2AndNoRadioExits1) {
#ifndef QVL_SCAN_BINARY
  GTEST_SKIP() << "built without qvl-scan";
#else
  const std::string uuid = " --uuid E2C56DB5-DFFB-48D2-B060-D0F5A71096E0";
  struct Case {
    std::string arguments;
    int status;
    const char* says;
  };
  const Case cases[] = {
      {uuid + " --seconds abc", 2, "usage:"},
      {uuid + " --seconds -1", 2, "usage:"},
      {uuid + " --seconds 1x", 2, "usage:"},
      {uuid + " --seconds inf", 2, "usage:"},
      {uuid + " --seconds 1e300", 2, "usage:"},
      {uuid + " --seconds", 2, "usage:"},
      {uuid + " --frobnicate", 2, "usage:"},
      {uuid + " --simulate --record x.json", 2, "usage:"},
      {uuid + " --seconds 30", 1, "no Bluetooth radio"},
      {uuid + " --seconds 1.5 --simulate", 0, "ranged E2C56DB5"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments);
    // Bounded: a scan that runs on is killed and fails the case.
    FILE* run = ::popen(("timeout 20 " QVL_SCAN_BINARY + c.arguments + " 2>&1").c_str(), "r");
    ASSERT_NE(run, nullptr);
    std::string output;
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, run)) output += buffer;
    const int status = ::pclose(run);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == c.status) << status << ": " << output;
    EXPECT_NE(output.find(c.says), std::string::npos) << output;
  }
#endif
}

}  // namespace
