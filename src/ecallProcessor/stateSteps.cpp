// What one turn of the main state machine does: the request check, the step
// of the state the pulse finds it in, and the helpers the steps share.
// Everything here runs on the state machine thread; the request (type and
// mode) was read once at the start of the turn.
#include "ecallMain/ecallMain.h"
#include "common/jsonText.h"
#include "ecallProcessor/ecallProcessor.h"
#include "ecallProcessor/processorTimers.h"
#include "externalServiceHandling/embeddedPhone.h"
#include "externalServiceHandling/externalServiceHandling.h"
#include "orcImpact/CANImpactECallHandler.h"
#include "platform/clocks.h"
#include "platform/runtime.h"
#include "platform/slog.h"

namespace {

constexpr int ecallDelaySeconds = 10;
constexpr unsigned dialRetryMs = 60000;
constexpr unsigned psapPromptDelayMs = 6000;
constexpr unsigned ringToneOpenMs = 100;
constexpr unsigned ringTonesMs = 8000;
constexpr unsigned answerAfterPromptMs = 5000;


}  // namespace

// ---- One turn: the request check, the step of the state, and the helpers
// every step uses ----

// Type and mode both cleared means the emergency is over (ended, cancelled,
// or failed for good): a call in progress is wound down into the 30 s
// callback period.
void ecallStateMachine::checkRequest() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  if (type != ecallMain::NONE || mode != ecallMain::CALL_NONE) return;
  if (state == ECALL_SM_IDLE) {
    emitEcall(false, type, mode);
    // An emergency given up before its call began (cancelled while it
    // waited for the phone or a number) is over too.
    processor.closeCallTimings();
  } else if (state != ECALL_SM_WAIT_FOR_END_FROM_HMI) {
    endCall();
  }
}

void ecallStateMachine::endCall() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  processor.markCallStage(callTimings::END);
  // No connection is awaited any more: a dial still pending must not report
  // a time-out into the callback period or idle.
  timers().stopEcallTimeoutTimer();
  processor.firstPsapTtsCount = 0;
  if (!callStateIs("CALL_STATE_IDLE")) processor.hangUpCall();
  extServHandle.abortCurrentTtsMsg();
  // Written before the car is told, so that what the head unit sees next
  // (the signal, the LED) follows without the disk between them. A test
  // call is never written to the journal: a restart forgets it.
  if (!testCallInHand) processor.mJournal.callbackPeriod(platform::scaledMs(CALLBACK_PERIOD_MS));
  emitEcall(false, ecallMain::NONE, ecallMain::CALL_NONE);
  timers().startEcallStateMachineTimer(CALLBACK_PERIOD_MS);
  canIpcEmergencyHandler.setLedStatus(LED_OFF);
  if (testCallInHand) processor.addEntryToEmergencyLog("Test call ended\n");
  playPrompt(testCallInHand ? TTS_PROMPT_TEST_ENDED : TTS_PROMPT_ENDED);
  dialAllowed = true;
  state = ECALL_SM_WAIT_FOR_END_FROM_HMI;
  act = startCall = delayStart = false;
  // Told once the car has been given back its audio and light.
  processor.closeCallTimings();
}

void ecallStateMachine::runStep() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  switch (state) {
    case ECALL_SM_IDLE: stepIdle(); break;
    case ECALL_SM_CALL_DELAY: stepCallDelay(); break;
    case ECALL_SM_MAKE_CALL: stepMakeCall(); break;
    case ECALL_SM_WAIT_TO_CONNECT: stepWaitToConnect(); break;
    case ECALL_SM_CALL_ACTIVE: stepCallActive(); break;
    case ECALL_SM_CALL_ACTIVE_WAIT_FOR_PSAP_TTS: stepWaitForPsapTts(); break;
    case ECALL_SM_WAIT_FOR_END_FROM_HMI: stepWaitForEndFromHmi(); break;
    case ECALL_SM_INCOMING_CALL_OPEN_AUDIO_FOR_RING_TONES: stepOpenAudioForRingTones(); break;
    case ECALL_SM_INCOMING_CALL_WAIT_RING_TONES_COMPLETE: stepWaitRingTonesComplete(); break;
    case ECALL_SM_INCOMING_CALL_ANSWER: stepAnswer(); break;
    case ECALL_SM_INCOMING_CALL_WAIT_FOR_CALL_ACTIVE: stepWaitForCallActive(); break;
    default:
      scope.sendFormattedWarning("Ecall State Machine in an unknown state, returning to idle.\n");
      sendtoSlog(_SLOG_ERROR, "Ecall State Machine in an unknown state, returning to idle.\n");
      processor.clearECallEvent();
      state = ECALL_SM_IDLE;
      break;
  }
}

void ecallStateMachine::emitEcall(bool ecall, ecallMain::eEmergencyType signalType,
                                  ecallMain::eCallModeType signalMode) {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  processor.ecallSignalActive = ecall;
  std::string number;
  if (ecall && signalType == ecallMain::TEST_CALL) number = processor.testCallNumber.get();
  else if (ecall) number = processor.getLocalEcallNumber();
  emitEmergencySignal(ecall, signalType, number, signalMode, processor.btCallActive.load(),
                      processor.getEcallModeActive());
}

bool ecallStateMachine::callStateIs(const char* part) const { return processor.curCallState.contains(part); }

void ecallStateMachine::playPrompt(eECallTtsPrompt prompt) {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  {
    std::lock_guard<std::mutex> lock(processor.promptSequenceMutex);
    processor.activeTts = prompt;
  }
  extServHandle.playTtsMsg(prompt);
}

// ---- ECALL_SM_IDLE ----

void ecallStateMachine::stepIdle() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  if (type == ecallMain::TEST_CALL) {
    if (startCall) startTestCall();
  } else if (startCall || delayStart) {
    startEmergency();
  } else if (pulseCode == ECALL_PULSE_RUN_STATE_MACHINE && type != ecallMain::NONE &&
             processor.waitingForNumber.exchange(false)) {
    // The retry period of an emergency without number ran out, or a number
    // came: the request starts again as it first started.
    startCall = mode != ecallMain::CALL_ECALL_DELAY;
    delayStart = !startCall;
    startEmergency();
  } else if (type == ecallMain::Emergency_Callback) {
    startCallback();
  }
}

// Without an emergency number there is nothing to dial, but the emergency is
// not given up: it stays requested and is tried again at the retry period,
// or as soon as the phone reports a number. Once per loss of the number the
// failure is raised.
bool ecallStateMachine::readNumberOrRaiseFailure() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  processor.waitingForNumber = false;
  const unsigned storedBefore = processor.numbersStored;
  if (processor.readECallNumber()) {
    processor.markCallStage(callTimings::NUMBER_READ);
    processor.errorSentForNoEcallNumberLoaded = false;
    return true;
  }
  scope.sendFormattedError("PSAP ecall number not set in the embedded phone\n");
  sendtoSlog(_SLOG_WARNING, "PSAP ecall number not set in the embedded phone\n");
  processor.waitingForNumber = true;
  // A number the phone reported while this read failed is taken at once.
  timers().startEcallStateMachineTimer(processor.numbersStored != storedBefore ? 1 : dialRetryMs);
  if (processor.errorSentForNoEcallNumberLoaded.exchange(true)) return false;
  if (processor.systemErrorSent) {
    const std::string& cause = ecallSystemFailure::sDescription[ecallSystemFailure::NO_ECALL_NUMBER];
    processor.addFormattedEntryToEmergencyLog("System error message generated again due to %s\n", cause.c_str());
    emitEcall(false, type, ecallMain::CALL_SYSTEM_ERROR);
  }
  processor.setEcallSystemFailureState(ecallSystemFailure::NO_ECALL_NUMBER, true);
  processor.addEntryToEmergencyLog("Error failed to obtain PSAP number\n");
  return false;
}

void ecallStateMachine::startEmergency() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  extServHandle.getCurrentLanguage();
  extServHandle.getVehicleBrand();
  if (!readNumberOrRaiseFailure()) return;
  if (startCall) {
    scope.sendFormattedMessage("State Machine: prep for Ecall.\n");
    processor.addFormattedEntryToEmergencyLog("ACR triggered on %s\n",
                                                 ecallMain::EmergencyEventDescription[type].c_str());
    timers().startEcallStateMachineTimer(1);
    state = ECALL_SM_MAKE_CALL;
  } else {
    scope.sendFormattedMessage("State Machine: Delay start prep for Ecall.\n");
    processor.addFormattedEntryToEmergencyLog("Ecall delay %d before calling\n", ecallDelaySeconds);
    timers().startDelayEcallStartTimer();
    state = ECALL_SM_CALL_DELAY;
  }
  scope.sendFormattedMessage("emit ecall true signal case 1, in statemachine, for acn ecall or btn ecall");
  processor.setEcallModeActive(true);
  canIpcEmergencyHandler.setLedStatus(LED_SOLID_GREEN);
  emitEcall(true, type, mode);
  takeCarForTheCall();
  playPrompt(state == ECALL_SM_CALL_DELAY ? TTS_PROMPT_INITIATE : TTS_PROMPT_DIALING);
}

void ecallStateMachine::takeCarForTheCall() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  extServHandle.requestEcallAudioSource();
  processor.asyncStopAssistApp();
  extServHandle.disableBluetooth();
  processor.hangUpCall();
  extServHandle.requestEcallAudioSource();
  extServHandle.setMicInputMuteState(true);
}

void ecallStateMachine::startCallback() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  scope.sendFormattedMessage("State Machine: Handle incoming call.\n");
  processor.setEcallModeActive(true);
  canIpcEmergencyHandler.setLedStatus(LED_SOLID_GREEN);
  emitEcall(true, ecallMain::Emergency_Callback, mode);
  extServHandle.getCurrentLanguage();
  extServHandle.getVehicleBrand();
  extServHandle.requestEcallAudioSource();
  processor.getDefaultVolumes();
  scope.sendFormattedMessage("emit ecall true signal case 5, in statemachine, for callback");
  extServHandle.disableBluetooth();
  extServHandle.setMicInputMuteState(false);
  processor.addEntryToEmergencyLog("Incoming Call\n");
  timers().startEcallStateMachineTimer(ringToneOpenMs);
  state = ECALL_SM_INCOMING_CALL_OPEN_AUDIO_FOR_RING_TONES;
}

// ---- ECALL_SM_CALL_DELAY ----

void ecallStateMachine::stepCallDelay() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  if (delayStart) {
    // A second press during the delay is the user's cancel.
    processor.clearECallEvent();
    processor.addEntryToEmergencyLog("User cancelled mode during Ecall delay\n");
  } else if (startCall) {
    scope.sendFormattedMessage("State Machine: make Ecall.\n");
    playPrompt(TTS_PROMPT_DIALING);
    timers().startEcallStateMachineTimer(1);
    state = ECALL_SM_MAKE_CALL;
  }
}

// ---- ECALL_SM_MAKE_CALL ----

void ecallStateMachine::stepMakeCall() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  // Every failed attempt arms the retry period, whose run pulse dials again.
  // A call-ended pulse does not dial: the end reason and the TERMINATED state
  // of one call both send one, and the first already armed the retry.
  const bool redialPulse = pulseCode == ECALL_PULSE_RUN_STATE_MACHINE;
  if (testCallLeaving && waitForTestCallToLeave()) return;
  if (pulseCode == ECALL_PULSE_DIAL_FAILED) {
    if (!callStateIs("CALL_STATE_IDLE")) return;
    timers().stopEcallTimeoutTimer();
    scope.sendFormattedError("Dial request failed in the embedded phone, trying again in %dms\n",
                             static_cast<int>(dialRetryMs));
    retryDialLater();
  } else if (callStateIs("CALL_STATE_IDLE") && (redialPulse || dialAllowed)) {
    dial();
  } else if (callStateIs("CALL_STATE_DIALING") || callStateIs("CALL_STATE_ALERTING") ||
             callStateIs("CALL_STATE_ACTIVE")) {
    scope.sendFormattedMessage("callstate alerting. wait to connect");
    timers().startEcallTimeoutTimer();
    state = ECALL_SM_WAIT_TO_CONNECT;
    // The phone's reports may come faster than the machine's turns: a call
    // already active when it is first seen must not wait for a report that
    // has come and gone.
    if (callStateIs("CALL_STATE_ACTIVE")) timers().startEcallStateMachineTimer(1);
  } else if (pulseCode == ECALL_PULSE_CONNECT_TIMEOUT) {
    // The dial was accepted but the phone never left idle: a failed attempt,
    // dialled again after the retry period.
    timers().stopEcallTimeoutTimer();
    scope.sendFormattedError(
        "PSAP ecall timeout when attempting to make the call (no transition out of IDLE), sending failed so retry strategy can kick in\n");
    processor.addEntryToEmergencyLog("Error: Call state did not transition after successful dial request\n");
    emitEcall(true, type, ecallMain::CALL_FAILED);
    armRetry();
  } else if (redialPulse) {
    // Another call rings (the centre calling back, any incoming call): the
    // retry period runs again, so the emergency is dialled once it is gone.
    const std::string callState = processor.getCurCallState();
    scope.sendFormattedError("Another call is in progress (%s), trying again in %dms\n", callState.c_str(),
                             static_cast<int>(dialRetryMs));
    armRetry();
  }
}

void ecallStateMachine::dial() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  // A test call dials its test number only, never the emergency number.
  const bool test = type == ecallMain::TEST_CALL;
  const std::string number = test ? processor.testCallNumber.get() : processor.getLocalEcallNumber();
  scope.sendFormattedMessage("callstate idle. dial the number now");
  processor.addFormattedEntryToEmergencyLog(test ? "Test call: calling %s\n" : "Calling %s\n", number.c_str());
  processor.mStageClock.dialSent(platform::monotonicMs());
  const SVCIPC_tError rc = test ? embeddedPhone::dialTestCall(number, ecallProcessor::onAsyncDialResult, &processor)
                                : embeddedPhone::dial(number, ecallProcessor::onAsyncDialResult, &processor);
  dialAllowed = false;
  if (rc >= 0) {
    timers().startEcallTimeoutTimer();
    return;
  }
  // Refused: tell the user it failed and try again after the retry period.
  scope.sendFormattedError("Failed dial emergency number, rc %d\n", rc);
  sendtoSlog(_SLOG_WARNING, "Failed to dial emergency number, rc 0x%0X\n", static_cast<unsigned>(rc));
  retryDialLater();
}

// A dial that failed, refused at once or in the phone's late reply: the
// user is told, and the run pulse of the retry period dials again.
void ecallStateMachine::retryDialLater() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  scope.sendFormattedMessage("emit ecall true signal case 3, type failed. in statemachine. async dial failed, will try again");
  emitEcall(true, type, ecallMain::CALL_FAILED);
  processor.addEntryToEmergencyLog("Error dial PSAP number failed\n");
  armRetry();
}

void ecallStateMachine::armRetry() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  if (testCallInHand && ++testCallFailures >= TEST_CALL_ATTEMPTS) {
    giveUpTestCall();
    return;
  }
  timers().startEcallStateMachineTimer(dialRetryMs);
}

// ---- ECALL_SM_WAIT_TO_CONNECT ----

void ecallStateMachine::stepWaitToConnect() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  if (callEnded) {
    // Ended before it became active: redial after the retry period.
    scope.sendFormattedError("PSAP ecall failed, trying again in %dms\n", static_cast<int>(dialRetryMs));
    timers().stopEcallTimeoutTimer();
    if (!callFailedLogged) {
      processor.addEntryToEmergencyLog("Error Call Failed\n");
      callFailedLogged = true;
    }
    emitEcall(true, type, ecallMain::CALL_FAILED);
    armRetry();
    state = ECALL_SM_MAKE_CALL;
  } else if (pulseCode == ECALL_PULSE_CONNECT_TIMEOUT) {
    // No timer is armed: the call state decides what comes next.
    timers().stopEcallTimeoutTimer();
    scope.sendFormattedError("PSAP ecall timeout, sending failed so retry strategy can kick in\n");
    emitEcall(true, type, ecallMain::CALL_FAILED);
    if (testCallInHand) {
      // A test line that does not answer is hung up: a failed attempt.
      processor.hangUpCall();
      armRetry();
      state = ECALL_SM_MAKE_CALL;
    }
  } else if (callStateIs("CALL_STATE_ACTIVE")) {
    timers().stopEcallTimeoutTimer();
    // Connected: a restart from here on does not dial again.
    if (!testCallInHand) processor.mJournal.placed();
    psapPrompt = testCallInHand              ? TTS_PROMPT_TEST_PSAP1
                 : mode == ecallMain::CALL_ACN ? TTS_PROMPT_ACN_PSAP1
                                               : TTS_PROMPT_ECALL_PSAP1;
    scope.sendFormattedMessage("Call active, delay %d ms for PSAP TTS", static_cast<int>(psapPromptDelayMs));
    processor.addFormattedEntryToEmergencyLog("Call Active.  Delay %d ms for PSAP TTS\n",
                                                 static_cast<int>(psapPromptDelayMs));
    timers().startEcallStateMachineTimer(psapPromptDelayMs);
    state = ECALL_SM_CALL_ACTIVE_WAIT_FOR_PSAP_TTS;
  }
}

// ---- ECALL_SM_CALL_ACTIVE_WAIT_FOR_PSAP_TTS ----

void ecallStateMachine::stepWaitForPsapTts() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  scope.sendFormattedMessage("ECALL_SM_CALL_ACTIVE_WAIT_FOR_PSAP_TTS");
  if (callEnded) {
    scope.sendFormattedMessage("ECALL_SM_CALL_ACTIVE_WAIT_FOR_PSAP_TTS, ecall ended");
    processor.clearECallEvent();
    processor.addEntryToEmergencyLog("Call ended\n");
    return;
  }
  if (pulseCode != ECALL_PULSE_RUN_STATE_MACHINE) return;
  bool playNow = false;
  {
    std::lock_guard<std::mutex> lock(processor.promptSequenceMutex);
    processor.firstPsapTtsCount = 2;
    if (processor.activeTts == TTS_PROMPT_DIALING || processor.activeTts == TTS_PROMPT_TEST_CALLING) {
      // The dialling prompt is still speaking: the completion handler starts
      // the centre's prompt when it ends.
      scope.sendFormattedMessage("ECALL_SM_CALL_ACTIVE_WAIT_FOR_PSAP_TTS, active tts is still ECAll dialing???? No way!!!");
      processor.firstPsapTtsWaitForComplete = true;
    } else {
      scope.sendFormattedMessage("ECALL_SM_CALL_ACTIVE_WAIT_FOR_PSAP_TTS, should play first PSAP TTS now");
      processor.firstPsapTtsWaitForComplete = false;
      playNow = true;
    }
    processor.activeTts = psapPrompt;
  }
  if (playNow) {
    processor.markCallStage(callTimings::ANNOUNCEMENT_STARTED);
    extServHandle.playTtsMsg(psapPrompt);
  }
  timers().startEcallStateMachineTimer(1);
  state = ECALL_SM_CALL_ACTIVE;
}

// ---- ECALL_SM_CALL_ACTIVE ----

void ecallStateMachine::stepCallActive() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  if (!callEnded) return;
  processor.clearECallEvent();
  processor.addEntryToEmergencyLog("Call ended\n");
}

// ---- ECALL_SM_WAIT_FOR_END_FROM_HMI: the 30 s callback period ----

void ecallStateMachine::stepWaitForEndFromHmi() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  if (type == ecallMain::TEST_CALL) {
    // A test call asked for as a resumed call-back period began: the period
    // is an emergency's, and a test never dials in it.
    processor.dropTestCall("the call-back period of an emergency is on");
  } else if (startCall || delayStart) {
    // A new emergency while the emergency mode is still on: dial at once.
    emitEcall(true, type, ecallMain::CALL_REDIAL_DURING_END);
    extServHandle.abortCurrentTtsMsg();
    extServHandle.getCurrentLanguage();
    canIpcEmergencyHandler.setLedStatus(LED_SOLID_GREEN);
    playPrompt(TTS_PROMPT_DIALING);
    processor.addEntryToEmergencyLog("ecall/acr happened during wait for exit emergency mode\n");
    timers().startEcallImmediateTimer();
    dialAllowed = true;
    state = ECALL_SM_MAKE_CALL;
  } else if (type == ecallMain::Emergency_Callback) {
    emitEcall(true, ecallMain::Emergency_Callback, mode);
    processor.addEntryToEmergencyLog("Incoming call during wait for exit emergency mode\n");
    timers().startEcallStateMachineTimer(ringToneOpenMs);
    state = ECALL_SM_INCOMING_CALL_OPEN_AUDIO_FOR_RING_TONES;
  } else if (pulseCode == ECALL_PULSE_RUN_STATE_MACHINE &&
             !timers().isTimerActive(processorTimers::timerStateMachine)) {
    // Only the end of the callback period ends the emergency mode: a run
    // pulse that was already queued when the period began is stale.
    endEmergencyMode();
  }
}

// The callback period is over: give back everything the call took.
void ecallStateMachine::endEmergencyMode() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  if (!callStateIs("CALL_STATE_IDLE")) processor.hangUpCall();
  if (!processor.bAssistAppActive) extServHandle.enableBluetooth();
  processor.exitEmergencyMode();
  extServHandle.setMicInputMuteState(false);
  extServHandle.releaseEcallAudioSource();
  scope.sendFormattedMessage(
      "emit ecall false since ecall mode is completed. in statemachine. sm idle, type none, mode none");
  processor.setEcallModeActive(false);
  emitEcall(false, type, mode);
  canIpcEmergencyHandler.setLedStatus(LED_OFF);
  processor.addEntryToEmergencyLog("End emergency mode\n");
  if (!testCallInHand) processor.mJournal.periodOver();
  testCallInHand = testCallLeaving = false;
  dialAllowed = true;
  callFailedLogged = false;
  state = ECALL_SM_IDLE;
}

// The service restarted during a call-back period: the emergency mode is on
// again for the rest of it, with what the period holds (the call's audio,
// Bluetooth off), so that the centre's call-back is served as before the
// restart; the period then ends as usual. An emergency that came first runs
// its own course.
void ecallStateMachine::resumeCallbackPeriod() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  if (state != ECALL_SM_IDLE || !extServHandle.getEmebeddedPhoneEnabledInVariant()) return;
  processor.setEcallModeActive(true);
  emitEcall(false, ecallMain::NONE, ecallMain::CALL_NONE);
  extServHandle.requestEcallAudioSource();
  extServHandle.disableBluetooth();
  timers().startEcallStateMachineTimer(static_cast<unsigned>(processor.resumedCallbackPeriodMs.load()));
  state = ECALL_SM_WAIT_FOR_END_FROM_HMI;
}

// ---- The emergency centre's callback ----
// In each of these states a call-ended pulse means the centre gave up before
// the call was answered; only the run pulse moves on.

void ecallStateMachine::stepOpenAudioForRingTones() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  if (callEnded) {
    processor.logPsapEndedIncomingCallAndClearCall();
  } else if (pulseCode == ECALL_PULSE_RUN_STATE_MACHINE) {
    processor.addEntryToEmergencyLog("Incoming Call - opening audio for 2 rings\n");
    processor.setRingVolume(processor.defaultPromptVol - 1);
    extServHandle.statePsseForRingTone(true);
    timers().startEcallStateMachineTimer(ringTonesMs);
    state = ECALL_SM_INCOMING_CALL_WAIT_RING_TONES_COMPLETE;
  }
}

void ecallStateMachine::stepWaitRingTonesComplete() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  processor.setRingVolume(processor.defaultPhoneVol);
  if (callEnded) {
    processor.logPsapEndedIncomingCallAndClearCall();
  } else if (pulseCode == ECALL_PULSE_RUN_STATE_MACHINE) {
    extServHandle.statePsseForRingTone(false);
    processor.addEntryToEmergencyLog("Incoming Call - close audio and play TTS\n");
    playPrompt(TTS_PROMPT_INCOMING);
    timers().startEcallStateMachineTimer(answerAfterPromptMs);
    state = ECALL_SM_INCOMING_CALL_ANSWER;
  }
}

void ecallStateMachine::stepAnswer() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  if (callEnded) {
    extServHandle.abortCurrentTtsMsg();
    processor.logPsapEndedIncomingCallAndClearCall();
  } else if (pulseCode == ECALL_PULSE_RUN_STATE_MACHINE) {
    const int64_t answerSentMs = platform::monotonicMs();
    if (processor.acceptEmergencyCallback() || processor.acceptEmergencyCallback())
      processor.mStageClock.mark(callTimings::CALLBACK_ANSWERED, answerSentMs);
    processor.addEntryToEmergencyLog("Incoming Call - answer phone cmd sent to embedded phone\n");
    timers().startEcallTimeoutTimer();
    state = ECALL_SM_INCOMING_CALL_WAIT_FOR_CALL_ACTIVE;
  }
}

void ecallStateMachine::stepWaitForCallActive() {
  CQVTraceScope scope(stateMachineTraceScope, __func__);
  if (callEnded) {
    processor.logPsapEndedIncomingCallAndClearCall();
  } else if (pulseCode == ECALL_PULSE_CONNECT_TIMEOUT) {
    timers().stopEcallTimeoutTimer();
    scope.sendFormattedError("Incoming Call - ecall timeout, ending the ecall state\n");
    processor.addEntryToEmergencyLog("Incoming Call - embedded phone was not able to answer, so ending the call\n");
    processor.clearECallEvent();
  } else if (callStateIs("CALL_STATE_ACTIVE")) {
    timers().stopEcallTimeoutTimer();
    processor.addEntryToEmergencyLog("Incoming Call - Active\n");
    timers().startEcallStateMachineTimer(1);
    state = ECALL_SM_CALL_ACTIVE;
  }
}
