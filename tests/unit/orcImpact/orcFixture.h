// Common ground of the emergency input, mirror LED, module reset and Assist
// tests: a temporary root holding the vehicle status object, the process
// objects, a vehicle with a healthy embedded phone, and the vehicle micro's
// end of the restraint controller channel.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "fake/fakeBus.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/runtime.h"
#include "support/testSupport.h"

namespace orcTest {

using Bytes = std::vector<uint8_t>;
using std::chrono::seconds;

// Listens where the service opens "/dev/ipc/ch12". The sockets are never
// closed, so a reader left blocked on the other end never wakes during exit.
struct vehicleMicro {
  int listenFd = -1;
  int fd = -1;
  mutable size_t ledMessages = 0;  // LED messages received so far

  void listenAtChannelPath() {
    const std::string path = platform::rootPath(orcIpcChannelPath);
    testSupport::makeDirs(path.substr(0, path.rfind('/')));
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    listenFd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    ASSERT_EQ(0, bind(listenFd, reinterpret_cast<sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, listen(listenFd, 4));
  }
  bool acceptHandler() { return (fd = accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK)) >= 0; }
  void send(const Bytes& msg) const { ASSERT_EQ(ssize_t(msg.size()), write(fd, msg.data(), msg.size())); }

  // The next message the handler wrote, within the deadline; empty if none.
  // Without a deadline only what is already there: enough after a call that
  // writes before it returns.
  Bytes next(std::chrono::milliseconds deadline = {}) const {
    pollfd p{fd, POLLIN, 0};
    uint8_t buffer[300];
    ssize_t n = poll(&p, 1, static_cast<int>(deadline.count())) == 1 ? read(fd, buffer, sizeof buffer) : 0;
    if (n > 0 && buffer[0] == ORC_MSG_LED_STATUS) ++ledMessages;
    return n > 0 ? Bytes(buffer, buffer + n) : Bytes{};
  }
  std::vector<Bytes> drain() const {
    std::vector<Bytes> out;
    for (Bytes msg = next(); !msg.empty(); msg = next()) out.push_back(msg);
    return out;
  }
};

class OrcFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::setTimeScale(0.001);
    fakeBus::reset();
    testSupport::makeDirs(root.path("/tmp"));
    testSupport::writeFile(root.path(vehicleStatusPPSPath), "@vehstat\nE_CALL_BtnStat::0\nU_CALL_BtnStat::0\n");
    createProcessObjects();
    extServHandle.mEmbeddedPhoneEnabled = true;
    extServHandle.mVariantInfoKnown = true;
    ecallHandler.emdPhOn = 1;
    embeddedPhAvail = 1;
  }

  // Each LED message is followed by its log entry on the thread that sent
  // it; once those entries are written no blink timer thread is at work,
  // and the process may end.
  void TearDown() override {
    EXPECT_TRUE(testSupport::waitUntil([this] {
      return log.countTrace("Start add entry to internal log file: send LED status") >= micro.ledMessages &&
             log.countTrace("Internal log file write success.") == log.countTrace("Start add entry to internal log");
    }));
    fakeBus::drain();
  }

  void connectChannel() {
    micro.listenAtChannelPath();
    ASSERT_TRUE(canIpcEmergencyHandler.openOrcIpcChannel());
    ASSERT_TRUE(micro.acceptHandler());
  }
  bool logHas(const std::string& text) const {
    return testSupport::readFile(root.path(emergencyLogPath)).find(text) != std::string::npos;
  }

  testSupport::TempRoot root;
  testSupport::LogCapture log;
  vehicleMicro micro;
};

}  // namespace orcTest
