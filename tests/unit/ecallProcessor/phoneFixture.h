// Common ground of the phone status, emergency number, USB port and start-up
// tests: a temporary root, the three process objects, a vehicle with an
// embedded phone, the processor timers on a channel of the test (so that no
// state machine reacts to them), and the emergency log's text.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "ecallProcessor/processorTimers.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "fake/fakeBus.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/pulses.h"
#include "platform/runtime.h"
#include "support/testSupport.h"

namespace phoneTest {

class ProcessorFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    // Full-length timers: a started timer is still running when looked at.
    platform::setTimeScale(1.0);
    createProcessObjects();
    extServHandle.mEmbeddedPhoneEnabled = true;
    extServHandle.mVariantInfoKnown = true;
    fakeBus::reset();
  }

  void createTimersOnTestChannel() {
    timerChannel = qnx::ChannelCreate(0);
    ASSERT_GT(timerChannel, 0);
    createProcessorTimers(timerChannel);
  }

  std::string emergencyLog() const { return testSupport::readFile(root.path(emergencyLogPath)); }

  size_t emergencyLogCount(const std::string& part) const {
    const std::string text = emergencyLog();
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
    return count;
  }

  testSupport::TempRoot root;
  testSupport::LogCapture log;
  int timerChannel = -1;
};

inline void answer(const std::string& method, const std::string& result) {
  fakeBus::Reply reply;
  reply.result = result;
  fakeBus::setReply(EMBEDDED_PHONE_SERVICE, method, reply);
}

inline void failRequests(const std::string& method) {
  fakeBus::Reply reply;
  reply.rc = SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_SERVICE_ERROR);
  fakeBus::setReply(EMBEDDED_PHONE_SERVICE, method, reply);
}

inline size_t phoneRequests(const std::string& method) { return fakeBus::requests(EMBEDDED_PHONE_SERVICE, method).size(); }

}  // namespace phoneTest
