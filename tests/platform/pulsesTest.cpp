// Channels, pulses and timers on the real kernel clock.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "platform/pulses.h"
#include "platform/runtime.h"
#include "support/testSupport.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

using Channel = testSupport::PulseChannel;

// The code of the next pulse, which carries the value its timers are given.
int receiveWithin(Channel& ch) {
  int value = 0;
  const int code = ch.next(testSupport::kWaitDeadline, &value);
  EXPECT_TRUE(code < 0 || value == 7) << "pulse " << code << " carries " << value;
  return code;
}

qnx::timer_t makeTimer(const Channel& ch, int code) {
  qnx::sigevent ev{qnx::SIGEV_PULSE, ch.coid, 7, static_cast<int16_t>(code), static_cast<int16_t>(qnx::getprio(0))};
  qnx::timer_t id = 0;
  EXPECT_EQ(0, qnx::timer_create(CLOCK_MONOTONIC, &ev, &id));
  return id;
}

int arm(qnx::timer_t id, int64_t ms, struct itimerspec* old = nullptr) {
  struct itimerspec setting {};
  qnx::nsec2timespec(&setting.it_value, static_cast<uint64_t>(ms) * 1000000u);
  return qnx::timer_settime(id, 0, &setting, old);
}

int64_t leftMs(qnx::timer_t id) {
  struct itimerspec setting {};
  EXPECT_EQ(0, qnx::timer_gettime(id, &setting));
  return setting.it_value.tv_sec * 1000 + (setting.it_value.tv_nsec + 999999) / 1000000;
}

// Stopped before its expiry (a slow machine may have let it fire and queue its pulse).
bool wasPending(const struct itimerspec& old) { return old.it_value.tv_sec != 0 || old.it_value.tv_nsec != 0; }

}  // namespace

// Threads on connections of their own send while the owner receives: all come, in order per sender.
TEST(Pulses, ArriveInOrderFromEverySenderAndNoneIsLost) {
  Channel ch;
  ASSERT_GT(ch.chid, 0);
  ASSERT_GT(ch.coid, 0);
  constexpr int kSenders = 4, kEach = 2000;
  std::vector<std::thread> senders;
  for (int s = 0; s < kSenders; ++s)
    senders.emplace_back([&ch, s] {
      const int coid = qnx::ConnectAttach(0, 0, ch.chid, qnx::_NTO_SIDE_CHANNEL, 0);
      for (int i = 0; i < kEach; ++i) qnx::MsgSendPulse(coid, 10, s, i - kEach / 2);
    });
  std::vector<int> next(kSenders, -kEach / 2);
  for (int n = 0; n < kSenders * kEach; ++n) {
    qnx::_pulse pulse{};
    ASSERT_EQ(0, qnx::MsgReceive(ch.chid, &pulse, sizeof pulse, nullptr));
    ASSERT_EQ(qnx::_PULSE_TYPE, pulse.type);
    ASSERT_TRUE(pulse.code >= 0 && pulse.code < kSenders) << int{pulse.code};
    ASSERT_EQ(next[pulse.code]++, pulse.value) << "sender " << int{pulse.code};
  }
  for (auto& t : senders) t.join();
  for (int s = 0; s < kSenders; ++s) EXPECT_EQ(kEach / 2, next[s]);

  EXPECT_EQ(-1, qnx::MsgSendPulse(12345, 10, 1, 0));
  EXPECT_EQ(EBADF, errno);
}

TEST(Timers, DisarmedStaysSilentFiredIsNotRecalledAndTimeLeftReadsUnscaled) {
  Channel ch;
  const qnx::timer_t stopped = makeTimer(ch, 1);
  const qnx::timer_t witness = makeTimer(ch, 2);
  ASSERT_EQ(0, arm(stopped, 100));
  struct itimerspec disarmed {};
  ASSERT_EQ(0, arm(stopped, 0, &disarmed));
  ASSERT_EQ(0, arm(witness, 300));
  // Had the disarm failed, code 1 would have come well before the witness.
  if (!wasPending(disarmed)) {
    EXPECT_EQ(1, receiveWithin(ch));
  }
  EXPECT_EQ(2, receiveWithin(ch));

  ASSERT_EQ(0, arm(stopped, 1));
  ASSERT_TRUE(testSupport::waitUntil([&] { return leftMs(stopped) == 0; }));
  ASSERT_EQ(0, arm(stopped, 0));  // too late: the pulse is already queued
  EXPECT_EQ(1, receiveWithin(ch));
  EXPECT_EQ(0, qnx::timer_delete(stopped));
  EXPECT_EQ(-1, arm(stopped, 10));

  // A scaled timer fires early in real time, yet its time left reads as the service armed it.
  const qnx::timer_t timer = makeTimer(ch, 6);
  EXPECT_EQ(0, leftMs(timer));
  ASSERT_EQ(0, arm(timer, 10'000));
  EXPECT_GT(leftMs(timer), 5'000);
  struct itimerspec old {};
  ASSERT_EQ(0, arm(timer, 0, &old));
  EXPECT_GT(old.it_value.tv_sec, 5);
  EXPECT_EQ(0, leftMs(timer));

  platform::setTimeScale(0.01);
  const auto start = Clock::now();
  ASSERT_EQ(0, arm(timer, 10'000));
  const int64_t left = leftMs(timer);
  EXPECT_GT(left, 1'000);
  EXPECT_LE(left, 10'000);
  EXPECT_EQ(6, receiveWithin(ch));
  EXPECT_LT(Clock::now() - start, 9s);
  EXPECT_EQ(0, leftMs(timer));

  // A non-zero wait is never scaled to nothing; a scale outside (0, 1] is refused.
  EXPECT_EQ(1, platform::scaledMs(1));
  EXPECT_EQ(50, platform::scaledMs(5000));
  EXPECT_EQ(0, platform::scaledMs(0));
  platform::setTimeScale(0);
  platform::setTimeScale(2);
  EXPECT_DOUBLE_EQ(0.01, platform::timeScale());
}
