#include "standIns.h"

namespace headunit {

namespace {
const char* const kOk = "{\"result\":\"OK\"}\n";
}

BusService::Answer FixedService::answer(const std::string& method, const Json::Value&) {
  auto it = mAnswers.find(method);
  if (it == mAnswers.end()) return error("unknown method " + method);
  return {false, it->second};
}

FixedServices standIns() {
  FixedServices services;
  auto add = [&](const char* name, std::map<std::string, std::string> answers) {
    services.push_back(std::make_unique<FixedService>(name, std::move(answers)));
  };
  add("AudioMixerManager", {{"requestInformationSource", kOk},
                            {"releaseInformationSource", kOk},
                            {"registerMuteClient", "{\"id\":1}\n"},
                            {"unregisterMuteClient", kOk},
                            {"adjustVolume", kOk},
                            {"setMixerMute", kOk},
                            // The phone's volume at the middle of its range.
                            {"getProperties", "{\"volumeLevel\":{\"FRONT_L_SPKR\":{\"PHONE\":18}}}\n"}});
  add("AudioCtrlSvc", {{"setMux", kOk}});
  // No hands-free scenario is active: no Bluetooth call holds the audio.
  add("psseControlService", {{"getSHF_Scenario", "{}\n"}, {"setSHF_Scenario", kOk}});
  add("BluetoothService", {{"switchBluetoothOff", kOk}, {"setBluetoothStatus", kOk}});
  add("AppManager", {{"stopApp", kOk}});
  add("HMIGateWay", {{"displayGlobalPopupByMsgId", kOk}});
  return services;
}

}  // namespace headunit
