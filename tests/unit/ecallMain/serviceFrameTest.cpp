// The service frame: its signal's mode, its system log lines, its fatal exit.
#include "common/jsonText.h"
#include "platform/slog.h"
#include "unit/unitFixture.h"

using ServiceFrame = UnitFixture;

// The type member remembers every mode but the system error, shown once; no new mode shows the last.
TEST_F(ServiceFrame, SignalModeTextRemembersEveryModeButSystemError) {
  const std::pair<ecallMain::eCallModeType, const char*> steps[] = {
      {ecallMain::CALL_NOCHANGE, "none"},  // nothing remembered yet
      {ecallMain::CALL_ECALL, "ecall"},
      {ecallMain::CALL_SYSTEM_ERROR, "systemError"},
      {ecallMain::CALL_NOCHANGE, "ecall"},
      {ecallMain::CALL_ECALL_BUTTON_REPEAT, "ecall_button_repeat"},
      {ecallMain::CALL_NOCHANGE, "ecall_button_repeat"},
  };
  for (const auto& [mode, type] : steps) {
    emitEmergencySignal(true, ecallMain::E_CALL_BtnStat, "911", mode, false, true);
    Json::Value payload;
    ASSERT_TRUE(jsonParse(fakeBus::emittedData("ecall").back().c_str(), payload));
    EXPECT_EQ(payload["type"].asString(), type) << "mode " << mode;
  }
}

TEST(SystemLog, TextBeyondTheLineBufferIsCutAndDieAbortsWithTheMessage) {
  testSupport::LogCapture log;
  sendtoSlog(_SLOG_WARNING, "%s", std::string(10000, 'x').c_str());
  const auto entries = log.slogEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].kind, "3");
  EXPECT_EQ(entries[0].text, "ecallService: " + std::string(499, 'x'));

  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(die("Failed to register service: 0x%0X", 0x80000005u), "Failed to register service: 0x80000005");
}
