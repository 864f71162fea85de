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

// Assist outside an emergency lights the LED only when it is off; the
// processor hears of every press.
TEST_F(MirrorButtonsTest, AssistPressOnASolidGreenLedSendsNothing) {
  platform::setTimeScale(1.0);  // the Assist timer still runs when looked at
  createProcessorTimers(qnx::ChannelCreate(0));
  connectChannel();
  canIpcEmergencyHandler.setLedStatus(LED_SOLID_GREEN);
  micro.drain();
  readButtons("U_CALL_BtnStat::1\n");
  EXPECT_TRUE(micro.drain().empty());
  EXPECT_TRUE(isRunningAssistTimeoutTimer());
}

}  // namespace
