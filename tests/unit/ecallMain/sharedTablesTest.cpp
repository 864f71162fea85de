// Rows of the shared tables that a shifted or mistyped entry would move.
#include <gtest/gtest.h>

#include "ecallMain/ecallTypes.h"

namespace {

TEST(sharedTablesTest, RowsAnOffByOneWouldMove) {
  EXPECT_EQ(ecallMain::EmergencyEvent[0], "NONE");
  EXPECT_EQ(ecallMain::EmergencyEventDescription[0], "NONE");
  EXPECT_EQ(ecallMain::eCallModeTypeString[0], "none");
  EXPECT_EQ(ecallSystemFailure::sDescription[0], "none");
  EXPECT_EQ(ecallMain::EmergencyEvent[28], "Emergency_Callback");
  EXPECT_EQ(ecallMain::eCallModeTypeString[7], "systemError");

  // Each serial kind is its CAN kind plus 13, letter and text alike.
  const char* const letters[] = {"A", "B", "C", "D", "F", "Tgl", "H", "I", "K", "L", "M", "O", "X"};
  for (int kind = 0; kind < ecallMain::IMPACT_KIND_COUNT; ++kind) {
    const int can = ecallMain::CAN_IMPACT_FIRST + kind;
    EXPECT_EQ(ecallMain::EmergencyEvent[can], std::string("CAN_IMPACT_") + letters[kind]);
    EXPECT_EQ(ecallMain::EmergencyEvent[can + 13], std::string("SERIAL_IMPACT_") + letters[kind]);
    EXPECT_EQ(ecallMain::EmergencyEventDescription[can + 13],
              "SERIAL - " + ecallMain::EmergencyEventDescription[can].substr(6));
  }
  EXPECT_EQ(ecallMain::EmergencyEvent[14], "CAN_IMPACT_X");
  EXPECT_EQ(ecallMain::EmergencyEvent[27], "SERIAL_IMPACT_X");

  EXPECT_EQ(ecallSystemFailure::bitMask[0], 0u);
  for (int source = 1; source < ecallSystemFailure::SOURCE_COUNT; ++source)
    EXPECT_EQ(ecallSystemFailure::bitMask[source], 1u << (source - 1)) << source;
}

}  // namespace
