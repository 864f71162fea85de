// Common ground of the unit tests: a temporary root, the logs captured, the
// process objects on the fake bus with short timers and a healthy phone.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "ecallMain/ecallMain.h"
#include "ecallProcessor/processorTimers.h"
#include "fake/fakeBus.h"
#include "fake/processProbe.h"
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

// The test's channel in place of the state machine's: a test sees which pulse
// a request produces, without a state machine reacting.
struct PulseProbe : testSupport::PulseChannel {
  PulseProbe() : PulseProbe(processProbe::timers()) { processProbe::stateMachineSendChannel() = coid; }
  // Only the given timers deliver to the probe (no process objects needed).
  explicit PulseProbe(processorTimers& timers) { timers.create(chid); }
};
