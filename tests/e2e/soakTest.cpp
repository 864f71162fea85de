// A hundred emergencies one after the other on one service leave nothing
// behind: after a warm-up the service holds the same descriptors and threads
// at every tenth emergency, and its resident memory stays within a margin
// (scripts/bench soak runs a thousand and prints the figures). Then a crash,
// and the service killed the moment its "ecall" signal is out: the log
// entries written before the signal are in the log all the same.
#include "soak.h"

namespace {

constexpr int kWarmUp = 10;
constexpr int kEmergencies = 100;
// Allocator caches and pages touched late may still grow a little; a leak of
// a kilobyte an emergency passes it. The checkers keep freed memory aside
// for a while and add their own books, so there only a leak of about 100 KiB
// an emergency stands out.
#ifdef ECALL_E2E_SLOWDOWN
constexpr long kRssMarginKiB = 8192;
#else
constexpr long kRssMarginKiB = 512;
#endif

}  // namespace

TEST(Soak, AHundredEmergenciesLeaveNothingBehind) {
  carScene::Scene s(soak::soakCar());
  const pid_t pid = s.car.servicePid();
  soak::Held warm, held;
  for (int n = 1; n <= kEmergencies; ++n) {
    ASSERT_TRUE(soak::oneEmergency(s, n)) << "emergency " << n;
    if (n % 10 != 0) continue;
    held = soak::heldBy(pid);
    if (n == kWarmUp) warm = held;
    EXPECT_EQ(held.descriptors, warm.descriptors) << "descriptors after emergency " << n;
    EXPECT_EQ(held.threads, warm.threads) << "threads after emergency " << n;
  }
  EXPECT_LE(held.rssKiB - warm.rssKiB, kRssMarginKiB) << "resident memory from " << warm.rssKiB << " KiB to "
                                                       << held.rssKiB << " KiB";

  auto triggered = [&] {
    const carScene::Strings log = s.car.emergencyLogMessages();
    return std::count_if(log.begin(), log.end(), [](const std::string& m) { return m.starts_with("ACR triggered on"); });
  };
  const long before = triggered();
  s.mark = s.car.recordMark();
  s.sim("crash B can");
  ASSERT_TRUE(s.waitForEmergency());
  s.car.stopService();
  EXPECT_EQ(triggered(), before + 1) << "an entry written before the signal was lost with the service";
}
