// The emergency call end to end; durations are lower bounds on the car's clock.
#include "carScene.h"

using namespace carScene;
using testSupport::requestTexts;

namespace {

// For tests whose next step must come within the 10 s delay before the dial.
constexpr double kSlowScale = 0.1;

// Call states two seconds apart leave the machine time to take each one.
E2eOptions callCar(Strings commands = {}, double scale = kScale) {
  Strings all = {"set brand 9", "set gps 12345678 -98765432", "set pace 2000"};
  all.insert(all.end(), commands.begin(), commands.end());
  return carOptions(scale, all);
}

const std::string kInitiate = "PMSG: Starting 9-1-1 call. To cancel press the 9-1-1 button on the mirror.";
const std::string kEnded = "PMSG: 9-1-1 call ended. To reconnect, press the 9-1-1 button on the mirror.";
const std::string kIncoming = "PMSG: Incoming call.";
const std::string kPosition = "Latitude... 12.34567. Longitude... -98.76543. ";
const std::string kPsap1 = "ECALL: Emergency call from a Vetta vehicle: " + kOperatorKeys;
const std::string kPsap2 = "ECALL: Emergency call from a Vetta vehicle: " + kPosition + kOperatorKeys;
const std::string kGps = "ECALL: " + kPosition;
const std::string kCallback =
    ecallSignalText(true, "emergency_callback", true, "911", "Emergency_Callback", "Emergency Callback");

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
const std::string kAbortAnnouncement = request("ttsAbort", "{\"readoutType\":\"ECALL\"}");
const std::vector<Bytes> kLedOnOff = {{1, 1}, {1, 0}, {1, 0}};

// The first record's time since the mark (or -1): times, not places, give the order.
double timeOf(Scene& s, const std::function<bool(const Json::Value&)>& pred) {
  for (const auto& r : s.car.recordsSince(s.mark))
    if (pred(r)) return at(r);
  return -1;
}
bool isPromptEnd(const Json::Value& r) { return isSignal(r, "TextToSpeechService", "ttsPlayState", "notPlaying"); }
// Stamped on receipt: a waited time may end at an "ecall" signal, never begin.
Json::Value signalRecord(Scene& s, const std::string& text) {
  return s.waitForRecord([&](const Json::Value& r) { return r["kind"] == "ecall" && r["data"] == text; }, ms(0));
}
// What a waited time begins at: a call state, or the number read before the delay.
Json::Value phoneReport(Scene& s, const std::string& state) {
  return s.waitForRecord([&](const Json::Value& r) { return isSignal(r, "EmbeddedPhone", "callState", state); });
}
Json::Value numberRead(Scene& s) { return s.car.waitForRequestSince(s.mark, "EmbeddedPhone", "getEmergencyNumbers"); }
bool waitForSpoken(Scene& s, const std::string& spoken) {
  return !s.waitForRecord([&](const Json::Value& r) { return isReadout(r, spoken); }).isNull();
}
Strings logShape(Scene& s) {
  Strings log = s.log();
  for (std::string& line : log)
    if (line.rfind("Call timings", 0) == 0) line = "Call timings";
  return log;
}
// The index-th readout was aborted after it.
bool abortedAfter(Scene& s, size_t index, const std::string& abort) {
  const Strings readouts = s.requests("TextToSpeechService", "ttsReadout");
  return readouts.size() > index && containsInOrder(s.requests("TextToSpeechService"), {readouts[index], abort});
}

}  // namespace

// Delay, dial, announcements, the centre's hang-up, call-back period, all given back.
TEST(EmergencyCall, StartEcallRunsTheWholeCallAndGivesEverythingBack) {
  Scene s(callCar());
  ASSERT_NO_FATAL_FAILURE(s.startCallUntilActive());
  EXPECT_TRUE(testSupport::fileExists(s.car.path("/tmp/embeddedCallActive")));
  EXPECT_EQ(s.car.call("IsECallModeActive"), "{\"eCallModeActive\":true}\n");
  EXPECT_EQ(s.car.call("IsECallInProgess"), "{\"ecallInProgress\":true}\n");

  ASSERT_TRUE(s.hangUpOnceHeard());

  EXPECT_SOON_EQ(s.signals(), (Strings{buttonSignal("ecallDelay"), endedSignal(true), endedSignal(false)}));
  EXPECT_SOON_EQ(s.requests("EmbeddedPhone"),
                 (Strings{request("getEmergencyNumbers", "{\"maxCount\":10}"), request("endActiveCall"), kDial,
                          request("debugAT", "{\"atString\":\"at+wsos=0\\r\"}")}));
  EXPECT_SOON_EQ(s.spoken(), (Strings{kInitiate, kDialing, kPsap1, kPsap2, kEnded}));
  EXPECT_SOON_EQ(s.requests("AudioMixerManager"),
                 (Strings{kClaimAudio, kClaimAudio, phoneMute(true), phoneMute(false), phoneMute(false), kReleaseAudio}));
  EXPECT_SOON_EQ(s.requests("AudioCtrlSvc"),
                 (Strings{mic("OFF", "mic1_mux1"), mic("OFF", "mic2_mux1"), mic("MIC1", "mic1_mux1"),
                          mic("MIC2", "mic2_mux1"), mic("MIC1", "mic1_mux1"), mic("MIC2", "mic2_mux1")}));
  EXPECT_SOON_EQ(s.car.ecallSignalTextsSince(s.mark, "ecallProgress"),
                 (Strings{"{\"progress\":55936}\n", "{\"progress\":55915}\n", "{\"progress\":55915}\n"}));
  EXPECT_SOON_EQ(s.led(), kLedOnOff);
  EXPECT_SOON_EQ(logShape(s),
                 (Strings{"Speaker TTS language English", "Vehicle brand Vetta",
                          // The number read clears its failure, failed or not.
                          "System error no ecall number programmed CLEARED", "Ecall delay 10 before calling",
                          "send LED status 1", "Request mute mic inputs", "TTS rqst 1", "TTS rqst 7", "Calling 911",
                          kCallActive, "TTS rqst 8", "TTS rqst 9", "Request unmute mic inputs", "Call ended",
                          "send LED status 0", "TTS rqst 3", "Call timings", "Request unmute mic inputs",
                          "send LED status 0", "End emergency mode"}));

  Json::Value dial = s.waitForRecord([](const Json::Value& r) { return isRequest(r, "EmbeddedPhone", kDial); }, ms(0));
  Json::Value firstPsap = s.waitForRecord([](const Json::Value& r) { return isReadout(r, kPsap1); }, ms(0));
  EXPECT_GE(at(dial) - at(numberRead(s)), atLeast(10000)) << "the delay before the dial";
  EXPECT_GE(at(firstPsap) - at(phoneReport(s, "ACTIVE")), atLeast(6000)) << "the wait before the announcement";
  EXPECT_GE(at(signalRecord(s, endedSignal(false))) - at(phoneReport(s, "TERMINATED")), atLeast(30000))
      << "the callback period";
  // The phone source is unmuted only after the second announcement ended.
  const double secondPsap = timeOf(s, [](const Json::Value& r) { return isReadout(r, kPsap2); });
  const double unmuted =
      timeOf(s, [](const Json::Value& r) { return isRequest(r, "AudioMixerManager", phoneMute(false)); });
  ASSERT_GE(secondPsap, 0);
  bool endedBefore = false;
  for (const auto& r : s.car.recordsSince(s.mark))
    endedBefore = endedBefore || (isPromptEnd(r) && at(r) > secondPsap && at(r) < unmuted);
  EXPECT_TRUE(endedBefore) << "microphones opened before the announcement ended";

  EXPECT_FALSE(testSupport::fileExists(s.car.path("/tmp/embeddedCallActive")));
  EXPECT_EQ(s.car.call("IsECallModeActive"), "{\"eCallModeActive\":false}\n");
  EXPECT_EQ(s.car.call("IsECallInProgess"), "{\"ecallInProgress\":false}\n");
}

// A press during the delay cancels: no dial, the prompt stops, no later redial.
// A dial the bus refuses (phone service away) is reported and retried later.
TEST(EmergencyCall, SecondStartDuringTheDelayCancelsAndARefusedDialIsRetried) {
  Scene s(callCar({}, kSlowScale));
  ASSERT_EQ(s.car.call("startEcall"), kOk);
  ASSERT_TRUE(s.waitForSignalType("ecallDelay"));
  s.button("ecall", true);
  ASSERT_TRUE(s.waitForIdle());

  EXPECT_SOON_EQ(s.signals(), (Strings{buttonSignal("ecallDelay"), endedSignal(true), endedSignal(false)}));
  EXPECT_TRUE(s.requests("EmbeddedPhone", "ecallDial").empty());
  EXPECT_EQ(s.spoken(), (Strings{kInitiate, kEnded}));
  // Unless the first prompt had ended by itself, it was stopped.
  const double cancelled = timeOf(s, [](const Json::Value& r) { return r["data"] == endedSignal(true); });
  const double endedAlone = timeOf(s, isPromptEnd);
  if (endedAlone < 0 || endedAlone > cancelled) {
    EXPECT_TRUE(abortedAfter(s, 0, request("ttsAbort", "{\"readoutType\":\"PMSG\"}")));
  }
  EXPECT_TRUE(s.logInOrder({"Ecall delay 10 before calling", "TTS rqst 1", "User cancelled mode during Ecall delay",
                            "send LED status 0", "TTS rqst 3", "End emergency mode"}));
  EXPECT_EQ(s.countInLog("ecallBtn = 1"), 1u);
  EXPECT_EQ(s.countInLog("Ecall delay 10 before calling"), 1u);
  EXPECT_SOON_EQ(s.led(), kLedOnOff);

  s.markNow();
  ASSERT_EQ(s.car.call("startEcall"), kOk);
  ASSERT_TRUE(s.waitForEmergency());
  s.sim("peer EmbeddedPhone gone");
  ASSERT_TRUE(s.waitForSignalType("failed"));
  EXPECT_SOON_EQ(s.signals(), (Strings{buttonSignal("ecallDelay"), buttonSignal("failed")}));
  EXPECT_TRUE(s.car.waitForEmergencyLog("Error dial PSAP number failed\n"));
  EXPECT_TRUE(s.car.waitForSlog("Failed to dial emergency number, rc 0x"));
  EXPECT_TRUE(s.car.waitForTrace("Failed dial emergency number, rc -"));

  s.sim("peer EmbeddedPhone back");
  Json::Value redial = s.car.waitForRequestSince(s.mark, "EmbeddedPhone", "ecallDial", kLong);
  ASSERT_FALSE(redial.isNull());
  EXPECT_EQ(requestTexts({redial}), Strings{kDial});
  EXPECT_GE(at(redial) - at(numberRead(s)), atLeast(10000 + 60000, kSlowScale)) << "the delay, then the retry period";
  EXPECT_TRUE(s.car.waitForEmergencyLog(kCallActive, kLong));
  EXPECT_EQ(s.requests("EmbeddedPhone", "ecallDial").size(), 1u);
}

// Unanswered: a time-out; the end, reported twice, is redialled once.
TEST(EmergencyCall, UnansweredCallTimesOutAndIsRedialledAfterItEnds) {
  Scene s(callCar({"set answer manual"}));
  ASSERT_EQ(s.car.call("startEcall"), kOk);
  ASSERT_TRUE(s.waitForSignalType("failed"));
  EXPECT_TRUE(s.car.waitForTrace("PSAP ecall timeout, sending failed so retry strategy can kick in"));
  EXPECT_EQ(s.requests("EmbeddedPhone", "ecallDial").size(), 1u);

  s.sim("set answer auto");
  s.sim("wend 3");
  s.sim("psap hangup");
  ASSERT_TRUE(s.car.waitForEmergencyLog(kCallActive, kLong));
  std::vector<Json::Value> dials = s.car.requestsSince(s.mark, "EmbeddedPhone", "ecallDial");
  ASSERT_EQ(dials.size(), 2u) << "the two ends of one call were redialled twice";
  EXPECT_GE(at(dials[1]) - at(phoneReport(s, "TERMINATED")), atLeast(60000)) << "the retry period";
  EXPECT_SOON_EQ(s.signals(), (Strings{buttonSignal("ecallDelay"), buttonSignal("failed"), buttonSignal("failed")}));
  EXPECT_TRUE(s.logInOrder({"Calling 911", "Error Call Failed", "Calling 911"}));
}

// Key 0 stops the announcement, key 1 reads the position, keys outside the
// mode do nothing; end reason 17 ends the call (nothing to hang up), 16 not.
TEST(EmergencyCall, OperatorKeysStopTheAnnouncementAndEndReasonSeventeenEndsTheCall) {
  Scene s(callCar());
  s.sim("dtmf 1");
  ASSERT_TRUE(s.car.waitForTrace("dtmf detected: 1"));
  ASSERT_NO_FATAL_FAILURE(s.startCallUntilActive());
  ASSERT_TRUE(waitForSpoken(s, kPsap2));
  s.sim("dtmf 0");
  ASSERT_TRUE(s.car.waitForEmergencyLog("Rx DTMF: 0\n", kLong));
  ASSERT_TRUE(s.hangUpOnceHeard());

  EXPECT_EQ(s.spoken(), (Strings{kInitiate, kDialing, kPsap1, kPsap2, kEnded}));
  EXPECT_TRUE(abortedAfter(s, 3, kAbortAnnouncement));
  EXPECT_EQ(s.countInLog("Rx DTMF: 1"), 0u) << "a key outside the emergency mode was taken";
  EXPECT_EQ(s.countInLog("Rx DTMF: 0"), 1u);
  EXPECT_EQ(s.countInLog("Request unmute mic inputs"), 2u) << testing::PrintToString(s.log());

  s.markNow();
  ASSERT_NO_FATAL_FAILURE(s.startCallUntilActive());
  ASSERT_TRUE(waitForSpoken(s, kPsap1));
  s.sim("dtmf 1");
  ASSERT_TRUE(waitForSpoken(s, kGps));
  ASSERT_FALSE(s.waitForRecord(isMicrophoneOpened).isNull());
  EXPECT_TRUE(abortedAfter(s, 2, kAbortAnnouncement)) << testing::PrintToString(s.requests("TextToSpeechService"));
  EXPECT_TRUE(s.logInOrder(
      {"TTS rqst 8", "Rx DTMF: 1", "Request unmute mic inputs", "TTS rqst 12", "GPS only TTS: " + kPosition}));
  s.sim("wend 16");
  ASSERT_TRUE(s.car.waitForTrace("wendReason service number = 16"));
  EXPECT_EQ(s.car.call("IsECallModeActive"), "{\"eCallModeActive\":true}\n");
  EXPECT_SOON_EQ(s.signals(), Strings{buttonSignal("ecallDelay")});

  s.sim("wend 17");
  ASSERT_TRUE(s.waitForIdle());
  EXPECT_TRUE(s.car.waitForTrace("Ecall mode CALL END due to wend service number = 17"));
  EXPECT_SOON_EQ(s.signals(), (Strings{buttonSignal("ecallDelay"), endedSignal(true), endedSignal(false)}));
  EXPECT_TRUE(s.logInOrder({"Call ended", "TTS rqst 3", "End emergency mode"}));
  std::string lastState;
  for (const auto& r : s.car.recordsSince(s.mark, "signal"))
    if (isSignal(r, "EmbeddedPhone", "callState")) lastState = r["data"].asString();
  EXPECT_NE(lastState.find("CALL_STATE_ACTIVE"), std::string::npos) << lastState;
  EXPECT_SOON_EQ(s.requests("EmbeddedPhone", "endActiveCall"), Strings{request("endActiveCall")})
      << "only the hang-up before the dial";
  EXPECT_SOON_EQ(s.spoken(), (Strings{kInitiate, kDialing, kPsap1, kGps, kEnded}));
}

// A call back is rung, announced and answered; one while idle may give up.
TEST(EmergencyCallback, AnsweredInTheCallbackPeriodAndGivenUpWhenItComesWhileIdle) {
  Scene s(callCar());
  ASSERT_NO_FATAL_FAILURE(s.startCallUntilActive());
  ASSERT_FALSE(s.waitForRecord(isMicrophoneOpened).isNull());
  s.sim("psap hangup");
  ASSERT_FALSE(s.waitForSignal([](const Json::Value& sig) { return !sig["ecall"].asBool(); }).isNull());
  ASSERT_TRUE(waitForSpoken(s, kEnded));
  s.markNow();
  s.sim("psap callback");
  ASSERT_TRUE(s.car.waitForEmergencyLog("Incoming Call - Active\n", kLong));
  EXPECT_SOON_EQ(s.signals(), Strings{kCallback});
  s.sim("psap hangup");
  ASSERT_TRUE(s.waitForIdle());

  EXPECT_SOON_EQ(s.requests("psseControlService"),
                 (Strings{request("getSHF_Scenario", "{\"source\":\"ecall\"}"),
                          request("setSHF_Scenario", "{\"mode\":\"START\",\"scenario\":\"Embedded_255_1\"}"),
                          request("getSHF_Scenario", "{\"source\":\"ecall\"}"),
                          request("setSHF_Scenario", "{\"mode\":\"STOP\",\"scenario\":\"Embedded_255_1\"}")}));
  // The ring one step under the prompt volume, then back to the phone volume.
  EXPECT_SOON_EQ(s.requests("AudioMixerManager", "adjustVolume"),
                 (Strings{request("adjustVolume", "{\"source\":\"PHONE\",\"step\":11,\"user\":\"driver\"}"),
                          request("adjustVolume", "{\"source\":\"PHONE\",\"step\":18,\"user\":\"driver\"}")}));
  EXPECT_SOON_EQ(s.spoken(), (Strings{kIncoming, kEnded}));
  std::vector<Json::Value> accepted = s.car.requestsSince(s.mark, "EmbeddedPhone", "acceptIncomingCall");
  ASSERT_EQ(accepted.size(), 1u);
  std::vector<Json::Value> scenario = s.car.requestsSince(s.mark, "psseControlService", "setSHF_Scenario");
  ASSERT_EQ(scenario.size(), 2u);
  EXPECT_GE(at(scenario[1]) - at(scenario[0]), atLeast(8000)) << "the ring time";
  Json::Value prompt = s.waitForRecord([](const Json::Value& r) { return isReadout(r, kIncoming); }, ms(0));
  EXPECT_LT(at(prompt), at(accepted[0])) << "answered before the prompt";

  // The caller's number is logged on the bus thread, in any order with the
  // state machine's answer.
  const std::string caller = "Incoming Call from number 911";
  Strings log = logShape(s);
  EXPECT_EQ(s.countInLog(caller), 1u);
  EXPECT_TRUE(containsInOrder(log, {"TTS rqst 2", caller}));
  log.erase(std::remove(log.begin(), log.end(), caller), log.end());
  EXPECT_EQ(log, (Strings{"Incoming call during wait for exit emergency mode", "Incoming Call - opening audio for 2 rings",
                          "Incoming Call - close audio and play TTS", "TTS rqst 2",
                          "Incoming Call - answer phone cmd sent to embedded phone", "Incoming Call - Active",
                          "Call ended", "send LED status 0", "TTS rqst 3", "Call timings",
                          "Request unmute mic inputs", "send LED status 0", "End emergency mode"}));
  EXPECT_SOON_EQ(s.signals(), (Strings{kCallback, endedSignal(true), endedSignal(false)}));
  EXPECT_SOON_EQ(s.requests("AudioCtrlSvc"), (Strings{mic("MIC1", "mic1_mux1"), mic("MIC2", "mic2_mux1")}));

  s.markNow();
  s.sim("psap callback 5551234");
  ASSERT_TRUE(s.waitForLogCount("Incoming Call - opening audio for 2 rings", 1));
  EXPECT_EQ(s.car.call("IsECallModeActive"), "{\"eCallModeActive\":true}\n");
  s.sim("psap hangup");
  ASSERT_TRUE(s.waitForIdle());

  EXPECT_SOON_EQ(s.signals(), (Strings{kCallback, endedSignal(true), endedSignal(false)}));
  EXPECT_TRUE(s.requests("EmbeddedPhone", "acceptIncomingCall").empty());
  EXPECT_SOON_EQ(s.spoken(), Strings{kEnded});
  EXPECT_SOON_EQ(s.requests("AudioCtrlSvc"), (Strings{mic("MIC1", "mic1_mux1"), mic("MIC2", "mic2_mux1"),
                                                      mic("MIC1", "mic1_mux1"), mic("MIC2", "mic2_mux1")}));
  EXPECT_SOON_EQ(logShape(s),
                 (Strings{"send LED status 1", "Speaker TTS language English", "Vehicle brand Vetta",
                          "Request unmute mic inputs", "Incoming Call", "Incoming Call - opening audio for 2 rings",
                          "Incoming Call - PSAP ended call before it was answered", "send LED status 0", "TTS rqst 3",
                          "Call timings", "Request unmute mic inputs", "send LED status 0", "End emergency mode"}));
  EXPECT_FALSE(testSupport::fileExists(s.car.path("/tmp/embeddedCallActive")));
}

// A request while the phone is OFF is served once on ON (a second ON is no
// press); ended from the head unit it is hung up; a crash after a press wins.
TEST(PhoneStatus, RequestWhileThePhoneIsOffIsServedOnceWhenItComesOn) {
  Scene s(callCar({}, kSlowScale));
  s.sim("phone off");
  ASSERT_TRUE(s.car.waitForTrace("Get Embedded Phone Status: OFF, start Phone not present timer"));
  ASSERT_EQ(s.car.call("startEcall"), kOk);
  ASSERT_TRUE(s.waitForRequest("HMIGateWay", "displayGlobalPopupByMsgId"));
  EXPECT_EQ(s.requests("HMIGateWay", "displayGlobalPopupByMsgId").front(),
            request("displayGlobalPopupByMsgId", "{\"msgId\":2672,\"showonDisplayoff\":true,\"timeout\":5000}"));
  EXPECT_TRUE(s.car.waitForEmergencyLog(
      "ECall Button pressed but embedded Phone is OFF. Request HMI to display please wait popup. System error: 0\n"));
  EXPECT_TRUE(s.signals().empty());
  EXPECT_EQ(s.car.call("IsECallModeActive"), "{\"eCallModeActive\":false}\n");

  s.sim("phone on");
  ASSERT_TRUE(s.waitForEmergency());
  const size_t again = s.car.recordMark();
  s.sim("phone on");
  Json::Value reread = s.car.waitForRequestSince(again, "EmbeddedPhone", "getEmergencyNumbers", kLong);
  Json::Value dial = s.car.waitForRequestSince(s.mark, "EmbeddedPhone", "ecallDial", kLong);
  ASSERT_FALSE(reread.isNull());
  ASSERT_FALSE(dial.isNull());
  EXPECT_LT(at(reread), at(dial)) << "the second report came too late to test anything";
  ASSERT_NO_FATAL_FAILURE(s.exitWhenActive());
  ASSERT_TRUE(s.waitForIdle());
  // Ended from the head unit, the call is hung up at once, not after the callback period.
  const double hungUp = timeOf(s, [&](const Json::Value& r) {
    return isRequest(r, "EmbeddedPhone", request("endActiveCall")) && at(r) > at(dial);
  });
  ASSERT_GT(hungUp, 0) << "the call ended from the head unit was not hung up";
  EXPECT_GE(at(signalRecord(s, endedSignal(false))) - hungUp, atLeast(30000, kSlowScale));

  EXPECT_SOON_EQ(s.signals(), (Strings{buttonSignal("ecallDelay"), endedSignal(true), endedSignal(false)}));
  EXPECT_EQ(s.requests("EmbeddedPhone", "ecallDial").size(), 1u);
  const std::string caching = "Handle Ecall caching status. curECallType: ";
  EXPECT_EQ(s.countInLog(caching + "1, curCallModeType: 2, curCallState CALL_STATE_IDLE"), 1u)
      << testing::PrintToString(s.log());

  s.markNow();
  s.simUntilTraced("phone off", "embedded phone status signal: change from ON to OFF");
  const std::string pressRecorded = "Emergency happened. type 1. mode";
  const size_t pressed = s.countInTrace(pressRecorded);
  ASSERT_EQ(s.car.call("startEcall"), kOk);
  ASSERT_TRUE(testSupport::waitUntil([&] { return s.countInTrace(pressRecorded) > pressed; }, kLong));
  s.simUntilTraced("crash B can", "Emergency happened. type 3. mode");
  s.sim("phone on");
  s.sim("phone on");
  ASSERT_TRUE(s.waitForLogCount(kCallActive, 1));
  EXPECT_TRUE(s.waitForSignalType("acn")) << "the crash after the press was swallowed";
  EXPECT_EQ(s.requests("EmbeddedPhone", "ecallDial").size(), 1u);
  EXPECT_EQ(s.countInLog(caching + "3, curCallModeType: 1, curCallState CALL_STATE_IDLE"), 1u)
      << testing::PrintToString(s.log());
}

// An antenna fault is a system error once it lasted; a normal report clears it.
TEST(PhoneStatus, AntennaFaultBecomesASystemErrorOnlyIfItLasts) {
  Scene s(callCar());
  s.sim("set antenna fault");
  ASSERT_TRUE(s.car.waitForTrace("Embedded antenna fault, start system fault timer"));
  s.sim("set antenna normal");
  ASSERT_TRUE(s.car.waitForEmergencyLog("System error antenna fault CLEARED\n", kLong));
  // Reports 6 s apart: a fault time not stopped or not restarted runs out early.
  s.sim("wait 6000");
  s.sim("set antenna fault");
  s.sim("wait 6000");
  const size_t lastFault = s.car.recordMark();
  s.sim("set antenna fault");
  Json::Value raised = s.waitForRecord([](const Json::Value& r) { return r["kind"].asString() == "ecall"; });
  ASSERT_FALSE(raised.isNull());
  EXPECT_EQ(raised["data"].asString(), systemErrorSignal());
  Json::Value report = s.car.waitForRecordSince(
      lastFault, [](const Json::Value& r) { return isSignal(r, "EmbeddedPhone", "antennaStatus", "OPEN"); }, ms(0));
  ASSERT_FALSE(report.isNull());
  EXPECT_GE(at(raised) - at(report), atLeast(10000)) << "raised before the fault lasted the antenna fault time";
  ASSERT_TRUE(s.car.waitForEmergencyLog("System error handling set LED to 3\n"));
  EXPECT_TRUE(s.logInOrder({"System error antenna fault CLEARED", "System error antenna fault OCCURRED",
                            "First System error message generated due to antenna fault, current SystemError = 64",
                            "send LED status 3", "System error handling set LED to 3"}));

  s.sim("set antenna normal");
  EXPECT_TRUE(s.waitForLed({{1, 3}, {1, 0}}));
  EXPECT_EQ(s.countInLog("System error antenna fault CLEARED"), 2u);
  EXPECT_SOON_EQ(s.signals().size(), 1u) << "the user is told of a system error once";
}

// The phone service away during a call does not end it; away longer, a system
// error and a module reset, which its return clears.
TEST(PhoneStatus, PhoneServiceLeavingTheBusAndComingBack) {
  Scene s(callCar());
  ASSERT_NO_FATAL_FAILURE(s.startCallUntilActive());
  s.sim("peer EmbeddedPhone gone");
  ASSERT_TRUE(s.car.waitForTrace("embeddedPhone owner changed, avail 0", kLong));
  s.sim("peer EmbeddedPhone back");
  ASSERT_TRUE(s.car.waitForTrace("embeddedPhone owner changed, avail 1", kLong));
  EXPECT_EQ(s.car.call("IsECallInProgess"), "{\"ecallInProgress\":true}\n");
  s.sim("psap hangup");
  ASSERT_TRUE(s.waitForIdle());
  EXPECT_TRUE(s.waitForLogCount("TTS rqst 3", 1)) << "the end of the call was not announced";
  ASSERT_TRUE(s.waitForLed(kLedOnOff));

  s.markNow();
  s.sim("peer EmbeddedPhone gone");
  Json::Value told = s.waitForRecord([](const Json::Value& r) { return r["kind"].asString() == "ecall"; });
  ASSERT_FALSE(told.isNull());
  EXPECT_EQ(told["data"].asString(), systemErrorSignal());
  Json::Value left = s.waitForRecord(
      [](const Json::Value& r) { return r["kind"].asString() == "peer" && r["state"].asString() == "gone"; }, ms(0));
  EXPECT_GE(at(told) - at(left), atLeast(30000)) << "the phone-not-present time";
  ASSERT_TRUE(s.waitForChannel({{1, 3}, {3}})) << testing::PrintToString(s.channel());
  EXPECT_TRUE(s.logInOrder({"System error embedded phone service not running OCCURRED",
                            "First System error message generated due to embedded phone service not running, current "
                            "SystemError = 4",
                            "Sent IPC message to V850 to reset Sierra 1th time"}));

  s.sim("peer EmbeddedPhone back");
  ASSERT_TRUE(s.waitForLed({{1, 3}, {1, 0}}));
  EXPECT_FALSE(testSupport::fileExists(s.car.path("/tmp/resetSierraInprogress")));
  ASSERT_TRUE(s.waitForLogCount("send LED status 0", 1));
  EXPECT_TRUE(s.logInOrder({"Got Phone Status: ON. Stop delay System Error popup timer. Roll back reset counter. "
                            "System err 4",
                            "System error embedded phone service not running CLEARED", "send LED status 0"}));
  EXPECT_SOON_EQ(s.signals().size(), 1u);
  expectStartEcallDials(s.car);
}
