// The command thread: queued commands run one after the other in the order
// sent; the platform service's arrival and departure.
#include "extServFixture.h"
#include "platform/pulses.h"

using namespace extServTest;

namespace {

class CommandThreadTest : public ExtServTest {
 protected:
  void SetUp() override {
    ExtServTest::SetUp();
    fakeBus::setOwner(kPlatform, false);  // keeps the start-up quiet
    extServHandle.initExternalServiceHandling();
    fakeBus::clearCalls();
  }
  static void sendPulse(int code, int value) {
    ASSERT_EQ(0, qnx::MsgSendPulse(extServHandle.mCmdConnectionId, qnx::getprio(0), code, value));
  }
};

TEST_F(CommandThreadTest, CommandsRunInTheOrderSent) {
  extServHandle.ayncPlayTtsMsg(TTS_PROMPT_INCOMING);
  extServHandle.asyncAbortCurrentTtsMsg();
  extServHandle.asyncSetMicInputMuteState(false);
  ASSERT_TRUE(fakeBus::waitForRequests(kAudioCtrl, "setMux", 2));

  // The abort found the prompt still marked as playing, so it was sent.
  EXPECT_EQ((std::vector<std::string>{"ttsReadout", "ttsAbort", "setMixerMute", "setMux", "setMux"}),
            requestedMethods());
  EXPECT_EQ("{\"readoutType\":\"PMSG\"}\n", fakeBus::requests(kTts, "ttsAbort").at(0).params);
  EXPECT_NE(std::string::npos, fakeBus::requests(kMixer, "setMixerMute").at(0).params.find("\"mute\":false"));
}

TEST_F(CommandThreadTest, AnyNonZeroValueMutesAndUnknownCodesOnlyTrace) {
  sendPulse(0, 5);
  sendPulse(4, 9);
  sendPulse(EXT_CMD_SET_MIC_MUTE, 7);
  ASSERT_TRUE(fakeBus::waitForRequests(kAudioCtrl, "setMux", 2));

  EXPECT_TRUE(log.hasTrace("External service command received, pulse 0, value 5"));
  EXPECT_TRUE(log.hasTrace("External service command received, pulse 4, value 9"));
  // Only the mute's requests: the two unknown codes asked nothing.
  EXPECT_EQ((std::vector<std::string>{"setMixerMute", "setMux", "setMux"}), requestedMethods());
  EXPECT_NE(std::string::npos, fakeBus::requests(kMixer, "setMixerMute").at(0).params.find("\"mute\":true"));
  for (const auto& mux : fakeBus::requests(kAudioCtrl, "setMux"))
    EXPECT_NE(std::string::npos, mux.params.find("\"input\":\"OFF\"")) << mux.params;
}

TEST_F(CommandThreadTest, SoftwareVersionsLoggedWhenThePlatformComesAndGoes) {
  // Absent at start: nothing asked until the platform service arrives.
  EXPECT_TRUE(fakeBus::requests(kPlatform, "get_all_versions").empty());
  EXPECT_EQ(0, platformDBUSAvail.load());

  fakeBus::setReply(kPlatform, "get_all_versions", answer("{\"app_version\":\"17.3.2\"}"));
  ASSERT_EQ(1, fakeBus::changeOwner(kPlatform, "", ":1.42"));
  EXPECT_EQ(1u, fakeBus::requests(kPlatform, "get_all_versions").size());
  EXPECT_NE(std::string::npos, emergencyLog().find("System Software Version: 17.3.2\n"));

  ASSERT_EQ(1, fakeBus::changeOwner(kPlatform, ":1.42", ""));
  EXPECT_EQ(1u, fakeBus::requests(kPlatform, "get_all_versions").size());
  EXPECT_TRUE(log.hasSlog("platform DBUS owner gone."));
  EXPECT_EQ(0, platformDBUSAvail.load());  // the owner watch does not change it
}

}  // namespace

// Without the command thread fixture: the platform service already on the bus.
TEST_F(ExtServTest, StartUpWithThePlatformPresentLogsVersionsAtOnce) {
  fakeBus::setReply(kPlatform, "get_all_versions", answer("{\"app_version\":\"9.9\"}"));
  extServHandle.initExternalServiceHandling();

  const auto owners = fakeBus::callsOf(fakeBus::Call::SubscribeOwner);
  ASSERT_EQ(1u, owners.size());
  EXPECT_EQ(kPlatform, owners[0].busName);
  EXPECT_EQ("externalServiceHandling", owners[0].context);
  EXPECT_EQ(1, platformDBUSAvail.load());
  EXPECT_EQ(1u, fakeBus::requests(kPlatform, "get_all_versions").size());
  EXPECT_NE(std::string::npos, emergencyLog().find("System Software Version: 9.9\n"));
  EXPECT_TRUE(log.waitForTrace("Starting external service command thread"));
}
