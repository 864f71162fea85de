// Rows of the shared tables that a shifted or mistyped entry would move.
#include <gtest/gtest.h>

#include <string>

#include "ecallMain/ecallTypes.h"

namespace {

TEST(sharedTablesTest, NoEventRowsAndCasing) {
  EXPECT_EQ(ecallMain::EmergencyEvent[0], "NONE");
  EXPECT_EQ(ecallMain::EmergencyEventDescription[0], "NONE");
  EXPECT_EQ(ecallMain::eCallModeTypeString[0], "none");
  EXPECT_EQ(ecallSystemFailure::sDescription[0], "none");
  EXPECT_EQ(ecallMain::EmergencyEvent[1], "E_CALL_BtnStat");
  EXPECT_EQ(ecallMain::EmergencyEvent[28], "Emergency_Callback");
  EXPECT_EQ(ecallMain::eCallModeTypeString[7], "systemError");
  EXPECT_EQ(ecallMain::eCallModeTypeString[9], "nochange");
  EXPECT_EQ(ecallMain::eXletStateString[5], "stopped");
}

TEST(sharedTablesTest, EachSerialKindIsItsCanKindPlusThirteen) {
  const char* const letters[] = {"A", "B", "C", "D", "F", "Tgl", "H", "I", "K", "L", "M", "O", "X"};
  for (int kind = 0; kind < ecallMain::IMPACT_KIND_COUNT; ++kind) {
    const int can = ecallMain::CAN_IMPACT_FIRST + kind;
    const int serial = can + 13;
    EXPECT_EQ(ecallMain::EmergencyEvent[can], std::string("CAN_IMPACT_") + letters[kind]);
    EXPECT_EQ(ecallMain::EmergencyEvent[serial], std::string("SERIAL_IMPACT_") + letters[kind]);
    const std::string& canText = ecallMain::EmergencyEventDescription[can];
    ASSERT_EQ(canText.rfind("CAN - ", 0), 0u) << can;
    EXPECT_EQ(ecallMain::EmergencyEventDescription[serial], "SERIAL - " + canText.substr(6)) << serial;
  }
  EXPECT_EQ(ecallMain::CAN_IMPACT_X, 14);
  EXPECT_EQ(ecallMain::SERIAL_IMPACT_X, 27);
  EXPECT_EQ(ecallMain::EmergencyEventDescription[8],
            "CAN - Rollover event 2 (Fast developing roll - Window Curtains and/or Pretensioners)");
}

TEST(sharedTablesTest, FailureSourceBitsFollowTheirOrdinal) {
  EXPECT_EQ(ecallSystemFailure::bitMask[0], 0u);
  for (int source = 1; source < ecallSystemFailure::SOURCE_COUNT; ++source)
    EXPECT_EQ(ecallSystemFailure::bitMask[source], 1u << (source - 1)) << source;
  EXPECT_EQ(ecallSystemFailure::sDescription[8], "no ecall number programmed");
}

}  // namespace
