// The phone's call state, end reasons, prompt completions and DTMF keys.
#include "smFixture.h"

namespace smTest {
namespace {

class CallStateTest : public StateMachineFixture {
 protected:
  void SetUp() override {
    StateMachineFixture::SetUp();
    probe = std::make_unique<PulseProbe>();
  }
  static void report(const char* json) { ecallHandler.processEmdPhCallState(json); }
  std::unique_ptr<PulseProbe> probe;
};

// Which entry of a call state report is the emergency call, and when a
// ringing call is taken as the centre's callback.
TEST_F(CallStateTest, OnlyEmergencyCallEntriesAreTaken) {
  report(R"({"callStateInfo":[{"callState":"CALL_STATE_RINGING","number":"#777","callType":1}]})");
  EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_IDLE");

  report(R"({"callStateInfo":[{"callState":"CALL_STATE_RINGING","number":"5551234","callType":3}]})");
  EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_IDLE");

  // An empty number is judged by its type, but is not the centre calling.
  report(R"({"callStateInfo":[{"callState":"CALL_STATE_RINGING","number":"","callType":1}]})");
  EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_RINGING");
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::NONE);
  report(R"({"callStateInfo":[{"callState":"CALL_STATE_RINGING","callType":1}]})");
  EXPECT_TRUE(log.hasTrace("ecallState CALL_STATE_RINGING, phonenumber isNULL"));
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::NONE);

  // Peers' mistakes change nothing.
  ecallHandler.curCallState.set("CALL_STATE_IDLE");
  for (const char* bad : {"not json", "[1,2]", R"({"callStateInfo":{}})", R"({"callStateInfo":[1,"x",null]})",
                          R"({"callStateInfo":[{"callState":"CALL_STATE_RINGING","number":"5","callType":"1"}]})"})
    report(bad);
  EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_IDLE");
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::NONE);

  // The last emergency entry wins; any real number ringing is the callback.
  report(R"({"callStateInfo":[{"callState":"CALL_STATE_ACTIVE","number":"911","callType":1},)"
         R"({"callState":"CALL_STATE_RINGING","number":"5551234","callType":2},)"
         R"({"callState":"CALL_STATE_DIALING","number":"#777","callType":1}]})");
  EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_RINGING");
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::Emergency_Callback);
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_EMERGENCY_CALLBACK);
  EXPECT_EQ(probe->next(), ECALL_PULSE_EMERGENCY_INCOMING_CALL);
}

// The emergency call moving through dialling, active and terminated; a
// terminated call without emergency only resets the call state.
TEST_F(CallStateTest, CallStateMovesTheEmergencyCall) {
  ecallHandler.callConnected = true;
  report(R"({"callStateInfo":[{"callState":"CALL_STATE_TERMINATED","number":"555","callType":1}]})");
  EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_IDLE");
  EXPECT_FALSE(ecallHandler.getCallConnected());
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::NONE);

  ecallHandler.curECallType = ecallMain::E_CALL_BtnStat;
  ecallHandler.curCallModeType = ecallMain::CALL_ECALL_DELAY;
  report(R"({"callStateInfo":[{"callState":"CALL_STATE_DIALING","number":"911","callType":1}]})");
  EXPECT_EQ(probe->next(), ECALL_PULSE_RUN_STATE_MACHINE);
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ECALL);  // the delay is over

  report(R"({"callStateInfo":[{"callState":"CALL_STATE_ACTIVE","number":"911","callType":1}]})");
  EXPECT_EQ(probe->next(), ECALL_PULSE_RUN_STATE_MACHINE);
  EXPECT_TRUE(ecallHandler.getCallConnected());

  ecallHandler.btCallActive = true;
  report(R"({"callStateInfo":[{"callState":"CALL_STATE_TERMINATED","number":"911","callType":1}]})");
  EXPECT_EQ(probe->next(), ECALL_PULSE_PSAP_CALL_ENDED);
  EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_IDLE");
  EXPECT_FALSE(ecallHandler.getCallConnected());
  EXPECT_FALSE(ecallHandler.btCallActive);
}

TEST_F(CallStateTest, WendReasonsThatEndTheCall) {
  for (int reason : {3, 17, 68, 32768}) {
    ecallHandler.curCallState.set("CALL_STATE_ACTIVE");
    ecallHandler.callConnected = true;
    ecallHandler.btCallActive = true;
    ecallHandler.processWendReason(("{\"serviceNumber\":" + std::to_string(reason) + "}").c_str());
    EXPECT_EQ(probe->next(), ECALL_PULSE_PSAP_CALL_ENDED) << reason;
    EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_IDLE") << reason;
    EXPECT_FALSE(ecallHandler.getCallConnected()) << reason;
    EXPECT_FALSE(ecallHandler.btCallActive) << reason;
  }
  ecallHandler.curCallState.set("CALL_STATE_ACTIVE");
  for (const char* other : {R"({"serviceNumber":16})", R"({"serviceNumber":"17"})", R"({"other":17})", "17"})
    ecallHandler.processWendReason(other);
  EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_ACTIVE");
  EXPECT_TRUE(log.hasTrace("wendReason service number = 16"));
}

// The centre's announcement is two prompts chained by their completions;
// the microphones open after the second.
TEST_F(CallStateTest, PromptCompletionsChainTheCentreAnnouncement) {
  startCommandThread();
  ASSERT_NO_FATAL_FAILURE(subscribeSignals());

  // Nothing requested by the state machine: completions are ignored.
  errorSentForNoEcallNumberLoaded = true;
  ASSERT_NO_FATAL_FAILURE(promptFinished());
  EXPECT_TRUE(errorSentForNoEcallNumberLoaded);

  // The first prompt was held back behind the dialling prompt.
  activeTts = TTS_PROMPT_ACN_PSAP1;
  firstPsapTtsCount = 2;
  firstPsapTtsWaitForComplete = true;
  ASSERT_NO_FATAL_FAILURE(promptFinished());
  ASSERT_TRUE(waitForLog("TTS rqst 10"));
  EXPECT_FALSE(firstPsapTtsWaitForComplete);
  EXPECT_EQ(firstPsapTtsCount, 2);

  ASSERT_NO_FATAL_FAILURE(promptFinished());
  ASSERT_TRUE(waitForLog("TTS rqst 11"));
  EXPECT_EQ(activeTts, TTS_PROMPT_ACN_PSAP2);
  EXPECT_EQ(logCount("Request unmute mic inputs"), 0u);

  ASSERT_NO_FATAL_FAILURE(promptFinished());
  ASSERT_TRUE(waitForLog("Request unmute mic inputs"));
  EXPECT_EQ(activeTts, TTS_PROMPT_NONE);
  EXPECT_FALSE(errorSentForNoEcallNumberLoaded);
  EXPECT_TRUE(inOrder(logEntries(), {"TTS rqst 10", "TTS rqst 11", "Request unmute mic inputs"}));

  // The callback prompt, completed or aborted, lets the answer come at once.
  activeTts = TTS_PROMPT_INCOMING;
  ASSERT_NO_FATAL_FAILURE(promptFinished());
  EXPECT_EQ(probe->next(), ECALL_PULSE_RUN_STATE_MACHINE);
  EXPECT_EQ(activeTts, TTS_PROMPT_NONE);
  activeTts = TTS_PROMPT_INCOMING;
  extServHandle.mReadoutType.set("PMSG");
  ASSERT_EQ(fakeBus::deliverSignal(TTS_PATH, "ttsPlayState", R"({"state":"aborted"})"), 1);
  EXPECT_EQ(probe->next(), ECALL_PULSE_RUN_STATE_MACHINE);
  EXPECT_EQ(extServHandle.mReadoutType.get(), "none");
}

// The operator's keys during the emergency mode: 1 stops the announcement
// and reads the position, 0 only stops it; other keys and keys outside the
// emergency mode do nothing.
TEST_F(CallStateTest, DtmfKeysStopTheAnnouncement) {
  startCommandThread();
  ASSERT_NO_FATAL_FAILURE(subscribeSignals());

  activeTts = TTS_PROMPT_ECALL_PSAP1;
  ASSERT_NO_FATAL_FAILURE(dtmf(1));
  EXPECT_EQ(logCount("Rx DTMF"), 0u);
  EXPECT_EQ(activeTts, TTS_PROMPT_ECALL_PSAP1);

  ecallHandler.ecallModeActive = true;
  ASSERT_NO_FATAL_FAILURE(dtmf(5));
  EXPECT_EQ(logCount("Rx DTMF"), 0u);

  firstPsapTtsCount = 2;
  ASSERT_NO_FATAL_FAILURE(dtmf(1));
  EXPECT_EQ(logCount("Rx DTMF: 1"), 1u);
  EXPECT_EQ(firstPsapTtsCount, 0);
  EXPECT_EQ(activeTts, TTS_PROMPT_GPS_COORDINATES);
  ASSERT_TRUE(waitForLog("TTS rqst 12"));
  EXPECT_TRUE(log.hasTrace("DTMF received, abort current TTS"));
  EXPECT_TRUE(log.hasTrace("Async abort TTS message."));
  ASSERT_TRUE(waitForLog("Request unmute mic inputs"));

  activeTts = TTS_PROMPT_ECALL_PSAP2;
  ASSERT_NO_FATAL_FAILURE(dtmf(0));
  EXPECT_EQ(logCount("Rx DTMF: 0"), 1u);
  EXPECT_EQ(activeTts, TTS_PROMPT_NONE);
  ASSERT_TRUE(waitForLog("Request unmute mic inputs", 2));
  EXPECT_EQ(logCount("TTS rqst 12"), 1u);
}

class CallStateWithMachineTest : public StateMachineFixture {};

// An end reason that means the call is over ends the emergency call even
// when the phone sends no call state.
TEST_F(CallStateWithMachineTest, WendReasonEndsTheCallWithoutCallState) {
  ASSERT_NO_FATAL_FAILURE(startService());
  ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_D);
  ASSERT_TRUE(fakeBus::waitForRequests(EMBEDDED_PHONE_SERVICE, "ecallDial", 1));
  ASSERT_NO_FATAL_FAILURE(callState("CALL_STATE_DIALING"));
  ASSERT_TRUE(log.waitForTrace("callstate alerting. wait to connect"));
  ASSERT_NO_FATAL_FAILURE(callState("CALL_STATE_ACTIVE"));
  ASSERT_TRUE(waitForLog("Call Active.  Delay 6000 ms for PSAP TTS"));

  ASSERT_NO_FATAL_FAILURE(wendReason(17));
  ASSERT_TRUE(waitForLog("Call ended"));
  ASSERT_TRUE(waitForIdle());
  EXPECT_TRUE(inOrder(ecallSignalSummary(), {"true:acn", "false:none", "false:none"}));
  EXPECT_EQ(requestCount("ecallDial"), 1u);
}

}  // namespace
}  // namespace smTest
