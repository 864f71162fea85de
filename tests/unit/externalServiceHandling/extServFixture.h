// Common ground of the external services tests: an odometer, and the fake
// peers' answers.
#pragma once

#include "unit/unitFixture.h"

namespace extServTest {

inline const std::string kTts = "com.nordak.service.TextToSpeechService";
inline const std::string kNdr = "com.nordak.service.NDR";
inline const std::string kMixer = "com.nordak.service.AudioMixerManager";
inline const std::string kAudioCtrl = "com.nordak.service.AudioCtrlSvc";
inline const std::string kPsse = "com.nordak.service.psseControlService";
inline const std::string kBluetooth = "com.nordak.service.BluetoothService";
inline const std::string kPlatform = "com.nordak.service.platform";

inline fakeBus::Reply answer(const std::string& result) { return fakeBus::Reply{SVCIPC_ERROR_NONE, result}; }
inline fakeBus::Reply failure() {
  return fakeBus::Reply{SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_SERVICE_ERROR)};
}

// The Bluetooth call state after a signal; the flag starts as before, so
// that an unchanged flag shows.
inline bool btActiveAfter(const char* sigName, const char* data, bool before) {
  ecallHandler.btCallActive = before;
  ecallProcessor::onSubcribedBTSignal(sigName, data, nullptr);
  return ecallHandler.btCallActive;
}

class ExtServTest : public UnitFixture {
 protected:
  void SetUp() override {
    testSupport::writeFile(root.path("/pps/can/vehstat"), "@vehstat\nODO::1234567\n");
    UnitFixture::SetUp();
    // Asynchronous replies belong to the processor: keep them out of these tests.
    const fakeBus::Reply silent{.noAnswer = true};
    fakeBus::setReply(kTts, "ttsReadout", silent);
    fakeBus::setReply(kMixer, "setMixerMute", silent);
    fakeBus::setReply(kMixer, "adjustVolume", silent);
    fakeBus::setReply(kBluetooth, "setBluetoothStatus", silent);
    fakeBus::clearCalls();
  }
  static std::vector<std::string> requested() { return fakeBus::requestTexts(); }
};

}  // namespace extServTest
