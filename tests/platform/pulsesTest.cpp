// Channels, pulses and timers on the real kernel clock.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <optional>
#include <thread>
#include <vector>

#include "platform/pulses.h"
#include "platform/runtime.h"
#include "support/testSupport.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kWakeCode = 99;  // sent by the test itself to end a receive

struct Channel {
  int chid = qnx::ChannelCreate(0);
  int coid = qnx::ConnectAttach(0, 0, chid, qnx::_NTO_SIDE_CHANNEL, 0);
};

// The next pulse, or nothing if none comes within the deadline (the blocked
// receive is then ended by a pulse of the test's own).
std::optional<qnx::_pulse> receiveWithin(const Channel& ch, std::chrono::milliseconds deadline) {
  auto pending = std::async(std::launch::async, [&ch] {
    qnx::_pulse pulse{};
    EXPECT_EQ(0, qnx::MsgReceive(ch.chid, &pulse, sizeof pulse, nullptr));
    return pulse;
  });
  if (pending.wait_for(deadline) == std::future_status::ready) return pending.get();
  qnx::MsgSendPulse(ch.coid, 10, kWakeCode, 0);
  pending.get();
  return std::nullopt;
}

qnx::timer_t makeTimer(const Channel& ch, int code) {
  qnx::sigevent ev{qnx::SIGEV_PULSE, ch.coid, 7, static_cast<int16_t>(code), static_cast<int16_t>(qnx::getprio(0))};
  qnx::timer_t id = 0;
  EXPECT_EQ(0, qnx::timer_create(CLOCK_MONOTONIC, &ev, &id));
  return id;
}

int arm(qnx::timer_t id, int64_t ms) {
  struct itimerspec setting {};
  qnx::nsec2timespec(&setting.it_value, static_cast<uint64_t>(ms) * 1000000u);
  return qnx::timer_settime(id, 0, &setting, nullptr);
}

int64_t leftNs(qnx::timer_t id) {
  struct itimerspec setting {};
  EXPECT_EQ(0, qnx::timer_gettime(id, &setting));
  return setting.it_value.tv_sec * 1000000000 + setting.it_value.tv_nsec;
}

int64_t leftMs(qnx::timer_t id) { return leftNs(id) / 1000000; }

int64_t msSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

}  // namespace

TEST(Pulses, ArriveInOrderFromEverySenderAndNoneIsLost) {
  Channel ch;
  ASSERT_GT(ch.chid, 0);
  ASSERT_GT(ch.coid, 0);
  for (int i = 0; i < 200; ++i) ASSERT_EQ(0, qnx::MsgSendPulse(ch.coid, qnx::getprio(0), 3, i - 100));
  for (int i = 0; i < 200; ++i) {
    qnx::_pulse pulse{};
    ASSERT_EQ(0, qnx::MsgReceive(ch.chid, &pulse, sizeof pulse, nullptr));
    EXPECT_EQ(qnx::_PULSE_TYPE, pulse.type);
    EXPECT_EQ(3, pulse.code);
    ASSERT_EQ(i - 100, pulse.value);
  }

  // Several threads, each on a connection of its own, send while the owner
  // receives: per sender the values come in order, and all of them come.
  constexpr int kSenders = 4, kEach = 2000;
  std::vector<std::thread> senders;
  for (int s = 0; s < kSenders; ++s)
    senders.emplace_back([&ch, s] {
      const int coid = qnx::ConnectAttach(0, 0, ch.chid, qnx::_NTO_SIDE_CHANNEL, 0);
      for (int i = 0; i < kEach; ++i) qnx::MsgSendPulse(coid, 10, s, i);
    });
  std::vector<int> next(kSenders, 0);
  for (int n = 0; n < kSenders * kEach; ++n) {
    qnx::_pulse pulse{};
    ASSERT_EQ(0, qnx::MsgReceive(ch.chid, &pulse, sizeof pulse, nullptr));
    ASSERT_GE(pulse.code, 0);
    ASSERT_LT(pulse.code, kSenders);
    ASSERT_EQ(next[pulse.code], pulse.value) << "sender " << int(pulse.code);
    ++next[pulse.code];
  }
  for (auto& t : senders) t.join();
  for (int s = 0; s < kSenders; ++s) EXPECT_EQ(kEach, next[s]);

  EXPECT_EQ(-1, qnx::MsgSendPulse(12345, 10, 1, 0));
  EXPECT_EQ(EBADF, errno);
}

TEST(Timers, ReArmingReplacesThePendingExpiryAndFiresOnce) {
  Channel ch;
  const qnx::timer_t timer = makeTimer(ch, 5);
  const auto start = Clock::now();
  ASSERT_EQ(0, arm(timer, 20));
  ASSERT_EQ(0, arm(timer, 250));
  auto pulse = receiveWithin(ch, 5s);
  ASSERT_TRUE(pulse);
  EXPECT_EQ(5, pulse->code);
  EXPECT_EQ(7, pulse->value);
  // A timer never fires early; the first, replaced expiry would have.
  EXPECT_GE(msSince(start), 250);
  // Nothing else was queued: the next pulse is the test's own.
  qnx::MsgSendPulse(ch.coid, 10, kWakeCode, 0);
  pulse = receiveWithin(ch, 5s);
  ASSERT_TRUE(pulse);
  EXPECT_EQ(kWakeCode, pulse->code);
}

TEST(Timers, DisarmedTimerStaysSilentButAFiredPulseIsNotRecalled) {
  Channel ch;
  const qnx::timer_t stopped = makeTimer(ch, 1);
  const qnx::timer_t witness = makeTimer(ch, 2);
  ASSERT_EQ(0, arm(stopped, 20));
  ASSERT_EQ(0, arm(stopped, 0));
  ASSERT_EQ(0, arm(witness, 150));
  // Had the disarm failed, code 1 would have come well before the witness.
  auto pulse = receiveWithin(ch, 5s);
  ASSERT_TRUE(pulse);
  EXPECT_EQ(2, pulse->code);

  ASSERT_EQ(0, arm(stopped, 1));
  ASSERT_TRUE(testSupport::waitUntil([&] { return leftNs(stopped) == 0; }));
  ASSERT_EQ(0, arm(stopped, 0));  // too late: the pulse is already queued
  pulse = receiveWithin(ch, 5s);
  ASSERT_TRUE(pulse);
  EXPECT_EQ(1, pulse->code);
  EXPECT_EQ(0, qnx::timer_delete(stopped));
  EXPECT_EQ(-1, arm(stopped, 10));
}

TEST(Timers, TimeLeftIsReportedInTheCallersTimeAndIsZeroWhenIdle) {
  Channel ch;
  const qnx::timer_t timer = makeTimer(ch, 4);
  EXPECT_EQ(0, leftNs(timer));

  struct itimerspec setting {};
  qnx::nsec2timespec(&setting.it_value, 10'500'000'000u);
  EXPECT_EQ(10, setting.it_value.tv_sec);
  EXPECT_EQ(500'000'000, setting.it_value.tv_nsec);
  setting.it_interval.tv_sec = 1;
  EXPECT_EQ(-1, qnx::timer_settime(timer, 0, &setting, nullptr));  // one-shot timers only
  EXPECT_EQ(EINVAL, errno);

  ASSERT_EQ(0, arm(timer, 10'000));
  const int64_t left = leftMs(timer);
  EXPECT_GT(left, 5'000);
  EXPECT_LE(left, 10'000);
  struct itimerspec old {}, off {};
  ASSERT_EQ(0, qnx::timer_settime(timer, 0, &off, &old));
  EXPECT_GT(old.it_value.tv_sec, 5);
  EXPECT_EQ(0, leftNs(timer));

  // At a hundredth of real time a 10 s timer still reads as up to 10 s left.
  platform::setTimeScale(0.01);
  ASSERT_EQ(0, arm(timer, 10'000));
  EXPECT_GT(leftMs(timer), 1'000);
  ASSERT_TRUE(receiveWithin(ch, 5s));
  EXPECT_EQ(0, leftNs(timer));
}

TEST(Timers, TimeScaleShortensEveryWait) {
  platform::setTimeScale(0.01);
  Channel ch;
  const qnx::timer_t timer = makeTimer(ch, 6);
  const auto start = Clock::now();
  ASSERT_EQ(0, arm(timer, 1000));
  auto pulse = receiveWithin(ch, 5s);
  ASSERT_TRUE(pulse);
  EXPECT_EQ(6, pulse->code);
  EXPECT_LT(msSince(start), 900);

  // A non-zero wait is never scaled to nothing; a scale outside (0, 1] is refused.
  EXPECT_EQ(1, platform::scaledMs(1));
  EXPECT_EQ(50, platform::scaledMs(5000));
  EXPECT_EQ(0, platform::scaledMs(0));
  EXPECT_EQ(500, platform::scaledNs(500));
  platform::setTimeScale(0);
  platform::setTimeScale(2);
  EXPECT_DOUBLE_EQ(0.01, platform::timeScale());
}

TEST(Runtime, PathsResolveUnderTheRoot) {
  EXPECT_EQ("/fs/x", platform::rootPath("/fs/x"));
  platform::setRoot("/tmp/car/");
  EXPECT_EQ("/tmp/car", platform::root());
  EXPECT_EQ("/tmp/car/fs/etfs/usr/var/ecall/ecall_log.txt", platform::rootPath("/fs/etfs/usr/var/ecall/ecall_log.txt"));
  EXPECT_EQ("relative/x", platform::rootPath("relative/x"));
  platform::setRoot("/");
  EXPECT_EQ("/pps/can/vehstat", platform::rootPath("/pps/can/vehstat"));
}
