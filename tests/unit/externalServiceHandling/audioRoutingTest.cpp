// Audio routing: the requests to the audio services, the microphone mute
// sequence, which hands-free scenario is stopped, and Bluetooth.
#include "extServFixture.h"

using namespace extServTest;

TEST_F(ExtServTest, MuteRequestsCarryTheRegisteredClientId) {
  extServHandle.unregisterMuteClient();  // never registered: id 0
  fakeBus::setReply(kMixer, "registerMuteClient", answer("{\"id\":42}"));
  extServHandle.registerMuteClient();
  extServHandle.setSourceMute(true);
  EXPECT_EQ("unregisterMuteClient {\"id\":0}\n", requested().front());
  EXPECT_EQ("setMixerMute {\"id\":42,\"input\":\"PHONE\",\"mute\":true}\n", requested().back());
}

TEST_F(ExtServTest, FailedFirstMicrophoneSkipsTheSecond) {
  fakeBus::setReply(kAudioCtrl, "setMux", failure());
  extServHandle.setMicInputMuteState(true);
  EXPECT_EQ((std::vector<std::string>{"setMixerMute {\"id\":0,\"input\":\"PHONE\",\"mute\":true}\n",
                                      "setMux {\"gain\":0,\"input\":\"OFF\",\"name\":\"mic1_mux1\"}\n"}),
            requested());
  EXPECT_EQ(1u, logCount("Request mute mic inputs"));
  ASSERT_TRUE(testSupport::waitUntil([] { return !fakeBus::emittedData("ecallProgress").empty(); }));
  EXPECT_NE(std::string::npos, fakeBus::emittedData("ecallProgress").at(0).find("55936"));
  EXPECT_TRUE(log.hasSlog("Unable to mute mic1 input, rc 0x"));
}

TEST_F(ExtServTest, OnlyAForeignScenarioIsStopped) {
  const std::string ask = "getSHF_Scenario {\"source\":\"ecall\"}\n";
  for (const char* own : {"Embedded_255_1", "XEmbeddedY"}) {
    fakeBus::setReply(kPsse, "getSHF_Scenario", answer(std::string("{\"scenario\":\"") + own + "\"}"));
    fakeBus::clearCalls();
    extServHandle.stopAnyNonEmbeddedPsseSource();
    EXPECT_EQ(std::vector<std::string>{ask}, requested()) << own;
  }

  fakeBus::setReply(kPsse, "getSHF_Scenario", answer("{\"scenario\":\"BT_HFP\"}"));
  fakeBus::clearCalls();
  extServHandle.statePsseForRingTone(false);
  extServHandle.statePsseForRingTone(true);
  const std::string stopForeign = "setSHF_Scenario {\"mode\":\"STOP\",\"scenario\":\"BT_HFP\"}\n";
  EXPECT_EQ((std::vector<std::string>{ask, stopForeign,
                                      "setSHF_Scenario {\"mode\":\"STOP\",\"scenario\":\"Embedded_255_1\"}\n", ask,
                                      stopForeign,
                                      "setSHF_Scenario {\"mode\":\"START\",\"scenario\":\"Embedded_255_1\"}\n"}),
            requested());
}

// Bluetooth is switched off for an emergency call and on again afterwards.
TEST_F(ExtServTest, BluetoothOffTwiceThenOnAndItsCallsIgnoredMeanwhile) {
  const char* busy = "{\"callStateInfo\":[{\"callState\":\"active\"}]}";
  fakeBus::setReply(kBluetooth, "switchBluetoothOff", failure());  // the flag follows the request anyway
  fakeBus::setReply(kPsse, "getSHF_Scenario", answer("{\"scenario\":\"BT_HFP\"}"));
  extServHandle.disableBluetooth();
  extServHandle.disableBluetooth();
  EXPECT_FALSE(btActiveAfter("callState", busy, false));
  const std::string off = "switchBluetoothOff ";
  const std::string ask = "getSHF_Scenario {\"source\":\"ecall\"}\n";
  const std::string stop = "setSHF_Scenario {\"mode\":\"STOP\",\"scenario\":\"BT_HFP\"}\n";
  EXPECT_EQ((std::vector<std::string>{off, ask, stop, off, ask, stop}), requested());
  EXPECT_EQ("switchBluetoothOff", fakeBus::requests(kBluetooth, "switchBluetoothOff").at(0).context);

  extServHandle.enableBluetooth();
  EXPECT_TRUE(btActiveAfter("callState", busy, false));
  const auto on = fakeBus::requests(kBluetooth, "setBluetoothStatus");
  ASSERT_EQ(1u, on.size());
  EXPECT_EQ("{\"enable\":true}\n", on[0].params);
  EXPECT_EQ("setBluetoothStatus", on[0].context);
}
