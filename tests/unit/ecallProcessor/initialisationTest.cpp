// Start-up of the processor: version line, locks, state machine thread,
// subscriptions and volumes, in that order.
#include <algorithm>

#include "phoneFixture.h"

using namespace phoneTest;

namespace {

class InitialisationTest : public ProcessorFixture {};

TEST_F(InitialisationTest, StartsInOrder) {
  EXPECT_EQ(1u, emergencyLogCount("ECall Service Version 1.2.1r\n"));
  fakeBus::setOwner(EMBEDDED_PHONE_SERVICE, false);

  ecallHandler.initEcallProcessor();

  EXPECT_TRUE(uselogWriteMutex.load());
  EXPECT_TRUE(useGeneralEcallProcessorMutex.load());
  EXPECT_GT(stateMachineThreadSendChannelId.load(), 0);
  // The timers exist by the time the registration starts one of them.
  EXPECT_TRUE(isTimerActive(timerTimeoutPhoneNotPresent));

  const auto calls = fakeBus::calls();
  auto first = [&](auto pred) { return std::find_if(calls.begin(), calls.end(), pred) - calls.begin(); };
  const auto ownerWatch = first([](const fakeBus::Call& c) { return c.kind == fakeBus::Call::SubscribeOwner; });
  const auto appPaused = first([](const fakeBus::Call& c) { return c.method == "appPaused"; });
  const auto volumes = first([](const fakeBus::Call& c) { return c.busName == AUDIO_MIXER_SERVICE; });
  EXPECT_LT(ownerWatch, appPaused);
  EXPECT_LT(appPaused, volumes);
  EXPECT_LT(volumes, static_cast<long>(calls.size()));
}

}  // namespace
