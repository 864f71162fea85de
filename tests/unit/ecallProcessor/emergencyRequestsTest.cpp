// Emergency requests and call modes: the mode a request gets, the pulse that
// wakes the state machine, what is cached while the phone is off, and how a
// press is answered when the system cannot call.
#include "smFixture.h"

namespace smTest {
namespace {

using EmergencyRequestsTest = StateMachineFixture;

TEST_F(EmergencyRequestsTest, ModeTableDecidesTheCallMode) {
  PulseProbe probe;
  extServHandle.mEmbeddedPhoneEnabled = false;
  ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_A);
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::NONE);
  EXPECT_EQ(logCount("Emergency event detected but since the VARIANT_ECELL indicates no embedded phone"), 1u);
  extServHandle.mEmbeddedPhoneEnabled = true;

  ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_K);  // a crash is started at once
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ACN);
  EXPECT_EQ(probe.next(), ECALL_PULSE_START_CALL);
  ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_K);  // a repeat keeps what is in hand
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ACN);
  EXPECT_TRUE(log.hasTrace("ecall already requested. Current type 10"));

  ecallHandler.setEcallFailedToStart();
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);  // the first press starts the delay
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ECALL_DELAY);
  EXPECT_EQ(probe.next(), ECALL_PULSE_DELAY_START);

  ecallHandler.curCallModeType = ecallMain::CALL_ECALL;  // a crash during a button call
  ecallHandler.emergencyHappened(ecallMain::SERIAL_IMPACT_A);
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::SERIAL_IMPACT_A);
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ACN);
  EXPECT_EQ(probe.next(), ECALL_PULSE_START_CALL);

  ecallHandler.setEcallFailedToStart();  // the callback is started by the call state, not here
  ecallHandler.emergencyHappened(ecallMain::Emergency_Callback);
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_EMERGENCY_CALLBACK);
  EXPECT_TRUE(log.hasTrace("Ecall type 4 not recognized.  Someone added types and code without updating function"));
  EXPECT_TRUE(log.hasSlog("Ecall type 4 not recognized."));
  ecallHandler.emergencyHappened(ecallMain::NONE);
  EXPECT_TRUE(log.hasTrace("Emergency request with type 0 (none).  Current active type 28"));
}

// A press while a call is under way: a delay pulse for the state machine,
// the LED blinks until its timer runs out, the user interface is told it was
// a repeat.
TEST_F(EmergencyRequestsTest, ButtonPressDuringCallBlinksAndSignalsRepeat) {
  PulseProbe probe;
  ecallHandler.localEcallNumber.set("911");
  ecallHandler.curECallType = ecallMain::E_CALL_BtnStat;
  ecallHandler.curCallModeType = ecallMain::CALL_ECALL;
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  EXPECT_EQ(probe.next(), ECALL_PULSE_DELAY_START);
  ASSERT_TRUE(waitForLog("send LED status", 2));
  EXPECT_TRUE(inOrder(logEntries(), {"ECall Button pressed again during ecall process. Send LED blink green",
                                     "send LED status 2", "send LED status 0"}));
  ASSERT_EQ(ecallSignals().size(), 1u);
  EXPECT_EQ(ecallSignalSummary()[0], "true:ecall_button_repeat");
  EXPECT_EQ(ecallSignals()[0]["phoneNumber"], "");
}

// With the phone off a press is only recorded; once the phone is ON the
// cached press is served, but only while it still waits.
TEST_F(EmergencyRequestsTest, CachedRequestIsServedWhenThePhoneIsOn) {
  PulseProbe probe;
  ecallHandler.emdPhOn = 0;
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  EXPECT_TRUE(log.hasTrace("emergency happened. type 1, embedded phone not available"));
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ECALL_DELAY);

  ecallHandler.emdPhOn = 1;
  ecallHandler.curCallState.set("CALL_STATE_ACTIVE");
  ecallHandler.processCachedEcallStatus();
  EXPECT_TRUE(log.hasTrace("Ecall caching status not handled. curECallType: 1, curCallModeType: 2, curCallState CALL_STATE_ACTIVE"));
  ecallHandler.curCallState.set("CALL_STATE_IDLE");
  ecallHandler.processCachedEcallStatus();
  EXPECT_EQ(logCount("Handle Ecall caching status. curECallType: 1, curCallModeType: 2, curCallState CALL_STATE_IDLE"), 1u);
  EXPECT_EQ(probe.next(), ECALL_PULSE_DELAY_START);
}

// A press that cannot be served: "please wait" while the phone may still
// come up, the system error otherwise.
TEST_F(EmergencyRequestsTest, ButtonPressWithSystemErrorTellsTheUser) {
  PulseProbe probe;
  platform::setTimeScale(1.0);  // the phone-not-present timer still runs when looked at
  ecallHandler.emdPhOn = 0;
  ecallHandler.systemError = 0x01;
  startPhoneNotPresentTimeoutTimer();
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  stopPhoneNotPresentTimeoutTimer();
  const auto popups = fakeBus::requests(HMI_GATEWAY_SERVICE, "displayGlobalPopupByMsgId");
  ASSERT_FALSE(popups.empty());
  EXPECT_EQ(popups[0].params, "{\"msgId\":2672,\"showonDisplayoff\":true,\"timeout\":5000}\n");
  EXPECT_TRUE(waitForLog("Request HMI to display please wait popup. System error: 1"));
  EXPECT_TRUE(fakeBus::emittedData("ecall").empty());

  ecallHandler.setEcallFailedToStart();
  ecallHandler.emdPhOn = 1;
  ecallHandler.systemError = 0x40;
  fakeBus::clearCalls();
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  EXPECT_EQ(requestCount("displayGlobalPopupByMsgId"), 0u);
  EXPECT_EQ(logCount("Send System error message due to ECall Button press. System error 64"), 1u);
  EXPECT_EQ(ecallSignalSummary(), (std::vector<std::string>{"false:systemError"}));
  EXPECT_EQ(probe.next(), ECALL_PULSE_DELAY_START);  // the press is still taken
}

// Requests the phone service refuses are reported in their own words.
TEST_F(EmergencyRequestsTest, RefusedPhoneRequestsAreReported) {
  PulseProbe probe;
  for (const char* method : {"endActiveCall", "acceptIncomingCall", "debugAT"})
    reply(EMBEDDED_PHONE_SERVICE, method, kRefused);
  ecallHandler.hangUpCall();
  EXPECT_FALSE(ecallHandler.acceptEmergencyCallback());
  ecallHandler.exitEmergencyMode();
  for (const char* text : {"failed to hangup, rc -", "failed to acceptIncomingCall, rc -", "Failed to exit emergency mode, rc -"})
    EXPECT_TRUE(log.hasTrace(text)) << text;
  for (const char* text : {"falied to hangup, rc 0x90000006", "falied to accecptIncomingCall, rc 0x90000006",
                           "Failed to exit emergency mode, rc 0x90000006"})
    EXPECT_TRUE(log.hasSlog(text)) << text;
  EXPECT_EQ(probe.next(), ECALL_PULSE_RUN_STATE_MACHINE);  // the answer step looks again at once
  EXPECT_EQ(fakeBus::requests(EMBEDDED_PHONE_SERVICE, "acceptIncomingCall")[0].context, "acceptIncomingCall");
}

}  // namespace
}  // namespace smTest
