// Eight clients querying flat out neither stop a crash nor get a wrong answer.
#include <atomic>
#include <thread>

#include "carScene.h"

using namespace carScene;

TEST(Load, CrashIsCalledWhileEightClientsQueryAsFastAsTheyCan) {
  constexpr int kClients = 8;
  Scene s(carOptions(kScale));
  std::atomic<long> answered{0}, wrong{0};
  std::vector<std::jthread> clients;
  for (int i = 0; i < kClients; ++i)
    clients.emplace_back([&](std::stop_token stop) {
      SVCIPC_tConnection connection = nullptr;
      if (SVCIPC_IS_ERROR(SVCIPC_getConnectionByAddress(s.car.busAddress().c_str(), &connection))) return void(wrong++);
      while (!stop.stop_requested()) {
        std::string reply;
        const SVCIPC_tError rc = testSupport::invokeOn(connection, "ecallService", "IsECallInProgess", "{}",
                                                       SVCIPC_TIMEOUT_DEFAULT, &reply);
        const bool right = reply == "{\"ecallInProgress\":false}\n" || reply == "{\"ecallInProgress\":true}\n";
        ++(SVCIPC_IS_ERROR(rc) || !right ? wrong : answered);
      }
      SVCIPC_closeConnection(connection);
    });
  ASSERT_TRUE(testSupport::waitUntil([&] { return answered.load() >= 10 * kClients; }, kLong));
  s.sim("crash B can");
  EXPECT_TRUE(s.waitForRequest("EmbeddedPhone", "ecallDial")) << "the crash did not reach the phone under load";
  clients.clear();  // stops and joins them
  EXPECT_EQ(wrong.load(), 0) << "queries went unanswered or were answered wrongly under load";
  EXPECT_EQ(s.car.call("IsECallInProgess"), "{\"ecallInProgress\":true}\n");
}
