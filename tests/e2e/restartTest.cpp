// The emergency survives the service: killed (as by a crash, the kernel's
// out-of-memory killer, or the service manager's watchdog) and started
// again on the same root, the service resumes from its journal what it had
// in hand, and a hung thread stops the watchdog's feeding.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <thread>

#include "carScene.h"
#include "common/ecallTypes.h"
#include "emergencyJournal/journalRecord.h"
#include "platform/clocks.h"

using namespace carScene;

namespace {

// The service killed and started again; marks from the new start.
void restart(Scene& s) {
  s.car.stopService();
  s.markNow();
  s.car.startService();
}

Json::Value waitForDial(Scene& s) { return s.car.waitForRequestSince(s.mark, "EmbeddedPhone", "ecallDial", kLong); }
std::string firstCallType(Scene& s) {
  return s.waitForSignal([](const Json::Value& m) { return m["ecall"].asBool(); })["type"].asString();
}

// Started again: the journal read, the phone's status asked, the channel open.
bool waitForStarted(Scene& s) {
  auto connected = [](const Json::Value& r) { return r["kind"] == "vehicle" && r["event"] == "connected"; };
  return !s.car.waitForRequestSince(s.mark, "AudioMixerManager", "getProperties", kLong).isNull() &&
         !s.waitForRecord(connected).isNull();
}

// The first log entry since the mark that starts with prefix ("" for none).
std::string waitForLogStarting(Scene& s, const std::string& prefix) {
  std::string found;
  testSupport::waitUntil([&] {
    for (const std::string& entry : s.log())
      if (found.empty() && entry.rfind(prefix, 0) == 0) found = entry;
    return !found.empty();
  });
  return found;
}

// The service manager's end of NOTIFY_SOCKET.
struct ManagerSocket {
  explicit ManagerSocket(const std::string& path) : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  ~ManagerSocket() { close(fd); }
  // The next message, or "" when none comes within the time.
  std::string next(ms within) {
    timeval limit{static_cast<time_t>(within.count() / 1000), static_cast<suseconds_t>(within.count() % 1000 * 1000)};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    char text[256];
    const ssize_t n = recv(fd, text, sizeof text, 0);
    return n > 0 ? std::string(text, static_cast<size_t>(n)) : "";
  }
  // What is queued already (a full socket would hold the service's feeding).
  void drain() {
    while (!next(ms(1)).empty()) {
    }
  }
  int fd;
};

}  // namespace

// Killed with a crash ringing, the service raises it again as a crash call,
// says so, and ends the call left on the phone before it dials; killed once
// the call was connected, it does not dial but keeps the emergency mode for
// the call-back period; a cancelled emergency killed in its call-back period
// resumes the period's rest; an unreadable journal is set aside, logged, and
// calls nobody.
TEST(Restart, WhatTheServiceMustNotForgetIsResumedAfterAKill) {
  // 1/5 of real time: a restart takes a small part of the 30 s call-back period.
  Scene s(carOptions(0.2, {"set answer manual"}));
  E2eHarness& car = s.car;
  s.sim("crash B can");
  ASSERT_FALSE(waitForDial(s).isNull());
  restart(s);
  EXPECT_NE(waitForLogStarting(s, "Emergency resumed after a restart: CAN_IMPACT_B, mode acn, requested "), "");
  ASSERT_FALSE(waitForDial(s).isNull()) << "the crash was not dialled after the restart";
  EXPECT_EQ(firstCallType(s), "acn");
  const Strings phone = s.requests("EmbeddedPhone");
  EXPECT_TRUE(containsInOrder(phone, {"endActiveCall ", s.requests("EmbeddedPhone", "ecallDial")[0]}));

  s.sim("psap answer");
  ASSERT_TRUE(s.waitForLogCount(kCallActive, 1));
  restart(s);
  ASSERT_TRUE(s.waitForLogCount("Call-back period resumed after a restart: CAN_IMPACT_B, 30000 ms left", 1))
      << testing::PrintToString(s.log());
  EXPECT_TRUE(s.waitForIdle()) << "the resumed call-back period did not end";
  EXPECT_TRUE(s.requests("EmbeddedPhone", "ecallDial").empty()) << "a connected emergency was dialled again";

  s.markNow();
  ASSERT_EQ(car.call("startEcall"), kOk);
  ASSERT_TRUE(s.waitForSignalType("ecallDelay"));
  ASSERT_EQ(car.call("exitEcall"), kOk);
  ASSERT_FALSE(s.waitForSignal([](const Json::Value& m) { return !m["ecall"].asBool(); }).isNull());
  restart(s);
  const std::string resumed = waitForLogStarting(s, "Call-back period resumed after a restart: E_CALL_BtnStat, ");
  const long long left = atoll(resumed.c_str() + std::min(resumed.size(), resumed.find(", ") + 2));
  EXPECT_TRUE(left > 0 && left < 30000) << resumed;

  car.stopService();
  testSupport::writeFile(car.path("/fs/etfs/usr/var/ecall/ecall_journal"), "not a journal");
  s.markNow();
  car.startService();
  EXPECT_TRUE(s.waitForLogCount("Emergency journal is torn or corrupt: set aside as "
                                "/fs/etfs/usr/var/ecall/ecall_journal.bad, nothing resumed from it", 1));
  EXPECT_EQ(testSupport::readFile(car.path("/fs/etfs/usr/var/ecall/ecall_journal.bad")), "not a journal");
  ASSERT_TRUE(waitForStarted(s));
  s.sim("wait 5000");
  EXPECT_TRUE(s.requests("EmbeddedPhone", "ecallDial").empty());
  // Killed in its call-back period, the run before left the emergency mode's
  // marker; with nothing resumed the mode is off, and so is the marker.
  EXPECT_FALSE(testSupport::fileExists(car.path("/tmp/embeddedCallActive")));

  // A crash requested 65 car minutes ago (13 real ones at this pace) is over the hour: never raised.
  car.stopService();
  const journal::journalSlot old = journal::encodeSlot(
      {journal::journalKind::requested, ecallMain::CAN_IMPACT_B, ecallMain::CALL_ACN, {},
       platform::wallClockMs() - 13 * 60000, 0, 0, 0}, 1);
  testSupport::writeFile(car.path("/fs/etfs/usr/var/ecall/ecall_journal"),
                         std::string(journal::SLOT_SIZE, '\0') + std::string(old.begin(), old.end()));
  s.markNow();
  car.startService();
  EXPECT_NE(waitForLogStarting(s, "Emergency not resumed after a restart: CAN_IMPACT_B, mode acn, "), "");
}

// Killed at random moments of many emergencies (seeded; ECALL_KILL_SEED
// replays a run), and started again on the same root each time: every
// emergency that was not cancelled is dialled once the service is back (a
// crash as a crash call, a press after a new delay), and a cancelled one
// never is. The phone takes each dial and never answers.
TEST(Restart, KilledAtRandomMomentsEveryEmergencyIsDialledAndNoCancelledOne) {
  const char* replay = getenv("ECALL_KILL_SEED");
  const unsigned long long seed = replay != nullptr ? strtoull(replay, nullptr, 10) : std::random_device{}();
  printf("kill test seed %llu (ECALL_KILL_SEED=%llu replays it)\n", seed, seed);
  std::mt19937_64 random(seed);
  // 1/100 of real time: the delay takes 100 ms, the retry period 600 ms.
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
    if (kind == kPress) {
      EXPECT_EQ(s.car.call("startEcall"), kOk);
    } else {
      s.sim(crash);
    }
    ASSERT_TRUE(testSupport::waitUntil([&] { return s.countInTrace(recorded) > before; }));
    if (kind == kCancelled) {
      ASSERT_EQ(s.car.call("exitEcall"), kOk);
    }
    // The moment of the kill is the test's input, not a wait for an event.
    std::this_thread::sleep_for(killAfter);
    restart(s);
    // The phone may come back while the restarted service still asks for
    // its status: the phone's report must win over the older answer.
    if (kind == kPhoneAway) s.sim("phone on");
    ASSERT_TRUE(waitForStarted(s));  // the next crash needs the channel
    if (kind == kCancelled) {
      s.sim("wait 61000");
      ASSERT_TRUE(s.requests("EmbeddedPhone", "ecallDial").empty()) << "a cancelled emergency was dialled";
      continue;
    }
    ASSERT_FALSE(waitForDial(s).isNull()) << "an emergency was lost";
    EXPECT_EQ(firstCallType(s), kind == kPress ? "ecallDelay" : "acn");
    ++dialled;
    ASSERT_EQ(s.car.call("exitEcall"), kOk);
  }
  printf("kill test: %d kills in %.1f s: %d emergencies dialled again, %d cancelled ones never dialled\n", kills,
         std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), dialled, kills - dialled);
}

// Under a service manager's watchdog the service is fed while its threads
// show progress. When the vehicle status object's server hangs (a FIFO
// nobody writes), every odometer read for a log entry blocks, and the
// restraint controller's reader hangs in one: the feeding stops. Killed and
// started again, as the manager then does, the service resumes its crash.
TEST(Restart, AHungThreadStopsTheWatchdogAndTheRestartResumesTheEmergency) {
  const std::string socketPath = "/tmp/ecall-watchdog-" + std::to_string(getpid());
  ManagerSocket manager(socketPath);
  E2eOptions options = carOptions(kScale, {"set answer manual"});
  options.serviceEnv = {"NOTIFY_SOCKET=" + socketPath, "WATCHDOG_USEC=400000"};
  Scene s(options);
  E2eHarness& car = s.car;
  EXPECT_EQ(manager.next(kLong), "READY=1");
  for (int fed = 0; fed < 3; ++fed) ASSERT_EQ(manager.next(kLong), "WATCHDOG=1");
  EXPECT_NE(car.serviceStderr().find("fed every 200 ms"), std::string::npos) << "not fed twice a period";
  s.sim("crash B can");
  ASSERT_FALSE(waitForDial(s).isNull());

  const std::string vehicleObject = car.path("/pps/can/vehstat");
  const std::string healthy = testSupport::readFile(vehicleObject);
  ASSERT_EQ(mkfifo((vehicleObject + ".hung").c_str(), 0644), 0);
  ASSERT_EQ(rename((vehicleObject + ".hung").c_str(), vehicleObject.c_str()), 0);
  s.sim("loc 0 0 0");
  ASSERT_TRUE(testSupport::waitUntil([&] {
    manager.drain();
    return countOf(car.serviceStderr(), "Watchdog: no progress of the restraint controller reader") > 0;
  }));
  // What was sent before the service said so is queued already.
  manager.drain();
  EXPECT_EQ(manager.next(ms(1000)), "") << "fed while a thread hangs";

  car.stopService();
  replaceVehicleObject(car, healthy);
  s.markNow();
  car.startService();
  ASSERT_FALSE(waitForDial(s).isNull()) << "the crash was lost to the watchdog's restart";
  EXPECT_EQ(firstCallType(s), "acn");
  unlink(socketPath.c_str());
}
