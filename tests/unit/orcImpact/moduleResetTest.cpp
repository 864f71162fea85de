// Reset requests for the cellular module and their limit.
#include "unit/orcImpact/orcFixture.h"

namespace {

using namespace orcTest;

class ModuleResetTest : public OrcFixture {
 protected:
  bool markerExists() const { return testSupport::fileExists(root.path(resetMarkerFile)); }
};

TEST_F(ModuleResetTest, AtMostThreeResetsUntilTheModuleIsSeenWorking) {
  connectChannel();
  for (int attempt = 1; attempt <= 3; ++attempt) {
    EXPECT_TRUE(canIpcEmergencyHandler.v850ResetSierra());
    EXPECT_EQ(std::vector<Bytes>({{3}}), micro.drain());
    EXPECT_TRUE(logHas("Sent IPC message to V850 to reset Sierra " + std::to_string(attempt) + "th time\n"));
    EXPECT_TRUE(markerExists());
  }
  EXPECT_FALSE(canIpcEmergencyHandler.v850ResetSierra());
  EXPECT_TRUE(micro.drain().empty());

  canIpcEmergencyHandler.resetV850ResetPhCounter();
  EXPECT_FALSE(markerExists());
  EXPECT_TRUE(canIpcEmergencyHandler.v850ResetSierra());
}

TEST_F(ModuleResetTest, ClosedChannelUsesUpTheAttemptsAtOnceWithoutMarker) {
  EXPECT_FALSE(canIpcEmergencyHandler.v850ResetSierra());  // the channel was never opened
  EXPECT_FALSE(canIpcEmergencyHandler.v850ResetSierra());
  EXPECT_EQ(3u, log.countTrace("write IPC for reset, rc -1"));
  EXPECT_TRUE(logHas("Failed to send IPC msg to reset Sierra.  err " + std::string(strerror(EBADF)) +
                     ",  ResetCounter 3."));
  EXPECT_FALSE(markerExists());

  canIpcEmergencyHandler.resetV850ResetPhCounter();
  EXPECT_FALSE(canIpcEmergencyHandler.v850ResetSierra());
  EXPECT_EQ(6u, log.countTrace("write IPC for reset, rc -1"));
  EXPECT_FALSE(markerExists());
}

}  // namespace
