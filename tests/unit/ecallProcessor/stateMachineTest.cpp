// The main state machine driven through whole emergencies: real thread, real
// timers on a short time scale, the fake bus as the rest of the car.
#include "smFixture.h"

namespace smTest {
namespace {

using StateMachineTest = StateMachineFixture;

// A button call from the request to the end of the emergency mode; what the
// car saw is checked in order: signals, requests, log entries.
TEST_F(StateMachineTest, ButtonRequestRunsTheWholeCall) {
  ASSERT_NO_FATAL_FAILURE(startService());
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  ASSERT_TRUE(fakeBus::waitForRequests(EMBEDDED_PHONE_SERVICE, "ecallDial", 1));
  EXPECT_TRUE(testSupport::fileExists(root.path("/tmp/embeddedCallActive")));

  callState("CALL_STATE_DIALING");
  ASSERT_TRUE(log.waitForTrace("callstate alerting. wait to connect"));
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ECALL);  // no longer cancellable
  callState("CALL_STATE_ALERTING");
  callState("CALL_STATE_ACTIVE");
  ASSERT_TRUE(waitForLog("Call Active.  Delay 6000 ms for PSAP TTS"));

  // The dialling prompt ends; 6 s after the answer the centre hears its two
  // prompts, one after the other; then the microphones open again.
  promptFinished();
  ASSERT_TRUE(waitForLog("TTS rqst 8"));
  EXPECT_EQ(logCount("TTS rqst 9"), 0u);
  promptFinished();
  ASSERT_TRUE(waitForLog("TTS rqst 9"));
  promptFinished();
  ASSERT_TRUE(waitForLog("Request unmute mic inputs"));

  callState("CALL_STATE_TERMINATED");  // the centre hangs up
  ASSERT_TRUE(waitForIdle());
  EXPECT_FALSE(testSupport::fileExists(root.path("/tmp/embeddedCallActive")));

  EXPECT_EQ(ecallSignalSummary(), (std::vector<std::string>{"true:ecallDelay", "false:none", "false:none"}));
  EXPECT_EQ(ecallSignals()[0]["phoneNumber"], "911");
  EXPECT_TRUE(ecallSignals()[1]["ecallModeActive"].asBool());  // the callback period runs
  EXPECT_FALSE(ecallSignals()[2]["ecallModeActive"].asBool());
  EXPECT_TRUE(inOrder(requestLog(), {
      "getEmergencyNumbers", "requestInformationSource", "stopApp", "switchBluetoothOff", "endActiveCall ",
      "requestInformationSource", "setMux {\"gain\":0,\"input\":\"OFF\",\"name\":\"mic1_mux1\"}", "ttsReadout",
      "ecallDial {\"address\":\"911\",\"callType\":\"MVA\",\"vehicleType\":\"Corvane\"}\n",
      "setMux {\"gain\":0,\"input\":\"MIC1\"", "setBluetoothStatus {\"enable\":true}",
      "debugAT {\"atString\":\"at+wsos=0\\r\"}\n", "setMux {\"gain\":0,\"input\":\"MIC1\"",
      "releaseInformationSource {\"source\":\"ecall\"}"}));
  EXPECT_EQ(requestCount("endActiveCall"), 1u);  // the phone was idle again at the end
  EXPECT_TRUE(inOrder(logEntries(), {
      "Ecall delay 10 before calling", "send LED status 1", "TTS rqst 1", "TTS rqst 7", "Calling 911",
      "Call Active.  Delay 6000 ms for PSAP TTS", "TTS rqst 8", "TTS rqst 9", "Request unmute mic inputs", "Call ended",
      "send LED status 0", "TTS rqst 3", "Request unmute mic inputs", "send LED status 0", "End emergency mode"}));
}

// A second press during the delay is the user's cancel; the callback period
// follows, and a press in it is dialled at once, without leaving the
// emergency mode.
TEST_F(StateMachineTest, SecondPressCancelsTheDelayAndAThirdRedials) {
  platform::setTimeScale(0.05);  // 500 ms delay, 1.5 s callback period: room for the presses
  ASSERT_NO_FATAL_FAILURE(startService());
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  ASSERT_TRUE(waitForLog("Ecall delay 10 before calling"));
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  ASSERT_TRUE(waitForLog("User cancelled mode during Ecall delay"));
  ASSERT_TRUE(waitForLog("TTS rqst 3"));
  ASSERT_NO_FATAL_FAILURE(waitUntilMachineCaughtUp());  // a stray run pulse does not cut the period short
  EXPECT_EQ(logCount("End emergency mode"), 0u);
  EXPECT_EQ(requestCount("ecallDial"), 0u);

  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  ASSERT_TRUE(fakeBus::waitForRequests(EMBEDDED_PHONE_SERVICE, "ecallDial", 1));
  EXPECT_EQ(logCount("ecall/acr happened during wait for exit emergency mode"), 1u);
  ecallHandler.clearECallEvent();
  ASSERT_TRUE(waitForIdle());
  EXPECT_EQ(logCount("End emergency mode"), 1u);
  EXPECT_EQ(ecallSignalSummary(), (std::vector<std::string>{"true:ecallDelay", "false:none", "true:redial_during_end",
                                                            "false:none", "false:none"}));
}

// A dial the phone service refuses is reported failed and retried after the
// retry period (by the run pulse, although a dial was made already).
TEST_F(StateMachineTest, RefusedDialIsRetriedAfterTheRetryPeriod) {
  reply(EMBEDDED_PHONE_SERVICE, "ecallDial", kRefused);
  ASSERT_NO_FATAL_FAILURE(startService());
  ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_A);
  ASSERT_TRUE(fakeBus::waitForRequests(EMBEDDED_PHONE_SERVICE, "ecallDial", 2));
  EXPECT_TRUE(log.hasTrace("Failed dial emergency number, rc -"));
  EXPECT_TRUE(log.hasSlog("Failed to dial emergency number, rc 0x90000006"));
  ecallHandler.clearECallEvent();  // the user gives up
  ASSERT_TRUE(waitForIdle());

  EXPECT_TRUE(inOrder(ecallSignalSummary(), {"true:acn", "true:failed", "true:failed", "false:none"}));
  EXPECT_TRUE(inOrder(logEntries(), {"ACR triggered on CAN - Front pretensioner event", "Calling 911",
                                     "Error dial PSAP number failed", "Calling 911", "Error dial PSAP number failed"}));
}

// Dials that never connect: the phone stays idle until the connect time-out
// (failed; the next call-ended pulse dials again), then a call ends before
// it is active (failed, redialled after the retry period, logged once).
TEST_F(StateMachineTest, UnansweredDialsAreRetried) {
  ASSERT_NO_FATAL_FAILURE(startService());
  ecallHandler.emergencyHappened(ecallMain::SERIAL_IMPACT_X);
  ASSERT_TRUE(waitForLog("Error: Call state did not transition after successful dial request"));
  ASSERT_TRUE(fakeBus::waitForEmitted("ecall", 2));
  EXPECT_EQ(ecallSignalSummary(), (std::vector<std::string>{"true:acn", "true:failed"}));
  signal(EMBEDDED_PHONE_PATH, "wendReason", R"({"serviceNumber":17})");
  ASSERT_TRUE(fakeBus::waitForRequests(EMBEDDED_PHONE_SERVICE, "ecallDial", 2));

  for (size_t failures = 1; failures <= 2; ++failures) {
    callState("CALL_STATE_DIALING");
    ASSERT_TRUE(testSupport::waitUntil([&] { return log.countTrace("callstate alerting. wait to connect") >= failures; }));
    callState("CALL_STATE_TERMINATED");
    ASSERT_TRUE(fakeBus::waitForRequests(EMBEDDED_PHONE_SERVICE, "ecallDial", 2 + failures));
  }
  EXPECT_EQ(logCount("Error Call Failed"), 1u);
  ecallHandler.clearECallEvent();
  ASSERT_TRUE(waitForIdle());
  EXPECT_TRUE(inOrder(ecallSignalSummary(), {"true:failed", "true:failed", "true:failed", "false:none"}));
}

// Without an emergency number nothing is dialled; the failure source is
// raised once per loss of the number, a system error already told is told
// again, and while the failure is up a button's delay request is ignored.
TEST_F(StateMachineTest, MissingEmergencyNumberRaisesTheFailureOnce) {
  reply(EMBEDDED_PHONE_SERVICE, "getEmergencyNumbers", 0, R"({"code":0,"count":0})");
  ASSERT_NO_FATAL_FAILURE(startService());
  ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_A);
  ASSERT_TRUE(waitForLog("Error failed to obtain PSAP number"));
  EXPECT_TRUE(log.hasSlog("PSAP ecall number not set in the embedded phone"));
  EXPECT_NE(ecallHandler.systemError & 0x80u, 0u);
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::NONE);

  ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_B);  // tried, not raised again
  ASSERT_TRUE(testSupport::waitUntil([&] { return log.countTrace("PSAP ecall number not set in the embedded phone") == 2; }));
  ASSERT_NO_FATAL_FAILURE(waitUntilMachineCaughtUp());
  EXPECT_EQ(logCount("Error failed to obtain PSAP number"), 1u);
  EXPECT_EQ(logCount("System error message generated again"), 0u);

  // The number came and went again; a system error has been told before.
  errorSentForNoEcallNumberLoaded = false;
  systemErrorSent = true;
  fakeBus::clearCalls();
  ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_C);
  ASSERT_TRUE(waitForLog("Error failed to obtain PSAP number", 2));
  EXPECT_TRUE(inOrder(logEntries(), {"System error message generated again due to no ecall number programmed",
                                     "Error failed to obtain PSAP number"}));
  EXPECT_EQ(ecallSignalSummary(), (std::vector<std::string>{"false:systemError"}));

  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  ASSERT_TRUE(log.waitForTrace("Error msg active when ecall delay start pulse received, ignoring the pulse"));
  EXPECT_EQ(requestCount("ecallDial"), 0u);
  EXPECT_FALSE(ecallHandler.getEcallModeActive());
}

// A ringing call from a real number with no emergency in hand is the centre
// calling back: ring tone, prompt 2, answer, active, then the centre hangs up.
TEST_F(StateMachineTest, CallbackIsRungAnsweredAndEnded) {
  reply(AUDIO_MIXER_SERVICE, "getProperties", 0, R"({"volumeLevel":{"FRONT_L_SPKR":{"PHONE":20}}})");
  ASSERT_NO_FATAL_FAILURE(startService());
  callState("CALL_STATE_RINGING", "5551234");
  ASSERT_TRUE(waitForLog("Incoming Call - answer phone cmd sent to embedded phone"));
  callState("CALL_STATE_ACTIVE", "5551234");
  ASSERT_TRUE(waitForLog("Incoming Call - Active"));
  callState("CALL_STATE_TERMINATED", "5551234");
  ASSERT_TRUE(waitForIdle());

  EXPECT_EQ(ecallSignals()[0]["type"], "emergency_callback");
  EXPECT_TRUE(inOrder(logEntries(), {"Incoming Call", "Incoming Call - opening audio for 2 rings",
                                     "Incoming Call - close audio and play TTS", "TTS rqst 2",
                                     "Incoming Call - answer phone cmd sent to embedded phone",
                                     "Incoming Call from number 5551234", "Incoming Call - Active", "Call ended",
                                     "TTS rqst 3", "End emergency mode"}));
  // The ring one step below the prompt volume (12), then back to the phone's.
  EXPECT_TRUE(inOrder(requestLog(), {
      "requestInformationSource", "getProperties {\"props\":[\"volumeLevel\"]}", "switchBluetoothOff",
      "setMux {\"gain\":0,\"input\":\"MIC1\"", "adjustVolume {\"source\":\"PHONE\",\"step\":11,\"user\":\"driver\"}",
      "setSHF_Scenario {\"mode\":\"START\",\"scenario\":\"Embedded_255_1\"}", "\"step\":20",
      "setSHF_Scenario {\"mode\":\"STOP\",\"scenario\":\"Embedded_255_1\"}", "ttsReadout", "acceptIncomingCall "}));
  EXPECT_EQ(requestCount("ecallDial"), 0u);
}

TEST_F(StateMachineTest, CallbackEndedBeforeAnswerIsNotAnswered) {
  platform::setTimeScale(0.05);  // 400 ms of ringing
  ASSERT_NO_FATAL_FAILURE(startService());
  callState("CALL_STATE_RINGING", "5551234");
  ASSERT_TRUE(waitForLog("Incoming Call - opening audio for 2 rings"));
  callState("CALL_STATE_TERMINATED", "5551234");
  ASSERT_TRUE(waitForIdle());
  EXPECT_EQ(logCount("Incoming Call - PSAP ended call before it was answered"), 1u);
  EXPECT_EQ(requestCount("acceptIncomingCall"), 0u);
  EXPECT_EQ(ecallSignalSummary(), (std::vector<std::string>{"true:emergency_callback", "false:none", "false:none"}));
}

// In a variant without embedded phone the time-outs are still handled but no
// state step is ever made.
TEST_F(StateMachineTest, VariantWithoutPhoneHandlesTimeoutsButNeverSteps) {
  extServHandle.mEmbeddedPhoneEnabled = false;
  ASSERT_NO_FATAL_FAILURE(startService());
  ecallHandler.curECallType = ecallMain::CAN_IMPACT_A;
  ecallHandler.curCallModeType = ecallMain::CALL_ACN;
  sendStateMachinePulse(ECALL_PULSE_START_CALL);
  sendStateMachinePulse(ECALL_PULSE_ANTENNA_FAULT);
  ASSERT_TRUE(testSupport::waitUntil([] { return (ecallHandler.systemError & 0x40u) != 0; }));
  EXPECT_TRUE(log.hasTrace("ecallService state machine triggered, but since the VARIANT_ECELL indicates no embedded phone"));
  EXPECT_FALSE(log.hasTrace("step 1: stateMachine before switch"));
  EXPECT_EQ(requestCount("getEmergencyNumbers"), 0u);
}

TEST_F(StateMachineTest, AsyncResultsAreTracedAndFailuresLogged) {
  const SVCIPC_tCallbackStatus ok{SVCIPC_ERROR_NONE, nullptr, nullptr};
  ecallProcessor::onAsyncResult(&ok, "{\"x\":1}", const_cast<char*>("dial"));
  EXPECT_TRUE(log.hasTrace("onAsyncResult[dial]: {\"x\":1}"));
  const SVCIPC_tCallbackStatus cancelled{SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_IPC_LIB, SVCIPC_ERR_CANCELLED), nullptr, nullptr};
  ecallProcessor::onAsyncResult(&cancelled, nullptr, const_cast<char*>("endActiveCall"));
  const SVCIPC_tCallbackStatus failed{SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, 8), "e", "m"};  // code 8, not the library's
  ecallProcessor::onAsyncResult(&failed, nullptr, const_cast<char*>("debugAT"));
  EXPECT_FALSE(log.hasSlog("endActiveCall"));
  EXPECT_TRUE(log.hasSlog("Async call debugAT failed: 0x90000008"));
}

}  // namespace
}  // namespace smTest
