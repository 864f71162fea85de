// A call opened again keeps its trigger, a redial replaces the dial's stages, the log line keeps whole stages.
#include <gtest/gtest.h>

#include "callTimings/callTimings.h"

using namespace callTimings;

TEST(CallTimings, RedialsAndTheLogLinesRoom) {
  stageClock clock;
  callRecord call;
  clock.mark(ACTIVE, 5);  // no call open: nothing
  EXPECT_FALSE(clock.finish(6, call));
  clock.begin(1000);
  clock.dialSent(1010);
  clock.mark(ALERTING, 1030);
  clock.dialSent(61000);
  clock.mark(DIALLING, 61005);
  clock.begin(62000);
  for (int64_t at : {123456789012, 123456789013}) clock.mark(ACTIVE, at);
  ASSERT_TRUE(clock.finish(123456789999, call));
  EXPECT_EQ(logLine(call, 200),
            "Call timings (ms after trigger): dial 60000, dialling 60005, active 123456788012, end 123456788999; "
            "dials 2\n");
  EXPECT_EQ(logLine(call, 80), "Call timings (ms after trigger): dial 60000, dialling 60005 ...\n");
  EXPECT_EQ(clock.last().triggerMs, 1000);
}
