// The system log line and the fatal exit of the service frame.
#include <gtest/gtest.h>

#include <string>

#include "ecallMain/ecallMain.h"
#include "platform/slog.h"
#include "support/testSupport.h"

namespace {

TEST(systemLogTest, TextBeyondTheLineBufferIsCutNotOverflowed) {
  testSupport::LogCapture log;
  const std::string longText(10000, 'x');
  sendtoSlog(_SLOG_WARNING, "%s", longText.c_str());
  sendtoSlog(_SLOG_INFO, "short %d", 7);

  const auto entries = log.slogEntries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].kind, "3");
  EXPECT_EQ(entries[0].text, "ecallService: " + std::string(499, 'x'));
  EXPECT_EQ(entries[1].kind, "5");
  EXPECT_EQ(entries[1].text, "ecallService: short 7");
}

TEST(systemLogTest, DieWritesTheMessageAsGivenAndAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(die("Failed to register service: 0x%0X", 0x80000005u), "Failed to register service: 0x80000005");
}

}  // namespace
