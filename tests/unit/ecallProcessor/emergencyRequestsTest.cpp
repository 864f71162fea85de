// Emergency requests and call modes: which mode a request gets, which pulse
// wakes the state machine, what is cached while the phone is off, and how a
// press is answered when the system cannot call.
#include "smFixture.h"

namespace smTest {
namespace {

class EmergencyRequestsTest : public StateMachineFixture {
 protected:
  // Requests are recorded and handed over without a state machine reacting.
  void SetUp() override {
    StateMachineFixture::SetUp();
    probe = std::make_unique<PulseProbe>();
  }
  std::unique_ptr<PulseProbe> probe;
};

TEST_F(EmergencyRequestsTest, ModeTableDecidesTheCallMode) {
  extServHandle.mEmbeddedPhoneEnabled = false;
  ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_A);
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::NONE);
  EXPECT_EQ(logCount("Emergency event detected but since the VARIANT_ECELL indicates no embedded phone"), 1u);
  extServHandle.mEmbeddedPhoneEnabled = true;

  // A crash is a crash notification, started at once.
  ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_K);
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::CAN_IMPACT_K);
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ACN);
  EXPECT_EQ(probe->next(), ECALL_PULSE_START_CALL);

  // The same request again keeps what is in hand.
  ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_K);
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ACN);
  EXPECT_TRUE(log.hasTrace("ecall already requested. Current type 10"));

  // The first button press starts the delay.
  ecallHandler.setEcallFailedToStart();
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ECALL_DELAY);
  EXPECT_EQ(probe->next(), ECALL_PULSE_DELAY_START);

  // A crash during a button call turns it into a crash notification.
  ecallHandler.curCallModeType = ecallMain::CALL_ECALL;
  ecallHandler.emergencyHappened(ecallMain::SERIAL_IMPACT_A);
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::SERIAL_IMPACT_A);
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ACN);
  EXPECT_EQ(probe->next(), ECALL_PULSE_START_CALL);

  // The callback is recorded but started by the call state, not here.
  ecallHandler.setEcallFailedToStart();
  ecallHandler.emergencyHappened(ecallMain::Emergency_Callback);
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_EMERGENCY_CALLBACK);
  EXPECT_TRUE(log.hasTrace("Ecall type 4 not recognized.  Someone added types and code without updating function"));
  EXPECT_TRUE(log.hasSlog("Ecall type 4 not recognized."));

  ecallHandler.emergencyHappened(ecallMain::NONE);
  EXPECT_TRUE(log.hasTrace("Emergency request with type 0 (none).  Current active type 28"));
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::Emergency_Callback);
}

// A press while a call is under way: the LED blinks, the user interface is
// told it was a repeat, and the state machine gets a delay pulse.
TEST_F(EmergencyRequestsTest, ButtonPressDuringCallBlinksAndSignalsRepeat) {
  ecallHandler.localEcallNumber.set("911");
  ecallHandler.curECallType = ecallMain::E_CALL_BtnStat;
  ecallHandler.curCallModeType = ecallMain::CALL_ECALL;
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);

  EXPECT_EQ(probe->next(), ECALL_PULSE_DELAY_START);
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ECALL);
  // The blink returns to the steady state when its timer runs out.
  ASSERT_TRUE(waitForLog("send LED status", 2));
  EXPECT_TRUE(inOrder(logEntries(), {"ECall Button pressed again during ecall process. Send LED blink green",
                                     "send LED status 2", "send LED status 0"}));
  ASSERT_EQ(ecallSignals().size(), 1u);
  EXPECT_TRUE(ecallSignals()[0].ecall);
  EXPECT_EQ(ecallSignals()[0].type, "ecall_button_repeat");
  EXPECT_EQ(ecallSignals()[0].event, "E_CALL_BtnStat");
  EXPECT_EQ(ecallSignals()[0].phoneNumber, "");
}

// With the phone off the press is only recorded; once the phone is ON the
// cached press is served, and only while it is still waiting.
TEST_F(EmergencyRequestsTest, CachedRequestIsServedOnlyWhileStillWaiting) {
  ecallHandler.emdPhOn = 0;
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  EXPECT_TRUE(log.hasTrace("emergency happened. type 1, embedded phone not available"));
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::E_CALL_BtnStat);
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ECALL_DELAY);
  EXPECT_TRUE(fakeBus::emittedData("ecall").empty());

  ecallHandler.emdPhOn = 1;
  ecallHandler.curCallState.set("CALL_STATE_ACTIVE");  // a call on the phone: not now
  ecallHandler.processCachedEcallStatus();
  EXPECT_TRUE(log.hasTrace("Ecall caching status not handled. curECallType: 1, curCallModeType: 2, curCallState CALL_STATE_ACTIVE"));

  ecallHandler.curCallState.set("CALL_STATE_IDLE");
  ecallHandler.processCachedEcallStatus();
  EXPECT_EQ(logCount("Handle Ecall caching status. curECallType: 1, curCallModeType: 2, curCallState CALL_STATE_IDLE"), 1u);
  EXPECT_EQ(probe->next(), ECALL_PULSE_DELAY_START);
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ECALL_DELAY);
}

// A press that cannot be served: "please wait" while the phone may still come
// up, the system error otherwise, nothing when there is nothing to tell.
TEST_F(EmergencyRequestsTest, ButtonPressWithSystemErrorTellsTheUser) {
  platform::setTimeScale(1.0);  // timers still run when looked at
  ecallHandler.emdPhOn = 0;

  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  EXPECT_EQ(requestCount("displayGlobalPopupByMsgId"), 0u);
  EXPECT_TRUE(fakeBus::emittedData("ecall").empty());

  ecallHandler.setEcallFailedToStart();
  ecallHandler.systemError = 0x01;
  startPhoneNotPresentTimeoutTimer();
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  const auto popups = fakeBus::requests(HMI_GATEWAY_SERVICE, "displayGlobalPopupByMsgId");
  ASSERT_FALSE(popups.empty());
  EXPECT_EQ(popups[0].objPath, HMI_GATEWAY_PATH);
  EXPECT_EQ(popups[0].params, "{\"msgId\":2672,\"showonDisplayoff\":true,\"timeout\":5000}\n");
  EXPECT_GE(logCount("ECall Button pressed but embedded Phone is OFF. Request HMI to display please wait popup. "
                     "System error: 1"),
            1u);
  EXPECT_TRUE(fakeBus::emittedData("ecall").empty());
  stopPhoneNotPresentTimeoutTimer();

  // Any other failure is told as a system error; the press is still recorded.
  ecallHandler.setEcallFailedToStart();
  ecallHandler.emdPhOn = 1;
  ecallHandler.systemError = 0x40;
  fakeBus::clearCalls();
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  EXPECT_EQ(requestCount("displayGlobalPopupByMsgId"), 0u);
  EXPECT_EQ(logCount("Send System error message due to ECall Button press. System error 64"), 1u);
  ASSERT_EQ(ecallSignals().size(), 1u);
  EXPECT_FALSE(ecallSignals()[0].ecall);  // no emergency signalled before
  EXPECT_EQ(ecallSignals()[0].type, "systemError");
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ECALL_DELAY);
  EXPECT_EQ(probe->next(), ECALL_PULSE_DELAY_START);
}

TEST_F(EmergencyRequestsTest, ClearingTheRequestStopsTheDelayAndWakesTheMachine) {
  platform::setTimeScale(1.0);
  ecallHandler.curECallType = ecallMain::E_CALL_BtnStat;
  ecallHandler.curCallModeType = ecallMain::CALL_ECALL_DELAY;
  startDelayEcallStartTimer();
  ASSERT_TRUE(isTimerActive(timerDelayEcallStart));

  ecallHandler.clearECallEvent();
  EXPECT_FALSE(isTimerActive(timerDelayEcallStart));
  EXPECT_EQ(ecallHandler.getCurECallType(), ecallMain::NONE);
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_NONE);
  EXPECT_EQ(probe->next(), ECALL_PULSE_RUN_STATE_MACHINE);

  // The emergency mode's flag file exists exactly while the mode is on.
  ecallHandler.setEcallModeActive(true);
  EXPECT_TRUE(testSupport::fileExists(root.path("/tmp/embeddedCallActive")));
  ecallHandler.setEcallModeActive(false);
  EXPECT_FALSE(testSupport::fileExists(root.path("/tmp/embeddedCallActive")));
  EXPECT_FALSE(ecallHandler.getEcallModeActive());
}

// The Assist button only starts its time-out when nothing else owns the
// mirror LED.
TEST_F(EmergencyRequestsTest, AssistButtonStartsTimeoutOnlyWhenFree) {
  platform::setTimeScale(1.0);
  ecallHandler.ecallModeActive = true;
  ecallHandler.assistButtonPressed();
  EXPECT_FALSE(isRunningAssistTimeoutTimer());

  ecallHandler.ecallModeActive = false;
  ecallHandler.bAssistAppActive = true;
  ecallHandler.assistButtonPressed();
  EXPECT_FALSE(isRunningAssistTimeoutTimer());

  ecallHandler.bAssistAppActive = false;
  ecallHandler.assistButtonPressed();
  EXPECT_TRUE(isRunningAssistTimeoutTimer());
  stopAssistTimeoutTimer();
}

// Requests the phone service refuses are reported in their own words.
TEST_F(EmergencyRequestsTest, RefusedPhoneRequestsAreReported) {
  refuse(EMBEDDED_PHONE_SERVICE, "endActiveCall");
  refuse(EMBEDDED_PHONE_SERVICE, "acceptIncomingCall");
  refuse(EMBEDDED_PHONE_SERVICE, "debugAT");

  ecallHandler.hangUpCall();
  EXPECT_TRUE(log.hasTrace("failed to hangup, rc -"));
  EXPECT_TRUE(log.hasSlog("falied to hangup, rc 0x90000006"));

  EXPECT_FALSE(ecallHandler.acceptEmergencyCallback());
  EXPECT_TRUE(log.hasTrace("failed to acceptIncomingCall, rc -"));
  EXPECT_TRUE(log.hasSlog("falied to accecptIncomingCall, rc 0x90000006"));
  EXPECT_EQ(probe->next(), ECALL_PULSE_RUN_STATE_MACHINE);

  ecallHandler.exitEmergencyMode();
  EXPECT_TRUE(log.hasTrace("Failed to exit emergency mode, rc -"));
  EXPECT_TRUE(log.hasSlog("Failed to exit emergency mode, rc 0x90000006"));

  fakeBus::setReply(EMBEDDED_PHONE_SERVICE, "acceptIncomingCall", fakeBus::Reply{});
  EXPECT_TRUE(ecallHandler.acceptEmergencyCallback());
  const auto accepts = fakeBus::requests(EMBEDDED_PHONE_SERVICE, "acceptIncomingCall");
  ASSERT_EQ(accepts.size(), 2u);
  EXPECT_EQ(accepts[1].context, "acceptIncomingCall");
  EXPECT_EQ(accepts[1].objPath, EMBEDDED_PHONE_PATH);
}

}  // namespace
}  // namespace smTest
