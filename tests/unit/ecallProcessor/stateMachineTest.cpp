// The main state machine driven through whole emergencies: real thread, real
// timers on a short time scale, the fake bus as the rest of the car.
#include "smFixture.h"

namespace smTest {
namespace {

class StateMachineTest : public StateMachineFixture {};

// Walks a button call from the request to the end of the emergency mode and
// checks what the car saw, in order: signals, requests, log entries.
TEST_F(StateMachineTest, ButtonRequestRunsTheWholeCall) {
  ASSERT_NO_FATAL_FAILURE(startService());

  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  ASSERT_TRUE(fakeBus::waitForRequests(EMBEDDED_PHONE_SERVICE, "ecallDial", 1));
  EXPECT_TRUE(ecallHandler.getEcallModeActive());
  EXPECT_TRUE(testSupport::fileExists(root.path("/tmp/embeddedCallActive")));

  ASSERT_NO_FATAL_FAILURE(callState("CALL_STATE_DIALING"));
  ASSERT_TRUE(log.waitForTrace("callstate alerting. wait to connect"));
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ECALL);  // no longer cancellable
  ASSERT_NO_FATAL_FAILURE(callState("CALL_STATE_ALERTING"));
  ASSERT_NO_FATAL_FAILURE(callState("CALL_STATE_ACTIVE"));
  ASSERT_TRUE(waitForLog("Call Active.  Delay 6000 ms for PSAP TTS"));

  // The dialling prompt ends; 6 s after the answer the centre hears its two
  // prompts, one after the other; then the microphones open again.
  ASSERT_NO_FATAL_FAILURE(promptFinished());
  ASSERT_TRUE(waitForLog("TTS rqst 8"));
  EXPECT_EQ(logCount("TTS rqst 9"), 0u);
  ASSERT_NO_FATAL_FAILURE(promptFinished());
  ASSERT_TRUE(waitForLog("TTS rqst 9"));
  const size_t unmutesBefore = logCount("Request unmute mic inputs");
  ASSERT_NO_FATAL_FAILURE(promptFinished());
  ASSERT_TRUE(waitForLog("Request unmute mic inputs", unmutesBefore + 1));
  EXPECT_EQ(activeTts, TTS_PROMPT_NONE);

  // The centre hangs up.
  ASSERT_NO_FATAL_FAILURE(callState("CALL_STATE_TERMINATED"));
  ASSERT_TRUE(waitForIdle());
  EXPECT_FALSE(ecallHandler.getEcallModeActive());
  EXPECT_FALSE(testSupport::fileExists(root.path("/tmp/embeddedCallActive")));

  EXPECT_TRUE(inOrder(ecallSignalSummary(), {"true:ecallDelay", "false:none", "false:none"}));
  EXPECT_EQ(ecallSignals().size(), 3u);
  EXPECT_EQ(ecallSignals()[0].phoneNumber, "911");
  EXPECT_EQ(ecallSignals()[0].event, "E_CALL_BtnStat");
  EXPECT_TRUE(ecallSignals()[1].modeActive);   // the call ended, the callback period runs
  EXPECT_FALSE(ecallSignals()[2].modeActive);  // the emergency mode is over

  EXPECT_TRUE(inOrder(requestLog(), {
                                        "getEmergencyNumbers {\"maxCount\":10}",
                                        "requestInformationSource {\"source\":\"ecall\"}",
                                        "stopApp",
                                        "switchBluetoothOff",
                                        "endActiveCall ",
                                        "requestInformationSource {\"source\":\"ecall\"}",
                                        "setMux {\"gain\":0,\"input\":\"OFF\",\"name\":\"mic1_mux1\"}",
                                        "ttsReadout",
                                        "ecallDial {\"address\":\"911\",\"callType\":\"MVA\",\"vehicleType\":\"Corvane\"}\n",
                                        "setMux {\"gain\":0,\"input\":\"MIC1\",\"name\":\"mic1_mux1\"}",
                                        "setBluetoothStatus {\"enable\":true}",
                                        "debugAT {\"atString\":\"at+wsos=0\\r\"}\n",
                                        "setMux {\"gain\":0,\"input\":\"MIC1\",\"name\":\"mic1_mux1\"}",
                                        "releaseInformationSource {\"source\":\"ecall\"}",
                                    }));
  // The phone was idle again when the emergency mode ended: no second hang-up.
  EXPECT_EQ(requestCount("endActiveCall"), 1u);
  EXPECT_EQ(requestCount("ecallDial"), 1u);

  EXPECT_TRUE(inOrder(logEntries(), {
                                        "Ecall delay 10 before calling",
                                        "send LED status 1",
                                        "TTS rqst 1",
                                        "TTS rqst 7",
                                        "Calling 911",
                                        "Call Active.  Delay 6000 ms for PSAP TTS",
                                        "TTS rqst 8",
                                        "TTS rqst 9",
                                        "Request unmute mic inputs",
                                        "Call ended",
                                        "send LED status 0",
                                        "TTS rqst 3",
                                        "End emergency mode",
                                    }));
  EXPECT_TRUE(inOrder(logEntries(), {"Call ended", "send LED status 0", "send LED status 0", "End emergency mode"}));
}

// A second press during the delay is the user's cancel: nothing is dialled,
// the end prompt plays and the emergency mode ends after the callback period.
TEST_F(StateMachineTest, SecondRequestDuringDelayCancels) {
  platform::setTimeScale(0.05);  // a 500 ms delay leaves room for the second press
  ASSERT_NO_FATAL_FAILURE(startService());

  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  ASSERT_TRUE(waitForLog("Ecall delay 10 before calling"));
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  ASSERT_TRUE(waitForLog("User cancelled mode during Ecall delay"));
  ASSERT_TRUE(waitForIdle());

  EXPECT_EQ(requestCount("ecallDial"), 0u);
  EXPECT_EQ(ecallSignalSummary(), (std::vector<std::string>{"true:ecallDelay", "false:none", "false:none"}));
  EXPECT_TRUE(inOrder(logEntries(), {"User cancelled mode during Ecall delay", "TTS rqst 3", "End emergency mode"}));
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::NONE);
}

// A dial the phone service refuses is reported as failed and retried after
// the retry period (a run pulse dials although a dial was already made).
TEST_F(StateMachineTest, RefusedDialIsRetriedAfterTheRetryPeriod) {
  refuse(EMBEDDED_PHONE_SERVICE, "ecallDial");
  ASSERT_NO_FATAL_FAILURE(startService());

  ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_A);
  ASSERT_TRUE(fakeBus::waitForRequests(EMBEDDED_PHONE_SERVICE, "ecallDial", 2));
  EXPECT_TRUE(log.hasTrace("Failed dial emergency number, rc -"));
  EXPECT_TRUE(log.hasSlog("Failed to dial emergency number, rc 0x9"));

  // The user gives up.
  ecallHandler.clearECallEvent();
  ASSERT_TRUE(waitForIdle());

  const std::vector<std::string> signals = ecallSignalSummary();
  ASSERT_GE(signals.size(), 4u);
  EXPECT_EQ(signals[0], "true:acn");
  EXPECT_EQ(signals[1], "true:failed");
  EXPECT_EQ(signals[2], "true:failed");
  EXPECT_TRUE(inOrder(logEntries(), {"ACR triggered on CAN - Front pretensioner event", "Calling 911",
                                     "Error dial PSAP number failed", "Calling 911", "Error dial PSAP number failed",
                                     "End emergency mode"}));
}

// The dial is accepted but the phone never leaves idle: after the connect
// time-out the call is reported failed, and the next call-ended pulse dials
// again.
TEST_F(StateMachineTest, DialThatNeverLeavesIdleTimesOutAndRedialsOnCallEnded) {
  ASSERT_NO_FATAL_FAILURE(startService());

  ecallHandler.emergencyHappened(ecallMain::SERIAL_IMPACT_X);
  ASSERT_TRUE(waitForLog("Error: Call state did not transition after successful dial request"));
  ASSERT_TRUE(fakeBus::waitForEmitted("ecall", 2));
  EXPECT_EQ(ecallSignalSummary(), (std::vector<std::string>{"true:acn", "true:failed"}));
  EXPECT_TRUE(log.hasTrace("no transition out of IDLE"));
  EXPECT_EQ(requestCount("ecallDial"), 1u);

  ASSERT_NO_FATAL_FAILURE(wendReason(17));
  ASSERT_TRUE(fakeBus::waitForRequests(EMBEDDED_PHONE_SERVICE, "ecallDial", 2));

  ecallHandler.clearECallEvent();
  ASSERT_TRUE(waitForIdle());
}

// A call that ends before it becomes active is retried; "Error Call Failed"
// is written once per emergency however often it fails.
TEST_F(StateMachineTest, CallEndingBeforeActiveIsRetriedAndLoggedOnce) {
  ASSERT_NO_FATAL_FAILURE(startService());

  ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_C);
  for (size_t attempt = 1; attempt <= 2; ++attempt) {
    ASSERT_TRUE(fakeBus::waitForRequests(EMBEDDED_PHONE_SERVICE, "ecallDial", attempt));
    ASSERT_NO_FATAL_FAILURE(callState("CALL_STATE_DIALING"));
    ASSERT_TRUE(testSupport::waitUntil([&] { return log.countTrace("callstate alerting. wait to connect") >= attempt; }));
    ASSERT_NO_FATAL_FAILURE(callState("CALL_STATE_TERMINATED"));
    ASSERT_TRUE(testSupport::waitUntil([&] { return log.countTrace("PSAP ecall failed, trying again in 60000ms") >= attempt; }));
  }
  ASSERT_TRUE(fakeBus::waitForRequests(EMBEDDED_PHONE_SERVICE, "ecallDial", 3));
  ecallHandler.clearECallEvent();
  ASSERT_TRUE(waitForIdle());

  EXPECT_EQ(logCount("Error Call Failed"), 1u);
  EXPECT_TRUE(inOrder(ecallSignalSummary(), {"true:acn", "true:failed", "true:failed", "false:none"}));
}

// Without an emergency number nothing is dialled: the failure source is
// raised once per loss of the number, a system error already told is told
// again, and while the failure is up a button's delay request is ignored.
TEST_F(StateMachineTest, MissingEmergencyNumberRaisesTheFailureOnce) {
  answer(EMBEDDED_PHONE_SERVICE, "getEmergencyNumbers", R"({"code":0,"count":0})");
  ASSERT_NO_FATAL_FAILURE(startService());

  ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_A);
  ASSERT_TRUE(waitForLog("Error failed to obtain PSAP number"));
  EXPECT_TRUE(log.hasSlog("PSAP ecall number not set in the embedded phone"));
  EXPECT_NE(ecallHandler.systemError & 0x80u, 0u);
  EXPECT_EQ(logCount("System error message generated again"), 0u);
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::NONE);
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_NONE);

  // A second crash is tried but the failure is not raised again.
  ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_B);
  ASSERT_TRUE(testSupport::waitUntil(
      [&] { return log.countTrace("PSAP ecall number not set in the embedded phone") >= 2; }));
  ASSERT_NO_FATAL_FAILURE(waitUntilMachineCaughtUp());
  EXPECT_EQ(logCount("Error failed to obtain PSAP number"), 1u);

  // The number came and went again; a system error has been told before.
  errorSentForNoEcallNumberLoaded = false;
  systemErrorSent = true;
  fakeBus::clearCalls();
  ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_C);
  ASSERT_TRUE(waitForLog("Error failed to obtain PSAP number", 2));
  EXPECT_TRUE(inOrder(logEntries(), {"System error message generated again due to no ecall number programmed",
                                     "Error failed to obtain PSAP number"}));
  ASSERT_FALSE(ecallSignals().empty());
  EXPECT_FALSE(ecallSignals()[0].ecall);
  EXPECT_EQ(ecallSignals()[0].type, "systemError");

  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  ASSERT_TRUE(log.waitForTrace("Error msg active when ecall delay start pulse received, ignoring the pulse"));

  EXPECT_EQ(requestCount("ecallDial"), 0u);
  EXPECT_EQ(requestCount("getEmergencyNumbers"), 3u);  // only the last crash asked (3 attempts)
  EXPECT_FALSE(ecallHandler.getEcallModeActive());
}

// A call from the emergency centre while no emergency is in hand: ring tone,
// prompt 2, answer, active; then the centre hangs up.
TEST_F(StateMachineTest, CallbackIsRungAnsweredAndEnded) {
  answer(AUDIO_MIXER_SERVICE, "getProperties", R"({"volumeLevel":{"FRONT_L_SPKR":{"PHONE":20}}})");
  ASSERT_NO_FATAL_FAILURE(startService());

  ASSERT_NO_FATAL_FAILURE(callState("CALL_STATE_RINGING", "5551234"));
  ASSERT_TRUE(waitForLog("Incoming Call - answer phone cmd sent to embedded phone"));
  ASSERT_NO_FATAL_FAILURE(callState("CALL_STATE_ACTIVE", "5551234"));
  ASSERT_TRUE(waitForLog("Incoming Call - Active"));
  EXPECT_TRUE(ecallHandler.getCallConnected());
  ASSERT_NO_FATAL_FAILURE(callState("CALL_STATE_TERMINATED", "5551234"));
  ASSERT_TRUE(waitForIdle());

  ASSERT_FALSE(ecallSignals().empty());
  EXPECT_EQ(ecallSignals()[0].type, "emergency_callback");
  EXPECT_EQ(ecallSignals()[0].event, "Emergency_Callback");
  EXPECT_TRUE(inOrder(logEntries(), {"Incoming Call", "Incoming Call - opening audio for 2 rings",
                                     "Incoming Call - close audio and play TTS", "TTS rqst 2",
                                     "Incoming Call - answer phone cmd sent to embedded phone",
                                     "Incoming Call from number 5551234", "Incoming Call - Active", "Call ended",
                                     "TTS rqst 3", "End emergency mode"}));
  EXPECT_TRUE(inOrder(requestLog(), {
                                        "requestInformationSource {\"source\":\"ecall\"}",
                                        "getProperties {\"props\":[\"volumeLevel\"]}",
                                        "switchBluetoothOff",
                                        "setMux {\"gain\":0,\"input\":\"MIC1\",\"name\":\"mic1_mux1\"}",
                                        // the ring one step below the prompt volume, then back to the phone's
                                        "adjustVolume {\"source\":\"PHONE\",\"step\":11,\"user\":\"driver\"}",
                                        "setSHF_Scenario {\"mode\":\"START\",\"scenario\":\"Embedded_255_1\"}",
                                        "adjustVolume {\"source\":\"PHONE\",\"step\":20,\"user\":\"driver\"}",
                                        "setSHF_Scenario {\"mode\":\"STOP\",\"scenario\":\"Embedded_255_1\"}",
                                        "ttsReadout",
                                        "acceptIncomingCall ",
                                    }));
  EXPECT_EQ(requestCount("ecallDial"), 0u);
}

// The centre gives up while the car is still ringing: the call is never
// answered and the emergency mode winds down.
TEST_F(StateMachineTest, CallbackEndedBeforeAnswerIsNotAnswered) {
  platform::setTimeScale(0.05);  // 400 ms of ringing
  ASSERT_NO_FATAL_FAILURE(startService());

  ASSERT_NO_FATAL_FAILURE(callState("CALL_STATE_RINGING", "5551234"));
  ASSERT_TRUE(waitForLog("Incoming Call - opening audio for 2 rings"));
  ASSERT_NO_FATAL_FAILURE(callState("CALL_STATE_TERMINATED", "5551234"));
  ASSERT_TRUE(waitForLog("Incoming Call - PSAP ended call before it was answered"));
  ASSERT_TRUE(waitForIdle());

  EXPECT_EQ(requestCount("acceptIncomingCall"), 0u);
  EXPECT_EQ(logCount("Incoming Call - close audio and play TTS"), 0u);
  EXPECT_TRUE(inOrder(ecallSignalSummary(), {"true:emergency_callback", "false:none", "false:none"}));
}

// A new emergency during the callback period is dialled at once, and the
// emergency mode is not left in between.
TEST_F(StateMachineTest, EmergencyDuringCallbackPeriodRedialsAtOnce) {
  platform::setTimeScale(0.05);  // 1.5 s callback period
  ASSERT_NO_FATAL_FAILURE(startService());

  ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_A);
  ASSERT_TRUE(fakeBus::waitForRequests(EMBEDDED_PHONE_SERVICE, "ecallDial", 1));
  ecallHandler.clearECallEvent();
  ASSERT_TRUE(waitForLog("TTS rqst 3"));
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  ASSERT_TRUE(waitForLog("ecall/acr happened during wait for exit emergency mode"));
  ASSERT_TRUE(fakeBus::waitForRequests(EMBEDDED_PHONE_SERVICE, "ecallDial", 2));
  EXPECT_EQ(logCount("End emergency mode"), 0u);
  EXPECT_TRUE(ecallHandler.getEcallModeActive());
  EXPECT_TRUE(inOrder(ecallSignalSummary(), {"true:acn", "false:none", "true:redial_during_end"}));

  ecallHandler.clearECallEvent();
  ASSERT_TRUE(waitForIdle());
}

// In a variant without embedded phone the time-outs are still handled but no
// state step is ever made.
TEST_F(StateMachineTest, VariantWithoutPhoneHandlesTimeoutsButNeverSteps) {
  extServHandle.mEmbeddedPhoneEnabled = false;
  ASSERT_NO_FATAL_FAILURE(startStateMachine());

  ecallHandler.curECallType = ecallMain::CAN_IMPACT_A;
  ecallHandler.curCallModeType = ecallMain::CALL_ACN;
  sendStateMachinePulse(ECALL_PULSE_START_CALL);
  sendStateMachinePulse(ECALL_PULSE_ANTENNA_FAULT);
  ASSERT_TRUE(testSupport::waitUntil([] { return (ecallHandler.systemError & 0x40u) != 0; }));
  ASSERT_TRUE(log.waitForTrace("ecallService state machine triggered, but since the VARIANT_ECELL indicates no embedded phone"));

  EXPECT_FALSE(log.hasTrace("step 1: stateMachine before switch"));
  EXPECT_EQ(requestCount("getEmergencyNumbers"), 0u);
  EXPECT_FALSE(ecallHandler.getEcallModeActive());
}

// The completion handler of the asynchronous requests.
TEST_F(StateMachineTest, AsyncResultsAreTracedAndFailuresLogged) {
  const SVCIPC_tCallbackStatus ok{SVCIPC_ERROR_NONE, nullptr, nullptr};
  ecallProcessor::onAsyncResult(&ok, "{\"x\":1}", const_cast<char*>("dial"));
  EXPECT_TRUE(log.hasTrace("onAsyncResult[dial]: {\"x\":1}"));

  const SVCIPC_tCallbackStatus cancelled{SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_IPC_LIB, SVCIPC_ERR_CANCELLED), nullptr,
                                         nullptr};
  ecallProcessor::onAsyncResult(&cancelled, nullptr, const_cast<char*>("endActiveCall"));
  EXPECT_FALSE(log.hasSlog("endActiveCall"));

  // Code 8 from the D-Bus side is a real failure.
  const SVCIPC_tCallbackStatus failed{SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, 8), "e", "m"};
  ecallProcessor::onAsyncResult(&failed, nullptr, const_cast<char*>("debugAT"));
  EXPECT_TRUE(log.hasSlog("Async call debugAT failed: 0x90000008"));
  EXPECT_FALSE(log.hasTrace("onAsyncResult[debugAT]"));
}

}  // namespace
}  // namespace smTest
