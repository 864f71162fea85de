// vehicle-sim alone on a private bus, driven through its console and asked as the service would.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "common/jsonText.h"
#include "support/e2eHarness.h"
#include "support/testSupport.h"

using testSupport::E2eHarness;
using testSupport::E2eOptions;

namespace {

E2eOptions simOnly(std::vector<std::string> simArgs = {}) {
  E2eOptions options;
  options.startService = false;
  options.simArgs = std::move(simArgs);
  return options;
}

Json::Value parse(const std::string& text) {
  Json::Value value;
  jsonParse(text.c_str(), value);
  return value;
}

bool ok(const std::string& reply) { return reply.rfind("ok", 0) == 0; }

}  // namespace

// A dropped call and a second dial during a call, the simulated phone's own (what every
// end-to-end call hears is checked there); the restraint controller's channel both ways.
TEST(VehicleSim, DialCanDropOrBeRefusedAndTheChannelCarriesExactBytesBothWays) {
  E2eHarness car(simOnly());
  const std::string dial = "{\"address\":\"911\",\"callType\":\"MVA\",\"vehicleType\":\"Corvane\"}";
  auto callStates = [&](size_t count) {
    std::vector<std::string> states;
    testSupport::waitUntil([&] {
      states.clear();
      for (const auto& r : car.records("signal"))
        if (r["service"] == "EmbeddedPhone" && r["name"] == "callState" && r["sent"].asBool())
          states.push_back(parse(r["data"].asString())["callStateInfo"][0]["callState"].asString());
      return states.size() >= count;
    });
    return states;
  };
  std::string reply;
  ASSERT_TRUE(ok(car.sim("set dial drop")));
  EXPECT_FALSE(SVCIPC_IS_ERROR(car.invoke("EmbeddedPhone", "ecallDial", dial, 3000, &reply)));
  EXPECT_EQ(callStates(2), (std::vector<std::string>{"CALL_STATE_DIALING", "CALL_STATE_TERMINATED"}));

  ASSERT_TRUE(ok(car.sim("set dial ok")));
  EXPECT_FALSE(SVCIPC_IS_ERROR(car.invoke("EmbeddedPhone", "ecallDial", dial, 3000, &reply)));
  const auto states = callStates(5);
  ASSERT_GE(states.size(), 5u);
  EXPECT_EQ(states[4], "CALL_STATE_ACTIVE");
  EXPECT_TRUE(SVCIPC_IS_ERROR(car.invoke("EmbeddedPhone", "ecallDial", dial, 3000, &reply)));

  EXPECT_EQ(car.sim("crash B can").rfind("error", 0), 0u) << "nobody is connected yet";

  int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  struct sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", car.path("/dev/ipc/ch12").c_str());
  ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << strerror(errno);
  ASSERT_TRUE(car.waitForChannelConnected());

  // Kind B on CAN, raw impacts and link loss are read by the service end to end.
  const std::pair<const char*, std::vector<int>> cases[] = {
      {"crash Tgl can", {0, 1, 0x80, 0, 0, 0, 0}},
      {"crash X", {0, 1, 0, 0x80, 0, 0, 0}},
      {"crash I serial", {0, 0, 0, 0, 1, 0, 0x02}},
      {"crash O serial", {0, 0, 0, 0, 1, 0, 0x40}},
  };
  for (const auto& [command, bytes] : cases) {
    ASSERT_TRUE(ok(car.sim(command))) << command;
    unsigned char buffer[512];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    EXPECT_EQ(std::vector<int>(buffer, buffer + (n > 0 ? n : 0)), bytes) << command;
  }
  EXPECT_EQ(car.sim("crash E").rfind("error", 0), 0u) << "E is not an impact kind";

  // What the service writes: LED, Assist status, module reset.
  for (std::vector<unsigned char> message : {std::vector<unsigned char>{1, 2}, {2, 1}, {3}})
    ASSERT_EQ(write(fd, message.data(), message.size()), static_cast<ssize_t>(message.size()));
  ASSERT_TRUE(car.waitForChannelMessage({3}));
  EXPECT_EQ(car.channelMessages(), (std::vector<std::vector<int>>{{1, 2}, {2, 1}, {3}}));
  std::string status = car.sim("status");
  EXPECT_NE(status.find("led=blinking green"), std::string::npos) << status;
  EXPECT_NE(status.find("resets=1"), std::string::npos) << status;
  close(fd);
}

// A script runs before the console; a button replaces the vehicle status
// object whole, so a reader that watches it never sees half a file.
TEST(VehicleSim, ScriptRunsFirstAndButtonsReplaceTheStatusObjectWhole) {
  testSupport::TempRoot dir;
  testSupport::writeFile(dir.path("/script"), "# a car with a tired phone\nset brand 9\n\nphone off\n");
  E2eHarness car(simOnly({"--script", dir.path("/script")}));
  const std::string status = car.sim("status");
  EXPECT_NE(status.find("brand=9"), std::string::npos) << status;
  EXPECT_NE(status.find("phone=off"), std::string::npos) << status;

  const std::string object = car.path("/pps/can/vehstat");
  EXPECT_EQ(testSupport::readFile(object), "@vehstat\nE_CALL_BtnStat::0\nU_CALL_BtnStat::0\nODO::1234567\n");
  struct stat before, after;
  ASSERT_EQ(stat(object.c_str(), &before), 0);
  ASSERT_TRUE(ok(car.sim("button ecall press")));
  EXPECT_EQ(testSupport::readFile(object), "@vehstat\nE_CALL_BtnStat::1\nU_CALL_BtnStat::0\nODO::1234567\n");
  ASSERT_EQ(stat(object.c_str(), &after), 0);
  EXPECT_NE(before.st_ino, after.st_ino) << "the object must be replaced, not rewritten in place";
  ASSERT_TRUE(ok(car.sim("button assist press")));
  ASSERT_TRUE(ok(car.sim("button ecall release")));
  EXPECT_EQ(testSupport::readFile(object), "@vehstat\nE_CALL_BtnStat::0\nU_CALL_BtnStat::1\nODO::1234567\n");
}
