// A simulated car whose service has started, and marks to look from.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "support/e2eHarness.h"

namespace carScene {

using Strings = std::vector<std::string>;
using Bytes = std::vector<int>;
using ms = std::chrono::milliseconds;
using testSupport::containsInOrder;
using testSupport::E2eHarness;
using testSupport::E2eOptions;
using testSupport::ecallSignalText;

inline constexpr double kScale = 0.05;  // the usual pace: the 10 s delay takes 0.5 s
inline const ms kLong = testSupport::kWaitDeadline;
inline const std::string kOk = "{\"result\":\"OK\"}\n";
inline const std::string kAssistApp = "3305261F-B524-4E27-8048-C5778A672389";
inline const std::string kCallActive = "Call Active.  Delay 6000 ms for PSAP TTS";
inline const std::string kDialing = "PMSG: Calling 9-1-1";
inline const std::string kOperatorKeys =
    "At any time press '1' for location information. Press '0' to speak with the vehicle occupants.";
inline const std::string kCarPosition = "Latitude... 42.33142. Longitude... -83.04575. ";
inline const Strings kCarServices = {"platform",          "VehicleConfig", "VehicleStatus",      "NDR",
                                     "TextToSpeechService", "AudioMixerManager", "AudioCtrlSvc", "psseControlService",
                                     "BluetoothService",  "AppManager",    "HMIGateWay",         "EmbeddedPhone"};

// startService false: the car alone, for a test that starts the service.
inline E2eOptions carOptions(double scale, Strings commands = {}, bool startService = true) {
  E2eOptions options;
  options.timeScale = scale;
  options.simCommands = std::move(commands);
  options.startService = startService;
  return options;
}

inline std::string activeSignal(const std::string& type, const std::string& event, const std::string& detail,
                                const std::string& number = "911") {
  return ecallSignalText(true, type, true, number, event, detail);
}
inline std::string buttonSignal(const std::string& type, const std::string& number = "911") {
  return activeSignal(type, "E_CALL_BtnStat", "ECall button was pressed by the user", number);
}
inline const std::string kCrashB = activeSignal("acn", "CAN_IMPACT_B", "CAN - More severe rear event");
inline std::string endedSignal(bool modeActive) { return ecallSignalText(false, "none", modeActive); }
inline std::string systemErrorSignal() { return ecallSignalText(false, "systemError", false); }

inline double at(const Json::Value& record) { return record["t"].asDouble(); }
// A service duration (its ms) on the car's clock at a pace, as a lower bound.
inline double atLeast(double carMs, double scale = kScale) { return 0.8 * carMs * scale / 1000.0; }
// A service duration in real ms at the pace the car really runs.
inline double realMs(double carMs, double scale = kScale) { return carMs * testSupport::carScale(scale); }
// A bound above: ten times the duration at the car's real pace.
inline double atMost(double carMs, double scale = kScale) { return 10 * realMs(carMs, scale) / 1000.0; }

inline size_t countOf(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t i = text.find(part); i != std::string::npos; i = text.find(part, i + part.size())) ++n;
  return n;
}

inline bool isRequest(const Json::Value& r, const std::string& service, const std::string& text) {
  return r["kind"].asString() == "request" && r["service"].asString() == service &&
         testSupport::requestTexts({r}) == Strings{text};
}
inline bool isSignal(const Json::Value& r, const std::string& service, const std::string& name,
                     const std::string& part = "") {
  return r["kind"].asString() == "signal" && r["service"].asString() == service && r["name"].asString() == name &&
         r["data"].asString().find(part) != std::string::npos;
}
inline bool isReadout(const Json::Value& r, const std::string& spoken) {
  return r["kind"].asString() == "request" && r["method"].asString() == "ttsReadout" &&
         testSupport::spokenTexts({r}) == Strings{spoken};
}
inline bool isMicrophoneOpened(const Json::Value& r) {
  return isRequest(r, "AudioCtrlSvc", "setMux {\"gain\":0,\"input\":\"MIC2\",\"name\":\"mic2_mux1\"}\n");
}

// Replaces the vehicle status object whole.
inline void replaceVehicleObject(E2eHarness& car, const std::string& content) {
  const std::string path = car.path("/pps/can/vehstat");
  testSupport::writeFile(path + ".test-tmp", content);
  ASSERT_EQ(rename((path + ".test-tmp").c_str(), path.c_str()), 0);
}

// The emergency log exported to the USB stick, "" while there is none.
inline std::string exportedLog(const E2eHarness& car) {
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(car.path("/fs/usb0"), ec))
    if (entry.path().filename().string().rfind("ecall_log", 0) == 0) return testSupport::readFile(entry.path());
  return "";
}

// An entry logged through the bus and seen in the log as seen (or text).
inline bool logThrough(E2eHarness& car, const std::string& text, const std::string& seen = "") {
  return car.notify("logStringToEcallLog", "{\"message\":\"" + text + "\\n\"}") &&
         car.waitForEmergencyLog((seen.empty() ? text : seen) + "\n", kLong);
}

#ifdef ECALLCTL_BIN
inline Strings ctlArgs(const E2eHarness& car, const Strings& args) {
  Strings argv = {ECALLCTL_BIN, "--bus", car.busAddress()};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}
inline testSupport::Outcome ctl(const E2eHarness& car, const Strings& args) { return testSupport::run(ctlArgs(car, args)); }
#endif

// The service still places a call: a request reaches the phone as a dial.
inline void expectStartEcallDials(E2eHarness& car) {
  const size_t before = car.recordMark();
  EXPECT_EQ(car.call("startEcall"), kOk);
  EXPECT_FALSE(car.waitForRequestSince(before, "EmbeddedPhone", "ecallDial", kLong).isNull())
      << "no dial after the fault or bad input";
  EXPECT_TRUE(car.serviceRunning());
}

// The car records what it receives a little later: compared once it can be whole.
#define EXPECT_SOON_EQ(actual, expected)                                              \
  if (testSupport::waitUntil([&] { return (actual) == (expected); }, kLong); false) { \
  } else                                                                              \
    EXPECT_EQ(actual, expected)

struct Scene {
  // buttonsRead: also wait for the mirror buttons' first read (a car with the
  // embedded phone). Without the service started it waits for nothing.
  explicit Scene(E2eOptions options, bool buttonsRead = true) : car(std::move(options)) {
    if (car.servicePid() <= 0) return;
    EXPECT_TRUE(car.waitForServiceStarted()) << "the service did not finish starting";
    if (buttonsRead) {
      EXPECT_TRUE(car.waitForEmergencyLog("ecallBtn = 0\n")) << "the mirror buttons were not read";
    }
    markNow();
  }
  void restart() {
    car.stopService();
    markNow();
    car.startService();
  }

  void markNow() {
    mark = car.recordMark();
    logMark = car.emergencyLogMessages().size();
  }

  void sim(const std::string& command) {
    std::string reply = car.sim(command);
    EXPECT_EQ(reply.rfind("ok", 0), 0u) << command << ": " << reply;
  }

  Json::Value waitForRecord(const E2eHarness::Pred& pred, ms deadline = kLong) {
    return car.waitForRecordSince(mark, pred, deadline);
  }
  bool waitForRequest(const std::string& service, const std::string& method) {
    return !car.waitForRequestSince(mark, service, method, kLong).isNull();
  }
  Strings signals() { return car.ecallSignalTextsSince(mark); }
  Json::Value waitForSignal(const E2eHarness::Pred& pred) { return car.waitForEcallSignalSince(mark, pred, kLong); }
  bool waitForEmergency() { return !waitForSignal([](const Json::Value& s) { return s["ecall"].asBool(); }).isNull(); }
  bool waitForSignalType(const std::string& type) {
    return !waitForSignal([&](const Json::Value& s) { return s["type"].asString() == type; }).isNull();
  }
  static bool idle(const Json::Value& signal) { return !signal["ecall"].asBool() && !signal["ecallModeActive"].asBool(); }
  // The signal that closes the emergency mode, and the log line after it.
  bool waitForIdle() {
    if (waitForSignal(idle).isNull()) return false;
    const Strings all = signals();
    return waitForLogCount("End emergency mode", std::count(all.begin(), all.end(), endedSignal(false)));
  }

  // The head unit's request, up to the phone's call active.
  void startCallUntilActive() {
    ASSERT_EQ(car.call("startEcall"), kOk);
    ASSERT_TRUE(waitForRequest("EmbeddedPhone", "ecallDial"));
    ASSERT_FALSE(waitForRecord([](const Json::Value& r) { return isSignal(r, "EmbeddedPhone", "callState", "ACTIVE"); })
                     .isNull());
  }
  // The centre hears the car (the microphones open) and hangs up: idle again.
  bool hangUpOnceHeard() {
    if (waitForRecord(isMicrophoneOpened).isNull()) return false;
    sim("psap hangup");
    return waitForIdle();
  }
  // Ends the emergency once the call is active and no state machine run is
  // queued: a leftover run would cut the callback period short.
  void exitWhenActive() {
    ASSERT_TRUE(waitForLogCount(kCallActive, 1));
    ASSERT_EQ(car.call("exitEcall"), kOk);
  }

  // The channel's messages since the mark; first byte 1: the mirror LED, 2: Assist.
  std::vector<Bytes> channel(int first = -1) { return car.channelMessages(mark, first); }
  std::vector<Bytes> led() { return channel(1); }
  bool waitForChannel(const std::vector<Bytes>& wanted, int first = -1) {
    return testSupport::waitUntil([&] { return channel(first) == wanted; }, kLong);
  }
  bool waitForLed(const std::vector<Bytes>& wanted) { return waitForChannel(wanted, 1); }

  Strings log() {
    const Strings all = car.emergencyLogMessages();
    return Strings(all.begin() + static_cast<long>(std::min(logMark, all.size())), all.end());
  }
  // The log since the mark holds parts in this order; if not, it is shown.
  testing::AssertionResult logInOrder(const Strings& parts) {
    const Strings all = log();
    if (containsInOrder(all, parts)) return testing::AssertionSuccess();
    return testing::AssertionFailure() << testing::PrintToString(all);
  }
  size_t countInLog(const std::string& message) { return static_cast<size_t>(std::ranges::count(log(), message)); }
  bool waitForLogCount(const std::string& message, size_t count) {
    return testSupport::waitUntil([&] { return countInLog(message) >= count; }, kLong);
  }

  size_t countInTrace(const std::string& part) { return countOf(car.trace(), part); }
  // A mirror button ("ecall" or "assist") pressed or released, and seen: a quick
  // press and release could otherwise pass unseen.
  void button(const std::string& which, bool pressed) {
    simUntilTraced("button " + which + (pressed ? " press" : " release"),
                   std::string(which == "ecall" ? "ecallBtn" : "UcallBtn") + " pps value " + (pressed ? "1" : "0"));
  }
  void simUntilTraced(const std::string& command, const std::string& seen) {
    const size_t before = countInTrace(seen);
    sim(command);
    EXPECT_TRUE(testSupport::waitUntil([&] { return countInTrace(seen) > before; }, kLong))
        << command << ": the service did not see " << seen;
  }

  Strings spoken() { return testSupport::spokenTexts(car.requestsSince(mark, "TextToSpeechService")); }
  Strings requests(const std::string& service, const std::string& method = "") {
    return testSupport::requestTexts(car.requestsSince(mark, service, method));
  }
  bool waitForRequestCount(const std::string& service, const std::string& method, size_t count) {
    return testSupport::waitUntil([&] { return car.requestsSince(mark, service, method).size() >= count; }, kLong);
  }

  E2eHarness car;
  size_t mark = 0;
  size_t logMark = 0;
};

}  // namespace carScene
