// Killed and started again, the service resumes from its journal what it had in hand.
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <thread>

#include "carScene.h"
#include "common/ecallTypes.h"
#include "emergencyJournal/journalRecord.h"
#include "platform/clocks.h"

using namespace carScene;

namespace {

std::string firstCallType(Scene& s) {
  return s.waitForSignal([](const Json::Value& m) { return m["ecall"].asBool(); })["type"].asString();
}

// The first log entry since the mark starting with prefix ("" for none).
std::string waitForLogStarting(Scene& s, const std::string& prefix) {
  std::string found;
  testSupport::waitUntil([&] {
    for (const std::string& entry : s.log())
      if (found.empty() && entry.rfind(prefix, 0) == 0) found = entry;
    return !found.empty();
  });
  return found;
}

}  // namespace

// A ringing crash is raised again after a hang-up; a connected or cancelled one
// resumes its call-back period; an unreadable journal is set aside.
TEST(Restart, WhatTheServiceMustNotForgetIsResumedAfterAKill) {
  Scene s(carOptions(0.2, {"set answer manual"}));
  s.sim("crash B can");
  ASSERT_TRUE(s.waitForRequest("EmbeddedPhone", "ecallDial"));
  s.restart();
  EXPECT_NE(waitForLogStarting(s, "Emergency resumed after a restart: CAN_IMPACT_B, mode acn, requested "), "");
  ASSERT_TRUE(s.waitForRequest("EmbeddedPhone", "ecallDial")) << "the crash was not dialled after the restart";
  EXPECT_EQ(firstCallType(s), "acn");
  const Strings phone = s.requests("EmbeddedPhone");
  EXPECT_TRUE(containsInOrder(phone, {"endActiveCall ", s.requests("EmbeddedPhone", "ecallDial")[0]}));

  s.sim("psap answer");
  ASSERT_TRUE(s.waitForLogCount(kCallActive, 1));
  s.restart();
  ASSERT_TRUE(s.waitForLogCount("Call-back period resumed after a restart: CAN_IMPACT_B, 30000 ms left", 1))
      << testing::PrintToString(s.log());
  EXPECT_TRUE(s.waitForIdle()) << "the resumed call-back period did not end";
  EXPECT_TRUE(s.requests("EmbeddedPhone", "ecallDial").empty()) << "a connected emergency was dialled again";

  s.markNow();
  ASSERT_EQ(s.car.call("startEcall"), kOk);
  ASSERT_TRUE(s.waitForSignalType("ecallDelay"));
  ASSERT_EQ(s.car.call("exitEcall"), kOk);
  ASSERT_FALSE(s.waitForSignal([](const Json::Value& m) { return !m["ecall"].asBool(); }).isNull());
  s.restart();
  const std::string resumed = waitForLogStarting(s, "Call-back period resumed after a restart: E_CALL_BtnStat, ");
  const long long left = atoll(resumed.c_str() + std::min(resumed.size(), resumed.find(", ") + 2));
  EXPECT_TRUE(left > 0 && left < 30000) << resumed;

  s.car.stopService();
  testSupport::writeFile(s.car.path("/fs/etfs/usr/var/ecall/ecall_journal"), "not a journal");
  s.restart();
  EXPECT_TRUE(s.waitForLogCount("Emergency journal is torn or corrupt: set aside as "
                                "/fs/etfs/usr/var/ecall/ecall_journal.bad, nothing resumed from it", 1));
  EXPECT_EQ(testSupport::readFile(s.car.path("/fs/etfs/usr/var/ecall/ecall_journal.bad")), "not a journal");
  ASSERT_TRUE(s.car.waitForServiceStarted(kLong, s.mark));
  s.sim("wait 5000");
  EXPECT_TRUE(s.requests("EmbeddedPhone", "ecallDial").empty());
  // The marker left by the run killed in its call-back period is gone.
  EXPECT_FALSE(testSupport::fileExists(s.car.path("/tmp/embeddedCallActive")));

  // A crash requested 65 car minutes ago is over the hour: never raised.
  s.car.stopService();
  const auto carMinutesAgo = static_cast<int64_t>(realMs(65 * 60000, 0.2));
  const journal::journalSlot old = journal::encodeSlot(
      {journal::journalKind::requested, ecallMain::CAN_IMPACT_B, ecallMain::CALL_ACN, {},
       platform::wallClockMs() - carMinutesAgo, 0, 0, 0}, 1);
  testSupport::writeFile(s.car.path("/fs/etfs/usr/var/ecall/ecall_journal"),
                         std::string(journal::SLOT_SIZE, '\0') + std::string(old.begin(), old.end()));
  s.restart();
  EXPECT_NE(waitForLogStarting(s, "Emergency not resumed after a restart: CAN_IMPACT_B, mode acn, "), "");
}

// Killed at random moments (ECALL_KILL_SEED replays): all but cancelled ones are dialled.
TEST(Restart, KilledAtRandomMomentsEveryEmergencyIsDialledAndNoCancelledOne) {
  const char* replay = getenv("ECALL_KILL_SEED");
  const unsigned long long seed = replay != nullptr ? strtoull(replay, nullptr, 10) : std::random_device{}();
  printf("kill test seed %llu (ECALL_KILL_SEED=%llu replays it)\n", seed, seed);
  std::mt19937_64 random(seed);
  Scene s(carOptions(0.01, {"set answer manual"}));
  const std::pair<const char*, int> crashes[] = {{"crash B can", 3}, {"crash C serial", 17}, {"crash X can", 14}};
  enum Kind { kCrash, kPress, kCancelled, kPhoneAway, kKinds };
  const auto start = std::chrono::steady_clock::now();
  int kills = 0, dialled = 0;
  for (; kills < 40 && (kills < 10 || std::chrono::steady_clock::now() - start < std::chrono::seconds(40)); ++kills) {
    const Kind kind = static_cast<Kind>(random() % kKinds);
    const auto& [crash, type] = crashes[random() % std::size(crashes)];
    const ms killAfter(random() % 700);
    SCOPED_TRACE("seed " + std::to_string(seed) + ", kill " + std::to_string(kills) + ", kind " +
                 std::to_string(kind) + ", " + crash + ", after " + std::to_string(killAfter.count()) + " ms");
    s.markNow();
    if (kind == kPhoneAway) s.simUntilTraced("phone off", "embedded phone status signal: change from ON to OFF");
    const std::string recorded = "Emergency happened. type " + std::to_string(kind == kPress ? 1 : type) + ". mode";
    const size_t before = s.countInTrace(recorded);
    if (kind == kPress)
      EXPECT_EQ(s.car.call("startEcall"), kOk);
    else
      s.sim(crash);
    ASSERT_TRUE(testSupport::waitUntil([&] { return s.countInTrace(recorded) > before; }));
    if (kind == kCancelled) {
      ASSERT_EQ(s.car.call("exitEcall"), kOk);
    }
    // The moment of the kill is the test's input, not a wait for an event.
    std::this_thread::sleep_for(killAfter);
    s.restart();
    // The phone's report must win over an older status answer.
    if (kind == kPhoneAway) s.sim("phone on");
    ASSERT_TRUE(s.car.waitForServiceStarted(kLong, s.mark));  // the next crash needs the channel
    if (kind == kCancelled) {
      s.sim("wait 61000");
      ASSERT_TRUE(s.requests("EmbeddedPhone", "ecallDial").empty()) << "a cancelled emergency was dialled";
      continue;
    }
    ASSERT_TRUE(s.waitForRequest("EmbeddedPhone", "ecallDial")) << "an emergency was lost";
    EXPECT_EQ(firstCallType(s), kind == kPress ? "ecallDelay" : "acn");
    ++dialled;
    ASSERT_EQ(s.car.call("exitEcall"), kOk);
  }
  printf("kill test: %d kills in %.1f s: %d emergencies dialled again, %d cancelled ones never dialled\n", kills,
         std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), dialled, kills - dialled);
}

// A reader hung on the vehicle object (a FIFO) stops the watchdog; the restart resumes.
TEST(Restart, AHungThreadStopsTheWatchdogAndTheRestartResumesTheEmergency) {
  const std::string socketPath = "/tmp/ecall-watchdog-" + std::to_string(getpid());
  testSupport::NotifySocket manager(socketPath);
  E2eOptions options = carOptions(kScale, {"set answer manual"});
  options.serviceEnv = {"NOTIFY_SOCKET=" + socketPath, "WATCHDOG_USEC=400000"};
  Scene s(options);
  EXPECT_EQ(manager.next(kLong), "READY=1");
  for (int fed = 0; fed < 3; ++fed) ASSERT_EQ(manager.next(kLong), "WATCHDOG=1");
  EXPECT_NE(s.car.serviceStderr().find("fed every 200 ms"), std::string::npos) << "not fed twice a period";
  s.sim("crash B can");
  ASSERT_TRUE(s.waitForRequest("EmbeddedPhone", "ecallDial"));

  const std::string vehicleObject = s.car.path("/pps/can/vehstat");
  const std::string healthy = testSupport::readFile(vehicleObject);
  ASSERT_EQ(mkfifo((vehicleObject + ".hung").c_str(), 0644), 0);
  ASSERT_EQ(rename((vehicleObject + ".hung").c_str(), vehicleObject.c_str()), 0);
  s.sim("loc 0 0 0");
  ASSERT_TRUE(testSupport::waitUntil([&] {
    manager.drain();
    return countOf(s.car.serviceStderr(), "Watchdog: no progress of the restraint controller reader") > 0;
  }));
  manager.drain();
  EXPECT_EQ(manager.next(ms(1000)), "") << "fed while a thread hangs";

  s.car.stopService();
  replaceVehicleObject(s.car, healthy);
  s.restart();
  ASSERT_TRUE(s.waitForRequest("EmbeddedPhone", "ecallDial")) << "the crash was lost to the watchdog's restart";
  EXPECT_EQ(firstCallType(s), "acn");
  unlink(socketPath.c_str());
}
