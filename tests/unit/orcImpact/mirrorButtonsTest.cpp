// The mirror buttons as read from the vehicle status object.
#include "ecallProcessor/processorTimers.h"
#include "platform/pulses.h"
#include "unit/orcImpact/orcFixture.h"

namespace {

using namespace orcTest;

class MirrorButtonsTest : public OrcFixture {
 protected:
  // One read of the button object, handed on as the reader thread does.
  void readButtons(const std::string& lines) {
    std::string text = "@vehstat\n" + lines;
    canIpcEmergencyHandler.processButtonPpsText(text.data(), armed);
  }
  bool emergencyStartedBy(const char* value) {
    ecallHandler.curECallType = ecallMain::NONE;
    ecallHandler.curCallModeType = ecallMain::CALL_NONE;
    readButtons(std::string("E_CALL_BtnStat::") + value + "\n");
    return ecallHandler.curECallType == ecallMain::E_CALL_BtnStat;
  }
  bool armed = true;
};

TEST_F(MirrorButtonsTest, EmergencyButtonStartsOneEmergencyPerPress) {
  // A repeated "1" is a held button; "2" neither arms nor disarms.
  const char* values[] = {"1", "1", "2", "1", "0", "2", "1"};
  const bool started[] = {true, false, false, false, false, false, true};
  for (int i = 0; i < 7; ++i) EXPECT_EQ(started[i], emergencyStartedBy(values[i])) << "step " << i;
  EXPECT_TRUE(logHas("ecallBtn = 2\n"));
}

TEST_F(MirrorButtonsTest, VehicleWithoutEmbeddedPhoneIgnoresBothButtons) {
  connectChannel();
  extServHandle.mEmbeddedPhoneEnabled = false;
  readButtons("E_CALL_BtnStat::1\nU_CALL_BtnStat::1\n");
  EXPECT_EQ(ecallMain::NONE, ecallHandler.curECallType.load());
  EXPECT_TRUE(armed);
  EXPECT_FALSE(log.hasTrace("ecallBtn pps value") || log.hasTrace("UcallBtn pps value"));
  EXPECT_TRUE(micro.drain().empty());
}

TEST_F(MirrorButtonsTest, AssistDuringAnEmergencyBlinksGreenWhateverTheLedShowed) {
  connectChannel();
  canIpcEmergencyHandler.setLedStatus(LED_RED);
  micro.drain();
  ecallHandler.ecallModeActive = true;
  readButtons("U_CALL_BtnStat::1\n");
  EXPECT_EQ(Bytes({1, 2}), micro.next());
  EXPECT_EQ(Bytes({1, 1}), micro.next(seconds(5)));  // the blink timer's end
}

TEST_F(MirrorButtonsTest, AssistOutsideAnEmergencyLightsTheLedOnlyWhenItIsOff) {
  platform::setTimeScale(1.0);  // the Assist timer still runs when looked at
  createProcessorTimers(qnx::ChannelCreate(0));
  connectChannel();
  readButtons("U_CALL_BtnStat::1\n");
  EXPECT_EQ(std::vector<Bytes>({{1, 1}}), micro.drain());
  EXPECT_TRUE(isRunningAssistTimeoutTimer());

  // Already solid green: only the processor hears of the press.
  stopAssistTimeoutTimer();
  readButtons("U_CALL_BtnStat::1\n");
  EXPECT_TRUE(micro.drain().empty());
  EXPECT_TRUE(isRunningAssistTimeoutTimer());

  // A release is not acted on; during a Bluetooth call the LED blinks.
  stopAssistTimeoutTimer();
  canIpcEmergencyHandler.setLedStatus(LED_OFF);
  micro.drain();
  ecallHandler.btCallActive = true;
  readButtons("U_CALL_BtnStat::0\n");
  EXPECT_FALSE(isRunningAssistTimeoutTimer());
  readButtons("U_CALL_BtnStat::1\n");
  EXPECT_EQ(std::vector<Bytes>({{1, 2}}), micro.drain());
}

}  // namespace
