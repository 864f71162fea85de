// Signals of the embedded phone, the speech service and the audio control:
// the phone's call state and end reasons keep the processor's call fields up
// to date and wake the state machine; the prompt completions chain the
// announcement for the emergency centre; DTMF keys let the operator ask for
// the position. All of it runs on the bus thread and leaves every decision
// about the call to the state machine.
#include <cstring>

#include "ecallMain/ecallMain.h"
#include "common/jsonText.h"
#include "ecallProcessor/ecallProcessor.h"
#include "ecallProcessor/processorTimers.h"
#include "externalServiceHandling/audioSignals.h"
#include "externalServiceHandling/embeddedPhone.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "platform/clocks.h"

namespace {

// End reasons of the phone that mean the call is over even when no call
// state follows.
constexpr int callEndingWendReasons[] = {3, 17, 68, 32768};

bool isPsapPrompt(int prompt) {
  return (prompt >= TTS_PROMPT_ECALL_PSAP1 && prompt <= TTS_PROMPT_GPS_COORDINATES) ||
         prompt == TTS_PROMPT_TEST_PSAP1 || prompt == TTS_PROMPT_TEST_PSAP2;
}

}  // namespace

void ecallProcessor::onSubcribedSignal(const char* sigName, const char* data, void* context) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  auto& self = *static_cast<ecallProcessor*>(context);
  if (!sigName) return;
  const char* payload = data ? data : "";
  if (strcmp(sigName, "callState") == 0) {
    scope.sendFormattedMessage("received embedded phone call state %s\n", payload);
    self.processEmdPhCallState(payload);
  } else if (strcmp(sigName, "embeddedPhoneStatus") == 0) {
    self.processEmdPhStatusSignal(payload);
  } else if (strcmp(sigName, "wendReason") == 0) {
    scope.sendFormattedMessage("received embedded wendReason %s\n", payload);
    self.processWendReason(payload);
  } else if (strcmp(sigName, "antennaStatus") == 0) {
    self.processAntennaStatusSignal(payload);
  } else if (strcmp(sigName, "ttsPlayState") == 0) {
    self.processTtsPlayState(payload);
  } else if (strcmp(sigName, "DTMF") == 0) {
    self.processDtmf(payload);
  }
}

void ecallProcessor::processEmdPhCallState(const char* data) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  // The emergency call is the last entry of an emergency call type that is
  // not the phone's service number; an empty number is judged by its type.
  const std::vector<embeddedPhone::callEntry> entries = embeddedPhone::emergencyCallEntries(data);
  const bool wasIdle = curCallState.equals("CALL_STATE_IDLE");
  for (const embeddedPhone::callEntry& entry : entries) {
    curCallState.set(entry.state);
    scope.sendFormattedMessage("ecallState %s, phonenumber %s\n", entry.state.c_str(),
                               entry.hasNumber ? entry.number.c_str() : "isNULL");
  }
  // A report that holds no emergency call entry says nothing about it.
  if (entries.empty()) return;
  const std::string number = entries.back().number;
  if (curCallState.empty() || !extServHandle.getEmebeddedPhoneEnabledInVariant()) return;

  if (curCallState.equals("CALL_STATE_RINGING") && isPhoneNumberValid(number.c_str())) {
    // Any ringing call from a real number while no emergency call is in
    // hand (none requested, or one still waiting for its number) is taken
    // as the emergency centre calling back.
    std::lock_guard<std::mutex> lock(mRequestMutex);
    const bool idle = curECallType == ecallMain::NONE;
    if (idle || waitingForNumber.exchange(false)) {
      // The call-back is a call of its own, triggered by its ringing; an
      // emergency that waited for its number gives way, its call over.
      if (!idle) closeCallTimings();
      mStageClock.begin(platform::monotonicMs());
      curECallType = ecallMain::Emergency_Callback;
      curCallModeType = ecallMain::CALL_EMERGENCY_CALLBACK;
      sendStateMachinePulse(ECALL_PULSE_EMERGENCY_INCOMING_CALL);
      return;
    }
  }
  if (curECallType == ecallMain::NONE) {
    if (curCallState.equals("CALL_STATE_TERMINATED")) {
      curCallState.set("CALL_STATE_IDLE");
      callConnected = false;
    }
    return;
  }

  const bool dialing = curCallState.equals("CALL_STATE_DIALING");
  const bool alerting = curCallState.equals("CALL_STATE_ALERTING");
  const bool active = curCallState.equals("CALL_STATE_ACTIVE");
  if (dialing || alerting) {
    markCallStage(dialing ? callTimings::DIALLING : callTimings::ALERTING);
    timers().startEcallStateMachineTimer(1);
  } else if (active) {
    markCallStage(callTimings::ACTIVE);
    callConnected = true;
    // Logged before the state machine is woken, so the log keeps the order.
    if (curECallType == ecallMain::Emergency_Callback && !number.empty()) {
      addFormattedEntryToEmergencyLog("Incoming Call from number %s\n", number.c_str());
    }
    timers().startEcallStateMachineTimer(1);
  } else if (curCallState.equals("CALL_STATE_TERMINATED") || (curCallState.equals("CALL_STATE_IDLE") && !wasIdle)) {
    // A phone may report a call's end only as its return to idle.
    curCallState.set("CALL_STATE_IDLE");
    callConnected = false;
    btCallActive = false;
    sendStateMachinePulse(ECALL_PULSE_PSAP_CALL_ENDED);
  }
  if ((dialing || alerting || active) && curCallModeType == ecallMain::CALL_ECALL_DELAY) {
    // The call is under way: the delay can no longer be cancelled.
    curCallModeType = ecallMain::CALL_ECALL;
    scope.sendFormattedMessage("switch curECallType from CALL_ECALL_DELAY to CALL_ECALL");
  }
}

void ecallProcessor::processWendReason(const char* data) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  int serviceNumber = 0;
  if (!embeddedPhone::parseWendReason(data, serviceNumber)) return;
  scope.sendFormattedMessage("wendReason service number = %d\n", serviceNumber);
  for (int reason : callEndingWendReasons) {
    if (serviceNumber != reason) continue;
    scope.sendFormattedMessage("Ecall mode CALL END due to wend service number = %d\n", serviceNumber);
    curCallState.set("CALL_STATE_IDLE");
    callConnected = false;
    btCallActive = false;
    sendStateMachinePulse(ECALL_PULSE_PSAP_CALL_ENDED);
    return;
  }
}

// The announcement for the emergency centre is two prompts in a row (8 then
// 9, or 10 then 11 after a crash, 15 then 16 in a test call); the
// microphones open again after the second.
void ecallProcessor::processTtsPlayState(const char* data) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  if (activeTts == TTS_PROMPT_NONE) return;
  const std::string playState = audioSignals::ttsPlayState(data);
  scope.sendFormattedMessage("tts play state %s, active prompt %d\n", playState.c_str(), activeTts.load());
  if (playState == "aborted") {
    if (activeTts == TTS_PROMPT_INCOMING) timers().startEcallStateMachineTimer(1);
    extServHandle.playTtsMsgHasCompleted();
    return;
  }
  if (playState != "notPlaying") return;

  extServHandle.playTtsMsgHasCompleted();
  std::lock_guard<std::mutex> lock(promptSequenceMutex);
  const int prompt = activeTts;
  if (firstPsapTtsWaitForComplete) {
    // The dialling prompt ended: the centre's first prompt may start now.
    firstPsapTtsWaitForComplete = false;
    if (prompt == TTS_PROMPT_ECALL_PSAP1 || prompt == TTS_PROMPT_ACN_PSAP1 || prompt == TTS_PROMPT_TEST_PSAP1) {
      markCallStage(callTimings::ANNOUNCEMENT_STARTED);
      extServHandle.ayncPlayTtsMsg(static_cast<eECallTtsPrompt>(prompt));
    } else {
      activeTts = TTS_PROMPT_NONE;
    }
  } else if (firstPsapTtsCount > 0) {
    if (--firstPsapTtsCount == 0) {
      markCallStage(callTimings::ANNOUNCEMENT_FINISHED);
      extServHandle.asyncSetMicInputMuteState(false);
      activeTts = TTS_PROMPT_NONE;
    } else if (prompt == TTS_PROMPT_ECALL_PSAP1 || prompt == TTS_PROMPT_ECALL_PSAP2) {
      activeTts = TTS_PROMPT_ECALL_PSAP2;
      extServHandle.ayncPlayTtsMsg(TTS_PROMPT_ECALL_PSAP2);
    } else if (prompt == TTS_PROMPT_ACN_PSAP1 || prompt == TTS_PROMPT_ACN_PSAP2) {
      activeTts = TTS_PROMPT_ACN_PSAP2;
      extServHandle.ayncPlayTtsMsg(TTS_PROMPT_ACN_PSAP2);
    } else if (prompt == TTS_PROMPT_TEST_PSAP1 || prompt == TTS_PROMPT_TEST_PSAP2) {
      activeTts = TTS_PROMPT_TEST_PSAP2;
      extServHandle.ayncPlayTtsMsg(TTS_PROMPT_TEST_PSAP2);
    }
  } else {
    // The callback prompt ended: answer now rather than after the pause.
    if (prompt == TTS_PROMPT_INCOMING) timers().startEcallStateMachineTimer(1);
    activeTts = TTS_PROMPT_NONE;
  }
  if (activeTts == TTS_PROMPT_NONE) errorSentForNoEcallNumberLoaded = false;
}

// The operator's keys: 0 to speak with the occupants (the announcement
// stops and the microphones open), 1 for the position.
void ecallProcessor::processDtmf(const char* data) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const int key = audioSignals::dtmfKey(data);
  scope.sendFormattedMessage("dtmf detected: %d\n", key);
  if (!ecallModeActive || (key != 0 && key != 1)) return;
  addFormattedEntryToEmergencyLog("Rx DTMF: %d\n", key);
  std::lock_guard<std::mutex> lock(promptSequenceMutex);
  if (isPsapPrompt(activeTts)) {
    scope.sendFormattedMessage("DTMF received, abort current TTS");
    firstPsapTtsCount = 0;
    activeTts = TTS_PROMPT_NONE;
    extServHandle.asyncAbortCurrentTtsMsg();
    extServHandle.asyncSetMicInputMuteState(false);
  }
  if (key == 1) {
    activeTts = TTS_PROMPT_GPS_COORDINATES;
    extServHandle.ayncPlayTtsMsg(TTS_PROMPT_GPS_COORDINATES);
  }
}
