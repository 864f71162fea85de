#include "audioServices.h"

namespace sim {

namespace {
std::string member(const Json::Value& params, const char* name) {
  return params.isObject() ? params.get(name, "").asString() : "";
}
}  // namespace

SimService::Answer MixerService::answer(const std::string& method, const Json::Value& params) {
  std::lock_guard<std::mutex> lock(mMutex);
  if (method == "requestInformationSource") {
    mSources.insert(member(params, "source"));
    return ok();
  }
  if (method == "releaseInformationSource") {
    mSources.erase(member(params, "source"));
    return ok();
  }
  if (method == "registerMuteClient") {
    Json::Value reply(Json::objectValue);
    reply["id"] = mNextMuteClient++;
    return result(reply);
  }
  if (method == "unregisterMuteClient" || method == "adjustVolume") return ok();
  if (method == "setMixerMute") {
    std::string input = member(params, "input");
    bool mute = params.isObject() && params.get("mute", false).isBool() && params["mute"].asBool();
    if (mute)
      mMuted.insert(input);
    else
      mMuted.erase(input);
    return ok();
  }
  if (method == "getProperties") {
    Json::Value reply(Json::objectValue);
    reply["volumeLevel"]["FRONT_L_SPKR"]["PHONE"] = mPhoneVolume;
    return result(reply);
  }
  return error("unknown method " + method);
}

std::string MixerService::setVolume(int volume) {
  std::lock_guard<std::mutex> lock(mMutex);
  mPhoneVolume = volume;
  return "ok phone volume " + std::to_string(volume);
}

std::string MixerService::status() const {
  std::lock_guard<std::mutex> lock(mMutex);
  std::string sources, muted;
  for (const auto& s : mSources) sources += (sources.empty() ? "" : ",") + s;
  for (const auto& m : mMuted) muted += (muted.empty() ? "" : ",") + m;
  return "audio=" + (sources.empty() ? std::string("none") : sources) +
         " muted=" + (muted.empty() ? std::string("none") : muted) + " volume=" + std::to_string(mPhoneVolume);
}

SimService::Answer AudioControlService::answer(const std::string& method, const Json::Value& params) {
  if (method == "setMux") {
    std::string name = member(params, "name");
    if (name.empty()) return error("setMux without a name");
    std::lock_guard<std::mutex> lock(mMutex);
    mMux[name] = member(params, "input");
    return ok();
  }
  return error("unknown method " + method);
}

std::string AudioControlService::dtmf(int key) {
  Json::Value data(Json::objectValue);
  data["KeyPressed"] = key;
  emitLater(0, "DTMF", jsonText(data));
  return "ok DTMF " + std::to_string(key);
}

std::string AudioControlService::status() const {
  std::lock_guard<std::mutex> lock(mMutex);
  std::string text = "mics=";
  bool first = true;
  for (const auto& [name, input] : mMux) {
    text += (first ? "" : ",") + name + ":" + input;
    first = false;
  }
  return text;
}

SimService::Answer PsseService::answer(const std::string& method, const Json::Value& params) {
  std::lock_guard<std::mutex> lock(mMutex);
  if (method == "getSHF_Scenario") {
    // With no scenario active the answer names none.
    Json::Value reply(Json::objectValue);
    if (!mScenario.empty()) reply["scenario"] = mScenario;
    return result(reply);
  }
  if (method == "setSHF_Scenario") {
    std::string mode = member(params, "mode");
    std::string scenario = member(params, "scenario");
    if (mode == "START") {
      mScenario = scenario;
    } else if (mode == "STOP") {
      if (scenario == mScenario) mScenario.clear();
    } else {
      return error("mode must be START or STOP");
    }
    return ok();
  }
  return error("unknown method " + method);
}

void PsseService::setScenario(const std::string& scenario) {
  std::lock_guard<std::mutex> lock(mMutex);
  mScenario = scenario;
}

std::string PsseService::scenario() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mScenario;
}

std::string PsseService::status() const { return "scenario=" + (scenario().empty() ? std::string("none") : scenario()); }

}  // namespace sim
