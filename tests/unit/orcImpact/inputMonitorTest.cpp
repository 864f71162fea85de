// Start of the two input readers. monitorCANForEmergency never returns and
// its readers stay blocked for the life of the process, so each scenario
// runs in a child process that ends with _exit once it has seen enough.
#include <cstdio>
#include <filesystem>
#include <thread>

#include "unit/orcImpact/orcFixture.h"

namespace {

using namespace orcTest;

class InputMonitorTest : public OrcFixture {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    OrcFixture::SetUp();
  }

  // Starts the readers, presses the emergency button (the object replaced
  // as its writers do) and checks that the button reader saw it.
  void startAndPressEmergencyButton(std::vector<std::string>& failures) {
    std::thread([] { canIpcEmergencyHandler.monitorCANForEmergency(); }).detach();
    const std::string path = root.path(vehicleStatusPPSPath);
    testSupport::writeFile(path + ".new", "@vehstat\nE_CALL_BtnStat::1\nU_CALL_BtnStat::0\n");
    std::filesystem::rename(path + ".new", path);
    if (!testSupport::waitUntil([] { return ecallHandler.curECallType == ecallMain::E_CALL_BtnStat; }))
      failures.push_back("the button press was not read");
  }

  // Ends the child: 0 when every check held, else the failures on stderr.
  [[noreturn]] void finish(const std::vector<std::string>& failures) {
    for (const std::string& failure : failures) fprintf(stderr, "FAILED: %s\n", failure.c_str());
    std::error_code ec;
    std::filesystem::remove_all(root.dir(), ec);
    _exit(failures.empty() ? 0 : 1);
  }
};

TEST_F(InputMonitorTest, WithoutTheChannelOnlyTheButtonReaderRuns) {
  EXPECT_EXIT(
      {
        std::vector<std::string> failures;
        ecallHandler.orcMonitoringStarted = true;
        startAndPressEmergencyButton(failures);
        if (!testSupport::waitUntil([] { return !ecallHandler.orcMonitoringStarted; }))
          failures.push_back("orcMonitoringStarted stayed true");
        if (!log.hasSlog("cannot open ORC IPC channel /dev/ipc/ch12")) failures.push_back("no open failure logged");
        finish(failures);
      },
      testing::ExitedWithCode(0), "");
}

TEST_F(InputMonitorTest, WithTheChannelBothReadersRun) {
  EXPECT_EXIT(
      {
        std::vector<std::string> failures;
        micro.listenAtChannelPath();
        startAndPressEmergencyButton(failures);
        if (!testSupport::waitUntil([] { return ecallHandler.orcMonitoringStarted.load(); }))
          failures.push_back("orcMonitoringStarted stayed false");
        if (!micro.acceptHandler()) failures.push_back("the channel was not connected");
        micro.send({0x01, 0x01, 0x00, 0x00});
        if (!testSupport::waitUntil([] { return ecallHandler.systemError != 0u; }))
          failures.push_back("the LOC message was not read");
        finish(failures);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
