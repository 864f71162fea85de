// The emergency call end to end: the real ecallService on a private bus with
// the simulated car, from the head unit's request to the return to idle.
// Each test checks what the head unit sees ("ecall" signals), what the car's
// services were asked (in order, with their JSON) and the emergency log.
//
// The car runs at 1/20 of real time: the 10 s delay takes 0.5 s, the 60 s
// retry 3 s, and a spoken prompt a few hundred milliseconds, which keeps the
// ordering of the call robust on a loaded machine. Durations the service
// must wait are checked as lower bounds on the simulator's clock only.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "support/e2eHarness.h"
#include "support/testSupport.h"

using testSupport::containsInOrder;
using testSupport::E2eHarness;
using testSupport::E2eOptions;
using testSupport::ecallSignalText;
using testSupport::requestTexts;
using testSupport::spokenTexts;
using Strings = std::vector<std::string>;
using ms = std::chrono::milliseconds;

namespace {

constexpr double kScale = 0.05;
// Deadline of every wait: far beyond the longest scaled duration.
const ms kLong{20000};
const std::string kOk = "{\"result\":\"OK\"}\n";

// The scaled length of a duration of the service, in seconds of the
// simulator's clock, less a margin for the time between arming and the
// event the test can see.
double atLeast(double carMs) { return 0.8 * carMs * kScale / 1000.0; }
double at(const Json::Value& record) { return record["t"].asDouble(); }

// A car with a brand and a position of its own, so that the announcement
// shows where they come from.
E2eOptions carOptions(Strings commands = {}) {
  E2eOptions options;
  options.timeScale = kScale;
  // Call states two seconds apart leave the machine time to take each one.
  options.simCommands = {"set brand 9", "set gps 12345678 -98765432", "set pace 2000"};
  options.simCommands.insert(options.simCommands.end(), commands.begin(), commands.end());
  return options;
}

const std::string kInitiate = "PMSG: Starting 9-1-1 call. To cancel press the 9-1-1 button on the mirror.";
const std::string kDialing = "PMSG: Calling 9-1-1";
const std::string kEnded = "PMSG: 9-1-1 call ended. To reconnect, press the 9-1-1 button on the mirror.";
const std::string kIncoming = "PMSG: Incoming call.";
const std::string kPosition = "Latitude... 12.34567. Longitude... -98.76543. ";
const std::string kPsap1 =
    "ECALL: Emergency call from a Vetta vehicle: At any time press '1' for location information. Press '0' to speak "
    "with the vehicle occupants.";
const std::string kPsap2 = "ECALL: Emergency call from a Vetta vehicle: " + kPosition +
                           "At any time press '1' for location information. Press '0' to speak with the vehicle "
                           "occupants.";
const std::string kGps = "ECALL: " + kPosition;

std::string buttonSignal(const std::string& type, const std::string& number = "911") {
  return ecallSignalText(true, type, true, number, "E_CALL_BtnStat", "ECall button was pressed by the user");
}
std::string endedSignal(bool modeActive) { return ecallSignalText(false, "none", modeActive); }

std::string request(const std::string& method, const std::string& json = "") {
  return method + " " + (json.empty() ? "" : json + "\n");
}
std::string mic(const char* input, const char* name) {
  return request("setMux", std::string("{\"gain\":0,\"input\":\"") + input + "\",\"name\":\"" + name + "\"}");
}
std::string phoneMute(bool mute) {
  return request("setMixerMute", std::string("{\"id\":0,\"input\":\"PHONE\",\"mute\":") + (mute ? "true}" : "false}"));
}
const std::string kDial = request("ecallDial", "{\"address\":\"911\",\"callType\":\"MVA\",\"vehicleType\":\"Corvane\"}");
const std::string kClaimAudio = request("requestInformationSource", "{\"source\":\"ecall\"}");
const std::string kReleaseAudio = request("releaseInformationSource", "{\"source\":\"ecall\"}");

bool isReadout(const Json::Value& r, const std::string& spoken) {
  return r["kind"].asString() == "request" && r["method"].asString() == "ttsReadout" &&
         spokenTexts({r}) == Strings{spoken};
}
bool isRequest(const Json::Value& r, const std::string& service, const std::string& text) {
  return r["kind"].asString() == "request" && r["service"].asString() == service && requestTexts({r}) == Strings{text};
}
bool isSignal(const Json::Value& r, const std::string& service, const std::string& name, const std::string& part = "") {
  return r["kind"].asString() == "signal" && r["service"].asString() == service && r["name"].asString() == name &&
         r["data"].asString().find(part) != std::string::npos;
}

// Position of the first record since mark that satisfies pred, or -1.
int indexOf(E2eHarness& car, size_t mark, const std::function<bool(const Json::Value&)>& pred) {
  std::vector<Json::Value> all = car.recordsSince(mark);
  for (size_t i = 0; i < all.size(); ++i)
    if (pred(all[i])) return static_cast<int>(i);
  return -1;
}

Json::Value waitForSpoken(E2eHarness& car, size_t mark, const std::string& spoken) {
  return car.waitForRecordSince(mark, [&](const Json::Value& r) { return isReadout(r, spoken); }, kLong);
}

// The "ecall" signal that closes the emergency mode, and the log entry that
// follows it.
bool waitForIdle(E2eHarness& car, size_t mark) {
  if (car.waitForEcallSignalSince(
             mark, [](const Json::Value& s) { return !s["ecall"].asBool() && !s["ecallModeActive"].asBool(); }, kLong)
          .isNull())
    return false;
  Strings signals = car.ecallSignalTextsSince(0);
  const long ends = std::count(signals.begin(), signals.end(), endedSignal(false));
  return testSupport::waitUntil(
      [&] {
        Strings log = car.emergencyLogMessages();
        return std::count(log.begin(), log.end(), "End emergency mode") >= ends;
      },
      kLong);
}

Strings logSince(E2eHarness& car, size_t logMark) {
  Strings all = car.emergencyLogMessages();
  return Strings(all.begin() + static_cast<long>(std::min(logMark, all.size())), all.end());
}

// Ends the emergency from the head unit once the call is active (the first
// since logMark), when no run of the state machine is still queued: the
// machine takes any run pulse in the callback period as its end, so one left
// over from the call state changes would cut that period short.
void exitWhenActive(E2eHarness& car, size_t logMark) {
  ASSERT_TRUE(testSupport::waitUntil(
      [&] {
        Strings log = logSince(car, logMark);
        return std::count(log.begin(), log.end(), "Call Active.  Delay 6000 ms for PSAP TTS") > 0;
      },
      kLong));
  ASSERT_EQ(car.call("exitEcall"), kOk);
}

std::vector<std::vector<int>> ledMessagesSince(E2eHarness& car, size_t mark) {
  std::vector<std::vector<int>> out;
  for (const auto& r : car.recordsSince(mark, "channel")) {
    std::vector<int> bytes;
    for (const auto& b : r["bytes"]) bytes.push_back(b.asInt());
    if (!bytes.empty() && bytes[0] == 1) out.push_back(bytes);
  }
  return out;
}

// The simulator records what it receives on its own threads, a little after
// the service sent it: a list is compared once it had the time to be whole.
#define EXPECT_SOON_EQ(actual, expected)                                              \
  if (testSupport::waitUntil([&] { return (actual) == (expected); }, kLong); false) { \
  } else                                                                              \
    EXPECT_EQ(actual, expected)

// A car whose service has started, and the marks from which a test looks.
struct Scene {
  explicit Scene(E2eOptions options) : car(std::move(options)) {
    EXPECT_TRUE(car.waitForServiceStarted()) << "the service did not finish starting";
    // The mirror buttons' first read is logged as the input threads start.
    EXPECT_TRUE(car.waitForEmergencyLog("ecallBtn = 0\n")) << "the mirror buttons were not read";
    mark = car.recordMark();
    logMark = car.emergencyLogMessages().size();
  }
  // The button request from the bus, up to the moment the phone reports the
  // emergency call active.
  void startCallUntilActive() {
    ASSERT_EQ(car.call("startEcall"), kOk);
    ASSERT_FALSE(car.waitForRequestSince(mark, "EmbeddedPhone", "ecallDial", kLong).isNull());
    ASSERT_FALSE(car.waitForRecordSince(
                        mark, [](const Json::Value& r) { return isSignal(r, "EmbeddedPhone", "callState", "ACTIVE"); },
                        kLong)
                     .isNull());
  }
  void sim(const std::string& command) {
    std::string reply = car.sim(command);
    EXPECT_EQ(reply.rfind("ok", 0), 0u) << command << ": " << reply;
  }
  E2eHarness car;
  size_t mark = 0;
  size_t logMark = 0;
};

}  // namespace

// The whole call as the user starts it from the head unit: the delay, the
// dial, the announcement for the emergency centre, the centre's hang-up and
// the 30 s in which the centre may call back, then everything given back.
TEST(EmergencyCall, StartEcallRunsTheWholeCallAndGivesEverythingBack) {
  Scene s(carOptions());
  E2eHarness& car = s.car;
  ASSERT_NO_FATAL_FAILURE(s.startCallUntilActive());
  EXPECT_TRUE(testSupport::fileExists(car.path("/tmp/embeddedCallActive")));
  EXPECT_EQ(car.call("IsECallModeActive"), "{\"eCallModeActive\":true}\n");
  EXPECT_EQ(car.call("IsECallInProgess"), "{\"ecallInProgress\":true}\n");

  // The microphones open once the second announcement has been spoken.
  ASSERT_FALSE(car.waitForRecordSince(
                      s.mark, [](const Json::Value& r) { return isRequest(r, "AudioCtrlSvc", mic("MIC2", "mic2_mux1")); },
                      kLong)
                   .isNull());
  s.sim("psap hangup");
  ASSERT_TRUE(waitForIdle(car, s.mark));

  EXPECT_SOON_EQ(car.ecallSignalTextsSince(s.mark), (Strings{buttonSignal("ecallDelay"), endedSignal(true), endedSignal(false)}));
  EXPECT_SOON_EQ(requestTexts(car.requestsSince(s.mark, "EmbeddedPhone")),
            (Strings{request("getEmergencyNumbers", "{\"maxCount\":10}"), request("endActiveCall"), kDial,
                     request("debugAT", "{\"atString\":\"at+wsos=0\\r\"}")}));
  EXPECT_SOON_EQ(spokenTexts(car.requestsSince(s.mark, "TextToSpeechService")),
            (Strings{kInitiate, kDialing, kPsap1, kPsap2, kEnded}));
  EXPECT_SOON_EQ(requestTexts(car.requestsSince(s.mark, "AudioMixerManager")),
            (Strings{kClaimAudio, kClaimAudio, phoneMute(true), phoneMute(false), phoneMute(false), kReleaseAudio}));
  EXPECT_SOON_EQ(requestTexts(car.requestsSince(s.mark, "AudioCtrlSvc")),
            (Strings{mic("OFF", "mic1_mux1"), mic("OFF", "mic2_mux1"), mic("MIC1", "mic1_mux1"),
                     mic("MIC2", "mic2_mux1"), mic("MIC1", "mic1_mux1"), mic("MIC2", "mic2_mux1")}));
  EXPECT_SOON_EQ(requestTexts(car.requestsSince(s.mark, "BluetoothService")),
            (Strings{request("switchBluetoothOff"), request("setBluetoothStatus", "{\"enable\":true}")}));
  EXPECT_SOON_EQ(requestTexts(car.requestsSince(s.mark, "AppManager")),
            (Strings{request("stopApp", "{\"appId\":\"3305261F-B524-4E27-8048-C5778A672389\"}")}));
  auto progress = [&] {
    Strings codes;
    for (const auto& r : car.recordsSince(s.mark, "ecallProgress")) codes.push_back(r["data"].asString());
    return codes;
  };
  EXPECT_SOON_EQ(progress(), (Strings{"{\"progress\":55936}\n", "{\"progress\":55915}\n", "{\"progress\":55915}\n"}));
  EXPECT_SOON_EQ(ledMessagesSince(car, s.mark), (std::vector<std::vector<int>>{{1, 1}, {1, 0}, {1, 0}}));

  EXPECT_SOON_EQ(logSince(car, s.logMark),
            (Strings{"Speaker TTS language English", "Vehicle brand Vetta",
                     // The number read clears its failure, failed or not.
                     "System error no ecall number programmed CLEARED", "Ecall delay 10 before calling",
                     "send LED status 1", "Request mute mic inputs", "TTS rqst 1", "TTS rqst 7", "Calling 911",
                     "Call Active.  Delay 6000 ms for PSAP TTS", "TTS rqst 8", "TTS rqst 9",
                     "Request unmute mic inputs", "Call ended", "send LED status 0", "TTS rqst 3",
                     "Request unmute mic inputs", "send LED status 0", "End emergency mode"}));

  // The service waited as long as it should, on the car's clock.
  auto record = [&](const std::function<bool(const Json::Value&)>& pred) {
    return car.waitForRecordSince(s.mark, pred, ms(0));
  };
  auto signal = [](bool ecall, bool modeActive) {
    return [=](const Json::Value& r) {
      return r["kind"].asString() == "ecall" && r["data"].asString().find(std::string("\"ecall\":") + (ecall ? "true" : "false")) != std::string::npos &&
             r["data"].asString().find(std::string("\"ecallModeActive\":") + (modeActive ? "true" : "false")) !=
                 std::string::npos;
    };
  };
  Json::Value announced = record(signal(true, true));
  Json::Value dial = record([](const Json::Value& r) { return isRequest(r, "EmbeddedPhone", kDial); });
  Json::Value active = record([](const Json::Value& r) { return isSignal(r, "EmbeddedPhone", "callState", "ACTIVE"); });
  Json::Value firstPsap = record([](const Json::Value& r) { return isReadout(r, kPsap1); });
  Json::Value callEnded = record(signal(false, true));
  Json::Value idle = record(signal(false, false));
  EXPECT_GE(at(dial) - at(announced), atLeast(10000)) << "the delay before the dial";
  EXPECT_GE(at(firstPsap) - at(active), atLeast(6000)) << "the wait before the announcement";
  EXPECT_GE(at(idle) - at(callEnded), atLeast(30000)) << "the callback period";
  // The phone source is unmuted only after the second announcement ended.
  int secondPsap = indexOf(car, s.mark, [](const Json::Value& r) { return isReadout(r, kPsap2); });
  int unmuted = indexOf(car, s.mark, [](const Json::Value& r) { return isRequest(r, "AudioMixerManager", phoneMute(false)); });
  std::vector<Json::Value> all = car.recordsSince(s.mark);
  bool endedBefore = false;
  for (int i = secondPsap; i >= 0 && i < unmuted; ++i)
    endedBefore = endedBefore || isSignal(all[i], "TextToSpeechService", "ttsPlayState", "notPlaying");
  EXPECT_TRUE(endedBefore) << "microphones opened before the announcement ended";

  EXPECT_FALSE(testSupport::fileExists(car.path("/tmp/embeddedCallActive")));
  EXPECT_EQ(car.call("IsECallModeActive"), "{\"eCallModeActive\":false}\n");
  EXPECT_EQ(car.call("IsECallInProgess"), "{\"ecallInProgress\":false}\n");
}

// A second request while the call is still being announced is the user's
// cancel: no dial, the prompt stops, and the delay does not come back later.
TEST(EmergencyCall, SecondStartDuringTheDelayCancelsWithoutDialling) {
  Scene s(carOptions());
  E2eHarness& car = s.car;
  ASSERT_EQ(car.call("startEcall"), kOk);
  ASSERT_FALSE(car.waitForEcallSignalSince(s.mark, [](const Json::Value& sig) { return sig["ecall"].asBool(); }, kLong)
                   .isNull());
  ASSERT_EQ(car.call("startEcall"), kOk);
  ASSERT_TRUE(waitForIdle(car, s.mark));

  // A delay timer left running would come back in the callback period as a
  // redial.
  EXPECT_SOON_EQ(car.ecallSignalTextsSince(s.mark), (Strings{buttonSignal("ecallDelay"), endedSignal(true), endedSignal(false)}));
  EXPECT_TRUE(car.requestsSince(s.mark, "EmbeddedPhone", "ecallDial").empty());
  std::vector<Json::Value> speech = car.requestsSince(s.mark, "TextToSpeechService");
  EXPECT_EQ(spokenTexts(speech), (Strings{kInitiate, kEnded}));
  // Unless the first prompt had ended by itself, it was stopped.
  int cancelled = indexOf(car, s.mark, [](const Json::Value& r) {
    return r["kind"].asString() == "ecall" && r["data"].asString().find("\"ecall\":false") != std::string::npos;
  });
  int endedAlone = indexOf(car, s.mark, [](const Json::Value& r) {
    return isSignal(r, "TextToSpeechService", "ttsPlayState", "notPlaying");
  });
  if (endedAlone < 0 || endedAlone > cancelled) {
    EXPECT_TRUE(containsInOrder(requestTexts(speech), {requestTexts({speech[0]})[0],
                                                      request("ttsAbort", "{\"readoutType\":\"PMSG\"}")}));
  }
  Strings log = logSince(car, s.logMark);
  EXPECT_TRUE(containsInOrder(log, {"Ecall delay 10 before calling", "TTS rqst 1", "User cancelled mode during Ecall delay",
                                    "send LED status 0", "TTS rqst 3", "End emergency mode"}))
      << testing::PrintToString(log);
  EXPECT_SOON_EQ(ledMessagesSince(car, s.mark), (std::vector<std::vector<int>>{{1, 1}, {1, 0}, {1, 0}}));
}

// The bus library refuses the dial while the phone service is off the bus:
// the head unit is told, and the dial is made again a retry period later.
TEST(EmergencyCall, RefusedDialIsReportedAndRetriedAfterTheRetryPeriod) {
  Scene s(carOptions());
  E2eHarness& car = s.car;
  ASSERT_EQ(car.call("startEcall"), kOk);
  ASSERT_FALSE(car.waitForEcallSignalSince(s.mark, [](const Json::Value& sig) { return sig["ecall"].asBool(); }, kLong)
                   .isNull());
  s.sim("peer EmbeddedPhone gone");
  Json::Value failed = car.waitForEcallSignalSince(
      s.mark, [](const Json::Value& sig) { return sig["type"].asString() == "failed"; }, kLong);
  ASSERT_FALSE(failed.isNull());
  EXPECT_SOON_EQ(car.ecallSignalTextsSince(s.mark), (Strings{buttonSignal("ecallDelay"), buttonSignal("failed")}));
  EXPECT_TRUE(car.waitForEmergencyLog("Error dial PSAP number failed\n"));
  EXPECT_TRUE(car.waitForSlog("Failed to dial emergency number, rc 0x"));
  EXPECT_TRUE(car.waitForTrace("Failed dial emergency number, rc -"));

  s.sim("peer EmbeddedPhone back");
  Json::Value redial = car.waitForRequestSince(s.mark, "EmbeddedPhone", "ecallDial", kLong);
  ASSERT_FALSE(redial.isNull());
  EXPECT_EQ(requestTexts({redial}), Strings{kDial});
  Json::Value failedRecord = car.waitForRecordSince(
      s.mark, [](const Json::Value& r) { return r["kind"].asString() == "ecall" && r["data"].asString().find("failed") != std::string::npos; },
      ms(0));
  EXPECT_GE(at(redial) - at(failedRecord), atLeast(60000));
  // The redial is a call like the first would have been.
  EXPECT_TRUE(car.waitForEmergencyLog("Call Active.  Delay 6000 ms for PSAP TTS", kLong));
  EXPECT_EQ(car.requestsSince(s.mark, "EmbeddedPhone", "ecallDial").size(), 1u);
}

// The phone accepts the dial but its call never leaves idle: the connect
// time-out reports the failure, and the next end of a call dials again.
TEST(EmergencyCall, DialThatNeverLeavesIdleTimesOutThenRedialsOnTheNextCallEnd) {
  Scene s(carOptions({"set dial idle"}));
  E2eHarness& car = s.car;
  ASSERT_EQ(car.call("startEcall"), kOk);
  Json::Value dial = car.waitForRequestSince(s.mark, "EmbeddedPhone", "ecallDial", kLong);
  ASSERT_FALSE(dial.isNull());
  Json::Value failed = car.waitForRecordSince(
      s.mark, [](const Json::Value& r) { return r["kind"].asString() == "ecall" && r["data"].asString().find("failed") != std::string::npos; },
      kLong);
  ASSERT_FALSE(failed.isNull());
  EXPECT_EQ(failed["data"].asString(), buttonSignal("failed"));
  EXPECT_GE(at(failed) - at(dial), atLeast(60000)) << "the connect time-out";
  EXPECT_TRUE(car.waitForEmergencyLog("Error: Call state did not transition after successful dial request\n"));
  EXPECT_TRUE(car.waitForTrace(
      "PSAP ecall timeout when attempting to make the call (no transition out of IDLE), sending failed so retry "
      "strategy can kick in"));

  // The phone's end of a call is what the state machine waits for.
  const size_t afterFailure = car.recordMark();
  s.sim("set dial ok");
  s.sim("wend 3");
  ASSERT_FALSE(car.waitForRequestSince(afterFailure, "EmbeddedPhone", "ecallDial", kLong).isNull());
  EXPECT_TRUE(car.waitForEmergencyLog("Call Active.  Delay 6000 ms for PSAP TTS", kLong));
  EXPECT_SOON_EQ(requestTexts(car.requestsSince(s.mark, "EmbeddedPhone", "ecallDial")), (Strings{kDial, kDial}));
}

// A call that ends before it is answered is retried every retry period for
// as long as the request stands; "Error Call Failed" is logged once.
TEST(EmergencyCall, CallEndingBeforeItIsAnsweredIsRetriedEveryRetryPeriod) {
  Scene s(carOptions({"set dial drop"}));
  E2eHarness& car = s.car;
  auto failures = [&] {
    size_t n = 0;
    for (const auto& text : car.ecallSignalTextsSince(s.mark)) n += text == buttonSignal("failed") ? 1 : 0;
    return n;
  };
  ASSERT_EQ(car.call("startEcall"), kOk);
  ASSERT_TRUE(testSupport::waitUntil([&] { return failures() == 2; }, kLong));
  s.sim("set dial ok");
  ASSERT_TRUE(car.waitForEmergencyLog("Call Active.  Delay 6000 ms for PSAP TTS", kLong));

  std::vector<Json::Value> dials = car.requestsSince(s.mark, "EmbeddedPhone", "ecallDial");
  ASSERT_EQ(dials.size(), 3u);
  EXPECT_GE(at(dials[1]) - at(dials[0]), atLeast(60000));
  EXPECT_GE(at(dials[2]) - at(dials[1]), atLeast(60000));
  EXPECT_EQ(failures(), 2u);
  Strings log = logSince(car, s.logMark);
  EXPECT_EQ(std::count(log.begin(), log.end(), "Error Call Failed"), 1);
  EXPECT_EQ(std::count(log.begin(), log.end(), "Calling 911"), 3);
  EXPECT_TRUE(car.waitForTrace("PSAP ecall failed, trying again in 60000ms"));
}

// The centre's line rings but nobody answers: the connect time-out reports
// the failure and keeps waiting for the call; once it ends, the retry
// period runs and the call is made again.
TEST(EmergencyCall, UnansweredCallTimesOutAndIsRedialledAfterItEnds) {
  Scene s(carOptions({"set answer manual"}));
  E2eHarness& car = s.car;
  ASSERT_EQ(car.call("startEcall"), kOk);
  ASSERT_FALSE(car.waitForRecordSince(
                      s.mark, [](const Json::Value& r) { return isSignal(r, "EmbeddedPhone", "callState", "ALERTING"); },
                      kLong)
                   .isNull());
  Json::Value failed = car.waitForEcallSignalSince(
      s.mark, [](const Json::Value& sig) { return sig["type"].asString() == "failed"; }, kLong);
  ASSERT_FALSE(failed.isNull());
  EXPECT_TRUE(car.waitForTrace("PSAP ecall timeout, sending failed so retry strategy can kick in"));
  EXPECT_EQ(car.requestsSince(s.mark, "EmbeddedPhone", "ecallDial").size(), 1u);

  s.sim("set answer auto");
  s.sim("psap hangup");
  ASSERT_TRUE(car.waitForEmergencyLog("Call Active.  Delay 6000 ms for PSAP TTS", kLong));
  std::vector<Json::Value> dials = car.requestsSince(s.mark, "EmbeddedPhone", "ecallDial");
  ASSERT_EQ(dials.size(), 2u);
  Json::Value ended = car.waitForRecordSince(
      s.mark, [](const Json::Value& r) { return isSignal(r, "EmbeddedPhone", "callState", "TERMINATED"); }, ms(0));
  EXPECT_GE(at(dials[1]) - at(ended), atLeast(60000)) << "the retry period";
  EXPECT_SOON_EQ(car.ecallSignalTextsSince(s.mark),
                 (Strings{buttonSignal("ecallDelay"), buttonSignal("failed"), buttonSignal("failed")}));
  EXPECT_TRUE(containsInOrder(logSince(car, s.logMark), {"Calling 911", "Error Call Failed", "Calling 911"}));
}

// The operator presses 1 during the announcement: it stops, the microphones
// open, and the position is read out instead of the second announcement.
TEST(EmergencyCall, OperatorKeyOneStopsTheAnnouncementAndHearsThePosition) {
  Scene s(carOptions());
  E2eHarness& car = s.car;
  ASSERT_NO_FATAL_FAILURE(s.startCallUntilActive());
  ASSERT_FALSE(waitForSpoken(car, s.mark, kPsap1).isNull());
  s.sim("dtmf 1");
  ASSERT_FALSE(waitForSpoken(car, s.mark, kGps).isNull());
  ASSERT_FALSE(car.waitForRecordSince(
                      s.mark, [](const Json::Value& r) { return isRequest(r, "AudioCtrlSvc", mic("MIC2", "mic2_mux1")); },
                      kLong)
                   .isNull());
  std::vector<Json::Value> speech = car.requestsSince(s.mark, "TextToSpeechService");
  EXPECT_TRUE(containsInOrder(requestTexts(speech), {requestTexts({speech[2]})[0],
                                                    request("ttsAbort", "{\"readoutType\":\"ECALL\"}")}))
      << testing::PrintToString(requestTexts(speech));
  EXPECT_TRUE(containsInOrder(logSince(car, s.logMark), {"TTS rqst 8", "Rx DTMF: 1", "Request unmute mic inputs",
                                                         "TTS rqst 12", "GPS only TTS: " + kPosition}))
      << testing::PrintToString(logSince(car, s.logMark));

  s.sim("psap hangup");
  ASSERT_TRUE(waitForIdle(car, s.mark));
  // The second announcement never follows the aborted first one.
  EXPECT_SOON_EQ(spokenTexts(car.requestsSince(s.mark, "TextToSpeechService")),
            (Strings{kInitiate, kDialing, kPsap1, kGps, kEnded}));
}

// Key 0 (talk to the occupants) during the second announcement stops it and
// opens the microphones once; keys outside the emergency mode do nothing.
TEST(EmergencyCall, OperatorKeyZeroOnlyStopsTheAnnouncement) {
  Scene s(carOptions());
  E2eHarness& car = s.car;
  s.sim("dtmf 1");
  ASSERT_TRUE(car.waitForTrace("dtmf detected: 1"));
  ASSERT_NO_FATAL_FAILURE(s.startCallUntilActive());
  ASSERT_FALSE(waitForSpoken(car, s.mark, kPsap2).isNull());
  s.sim("dtmf 0");
  ASSERT_TRUE(car.waitForEmergencyLog("Rx DTMF: 0\n", kLong));
  ASSERT_FALSE(car.waitForRecordSince(
                      s.mark, [](const Json::Value& r) { return isRequest(r, "AudioCtrlSvc", mic("MIC2", "mic2_mux1")); },
                      kLong)
                   .isNull());
  s.sim("psap hangup");
  ASSERT_TRUE(waitForIdle(car, s.mark));

  std::vector<Json::Value> speech = car.requestsSince(s.mark, "TextToSpeechService");
  EXPECT_EQ(spokenTexts(speech), (Strings{kInitiate, kDialing, kPsap1, kPsap2, kEnded}));
  EXPECT_TRUE(containsInOrder(requestTexts(speech), {requestTexts({speech[3]})[0],
                                                    request("ttsAbort", "{\"readoutType\":\"ECALL\"}")}));
  Strings log = logSince(car, s.logMark);
  EXPECT_EQ(std::count(log.begin(), log.end(), "Rx DTMF: 1"), 0) << "a key outside the emergency mode was taken";
  EXPECT_EQ(std::count(log.begin(), log.end(), "Rx DTMF: 0"), 1);
  // Opened by the key, and once more when the emergency mode ends.
  EXPECT_EQ(std::count(log.begin(), log.end(), "Request unmute mic inputs"), 2) << testing::PrintToString(log);
}

// The phone's end reason 17 ends the call although no call state follows;
// an end reason that does not end calls changes nothing.
TEST(EmergencyCall, EndReasonSeventeenEndsTheCallWithoutACallState) {
  Scene s(carOptions());
  E2eHarness& car = s.car;
  ASSERT_NO_FATAL_FAILURE(s.startCallUntilActive());
  ASSERT_FALSE(waitForSpoken(car, s.mark, kPsap1).isNull());
  s.sim("wend 16");
  ASSERT_TRUE(car.waitForTrace("wendReason service number = 16"));
  EXPECT_EQ(car.call("IsECallModeActive"), "{\"eCallModeActive\":true}\n");
  EXPECT_SOON_EQ(car.ecallSignalTextsSince(s.mark), Strings{buttonSignal("ecallDelay")});

  s.sim("wend 17");
  ASSERT_TRUE(waitForIdle(car, s.mark));
  EXPECT_TRUE(car.waitForTrace("Ecall mode CALL END due to wend service number = 17"));
  EXPECT_SOON_EQ(car.ecallSignalTextsSince(s.mark), (Strings{buttonSignal("ecallDelay"), endedSignal(true), endedSignal(false)}));
  EXPECT_TRUE(containsInOrder(logSince(car, s.logMark), {"Call ended", "TTS rqst 3", "End emergency mode"}));
  // The phone never reported the call ended; the service took the reason's
  // word for it and has no call to hang up.
  std::vector<Json::Value> states;
  for (const auto& r : car.recordsSince(s.mark, "signal"))
    if (isSignal(r, "EmbeddedPhone", "callState")) states.push_back(r);
  ASSERT_FALSE(states.empty());
  EXPECT_NE(states.back()["data"].asString().find("CALL_STATE_ACTIVE"), std::string::npos);
  EXPECT_SOON_EQ(requestTexts(car.requestsSince(s.mark, "EmbeddedPhone", "endActiveCall")), Strings{request("endActiveCall")})
      << "only the hang-up before the dial";
}

// The emergency centre calls back within the callback period: the car rings
// for the ring time, says "Incoming call.", answers, and the call is active.
TEST(EmergencyCallback, CallbackInTheCallbackPeriodRingsPromptsAndIsAnswered) {
  Scene s(carOptions());
  E2eHarness& car = s.car;
  ASSERT_NO_FATAL_FAILURE(s.startCallUntilActive());
  ASSERT_FALSE(car.waitForRecordSince(
                      s.mark, [](const Json::Value& r) { return isRequest(r, "AudioCtrlSvc", mic("MIC2", "mic2_mux1")); },
                      kLong)
                   .isNull());
  s.sim("psap hangup");
  // The callback period starts with the call-ended signal and prompt.
  ASSERT_FALSE(car.waitForEcallSignalSince(s.mark, [](const Json::Value& sig) { return !sig["ecall"].asBool(); }, kLong)
                   .isNull());
  ASSERT_FALSE(waitForSpoken(car, s.mark, kEnded).isNull());
  const size_t callback = car.recordMark();
  const size_t callbackLog = car.emergencyLogMessages().size();
  s.sim("psap callback");
  ASSERT_TRUE(car.waitForEmergencyLog("Incoming Call - Active\n", kLong));
  EXPECT_SOON_EQ(car.ecallSignalTextsSince(callback),
            Strings{ecallSignalText(true, "emergency_callback", true, "911", "Emergency_Callback", "Emergency Callback")});
  s.sim("psap hangup");
  ASSERT_TRUE(waitForIdle(car, callback));

  EXPECT_SOON_EQ(requestTexts(car.requestsSince(callback, "psseControlService")),
            (Strings{request("getSHF_Scenario", "{\"source\":\"ecall\"}"),
                     request("setSHF_Scenario", "{\"mode\":\"START\",\"scenario\":\"Embedded_255_1\"}"),
                     request("getSHF_Scenario", "{\"source\":\"ecall\"}"),
                     request("setSHF_Scenario", "{\"mode\":\"STOP\",\"scenario\":\"Embedded_255_1\"}")}));
  // The ring one step under the prompt volume, then back to the phone volume.
  EXPECT_SOON_EQ(requestTexts(car.requestsSince(callback, "AudioMixerManager", "adjustVolume")),
            (Strings{request("adjustVolume", "{\"source\":\"PHONE\",\"step\":11,\"user\":\"driver\"}"),
                     request("adjustVolume", "{\"source\":\"PHONE\",\"step\":18,\"user\":\"driver\"}")}));
  EXPECT_SOON_EQ(spokenTexts(car.requestsSince(callback, "TextToSpeechService")), (Strings{kIncoming, kEnded}));
  std::vector<Json::Value> accepted = car.requestsSince(callback, "EmbeddedPhone", "acceptIncomingCall");
  ASSERT_EQ(accepted.size(), 1u);
  std::vector<Json::Value> scenario = car.requestsSince(callback, "psseControlService", "setSHF_Scenario");
  ASSERT_EQ(scenario.size(), 2u);
  EXPECT_GE(at(scenario[1]) - at(scenario[0]), atLeast(8000)) << "the ring time";
  Json::Value prompt = waitForSpoken(car, callback, kIncoming);
  EXPECT_LT(at(prompt), at(accepted[0])) << "answered before the prompt";

  // The caller's number is logged on the bus thread as soon as the phone
  // reports the call active, which may be before the state machine has
  // logged its answer command.
  const std::string caller = "Incoming Call from number 911";
  Strings log = logSince(car, callbackLog);
  EXPECT_EQ(std::count(log.begin(), log.end(), caller), 1);
  EXPECT_TRUE(containsInOrder(log, {"TTS rqst 2", caller}));
  log.erase(std::remove(log.begin(), log.end(), caller), log.end());
  EXPECT_EQ(log, (Strings{"Incoming call during wait for exit emergency mode", "Incoming Call - opening audio for 2 rings",
                          "Incoming Call - close audio and play TTS", "TTS rqst 2",
                          "Incoming Call - answer phone cmd sent to embedded phone", "Incoming Call - Active",
                          "Call ended", "send LED status 0", "TTS rqst 3", "Request unmute mic inputs",
                          "send LED status 0", "End emergency mode"}));
  EXPECT_SOON_EQ(car.ecallSignalTextsSince(callback),
            (Strings{ecallSignalText(true, "emergency_callback", true, "911", "Emergency_Callback", "Emergency Callback"),
                     endedSignal(true), endedSignal(false)}));
}

// A call back while idle opens the emergency mode by itself; the centre gives
// up while the car still rings, and the emergency ends without an answer.
TEST(EmergencyCallback, CentreHangingUpBeforeTheAnswerEndsTheCallback) {
  Scene s(carOptions());
  E2eHarness& car = s.car;
  s.sim("psap callback 5551234");
  ASSERT_TRUE(car.waitForEmergencyLog("Incoming Call - opening audio for 2 rings\n", kLong));
  EXPECT_EQ(car.call("IsECallModeActive"), "{\"eCallModeActive\":true}\n");
  s.sim("psap hangup");
  ASSERT_TRUE(waitForIdle(car, s.mark));

  EXPECT_SOON_EQ(car.ecallSignalTextsSince(s.mark),
            // The number in the signal is the emergency number, not the caller's.
            (Strings{ecallSignalText(true, "emergency_callback", true, "911", "Emergency_Callback", "Emergency Callback"),
                     endedSignal(true), endedSignal(false)}));
  EXPECT_TRUE(car.requestsSince(s.mark, "EmbeddedPhone", "acceptIncomingCall").empty());
  EXPECT_SOON_EQ(spokenTexts(car.requestsSince(s.mark, "TextToSpeechService")), Strings{kEnded});
  // The callback opens the microphones at once: the centre is to be heard.
  EXPECT_SOON_EQ(requestTexts(car.requestsSince(s.mark, "AudioCtrlSvc")),
                 (Strings{mic("MIC1", "mic1_mux1"), mic("MIC2", "mic2_mux1"), mic("MIC1", "mic1_mux1"),
                          mic("MIC2", "mic2_mux1")}));
  EXPECT_SOON_EQ(logSince(car, s.logMark),
            (Strings{"send LED status 1", "Speaker TTS language English", "Vehicle brand Vetta",
                     "Request unmute mic inputs", "Incoming Call", "Incoming Call - opening audio for 2 rings",
                     "Incoming Call - PSAP ended call before it was answered", "send LED status 0", "TTS rqst 3",
                     "Request unmute mic inputs", "send LED status 0", "End emergency mode"}));
  EXPECT_FALSE(testSupport::fileExists(car.path("/tmp/embeddedCallActive")));
}

// Without a programmed number nothing is dialled: the failure is raised once
// and told as the first system error; a press while it stands is told again
// and waits; once the phone has a number the button calls; losing the
// number again is told as a repeated system error.
TEST(EmergencyNumber, MissingNumberIsASystemErrorUntilThePhoneHasOne) {
  Scene s(carOptions({"set number none"}));
  E2eHarness& car = s.car;
  const std::string systemError = ecallSignalText(false, "systemError", false);
  ASSERT_EQ(car.call("startEcall"), kOk);
  ASSERT_TRUE(car.waitForEmergencyLog("Error failed to obtain PSAP number\n", kLong));
  EXPECT_SOON_EQ(car.ecallSignalTextsSince(s.mark), Strings{systemError});
  EXPECT_EQ(car.requestsSince(s.mark, "EmbeddedPhone", "getEmergencyNumbers").size(), 3u) << "three attempts";
  EXPECT_TRUE(car.requestsSince(s.mark, "EmbeddedPhone", "ecallDial").empty());
  EXPECT_TRUE(car.waitForSlog("PSAP ecall number not set in the embedded phone"));
  EXPECT_SOON_EQ(ledMessagesSince(car, s.mark), (std::vector<std::vector<int>>{{1, 3}}));
  EXPECT_SOON_EQ(logSince(car, s.logMark),
            (Strings{"Speaker TTS language English", "Vehicle brand Vetta",
                     "System error no ecall number programmed OCCURRED",
                     "First System error message generated due to no ecall number programmed, current SystemError = 128",
                     "send LED status 3", "System error handling set LED to 3", "Error failed to obtain PSAP number"}));
  EXPECT_EQ(car.call("IsECallModeActive"), "{\"eCallModeActive\":false}\n");

  // Pressed again while the failure stands: told again, and the request waits.
  const size_t second = car.recordMark();
  const size_t secondLog = car.emergencyLogMessages().size();
  ASSERT_EQ(car.call("startEcall"), kOk);
  ASSERT_TRUE(car.waitForTrace("Error msg active when ecall delay start pulse received, ignoring the pulse"));
  EXPECT_SOON_EQ(car.ecallSignalTextsSince(second), Strings{systemError});
  EXPECT_SOON_EQ(logSince(car, secondLog), Strings{"Send System error message due to ECall Button press. System error 128"});

  // The number is programmed, and the phone's next report brings it.
  const size_t programmed = car.recordMark();
  s.sim("set number 911");
  s.sim("phone on");
  ASSERT_TRUE(car.waitForEmergencyLog("System error no ecall number programmed CLEARED\n", kLong));
  EXPECT_TRUE(testSupport::waitUntil(
      [&] { return ledMessagesSince(car, programmed) == std::vector<std::vector<int>>{{1, 0}}; }, kLong));

  const size_t third = car.recordMark();
  const size_t thirdLog = car.emergencyLogMessages().size();
  ASSERT_EQ(car.call("startEcall"), kOk);
  Json::Value announced = car.waitForEcallSignalSince(third, [](const Json::Value& sig) { return sig["ecall"].asBool(); }, kLong);
  ASSERT_FALSE(announced.isNull()) << "the button does nothing although the phone has a number now";
  EXPECT_SOON_EQ(car.ecallSignalTextsSince(third).front(), buttonSignal("ecallDelay"));
  ASSERT_FALSE(car.waitForRequestSince(third, "EmbeddedPhone", "ecallDial", kLong).isNull());
  ASSERT_NO_FATAL_FAILURE(exitWhenActive(car, thirdLog));
  ASSERT_TRUE(waitForIdle(car, third));

  // Lost again: this time it is a system error told again, not the first.
  s.sim("set number none");
  const size_t fourth = car.recordMark();
  const size_t fourthLog = car.emergencyLogMessages().size();
  ASSERT_EQ(car.call("startEcall"), kOk);
  ASSERT_TRUE(testSupport::waitUntil(
      [&] {
        Strings log = logSince(car, fourthLog);
        return std::count(log.begin(), log.end(), "Error failed to obtain PSAP number") == 1;
      },
      kLong));
  EXPECT_SOON_EQ(car.ecallSignalTextsSince(fourth), Strings{systemError});
  Strings log = logSince(car, fourthLog);
  EXPECT_TRUE(containsInOrder(log, {"System error message generated again due to no ecall number programmed",
                                    "System error no ecall number programmed OCCURRED",
                                    "Error failed to obtain PSAP number"}))
      << testing::PrintToString(log);
  for (const auto& line : log) EXPECT_EQ(line.find("First System error"), std::string::npos) << line;
}

// A request made while the phone is OFF is kept (the user is asked to wait)
// and served once when the phone reports ON; a further ON report during the
// delay does not take it for a second press, which would cancel it.
TEST(PhoneStatus, RequestWhileThePhoneIsOffIsServedOnceWhenItComesOn) {
  Scene s(carOptions());
  E2eHarness& car = s.car;
  s.sim("phone off");
  ASSERT_TRUE(car.waitForTrace("Get Embedded Phone Status: OFF, start Phone not present timer"));
  ASSERT_EQ(car.call("startEcall"), kOk);
  Json::Value popup = car.waitForRequestSince(s.mark, "HMIGateWay", "displayGlobalPopupByMsgId", kLong);
  ASSERT_FALSE(popup.isNull());
  EXPECT_EQ(requestTexts({popup}),
            Strings{request("displayGlobalPopupByMsgId", "{\"msgId\":2672,\"showonDisplayoff\":true,\"timeout\":5000}")});
  EXPECT_TRUE(car.waitForEmergencyLog(
      "ECall Button pressed but embedded Phone is OFF. Request HMI to display please wait popup. System error: 0\n"));
  EXPECT_TRUE(car.ecallSignalTextsSince(s.mark).empty());
  EXPECT_EQ(car.call("IsECallModeActive"), "{\"eCallModeActive\":false}\n");

  s.sim("phone on");
  ASSERT_FALSE(car.waitForEcallSignalSince(s.mark, [](const Json::Value& sig) { return sig["ecall"].asBool(); }, kLong)
                   .isNull());
  const size_t again = car.recordMark();
  s.sim("phone on");
  Json::Value reread = car.waitForRequestSince(again, "EmbeddedPhone", "getEmergencyNumbers", kLong);
  Json::Value dial = car.waitForRequestSince(s.mark, "EmbeddedPhone", "ecallDial", kLong);
  ASSERT_FALSE(reread.isNull());
  ASSERT_FALSE(dial.isNull());
  EXPECT_LT(at(reread), at(dial)) << "the second report came too late to test anything";
  ASSERT_NO_FATAL_FAILURE(exitWhenActive(car, s.logMark));
  ASSERT_TRUE(waitForIdle(car, s.mark));

  EXPECT_SOON_EQ(car.ecallSignalTextsSince(s.mark), (Strings{buttonSignal("ecallDelay"), endedSignal(true), endedSignal(false)}));
  EXPECT_EQ(car.requestsSince(s.mark, "EmbeddedPhone", "ecallDial").size(), 1u);
  Strings log = logSince(car, s.logMark);
  EXPECT_EQ(std::count(log.begin(), log.end(),
                       "Handle Ecall caching status. curECallType: 1, curCallModeType: 2, curCallState CALL_STATE_IDLE"),
            1)
      << testing::PrintToString(log);
}

// An antenna fault becomes a system error only if it is still reported at
// the end of the antenna fault time, counted from its last report; a normal
// report clears it and the LED.
TEST(PhoneStatus, AntennaFaultBecomesASystemErrorOnlyIfItLasts) {
  Scene s(carOptions());
  E2eHarness& car = s.car;
  s.sim("set antenna fault");
  ASSERT_TRUE(car.waitForTrace("Embedded antenna fault, start system fault timer"));
  s.sim("set antenna normal");
  ASSERT_TRUE(car.waitForEmergencyLog("System error antenna fault CLEARED\n", kLong));
  // More than half the fault time passes between reports, so that a fault
  // time that was not stopped, or not started again by the next fault
  // report, would run out visibly early.
  s.sim("wait 6000");
  s.sim("set antenna fault");
  s.sim("wait 6000");
  const size_t lastFault = car.recordMark();
  s.sim("set antenna fault");
  Json::Value raised = car.waitForRecordSince(
      s.mark, [](const Json::Value& r) { return r["kind"].asString() == "ecall"; }, kLong);
  ASSERT_FALSE(raised.isNull());
  EXPECT_EQ(raised["data"].asString(), ecallSignalText(false, "systemError", false));
  Json::Value report = car.waitForRecordSince(
      lastFault, [](const Json::Value& r) { return isSignal(r, "EmbeddedPhone", "antennaStatus", "OPEN"); }, ms(0));
  ASSERT_FALSE(report.isNull());
  EXPECT_GE(at(raised) - at(report), atLeast(10000)) << "raised before the fault lasted the antenna fault time";
  ASSERT_TRUE(car.waitForEmergencyLog("System error handling set LED to 3\n"));
  EXPECT_TRUE(containsInOrder(logSince(car, s.logMark),
                              {"System error antenna fault CLEARED", "System error antenna fault OCCURRED",
                               "First System error message generated due to antenna fault, current SystemError = 64",
                               "send LED status 3", "System error handling set LED to 3"}))
      << testing::PrintToString(logSince(car, s.logMark));

  s.sim("set antenna normal");
  EXPECT_TRUE(testSupport::waitUntil(
      [&] { return ledMessagesSince(car, s.mark) == std::vector<std::vector<int>>{{1, 3}, {1, 0}}; }, kLong));
  Strings log = logSince(car, s.logMark);
  EXPECT_EQ(std::count(log.begin(), log.end(), "System error antenna fault CLEARED"), 2);
  EXPECT_SOON_EQ(car.ecallSignalTextsSince(s.mark).size(), 1u) << "the user is told of a system error once";
}

// The phone service leaves the bus. Back soon: a request made meanwhile is
// served once. Away longer than the phone-not-present time: the failure is
// told, the module is reset, and the phone's return clears it all.
TEST(PhoneStatus, PhoneServiceLeavingTheBusAndComingBack) {
  Scene s(carOptions());
  E2eHarness& car = s.car;
  s.sim("peer EmbeddedPhone gone");
  ASSERT_TRUE(car.waitForTrace("onEmbeddedPhoneOwnerChange to none, start Phone Not Present Timer"));
  ASSERT_EQ(car.call("startEcall"), kOk);
  ASSERT_FALSE(car.waitForRequestSince(s.mark, "HMIGateWay", "displayGlobalPopupByMsgId", kLong).isNull());
  s.sim("peer EmbeddedPhone back");
  ASSERT_FALSE(car.waitForRequestSince(s.mark, "EmbeddedPhone", "ecallDial", kLong).isNull());
  ASSERT_NO_FATAL_FAILURE(exitWhenActive(car, s.logMark));
  ASSERT_TRUE(waitForIdle(car, s.mark));
  // The waiting press is handed back with its type cleared for a moment, and
  // the delay request it sends may be taken before the type is recorded
  // again: the event and mode of its signal are not checked here.
  EXPECT_SOON_EQ(car.ecallSignalTextsSince(s.mark).size(), 3u);
  Strings signals = car.ecallSignalTextsSince(s.mark);
  ASSERT_EQ(signals.size(), 3u);
  EXPECT_EQ(Strings(signals.begin() + 1, signals.end()), (Strings{endedSignal(true), endedSignal(false)}));
  Json::Value served = car.waitForEcallSignalSince(s.mark, [](const Json::Value&) { return true; }, ms(0));
  EXPECT_TRUE(served["ecall"].asBool());
  EXPECT_TRUE(served["ecallModeActive"].asBool());
  EXPECT_EQ(served["phoneNumber"].asString(), "911");
  EXPECT_EQ(car.requestsSince(s.mark, "EmbeddedPhone", "ecallDial").size(), 1u);
  EXPECT_TRUE(containsInOrder(logSince(car, s.logMark), {"Get Embedded Phone Status: change from OFF to ON",
                                                         "System error embedded phone service not running CLEARED"}));
  EXPECT_SOON_EQ(ledMessagesSince(car, s.mark), (std::vector<std::vector<int>>{{1, 1}, {1, 0}, {1, 0}}));

  const size_t away = car.recordMark();
  const size_t awayLog = car.emergencyLogMessages().size();
  s.sim("peer EmbeddedPhone gone");
  Json::Value told = car.waitForRecordSince(away, [](const Json::Value& r) { return r["kind"].asString() == "ecall"; }, kLong);
  ASSERT_FALSE(told.isNull());
  EXPECT_EQ(told["data"].asString(), ecallSignalText(false, "systemError", false));
  Json::Value left = car.waitForRecordSince(
      away, [](const Json::Value& r) { return r["kind"].asString() == "peer" && r["state"].asString() == "gone"; }, ms(0));
  EXPECT_GE(at(told) - at(left), atLeast(30000)) << "the phone-not-present time";
  ASSERT_TRUE(car.waitForEmergencyLog(
      "Phone not present timer is off. Already requested V850 to reset Sierra Module. Start 5 min timer\n", kLong));
  EXPECT_TRUE(testSupport::fileExists(car.path("/tmp/resetSierraInprogress")));
  auto written = [&] {
    std::vector<std::vector<int>> messages;
    for (const auto& r : car.recordsSince(away, "channel")) {
      std::vector<int> bytes;
      for (const auto& b : r["bytes"]) bytes.push_back(b.asInt());
      messages.push_back(bytes);
    }
    return messages;
  };
  EXPECT_SOON_EQ(written(), (std::vector<std::vector<int>>{{1, 3}, {3}}));
  EXPECT_SOON_EQ(logSince(car, awayLog),
            (Strings{"System error embedded phone service not running OCCURRED",
                     "First System error message generated due to embedded phone service not running, current "
                     "SystemError = 4",
                     "send LED status 3", "System error handling set LED to 3", "Sent IPC message to V850 to reset Sierra 1th time",
                     "Phone not present timer is off. Already requested V850 to reset Sierra Module. Start 5 min timer"}));

  s.sim("peer EmbeddedPhone back");
  ASSERT_TRUE(testSupport::waitUntil(
      [&] { return ledMessagesSince(car, away) == std::vector<std::vector<int>>{{1, 3}, {1, 0}}; }, kLong));
  EXPECT_FALSE(testSupport::fileExists(car.path("/tmp/resetSierraInprogress")));
  EXPECT_TRUE(containsInOrder(logSince(car, awayLog),
                              {"Get Embedded Phone Status: change from OFF to ON",
                               "Got Phone Status: ON. Stop delay System Error popup timer. Roll back reset counter. System err 4",
                               "System error embedded phone service not running CLEARED", "send LED status 0"}))
      << testing::PrintToString(logSince(car, awayLog));
  EXPECT_SOON_EQ(car.ecallSignalTextsSince(away).size(), 1u);
}
