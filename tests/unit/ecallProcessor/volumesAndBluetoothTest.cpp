// Default volumes from the audio mixer, the ring volume step, and the call
// state of a Bluetooth-connected phone.
#include "unit/externalServiceHandling/extServFixture.h"

using namespace extServTest;

namespace {

class VolumesAndBluetoothTest : public ExtServTest {};

void volumeReply(const fakeBus::Reply& reply) {
  fakeBus::setReply(kMixer, "getProperties", reply);
  ecallHandler.getDefaultVolumes();
}

}  // namespace

TEST_F(VolumesAndBluetoothTest, DefaultVolumesAndRingStep) {
  volumeReply(failure());
  volumeReply(answer("not json"));
  EXPECT_EQ(15, defaultPhoneVol.load());
  EXPECT_EQ(15, defaultPromptVol.load());
  EXPECT_EQ("{\"props\":[\"volumeLevel\"]}\n", fakeBus::requests(kMixer, "getProperties").at(0).params);

  volumeReply(answer("{\"volumeLevel\":{\"FRONT_L_SPKR\":{\"PHONE\":22,\"PROMPT\":30}}}"));
  EXPECT_EQ(22, defaultPhoneVol.load());
  EXPECT_EQ(12, defaultPromptVol.load());  // never read from the answer
  volumeReply(answer("{\"other\":1}"));
  EXPECT_EQ(0, defaultPhoneVol.load());

  fakeBus::clearCalls();
  ecallHandler.setRingVolume(-2);
  EXPECT_EQ(std::vector<std::string>{"adjustVolume {\"source\":\"PHONE\",\"step\":-2,\"user\":\"driver\"}\n"},
            requested());
  EXPECT_EQ("dial", fakeBus::requests(kMixer, "adjustVolume").at(0).context);
}

TEST_F(VolumesAndBluetoothTest, AnyBluetoothCallNotExactlyIdleIsActive) {
  EXPECT_TRUE(btActiveAfter("callState", "{\"callStateInfo\":[{\"callState\":\"idle\"},{\"callState\":\"active\"}]}", false));
  EXPECT_TRUE(btActiveAfter("callState", "{\"callStateInfo\":[{\"callState\":\"Idle\"}]}", false));
  EXPECT_TRUE(btActiveAfter("callState", "{\"callStateInfo\":[{\"other\":1},{\"callState\":\"\"}]}", false));
  EXPECT_FALSE(btActiveAfter("callState", "{\"callStateInfo\":[{\"callState\":\"idle\"},{\"x\":\"active\"}]}", true));
  EXPECT_FALSE(btActiveAfter("callState", "{\"callStateInfo\":[]}", true));
  // Not a call state signal, or not readable: the flag stays.
  EXPECT_TRUE(btActiveAfter("callStateChanged", "{\"callStateInfo\":[]}", true));
  EXPECT_TRUE(btActiveAfter("callState", "{not json", true));
  EXPECT_FALSE(btActiveAfter("callState", nullptr, false));
}
