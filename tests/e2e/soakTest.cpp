// A hundred emergencies one after the other on one service leave nothing
// behind (scripts/bench soak runs a thousand and prints the figures); then a
// crash, and the service killed the moment its "ecall" signal is out: the
// log entry written before the signal is in the log all the same.
#include "soak.h"

namespace {

constexpr int kWarmUp = 10;
// The bus layer keeps one more connection after two threads once made a
// synchronous request at the same moment; a descriptor lost per emergency of
// one kind adds thirty.
constexpr int kDescriptorMargin = 3;
// Measured growth after the warm-up: 16 KiB in the plain build; the checkers'
// own books add 2.4 MiB (address) and 2.9 MiB (thread).
#ifdef ECALL_E2E_SLOWDOWN
constexpr long kRssMarginKiB = 8192;
#else
constexpr long kRssMarginKiB = 256;
#endif

}  // namespace

TEST(Soak, AHundredEmergenciesLeaveNothingBehind) {
  carScene::Scene s(soak::soakCar());
  const pid_t pid = s.car.servicePid();
  soak::Held warm, held;
  for (int n = 1; n <= 100; ++n) {
    ASSERT_TRUE(soak::oneEmergency(s, n));
    if (n % 10 != 0) continue;
    held = soak::heldBy(pid);
    if (n == kWarmUp) warm = held;
    EXPECT_LE(held.descriptors, warm.descriptors + kDescriptorMargin) << "after emergency " << n;
    EXPECT_EQ(held.threads, warm.threads) << "after emergency " << n;
  }
  EXPECT_LE(held.rssKiB - warm.rssKiB, kRssMarginKiB) << "resident from " << warm.rssKiB << " to " << held.rssKiB << " KiB";

  auto triggered = [&] { return carScene::countOf(s.car.emergencyLog(), ":ACR triggered on "); };
  const size_t before = triggered();
  s.mark = s.car.recordMark();
  s.sim("crash B can");
  ASSERT_TRUE(s.waitForEmergency());
  s.car.stopService();
  EXPECT_EQ(triggered(), before + 1) << "an entry written before the signal was lost with the service";
}
