// Default volumes from the audio mixer, the ring volume step, and the call
// state of a Bluetooth-connected phone.
#include "unit/externalServiceHandling/extServFixture.h"

using namespace extServTest;

namespace {

class VolumesAndBluetoothTest : public ExtServTest {
 protected:
  static void volumeReply(const fakeBus::Reply& reply) {
    fakeBus::setReply(kMixer, "getProperties", reply);
    ecallHandler.getDefaultVolumes();
  }
  // Runs the handler with the flag set to the opposite of expected, so that
  // an unchanged flag shows.
  static bool btActiveAfter(const char* sigName, const char* data, bool before) {
    ecallHandler.btCallActive = before;
    ecallProcessor::onSubcribedBTSignal(sigName, data, nullptr);
    return ecallHandler.btCallActive;
  }
};

TEST_F(VolumesAndBluetoothTest, DefaultVolumes) {
  volumeReply(failure());
  EXPECT_EQ(15, defaultPhoneVol.load());
  EXPECT_EQ(15, defaultPromptVol.load());
  const auto query = fakeBus::requests(kMixer, "getProperties").at(0);
  EXPECT_EQ(fakeBus::Call::Invoke, query.kind);
  EXPECT_EQ("/com/nordak/service/AudioMixerManager", query.objPath);
  EXPECT_EQ("{\"props\":[\"volumeLevel\"]}\n", query.params);

  volumeReply(answer("not json"));
  EXPECT_EQ(15, defaultPhoneVol.load());
  EXPECT_EQ(15, defaultPromptVol.load());

  volumeReply(answer("{\"volumeLevel\":{\"FRONT_L_SPKR\":{\"PHONE\":22,\"PROMPT\":30}}}"));
  EXPECT_EQ(22, defaultPhoneVol.load());
  EXPECT_EQ(12, defaultPromptVol.load());  // never read from the answer

  volumeReply(answer("{\"other\":1}"));
  EXPECT_EQ(0, defaultPhoneVol.load());
  EXPECT_EQ(12, defaultPromptVol.load());

  volumeReply(answer("{\"volumeLevel\":[3]}"));
  EXPECT_EQ(0, defaultPhoneVol.load());
}

TEST_F(VolumesAndBluetoothTest, RingVolumeStepIsAnsweredAsTheDial) {
  ecallHandler.setRingVolume(-2);
  const auto step = fakeBus::requests(kMixer, "adjustVolume");
  ASSERT_EQ(1u, step.size());
  EXPECT_EQ(fakeBus::Call::AsyncInvoke, step[0].kind);
  EXPECT_EQ("{\"source\":\"PHONE\",\"step\":-2,\"user\":\"driver\"}\n", step[0].params);
  EXPECT_EQ("dial", step[0].context);
  EXPECT_EQ(0, step[0].noReplyExpected);
}

TEST_F(VolumesAndBluetoothTest, AnyCallNotExactlyIdleIsActive) {
  EXPECT_TRUE(btActiveAfter("callState", "{\"callStateInfo\":[{\"callState\":\"idle\"},{\"callState\":\"active\"}]}",
                            false));
  EXPECT_TRUE(btActiveAfter("callState", "{\"callStateInfo\":[{\"callState\":\"Idle\"}]}", false));
  EXPECT_TRUE(btActiveAfter("callState", "{\"callStateInfo\":[{\"callState\":\"\"}]}", false));
  EXPECT_TRUE(btActiveAfter("callState", "{\"callStateInfo\":[{\"other\":1},{\"callState\":\"held\"}]}", false));
  EXPECT_FALSE(btActiveAfter("callState", "{\"callStateInfo\":[{\"callState\":\"idle\"}]}", true));
  EXPECT_FALSE(btActiveAfter("callState", "{\"callStateInfo\":[]}", true));
  EXPECT_FALSE(btActiveAfter("callState", "{\"callStateInfo\":[{\"other\":\"active\"},7]}", true));
  EXPECT_FALSE(btActiveAfter("callState", "{}", true));
  EXPECT_TRUE(log.hasTrace("callstateArray size 2"));

  // Not a call state signal, or not readable: the flag stays.
  EXPECT_TRUE(btActiveAfter("callStateChanged", "{\"callStateInfo\":[]}", true));
  EXPECT_TRUE(btActiveAfter("CallState", "{\"callStateInfo\":[]}", true));
  EXPECT_TRUE(btActiveAfter("callState", "{not json", true));
  EXPECT_FALSE(btActiveAfter("callState", nullptr, false));
  EXPECT_TRUE(log.hasTrace("failed to parse bluetooth callstate json value"));
}

TEST_F(VolumesAndBluetoothTest, CallStateIgnoredWhileBluetoothIsSwitchedOff) {
  const char* busy = "{\"callStateInfo\":[{\"callState\":\"active\"}]}";
  extServHandle.disableBluetooth();
  EXPECT_FALSE(btActiveAfter("callState", busy, false));
  EXPECT_TRUE(log.hasTrace("mWillDisconnBT = 1"));
  EXPECT_FALSE(log.hasTrace("Received BT call state info"));

  extServHandle.enableBluetooth();
  EXPECT_TRUE(btActiveAfter("callState", busy, false));
}

}  // namespace
