// Common ground of the external services tests: a temporary root, captured
// traces and system log, the process objects, short waits, and the fake
// peers' answers.
#pragma once

#include <gtest/gtest.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "ecallMain/processObjects.h"
#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "fake/fakeBus.h"
#include "platform/runtime.h"
#include "support/testSupport.h"

namespace extServTest {

inline const std::string kTts = "com.nordak.service.TextToSpeechService";
inline const std::string kNdr = "com.nordak.service.NDR";
inline const std::string kMixer = "com.nordak.service.AudioMixerManager";
inline const std::string kAudioCtrl = "com.nordak.service.AudioCtrlSvc";
inline const std::string kPsse = "com.nordak.service.psseControlService";
inline const std::string kBluetooth = "com.nordak.service.BluetoothService";
inline const std::string kPlatform = "com.nordak.service.platform";
inline const std::string kVehicleConfig = "com.nordak.service.VehicleConfig";
inline const std::string kVehicleStatus = "com.nordak.service.VehicleStatus";

inline const SVCIPC_tError kFailed = SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_SERVICE_ERROR);

inline fakeBus::Reply answer(const std::string& result) { return fakeBus::Reply{SVCIPC_ERROR_NONE, result}; }
inline fakeBus::Reply failure() { return fakeBus::Reply{kFailed}; }

class ExtServTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform::setTimeScale(0.001);
    // The emergency log stamps each entry with the odometer.
    testSupport::writeFile(root.path("/pps/can/vehstat"), "@vehstat\nODO::1234567\n");
    fakeBus::reset();
    // The asynchronous replies belong to the processor; keep them out of
    // these tests so that only this module's requests are seen.
    fakeBus::Reply silent;
    silent.noAnswer = true;
    for (const char* method : {"ttsReadout"}) fakeBus::setReply(kTts, method, silent);
    for (const char* method : {"setMixerMute", "adjustVolume"}) fakeBus::setReply(kMixer, method, silent);
    for (const char* method : {"switchBluetoothOff", "setBluetoothStatus"}) fakeBus::setReply(kBluetooth, method, silent);
    createProcessObjects();
    fakeBus::clearCalls();
    log.clear();
  }

  std::string emergencyLog() const { return testSupport::readFile(root.path("/fs/etfs/usr/var/ecall/ecall_log.txt")); }
  // How many entries of the emergency log end with text.
  size_t logEntries(const std::string& text) const {
    size_t count = 0;
    for (const auto& line : testSupport::splitLines(emergencyLog()))
      if (line.size() >= text.size() && line.compare(line.size() - text.size(), text.size(), text) == 0) ++count;
    return count;
  }

  // How many traces of this module contain part (the emergency log traces
  // the entries it writes as well).
  size_t ownTraces(const std::string& part) const {
    size_t count = 0;
    for (const auto& e : log.entries())
      if (e.scope == "ecallService_externalServiceHandling" && e.text.find(part) != std::string::npos) ++count;
    return count;
  }

  // The methods of the recorded requests, in order.
  static std::vector<std::string> requestedMethods() {
    std::vector<std::string> out;
    for (const auto& c : fakeBus::calls())
      if (c.kind == fakeBus::Call::Invoke || c.kind == fakeBus::Call::AsyncInvoke) out.push_back(c.method);
    return out;
  }

  testSupport::TempRoot root;
  testSupport::LogCapture log;
};

}  // namespace extServTest
