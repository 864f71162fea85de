// The failure word and what the user is told of it, the phone's presence and
// status, the module resets of a silent phone, and the antenna.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <tuple>

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

TEST_F(PhoneStatusTest, VariantWithoutPhoneKeepsTheWordButTellsNobody) {
  extServHandle.mEmbeddedPhoneEnabled = false;
  fail(EMBEDDED_PHONE_NOT_PRESENT);
  fail(ANTENNA_FAULT);
  fail(EMBEDDED_PHONE_NOT_PRESENT, false);
  EXPECT_EQ(ANTENNA_BIT, word());
  EXPECT_TRUE(fakeBus::emittedData("ecall").empty());
  EXPECT_EQ(1u, emergencyLogCount("VARIANT_ECELL"));
  EXPECT_EQ(1u, emergencyLogCount("System error occurred, but since the VARIANT_ECELL indicates no embedded phone, "
                                  "do not act on the event\n"));
  EXPECT_EQ(0u, emergencyLogCount("send LED status"));
}

TEST_F(PhoneStatusTest, RegistrationWithoutPhoneServiceSubscribesAndWaitsForIt) {
  fakeBus::setOwner(EMBEDDED_PHONE_SERVICE, false);
  ecallHandler.registerEmdPhSvc();

  auto owner = fakeBus::callsOf(fakeBus::Call::SubscribeOwner);
  ASSERT_EQ(1u, owner.size());
  EXPECT_EQ(EMBEDDED_PHONE_SERVICE, owner[0].busName);
  using Sub = std::tuple<std::string, std::string, std::string>;
  const std::string ep = EMBEDDED_PHONE_PATH, am = APP_MANAGER_PATH, ctx = "ecallProcessor";
  const std::vector<Sub> expected = {
      {ep, "callState", ctx},      {ep, "embeddedPhoneStatus", ctx},  {ep, "wendReason", ctx},
      {ep, "antennaStatus", ctx},  {TTS_PATH, "ttsPlayState", ctx},   {BLUETOOTH_PATH, "callState", "callstate"},
      {AUDIO_CTRL_PATH, "DTMF", ctx}, {am, "operStatus", ctx},        {am, "appStarted", ctx},
      {am, "appStopped", ctx},     {am, "appPaused", ctx}};
  std::vector<Sub> made;
  for (const auto& c : fakeBus::callsOf(fakeBus::Call::Subscribe)) made.emplace_back(c.objPath, c.method, c.context);
  EXPECT_EQ(expected, made);
  EXPECT_TRUE(isTimerActive(timerTimeoutPhoneNotPresent));
  EXPECT_EQ(0u, phoneRequests("getProperties"));
}

TEST_F(PhoneStatusTest, PhoneServiceArrivingAndLeaving) {
  fakeBus::setOwner(EMBEDDED_PHONE_SERVICE, false);
  ecallHandler.registerEmdPhSvc();
  fail(EMBEDDED_PHONE_SERVICE_NOT_RUNNING);
  answer("getProperties", phoneOn);
  answer("getEmergencyNumbers", R"({"count":1,"numberList":["911"]})");
  answer("getAntennaStatus", R"({"description":"success","status":"PHONE_DIAG_ANTENNA_OPEN"})");

  ASSERT_EQ(1, fakeBus::changeOwner(EMBEDDED_PHONE_SERVICE, "", ":1.8"));
  auto status = fakeBus::requests(EMBEDDED_PHONE_SERVICE, "getProperties");
  ASSERT_EQ(1u, status.size());
  EXPECT_EQ("{\"props\":[\"embeddedPhoneStatus\"]}\n", status[0].params);
  EXPECT_EQ(1, ecallHandler.emdPhOn.load());
  EXPECT_EQ(0u, word());
  EXPECT_FALSE(isTimerActive(timerTimeoutPhoneNotPresent));
  EXPECT_EQ("911", ecallHandler.getLocalEcallNumber());
  EXPECT_TRUE(isTimerActive(timerTimeoutAntennaFault));
  EXPECT_EQ(1u, emergencyLogCount("Get Embedded Phone Status: change from UNKNOWN to ON\n"));

  // Losing the service is not yet a failure; staying away is.
  ASSERT_EQ(1, fakeBus::changeOwner(EMBEDDED_PHONE_SERVICE, ":1.8", ""));
  EXPECT_EQ(0, embeddedPhAvail.load());
  EXPECT_EQ(0, ecallHandler.emdPhOn.load());
  EXPECT_TRUE(isTimerActive(timerTimeoutPhoneNotPresent));
  EXPECT_EQ(0u, word());
}

TEST_F(PhoneStatusTest, PhoneBackOnServesTheEmergencyRaisedWhileOffExactlyOnce) {
  embeddedPhAvail = 1;
  ecallHandler.emdPhOn = 0;
  ecallHandler.curECallType = ecallMain::CAN_IMPACT_A;
  ecallHandler.curCallModeType = ecallMain::CALL_ACN;
  startSierraNoCommTimer();
  answer("getProperties", phoneOn);
  answer("getEmergencyNumbers", R"({"count":1,"numberList":["911"]})");
  ecallHandler.getEmdPhStatus();
  ecallHandler.getEmdPhStatus();
  EXPECT_EQ(1u, log.countTrace("Emergency happened. type 2."));
  EXPECT_EQ(ecallMain::CAN_IMPACT_A, ecallHandler.getCurECallType());
  EXPECT_FALSE(isTimerActive(timerDelaySysErr4NoSierraComm));
  EXPECT_EQ(1u, emergencyLogCount("Got Phone Status: ON. Stop delay System Error popup timer. Roll back reset "
                                  "counter. System err 0\n"));
}

TEST_F(PhoneStatusTest, PhoneOffAtStartGivesTheModuleTheDelayOnce) {
  answer("getProperties", R"({"embeddedPhoneStatus":{"status":false}})");
  answer("getUsbPorts", R"({"ports":["usb0","usb1"]})");
  ecallHandler.getEmdPhStatus();
  EXPECT_TRUE(isTimerActive(timerDelaySysErr4NoSierraComm));
  EXPECT_TRUE(isTimerActive(timerTimeoutPhoneNotPresent));
  EXPECT_EQ(1u, emergencyLogCount("Get Embedded Phone Status: change from UNKNOWN to OFF. SWIUSB ports: usb0, usb1\n"));
  EXPECT_EQ(1u, emergencyLogCount("Got Phone Status: OFF at startup. Start delay System Error popup timer\n"));

  stopSierraNoCommTimer();
  ecallHandler.getEmdPhStatus();
  EXPECT_FALSE(isTimerActive(timerDelaySysErr4NoSierraComm));
  EXPECT_EQ(1u, phoneRequests("getUsbPorts"));
}

TEST_F(PhoneStatusTest, SilentModuleIsResetUntilNoResetIsLeft) {
  // The vehicle micro's end of the controller channel.
  const std::string path = root.path(orcIpcChannelPath);
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  const int listener = socket(AF_UNIX, SOCK_SEQPACKET, 0);
  sockaddr_un addr{AF_UNIX, {}};
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
  ASSERT_EQ(0, listen(listener, 1));
  ASSERT_TRUE(canIpcEmergencyHandler.openOrcIpcChannel());
  const int micro = accept(listener, nullptr, nullptr);
  embeddedPhAvail = 1;
  ecallHandler.emdPhOn = 0;

  ecallHandler.onPhoneNotPresentTimeout();
  EXPECT_TRUE(isTimerActive(timerDelaySysErr4NoSierraComm));
  ecallHandler.onPhoneNotPresentTimeout();  // the module is being given its time
  ecallHandler.onDelaySysErrTimeout();
  ecallHandler.onDelaySysErrTimeout();
  EXPECT_EQ(0u, word());
  ecallHandler.onDelaySysErrTimeout();
  EXPECT_EQ(NOT_PRESENT_BIT, word());

  EXPECT_EQ(1u, emergencyLogCount("Phone not present timer is off. Already requested V850 to reset Sierra Module. "
                                  "Start 5 min timer\n"));
  EXPECT_EQ(1u, emergencyLogCount("Delay Sys Err popup timer is still active. do nothing\n"));
  EXPECT_EQ(2u, emergencyLogCount("Delay System Error timer is off. Already requested V850 to reset Sierra Module. "
                                  "Restart 5 min timer\n"));
  EXPECT_EQ(1u, emergencyLogCount("After all V850 resets, Emb Phone status is still OFF. Set System error\n"));
  std::vector<uint8_t> resets;
  uint8_t msg[16];
  while (recv(micro, msg, sizeof msg, MSG_DONTWAIT) > 0)
    if (msg[0] == ORC_MSG_RESET_CELL_MODULE) resets.push_back(msg[0]);
  EXPECT_EQ(3u, resets.size());
  close(micro);
  close(listener);
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
  for (const auto& request : fakeBus::requests(EMBEDDED_PHONE_SERVICE, ""))
    EXPECT_EQ(fakeBus::Call::AsyncInvoke, request.kind) << request.method;
}

}  // namespace
