// The nine processor timers on a real channel of the platform.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <optional>
#include <vector>

#include "ecallProcessor/ecallProcessor.h"
#include "ecallProcessor/processorTimers.h"
#include "platform/pulses.h"
#include "platform/runtime.h"
#include "support/testSupport.h"

namespace {

constexpr int SENTINEL_CODE = 99;

class processorTimersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    channel = qnx::ChannelCreate(0);
    ASSERT_GT(channel, 0);
    createProcessorTimers(channel);
  }

  // The code of the next pulse, or nothing if none comes within the
  // deadline (the channel is then destroyed to free the receiver).
  std::optional<int> nextPulseCode(std::chrono::milliseconds deadline = std::chrono::seconds(5)) {
    auto received = std::async(std::launch::async, [this] {
      qnx::_pulse pulse{};
      return qnx::MsgReceive(channel, &pulse, sizeof pulse, nullptr) == 0 ? std::optional<int>(pulse.code)
                                                                         : std::nullopt;
    });
    if (received.wait_for(deadline) == std::future_status::timeout) qnx::ChannelDestroy(channel);
    return received.get();
  }

  // A pulse of the test's own, queued behind whatever is already there.
  void sendSentinel() {
    const int coid = qnx::ConnectAttach(0, 0, channel, qnx::_NTO_SIDE_CHANNEL, 0);
    ASSERT_EQ(qnx::MsgSendPulse(coid, qnx::getprio(0), SENTINEL_CODE, 0), 0);
    qnx::ConnectDetach(coid);
  }

  int channel = -1;
};

long long nanoseconds(const timespec& t) { return t.tv_sec * 1000000000LL + t.tv_nsec; }

TEST_F(processorTimersTest, EveryTimerDeliversItsOwnCodeOnce) {
  platform::setTimeScale(0.001);
  startEcallStateMachineTimer(5);
  for (int (*start)() : {startEcallImmediateTimer, startDelayEcallRequest, startDelayEcallStartTimer,
                         startEcallTimeoutTimer, startAssistTimeoutTimer, startPhoneNotPresentTimeoutTimer,
                         startAntennaFaultTimeoutTimer, startSierraNoCommTimer})
    EXPECT_EQ(start(), 0);

  std::vector<int> codes;
  for (int i = 0; i < 9; ++i) {
    const std::optional<int> code = nextPulseCode();
    ASSERT_TRUE(code.has_value()) << "pulse " << i;
    codes.push_back(*code);
  }
  std::sort(codes.begin(), codes.end());
  EXPECT_EQ(codes, (std::vector<int>{1, 2, 2, 3, 5, 7, 8, 9, 10}));
  sendSentinel();
  EXPECT_EQ(nextPulseCode(), SENTINEL_CODE);  // one-shot: nothing more was queued
}

TEST_F(processorTimersTest, StateMachineTimerTakesMillisecondsAndZeroDisarms) {
  platform::setTimeScale(1.0);
  EXPECT_EQ(startEcallStateMachineTimer(60000), 0);
  EXPECT_EQ(timerStateMachine.expiry.it_value.tv_sec, 60);
  EXPECT_EQ(timerStateMachine.expiry.it_value.tv_nsec, 0);
  itimerspec left{};
  ASSERT_EQ(qnx::timer_gettime(timerStateMachine.timerId, &left), 0);
  EXPECT_GT(nanoseconds(left.it_value), 59000000000LL);
  EXPECT_LE(nanoseconds(left.it_value), 60000000000LL);

  startEcallStateMachineTimer(0);
  EXPECT_FALSE(isTimerActive(timerStateMachine));

  EXPECT_EQ(startEcallStateMachineTimer(1), 0);
  EXPECT_EQ(timerStateMachine.expiry.it_value.tv_nsec, 1000000);
  EXPECT_EQ(nextPulseCode(), ECALL_PULSE_RUN_STATE_MACHINE);
}

TEST_F(processorTimersTest, StoppedTimersKeepTheirDefaultDuration) {
  platform::setTimeScale(1.0);
  startEcallTimeoutTimer();
  startAssistTimeoutTimer();
  EXPECT_TRUE(isTimerActive(timerTimeoutCallConnect));
  EXPECT_TRUE(isRunningAssistTimeoutTimer());
  // Stopped while running, or never started at all.
  for (int (*stop)() : {stopDelayEcallRequest, stopEcallTimeoutTimer, stopPhoneNotPresentTimeoutTimer,
                        stopSierraNoCommTimer, stopAntennaFaultTimeoutTimer, stopAssistTimeoutTimer})
    EXPECT_EQ(stop(), 0);
  const std::pair<const ecallProcessorTimer*, time_t> defaults[] = {
      {&timerDelayEcallStart, 10},           {&timerTimeoutCallConnect, 60},  {&timerTimeoutPhoneNotPresent, 30},
      {&timerDelaySysErr4NoSierraComm, 300}, {&timerTimeoutAntennaFault, 10}, {&timerTimeoutAssistNeverActive, 40}};
  for (const auto& [timer, seconds] : defaults) {
    EXPECT_EQ(timer->expiry.it_value.tv_sec, seconds);
    EXPECT_EQ(timer->expiry.it_value.tv_nsec, 0);
    EXPECT_FALSE(isTimerActive(*timer));
  }
  sendSentinel();
  EXPECT_EQ(nextPulseCode(), SENTINEL_CODE);  // nothing fired
}

TEST_F(processorTimersTest, StopAfterExpiryLeavesTheQueuedPulse) {
  platform::setTimeScale(0.001);
  ASSERT_EQ(startDelayEcallStartTimer(), 0);
  ASSERT_TRUE(testSupport::waitUntil([] { return !isTimerActive(timerDelayEcallStart); }));  // fired
  EXPECT_EQ(stopDelayEcallRequest(), 0);
  sendSentinel();
  EXPECT_EQ(nextPulseCode(), ECALL_PULSE_START_CALL);
  EXPECT_EQ(nextPulseCode(), SENTINEL_CODE);
}

}  // namespace
