// The failure word and what the user is told of it, the phone's presence and
// status reports, the antenna, the module's USB ports, and the start-up.
#include <algorithm>

#include "smFixture.h"

using namespace smTest;
using namespace ecallSystemFailure;

namespace {

constexpr uint32_t NOT_PRESENT_BIT = 0x01, SERVICE_BIT = 0x04, ANTENNA_BIT = 0x40;
const char* const phoneOn = R"({"embeddedPhoneStatus":{"status":true}})";

class PhoneStatusTest : public PhoneFixture {
 protected:
  void SetUp() override {
    PhoneFixture::SetUp();
    createProcessorTimers(qnx::ChannelCreate(0));  // pulses no state machine reacts to
  }
  void fail(eSource source, bool failed = true) { ecallHandler.setEcallSystemFailureState(source, failed); }
  uint32_t word() const { return ecallHandler.systemError.load(); }
  size_t systemErrorSignals() const {
    size_t n = 0;
    for (const auto& data : fakeBus::emittedData("ecall")) n += data.find("\"type\":\"systemError\"") != std::string::npos;
    return n;
  }
};

// The bit of each source and the log of every event are seen end to end; an
// event of no source is logged and changes no bit.
TEST_F(PhoneStatusTest, EventOfNoSourceChangesNoBit) {
  fail(ANTENNA_FAULT);
  fail(SOURCE_NONE);
  EXPECT_EQ(ANTENNA_BIT, word());
  EXPECT_EQ(1u, logCount("System error none OCCURRED"));
}

TEST_F(PhoneStatusTest, FirstSystemErrorIsToldOnceButNotWhileTheModuleIsGivenTime) {
  platform::setTimeScale(0.001);
  startSierraNoCommTimer();
  fail(ANTENNA_FAULT);
  EXPECT_EQ(0u, systemErrorSignals());
  EXPECT_EQ(1u, logCount("Suppress emitting System error antenna fault. delaySysErrTimer is active. "
                         "current SystemError = 64"));

  ASSERT_TRUE(testSupport::waitUntil([] { return !isTimerActive(timerDelaySysErr4NoSierraComm); }));
  fail(NO_ECALL_NUMBER);
  fail(ANTENNA_FAULT, false);
  fail(NO_ECALL_NUMBER, false);
  fail(EMBEDDED_PHONE_NOT_PRESENT);
  EXPECT_EQ(1u, systemErrorSignals());
  EXPECT_EQ(1u, logCount("First System error message generated due to no ecall number programmed, "
                         "current SystemError = 192"));
}

// The LED follows the failures (red while any stands, off with the last),
// unless a call has taken it over since.
TEST_F(PhoneStatusTest, ClearedFailureLeavesTheLedOfACall) {
  fail(MIRROR_LOC);
  EXPECT_EQ(LED_RED, canIpcEmergencyHandler.getLastLedSetStatus());
  canIpcEmergencyHandler.setLedStatus(LED_SOLID_GREEN);
  fail(MIRROR_LOC, false);
  EXPECT_EQ(LED_SOLID_GREEN, canIpcEmergencyHandler.getLastLedSetStatus());
  EXPECT_EQ(0u, logCount("System error handling set LED to 0"));
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
  EXPECT_EQ(1u, logCount("Phone still not present after all V850 resets. Set system error"));
  EXPECT_EQ(SERVICE_BIT | NOT_PRESENT_BIT, word());
}

// A lasting fault and a normal report are seen end to end; a normal status
// without a successful reading clears nothing.
TEST_F(PhoneStatusTest, AntennaNormalWithoutSuccessClearsNothing) {
  ecallHandler.processAntennaStatusSignal(R"({"description":"success","status":"PHONE_DIAG_ANTENNA_OPEN"})");
  ecallHandler.processAntennaStatusSignal(R"({"description":"failure","status":"PHONE_DIAG_ANTENNA_NORMAL"})");
  ecallHandler.processAntennaStatusSignal(R"({"status":"PHONE_DIAG_ANTENNA_NORMAL"})");
  EXPECT_TRUE(isTimerActive(timerTimeoutAntennaFault));
  ecallHandler.onAntennaFaultTimeout();
  EXPECT_EQ(ANTENNA_BIT, word());
}

// The phone's status report is handled on the bus thread: whatever it
// starts is asked for without waiting for an answer; a report without a
// status, or a repeated one, changes nothing.
TEST_F(PhoneStatusTest, StatusSignalsAskWithoutWaitingAndRepeatsChangeNothing) {
  ecallHandler.emdPhOn = 0;
  startPhoneNotPresentTimeoutTimer();
  ecallHandler.processEmdPhStatusSignal(phoneOn);
  ecallHandler.processEmdPhStatusSignal(R"({"unrelated":1})");
  EXPECT_EQ(1, ecallHandler.emdPhOn.load());
  EXPECT_FALSE(isTimerActive(timerTimeoutPhoneNotPresent));
  ecallHandler.processEmdPhStatusSignal(R"({"status":false})");
  ecallHandler.processEmdPhStatusSignal(R"({"status":false})");
  fakeBus::drain();
  EXPECT_EQ(0, ecallHandler.emdPhOn.load());
  EXPECT_TRUE(isTimerActive(timerTimeoutPhoneNotPresent));
  EXPECT_EQ(1u, logCount("SWIUSB ports:"));
  EXPECT_FALSE(fakeBus::callsOf(fakeBus::Call::AsyncInvoke).empty());
  for (const auto& request : fakeBus::callsOf(fakeBus::Call::Invoke))
    EXPECT_NE(EMBEDDED_PHONE_SERVICE, request.busName) << request.method;
}

TEST(SwiUsbPortsText, EveryReplyForm) {
  EXPECT_EQ("usb0, usb1", ecallProcessor::parseSWIUSBPortsStr(R"({"code":0,"ports":["usb0","usb1"]})"));
  EXPECT_EQ("a, , b", ecallProcessor::parseSWIUSBPortsStr(R"({"ports":["a",null,"b"]})"));
  EXPECT_EQ("Read Failure", ecallProcessor::parseSWIUSBPortsStr(R"({"code":2,"ports":["usb0"]})"));
  EXPECT_EQ("", ecallProcessor::parseSWIUSBPortsStr(R"({"ports":[]})"));
  EXPECT_EQ("", ecallProcessor::parseSWIUSBPortsStr("{}"));
  EXPECT_EQ("", ecallProcessor::parseSWIUSBPortsStr(R"({"ports":"usb0"})"));
  EXPECT_EQ("", ecallProcessor::parseSWIUSBPortsStr(R"(["usb0"])"));
}

TEST_F(PhoneStatusTest, UsbPortsFailureReadsAsReadFailure) {
  answer("getUsbPorts", "", kRefused);
  EXPECT_EQ("Read Failure", ecallHandler.getSWIUSBPorts());
  EXPECT_EQ("", fakeBus::requests(EMBEDDED_PHONE_SERVICE, "getUsbPorts").at(0).params);

  fakeBus::setReply(EMBEDDED_PHONE_SERVICE, "getUsbPorts", {.callbackErr = kRefused});
  ecallHandler.asyncRequestSWIUSBPorts();
  fakeBus::drain();
  EXPECT_EQ(1u, logCount("SWIUSB ports: Read Failure"));
}

// Start-up of the processor: version line, locks, state machine thread,
// subscriptions and volumes, in that order.
TEST_F(PhoneFixture, ProcessorStartsInOrder) {
  EXPECT_EQ(1u, logCount("ECall Service Version 1.2.1r"));
  fakeBus::setOwner(EMBEDDED_PHONE_SERVICE, false);

  ecallHandler.initEcallProcessor();

  EXPECT_TRUE(uselogWriteMutex.load());
  EXPECT_TRUE(useGeneralEcallProcessorMutex.load());
  EXPECT_GT(stateMachineThreadSendChannelId.load(), 0);
  // The timers exist by the time the registration starts one of them.
  EXPECT_TRUE(isTimerActive(timerTimeoutPhoneNotPresent));

  const auto calls = fakeBus::calls();
  auto first = [&](auto pred) { return std::find_if(calls.begin(), calls.end(), pred) - calls.begin(); };
  const auto ownerWatch = first([](const fakeBus::Call& c) { return c.kind == fakeBus::Call::SubscribeOwner; });
  const auto appPaused = first([](const fakeBus::Call& c) { return c.method == "appPaused"; });
  const auto volumes = first([](const fakeBus::Call& c) { return c.busName == AUDIO_MIXER_SERVICE; });
  EXPECT_LT(ownerWatch, appPaused);
  EXPECT_LT(appPaused, volumes);
  EXPECT_LT(volumes, static_cast<long>(calls.size()));
}

}  // namespace
