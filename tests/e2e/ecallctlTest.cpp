// ecallctl against the service: every subcommand, the monitor, the exit codes.
#include <signal.h>

#include <regex>

#include "carScene.h"

using namespace carScene;
using testSupport::Child;
using testSupport::Outcome;

namespace {

std::string ctlOk(const E2eHarness& car, const Strings& args) {
  Outcome outcome = ctl(car, args);
  EXPECT_EQ(outcome.exitCode, 0) << args[0] << ": " << outcome.err;
  return outcome.out;
}

// A monitor that has subscribed: from here on it misses no signal.
void waitUntilMonitoring(Child& monitor) {
  const auto subscribed = [&] { return monitor.err().find("monitoring ecallService") != std::string::npos; };
  ASSERT_TRUE(monitor.waitForOutput(subscribed, kLong)) << monitor.err();
}

}  // namespace

// Both monitors, readable and for scripts, follow a whole call; answers, requests, a log
// entry in UTC, three module resets at most; exit codes tell failures apart.
TEST(Ecallctl, MonitorsFollowACallQueriesAndRequestsReachTheServiceFailuresHaveExitCodes) {
  Scene s(carOptions(kScale, {"set language fr_CA", "odo 7654321"}));

  EXPECT_EQ(ctlOk(s.car, {"status"}), "emergency in progress: no\n");
  EXPECT_EQ(ctlOk(s.car, {"mode"}), "emergency mode active: no\n");
  EXPECT_EQ(ctlOk(s.car, {"language"}), "en_US\n");
  EXPECT_EQ(ctlOk(s.car, {"--json", "status"}), "{\"ecallInProgress\":false}\n");
  EXPECT_EQ(ctlOk(s.car, {"--json", "mode"}), "{\"eCallModeActive\":false}\n");

  Child readable(ctlArgs(s.car, {"monitor"}));
  Child json(ctlArgs(s.car, {"--json", "monitor"}));
  ASSERT_NO_FATAL_FAILURE(waitUntilMonitoring(readable));
  ASSERT_NO_FATAL_FAILURE(waitUntilMonitoring(json));

  EXPECT_EQ(ctlOk(s.car, {"start"}), "OK\n");
  ASSERT_TRUE(s.waitForEmergency());
  EXPECT_EQ(ctlOk(s.car, {"status"}), "emergency in progress: yes\n");
  ASSERT_TRUE(s.waitForLogCount("Call Active.  Delay 6000 ms for PSAP TTS", 1));
  ASSERT_TRUE(s.waitForLogCount("Request unmute mic inputs", 1));
  s.sim("psap hangup");
  ASSERT_TRUE(s.waitForIdle());

  std::string expected;
  for (const auto& r : s.car.recordsSince(s.mark)) {
    const std::string kind = r["kind"].asString();
    if (kind == "ecall" || kind == "ecallProgress") expected += kind + " " + r["data"].asString();
  }
  ASSERT_NE(expected, "");
  EXPECT_TRUE(json.waitForOutput([&] { return json.out() == expected; }, kLong)) << json.out();

  const size_t ecallLines = countOf(expected, "ecall {");
  const size_t progressLines = countOf(expected, "ecallProgress {");
  const auto allShown = [&] {
    return countOf(readable.out(), " ecall ") == ecallLines && countOf(readable.out(), " ecallProgress ") == progressLines;
  };
  EXPECT_TRUE(readable.waitForOutput(allShown, kLong)) << readable.out();
  const std::string& out = readable.out();
  const size_t started = out.find(" ecall emergency=yes mode-active=yes type=ecallDelay event=E_CALL_BtnStat");
  const size_t muted = out.find(" ecallProgress 55936 microphones muted\n");
  const size_t unmuted = out.find(" ecallProgress 55915 microphones unmuted\n");
  const size_t idle = out.rfind(" ecall emergency=no mode-active=no type=none event=NONE");
  EXPECT_TRUE(started < muted && muted < unmuted && unmuted < idle && idle != std::string::npos) << out;
  s.markNow();

  EXPECT_EQ(ctlOk(s.car, {"retry-state", "1"}), "OK\n");
  EXPECT_TRUE(s.waitForLogCount("TTS rqst 6", 1));

  // "log" is never answered: a client that waited would fail at its limit.
  Outcome logged = ctl(s.car, {"--timeout", "2", "log", "driver", "reports", "smoke"});
  EXPECT_EQ(logged.exitCode, 0) << logged.err;
  EXPECT_TRUE(s.waitForLogCount("driver reports smoke", 1));
  EXPECT_TRUE(std::regex_search(
      s.car.emergencyLog(),
      std::regex(R"((^|\n)\d{2}:\d{2}:\d{2} [A-Z][a-z]+ \d{2}, \d{4} GMT:0765432:driver reports smoke\n)")))
      << s.car.emergencyLog();
  std::string reply;
  const SVCIPC_tError rc = s.car.invoke("ecallService", "startecall", "{}", 500, &reply);
  EXPECT_TRUE(testSupport::isNoReply(rc)) << "the caller runs into its own time-out, rc 0x" << std::hex << rc;
  EXPECT_TRUE(s.car.waitForTrace("ecallRequest: startecall, params: {}"));
  for (int i = 0; i < 4; ++i) EXPECT_EQ(ctlOk(s.car, {"reset-gps"}), "OK\n");
  // Requests are served in order: this entry follows the fourth reset.
  EXPECT_EQ(ctlOk(s.car, {"log", "a second entry"}), "");
  EXPECT_TRUE(s.car.waitForEmergencyLog("a second entry"));
  EXPECT_TRUE(s.waitForChannel({{3}, {3}, {3}})) << testing::PrintToString(s.channel());
  const std::string log = s.car.emergencyLog();
  EXPECT_EQ(countOf(log, "Calling v850ResetSierra from an external dbus call"), 4u);
  for (const char* nth : {"1th", "2th", "3th"})
    EXPECT_EQ(countOf(log, std::string("Sent IPC message to V850 to reset Sierra ") + nth + " time\n"), 1u) << nth;
  EXPECT_EQ(countOf(log, "Sent IPC message to V850"), 3u);
  EXPECT_TRUE(testSupport::fileExists(s.car.path("/tmp/resetSierraInprogress")));

  EXPECT_EQ(ctlOk(s.car, {"--json", "export-log"}), kOk);
  EXPECT_TRUE(testSupport::waitUntil([&] { return !exportedLog(s.car).empty(); }, kLong))
      << "no log was exported to the stick";
  EXPECT_TRUE(s.signals().empty());

  for (const Strings& bad : {Strings{"dial"}, Strings{"retry-state", "one"}, Strings{"retry-state"},
                             Strings{"status", "extra"}, Strings{"log"}, Strings{"--timeout", "0", "status"}}) {
    Outcome outcome = ctl(s.car, bad);
    EXPECT_EQ(outcome.exitCode, 2) << bad[0] << ": " << outcome.err;
    EXPECT_NE(outcome.err.find("usage: ecallctl"), std::string::npos);
  }

  ASSERT_EQ(kill(s.car.servicePid(), SIGSTOP), 0);
  Outcome silent = ctl(s.car, {"--timeout", "0.3", "mode"});
  kill(s.car.servicePid(), SIGCONT);
  EXPECT_EQ(silent.exitCode, 4) << silent.err;
  EXPECT_NE(silent.err.find("no reply within 0.3 s"), std::string::npos) << silent.err;

  s.car.stopService();
  EXPECT_TRUE(readable.waitForOutput(
      [&] { return readable.out().find("ecallService left the bus") != std::string::npos; }, kLong));
  for (const Strings& args : {Strings{"status"}, Strings{"start"}, Strings{"log", "lost"}}) {
    Outcome absent = ctl(s.car, args);
    EXPECT_EQ(absent.exitCode, 3) << args[0];
    EXPECT_NE(absent.err.find("ecallService is not on the bus"), std::string::npos) << absent.err;
    EXPECT_EQ(absent.out, "");
  }
  readable.signal(SIGINT);
  json.signal(SIGTERM);
  EXPECT_EQ(readable.wait(), 0);
  EXPECT_EQ(json.wait(), 0);
}
