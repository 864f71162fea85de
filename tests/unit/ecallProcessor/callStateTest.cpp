// The phone's call state and end reasons, and the prompt completions.
#include "smFixture.h"

namespace smTest {
namespace {

using CallStateTest = StateMachineFixture;

void report(const char* json) { ecallHandler.processEmdPhCallState(json); }

// Which entry of a report is the emergency call, and when a ringing call is
// taken as the centre calling back.
TEST_F(CallStateTest, OnlyEmergencyCallEntriesAreTaken) {
  PulseProbe probe;
  for (const char* ignored : {
           R"({"callStateInfo":[{"callState":"CALL_STATE_RINGING","number":"#777","callType":1}]})",
           R"({"callStateInfo":[{"callState":"CALL_STATE_RINGING","number":"5551234","callType":3}]})",
           R"({"callStateInfo":[{"callState":"CALL_STATE_RINGING","number":"5","callType":"1"}]})",
           R"({"callStateInfo":[1,"x",null]})", R"({"callStateInfo":{}})"})
    report(ignored);
  EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_IDLE");

  // An empty or absent number is judged by its call type, but is no callback.
  report(R"({"callStateInfo":[{"callState":"CALL_STATE_RINGING","number":"","callType":1}]})");
  EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_RINGING");
  report(R"({"callStateInfo":[{"callState":"CALL_STATE_RINGING","callType":2}]})");
  EXPECT_TRUE(log.hasTrace("ecallState CALL_STATE_RINGING, phonenumber isNULL"));
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::NONE);

  // The last emergency entry wins.
  report(R"({"callStateInfo":[{"callState":"CALL_STATE_ACTIVE","number":"911","callType":1},)"
         R"({"callState":"CALL_STATE_RINGING","number":"5551234","callType":2},)"
         R"({"callState":"CALL_STATE_DIALING","number":"#777","callType":1}]})");
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::Emergency_Callback);
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_EMERGENCY_CALLBACK);
  EXPECT_EQ(probe.next(), ECALL_PULSE_EMERGENCY_INCOMING_CALL);
}

// The emergency call through dialling, active and its end, and the end
// reasons 16 and 17, are seen end to end. Without an emergency an end only
// resets the state; every reason of the list ends the call, given as a
// number only.
TEST_F(CallStateTest, EndsWithoutAnEmergencyAndEveryEndReason) {
  PulseProbe probe;
  ecallHandler.callConnected = true;
  report(R"({"callStateInfo":[{"callState":"CALL_STATE_TERMINATED","number":"555","callType":1}]})");
  EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_IDLE");
  EXPECT_FALSE(ecallHandler.getCallConnected());
  probe.send(99);
  EXPECT_EQ(probe.next(), 99) << "an end without an emergency woke the state machine";

  for (const char* other : {R"({"serviceNumber":16})", R"({"serviceNumber":"17"})", "17"}) {
    ecallHandler.curCallState.set("CALL_STATE_ACTIVE");
    ecallHandler.processWendReason(other);
    EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_ACTIVE") << other;
  }
  for (int reason : {3, 17, 68, 32768}) {
    ecallHandler.callConnected = ecallHandler.btCallActive = true;
    ecallHandler.processWendReason(("{\"serviceNumber\":" + std::to_string(reason) + "}").c_str());
    EXPECT_EQ(probe.next(), ECALL_PULSE_PSAP_CALL_ENDED) << reason;
    EXPECT_EQ(ecallHandler.getCurCallState(), "CALL_STATE_IDLE") << reason;
    EXPECT_FALSE(ecallHandler.getCallConnected() || ecallHandler.btCallActive) << reason;
    ecallHandler.curCallState.set("CALL_STATE_ACTIVE");
  }
}

// A prompt's end counts only for a prompt the state machine asked for; the
// callback prompt's end, aborted or not, lets the answer come at once.
TEST_F(CallStateTest, PromptEndsCountOnlyForAPromptInHand) {
  ASSERT_NO_FATAL_FAILURE(startService(false));
  PulseProbe probe;
  errorSentForNoEcallNumberLoaded = true;
  promptFinished();
  EXPECT_TRUE(errorSentForNoEcallNumberLoaded);

  activeTts = TTS_PROMPT_INCOMING;
  signal(TTS_PATH, "ttsPlayState", R"({"state":"aborted"})");
  EXPECT_EQ(probe.next(), ECALL_PULSE_RUN_STATE_MACHINE);
  promptFinished();
  EXPECT_EQ(probe.next(), ECALL_PULSE_RUN_STATE_MACHINE);
  EXPECT_EQ(activeTts, TTS_PROMPT_NONE);
}

}  // namespace
}  // namespace smTest
