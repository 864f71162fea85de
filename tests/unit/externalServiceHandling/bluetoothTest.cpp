// Bluetooth switched off for an emergency call and on again afterwards.
#include "extServFixture.h"

using namespace extServTest;

namespace {

TEST_F(ExtServTest, BluetoothOffAndOn) {
  fakeBus::setReply(kPsse, "getSHF_Scenario", answer("{\"scenario\":\"BT_HFP\"}"));
  extServHandle.disableBluetooth();
  extServHandle.disableBluetooth();
  EXPECT_TRUE(ecallHandler.mWillDisconnBT.load());

  // Each switch-off also stops the Bluetooth phone's hands-free scenario.
  EXPECT_EQ((std::vector<std::string>{"switchBluetoothOff", "getSHF_Scenario", "setSHF_Scenario", "switchBluetoothOff",
                                      "getSHF_Scenario", "setSHF_Scenario"}),
            requestedMethods());
  const auto off = fakeBus::requests(kBluetooth, "switchBluetoothOff").at(0);
  EXPECT_EQ(fakeBus::Call::AsyncInvoke, off.kind);
  EXPECT_EQ("/com/nordak/service/BluetoothService", off.objPath);
  EXPECT_EQ("", off.params);
  EXPECT_EQ("switchBluetoothOff", off.context);

  extServHandle.enableBluetooth();
  EXPECT_FALSE(ecallHandler.mWillDisconnBT.load());
  const auto on = fakeBus::requests(kBluetooth, "setBluetoothStatus");
  ASSERT_EQ(1u, on.size());
  EXPECT_EQ(fakeBus::Call::AsyncInvoke, on[0].kind);
  EXPECT_EQ("{\"enable\":true}\n", on[0].params);
  EXPECT_EQ("setBluetoothStatus", on[0].context);
}

TEST_F(ExtServTest, BluetoothRequestFailuresAreLoggedAndTheFlagFollowsTheRequest) {
  fakeBus::setReply(kBluetooth, "switchBluetoothOff", failure());
  fakeBus::setReply(kBluetooth, "setBluetoothStatus", failure());
  extServHandle.disableBluetooth();
  EXPECT_TRUE(ecallHandler.mWillDisconnBT.load());
  EXPECT_EQ(1u, fakeBus::requests(kPsse, "getSHF_Scenario").size());
  EXPECT_TRUE(log.hasSlog("Failed to request to disable Bluetooth, rc 0x"));

  extServHandle.enableBluetooth();
  EXPECT_FALSE(ecallHandler.mWillDisconnBT.load());
  EXPECT_TRUE(log.hasSlog("Failed to enable Bluetooth, rc 0x"));
}

}  // namespace
