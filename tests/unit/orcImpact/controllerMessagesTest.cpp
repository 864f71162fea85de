// What the service writes to the vehicle micro: the mirror LED and its blink
// timer, the Assist status, and the cellular module reset. Which LED a blink
// or a system error ends with, and a red request refused during a call, are
// seen end to end.
#include <algorithm>

#include "unit/orcImpact/orcFixture.h"

namespace {

using namespace orcTest;

using ControllerMessagesTest = OrcFixture;

TEST_F(ControllerMessagesTest, VehicleWithoutEmbeddedPhoneSendsNoLedStatusButTheAssistStatus) {
  connectChannel();
  extServHandle.mEmbeddedPhoneEnabled = false;
  for (eLedStatus status : {LED_SOLID_GREEN, LED_RED, LED_OFF}) canIpcEmergencyHandler.setLedStatus(status);
  canIpcEmergencyHandler.sendAssistAppStatus(true);
  canIpcEmergencyHandler.sendAssistAppStatus(false);
  EXPECT_EQ(std::vector<Bytes>({{2, 1}, {2, 0}}), micro.drain());
  EXPECT_EQ(LED_OFF, canIpcEmergencyHandler.getLastLedSetStatus());
}

// The blink timer threads are detached but use the process objects when
// they end; the process waits for them before it destroys those objects.
TEST_F(ControllerMessagesTest, BlinkTimerWaitEndsOnlyAfterEveryBlinkHasSetTheLedBack) {
  connectChannel();
  canIpcEmergencyHandler.setLedStatus(LED_BLINKING_GREEN);
  canIpcEmergencyHandler.startBlinkTimer();
  canIpcEmergencyHandler.startBlinkTimer();

  ASSERT_TRUE(waitForBlinkTimers());
  // Both blinks are over, each having turned the LED off (no emergency).
  const std::vector<Bytes> sent = micro.drain();
  EXPECT_EQ(std::count(sent.begin(), sent.end(), Bytes{ORC_MSG_LED_STATUS, LED_OFF}), 2);
  EXPECT_EQ(canIpcEmergencyHandler.getLastLedSetStatus(), LED_OFF);
  EXPECT_TRUE(waitForBlinkTimers());  // nothing left to wait for
}

TEST_F(ControllerMessagesTest, ResetOnAClosedChannelUsesUpTheAttemptsAtOnceWithoutMarker) {
  const std::string marker = root.path(resetMarkerFile);
  EXPECT_FALSE(canIpcEmergencyHandler.v850ResetSierra());  // the channel was never opened
  EXPECT_FALSE(canIpcEmergencyHandler.v850ResetSierra());
  EXPECT_EQ(3u, log.countTrace("write IPC for reset, rc -1"));
  EXPECT_TRUE(logHas("Failed to send IPC msg to reset Sierra.  err " + std::string(strerror(EBADF)) +
                     ",  ResetCounter 3."));
  EXPECT_FALSE(testSupport::fileExists(marker));

  canIpcEmergencyHandler.resetV850ResetPhCounter();
  EXPECT_FALSE(canIpcEmergencyHandler.v850ResetSierra());
  EXPECT_EQ(6u, log.countTrace("write IPC for reset, rc -1"));
  EXPECT_FALSE(testSupport::fileExists(marker));
}

}  // namespace
