// The system log line and the fatal exit of the service frame.
#include <gtest/gtest.h>

#include "ecallMain/ecallMain.h"
#include "platform/slog.h"
#include "support/testSupport.h"

namespace {

TEST(systemLogTest, TextBeyondTheLineBufferIsCutNotOverflowed) {
  testSupport::LogCapture log;
  sendtoSlog(_SLOG_WARNING, "%s", std::string(10000, 'x').c_str());
  const auto entries = log.slogEntries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].kind, "3");
  EXPECT_EQ(entries[0].text, "ecallService: " + std::string(499, 'x'));
}

TEST(systemLogTest, DieWritesTheMessageAsGivenAndAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(die("Failed to register service: 0x%0X", 0x80000005u), "Failed to register service: 0x80000005");
}

}  // namespace
