// How the service starts in the car, and takes the signals that ask it to end.
#include <signal.h>

#include "carScene.h"

using namespace carScene;

// Start-up queries in order, then the airbag channel; a variant missing or refused is
// asked five times with pauses (the phone then present); SIGTERM and SIGINT do not stop it.
TEST(ServiceFrame, StartsInOrderAndAsksTheVariantWithPausesBetweenAttempts) {
  const struct {
    const char* command;
    const char* decided;
    bool pauseAfterLast;  // the fifth failure pauses too before giving up
  } cases[] = {
      {"set variant none", "ECELL state in variant determined to be, NOT PRESENT, setting EmbeddedPhoneEnabled flag to 1",
       false},
      {"peer platform refuse", "ERROR Obtaining VARIANT_ECELL!!!!  5 attempts were made", true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    Scene s(carOptions(kScale, {c.command}));
    EXPECT_TRUE(s.car.waitForTrace(c.decided));
    Strings steps;
    std::vector<double> variant;
    double phoneAsked = -1, volumesAsked = -1, channelOpened = -1;
    for (const auto& r : s.car.records()) {
      const std::string kind = r["kind"].asString();
      // Stamped when it happened: a request may be recorded after its answer's effects.
      if (kind == "vehicle" && r["event"] == "connected" && channelOpened < 0) channelOpened = at(r);
      if (kind != "request") continue;
      steps.push_back(r["service"].asString() + " " + r["method"].asString());
      if (r["method"] == "get_variantinfo") variant.push_back(at(r));
      if (r["service"] == "EmbeddedPhone" && phoneAsked < 0) phoneAsked = at(r);
      if (r["service"] == "AudioMixerManager" && volumesAsked < 0) volumesAsked = at(r);
    }
    EXPECT_TRUE(containsInOrder(steps, {"platform get_all_versions", "platform get_variantinfo",
                                        "EmbeddedPhone getProperties", "AudioMixerManager getProperties"}))
        << testing::PrintToString(steps);
    EXPECT_GT(channelOpened, volumesAsked) << "the airbag channel was read before the start-up queries ended";
    ASSERT_EQ(variant.size(), 5u);
    for (size_t i = 1; i < variant.size(); ++i) EXPECT_GE(variant[i] - variant[i - 1], atLeast(1000)) << i;
    if (c.pauseAfterLast) {
      EXPECT_GE(phoneAsked - variant.back(), atLeast(1000));
    }
    ASSERT_EQ(kill(s.car.servicePid(), SIGTERM), 0);
    ASSERT_EQ(kill(s.car.servicePid(), SIGINT), 0);
    s.sim("crash B can");
    EXPECT_TRUE(s.waitForRequest("EmbeddedPhone", "ecallDial")) << "the phone does not count as present";
    EXPECT_TRUE(s.car.serviceRunning());
    EXPECT_EQ(s.car.requestsSince(0, "platform", "get_variantinfo").size(), 5u);
  }
}
