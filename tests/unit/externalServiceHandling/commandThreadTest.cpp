// The command thread and the watch on the platform service.
#include "extServFixture.h"
#include "platform/pulses.h"

using namespace extServTest;

TEST_F(ExtServTest, CommandsRunInTheOrderSentAndUnknownCodesOnlyTrace) {
  extServHandle.initExternalServiceHandling();
  fakeBus::clearCalls();
  extServHandle.ayncPlayTtsMsg(TTS_PROMPT_INCOMING);
  extServHandle.asyncAbortCurrentTtsMsg();  // the prompt is still marked as playing
  const int coid = extServHandle.mCmdConnectionId;
  ASSERT_EQ(0, qnx::MsgSendPulse(coid, qnx::getprio(0), 0, 5));
  ASSERT_EQ(0, qnx::MsgSendPulse(coid, qnx::getprio(0), 4, 9));
  ASSERT_EQ(0, qnx::MsgSendPulse(coid, qnx::getprio(0), EXT_CMD_SET_MIC_MUTE, 7));  // any non-zero value mutes
  ASSERT_TRUE(testSupport::waitUntil([] { return fakeBus::requests(kAudioCtrl, "setMux").size() == 2; }));

  auto calls = requested();
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(0u, calls[0].rfind("ttsReadout ", 0));
  EXPECT_EQ(std::vector<std::string>(calls.begin() + 1, calls.end()),
            (std::vector<std::string>{"ttsAbort {\"readoutType\":\"PMSG\"}\n",
                                      "setMixerMute {\"id\":0,\"input\":\"PHONE\",\"mute\":true}\n",
                                      "setMux {\"gain\":0,\"input\":\"OFF\",\"name\":\"mic1_mux1\"}\n",
                                      "setMux {\"gain\":0,\"input\":\"OFF\",\"name\":\"mic2_mux1\"}\n"}));
  EXPECT_EQ(1u, log.countTrace("External service command received, pulse 0, value 5"));
  EXPECT_EQ(1u, log.countTrace("External service command received, pulse 4, value 9"));
}

TEST_F(ExtServTest, SoftwareVersionsLoggedAtStartAndWhenThePlatformReturns) {
  fakeBus::setReply(kPlatform, "get_all_versions", answer("{\"app_version\":\"17.3.2\"}"));
  extServHandle.initExternalServiceHandling();
  const auto watch = fakeBus::callsOf(fakeBus::Call::SubscribeOwner);
  ASSERT_EQ(1u, watch.size());
  EXPECT_EQ(kPlatform, watch[0].busName);
  EXPECT_EQ(1, platformDBUSAvail.load());
  EXPECT_EQ(1u, logCount("System Software Version: 17.3.2"));

  ASSERT_EQ(1, fakeBus::changeOwner(kPlatform, ":1.4", ""));
  EXPECT_TRUE(log.hasSlog("platform DBUS owner gone."));
  EXPECT_EQ(1, platformDBUSAvail.load());  // written only at start
  fakeBus::setReply(kPlatform, "get_all_versions", answer("{}"));
  ASSERT_EQ(1, fakeBus::changeOwner(kPlatform, "", ":1.9"));
  EXPECT_EQ(1u, logCount("System Software Version: NOT PRESENT"));
}
