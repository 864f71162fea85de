// Start-up of the processor: version line, locks, state machine thread,
// subscriptions and volumes, in that order.
#include <algorithm>

#include "ecallMain/ecallMain.h"
#include "phoneFixture.h"

using namespace phoneTest;

namespace {

class InitialisationTest : public ProcessorFixture {};

TEST_F(InitialisationTest, StartsInOrderAndLeavesThePhoneToBeWaitedFor) {
  EXPECT_EQ(1u, emergencyLogCount("ECall Service Version 1.2.1r\n"));
  fakeBus::setOwner(EMBEDDED_PHONE_SERVICE, false);

  ecallHandler.initEcallProcessor();

  EXPECT_TRUE(uselogWriteMutex.load());
  EXPECT_TRUE(useGeneralEcallProcessorMutex.load());
  EXPECT_GT(stateMachineThreadSendChannelId.load(), 0);
  // The timers exist by the time the registration starts one of them.
  EXPECT_TRUE(isTimerActive(timerTimeoutPhoneNotPresent));

  const auto calls = fakeBus::calls();
  auto indexOf = [&](auto pred) {
    return std::find_if(calls.begin(), calls.end(), pred) - calls.begin();
  };
  const auto ownerWatch = indexOf([](const fakeBus::Call& c) { return c.kind == fakeBus::Call::SubscribeOwner; });
  const auto lastSubscription = calls.rend() - std::find_if(calls.rbegin(), calls.rend(), [](const fakeBus::Call& c) {
                                  return c.kind == fakeBus::Call::Subscribe;
                                }) - 1;
  const auto volumes = indexOf([](const fakeBus::Call& c) {
    return c.kind == fakeBus::Call::Invoke && c.busName == AUDIO_MIXER_SERVICE && c.method == "getProperties";
  });
  ASSERT_LT(ownerWatch, static_cast<long>(calls.size()));
  ASSERT_LT(volumes, static_cast<long>(calls.size()));
  EXPECT_LT(ownerWatch, lastSubscription);
  EXPECT_LT(lastSubscription, volumes);
  EXPECT_EQ(11u, fakeBus::callsOf(fakeBus::Call::Subscribe).size());
}

}  // namespace
