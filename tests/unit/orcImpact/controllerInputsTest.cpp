// What the restraint controller and the vehicle status object send; the mirror LED's blink timers.
#include <algorithm>

#include "unit/unitFixture.h"

namespace {

using namespace ecallMain;
using Bytes = std::vector<uint8_t>;

class ControllerInputs : public UnitFixture {
 protected:
  // The emergency one message starts; printed gets what it printed.
  eEmergencyType handle(const Bytes& msg, std::string* printed = nullptr) {
    processProbe::curECallType() = NONE;
    processProbe::curCallModeType() = CALL_NONE;
    testing::internal::CaptureStdout();
    canIpcEmergencyHandler.processOrcMessage(msg.data(), static_cast<int>(msg.size()));
    (printed ? *printed : mDiscarded) = testing::internal::GetCapturedStdout();
    return processProbe::curECallType();
  }
  std::string mDiscarded;
};

// A path counts only when its valid byte is exactly 1; a short message or unknown kind
// leaves no trace; per path, the emergency each of the 16 bits (byte 0 bit 0 first)
// starts alone, others only log; a link counts as lost only for the value 1.
TEST_F(ControllerInputs, ValidPathsMalformedMessagesImpactBitsAndLinkLoss) {
  EXPECT_EQ(NONE, handle({0x00, 0x02, 0x02, 0x00, 0x00, 0x00, 0x00}));
  EXPECT_EQ(NONE, handle({0x00, 0x00, 0x00, 0x00, 0x02, 0x02, 0x00}));
  EXPECT_FALSE(logCount("Rx ORC CAN 0x0200") || logCount("Rx ORC serial 0x"));

  log.clear();
  for (const Bytes& msg : {Bytes{0x00, 0x01, 0x02, 0x00, 0x01, 0x00}, Bytes{0x01, 0x01, 0x01},
                           Bytes{0x02, 0x01, 0x02, 0x00, 0x01, 0x00, 0x02}}) {
    std::string printed;
    EXPECT_EQ(NONE, handle(msg, &printed));
    EXPECT_EQ("", printed);
  }
  EXPECT_FALSE(log.hasTrace("Rx") || log.hasTrace("Start add entry"));
  EXPECT_EQ(0u, processProbe::systemError().load());

  const char* const serial[16] = {"", "SERIAL_IMPACT_B", "SERIAL_IMPACT_C", "", "", "SERIAL_IMPACT_F", "", "",
                                  "SERIAL_IMPACT_H", "SERIAL_IMPACT_I", "", "SERIAL_IMPACT_L", "", "", "", ""};
  const char* const can[16] = {"", "CAN_IMPACT_B", "CAN_IMPACT_C", "", "", "CAN_IMPACT_F", "", "CAN_IMPACT_Tgl",
                               "", "CAN_IMPACT_I", "", "CAN_IMPACT_L", "", "", "", "CAN_IMPACT_X"};
  for (bool isSerial : {true, false}) {
    for (int bit = 0; bit < 16; ++bit) {
      Bytes msg(7, 0);
      msg[isSerial ? 4 : 1] = 1;
      msg[(isSerial ? 5 : 2) + bit / 8] = static_cast<uint8_t>(1u << (bit % 8));
      const std::string expected = (isSerial ? serial : can)[bit];
      std::string printed;
      const eEmergencyType started = handle(msg, &printed);
      EXPECT_EQ(expected.empty() ? "NONE" : expected, EmergencyEvent[started]) << (isSerial ? "serial" : "CAN") << " bit " << bit;
      const std::string announced = std::string(isSerial ? "Serial" : "CAN") + " Emergency " + expected + "\n";
      EXPECT_EQ(!expected.empty(), printed.find(announced) != std::string::npos) << printed;
    }
  }

  using namespace ecallSystemFailure;
  processProbe::systemError() = bitMask[ORC_SERIAL_LOC];
  handle({0x01, 0x01, 0x02, 0x01, 0x01, 0x01});
  EXPECT_EQ(bitMask[ORC_CAN_LOC] | bitMask[MIRROR_LOC], processProbe::systemError().load());
}

// A repeated "1" is a held button; "2" neither arms nor disarms.
TEST_F(ControllerInputs, EmergencyButtonStartsOneEmergencyPerPress) {
  bool armed = true;
  const std::pair<const char*, bool> presses[] = {{"1", true},  {"1", false}, {"2", false}, {"1", false},
                                                  {"0", false}, {"2", false}, {"1", true}};
  for (const auto& [value, starts] : presses) {
    processProbe::curECallType() = NONE;
    processProbe::curCallModeType() = CALL_NONE;
    std::string text = std::string("@vehstat\nE_CALL_BtnStat::") + value + "\n";
    canIpcEmergencyHandler.processButtonPpsText(text.data(), armed);
    EXPECT_EQ(starts, processProbe::curECallType() == E_CALL_BtnStat) << value;
  }
  EXPECT_EQ(2u, logCount("ecallBtn = 2"));
}

// The detached blink threads use the process objects: the process waits for them first.
TEST_F(ControllerInputs, BlinkTimerWaitEndsOnlyAfterEveryBlinkHasSetTheLedBack) {
  canIpcEmergencyHandler.setLedStatus(LED_BLINKING_GREEN);
  canIpcEmergencyHandler.startBlinkTimer();
  canIpcEmergencyHandler.startBlinkTimer();
  ASSERT_TRUE(waitForBlinkTimers());
  EXPECT_EQ(2u, logCount("send LED status 0"));  // each blink turned the LED off (no emergency)
  EXPECT_EQ(canIpcEmergencyHandler.getLastLedSetStatus(), LED_OFF);
  EXPECT_TRUE(waitForBlinkTimers());  // nothing left to wait for
}

}  // namespace
