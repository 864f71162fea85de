// Common ground of the unit tests: a temporary root, every trace and system
// log line captured, the process objects on the fake bus with short timers,
// a vehicle with a healthy embedded phone, and readers for what the service
// wrote and asked.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "ecallMain/ecallMain.h"
#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "ecallProcessor/processorTimers.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "fake/fakeBus.h"
#include "fake/processProbe.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/pulses.h"
#include "platform/runtime.h"
#include "support/testSupport.h"

inline const SVCIPC_tError kRefused = SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_SERVICE_ERROR);
// A successful answer of a peer, or a refused request.
inline fakeBus::Reply answer(const std::string& result) { return fakeBus::Reply{SVCIPC_ERROR_NONE, result}; }
inline fakeBus::Reply refused() { return fakeBus::Reply{kRefused, ""}; }
inline size_t requestCount(const char* busName, const char* method) { return fakeBus::requests(busName, method).size(); }

class UnitFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::setTimeScale(0.001);
    fakeBus::reset();
    createProcessObjects();
    processProbe::mVariantInfoKnown() = true;
    processProbe::mEmbeddedPhoneEnabled() = true;
    processProbe::emdPhOn() = 1;
    processProbe::embeddedPhAvail() = 1;
  }

  std::string emergencyLog() const { return testSupport::readFile(root.path(emergencyLogPath)); }
  // How many entries of the log hold part.
  size_t logCount(const std::string& part) const {
    size_t n = 0;
    for (const std::string& line : testSupport::splitLines(emergencyLog())) n += line.find(part) != std::string::npos;
    return n;
  }

  testSupport::TempRoot root;
  testSupport::LogCapture log;
};

// A channel of the test in place of the state machine's: the timers and the
// pulse senders deliver to it, so a test sees which pulse a request produces
// without a state machine reacting.
class PulseProbe {
 public:
  PulseProbe() : PulseProbe(processProbe::timers()) { processProbe::stateMachineSendChannel() = mConnection; }
  // Only the given timers deliver to the probe (no process objects needed).
  explicit PulseProbe(processorTimers& timers)
      : mChannel(qnx::ChannelCreate(0)), mConnection(qnx::ConnectAttach(0, 0, mChannel, qnx::_NTO_SIDE_CHANNEL, 0)) {
    timers.create(mChannel);
  }
  // The code of the next pulse, or -1 when none came within the deadline
  // (the channel is then destroyed to free the receiver).
  int next(std::chrono::milliseconds deadline = std::chrono::seconds(5)) {
    auto received = std::async(std::launch::async, [this] {
      qnx::_pulse pulse{};
      return qnx::MsgReceive(mChannel, &pulse, sizeof pulse, nullptr) == 0 ? pulse.code : -1;
    });
    if (received.wait_for(deadline) == std::future_status::timeout) qnx::ChannelDestroy(mChannel);
    return received.get();
  }
  // True when nothing but a pulse of the test's own, sent now, is queued.
  bool nothingQueued() {
    qnx::MsgSendPulse(mConnection, qnx::getprio(0), kSentinel, 0);
    return next() == kSentinel;
  }

 private:
  static constexpr int kSentinel = 99;
  int mChannel;
  int mConnection;
};
