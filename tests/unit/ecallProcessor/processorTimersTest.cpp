// The processor timers on a real channel of the platform.
#include "unit/unitFixture.h"

// The state machine's timer takes milliseconds, 0 disarms it; a stop after expiry keeps the pulse.
TEST(ProcessorTimers, MillisecondsZeroDisarmsAndStopAfterExpiryKeepsThePulse) {
  platform::setTimeScale(1.0);
  processorTimers timers;
  PulseProbe probe(timers);
  EXPECT_EQ(timers.startEcallStateMachineTimer(60000), 0);
  itimerspec left{};
  ASSERT_EQ(qnx::timer_gettime(processProbe::timerId(timers, processorTimers::timerStateMachine), &left), 0);
  const long long leftNs = left.it_value.tv_sec * 1000000000LL + left.it_value.tv_nsec;
  EXPECT_GT(leftNs, 59000000000LL);
  EXPECT_LE(leftNs, 60000000000LL);
  timers.startEcallStateMachineTimer(0);
  EXPECT_FALSE(timers.isTimerActive(processorTimers::timerStateMachine));
  EXPECT_EQ(timers.startEcallStateMachineTimer(1), 0);
  EXPECT_EQ(probe.next(), ECALL_PULSE_RUN_STATE_MACHINE);

  platform::setTimeScale(0.001);
  ASSERT_EQ(timers.startDelayEcallStartTimer(), 0);
  ASSERT_TRUE(testSupport::waitUntil([&] { return !timers.isTimerActive(processorTimers::timerDelayEcallStart); }));
  EXPECT_EQ(timers.stopDelayEcallRequest(), 0);
  EXPECT_EQ(probe.next(), ECALL_PULSE_START_CALL);
  EXPECT_TRUE(probe.nothingQueued());
}
