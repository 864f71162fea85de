// Audio routing: the exact requests to the audio services, the microphone
// mute sequence and its failures, and which hands-free scenario is stopped.
#include "extServFixture.h"

using namespace extServTest;

namespace {

class AudioRoutingTest : public ExtServTest {
 protected:
  static void setActiveScenario(const std::string& reply) {
    fakeBus::setReply(kPsse, "getSHF_Scenario", answer(reply));
  }
  static std::vector<std::string> scenarioRequests() {
    std::vector<std::string> out;
    for (const auto& c : fakeBus::calls())
      if (c.busName == kPsse) out.push_back(c.method + " " + c.params);
    return out;
  }
};

TEST_F(AudioRoutingTest, CallAudioAndMuteClientRequests) {
  extServHandle.requestEcallAudioSource();
  extServHandle.releaseEcallAudioSource();
  extServHandle.unregisterMuteClient();  // never registered: id 0
  extServHandle.setSourceMute(true);

  const auto calls = fakeBus::calls();
  ASSERT_EQ(4u, calls.size());
  for (const auto& c : calls) {
    EXPECT_EQ(kMixer, c.busName);
    EXPECT_EQ("/com/nordak/service/AudioMixerManager", c.objPath);
    EXPECT_EQ(-1, c.timeoutMsec);
  }
  EXPECT_EQ("requestInformationSource", calls[0].method);
  EXPECT_EQ("{\"source\":\"ecall\"}\n", calls[0].params);
  EXPECT_EQ("releaseInformationSource", calls[1].method);
  EXPECT_EQ("{\"source\":\"ecall\"}\n", calls[1].params);
  EXPECT_EQ("unregisterMuteClient", calls[2].method);
  EXPECT_EQ("{\"id\":0}\n", calls[2].params);
  EXPECT_EQ(fakeBus::Call::AsyncInvoke, calls[3].kind);
  EXPECT_EQ("mutePhone", calls[3].context);
  EXPECT_EQ("{\"id\":0,\"input\":\"PHONE\",\"mute\":true}\n", calls[3].params);

  // After a registration the mixer's id is used.
  fakeBus::setReply(kMixer, "registerMuteClient", answer("{\"id\":42}"));
  extServHandle.registerMuteClient();
  EXPECT_EQ("{\"service\":\"ecallservice\"}\n", fakeBus::requests(kMixer, "registerMuteClient").at(0).params);
  fakeBus::clearCalls();
  extServHandle.setSourceMute(false);
  EXPECT_EQ("{\"id\":42,\"input\":\"PHONE\",\"mute\":false}\n", fakeBus::requests(kMixer, "setMixerMute").at(0).params);

  // Failures are reported in both logs, and a failed registration keeps the id.
  fakeBus::setReply(kMixer, "requestInformationSource", failure());
  fakeBus::setReply(kMixer, "releaseInformationSource", failure());
  fakeBus::setReply(kMixer, "registerMuteClient", failure());
  extServHandle.requestEcallAudioSource();
  extServHandle.releaseEcallAudioSource();
  extServHandle.registerMuteClient();
  EXPECT_EQ(42, extServHandle.mMuteClientId.load());
  EXPECT_TRUE(log.hasSlog("Failed to request ecall information source, rc 0x"));
  EXPECT_TRUE(log.hasSlog("Failed to release ecall information source, rc 0x"));
  EXPECT_TRUE(log.hasSlog("Failed to register mute client, rc 0x"));
  EXPECT_TRUE(log.hasTrace("Failed to release ecall information source, rc -"));
}

TEST_F(AudioRoutingTest, UnmuteRoutesBothMicrophonesBack) {
  extServHandle.setMicInputMuteState(false);

  EXPECT_EQ((std::vector<std::string>{"setMixerMute", "setMux", "setMux"}), requestedMethods());
  const auto mux = fakeBus::requests(kAudioCtrl, "setMux");
  ASSERT_EQ(2u, mux.size());
  EXPECT_EQ("/com/nordak/service/AudioCtrlSvc", mux[0].objPath);
  EXPECT_EQ("{\"gain\":0,\"input\":\"MIC1\",\"name\":\"mic1_mux1\"}\n", mux[0].params);
  EXPECT_EQ("{\"gain\":0,\"input\":\"MIC2\",\"name\":\"mic2_mux1\"}\n", mux[1].params);
  ASSERT_TRUE(fakeBus::waitForEmitted("ecallProgress", 1));
  EXPECT_NE(std::string::npos, fakeBus::emittedData("ecallProgress").at(0).find("55915"));
  EXPECT_NE(std::string::npos, emergencyLog().find("Request unmute mic inputs\n"));
}

TEST_F(AudioRoutingTest, MicrophoneTwoFollowsOnlyWhenMicrophoneOneTookTheRequest) {
  fakeBus::setReply(kAudioCtrl, "setMux", failure());
  extServHandle.setMicInputMuteState(true);

  // The phone source was muted and the request logged before the failure.
  EXPECT_EQ((std::vector<std::string>{"setMixerMute", "setMux"}), requestedMethods());
  EXPECT_NE(std::string::npos, fakeBus::requests(kMixer, "setMixerMute").at(0).params.find("\"mute\":true"));
  EXPECT_EQ("{\"gain\":0,\"input\":\"OFF\",\"name\":\"mic1_mux1\"}\n",
            fakeBus::requests(kAudioCtrl, "setMux").at(0).params);
  EXPECT_NE(std::string::npos, emergencyLog().find("Request mute mic inputs\n"));
  ASSERT_TRUE(fakeBus::waitForEmitted("ecallProgress", 1));
  EXPECT_NE(std::string::npos, fakeBus::emittedData("ecallProgress").at(0).find("55936"));
  EXPECT_TRUE(log.hasTrace("Unable to mute mic1 input, rc -"));
  EXPECT_TRUE(log.hasSlog("Unable to mute mic1 input, rc 0x"));

  // The second microphone failing alone is reported as its own.
  int muxCalls = 0;
  fakeBus::setResponder(kAudioCtrl, "setMux",
                        [&](const std::string&) { return ++muxCalls == 1 ? answer("{}") : failure(); });
  extServHandle.setMicInputMuteState(false);
  EXPECT_TRUE(log.hasSlog("Unable to unmute mic2 input, rc 0x"));
  EXPECT_FALSE(log.hasSlog("Unable to unmute mic1 input"));
}

TEST_F(AudioRoutingTest, OnlyAForeignScenarioIsStopped) {
  for (const char* own : {"{\"scenario\":\"Embedded_255_1\"}", "{\"scenario\":\"XEmbeddedY\"}", "{}", "not json"}) {
    setActiveScenario(own);
    fakeBus::clearCalls();
    extServHandle.stopAnyNonEmbeddedPsseSource();
    EXPECT_EQ((std::vector<std::string>{"getSHF_Scenario {\"source\":\"ecall\"}\n"}), scenarioRequests()) << own;
  }

  setActiveScenario("{\"scenario\":\"BT_HFP\"}");
  fakeBus::clearCalls();
  extServHandle.stopAnyNonEmbeddedPsseSource();
  EXPECT_EQ((std::vector<std::string>{"getSHF_Scenario {\"source\":\"ecall\"}\n",
                                      "setSHF_Scenario {\"mode\":\"STOP\",\"scenario\":\"BT_HFP\"}\n"}),
            scenarioRequests());

  fakeBus::setReply(kPsse, "getSHF_Scenario", failure());
  fakeBus::clearCalls();
  extServHandle.stopAnyNonEmbeddedPsseSource();
  EXPECT_EQ(1u, scenarioRequests().size());
  EXPECT_TRUE(log.hasSlog("Unable to get psse source, rc 0x"));
}

TEST_F(AudioRoutingTest, RingToneScenarioFirstClearsAForeignOne) {
  setActiveScenario("{\"scenario\":\"BT_HFP\"}");
  extServHandle.statePsseForRingTone(false);
  EXPECT_EQ((std::vector<std::string>{"getSHF_Scenario {\"source\":\"ecall\"}\n",
                                      "setSHF_Scenario {\"mode\":\"STOP\",\"scenario\":\"BT_HFP\"}\n",
                                      "setSHF_Scenario {\"mode\":\"STOP\",\"scenario\":\"Embedded_255_1\"}\n"}),
            scenarioRequests());

  setActiveScenario("{\"scenario\":\"Embedded_255_1\"}");
  fakeBus::clearCalls();
  extServHandle.statePsseForRingTone(true);
  EXPECT_EQ((std::vector<std::string>{"getSHF_Scenario {\"source\":\"ecall\"}\n",
                                      "setSHF_Scenario {\"mode\":\"START\",\"scenario\":\"Embedded_255_1\"}\n"}),
            scenarioRequests());
}

}  // namespace
