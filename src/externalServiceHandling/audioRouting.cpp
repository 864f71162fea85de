// Audio routing of an emergency call: the call's information source at the
// audio mixer, the phone source and microphone muting, and the hands-free
// (PSSE) scenario that plays the embedded phone's ring tone.
#include "ecallMain/ecallMain.h"
#include "common/jsonText.h"
#include "ecallProcessor/processorInputs.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "externalServiceHandling/serviceRequests.h"
#include "platform/slog.h"

namespace {

const char* const kRingToneScenario = "Embedded_255_1";

std::string sourceBody() {
  Json::Value body(Json::objectValue);
  body["source"] = "ecall";
  return jsonWrite(body);
}

std::string scenarioBody(const char* mode, const std::string& scenario) {
  Json::Value body(Json::objectValue);
  body["mode"] = mode;
  body["scenario"] = scenario;
  return jsonWrite(body);
}

// Routes one microphone multiplexer to input ("OFF" silences it).
SVCIPC_tError setMux(const char* name, const char* input) {
  Json::Value body(Json::objectValue);
  body["gain"] = 0;
  body["input"] = input;
  body["name"] = name;
  return extServ::invokeSync(extServ::audioCtrlService, "setMux", jsonWrite(body));
}

}  // namespace

void externalServiceHandling::requestEcallAudioSource() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  ecallAudioSourceSet(true);
}

void externalServiceHandling::releaseEcallAudioSource() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  ecallAudioSourceSet(false);
}

void externalServiceHandling::ecallAudioSourceSet(bool request) {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  const char* method = request ? "requestInformationSource" : "releaseInformationSource";
  SVCIPC_tError rc = extServ::invokeSync(extServ::audioMixerService, method, sourceBody());
  if (rc >= 0) return;
  if (request) {
    scope.sendFormattedError("Failed to request ecall information source, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "Failed to request ecall information source, rc 0x%0X\n", rc);
  } else {
    scope.sendFormattedError("Failed to release ecall information source, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "Failed to release ecall information source, rc 0x%0X\n", rc);
  }
}

void externalServiceHandling::registerMuteClient() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  Json::Value body(Json::objectValue);
  body["service"] = "ecallservice";
  std::string reply;
  SVCIPC_tError rc = extServ::invokeSync(extServ::audioMixerService, "registerMuteClient", jsonWrite(body), &reply);
  if (rc < 0) {
    scope.sendFormattedError("Failed to register mute client, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "Failed to register mute client, rc 0x%0X\n", rc);
    return;
  }
  Json::Value root;
  jsonParse(reply.c_str(), root);
  mMuteClientId = jsonGetInt(root, "id", 0);
}

void externalServiceHandling::unregisterMuteClient() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  Json::Value body(Json::objectValue);
  body["id"] = mMuteClientId.load();
  SVCIPC_tError rc = extServ::invokeSync(extServ::audioMixerService, "unregisterMuteClient", jsonWrite(body));
  if (rc < 0) {
    scope.sendFormattedError("Failed to unregister mute client, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "Failed to unregister mute client, rc 0x%0X\n", rc);
  }
}

void externalServiceHandling::setSourceMute(bool mute) {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  Json::Value body(Json::objectValue);
  body["id"] = mMuteClientId.load();
  body["input"] = "PHONE";
  body["mute"] = mute;
  SVCIPC_tError rc = extServ::invokeAsync(extServ::audioMixerService, "setMixerMute", jsonWrite(body), "mutePhone");
  if (rc < 0) {
    const char* state = mute ? "true" : "false";
    scope.sendFormattedError("Failed to set phone mute status to %s, rc %d\n", state, rc);
    sendtoSlog(_SLOG_WARNING, "Failed to set phone mute status to %s, rc 0x%0X\n", state, rc);
  }
}

void externalServiceHandling::setMicInputMuteState(bool mute) {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  setSourceMute(mute);
  mProcessor.addEntryToEmergencyLog(mute ? "Request mute mic inputs\n" : "Request unmute mic inputs\n");
  emitECallProgressSignal(mute ? ECALL_PROGRESS_MIC_MUTED : ECALL_PROGRESS_MIC_UNMUTED);

  // Microphone 2 follows only when microphone 1 took the request; the phone
  // source stays as set above whatever happens here.
  SVCIPC_tError rc = setMux("mic1_mux1", mute ? "OFF" : "MIC1");
  if (rc < 0) {
    if (mute) {
      scope.sendFormattedError("Unable to mute mic1 input, rc %d\n", rc);
      sendtoSlog(_SLOG_WARNING, "Unable to mute mic1 input, rc 0x%0X\n", rc);
    } else {
      scope.sendFormattedError("Unable to unmute mic1 input, rc %d\n", rc);
      sendtoSlog(_SLOG_WARNING, "Unable to unmute mic1 input, rc 0x%0X\n", rc);
    }
    return;
  }
  rc = setMux("mic2_mux1", mute ? "OFF" : "MIC2");
  if (rc < 0) {
    if (mute) {
      scope.sendFormattedError("Unable to mute mic2 input, rc %d\n", rc);
      sendtoSlog(_SLOG_WARNING, "Unable to mute mic2 input, rc 0x%0X\n", rc);
    } else {
      scope.sendFormattedError("Unable to unmute mic2 input, rc %d\n", rc);
      sendtoSlog(_SLOG_WARNING, "Unable to unmute mic2 input, rc 0x%0X\n", rc);
    }
  }
}

void externalServiceHandling::statePsseForRingTone(bool start) {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  // No other phone's scenario may stay active beside the embedded phone's,
  // whether the ring tone starts or stops.
  stopAnyNonEmbeddedPsseSource();
  extServ::invokeSync(extServ::psseService, "setSHF_Scenario", scenarioBody(start ? "START" : "STOP", kRingToneScenario));
}

void externalServiceHandling::stopAnyNonEmbeddedPsseSource() {
  CQVTraceScope scope(externalServiceHandlingTraceScope, __func__);
  std::string reply;
  SVCIPC_tError rc = extServ::invokeSync(extServ::psseService, "getSHF_Scenario", sourceBody(), &reply);
  if (rc < 0) {
    scope.sendFormattedError("Unable to get psse source, rc %d\n", rc);
    sendtoSlog(_SLOG_WARNING, "Unable to get psse source, rc 0x%0X\n", rc);
    return;
  }
  Json::Value root;
  jsonParse(reply.c_str(), root);
  const std::string scenario = jsonGetString(root, "scenario", "");
  // No scenario named, or one of the embedded phone's own: leave it running.
  if (scenario.empty() || scenario.find("Embedded") != std::string::npos) return;
  extServ::invokeSync(extServ::psseService, "setSHF_Scenario", scenarioBody("STOP", scenario));
}
