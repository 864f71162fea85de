// Variant, brand and language, the cellular module's resets and USB ports, Bluetooth.
#include "carScene.h"

using namespace carScene;

namespace {

const std::string kNoPhoneVariant = "but since the VARIANT_ECELL indicates no embedded phone, do not act on the event";

Strings containing(const Strings& lines, const Strings& parts) {
  Strings out;
  std::copy_if(lines.begin(), lines.end(), std::back_inserter(out), [&](const std::string& line) {
    return std::any_of(parts.begin(), parts.end(), [&](const auto& part) { return line.find(part) != std::string::npos; });
  });
  return out;
}

}  // namespace

// Without the embedded phone nothing starts, and no failure reaches the user or LED.
TEST(Variant, WithoutEmbeddedPhoneNoEmergencyIsActedOn) {
  Scene s(carOptions(kScale, {"set variant NO"}), false);
  s.sim("button ecall press");
  s.sim("crash B can");
  const std::string ignored = "Emergency event detected " + kNoPhoneVariant;
  ASSERT_TRUE(s.waitForLogCount(ignored, 1));
  EXPECT_EQ(s.car.call("startEcall"), kOk);
  ASSERT_TRUE(s.waitForLogCount(ignored, 2));
  s.sim("loc 1 1 1");
  ASSERT_TRUE(s.car.waitForTrace("Ecall System failure source received \"Mirror LOC\":true"));
  EXPECT_EQ(s.car.call("exitEcall"), kOk);
  ASSERT_TRUE(s.car.waitForTrace("ecallService state machine triggered, " + kNoPhoneVariant));

  EXPECT_EQ(s.log(), (Strings{"Rx ORC CAN 0x0200", ignored, ignored}));
  Strings whole = s.car.emergencyLogMessages();
  EXPECT_EQ(containing(whole, {"System error"}), Strings{"System error cleared, " + kNoPhoneVariant});
  EXPECT_TRUE(s.car.ecallSignalTextsSince(0).empty());
  EXPECT_TRUE(s.car.channelMessages().empty()) << "no LED or Assist message in such a vehicle";
  EXPECT_TRUE(s.car.requestsSince(0, "EmbeddedPhone", "ecallDial").empty());
  EXPECT_TRUE(s.car.requestsSince(0, "TextToSpeechService").empty());
  EXPECT_EQ(s.car.call("IsECallModeActive"), "{\"eCallModeActive\":false}\n");
}

// Occupants hear their language, the operator English with the brand (an unknown
// one keeps the last); a crash call has no delay and its own announcements.
TEST(VehicleConfiguration, OccupantsHearTheirLanguageTheOperatorHearsTheBrandInEnglish) {
  Scene s(carOptions(kScale, {"set brand 7", "set language fr_CA"}));
  const std::string dialling = "PMSG: Appel du 9-1-1.";
  ASSERT_EQ(s.car.call("startEcall"), kOk);
  ASSERT_TRUE(s.hangUpOnceHeard());
  EXPECT_SOON_EQ(s.spoken(),
                 (Strings{"PMSG: Appel du 9-1-1. Pour annuler, appuyez sur le bouton 9-1-1 sur le retroviseur.", dialling,
                          "ECALL: Emergency call from a Roadmast vehicle: " + kOperatorKeys,
                          "ECALL: Emergency call from a Roadmast vehicle: " + kCarPosition + kOperatorKeys,
                          "PMSG: Fin de l'appel au 9-1-1. Pour rappeler, appuyez sur le bouton 9-1-1 sur le retroviseur."}));
  EXPECT_TRUE(s.logInOrder({"Speaker TTS language French", "Vehicle brand Roadmast", "TTS rqst 1"}));

  s.markNow();
  s.sim("set brand 13");
  s.sim("set language de_DE");
  s.sim("crash B can");
  ASSERT_FALSE(s.waitForRecord(isMicrophoneOpened).isNull());
  EXPECT_EQ(s.spoken(), (Strings{dialling, "ECALL: A crash has occurred in a Roadmast vehicle: " + kOperatorKeys,
                                 "ECALL: A crash has occurred in a Roadmast vehicle: " + kCarPosition + kOperatorKeys}));
  EXPECT_EQ(s.signals(), Strings{kCrashB});
  EXPECT_TRUE(s.logInOrder({"Rx ORC CAN 0x0200", "Speaker TTS language French",
                            "Vehicle brand received invalid, using current brand Roadmast",
                            "ACR triggered on CAN - More severe rear event", "TTS rqst 7", "Calling 911", kCallActive,
                            "TTS rqst 10", "TTS rqst 11", "Request unmute mic inputs"}));
  EXPECT_EQ(s.countInLog("Ecall delay 10 before calling"), 0u);
  const std::string out = s.car.serviceStdout();
  EXPECT_NE(out.find("Ecall - IPC /dev/ipc/ch12 Read Impact: 00 01 02 00 00 00 00\n"), std::string::npos) << out;
  EXPECT_NE(out.find("Ecall - CAN Emergency CAN_IMPACT_B\n"), std::string::npos) << out;
}

// A silent phone's module is reset thrice, 5 min apart, then it is not present till it returns.
TEST(ModuleReset, SilentPhoneIsResetThreeTimesThenReportedAndItsReturnStartsAfresh) {
  constexpr double scale = 0.01;
  Scene s(carOptions(scale));
  const std::string marker = s.car.path("/tmp/resetSierraInprogress");
  s.sim("phone off");
  ASSERT_TRUE(s.waitForChannel({{3}}));
  ASSERT_TRUE(s.waitForLogCount("System error handling set LED to 3", 1));
  EXPECT_TRUE(testSupport::fileExists(marker));
  EXPECT_TRUE(s.waitForChannel({{3}, {3}, {3}, {1, 3}})) << testing::PrintToString(s.channel());
  ASSERT_TRUE(s.waitForSignalType("systemError"));
  EXPECT_EQ(s.signals(), Strings{systemErrorSignal()});
  EXPECT_EQ(containing(s.log(), {"Sierra", "V850", "System error"}),
            (Strings{"Sent IPC message to V850 to reset Sierra 1th time",
                     "Phone not present timer is off. Already requested V850 to reset Sierra Module. Start 5 min timer",
                     "Sent IPC message to V850 to reset Sierra 2th time",
                     "Delay System Error timer is off. Already requested V850 to reset Sierra Module. Restart 5 min timer",
                     "Sent IPC message to V850 to reset Sierra 3th time",
                     "Delay System Error timer is off. Already requested V850 to reset Sierra Module. Restart 5 min timer",
                     "After all V850 resets, Emb Phone status is still OFF. Set System error",
                     "System error embedded phone not present OCCURRED",
                     "First System error message generated due to embedded phone not present, current SystemError = 1",
                     "System error handling set LED to 3"}));
  std::vector<Json::Value> resets = s.car.recordsSince(s.mark, "channel");
  Json::Value off = s.waitForRecord([](const Json::Value& r) { return r["name"] == "embeddedPhoneStatus"; }, ms(0));
  ASSERT_GE(resets.size(), 3u);
  EXPECT_GE(at(resets[0]) - at(off), atLeast(30000, scale)) << "the phone-not-present time";
  EXPECT_GE(at(resets[1]) - at(resets[0]), atLeast(300000, scale)) << "the module's five minutes";
  EXPECT_GE(at(resets[2]) - at(resets[1]), atLeast(300000, scale)) << "the module's five minutes";

  s.sim("phone on");
  ASSERT_TRUE(s.waitForChannel({{3}, {3}, {3}, {1, 3}, {1, 0}})) << testing::PrintToString(s.channel());
  EXPECT_FALSE(testSupport::fileExists(marker));
  EXPECT_EQ(s.countInLog("System error embedded phone not present CLEARED"), 1u);
  s.sim("phone off");
  EXPECT_TRUE(s.waitForLogCount("Sent IPC message to V850 to reset Sierra 1th time", 2));
  EXPECT_TRUE(s.waitForChannel({{3}, {3}, {3}, {1, 3}, {1, 0}, {3}})) << testing::PrintToString(s.channel());
  EXPECT_TRUE(testSupport::fileExists(marker));
}

// A Bluetooth call at a crash is reported; Bluetooth is off for the emergency.
TEST(Bluetooth, CallAtTheCrashIsReportedAndBluetoothIsOffForTheEmergency) {
  Scene s(carOptions(kScale));
  s.sim("bt callstate active");
  const std::string activeCall = "Received BT call state info {\"callStateInfo\":[{\"callState\":\"active\"}]}";
  ASSERT_TRUE(s.car.waitForTrace(activeCall));
  s.sim("crash B can");
  ASSERT_TRUE(s.car.waitForEmergencyLog(kCallActive + "\n", kLong));
  ASSERT_TRUE(s.car.waitForTrace("mWillDisconnBT = 1"));
  ASSERT_EQ(s.car.call("startEcall"), kOk);  // the button during the call
  ASSERT_TRUE(s.waitForSignalType("ecall_button_repeat"));
  s.sim("psap hangup");
  ASSERT_TRUE(s.waitForIdle());

  const std::string crash = "CAN - More severe rear event";
  EXPECT_EQ(s.signals(), (Strings{ecallSignalText(true, "acn", true, "911", "CAN_IMPACT_B", crash, true),
                                 ecallSignalText(true, "ecall_button_repeat", true, "", "CAN_IMPACT_B", crash, true),
                                 endedSignal(true), endedSignal(false)}));
  ASSERT_TRUE(s.waitForRequestCount("BluetoothService", "setBluetoothStatus", 1));
  EXPECT_EQ(s.requests("BluetoothService"), (Strings{"switchBluetoothOff ", "setBluetoothStatus {\"enable\":true}\n"}));

  // Bluetooth's next call is taken: the Assist button blinks for it.
  s.markNow();
  const size_t before = s.countInTrace(activeCall);
  s.sim("bt callstate active");
  ASSERT_TRUE(testSupport::waitUntil([&] { return s.countInTrace(activeCall) > before; }, kLong));
  s.button("assist", true);
  // (The LED message of the emergency's end may be recorded after the mark.)
  EXPECT_TRUE(testSupport::waitUntil([&] {
    std::vector<Bytes> led = s.led();
    return std::find(led.begin(), led.end(), Bytes{1, 2}) != led.end();
  }, kLong)) << testing::PrintToString(s.led());
  EXPECT_EQ(s.countInLog("Assist button pressed. BTCall in progress. Blink LED green"), 1u);
}

// A phone seen OFF, at start-up or later, logs the module's USB ports.
TEST(ModuleUsbPorts, PhoneGoingOffWritesTheModulePortsToTheLog) {
  Scene s(carOptions(kScale, {"phone off", "reply EmbeddedPhone getUsbPorts {\"code\":0,\"ports\":[\"swiusb0\",\"swiusb2\"]}"}));
  Strings whole = s.car.emergencyLogMessages();
  EXPECT_TRUE(containsInOrder(whole, {"Get Embedded Phone Status: change from UNKNOWN to OFF. SWIUSB ports: swiusb0, swiusb2",
                                      "Got Phone Status: OFF at startup. Start delay System Error popup timer"}))
      << testing::PrintToString(whole);

  s.sim("phone on");
  ASSERT_TRUE(s.car.waitForEmergencyLog("Got Phone Status: ON. Stop delay System Error popup timer."));
  s.sim("reply EmbeddedPhone getUsbPorts {\"ports\":[\"swiusb1\",\"swiusb3\"]}");
  s.sim("phone off");
  ASSERT_TRUE(s.car.waitForEmergencyLog("SWIUSB ports: swiusb1, swiusb3\n", kLong));
  EXPECT_EQ(testSupport::requestTexts(s.car.requestsSince(0, "EmbeddedPhone", "getUsbPorts")),
            Strings(2, "getUsbPorts "));
}
