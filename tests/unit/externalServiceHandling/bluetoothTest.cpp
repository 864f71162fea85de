// Bluetooth switched off for an emergency call and on again afterwards.
#include "extServFixture.h"

using namespace extServTest;

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
