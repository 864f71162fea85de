// Load end to end: eight head-unit clients ask "IsECallInProgess" as fast as
// they can for 10 s while the airbag controller reports a crash. The crash
// still reaches the phone as a dial and every query is answered correctly
// (the figures of the same load come from bench/busMethods).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "carScene.h"

using namespace carScene;

namespace {

constexpr int kClients = 8;
const auto kLoadTime = std::chrono::seconds(10);

struct LoadResult {
  std::atomic<long> answered{0};
  std::atomic<long> wrong{0};   // an answer that is neither of the two states
  std::atomic<long> failed{0};  // no answer, or an error
  std::atomic<int> connected{0};
};

// One client on a connection of its own, asking until the load time is over.
void askUntil(const std::string& address, std::chrono::steady_clock::time_point end, LoadResult& result) {
  SVCIPC_tConnection connection = nullptr;
  if (SVCIPC_IS_ERROR(SVCIPC_getConnectionByAddress(address.c_str(), &connection))) {
    result.failed++;
    result.connected++;
    return;
  }
  result.connected++;
  while (std::chrono::steady_clock::now() < end) {
    std::string reply;
    if (SVCIPC_IS_ERROR(
            testSupport::invokeOn(connection, "ecallService", "IsECallInProgess", "{}", SVCIPC_TIMEOUT_DEFAULT, &reply)))
      result.failed++;
    else if (reply == "{\"ecallInProgress\":false}\n" || reply == "{\"ecallInProgress\":true}\n")
      result.answered++;
    else
      result.wrong++;  // an empty reply too
  }
  SVCIPC_closeConnection(connection);
}

}  // namespace

TEST(Load, CrashIsCalledWhileEightClientsQueryAsFastAsTheyCan) {
  Scene s(carOptions(kScale));
  LoadResult result;
  const auto end = std::chrono::steady_clock::now() + kLoadTime;
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; ++i) clients.emplace_back([&] { askUntil(s.car.busAddress(), end, result); });
  // The crash comes once every client is asking.
  ASSERT_TRUE(testSupport::waitUntil(
      [&] { return result.connected.load() == kClients && result.answered.load() >= 10 * kClients; }, kLong));
  s.sim("crash B can");
  EXPECT_TRUE(s.waitForRequest("EmbeddedPhone", "ecallDial")) << "the crash did not reach the phone under load";
  for (auto& client : clients) client.join();

  EXPECT_EQ(result.failed.load(), 0) << "queries went unanswered under load";
  EXPECT_EQ(result.wrong.load(), 0) << "queries were answered wrongly under load";
  EXPECT_EQ(s.car.call("IsECallInProgess"), "{\"ecallInProgress\":true}\n");
  EXPECT_TRUE(s.car.serviceRunning());
}
