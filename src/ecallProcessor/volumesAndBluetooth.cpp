// Phone and prompt volumes at the audio mixer, the ring volume during a
// callback, and the call state of a Bluetooth-connected phone.
#include <cstring>

#include "ecallMain/ecallMain.h"
#include "common/jsonText.h"
#include "ecallProcessor/ecallProcessor.h"
#include "externalServiceHandling/serviceRequests.h"

namespace {

// The prompt volume used once the mixer has answered.
constexpr int32_t kPromptVolume = 12;

}  // namespace

void ecallProcessor::getDefaultVolumes() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  std::string reply;
  SVCIPC_tError rc = extServ::invokeSync(extServ::audioMixerService, "getProperties",
                                         extServ::propertyQuery("volumeLevel"), &reply);
  if (rc < 0) return;
  Json::Value root;
  if (!jsonParse(reply.c_str(), root)) return;

  defaultPhoneVol = jsonGetInt(extServ::member(extServ::member(root, "volumeLevel"), "FRONT_L_SPKR"), "PHONE", 0);
  defaultPromptVol = kPromptVolume;
}

void ecallProcessor::setRingVolume(int step) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  Json::Value body(Json::objectValue);
  body["source"] = "PHONE";
  body["step"] = step;
  body["user"] = "driver";
  // The reply is handled like the dial request's.
  extServ::invokeAsync(extServ::audioMixerService, "adjustVolume", jsonWrite(body), "dial");
}

void ecallProcessor::onSubcribedBTSignal(const char* sigName, const char* data, void* context) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  auto& self = *static_cast<ecallProcessor*>(context);
  const bool willDisconnect = self.mWillDisconnBT;
  // While Bluetooth is being switched off its phone's call state means nothing.
  if (willDisconnect || sigName == nullptr || std::strcmp(sigName, "callState") != 0) {
    scope.sendFormattedMessage("mWillDisconnBT = %d", willDisconnect ? 1 : 0);
    return;
  }
  const char* text = data != nullptr ? data : "";
  scope.sendFormattedMessage("Received BT call state info %s\n", text);

  Json::Value root;
  if (!jsonParse(text, root)) {
    scope.sendFormattedError("failed to parse bluetooth callstate json value\n");
    return;
  }
  const Json::Value calls = extServ::member(root, "callStateInfo");
  const Json::ArrayIndex count = calls.isArray() ? calls.size() : 0;
  scope.sendFormattedMessage("callstateArray size %d\n", static_cast<int>(count));

  // Any call that is not idle means the Bluetooth phone is busy.
  bool active = false;
  for (Json::ArrayIndex i = 0; i < count && !active; ++i) {
    const Json::Value state = extServ::member(calls[i], "callState");
    if (state.isNull()) continue;
    active = !(state.isString() && state.asString() == "idle");
  }
  self.btCallActive = active;
}
