// The nine processor timers on a real channel of the platform.
#include <algorithm>

#include "smFixture.h"

namespace {

constexpr int SENTINEL_CODE = 99;

class processorTimersTest : public ::testing::Test {
 protected:
  // A pulse of the test's own, queued behind whatever is already there.
  bool onlySentinelLeft() {
    probe.send(SENTINEL_CODE);
    return probe.next() == SENTINEL_CODE;
  }
  smTest::PulseProbe probe;
};

TEST_F(processorTimersTest, EveryTimerDeliversItsOwnCodeOnce) {
  platform::setTimeScale(0.001);
  startEcallStateMachineTimer(5);
  for (int (*start)() : {startEcallImmediateTimer, startDelayEcallRequest, startDelayEcallStartTimer,
                         startEcallTimeoutTimer, startAssistTimeoutTimer, startPhoneNotPresentTimeoutTimer,
                         startAntennaFaultTimeoutTimer, startSierraNoCommTimer})
    EXPECT_EQ(start(), 0);

  std::vector<int> codes;
  for (int i = 0; i < 9; ++i) codes.push_back(probe.next(std::chrono::seconds(5)));
  std::sort(codes.begin(), codes.end());
  EXPECT_EQ(codes, (std::vector<int>{1, 2, 2, 3, 5, 7, 8, 9, 10}));
  EXPECT_TRUE(onlySentinelLeft());  // one-shot: nothing more was queued
}

TEST_F(processorTimersTest, StateMachineTimerTakesMillisecondsAndZeroDisarms) {
  platform::setTimeScale(1.0);
  EXPECT_EQ(startEcallStateMachineTimer(60000), 0);
  itimerspec left{};
  ASSERT_EQ(qnx::timer_gettime(timerStateMachine.timerId, &left), 0);
  EXPECT_GT(left.it_value.tv_sec * 1000000000LL + left.it_value.tv_nsec, 59000000000LL);
  EXPECT_LE(left.it_value.tv_sec * 1000000000LL + left.it_value.tv_nsec, 60000000000LL);
  startEcallStateMachineTimer(0);
  EXPECT_FALSE(isTimerActive(timerStateMachine));
  EXPECT_EQ(startEcallStateMachineTimer(1), 0);
  EXPECT_EQ(probe.next(), ECALL_PULSE_RUN_STATE_MACHINE);
}

TEST_F(processorTimersTest, StopAfterExpiryLeavesTheQueuedPulse) {
  platform::setTimeScale(0.001);
  ASSERT_EQ(startDelayEcallStartTimer(), 0);
  ASSERT_TRUE(testSupport::waitUntil([] { return !isTimerActive(timerDelayEcallStart); }));  // fired
  EXPECT_EQ(stopDelayEcallRequest(), 0);
  EXPECT_EQ(probe.next(), ECALL_PULSE_START_CALL);
  EXPECT_TRUE(onlySentinelLeft());
}

}  // namespace
