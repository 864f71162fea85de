// The service frame end to end: the real ecallService on a private bus with
// the simulated car, asked through the bus as the head unit asks it.
#include <gtest/gtest.h>

#include <signal.h>

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

// The start-up as the car sees it: the service is on the bus before it asks
// anything, then the software version, the variant, the phone's status and
// the volumes, and only then it reads the airbag channel. A variant answer
// without the phone's entry, or a refused query, is asked again after a
// pause, five times in all; then the phone counts as present. The answer is
// never asked again.
TEST(ServiceFrame, StartsInOrderAndAsksTheVariantWithPausesBetweenAttempts) {
  const struct {
    const char* command;
    const char* decided;
    bool pauseAfterLast;  // the fifth failure pauses too before giving up
  } cases[] = {
      {"set variant none", "ECELL state in variant determined to be, NOT PRESENT, setting EmbeddedPhoneEnabled flag to 1",
       false},
      {"peer platform refuse", "ERROR Obtaining VARIANT_ECELL!!!!  5 attempts were made", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    Scene s(carOptions(kScale, {c.command}));
    E2eHarness& car = s.car;
    EXPECT_TRUE(car.waitForTrace(c.decided));
    Strings steps;
    std::vector<double> variant;
    double phoneAsked = -1;
    for (const auto& r : car.records()) {
      const std::string kind = r["kind"].asString();
      if (kind == "peer" && r["service"] == "ecallService") steps.push_back("on the bus");
      if (kind == "vehicle" && r["event"] == "connected") steps.push_back("channel");
      if (kind != "request") continue;
      steps.push_back(r["service"].asString() + " " + r["method"].asString());
      if (r["method"] == "get_variantinfo") variant.push_back(at(r));
      if (r["service"] == "EmbeddedPhone" && phoneAsked < 0) phoneAsked = at(r);
    }
    EXPECT_TRUE(containsInOrder(steps, {"on the bus", "platform get_all_versions", "platform get_variantinfo",
                                        "EmbeddedPhone getProperties", "AudioMixerManager getProperties", "channel"}))
        << testing::PrintToString(steps);
    ASSERT_EQ(variant.size(), 5u);
    for (size_t i = 1; i < variant.size(); ++i) EXPECT_GE(variant[i] - variant[i - 1], atLeast(1000)) << i;
    if (c.pauseAfterLast) {
      EXPECT_GE(phoneAsked - variant.back(), atLeast(1000));
    }
    s.sim("crash B can");
    EXPECT_TRUE(s.waitForRequest("EmbeddedPhone", "ecallDial")) << "the phone does not count as present";
    EXPECT_EQ(car.requestsSince(0, "platform", "get_variantinfo").size(), 5u);
  }
}

// A request to end is noted, not obeyed: the service stays on the bus and
// still places the emergency asked for afterwards (the harness kills it).
TEST(ServiceFrame, TermAndInterruptSignalsLeaveTheServiceServing) {
  Scene s(carOptions(kScale));
  ASSERT_EQ(kill(s.car.servicePid(), SIGTERM), 0);
  ASSERT_EQ(kill(s.car.servicePid(), SIGINT), 0);
  EXPECT_EQ(s.car.call("IsECallInProgess"), "{\"ecallInProgress\":false}\n");
  expectStartEcallDials(s.car);
}
