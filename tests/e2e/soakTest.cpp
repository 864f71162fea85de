// A hundred emergencies leave nothing behind; a kill at a crash keeps its log entry.
#include "soak.h"

namespace {

constexpr int kWarmUp = 10;
// The bus layer may keep one more connection; a leak per emergency adds thirty.
constexpr int kDescriptorMargin = 3;
// Measured growth: 16 KiB plain; the checkers' books add 2.4 MiB and 2.9 MiB.
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
