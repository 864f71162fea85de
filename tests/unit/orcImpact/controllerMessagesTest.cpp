// What the service writes to the vehicle micro: the mirror LED and its blink
// timer, the Assist status, and the cellular module reset.
#include <algorithm>

#include "unit/orcImpact/orcFixture.h"

namespace {

using namespace orcTest;

class ControllerMessagesTest : public OrcFixture {
 protected:
  // What one LED request sent.
  std::vector<Bytes> request(eLedStatus status) {
    canIpcEmergencyHandler.setLedStatus(status);
    return micro.drain();
  }
};

TEST_F(ControllerMessagesTest, RedIsRefusedOverGreenAndOffBecomesRedWhileASystemErrorExists) {
  connectChannel();
  for (eLedStatus green : {LED_BLINKING_GREEN, LED_SOLID_GREEN}) {
    request(green);
    EXPECT_TRUE(request(LED_RED).empty());
    EXPECT_EQ(green, canIpcEmergencyHandler.getLastLedSetStatus());
  }
  request(LED_OFF);
  EXPECT_EQ(std::vector<Bytes>({{1, 3}}), request(LED_RED));

  ecallHandler.systemError = ecallSystemFailure::bitMask[ecallSystemFailure::ORC_SERIAL_LOC];
  request(LED_SOLID_GREEN);
  EXPECT_EQ(std::vector<Bytes>({{1, 3}}), request(LED_OFF));
  EXPECT_EQ(LED_RED, canIpcEmergencyHandler.getLastLedSetStatus());
  ecallHandler.systemError = 0;
  EXPECT_EQ(std::vector<Bytes>({{1, 0}}), request(LED_OFF));
  EXPECT_TRUE(logHas("send LED status 3\n"));
}

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
