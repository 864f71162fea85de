// The airbag controller's channel, the mirror buttons and LED, the Assist application.
#include <unistd.h>

#include "carScene.h"

using namespace carScene;

// Some kinds call, once a message; serial wins over CAN; a short message is dropped.
TEST(ImpactChannel, SerialTriggerWinsAndOtherKindsAreOnlyLogged) {
  Scene s(carOptions(kScale));
  s.sim("impact 00 01 00 02 00 00");     // six bytes: CAN kind I, but too short
  s.sim("crash A can");                  // front pretensioner: logged, no call
  s.sim("impact 00 01 02 00 01 00 02");  // CAN kind B and serial kind I
  ASSERT_TRUE(s.waitForEmergency());
  ASSERT_TRUE(s.car.waitForEmergencyLog("Calling 911\n", kLong));

  EXPECT_EQ(s.signals(), Strings{activeSignal("acn", "SERIAL_IMPACT_I", "SERIAL - Rollover")});
  Strings log = s.log();
  Strings received;
  for (const auto& line : log)
    if (line.rfind("Rx ORC", 0) == 0) received.push_back(line);
  EXPECT_EQ(received, (Strings{"Rx ORC CAN 0x0100", "Rx ORC serial 0x0002", "Rx ORC CAN 0x0200"}));
  EXPECT_TRUE(containsInOrder(log, {"Rx ORC CAN 0x0200", "ACR triggered on SERIAL - Rollover"}));
  std::string out = s.car.serviceStdout();
  EXPECT_EQ(countOf(out, "Read Impact:"), 2u) << out;
  EXPECT_NE(out.find("Ecall - Serial Emergency SERIAL_IMPACT_I\n"), std::string::npos) << out;
  EXPECT_EQ(out.find("Ecall - CAN Emergency"), std::string::npos) << out;
}

// Each link-loss message states three links; the LED is red while one is lost. A
// micro that stops reading never stops the impacts.
TEST(ImpactChannel, LinkLossSetsAndClearsItsThreeSourcesAndTheLedFollows) {
  Scene s(carOptions(kScale));
  s.sim("loc 1 0 0");
  s.sim("loc 1 1 1");
  s.sim("loc 0 1 0");
  s.sim("loc 0 0 0");
  const Strings expected = {
      "System error ORC CAN LOC OCCURRED",
      "First System error message generated due to ORC CAN LOC, current SystemError = 8", "send LED status 3",
      "System error handling set LED to 3", "System error ORC Serial LOC CLEARED", "System error Mirror LOC CLEARED",
      "System error ORC CAN LOC OCCURRED", "System error ORC Serial LOC OCCURRED", "System error Mirror LOC OCCURRED",
      "System error ORC CAN LOC CLEARED", "System error ORC Serial LOC OCCURRED", "System error Mirror LOC CLEARED",
      "System error ORC CAN LOC CLEARED", "System error ORC Serial LOC CLEARED", "send LED status 0",
      "System error handling set LED to 0", "System error Mirror LOC CLEARED"};
  EXPECT_SOON_EQ(s.log(), expected);
  EXPECT_TRUE(s.waitForLed({{1, 3}, {1, 0}})) << testing::PrintToString(s.led());
  ASSERT_TRUE(s.waitForSignalType("systemError"));
  EXPECT_EQ(s.signals(), Strings{systemErrorSignal()});
  EXPECT_NE(s.car.serviceStdout().find("Ecall - IPC /dev/ipc/ch12 Read LOC: 01 01 00 00\n"), std::string::npos);

  s.sim("micro deaf");
  // Each link-loss message turns the LED red or off: more than the channel holds.
  for (int i = 0; i < 320; ++i) s.sim(i % 2 ? "loc 0 0 0" : "loc 1 0 0");
  s.sim("crash B can");
  EXPECT_TRUE(s.waitForEmergency()) << "the crash was not read";
}

// Assist drives the marker, status and LED, gives Bluetooth back; an emergency stops it.
TEST(Assist, ApplicationDrivesMarkerLedAndBluetoothAndIsStoppedInAnEmergency) {
  Scene s(carOptions(kScale));
  const std::string marker = s.car.path("/tmp/embeddedCallActive");
  s.button("assist", true);
  ASSERT_TRUE(s.waitForLed({{1, 1}}));
  EXPECT_EQ(s.countInLog("Assist button pressed. No other calls ongoing. LED solid green"), 1u);
  s.button("assist", false);

  s.sim("appmgr start");
  ASSERT_TRUE(s.waitForChannel({{1, 1}, {2, 1}, {1, 1}, {2, 1}, {1, 1}})) << testing::PrintToString(s.channel());
  EXPECT_TRUE(testSupport::fileExists(marker));
  s.sim("appmgr stop");
  ASSERT_TRUE(s.waitForRequestCount("BluetoothService", "setBluetoothStatus", 2));
  EXPECT_TRUE(s.waitForChannel({{1, 1}, {2, 1}, {1, 1}, {2, 1}, {1, 1}, {2, 0}, {1, 0}, {2, 0}, {1, 0}}))
      << testing::PrintToString(s.channel());
  EXPECT_FALSE(testSupport::fileExists(marker));
  EXPECT_EQ(s.requests("BluetoothService"), Strings(2, "setBluetoothStatus {\"enable\":true}\n"));
  EXPECT_TRUE(s.requests("AppManager").empty());

  s.markNow();
  s.sim("crash B can");
  ASSERT_TRUE(s.waitForEmergency());
  ASSERT_TRUE(s.waitForRequestCount("AppManager", "stopApp", 1));
  s.sim("appmgr start");
  ASSERT_FALSE(s.waitForRecord([](const Json::Value& r) { return isSignal(r, "AppManager", "appStopped"); }).isNull());
  EXPECT_TRUE(s.waitForLed({{1, 1}, {1, 2}, {1, 1}})) << testing::PrintToString(s.led());
  EXPECT_SOON_EQ(s.channel(2), (std::vector<Bytes>{{2, 1}, {2, 1}, {2, 0}, {2, 0}}));
  // The application manager may report the stop before it records the request.
  EXPECT_SOON_EQ(s.requests("AppManager"), Strings(2, "stopApp {\"appId\":\"" + kAssistApp + "\"}\n"));
  EXPECT_EQ(s.countInLog("ecall active. Assist app initializing. blink LED green and close Assist"), 1u);
  EXPECT_EQ(s.signals(), Strings{kCrashB});
}

// Assist never running times out; a blink lasts its time and ends green in
// the mode, off after it, red in a system error (ended with no run pending).
TEST(MirrorLed, AssistTimesOutAndABlinkLastsItsTimeAndEndsGreenOffOrRed) {
  constexpr double scale = 0.1;
  Scene s(carOptions(scale));
  auto ledAt = [&](const Bytes& message, size_t nth) {
    for (const auto& r : s.car.recordsSince(s.mark, "channel"))
      if (r["bytes"].size() == 2 && r["bytes"][0] == message[0] && r["bytes"][1] == message[1] && nth-- == 0) return at(r);
    return -1.0;
  };
  auto endedWithModeActive = [&] {
    return !s.waitForSignal([](const Json::Value& sig) {
                return !sig["ecall"].asBool() && sig["ecallModeActive"].asBool();
              }).isNull();
  };
  s.button("assist", true);
  s.button("assist", false);
  ASSERT_TRUE(s.waitForLed({{1, 1}, {1, 0}})) << testing::PrintToString(s.led());
  EXPECT_TRUE(s.car.waitForTrace("Turning off mirror LED since the assist xlet never went active"));
  EXPECT_GE(ledAt({1, 0}, 0) - ledAt({1, 1}, 0), atLeast(40000, scale)) << "the Assist time-out";

  s.markNow();
  s.sim("crash B can");
  ASSERT_TRUE(s.car.waitForEmergencyLog(kCallActive + "\n", kLong));
  ASSERT_EQ(s.car.call("exitEcall"), kOk);
  ASSERT_TRUE(endedWithModeActive());
  s.button("assist", true);
  ASSERT_TRUE(s.waitForLed({{1, 1}, {1, 0}, {1, 2}}));
  ASSERT_EQ(s.car.call("exitEcall"), kOk);
  ASSERT_TRUE(s.waitForIdle());
  EXPECT_TRUE(s.waitForLed({{1, 1}, {1, 0}, {1, 2}, {1, 0}, {1, 0}})) << testing::PrintToString(s.led());
  s.button("assist", false);

  s.markNow();
  s.sim("crash B can");
  ASSERT_TRUE(s.waitForEmergency());
  s.sim("loc 0 1 0");
  ASSERT_TRUE(s.car.waitForEmergencyLog("System error ORC Serial LOC OCCURRED\n", kLong));
  s.button("assist", true);
  ASSERT_TRUE(s.waitForLed({{1, 1}, {1, 2}, {1, 1}})) << testing::PrintToString(s.led());
  const double blink = ledAt({1, 1}, 1) - ledAt({1, 2}, 0);
  EXPECT_GE(blink, atLeast(5000, scale)) << "the blink time";
  EXPECT_LT(blink, atMost(5000, scale)) << "the blink time";
  s.button("assist", false);
  // Played by the command thread: the state machine has nothing pending.
  ASSERT_TRUE(s.car.waitForEmergencyLog("TTS rqst 11\n", kLong));
  ASSERT_EQ(s.car.call("exitEcall"), kOk);
  ASSERT_TRUE(endedWithModeActive());
  s.button("assist", true);
  ASSERT_TRUE(s.waitForLed({{1, 1}, {1, 2}, {1, 1}, {1, 3}, {1, 2}})) << testing::PrintToString(s.led());
  ASSERT_EQ(s.car.call("exitEcall"), kOk);
  ASSERT_TRUE(s.waitForIdle());
  EXPECT_TRUE(s.waitForLed({{1, 1}, {1, 2}, {1, 1}, {1, 3}, {1, 2}, {1, 3}, {1, 3}})) << testing::PrintToString(s.led());
  EXPECT_TRUE(s.car.waitForTrace("system error happened during ecall. ignore setting LED status to red request"));
  EXPECT_EQ(s.countInLog("Assist button pressed. ECall in progress. Blink LED green"), 2u);
}

// Without the channel the buttons work (one held at start is a press) till the micro is up.
TEST(ImpactChannel, MissingChannelLeavesTheButtonsWorkingUntilTheMicroIsUp) {
  Scene s(carOptions(kScale, {"button ecall press"}, false));
  ASSERT_EQ(unlink(s.car.path("/dev/ipc/ch12").c_str()), 0);
  s.car.startService();
  ASSERT_TRUE(s.car.waitForSlog("cannot open ORC IPC channel /dev/ipc/ch12"));
  EXPECT_TRUE(s.car.waitForTrace("cannot open ORC IPC channel /dev/ipc/ch12"));
  ASSERT_TRUE(s.car.waitForEmergencyLog("ecallBtn = 1\n"));
  ASSERT_TRUE(s.waitForEmergency());
  EXPECT_EQ(s.signals(), Strings{buttonSignal("ecallDelay")});
  EXPECT_EQ(s.car.call("IsECallModeActive"), "{\"eCallModeActive\":true}\n");
  EXPECT_TRUE(s.car.serviceRunning());
  EXPECT_FALSE(s.car.waitForChannelConnected(ms(0)));

  s.sim("micro restart");
  EXPECT_TRUE(s.car.waitForChannelConnected(kLong));
  EXPECT_TRUE(s.car.waitForEmergencyLog("ORC IPC channel /dev/ipc/ch12 is open again\n", kLong));
}

// A restarted micro gets the LED and Assist states back; loss and return logged once.
TEST(ImpactChannel, ChannelIsOpenedAgainWhenTheMicroRestarts) {
  Scene s(carOptions(kScale));
  s.sim("loc 0 0 1");
  ASSERT_TRUE(s.waitForLed({{1, 3}}));
  s.sim("micro close");
  ASSERT_TRUE(s.car.waitForEmergencyLog("ORC IPC channel /dev/ipc/ch12 lost. Opening it again every 1000ms\n", kLong));
  s.sim("wait 5000");  // the micro stays away for five periods of the retry
  s.markNow();
  s.sim("micro open");
  ASSERT_TRUE(s.waitForChannel({{1, 3}, {2, 0}})) << testing::PrintToString(s.channel());

  s.sim("loc 0 0 0");
  s.sim("crash B can");
  ASSERT_TRUE(s.waitForEmergency());
  EXPECT_TRUE(s.waitForLed({{1, 3}, {1, 0}, {1, 1}})) << testing::PrintToString(s.led());
  const std::string lost = "Error reading ORC IPC channel /dev/ipc/ch12.  Attempt to read again after 1000ms.";
  EXPECT_EQ(countOf(s.car.trace(), lost), 1u);
  EXPECT_EQ(countOf(s.car.serviceStderr(), lost), 1u);
  const std::string log = s.car.emergencyLog();
  EXPECT_EQ(countOf(log, "ORC IPC channel /dev/ipc/ch12 lost."), 1u) << log;
  EXPECT_EQ(countOf(log, "ORC IPC channel /dev/ipc/ch12 is open again"), 1u) << log;

  s.markNow();
  s.sim("micro drop");
  ASSERT_TRUE(testSupport::waitUntil([&] {
    const auto events = s.car.recordsSince(s.mark, "vehicle");
    return std::count_if(events.begin(), events.end(), [](const Json::Value& r) { return r["event"] == "dropped"; }) >= 5;
  }, kLong));
  s.sim("micro keep");
  ASSERT_TRUE(s.waitForLogCount("ORC IPC channel /dev/ipc/ch12 is open again", 1));
  EXPECT_EQ(countOf(s.car.emergencyLog(), "ORC IPC channel /dev/ipc/ch12 lost."), 2u);
}
