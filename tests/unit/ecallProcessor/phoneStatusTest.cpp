// The failure word and what the user is told of it, the phone's presence and
// status, the module resets of a silent phone, and the antenna.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <tuple>

#include "ecallMain/ecallMain.h"
#include "phoneFixture.h"

using namespace phoneTest;
using ecallSystemFailure::eSource;

namespace {

constexpr uint32_t NOT_PRESENT = 0x01;
constexpr uint32_t SERVICE_NOT_RUNNING = 0x04;
constexpr uint32_t ANTENNA = 0x40;

// The vehicle micro's end of the restraint controller channel.
class ControllerSocket {
 public:
  explicit ControllerSocket(const std::string& path) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    mListen = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    EXPECT_EQ(0, bind(mListen, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
    EXPECT_EQ(0, listen(mListen, 1));
  }
  ~ControllerSocket() {
    if (mPeer >= 0) close(mPeer);
    close(mListen);
  }
  void acceptService() { mPeer = accept(mListen, nullptr, nullptr); }
  // Every message written so far, first bytes only.
  std::vector<uint8_t> received() {
    std::vector<uint8_t> out;
    uint8_t buf[16];
    while (recv(mPeer, buf, sizeof buf, MSG_DONTWAIT) > 0) out.push_back(buf[0]);
    return out;
  }

 private:
  int mListen = -1;
  int mPeer = -1;
};

class PhoneStatusTest : public ProcessorFixture {
 protected:
  void SetUp() override {
    ProcessorFixture::SetUp();
    createTimersOnTestChannel();
  }
  size_t systemErrorSignals() {
    size_t n = 0;
    for (const auto& data : fakeBus::emittedData("ecall"))
      if (data.find("\"type\":\"systemError\"") != std::string::npos) ++n;
    return n;
  }
};

TEST_F(PhoneStatusTest, FailureWordHoldsOneBitPerSourceAndLogsEveryEvent) {
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::ANTENNA_FAULT, true);
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::ANTENNA_FAULT, true);
  EXPECT_EQ(ANTENNA, ecallHandler.systemError.load());

  // Clearing a source that never failed changes nothing but is still logged.
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::NO_ECALL_NUMBER, false);
  EXPECT_EQ(ANTENNA, ecallHandler.systemError.load());
  EXPECT_EQ(1u, emergencyLogCount("System error no ecall number programmed CLEARED\n"));

  // Source 0 owns no bit.
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::SOURCE_NONE, true);
  EXPECT_EQ(ANTENNA, ecallHandler.systemError.load());
  EXPECT_EQ(1u, emergencyLogCount("System error none OCCURRED\n"));
  EXPECT_EQ(2u, emergencyLogCount("System error antenna fault OCCURRED\n"));
  EXPECT_TRUE(log.hasTrace("Ecall System failure source received \"antenna fault\":true"));

  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::ANTENNA_FAULT, false);
  EXPECT_EQ(0u, ecallHandler.systemError.load());
}

TEST_F(PhoneStatusTest, FirstFailureIsToldOnceAndOnlyOnce) {
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::EMBEDDED_PHONE_NOT_PRESENT, true);
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::ANTENNA_FAULT, true);
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::EMBEDDED_PHONE_NOT_PRESENT, false);
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::ANTENNA_FAULT, false);
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::ORC_CAN_LOC, true);

  EXPECT_EQ(1u, systemErrorSignals());
  EXPECT_TRUE(systemErrorSent.load());
  EXPECT_EQ(1u, emergencyLogCount("First System error message generated due to embedded phone not present, "
                                  "current SystemError = 1\n"));
}

TEST_F(PhoneStatusTest, DelayTimerHoldsBackTheFirstSystemErrorUntilItExpires) {
  platform::setTimeScale(0.001);
  startSierraNoCommTimer();
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::ANTENNA_FAULT, true);
  EXPECT_EQ(0u, systemErrorSignals());
  EXPECT_FALSE(systemErrorSent.load());
  EXPECT_EQ(1u, emergencyLogCount(
                    "Suppress emitting System error antenna fault. delaySysErrTimer is active. current SystemError = 64\n"));

  ASSERT_TRUE(testSupport::waitUntil([] { return !isTimerActive(timerDelaySysErr4NoSierraComm); }));
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::NO_ECALL_NUMBER, true);
  EXPECT_EQ(1u, systemErrorSignals());
  EXPECT_TRUE(systemErrorSent.load());
}

TEST_F(PhoneStatusTest, LedShowsRedWhileAnySourceFailsAndLeavesAnotherStatusAlone) {
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::EMBEDDED_PHONE_NOT_PRESENT, true);
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::ANTENNA_FAULT, true);
  EXPECT_EQ(LED_RED, canIpcEmergencyHandler.getLastLedSetStatus());
  EXPECT_EQ(1u, emergencyLogCount("System error handling set LED to 3\n"));

  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::EMBEDDED_PHONE_NOT_PRESENT, false);
  EXPECT_EQ(LED_RED, canIpcEmergencyHandler.getLastLedSetStatus());
  EXPECT_EQ(0u, emergencyLogCount("System error handling set LED to 0\n"));

  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::ANTENNA_FAULT, false);
  EXPECT_EQ(LED_OFF, canIpcEmergencyHandler.getLastLedSetStatus());
  EXPECT_EQ(1u, emergencyLogCount("System error handling set LED to 0\n"));

  // A call took the LED over: the last clearing must not switch it off.
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::MIRROR_LOC, true);
  canIpcEmergencyHandler.setLedStatus(LED_SOLID_GREEN);
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::MIRROR_LOC, false);
  EXPECT_EQ(LED_SOLID_GREEN, canIpcEmergencyHandler.getLastLedSetStatus());
  EXPECT_EQ(1u, emergencyLogCount("System error handling set LED to 0\n"));
}

TEST_F(PhoneStatusTest, VariantWithoutPhoneKeepsTheWordButTellsNobody) {
  extServHandle.mEmbeddedPhoneEnabled = false;
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::EMBEDDED_PHONE_NOT_PRESENT, true);
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::ANTENNA_FAULT, true);
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::EMBEDDED_PHONE_NOT_PRESENT, false);

  EXPECT_EQ(ANTENNA, ecallHandler.systemError.load());
  EXPECT_TRUE(fakeBus::emittedData("ecall").empty());
  EXPECT_EQ(LED_OFF, canIpcEmergencyHandler.getLastLedSetStatus());
  EXPECT_EQ(1u, emergencyLogCount("but since the VARIANT_ECELL indicates no embedded phone"));
  EXPECT_EQ(1u, emergencyLogCount("System error occurred, but since the VARIANT_ECELL indicates no embedded phone, "
                                  "do not act on the event\n"));
  EXPECT_EQ(0u, emergencyLogCount("OCCURRED"));
  EXPECT_EQ(0u, emergencyLogCount("send LED status"));
}

TEST_F(PhoneStatusTest, RegistrationWithoutPhoneServiceSubscribesAndWaitsForIt) {
  fakeBus::setOwner(EMBEDDED_PHONE_SERVICE, false);
  ecallHandler.registerEmdPhSvc();

  auto owner = fakeBus::callsOf(fakeBus::Call::SubscribeOwner);
  ASSERT_EQ(1u, owner.size());
  EXPECT_EQ(EMBEDDED_PHONE_SERVICE, owner[0].busName);

  using Sub = std::tuple<std::string, std::string, std::string>;
  const std::vector<Sub> expected = {
      {EMBEDDED_PHONE_PATH, "callState", "ecallProcessor"},    {EMBEDDED_PHONE_PATH, "embeddedPhoneStatus", "ecallProcessor"},
      {EMBEDDED_PHONE_PATH, "wendReason", "ecallProcessor"},   {EMBEDDED_PHONE_PATH, "antennaStatus", "ecallProcessor"},
      {TTS_PATH, "ttsPlayState", "ecallProcessor"},            {BLUETOOTH_PATH, "callState", "callstate"},
      {AUDIO_CTRL_PATH, "DTMF", "ecallProcessor"},             {APP_MANAGER_PATH, "operStatus", "ecallProcessor"},
      {APP_MANAGER_PATH, "appStarted", "ecallProcessor"},      {APP_MANAGER_PATH, "appStopped", "ecallProcessor"},
      {APP_MANAGER_PATH, "appPaused", "ecallProcessor"},
  };
  std::vector<Sub> made;
  for (const auto& call : fakeBus::callsOf(fakeBus::Call::Subscribe))
    made.emplace_back(call.objPath, call.method, call.context);
  EXPECT_EQ(expected, made);

  EXPECT_EQ(0, embeddedPhAvail.load());
  EXPECT_TRUE(isTimerActive(timerTimeoutPhoneNotPresent));
  EXPECT_EQ(0u, phoneRequests("getProperties"));
}

TEST_F(PhoneStatusTest, RegistrationWithPhoneOnReadsNumberAndAntenna) {
  answer("getProperties", R"({"embeddedPhoneStatus":{"status":true}})");
  answer("getEmergencyNumbers", R"({"count":1,"numberList":["911"]})");
  answer("getAntennaStatus", R"({"description":"success","status":"PHONE_DIAG_ANTENNA_NORMAL"})");
  ecallHandler.registerEmdPhSvc();

  auto status = fakeBus::requests(EMBEDDED_PHONE_SERVICE, "getProperties");
  ASSERT_EQ(1u, status.size());
  EXPECT_EQ("{\"props\":[\"embeddedPhoneStatus\"]}\n", status[0].params);
  EXPECT_EQ(1, ecallHandler.emdPhOn.load());
  EXPECT_FALSE(isTimerActive(timerTimeoutPhoneNotPresent));
  EXPECT_EQ("911", ecallHandler.getLocalEcallNumber());
  auto antenna = fakeBus::requests(EMBEDDED_PHONE_SERVICE, "getAntennaStatus");
  ASSERT_EQ(1u, antenna.size());
  EXPECT_EQ("{\"antenna\":\"PHONE_ANTENNA_PRIMARY\"}\n", antenna[0].params);
  EXPECT_EQ(1u, emergencyLogCount("Get Embedded Phone Status: change from UNKNOWN to ON\n"));
}

TEST_F(PhoneStatusTest, PhoneServiceComingAndGoing) {
  fakeBus::setOwner(EMBEDDED_PHONE_SERVICE, false);
  ecallHandler.registerEmdPhSvc();
  ecallHandler.setEcallSystemFailureState(ecallSystemFailure::EMBEDDED_PHONE_SERVICE_NOT_RUNNING, true);

  answer("getProperties", R"({"embeddedPhoneStatus":{"status":true}})");
  ASSERT_EQ(1, fakeBus::changeOwner(EMBEDDED_PHONE_SERVICE, "", ":1.8"));
  EXPECT_EQ(1, embeddedPhAvail.load());
  EXPECT_EQ(1, ecallHandler.emdPhOn.load());
  EXPECT_EQ(0u, ecallHandler.systemError.load() & SERVICE_NOT_RUNNING);
  EXPECT_FALSE(isTimerActive(timerTimeoutPhoneNotPresent));

  ASSERT_EQ(1, fakeBus::changeOwner(EMBEDDED_PHONE_SERVICE, ":1.8", ""));
  EXPECT_EQ(0, embeddedPhAvail.load());
  EXPECT_EQ(0, ecallHandler.emdPhOn.load());
  EXPECT_TRUE(isTimerActive(timerTimeoutPhoneNotPresent));
  // Losing the service is not yet a failure; only its absence for the
  // phone-not-present time is.
  EXPECT_EQ(0u, ecallHandler.systemError.load() & SERVICE_NOT_RUNNING);
  EXPECT_EQ(1u, phoneRequests("getProperties"));
}

TEST_F(PhoneStatusTest, PhoneBackOnServesTheEmergencyRaisedWhileOffExactlyOnce) {
  embeddedPhAvail = 1;
  ecallHandler.emdPhOn = 0;
  ecallHandler.curECallType = ecallMain::CAN_IMPACT_A;
  ecallHandler.curCallModeType = ecallMain::CALL_ACN;
  startSierraNoCommTimer();
  answer("getProperties", R"({"embeddedPhoneStatus":{"status":true}})");
  answer("getEmergencyNumbers", R"({"count":1,"numberList":["911"]})");

  ecallHandler.getEmdPhStatus();
  ecallHandler.getEmdPhStatus();

  EXPECT_EQ(1u, log.countTrace("Emergency happened. type 2."));
  EXPECT_EQ(ecallMain::CAN_IMPACT_A, ecallHandler.getCurECallType());
  EXPECT_FALSE(isTimerActive(timerDelaySysErr4NoSierraComm));
  EXPECT_EQ(1u, emergencyLogCount("Get Embedded Phone Status: change from OFF to ON\n"));
  EXPECT_EQ(1u, emergencyLogCount("Got Phone Status: ON. Stop delay System Error popup timer. Roll back reset "
                                  "counter. System err 0\n"));
}

TEST_F(PhoneStatusTest, PhoneOffAtStartGivesTheModuleTheDelay) {
  answer("getProperties", R"({"embeddedPhoneStatus":{"status":false}})");
  answer("getUsbPorts", R"({"ports":["usb0","usb1"]})");
  ecallHandler.getEmdPhStatus();

  EXPECT_EQ(0, ecallHandler.emdPhOn.load());
  EXPECT_TRUE(isTimerActive(timerDelaySysErr4NoSierraComm));
  EXPECT_TRUE(isTimerActive(timerTimeoutPhoneNotPresent));
  EXPECT_EQ(1u, emergencyLogCount("Get Embedded Phone Status: change from UNKNOWN to OFF. SWIUSB ports: usb0, usb1\n"));
  EXPECT_EQ(1u, emergencyLogCount("Got Phone Status: OFF at startup. Start delay System Error popup timer\n"));

  // Only the first answer after start opens the delay, and only a change
  // reads the ports.
  stopSierraNoCommTimer();
  ecallHandler.getEmdPhStatus();
  EXPECT_FALSE(isTimerActive(timerDelaySysErr4NoSierraComm));
  EXPECT_EQ(1u, phoneRequests("getUsbPorts"));
}

TEST_F(PhoneStatusTest, SilentModuleIsResetUntilNoResetIsLeft) {
  ControllerSocket controller(root.path(orcIpcChannelPath));
  ASSERT_TRUE(canIpcEmergencyHandler.openOrcIpcChannel());
  controller.acceptService();
  embeddedPhAvail = 1;
  ecallHandler.emdPhOn = 0;

  ecallHandler.onPhoneNotPresentTimeout();
  EXPECT_TRUE(isTimerActive(timerDelaySysErr4NoSierraComm));
  EXPECT_EQ(1u, emergencyLogCount(
                    "Phone not present timer is off. Already requested V850 to reset Sierra Module. Start 5 min timer\n"));

  // While the module is given its time, a second expiry does nothing.
  ecallHandler.onPhoneNotPresentTimeout();
  EXPECT_EQ(1u, emergencyLogCount(
                    "Phone not present timer is off. Delay Sys Err popup timer is still active. do nothing\n"));

  ecallHandler.onDelaySysErrTimeout();
  ecallHandler.onDelaySysErrTimeout();
  EXPECT_EQ(2u, emergencyLogCount("Delay System Error timer is off. Already requested V850 to reset Sierra Module. "
                                  "Restart 5 min timer\n"));
  EXPECT_EQ(0u, ecallHandler.systemError.load());

  ecallHandler.onDelaySysErrTimeout();
  EXPECT_EQ(1u, emergencyLogCount("After all V850 resets, Emb Phone status is still OFF. Set System error\n"));
  EXPECT_EQ(NOT_PRESENT, ecallHandler.systemError.load());
  EXPECT_EQ((std::vector<uint8_t>{ORC_MSG_RESET_CELL_MODULE, ORC_MSG_RESET_CELL_MODULE, ORC_MSG_RESET_CELL_MODULE,
                                  ORC_MSG_LED_STATUS}),
            controller.received());
}

TEST_F(PhoneStatusTest, PhoneNotPresentTimeoutWithoutServiceOrResets) {
  // Service gone but phone last seen ON: only the service is at fault.
  embeddedPhAvail = 0;
  ecallHandler.emdPhOn = 1;
  ecallHandler.onPhoneNotPresentTimeout();
  EXPECT_TRUE(log.hasTrace("Phone service not available after a timeout of 30000ms"));
  EXPECT_EQ(SERVICE_NOT_RUNNING, ecallHandler.systemError.load());
  EXPECT_FALSE(log.hasTrace("write IPC for reset"));

  ecallHandler.onDelaySysErrTimeout();
  EXPECT_TRUE(log.hasTrace("Delay System Error timer is off. embedded Phone is ON. Should not be here."));
  EXPECT_FALSE(log.hasTrace("write IPC for reset"));

  // No controller channel: no reset can be asked for.
  ecallHandler.emdPhOn = 0;
  ecallHandler.onPhoneNotPresentTimeout();
  EXPECT_EQ(1u, emergencyLogCount("Phone still not present after all V850 resets. Set system error\n"));
  EXPECT_EQ(SERVICE_NOT_RUNNING | NOT_PRESENT, ecallHandler.systemError.load());
  EXPECT_FALSE(isTimerActive(timerDelaySysErr4NoSierraComm));
}

TEST_F(PhoneStatusTest, AntennaFaultMustLastBeforeItCounts) {
  ecallHandler.processAntennaStatusSignal(R"({"description":"success","status":"PHONE_DIAG_ANTENNA_OPEN"})");
  EXPECT_TRUE(isTimerActive(timerTimeoutAntennaFault));
  EXPECT_EQ(0u, ecallHandler.systemError.load());

  // Only a successful diagnosis counts.
  ecallHandler.processAntennaStatusSignal(R"({"description":"failure","status":"PHONE_DIAG_ANTENNA_NORMAL"})");
  ecallHandler.processAntennaStatusSignal(R"({"status":"PHONE_DIAG_ANTENNA_NORMAL"})");
  ecallHandler.processAntennaStatusSignal("not json");
  EXPECT_TRUE(isTimerActive(timerTimeoutAntennaFault));

  ecallHandler.onAntennaFaultTimeout();
  EXPECT_EQ(ANTENNA, ecallHandler.systemError.load());

  // The synchronous check judges its reply the same way.
  answer("getAntennaStatus", R"({"description":"success","status":"PHONE_DIAG_ANTENNA_NORMAL"})");
  ecallHandler.checkAntennaStatus();
  EXPECT_FALSE(isTimerActive(timerTimeoutAntennaFault));
  EXPECT_EQ(0u, ecallHandler.systemError.load());
}

TEST_F(PhoneStatusTest, StatusSignalOnServesCachedButtonOnlyOnTheChange) {
  embeddedPhAvail = 1;
  ecallHandler.emdPhOn = 0;
  ecallHandler.curECallType = ecallMain::E_CALL_BtnStat;
  ecallHandler.curCallModeType = ecallMain::CALL_ECALL_DELAY;
  startPhoneNotPresentTimeoutTimer();
  answer("getEmergencyNumbers", R"({"count":1,"numberList":["112"]})");
  answer("getAntennaStatus", R"({"description":"success","status":"PHONE_DIAG_ANTENNA_SHORT"})");

  ecallHandler.processEmdPhStatusSignal(R"({"embeddedPhoneStatus":{"status":true}})");
  fakeBus::drain();
  EXPECT_EQ(1, ecallHandler.emdPhOn.load());
  EXPECT_FALSE(isTimerActive(timerTimeoutPhoneNotPresent));
  EXPECT_EQ("112", ecallHandler.getLocalEcallNumber());
  EXPECT_TRUE(isTimerActive(timerTimeoutAntennaFault));
  for (const auto& call : fakeBus::requests(EMBEDDED_PHONE_SERVICE, ""))
    EXPECT_EQ(fakeBus::Call::AsyncInvoke, call.kind) << call.method << " blocks the bus thread";
  EXPECT_EQ(1u, emergencyLogCount("Handle Ecall caching status"));

  // Still ON: the button press in hand is not taken for a cached one again.
  ecallHandler.processEmdPhStatusSignal(R"({"status":true})");
  fakeBus::drain();
  EXPECT_EQ(1u, emergencyLogCount("Handle Ecall caching status"));
  EXPECT_EQ(2u, phoneRequests("getEmergencyNumbers"));
}

TEST_F(PhoneStatusTest, StatusSignalOffRecordsPortsAndWaitsForThePhone) {
  ecallHandler.emdPhOn = 1;
  answer("getUsbPorts", R"({"ports":["usb0"]})");

  ecallHandler.processEmdPhStatusSignal(R"({"unrelated":1})");
  EXPECT_EQ(1, ecallHandler.emdPhOn.load());

  ecallHandler.processEmdPhStatusSignal(R"({"status":false})");
  fakeBus::drain();
  EXPECT_EQ(0, ecallHandler.emdPhOn.load());
  EXPECT_TRUE(isTimerActive(timerTimeoutPhoneNotPresent));
  EXPECT_FALSE(isTimerActive(timerDelaySysErr4NoSierraComm));
  EXPECT_EQ(1u, emergencyLogCount("SWIUSB ports: usb0\n"));

  ecallHandler.processEmdPhStatusSignal(R"({"embeddedPhoneStatus":{"status":false}})");
  fakeBus::drain();
  EXPECT_EQ(1u, phoneRequests("getUsbPorts"));
}

}  // namespace
