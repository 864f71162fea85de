// The blink timer threads are detached but use the process objects when
// they end; the process waits for them before it destroys those objects.
#include <algorithm>

#include "orcFixture.h"

namespace orcTest {
namespace {

using BlinkTimerWaitTest = OrcFixture;

TEST_F(BlinkTimerWaitTest, WaitEndsOnlyAfterEveryBlinkHasSetTheLedBack) {
  connectChannel();
  canIpcEmergencyHandler.setLedStatus(LED_BLINKING_GREEN);
  canIpcEmergencyHandler.startBlinkTimer();
  canIpcEmergencyHandler.startBlinkTimer();

  ASSERT_TRUE(waitForBlinkTimers());
  // Both blinks are over, each having turned the LED off (no emergency).
  const std::vector<Bytes> sent = micro.drain();
  EXPECT_EQ(std::count(sent.begin(), sent.end(), Bytes{ORC_MSG_LED_STATUS, LED_OFF}), 2);
  EXPECT_EQ(canIpcEmergencyHandler.getLastLedSetStatus(), LED_OFF);
  // Nothing left to wait for.
  EXPECT_TRUE(waitForBlinkTimers());
}

}  // namespace
}  // namespace orcTest
