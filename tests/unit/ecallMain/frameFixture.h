// A service frame registered on the fake bus, on a temporary root, with the
// process objects made and every trace and system log line captured.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "ecallMain/ecallMain.h"
#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "fake/fakeBus.h"
#include "platform/runtime.h"
#include "support/testSupport.h"

class frameFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::setTimeScale(0.001);
    createProcessObjects();
    ASSERT_GE(SVCIPC_getConnection(SVCIPC_CONNECTION_DEFAULT, 0, &svcIPCConn), 0);
    ASSERT_GE(SVCIPC_registerService(svcIPCConn, ECALL_SERVICE_NAME, ECALL_SERVICE_PATH, 0, onECallRequest, nullptr,
                                     &svcIPCRegHnd),
              0);
  }

  std::string emergencyLog() const { return testSupport::readFile(root.path(emergencyLogPath)); }

  testSupport::TempRoot root;
  testSupport::LogCapture log;
};
