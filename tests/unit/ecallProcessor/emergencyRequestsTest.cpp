// Emergency requests and call modes: the mode a request gets, the pulse that
// wakes the state machine, what is cached while the phone is off, presses
// during and after a call, and refused phone requests.
#include <algorithm>

#include "smFixture.h"

namespace smTest {
namespace {

using EmergencyRequestsTest = StateMachineFixture;

// A crash or a press from idle, and a vehicle without the phone, are seen
// end to end.
TEST_F(EmergencyRequestsTest, ModeTableDecidesTheCallMode) {
  PulseProbe probe;
  ecallHandler.curECallType = ecallMain::CAN_IMPACT_K;
  ecallHandler.curCallModeType = ecallMain::CALL_ACN;
  ecallHandler.emergencyHappened(ecallMain::CAN_IMPACT_K);  // a repeat keeps what is in hand
  EXPECT_EQ(ecallHandler.getCurCallModeType(), ecallMain::CALL_ACN);
  EXPECT_TRUE(log.hasTrace("ecall already requested. Current type 10"));

  ecallHandler.curECallType = ecallMain::E_CALL_BtnStat;
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
  ecallHandler.curECallType = ecallMain::E_CALL_BtnStat;
  ecallHandler.curCallModeType = ecallMain::CALL_ECALL;
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  EXPECT_EQ(probe.next(), ECALL_PULSE_DELAY_START);
  ASSERT_TRUE(waitForLog("send LED status", 2));
  EXPECT_EQ(logCount("ECall Button pressed again during ecall process. Send LED blink green"), 1u);
  std::vector<std::string> led;
  for (const std::string& entry : logEntries())
    if (entry.rfind("send LED status", 0) == 0) led.push_back(entry);
  EXPECT_EQ(led, (std::vector<std::string>{"send LED status 2", "send LED status 0"}));
  EXPECT_EQ(ecallSignalSummary(), std::vector<std::string>{"true:ecall_button_repeat"});
}

// A press kept while the phone is off is served once when it comes on,
// however many reports of its return follow.
TEST_F(EmergencyRequestsTest, CachedRequestIsServedOnceWhenThePhoneReturns) {
  PulseProbe probe;
  ecallHandler.emdPhOn = 0;
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);

  ecallHandler.emdPhOn = 1;
  ecallHandler.processCachedEcallStatus();
  EXPECT_EQ(probe.next(), ECALL_PULSE_DELAY_START);
  ecallHandler.processCachedEcallStatus();
  EXPECT_TRUE(log.hasTrace("Ecall caching status not handled. curECallType: 1, curCallModeType: 2"));
}

// A second press during the delay is the user's cancel; the callback period
// follows, and a press in it is dialled at once, without leaving the
// emergency mode.
TEST_F(EmergencyRequestsTest, SecondPressCancelsTheDelayAndAThirdRedials) {
  platform::setTimeScale(0.05);  // 500 ms delay, 1.5 s callback period: room for the presses
  ASSERT_NO_FATAL_FAILURE(startService());
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  ASSERT_TRUE(waitForLog("Ecall delay 10 before calling"));
  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  ASSERT_TRUE(waitForLog("TTS rqst 3"));
  ASSERT_NO_FATAL_FAILURE(waitUntilMachineCaughtUp());  // a stray run pulse does not cut the period short
  EXPECT_EQ(logCount("End emergency mode"), 0u);
  EXPECT_EQ(requestCount("ecallDial"), 0u);

  ecallHandler.emergencyHappened(ecallMain::E_CALL_BtnStat);
  ASSERT_TRUE(waitForRequests("ecallDial", 1));
  EXPECT_EQ(logCount("ecall/acr happened during wait for exit emergency mode"), 1u);
  ecallHandler.clearECallEvent();
  ASSERT_TRUE(waitForIdle());
  EXPECT_EQ(logCount("End emergency mode"), 1u);
  EXPECT_EQ(ecallSignalSummary(), (std::vector<std::string>{"true:ecallDelay", "false:none", "true:redial_during_end",
                                                            "false:none", "false:none"}));
}

// A call that ends before it is answered is failed and dialled again after
// the retry period for as long as the request stands; the failure is logged
// once.
TEST_F(EmergencyRequestsTest, CallsEndingBeforeTheyAreAnsweredAreRedialled) {
  ASSERT_NO_FATAL_FAILURE(startService());
  auto callState = [](const std::string& state) {
    signal(EMBEDDED_PHONE_PATH, "callState", R"({"callStateInfo":[{"callState":")" + state + R"(","callType":1,"number":"911"}]})");
  };
  ecallHandler.emergencyHappened(ecallMain::SERIAL_IMPACT_X);
  for (size_t dials = 1; dials <= 2; ++dials) {
    ASSERT_TRUE(waitForRequests("ecallDial", dials));
    callState("CALL_STATE_DIALING");
    ASSERT_TRUE(testSupport::waitUntil([&] { return log.countTrace("callstate alerting. wait to connect") >= dials; }));
    callState("CALL_STATE_TERMINATED");
  }
  ASSERT_TRUE(waitForRequests("ecallDial", 3));
  EXPECT_EQ(logCount("Error Call Failed"), 1u);
  ecallHandler.clearECallEvent();
  ASSERT_TRUE(waitForIdle());
  const std::vector<std::string> signals = ecallSignalSummary();
  EXPECT_EQ(std::count(signals.begin(), signals.end(), "true:failed"), 2) << testing::PrintToString(signals);
}

// Requests the phone service refuses, and asynchronous results that fail,
// are reported in their own words; a cancelled one is not a failure.
TEST_F(EmergencyRequestsTest, RefusedAndFailedRequestsAreReported) {
  PulseProbe probe;
  for (const char* method : {"endActiveCall", "acceptIncomingCall", "debugAT"})
    answer(method, "{}", kRefused);
  ecallHandler.hangUpCall();
  EXPECT_FALSE(ecallHandler.acceptEmergencyCallback());
  ecallHandler.exitEmergencyMode();
  for (const char* text : {"failed to hangup, rc -", "failed to acceptIncomingCall, rc -", "Failed to exit emergency mode, rc -"})
    EXPECT_TRUE(log.hasTrace(text)) << text;
  for (const char* text : {"falied to hangup, rc 0x90000006", "falied to accecptIncomingCall, rc 0x90000006",
                           "Failed to exit emergency mode, rc 0x90000006"})
    EXPECT_TRUE(log.hasSlog(text)) << text;
  EXPECT_EQ(probe.next(), ECALL_PULSE_RUN_STATE_MACHINE);  // the answer step looks again at once

  const SVCIPC_tCallbackStatus ok{SVCIPC_ERROR_NONE, nullptr, nullptr};
  ecallProcessor::onAsyncResult(&ok, "{\"x\":1}", const_cast<char*>("dial"));
  EXPECT_TRUE(log.hasTrace("onAsyncResult[dial]: {\"x\":1}"));
  const SVCIPC_tCallbackStatus cancelled{SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_IPC_LIB, SVCIPC_ERR_CANCELLED), nullptr, nullptr};
  ecallProcessor::onAsyncResult(&cancelled, nullptr, const_cast<char*>("endActiveCall"));
  const SVCIPC_tCallbackStatus failed{SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, 8), "e", "m"};  // code 8, not the library's
  ecallProcessor::onAsyncResult(&failed, nullptr, const_cast<char*>("debugAT"));
  EXPECT_FALSE(log.hasSlog("Async call endActiveCall"));
  EXPECT_TRUE(log.hasSlog("Async call debugAT failed: 0x90000008"));
}

}  // namespace
}  // namespace smTest
