// Common ground of the unit tests: a temporary root, every trace and system
// log line captured, the process objects on the fake bus with short timers,
// and the emergency log read back.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "fake/fakeBus.h"
#include "platform/runtime.h"
#include "support/testSupport.h"

class UnitFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::setTimeScale(0.001);
    fakeBus::reset();
    createProcessObjects();
  }
  // A vehicle with a healthy embedded phone, its variant known.
  static void healthyCar() {
    extServHandle.mVariantInfoKnown = true;
    extServHandle.mEmbeddedPhoneEnabled = true;
    ecallHandler.emdPhOn = 1;
    embeddedPhAvail = 1;
  }

  std::string emergencyLog() const { return testSupport::readFile(root.path(emergencyLogPath)); }
  bool logHas(const std::string& text) const { return emergencyLog().find(text) != std::string::npos; }
  // The log's entries, without time stamp and odometer field.
  std::vector<std::string> logEntries() const {
    std::vector<std::string> out;
    for (const std::string& line : testSupport::splitLines(emergencyLog())) {
      const size_t stamp = line.find(" GMT:");
      if (stamp != std::string::npos) out.push_back(line.substr(line.find(':', stamp + 5) + 1));
    }
    return out;
  }
  size_t logCount(const std::string& part) const {
    size_t n = 0;
    for (const std::string& entry : logEntries()) n += entry.find(part) != std::string::npos;
    return n;
  }

  testSupport::TempRoot root;
  testSupport::LogCapture log;
};
