// The mirror LED rules, the Assist status message and the blink timer.
#include "unit/orcImpact/orcFixture.h"

namespace {

using namespace orcTest;

class MirrorLedTest : public OrcFixture {
 protected:
  void SetUp() override {
    OrcFixture::SetUp();
    connectChannel();
  }
  // What one request sent.
  std::vector<Bytes> request(eLedStatus status) {
    canIpcEmergencyHandler.setLedStatus(status);
    return micro.drain();
  }
};

TEST_F(MirrorLedTest, RedIsRefusedOverGreenAndOffBecomesRedWhileASystemErrorExists) {
  for (eLedStatus green : {LED_BLINKING_GREEN, LED_SOLID_GREEN}) {
    request(green);
    EXPECT_TRUE(request(LED_RED).empty());
    EXPECT_EQ(green, canIpcEmergencyHandler.getLastLedSetStatus());
  }
  request(LED_OFF);
  EXPECT_EQ(std::vector<Bytes>({{1, 3}}), request(LED_RED));

  ecallHandler.systemError = ecallSystemFailure::bitMask[ecallSystemFailure::ORC_SERIAL_LOC];
  request(LED_SOLID_GREEN);
  EXPECT_EQ(std::vector<Bytes>({{1, 3}}), request(LED_OFF));
  EXPECT_EQ(LED_RED, canIpcEmergencyHandler.getLastLedSetStatus());
  ecallHandler.systemError = 0;
  EXPECT_EQ(std::vector<Bytes>({{1, 0}}), request(LED_OFF));
  EXPECT_TRUE(logHas("send LED status 3\n"));
}

TEST_F(MirrorLedTest, VehicleWithoutEmbeddedPhoneSendsNoLedStatusButTheAssistStatus) {
  extServHandle.mEmbeddedPhoneEnabled = false;
  for (eLedStatus status : {LED_SOLID_GREEN, LED_RED, LED_OFF}) canIpcEmergencyHandler.setLedStatus(status);
  canIpcEmergencyHandler.sendAssistAppStatus(true);
  canIpcEmergencyHandler.sendAssistAppStatus(false);
  EXPECT_EQ(std::vector<Bytes>({{2, 1}, {2, 0}}), micro.drain());
  EXPECT_EQ(LED_OFF, canIpcEmergencyHandler.getLastLedSetStatus());
}

TEST_F(MirrorLedTest, BlinkTimerEndsInTheSteadyStateOfItsExpiry) {
  // Green in an emergency; otherwise off, or red while a system error exists.
  const struct {
    bool emergency;
    uint32_t systemError;
    uint8_t steady;
  } cases[] = {{true, 0, 1}, {false, 0, 0}, {false, 0x20, 3}};
  for (const auto& c : cases) {
    ecallHandler.ecallModeActive = c.emergency;
    ecallHandler.systemError = c.systemError;
    request(LED_BLINKING_GREEN);
    canIpcEmergencyHandler.startBlinkTimer();
    EXPECT_EQ(Bytes({1, c.steady}), micro.next(seconds(5)));
  }
  // Two timers started together both fire.
  ecallHandler.systemError = 0;
  canIpcEmergencyHandler.startBlinkTimer();
  canIpcEmergencyHandler.startBlinkTimer();
  EXPECT_EQ(Bytes({1, 0}), micro.next(seconds(5)));
  EXPECT_EQ(Bytes({1, 0}), micro.next(seconds(5)));
}

}  // namespace
