// The failure word and what the user is told of it, the phone's presence and
// status reports, and the antenna.
#include "phoneFixture.h"

using namespace phoneTest;
using namespace ecallSystemFailure;

namespace {

constexpr uint32_t NOT_PRESENT_BIT = 0x01, SERVICE_BIT = 0x04, ANTENNA_BIT = 0x40;
const char* const phoneOn = R"({"embeddedPhoneStatus":{"status":true}})";

class PhoneStatusTest : public ProcessorFixture {
 protected:
  void SetUp() override {
    ProcessorFixture::SetUp();
    createTimersOnTestChannel();
  }
  void fail(eSource source, bool failed = true) { ecallHandler.setEcallSystemFailureState(source, failed); }
  uint32_t word() const { return ecallHandler.systemError.load(); }
  size_t systemErrorSignals() const {
    size_t n = 0;
    for (const auto& data : fakeBus::emittedData("ecall")) n += data.find("\"type\":\"systemError\"") != std::string::npos;
    return n;
  }
};

TEST_F(PhoneStatusTest, FailureWordHoldsOneBitPerSourceAndLogsEveryEvent) {
  fail(ANTENNA_FAULT);
  fail(ANTENNA_FAULT);
  fail(NO_ECALL_NUMBER, false);
  fail(SOURCE_NONE);
  EXPECT_EQ(ANTENNA_BIT, word());
  EXPECT_EQ(2u, emergencyLogCount("System error antenna fault OCCURRED\n"));
  EXPECT_EQ(1u, emergencyLogCount("System error no ecall number programmed CLEARED\n"));
  EXPECT_EQ(1u, emergencyLogCount("System error none OCCURRED\n"));
}

TEST_F(PhoneStatusTest, FirstSystemErrorIsToldOnceButNotWhileTheModuleIsGivenTime) {
  platform::setTimeScale(0.001);
  startSierraNoCommTimer();
  fail(ANTENNA_FAULT);
  EXPECT_EQ(0u, systemErrorSignals());
  EXPECT_EQ(1u, emergencyLogCount("Suppress emitting System error antenna fault. delaySysErrTimer is active. "
                                  "current SystemError = 64\n"));

  ASSERT_TRUE(testSupport::waitUntil([] { return !isTimerActive(timerDelaySysErr4NoSierraComm); }));
  fail(NO_ECALL_NUMBER);
  fail(ANTENNA_FAULT, false);
  fail(NO_ECALL_NUMBER, false);
  fail(EMBEDDED_PHONE_NOT_PRESENT);
  EXPECT_EQ(1u, systemErrorSignals());
  EXPECT_EQ(1u, emergencyLogCount("First System error message generated due to no ecall number programmed, "
                                  "current SystemError = 192\n"));
}

TEST_F(PhoneStatusTest, LedIsRedWhileAnySourceFailsUnlessACallTookItOver) {
  fail(EMBEDDED_PHONE_NOT_PRESENT);
  fail(ANTENNA_FAULT);
  fail(EMBEDDED_PHONE_NOT_PRESENT, false);
  EXPECT_EQ(LED_RED, canIpcEmergencyHandler.getLastLedSetStatus());
  EXPECT_EQ(1u, emergencyLogCount("System error handling set LED to 3\n"));
  fail(ANTENNA_FAULT, false);
  EXPECT_EQ(LED_OFF, canIpcEmergencyHandler.getLastLedSetStatus());

  fail(MIRROR_LOC);
  canIpcEmergencyHandler.setLedStatus(LED_SOLID_GREEN);
  fail(MIRROR_LOC, false);
  EXPECT_EQ(LED_SOLID_GREEN, canIpcEmergencyHandler.getLastLedSetStatus());
  EXPECT_EQ(1u, emergencyLogCount("System error handling set LED to 0\n"));
}

TEST_F(PhoneStatusTest, PhoneNotPresentTimeoutWithoutServiceOrResets) {
  embeddedPhAvail = 0;
  ecallHandler.emdPhOn = 1;
  ecallHandler.onPhoneNotPresentTimeout();
  ecallHandler.onDelaySysErrTimeout();
  EXPECT_TRUE(log.hasTrace("Phone service not available after a timeout of 30000ms"));
  EXPECT_EQ(SERVICE_BIT, word());
  EXPECT_FALSE(log.hasTrace("write IPC for reset"));

  ecallHandler.emdPhOn = 0;  // and no controller channel to ask for a reset
  ecallHandler.onPhoneNotPresentTimeout();
  EXPECT_EQ(1u, emergencyLogCount("Phone still not present after all V850 resets. Set system error\n"));
  EXPECT_EQ(SERVICE_BIT | NOT_PRESENT_BIT, word());
}

TEST_F(PhoneStatusTest, AntennaFaultCountsOnlyWhenItLasts) {
  ecallHandler.processAntennaStatusSignal(R"({"description":"success","status":"PHONE_DIAG_ANTENNA_OPEN"})");
  EXPECT_TRUE(isTimerActive(timerTimeoutAntennaFault));
  EXPECT_EQ(0u, word());
  ecallHandler.processAntennaStatusSignal(R"({"description":"failure","status":"PHONE_DIAG_ANTENNA_NORMAL"})");
  ecallHandler.processAntennaStatusSignal(R"({"status":"PHONE_DIAG_ANTENNA_NORMAL"})");
  EXPECT_TRUE(isTimerActive(timerTimeoutAntennaFault));

  ecallHandler.onAntennaFaultTimeout();
  EXPECT_EQ(ANTENNA_BIT, word());
  ecallHandler.processAntennaStatusSignal(R"({"description":"success","status":"PHONE_DIAG_ANTENNA_NORMAL"})");
  EXPECT_FALSE(isTimerActive(timerTimeoutAntennaFault));
  EXPECT_EQ(0u, word());
}

TEST_F(PhoneStatusTest, StatusSignalsReactWithoutBlockingTheBusThread) {
  embeddedPhAvail = 1;
  ecallHandler.emdPhOn = 0;
  ecallHandler.curECallType = ecallMain::E_CALL_BtnStat;  // a press cached while OFF
  ecallHandler.curCallModeType = ecallMain::CALL_ECALL_DELAY;
  startPhoneNotPresentTimeoutTimer();
  answer("getEmergencyNumbers", R"({"count":1,"numberList":["112"]})");
  answer("getAntennaStatus", R"({"description":"success","status":"PHONE_DIAG_ANTENNA_SHORT"})");
  answer("getUsbPorts", R"({"ports":["usb0"]})");

  ecallHandler.processEmdPhStatusSignal(phoneOn);
  ecallHandler.processEmdPhStatusSignal(R"({"status":true})");  // the press in hand is not cached
  fakeBus::drain();
  EXPECT_EQ(1u, emergencyLogCount("Handle Ecall caching status"));
  EXPECT_FALSE(isTimerActive(timerTimeoutPhoneNotPresent));
  EXPECT_EQ("112", ecallHandler.getLocalEcallNumber());
  EXPECT_TRUE(isTimerActive(timerTimeoutAntennaFault));

  ecallHandler.processEmdPhStatusSignal(R"({"unrelated":1})");
  EXPECT_EQ(1, ecallHandler.emdPhOn.load());
  ecallHandler.processEmdPhStatusSignal(R"({"status":false})");
  ecallHandler.processEmdPhStatusSignal(R"({"status":false})");
  fakeBus::drain();
  EXPECT_EQ(0, ecallHandler.emdPhOn.load());
  EXPECT_TRUE(isTimerActive(timerTimeoutPhoneNotPresent));
  EXPECT_EQ(1u, emergencyLogCount("SWIUSB ports: usb0\n"));
  for (const auto& request : fakeBus::callsOf(fakeBus::Call::Invoke))
    EXPECT_NE(EMBEDDED_PHONE_SERVICE, request.busName) << request.method;
}

}  // namespace
