// Common ground of the controller channel, mirror button, LED, module reset
// and Assist tests: the vehicle status object, a vehicle with a healthy
// embedded phone, and the vehicle micro's end of the restraint controller
// channel.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "orcImpact/CANImpactECallHandler.h"
#include "unit/unitFixture.h"

namespace orcTest {

using Bytes = std::vector<uint8_t>;

// The vehicle micro's end of "/dev/ipc/ch12". The sockets are never closed,
// so a reader left blocked on the other end never wakes during exit.
struct vehicleMicro {
  int fd = -1;

  // Listens where the service opens the channel, has it opened, accepts.
  void connect(platform::IpcChannel& channel = canIpcEmergencyHandler.orcChannel()) {
    const std::string path = platform::rootPath(orcIpcChannelPath);
    testSupport::makeDirs(path.substr(0, path.rfind('/')));
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int listenFd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    ASSERT_EQ(0, bind(listenFd, reinterpret_cast<sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, listen(listenFd, 1));
    ASSERT_TRUE(&channel == &canIpcEmergencyHandler.orcChannel() ? canIpcEmergencyHandler.openOrcIpcChannel()
                                                                 : channel.open());
    ASSERT_GE(fd = accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK), 0);
  }
  // What the handler wrote so far, a message an element: enough after a
  // call that writes before it returns.
  std::vector<Bytes> drain() const {
    std::vector<Bytes> out;
    uint8_t buffer[300];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) out.emplace_back(buffer, buffer + n);
    return out;
  }
};

class OrcFixture : public UnitFixture {
 protected:
  void SetUp() override {
    testSupport::makeDirs(root.path("/tmp"));
    testSupport::writeFile(root.path(vehicleStatusPPSPath), "@vehstat\nE_CALL_BtnStat::0\nU_CALL_BtnStat::0\n");
    UnitFixture::SetUp();
    healthyCar();
  }

  // Blink timer threads left running would use the process objects while
  // they are destroyed at exit.
  void TearDown() override {
    EXPECT_TRUE(waitForBlinkTimers());
    fakeBus::drain();
  }

  void connectChannel() { ASSERT_NO_FATAL_FAILURE(micro.connect()); }

  vehicleMicro micro;
};

}  // namespace orcTest
