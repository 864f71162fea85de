// Common ground of the phone status, emergency number, USB port and start-up
// tests: a temporary root, the process objects, a vehicle with an embedded
// phone, and the emergency log's text.
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
    platform::setTimeScale(1.0);  // a started timer is still running when looked at
    createProcessObjects();
    extServHandle.mEmbeddedPhoneEnabled = true;
    extServHandle.mVariantInfoKnown = true;
    fakeBus::reset();
  }
  // The timers pulse a channel of the test, so no state machine reacts.
  void createTimersOnTestChannel() {
    const int channel = qnx::ChannelCreate(0);
    ASSERT_GT(channel, 0);
    createProcessorTimers(channel);
  }
  size_t emergencyLogCount(const std::string& part) const {
    const std::string text = testSupport::readFile(root.path(emergencyLogPath));
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
  }

  testSupport::TempRoot root;
  testSupport::LogCapture log;
};

inline void answer(const std::string& method, const std::string& result, SVCIPC_tError rc = SVCIPC_ERROR_NONE) {
  fakeBus::Reply reply;
  reply.result = result;
  reply.rc = rc;
  fakeBus::setReply(EMBEDDED_PHONE_SERVICE, method, reply);
}

inline size_t phoneRequests(const std::string& method) { return fakeBus::requests(EMBEDDED_PHONE_SERVICE, method).size(); }

inline const SVCIPC_tError kFailed = SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_NO_REPLY);

}  // namespace phoneTest
