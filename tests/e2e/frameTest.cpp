// The service frame end to end: the real ecallService on a private bus with
// the simulated car, asked through the bus as the head unit asks it.
#include <gtest/gtest.h>

#include <regex>

#include "carScene.h"

using namespace carScene;

// The service is on the bus (the harness waits for its name), answers the
// status queries with fixed member names, ignores a method it does not know
// without a reply, and writes a logged string as one entry of its log.
TEST(ServiceFrame, RegistersAnswersQueriesAndLogsAString) {
  // The head unit speaks French; the operator's language stays English.
  E2eHarness car(carOptions(0.01, {"set language fr_CA", "odo 7654321"}));
  EXPECT_EQ(car.call("IsECallInProgess"), "{\"ecallInProgress\":false}\n");
  EXPECT_EQ(car.call("IsECallModeActive"), "{\"eCallModeActive\":false}\n");
  EXPECT_EQ(car.call("getEmergencyCallLanguage"), "{\"language\":\"en_US\"}\n");

  std::string reply;
  SVCIPC_tError rc = car.invoke("ecallService", "startecall", "{}", 500, &reply);
  EXPECT_TRUE(testSupport::isNoReply(rc)) << "the caller runs into its own time-out, rc 0x" << std::hex << rc;
  EXPECT_TRUE(car.waitForTrace("ecallRequest: startecall, params: {}"));
  EXPECT_TRUE(car.ecallSignalTextsSince(0).empty());

  rc = car.invoke("ecallService", "logStringToEcallLog", "{\"message\":\"driver reports smoke from the hood\\n\"}",
                  500, &reply);
  EXPECT_TRUE(testSupport::isNoReply(rc)) << "this method never answers, rc 0x" << std::hex << rc;
  ASSERT_TRUE(car.waitForEmergencyLog("driver reports smoke from the hood\n"));
  Strings entries;
  for (const auto& line : testSupport::splitLines(car.emergencyLog()))
    if (line.find("driver reports smoke") != std::string::npos) entries.push_back(line);
  ASSERT_EQ(entries.size(), 1u);
  // Time stamp in UTC, then the odometer in tens, then the message as given.
  EXPECT_TRUE(std::regex_match(
      entries[0], std::regex(R"(\d{2}:\d{2}:\d{2} [A-Z][a-z]+ \d{2}, \d{4} GMT:0765432:driver reports smoke from the hood)")))
      << entries[0];
  // Still answering after all of it.
  EXPECT_EQ(car.call("IsECallInProgess"), "{\"ecallInProgress\":false}\n");
}
